// SPDX-License-Identifier: MIT
#include "json_bridge.h"

#include <picojson.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "text.h"

namespace velta::detail {

namespace {

using picojson::array;
using picojson::object;
using picojson::value;

void Assign(std::string& text, float number) { AssignFixed(text, number); }

/// "%d", "%u" and "%lu": the plain decimal of every integer field.
template <typename Integer, typename = std::enable_if_t<std::is_integral_v<Integer>>>
void Assign(std::string& text, Integer number) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
  text.assign(digits, end);
}

/// Adds a string member. The reference stays good while the object lives, whatever is added to it.
std::string& AddText(object& members, const char* key) {
  return members.emplace(key, value(std::string())).first->second.get<std::string>();
}

/// Text under construction, written a character at a time at half the price of std::string.
class Output {
 public:
  using value_type = char;

  explicit Output(std::size_t expected) { MakeRoom(expected); }

  void push_back(char c) {
    if (at_ == end_) MakeRoom(text_.size());
    *at_++ = c;
  }

  void Append(const char* text, std::size_t size) {
    std::for_each(text, text + size, [&](char c) { push_back(c); });
  }

  std::string Take() {
    text_.resize(Used());
    return std::move(text_);
  }

 private:
  std::size_t Used() const { return static_cast<std::size_t>(at_ - text_.data()); }

  void MakeRoom(std::size_t more) {
    const std::size_t used = at_ != nullptr ? Used() : 0;
    text_.resize(text_.size() + more);
    at_ = text_.data() + used;
    end_ = text_.data() + text_.size();
  }

  std::string text_;
  char* at_ = nullptr;
  char* end_ = nullptr;
};

/// One joint's object, built once and overwritten for every joint of every packet.
class JointDocument {
 public:
  JointDocument(const JointDocument&) = delete;
  JointDocument& operator=(const JointDocument&) = delete;
  JointDocument() : root_(object()) {
    object& members = root_.get<object>();
    std::transform(kKeys.begin(), kKeys.end(), texts_.begin(), [&](const char* key) { return &AddText(members, key); });
  }

  void Write(std::size_t joint_id, const rxJoint_t& joint, Output& output) {
    auto text = texts_.begin();
    const auto put = [&text](auto number) { Assign(**text++, number); };  // in the order of kKeys
    put(joint_id);
    put(joint.type);
    put(joint.comStatus);
    put(joint.systemMode);
    put(joint.ctrlMode);
    put(joint.ewStatus);
    put(joint.trjStatus);
    put(joint.trjViaRemain);
    put(joint.refCurrent);
    put(joint.refPosition);
    put(joint.refVelocity);
    put(joint.refAcceleration);
    put(joint.refEffort);
    put(joint.current);
    put(joint.position);
    put(joint.velocity);
    put(joint.outConvInVelocity);
    put(joint.acceleration);
    put(joint.outConvInAcceleration);
    put(joint.effort);
    put(joint.temperature);
    for (int i = 0; i < 4; ++i) put(joint.general[i]);
    root_.serialize(std::back_inserter(output));
  }

 private:
  static constexpr std::array<const char*, 25> kKeys = {"joint_id",
                                                        "type",
                                                        "comStatus",
                                                        "systemMode",
                                                        "ctrlMode",
                                                        "ewStatus",
                                                        "trjStatus",
                                                        "trjViaRemain",
                                                        "refCurrent",
                                                        "refPosition",
                                                        "refVelocity",
                                                        "refAcceleration",
                                                        "refEffort",
                                                        "current",
                                                        "position",
                                                        "velocity",
                                                        "outConvInVelocity",
                                                        "acceleration",
                                                        "outConvInAcceleration",
                                                        "effort",
                                                        "temperature",
                                                        "general_0",
                                                        "general_1",
                                                        "general_2",
                                                        "general_3"};

  value root_;
  std::array<std::string*, kKeys.size()> texts_;
};

/// A whole document, built once and overwritten for every packet.
class StateDocument {
 public:
  StateDocument() : root_(object()) {
    object& members = root_.get<object>();
    duration_ = &AddText(members, "duration");
    host_timestamp_ = &AddText(members, "hostTimestamp");
    timestamp_ = &AddText(members, "timestamp");
    members.emplace("jointState", value(array()));
  }

