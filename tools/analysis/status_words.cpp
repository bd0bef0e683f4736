// SPDX-License-Identifier: MIT
#include "status_words.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <iterator>

namespace velta::analysis {

namespace {

struct Word {
  std::uint8_t code;
  const char* text;
};

constexpr std::uint8_t kFaultMode = 3;
constexpr Word kSystemModes[] = {{0, "servo off"}, {2, "servo on"}, {kFaultMode, "FAULT"}};
constexpr Word kControlModes[] = {{0, "trajectory"}, {1, "velocity"}, {2, "current"},  {5, "ext-force"},
                                  {7, "online-trj"}, {10, "fixed"},   {20, "position"}};
constexpr Word kTrajectoryStates[] = {{0, "idle"},         {1, "starting"},     {2, "moving"},    {3, "reached"},
                                      {4, "finished"},     {5, "cancelling"},   {6, "cancelled"}, {'f', "no point"},
                                      {'m', "servo off!"}, {'o', "interrupted"}};

template <std::size_t N>
std::string Find(const Word (&words)[N], std::uint8_t code) {
  const auto found =
      std::find_if(std::begin(words), std::end(words), [code](const Word& word) { return word.code == code; });
  return found != std::end(words) ? found->text : std::to_string(code);
}

}  // namespace

std::string SystemModeWord(std::uint8_t code) { return Find(kSystemModes, code); }
std::string ControlModeWord(std::uint8_t code) { return Find(kControlModes, code); }
std::string TrajectoryWord(std::uint8_t code) { return Find(kTrajectoryStates, code); }

bool HasFault(const rxJoint_t& joint) { return joint.systemMode == kFaultMode || joint.ewStatus != 0; }

std::string StatusWord(std::uint32_t ew_status) { return ew_status == 0 ? "ok" : fmt::format("{:#010x}", ew_status); }

}  // namespace velta::analysis
