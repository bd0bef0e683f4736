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

/// Text under construction, written a character at a time at half the price of std::string.
class Output {
 public:
  using value_type = char;

  explicit Output(std::size_t expected) { MakeRoom(expected); }

  void push_back(char c) {
    if (at_ == end_) MakeRoom(text_.size());
    *at_++ = c;
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

/// The JSON library parses nested values by recursion, and has a bound of its own on arrays only.
/// @return whether the text's first value nests deeper than a thread's stack is sure to bear
bool NestsTooDeep(const std::string& json) {
  constexpr int kMaxDepth = 100;
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

/// The tree of one document; only its texts change.
struct StateDocument::Tree {
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
  using Joint = std::array<std::string*, kKeys.size()>;

  explicit Tree(std::size_t joint_count) : root(object()), joints(joint_count) {
    auto& members = root.get<object>();
    const auto add = [](object& to, const char* key) {
      return &to.emplace(key, value(std::string())).first->second.get<std::string>();
    };
    duration = add(members, "duration");
    host_timestamp = add(members, "hostTimestamp");
    timestamp = add(members, "timestamp");
    auto& list = members.emplace("jointState", value(array())).first->second.get<array>();
    list.reserve(joints.size());
    for (Joint& joint : joints) {
      auto& object_of_joint = list.emplace_back(object()).get<object>();
      std::transform(kKeys.begin(), kKeys.end(), joint.begin(),
                     [&](const char* key) { return add(object_of_joint, key); });
    }
  }

  std::string Text(const RecvPacket& packet) {
    Assign(*timestamp, +packet.header.timestamp);
    Assign(*host_timestamp, +packet.header.hostTimestamp);
    Assign(*duration, +packet.header.duration);
    for (std::size_t i = 0; i < joints.size(); ++i) SetJoint(joints[i], i + 1, packet.joints[i]);
    constexpr std::size_t kHeaderText = 128, kJointText = 640;
    Output output(kHeaderText + joints.size() * kJointText);
    root.serialize(std::back_inserter(output));
    return output.Take();
  }

  static void SetJoint(const Joint& texts, std::size_t joint_id, const rxJoint_t& joint) {
    auto text = texts.begin();
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
  }

  value root;
  std::vector<Joint> joints;
  std::string* duration;
  std::string* host_timestamp;
  std::string* timestamp;
};

StateDocument::StateDocument() = default;
StateDocument::~StateDocument() = default;

std::string StateDocument::Text(const RecvPacket& packet, int joint_num) {
  const std::size_t joints = std::min(packet.joints.size(), static_cast<std::size_t>(std::max(joint_num, 0)));
  if (tree_ == nullptr || tree_->joints.size() != joints) tree_ = std::make_unique<Tree>(joints);
  return tree_->Text(packet);
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
