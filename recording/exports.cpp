// SPDX-License-Identifier: MIT
#include "exports.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>
#include <ostream>

#include "fields.h"

namespace velta::recording {

namespace {

/// Judged by the bytes: an argument of -0 is an argument.
bool CarriesNothing(const txJoint_t& joint) {
  std::array<char, sizeof joint> bytes;
  std::memcpy(bytes.data(), &joint, bytes.size());
  return std::all_of(bytes.begin() + 1, bytes.end(), [](char byte) { return byte == 0; });  // all but the id
}

/// Seconds, exactly.
std::string Seconds(std::uint64_t ns) { return fmt::format("{}.{:09}", ns / 1'000'000'000, ns % 1'000'000'000); }

}  // namespace

CsvExport::CsvExport(std::ostream& out, int joints) : out_(out) {
  out_ << "time_s,wall_ns,timestamp,hostTimestamp,duration";
  for (int i = 0; i < joints; ++i) {
    for (const JointField& field : JointFields()) out_ << ",j" << i << '_' << field.name;
  }
  out_ << '\n';
}

void CsvExport::Write(const Moment& moment) {
  const RecvPacket* const status = moment.Status();
  if (status == nullptr) return;
  const rxHeader_t& header = status->header;
  fmt::memory_buffer row;
  const auto end = std::back_inserter(row);
  fmt::format_to(end, "{},{},{},{},{}", Seconds(moment.since_start_ns), moment.wall_ns, +header.timestamp,
                 +header.hostTimestamp, +header.duration);
  for (const rxJoint_t& joint : status->joints) {
    for (const JointField& field : JointFields()) {
      const double value = field.value(joint);
      if (field.is_real) {
        fmt::format_to(end, ",{}", static_cast<float>(value));
      } else {
        fmt::format_to(end, ",{}", static_cast<std::uint32_t>(value));
      }
    }
  }
  row.push_back('\n');
  out_.write(row.data(), static_cast<std::streamsize>(row.size()));
}

std::string CommandDocument(const SendPacket& command) {
  using Json = nlohmann::ordered_json;
  Json joints = Json::array();
  for (std::size_t i = 0; i < command.joints.size(); ++i) {
    const txJoint_t& joint = command.joints[i];
    if (CarriesNothing(joint)) continue;
    joints.push_back({{"jointName", fmt::to_string(i + 1)},
                      {"jointOrder", fmt::to_string(+joint.order)},
                      {"value1", fmt::to_string(+joint.value1)},
                      {"value2", fmt::to_string(+joint.value2)},
                      {"value3", fmt::to_string(+joint.value3)},
                      {"value4", fmt::to_string(+joint.value4)}});
  }
  return Json{{"timeStamp", fmt::to_string(+command.header.timeStamp)},
              {"armOrder", fmt::to_string(+command.header.armOrder)},
              {"jointCommand", joints}}
      .dump();
}

void JsonLinesExport::Write(const Moment& moment) {
  std::string event = moment.event == Event::kOpened ? R"("opened")" : R"("closed")";
  if (const RecvPacket* const status = moment.Status()) {
    client_.PushRecvBuffer(*status);
    event = R"("status","status":)" + client_.GetCurStateJson().at(0);
  } else if (const SendPacket* const command = moment.Command()) {
    event = R"("command","command":)" + CommandDocument(*command);
  }
  out_ << R"({"time_s":)" << Seconds(moment.since_start_ns) << R"(,"wall_ns":")" << moment.wall_ns << R"(","event":)"
       << event << "}\n";
}

}  // namespace velta::recording
