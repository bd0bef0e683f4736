// SPDX-License-Identifier: MIT
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

#include "frame_stream.h"
#include "protocol.h"
#include "recording_file.h"
#include "states.h"
#include "support.h"

namespace velta::python {

namespace {

/// Everything of a recording, as arrays.
class Content {
 public:
  explicit Content(const std::string& path)
      : reader_(path), joints(reader_.Header().joints), states(joints, FileSize(path) / statuses_.FrameSize()) {}

  const recording::RecordingHeader& Header() const { return reader_.Header(); }
  std::uint64_t LostBytes() const { return commands_.Lost() + statuses_.Lost(); }

  /// @return false at the recording's end
  bool Read(int count) {
    for (; count > 0; --count) {
      if (!reader_.Next(record_)) return false;
      switch (record_.event) {
        case recording::Event::kToHost:
          AddStatuses();
          break;
        case recording::Event::kToController:
          for (const SendPacket& command : commands_.Push(record_.bytes.data(), record_.bytes.size())) Add(command);
          break;
        case recording::Event::kOpened:
          commands_.Restart();
          statuses_.Restart();
          events.emplace_back(record_.wall_ns, "opened");
          break;
        case recording::Event::kClosed:
          events.emplace_back(record_.wall_ns, "closed");
          break;
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

 private:
  void Add(const SendPacket& command) {
    records.insert(records.end(), command.joints.begin(), command.joints.end());
    arm_order.push_back(command.header.armOrder);
    stamp.push_back(command.header.timeStamp);
    sent.push_back(record_.wall_ns);
  }

  void AddStatuses() {
    const char* bytes = record_.bytes.data();
    std::size_t size = record_.bytes.size();
    // A frame that begins and ends with what was read, as nearly all do, goes straight into the arrays.
    const std::size_t frame_size = statuses_.FrameSize();
    const bool has_tail = statuses_.Lost() != statuses_.Discarded();
    while (!has_tail && size >= frame_size && IsGoodFrame(bytes, frame_size)) {
      states.AddFrame(bytes, record_.wall_ns);
      bytes += frame_size;
      size -= frame_size;
    }
    if (size == 0) return;
    for (const RecvPacket& status : statuses_.Push(bytes, size)) states.Add(status, record_.wall_ns);
  }

  /// 0 where it is unknown, as of a pipe.
  static std::size_t FileSize(const std::string& path) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    return error ? 0 : size;
  }

  static bool IsGoodFrame(const char* bytes, std::size_t size) {
    return std::memcmp(bytes, kStartMark, sizeof kStartMark) == 0 && wire::CrcIsRight(bytes, size);
  }

  recording::RecordingReader reader_;
  recording::Record record_;
  wire::CommandStream commands_{reader_.Header().joints};
  wire::StatusStream statuses_{reader_.Header().joints};

 public:
  int joints;
  States states;
  std::vector<txJoint_t> records;
  std::vector<std::uint8_t> arm_order;
  std::vector<std::uint64_t> stamp, sent;
  std::vector<std::pair<std::uint64_t, const char*>> events;
};

py::object ReadRecording(const std::string& path) try {
  constexpr int kRecordsBetweenSignals = 100'000;
  const std::unique_ptr<Content> content = WithoutGil([&] { return std::make_unique<Content>(path); });
  while (WithoutGil([&] { return content->Read(kRecordsBetweenSignals); })) {
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
  }
  return py::module_::import("velta._tables")
      .attr("Recording")(content->Header().link, content->joints, content->states.ToPython(), content->Commands(),
                         content->Events(), content->LostBytes());
} catch (const recording::RecordingError& error) {
  Raise("RecordingError", error.what());
}

}  // namespace

void AddRecording(py::module_& m) { m.def("_read_recording", &ReadRecording, py::arg("path")); }

}  // namespace velta::python
