// SPDX-License-Identifier: MIT
#ifndef VELTA_PYTHON_STATES_H_
#define VELTA_PYTHON_STATES_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "RecvPacket.h"
#include "support.h"

namespace velta::python {

/// Many statuses of n joints as arrays.
class States {
 public:
  /// @param count  the most that are expected; memory is used for those that come only
  States(int joints, std::size_t count);

  void Add(const RecvPacket& packet, std::uint64_t received);

  /// The same from a whole frame with a right CRC.
  void AddFrame(const char* frame, std::uint64_t received);

  /// A velta.States; what is here is moved there. With the GIL.
  py::object ToPython();

  std::uint64_t left_out = 0;

 private:
  void AddHeader(const rxHeader_t& header, std::uint64_t received);

  int joints_;
  std::vector<rxJoint_t, LargePages<rxJoint_t>> records_;
  std::vector<std::uint64_t> time_, host_time_, received_;
  std::vector<float> duration_;
};

}  // namespace velta::python

#endif  // VELTA_PYTHON_STATES_H_
