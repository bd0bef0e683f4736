// SPDX-License-Identifier: MIT
#include <optional>

#include "recording_file.h"
#include "states.h"
#include "support.h"
#include "timeline.h"

namespace velta::python {

namespace {

/// Everything of a recording, as arrays.
struct Content {
  explicit Content(int joint_num) : joints(joint_num), states(joint_num, 0) {}

  /// @return false at the recording's end
  bool Read(recording::Timeline& timeline, int moments) {
    for (; moments > 0; --moments) {
      const std::optional<recording::Moment> moment = timeline.Next();
      if (!moment) return false;
      if (const RecvPacket* const status = moment->Status()) {
        states.Add(*status, moment->wall_ns);
      } else if (const SendPacket* const command = moment->Command()) {
        records.insert(records.end(), command->joints.begin(), command->joints.end());
        arm_order.push_back(command->header.armOrder);
        stamp.push_back(command->header.timeStamp);
        sent.push_back(moment->wall_ns);
      } else {
        events.emplace_back(moment->wall_ns, moment->event == recording::Event::kOpened ? "opened" : "closed");
      }
    }
    return true;
  }

  py::object Commands() {
    const auto count = static_cast<py::ssize_t>(stamp.size());
    const py::dtype integer = py::dtype::of<std::int64_t>();
    return py::module_::import("velta._tables")
        .attr("Commands")(Own(std::move(records), CommandRecord(), {count, joints}),
                          Own(std::move(sent), integer, {count}), Own(std::move(stamp), integer, {count}),
                          Own(std::move(arm_order), py::dtype::of<std::uint8_t>(), {count}));
  }

  py::list Events() const {
    const py::object make = py::module_::import("velta._tables").attr("RecordedEvent");
    py::list list;
    for (const auto& [time, kind] : events) list.append(make(time, kind));
    return list;
  }

  int joints;
  States states;
  std::vector<txJoint_t> records;
  std::vector<std::uint8_t> arm_order;
  std::vector<std::uint64_t> stamp, sent;
  std::vector<std::pair<std::uint64_t, const char*>> events;
};

py::object ReadRecording(const std::string& path) try {
  constexpr int kMomentsBetweenSignals = 100'000;
  std::optional<recording::Timeline> timeline;
  WithoutGil([&] {
    recording::Excerpt excerpt;
    excerpt.file = path;
    timeline.emplace(excerpt);
  });
  Content content(timeline->Joints());
  while (WithoutGil([&] { return content.Read(*timeline, kMomentsBetweenSignals); })) {
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
  }
  return py::module_::import("velta._tables")
      .attr("Recording")(timeline->RecordedLink(), timeline->Joints(), content.states.ToPython(), content.Commands(),
                         content.Events(), timeline->Commands().Lost() + timeline->Statuses().Lost());
} catch (const recording::RecordingError& error) {
  Raise("RecordingError", error.what());
}

}  // namespace

void AddRecording(py::module_& m) { m.def("_read_recording", &ReadRecording, py::arg("path")); }

}  // namespace velta::python
