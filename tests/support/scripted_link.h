// SPDX-License-Identifier: MIT
#ifndef VELTA_TESTS_SUPPORT_SCRIPTED_LINK_H_
#define VELTA_TESTS_SUPPORT_SCRIPTED_LINK_H_

#include <deque>
#include <utility>
#include <vector>

#include "AbstractClient.h"
#include "MasterControllerClient.h"

namespace velta::test {

/// A link in memory: reads come from a script, writes are kept.
class ScriptedLink : public AbstractClient {
 public:
  bool Init() override { return Connect(); }
  bool Connect() override {
    ++connects;
    if (connect_results.empty()) return true;
    const bool result = connect_results.front();
    connect_results.pop_front();
    return result;
  }
  int Disconnect() override { return ++disconnects; }
  int Read(std::vector<char>& data) override {
    if (reads.empty()) return read_result;
    data = std::move(reads.front());
    reads.pop_front();
    return static_cast<int>(data.size());
  }
  int Write(const std::vector<char>& data) override {
    writes.push_back(data);
    return write_result;
  }

  std::deque<bool> connect_results;
  std::deque<std::vector<char>> reads;
  int read_result = 0;  ///< when no read is scripted
  int write_result = 1;
  std::vector<std::vector<char>> writes;
  int connects = 0;
  int disconnects = 0;
};

/// A client on a scripted link, with its members within reach.
struct ScriptedClient : MasterControllerClient {
  explicit ScriptedClient(int n, ScriptedLink* owned = new ScriptedLink) : MasterControllerClient(n), link(owned) {
    client_ = link;
    is_init_ = is_connected_ = true;
  }
  using MasterControllerClient::client_;
  using MasterControllerClient::cur_send_packet_;
  using MasterControllerClient::is_init_;
  using MasterControllerClient::last_recv_host_timestamp_;
  using MasterControllerClient::last_send_timestamp_;
  using MasterControllerClient::mutex_;
  using MasterControllerClient::ready_to_send_;
  using MasterControllerClient::recv_buffer_;
  using MasterControllerClient::send_queue_;
  using MasterControllerClient::timeout_count_;
  using MasterControllerClient::unique_send_map_;
  using MasterControllerClient::wait_confirm_;
  using MasterControllerClient::wait_count_;

  ScriptedLink* const link;  ///< owned by the client
};

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_SCRIPTED_LINK_H_
