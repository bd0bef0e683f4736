// SPDX-License-Identifier: MIT
#include "messages.h"

#include <chrono>
#include <ctime>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace velta::bridge {

namespace {

using nlohmann::json;

bool IsTrue(const json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_boolean() && found->get<bool>();
}

/// @return whether the members name a command document's parts; what they hold is the library's to judge
bool LooksLikeCommand(const json& object) { return object.contains("armOrder") || object.contains("jointCommand"); }

/// {"id":..., "confirm":..., "command":{...}}, the first two optional
Message ParseCommand(const json& object) {
  Message message;
  if (const auto id = object.find("id"); id != object.end()) {
    const bool is_id = id->is_string() || id->is_number_integer();
    std::string text = is_id ? id->dump() : std::string();
    if (!is_id || text.size() > kMaxId) return {};
    message.id = std::move(text);
  }
  const auto command = object.find("command");
  const auto confirm = object.find("confirm");
  if (!command->is_object() || (confirm != object.end() && !confirm->is_boolean())) return message;  // with its id
  message.confirm = IsTrue(object, "confirm");
  message.kind = Message::Kind::kCommand;
  message.text = command->dump();
  return message;
}

Message Plain(Message::Kind kind, std::string text = {}) {
  Message message;
  message.kind = kind;
  message.text = std::move(text);
  return message;
}

Message ParseControl(const json& word) {
  if (word == "take") return Plain(Message::Kind::kTake);
  if (word == "keep") return Plain(Message::Kind::kKeep);
  if (word == "give") return Plain(Message::Kind::kGive);
  return {};
}

/// UTC with milliseconds, as RFC 3339 writes it
std::string TimeText(std::chrono::system_clock::time_point time) {
  using namespace std::chrono;
  const auto ms = floor<milliseconds>(time.time_since_epoch());
  const std::time_t seconds = static_cast<std::time_t>(floor<std::chrono::seconds>(ms).count());
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[40];
  const std::size_t size = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  const auto fraction = static_cast<int>(ms.count() - std::int64_t{seconds} * 1000);
  return std::string(text, size) + '.' + std::to_string(1000 + fraction).substr(1) + 'Z';
}

std::string Dump(const json& document) { return document.dump(-1, ' ', false, json::error_handler_t::replace); }

}  // namespace

bool NestsDeeperThan(std::string_view text, int levels) {
  int depth = 0;
  bool in_string = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (in_string) {
      if (c == '\\') ++i;
      if (c == '"') in_string = false;
    } else if (c == '"') {
      in_string = true;
    } else if (c == '{' || c == '[') {
      if (++depth > levels) return true;
    } else if (c == '}' || c == ']') {
      --depth;
    }
  }
  return false;
}

Message ParseMessage(std::string_view text) {
  if (text.size() > kMaxMessage || NestsDeeperThan(text, kMaxNesting)) return {};
  const json object = json::parse(text, nullptr, false);
  if (!object.is_object()) return {};
  if (IsTrue(object, "stop")) return Plain(Message::Kind::kStop);
  if (object.contains("command")) return ParseCommand(object);
  if (LooksLikeCommand(object)) return Plain(Message::Kind::kCommand, std::string(text));
  if (const auto control = object.find("control"); control != object.end()) return ParseControl(*control);
  if (IsTrue(object, "rearm")) return Plain(Message::Kind::kRearm);
  if (const auto token = object.find("token"); token != object.end() && token->is_string()) {
    return Plain(Message::Kind::kToken, token->get<std::string>());
  }
  return {};
}

std::string ControlText(bool held, bool yours) { return Dump({{"control", {{"held", held}, {"yours", yours}}}}); }

std::string OutcomeText(const std::string& id, std::string_view outcome, std::string_view reason) {
  json members{{"outcome", outcome}};
  if (!id.empty()) members["id"] = json::parse(id);
  if (!reason.empty()) members["reason"] = reason;
  return Dump({{"outcome", members}});
}

std::string EventText(const Event& event) {
  return Dump({{"event",
                {{"kind", ToString(event.kind)},
                 {"text", event.text},
                 {"time", TimeText(event.time)},
                 {"value", event.value}}}});
}

std::string StateText(const std::string& document) { return "{\"state\":" + document + "}"; }

std::string ErrorText(std::string_view error) { return Dump({{"error", error}}); }

std::optional<SendPacket> Codec::ReadCommand(const std::string& document) {
  if (!client_.PushSendQueueJson(document, false)) return std::nullopt;
  return client_.PopSendQueue();
}

std::string Codec::WriteState(const RecvPacket& status) {
  client_.PushRecvBuffer(status);
  return client_.GetCurStateJson().front();
}

std::vector<SendPacket> ReadStopDocuments(const std::string& path, int joints) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot read " + path);
  Codec codec(joints);
  std::vector<SendPacket> packets;
  do {
    json document;
    auto packet = std::optional<SendPacket>();
    try {
      file >> document;
      packet = codec.ReadCommand(document.dump());
    } catch (const json::exception&) {  // reported below
    }
    if (!packet) throw std::runtime_error(path + ": document " + std::to_string(packets.size() + 1) + " is no command");
    packets.push_back(std::move(*packet));
  } while ((file >> std::ws).peek() != std::ifstream::traits_type::eof());
  return packets;
}

}  // namespace velta::bridge
