// SPDX-License-Identifier: MIT
#include "convert_capture.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <iostream>
#include <optional>
#include <ostream>
#include <vector>

#include "capture.h"
#include "command.h"
#include "counted.h"
#include "diagnosis.h"
#include "output_file.h"
#include "recording_file.h"
#include "stop.h"

namespace velta::tools {

using namespace recording;

namespace {

constexpr std::size_t kEnoughToFindJoints = std::size_t{256} * 1024;

struct Found {
  std::string link;
  int joints;
};

/// Looks at the beginning of a capture.
Found LookInto(const CaptureSource& source) {
  CaptureReader reader(source.file, source.port);
  std::vector<char> bytes;
  for (Captured captured; bytes.size() < kEnoughToFindJoints && reader.Next(captured);) {
    if (captured.event == Event::kToHost) bytes.insert(bytes.end(), captured.bytes.begin(), captured.bytes.end());
  }
  if (reader.Link().empty()) throw Failure(fmt::format("{}: nothing of port {} is in it", source.file, source.port));
  const int joints = source.joints != 0 ? source.joints : FitJointCount(bytes, kMaxJoints).value_or(0);
  if (joints != 0) return {reader.Link(), joints};
  throw Failure(source.file + ": too few good status frames to find the joint count; give it with --joints");
}

void Remark(const CaptureSource& source, const std::string& remark) {
  std::cerr << fmt::format("velta: {}: {}\n", source.file, remark);
}

}  // namespace

bool IsCapture(const std::string& path) {
  static constexpr std::array<std::uint32_t, 5> kMagics{0x0A0D0D0A, 0xA1B2C3D4, 0xD4C3B2A1, 0xA1B23C4D, 0x4D3CB2A1};
  std::ifstream file(path, std::ios::binary);
  std::uint32_t magic = 0;
  file.read(reinterpret_cast<char*>(&magic), sizeof magic);
  return file && std::find(kMagics.begin(), kMagics.end(), magic) != kMagics.end();
}

std::uint64_t WriteCapture(const Excerpt& excerpt, std::ostream& out) {
  RecordingReader reader(excerpt.file);
  CaptureWriter writer(out, reader.Header().link);
  std::optional<std::uint64_t> start;
  for (Record record; reader.Next(record) && !StopRequested();) {
    if (!start) start = record.monotonic_ns;
    const std::uint64_t time = record.monotonic_ns < *start ? 0 : record.monotonic_ns - *start;
    if (time > excerpt.to_ns) break;
    if (time >= excerpt.from_ns) writer.Write(record.event, record.wall_ns, record.bytes.data(), record.bytes.size());
    if (!out) throw Failure("cannot write the output");
  }
  if (StopRequested()) throw Failure("stopped before the end of the recording");
  return reader.LostTail();
}

void ReadCapture(const CaptureSource& source, const std::string& recording) {
  const auto [link, joints] = LookInto(source);
  CaptureReader reader(source.file, source.port);
  OutputFile output(recording);
  RecordingWriter writer(output.WorkingPath(), {joints, link}, true);
  std::uint64_t connections = 0, to_controller = 0, to_host = 0;
  for (Captured captured; !StopRequested() && reader.Next(captured);) {
    connections += captured.event == Event::kOpened ? 1 : 0;
    (captured.event == Event::kToController ? to_controller : to_host) += captured.bytes.size();
    // A capture has no monotonic clock; its times were put in order.
    writer.Write(captured.event, captured.wall_ns, captured.wall_ns, captured.bytes.data(), captured.bytes.size());
  }
  if (StopRequested()) throw Failure("stopped before the end of the capture");
  output.Commit();
  Out() << fmt::format("{}, {}: {}, {} to the controller, {} to the host in {}", link,
                       Counted(static_cast<std::uint64_t>(joints), "joint"), Counted(connections, "connection"),
                       Counted(to_controller, "byte"), Counted(to_host, "byte"), recording)
        << std::endl;
  if (reader.ForeignPackets() != 0) {
    Remark(source, Counted(reader.ForeignPackets(), "packet") + " of other hosts or controllers on this port left out");
  }
  if (reader.MissingBytes() != 0) Remark(source, Counted(reader.MissingBytes(), "byte") + " missing in it");
  if (reader.TruncatedPackets() != 0) {
    Remark(source, "it has only the first bytes of " + Counted(reader.TruncatedPackets(), "packet"));
  }
  if (reader.CutShort()) Remark(source, "it ends in the middle of a packet");
}

}  // namespace velta::tools
