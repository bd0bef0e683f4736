// SPDX-License-Identifier: MIT
#include "states.h"

#include <cstring>
#include <utility>

namespace velta::python {

States::States(int joints, std::size_t count) : joints_(joints) {
  records_.reserve(count * static_cast<std::size_t>(joints));
  for (auto* const column : {&time_, &host_time_, &received_}) column->reserve(count);
  duration_.reserve(count);
}

void States::Add(const RecvPacket& packet, std::uint64_t received) {
  records_.insert(records_.end(), packet.joints.begin(), packet.joints.end());
  AddHeader(packet.header, received);
}

void States::AddFrame(const char* frame, std::uint64_t received) {
  rxHeader_t header{};
  std::memcpy(&header, frame, sizeof header);
  const auto* const first = reinterpret_cast<const rxJoint_t*>(frame + sizeof header);  // records have no alignment
  records_.insert(records_.end(), first, first + joints_);
  AddHeader(header, received);
}

void States::AddHeader(const rxHeader_t& header, std::uint64_t received) {
  time_.push_back(header.timestamp);
  host_time_.push_back(header.hostTimestamp);
  received_.push_back(received);
  duration_.push_back(header.duration);
}

py::object States::ToPython() {
  const auto count = static_cast<py::ssize_t>(time_.size());
  const py::dtype integer = py::dtype::of<std::int64_t>();
  return py::module_::import("velta._tables")
      .attr("States")(Own(std::move(records_), StatusRecord(), {count, joints_}),
                      Own(std::move(received_), integer, {count}), Own(std::move(time_), integer, {count}),
                      Own(std::move(host_time_), integer, {count}),
                      Own(std::move(duration_), py::dtype::of<float>(), {count}), left_out);
}

}  // namespace velta::python
