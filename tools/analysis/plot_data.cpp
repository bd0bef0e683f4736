// SPDX-License-Identifier: MIT
#include "plot_data.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <sstream>

#include "command_words.h"
#include "errors.h"
#include "status_words.h"

namespace velta::analysis {

using recording::JointField;
using recording::Moment;

namespace {

double Seconds(const Moment& moment) { return static_cast<double>(moment.since_start_ns) / 1e9; }

}  // namespace

std::vector<const JointField*> ReadFields(const std::string& names) {
  std::vector<const JointField*> fields;
  std::istringstream stream(names + ",");
  for (std::string name; std::getline(stream, name, ',');) {
    const auto& all = recording::JointFields();
    const auto field = std::find_if(all.begin(), all.end(), [&](const JointField& each) { return name == each.name; });
    if (field == all.end()) throw UsageError("--fields: a status has no field '" + name + "'");
    fields.push_back(&*field);
  }
  return fields;
}

void PlotCurve::Add(std::size_t bin, PlotPoint point) {
  if (!std::isfinite(point.value)) return;
  std::optional<Bin>& b = bins_[bin];
  if (!b) b = Bin{point, point};
  if (point.value < b->least.value) b->least = point;
  if (point.value > b->greatest.value) b->greatest = point;
}

std::vector<PlotPoint> PlotCurve::Points() const {
  std::vector<PlotPoint> points;
  for (const std::optional<Bin>& b : bins_) {
    if (!b) continue;
    const bool rises = b->least.time <= b->greatest.time;
    points.push_back(rises ? b->least : b->greatest);
    if (b->least.value != b->greatest.value) points.push_back(rises ? b->greatest : b->least);
  }
  return points;
}

PlotEvents::PlotEvents(int joints) : before_(static_cast<std::size_t>(joints)) {
  for (const CommandWord& word : CommandWords()) {  // from the commands' own setters, so that no code is listed twice
    SendPacket packet(1);
    const std::array<float, 8> arguments{};
    word.apply(packet, "0", arguments.data());
    AddName(word.of_arm, word.of_arm ? packet.header.armOrder : packet.joints[0].order, word.name);
    if (word.of_arm || std::strchr(word.kinds, 'b') == nullptr) continue;
    const std::array<float, 8> flag{1, 1, 1, 1, 1, 1, 1, 1};
    word.apply(packet, "0", flag.data());
    AddName(false, packet.joints[0].order, word.name);
  }
}

void PlotEvents::Add(const Moment& moment, std::size_t bin, double time) {
  if (const RecvPacket* const status = moment.Status()) {
    AddStatus(*status, bin, time);
  } else if (const SendPacket* const command = moment.Command()) {
    AddCommand(*command, bin, time);
  } else {
    AddMark(kLink, bin, time, moment.event == recording::Event::kOpened ? "opened" : "closed");
  }
}

std::vector<PlotPoint> PlotEvents::Points() const {
  std::vector<PlotPoint> points;
  points.reserve(marks_.size());
  for (const Mark& mark : marks_) points.push_back({mark.time, static_cast<double>(mark.kind)});
  return points;
}

std::vector<PlotText> PlotEvents::Texts(double from, double to) const {
  constexpr std::array<double, 2> kLanes{0.25, -0.3};
  constexpr double kLettersAcross = 190;
  std::vector<PlotText> texts;
  std::array<std::array<double, kLanes.size()>, kKinds> free;
  for (auto& lanes : free) lanes.fill(from);
  for (const Mark& mark : marks_) {
    auto& lanes = free[static_cast<std::size_t>(mark.kind)];
    auto* const lane = std::find_if(lanes.begin(), lanes.end(), [&](double left) { return left <= mark.time; });
    if (mark.text.empty() || lane == lanes.end()) continue;
    const double height = static_cast<int>(mark.kind) + kLanes[static_cast<std::size_t>(lane - lanes.begin())];
    texts.push_back({mark.time, height, mark.text});
    *lane = mark.time + (to - from) * (static_cast<double>(mark.text.size()) + 2) / kLettersAcross;
  }
  return texts;
}

void PlotEvents::AddName(bool of_arm, int code, const std::string& name) {
  std::string& known = names_[{of_arm, code}];
  if (known.empty() || name.size() < known.size()) known = name;  // the common name of a family is the shortest
}

std::string PlotEvents::Name(bool of_arm, int code) const {
  const auto found = names_.find({of_arm, code});
  return found != names_.end() ? found->second : (of_arm ? "arm order " : "order ") + std::to_string(code);
}

/// Joints that share a word are named together; all of them are not named.
std::string PlotEvents::Text(const Words& words) const {
  std::string text;
  for (const auto& [word, joints] : words) {
    text += (text.empty() ? "" : ", ") + word;
    if (joints.size() == before_.size()) continue;
    for (std::size_t i = 0; i < joints.size() && i < 4; ++i) text += (i == 0 ? " j" : "/") + std::to_string(joints[i]);
    if (joints.size() > 4) text += "/..";
  }
  return text;
}

/// Points that fall on one column of the picture are one point.
void PlotEvents::AddMark(Kind kind, std::size_t bin, double time, const std::string& text) {
  auto& last = last_bin_[static_cast<std::size_t>(kind)];
  if (last == bin && text.empty()) return;
  last = bin;
  marks_.push_back({kind, time, text});
}

void PlotEvents::AddCommand(const SendPacket& command, std::size_t bin, double time) {
  Words words;
  if (command.header.armOrder != 0) words[Name(true, command.header.armOrder)] = {};
  for (std::size_t i = 0; i < command.joints.size(); ++i) {
    if (command.joints[i].order != 0) words[Name(false, command.joints[i].order)].push_back(i);
  }
  if (words.empty()) return;
  // Of a stream of like commands the first one is named.
  const std::string text = Text(words);
  AddMark(kCommand, bin, time, text == last_command_ ? "" : text);
  last_command_ = text;
}

void PlotEvents::AddStatus(const RecvPacket& status, std::size_t bin, double time) {
  Words modes, trajectories, faults;
  for (std::size_t i = 0; i < status.joints.size(); ++i) {
    const rxJoint_t& joint = status.joints[i];
    JointState& before = before_[i];
    const bool fault = HasFault(joint);
    const JointState now{joint.systemMode, joint.ctrlMode, joint.trjStatus, fault ? joint.ewStatus | 1u << 31 : 0u};
    if (!is_first_) {
      if (now.mode != before.mode) modes[SystemModeWord(joint.systemMode)].push_back(i);
      if (now.control != before.control) modes[ControlModeWord(joint.ctrlMode)].push_back(i);
      if (now.trajectory != before.trajectory) trajectories[TrajectoryWord(joint.trjStatus)].push_back(i);
    }
    if (now.fault != before.fault) faults[fault ? StatusWord(joint.ewStatus) : "cleared"].push_back(i);
    before = now;
  }
  is_first_ = false;
  if (!modes.empty()) AddMark(kMode, bin, time, Text(modes));
  if (!trajectories.empty()) AddMark(kTrajectory, bin, time, Text(trajectories));
  if (!faults.empty()) AddMark(kFault, bin, time, Text(faults));
}

PlotData::PlotData(std::vector<const JointField*> fields, std::vector<int> joints, int joint_number)
    : fields_(std::move(fields)),
      joints_(std::move(joints)),
      curves_(fields_.size() * joints_.size()),
      events_(joint_number) {}

void PlotData::Measure(const Moment& moment) {
  from_ = std::min(from_, Seconds(moment));
  to_ = std::max(to_, Seconds(moment));
  has_status_ = has_status_ || moment.Status() != nullptr;
}

void PlotData::Add(const Moment& moment) {
  const double time = Seconds(moment);
  const auto bin = static_cast<std::size_t>((time - from_) / (To() - from_) * (PlotCurve::kBins - 1));
  events_.Add(moment, bin, time);
  const RecvPacket* const status = moment.Status();
  if (status == nullptr) return;
  auto curve = curves_.begin();
  for (const JointField* const field : fields_) {
    for (const int joint : joints_) {
      (curve++)->Add(bin, {time, field->value(status->joints[static_cast<std::size_t>(joint)])});
    }
  }
}

}  // namespace velta::analysis
