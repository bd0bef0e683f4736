// SPDX-License-Identifier: MIT
// Any bytes: a packet takes exactly the frames of its size, and its document shows each number as printf would.
#include <cstring>
#include <nlohmann/json.hpp>

#include "RecvPacket.h"
#include "json_bridge.h"
#include "support/bytes.h"
#include "target.h"

namespace velta::fuzz {
namespace {

struct Field {
  const char* key;
  std::size_t offset, size;  // 0 for a real
};
constexpr Field kFields[] = {{"type", 0, 1},
                             {"comStatus", 1, 1},
                             {"systemMode", 2, 1},
                             {"ctrlMode", 3, 1},
                             {"ewStatus", 4, 4},
                             {"trjStatus", 8, 1},
                             {"trjViaRemain", 9, 2},
                             {"refCurrent", 11, 0},
                             {"refPosition", 15, 0},
                             {"refVelocity", 19, 0},
                             {"refAcceleration", 23, 0},
                             {"refEffort", 27, 0},
                             {"current", 31, 0},
                             {"position", 35, 0},
                             {"velocity", 39, 0},
                             {"outConvInVelocity", 43, 0},
                             {"acceleration", 47, 0},
                             {"outConvInAcceleration", 51, 0},
                             {"effort", 55, 0},
                             {"temperature", 59, 0},
                             {"general_0", 63, 0},
                             {"general_1", 67, 0},
                             {"general_2", 71, 0},
                             {"general_3", 75, 0}};

std::string Text(const char* bytes, std::size_t size) {
  if (size == 0) {
    float real = 0;
    std::memcpy(&real, bytes, 4);
    char text[64];
    return {text, static_cast<std::size_t>(std::snprintf(text, sizeof text, "%f", static_cast<double>(real)))};
  }
  std::uint64_t number = 0;
  std::memcpy(&number, bytes, size);
  return std::to_string(number);
}

void Run(Input& in) {
  const int n = static_cast<int>(in.Below(6)) - 1;
  const auto size = static_cast<std::size_t>(std::max(79 * n + 24, 0));
  const bool whole = in.Flag();
  std::vector<char> frame = in.Take(whole && size != 0 ? size - 2 : 1000);
  if (whole && size != 0) {
    frame.resize(size - 2);
    frame = test::Bytes().Add(frame).Crc();
  }
  RecvPacket packet(n);
  const bool fits = n >= 0 && frame.size() == size;
  const bool good = fits &&
                    static_cast<unsigned char>(frame[size - 2]) == (test::BitwiseCrc16(frame, size - 2) & 0xFF) &&
                    static_cast<unsigned char>(frame[size - 1]) == test::BitwiseCrc16(frame, size - 2) >> 8;
  Check(packet.Parse(frame) == good, "a frame of the right size and CRC, and no other, is taken");
  if (!fits) {
    Check(packet.header.startMark[0] == 0 && packet.header.timestamp == 0, "a wrong size changes nothing");
    return;
  }

  const int shown = static_cast<int>(in.Below(6)) - 1;
  static detail::StateDocument kept;  // what an earlier packet left must not show
  const std::string text = kept.Text(packet, shown);
  const auto document = nlohmann::json::parse(text);
  Check(document.size() == 4 && document["timestamp"] == Text(&frame[2], 8) &&
            document["hostTimestamp"] == Text(&frame[10], 8) && document["duration"] == Text(&frame[18], 0),
        "the header's numbers");
  const auto& joints = document["jointState"];
  Check(joints.size() == static_cast<std::size_t>(std::max(std::min(shown, n), 0)), "the joints that both have");
  for (std::size_t i = 0; i < joints.size(); ++i) {
    Check(joints[i].size() == 25 && joints[i]["joint_id"] == std::to_string(i + 1), "joints count from 1");
    for (const Field& field : kFields) {
      Check(joints[i][field.key] == Text(&frame[22 + 79 * i + field.offset], field.size), field.key);
    }
  }
}

const Registered kTarget("status_packet", Run);

}  // namespace
}  // namespace velta::fuzz