  /// @param joints  at most as many as the packet has
  std::string Text(const RecvPacket& packet, std::size_t joints) {
    Assign(*timestamp_, +packet.header.timestamp);
    Assign(*host_timestamp_, +packet.header.hostTimestamp);
    Assign(*duration_, +packet.header.duration);
    const std::string frame = root_.serialize();
    const std::size_t array_end = frame.find(']');  // of the empty array: numbers have no bracket
    constexpr std::size_t kJointText = 640;
    Output output(frame.size() + joints * kJointText);
    output.Append(frame.data(), array_end);
    for (std::size_t i = 0; i < joints; ++i) {
      if (i != 0) output.push_back(',');
      joint_.Write(i + 1, packet.joints[i], output);
    }
    output.Append(frame.data() + array_end, frame.size() - array_end);
    return output.Take();
  }

 private:
  value root_;
  std::string* duration_;
  std::string* host_timestamp_;
  std::string* timestamp_;
  JointDocument joint_;
};

/// The JSON library parses nested values by recursion without a bound of its own on objects.
/// @return whether the text's first value nests deeper than a thread's stack is sure to bear
bool NestsTooDeep(const std::string& json) {
  constexpr int kMaxDepth = 512;
  const auto opens = [](char c) { return c == '{' || c == '['; };
  if (std::count_if(json.begin(), json.end(), opens) <= kMaxDepth) return false;  // the usual case, in one quick pass
  int depth = 0;
  bool in_string = false;
  for (auto c = json.begin(); c != json.end(); ++c) {
    if (in_string) {
      if (*c == '"') in_string = false;
      if (*c == '\\' && ++c == json.end()) return false;
    } else if (*c == '"') {
      in_string = true;
    } else if (opens(*c)) {
      if (++depth > kMaxDepth) return true;
    } else if (*c == '}' || *c == ']') {
      if (--depth <= 0) return false;  // the first value ends; what follows is not examined
    }
  }
  return false;
}

/// Members of an object by key; everything unexpected throws.
const object& AsObject(const value& json) {
  if (!json.is<object>()) throw std::invalid_argument("object expected");
  return json.get<object>();
}

const value& Member(const object& members, const char* key) {
  const auto found = members.find(key);
  if (found == members.end()) throw std::invalid_argument("member missing");
  return found->second;
}

const std::string& TextMember(const object& members, const char* key) {
  const value& member = Member(members, key);
  if (!member.is<std::string>()) throw std::invalid_argument("string expected");
  return member.get<std::string>();
}

template <typename Number>
Number Checked(std::optional<Number> number) {
  if (!number) throw std::invalid_argument("number expected");
  return *number;
}

int IntMember(const object& members, const char* key) { return Checked(ParseInt32(TextMember(members, key))); }
float FloatMember(const object& members, const char* key) { return Checked(ParseFloat(TextMember(members, key))); }

/// The low 8 bits, deliberately unchecked against the known codes.
std::uint8_t CodeMember(const object& members, const char* key) {
  return static_cast<std::uint8_t>(IntMember(members, key));
}

void ApplyJointCommand(const object& members, SendPacket& packet) {
  const std::int64_t i = std::int64_t{IntMember(members, "jointName")} - 1;
  if (i < 0 || i >= packet.jointNum) return;
  txJoint_t& joint = packet.joints[static_cast<std::size_t>(i)];
  joint.id = static_cast<std::uint8_t>(i);
  joint.order = CodeMember(members, "jointOrder");
  joint.value1 = FloatMember(members, "value1");
  joint.value2 = FloatMember(members, "value2");
  joint.value3 = FloatMember(members, "value3");
  joint.value4 = FloatMember(members, "value4");
}

}  // namespace

std::vector<std::string> StatesToJson(const std::vector<RecvPacket>& packets, int joint_num) {
  std::vector<std::string> documents;
  documents.reserve(packets.size());
  if (packets.empty()) return documents;
  StateDocument document;
  for (const RecvPacket& packet : packets) {
    const std::size_t joints = std::min(packet.joints.size(), static_cast<std::size_t>(std::max(joint_num, 0)));
    documents.push_back(document.Text(packet, joints));
  }
  return documents;
}

SendPacket CommandFromJson(const std::string& json, int joint_num) {
  if (NestsTooDeep(json)) throw std::invalid_argument("nested too deep");
  value root;
  std::string error;
  picojson::parse(root, json.begin(), json.end(), &error);
  if (!error.empty()) throw std::invalid_argument(error);
  const object& members = AsObject(root);
  SendPacket packet(joint_num);
  packet.header.armOrder = CodeMember(members, "armOrder");
  const value& commands = Member(members, "jointCommand");
  if (!commands.is<array>()) throw std::invalid_argument("array expected");
  for (const value& command : commands.get<array>()) ApplyJointCommand(AsObject(command), packet);
  return packet;
}

}  // namespace velta::detail
