// SPDX-License-Identifier: MIT
#ifndef VELTA_SRC_CLIENT_PARTS_H_
#define VELTA_SRC_CLIENT_PARTS_H_

#include <atomic>
#include <cstdint>
#include <vector>

#include "MasterControllerClient.h"
#include "json_bridge.h"

namespace velta::detail {

/// A number that one thread at a time changes and any thread reads.
class Counter {
 public:
  void Add(std::uint64_t more) { Set(Get() + more); }
  void Set(std::uint64_t value) { value_.store(value, std::memory_order_relaxed); }
  std::uint64_t Get() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::uint64_t> value_{0};
};

}  // namespace velta::detail

/// What a client keeps for itself: the counts behind GetStatistics(), and memory kept between calls.
struct MasterControllerClient::Parts {
  using Counter = velta::detail::Counter;

  // Changed by the receive step.
  Counter bytes_received, frames_received, frames_bad_crc, bytes_discarded, packets_refused;
  // Changed with mutex_ held.
  Counter packets_waiting, commands_queued, commands_dropped;
  // Changed by the send step.
  Counter frames_sent, frames_sent_again, commands_confirmed, commands_given_up;
  // Changed by Connect() and ReConnect().
  Counter reconnections;

  std::vector<char> read_bytes;  ///< empty between steps, unless memory ran out in one
  std::vector<char> joined_bytes;
  std::vector<char> write_bytes;
  std::vector<RecvPacket> spare_packets;
  velta::detail::StateDocument state_document;
};

#endif  // VELTA_SRC_CLIENT_PARTS_H_
