// SPDX-License-Identifier: MIT
// What a stranger may send to the bridge: a message, a request's head, or events that fight for control.
#include <boost/asio/buffer.hpp>
#include <boost/beast/http.hpp>
#include <nlohmann/json.hpp>
#include <string_view>

#include "control.h"
#include "gate.h"
#include "messages.h"
#include "target.h"

namespace velta::fuzz {
namespace {

using namespace velta::bridge;

void ReadMessage(const std::string& text) {
  using nlohmann::json;
  const Message message = ParseMessage(text);
  if (NestsDeeperThan(text, kMaxNesting)) Check(message.kind == Message::Kind::kUnknown, "deep messages are not read");
  const json answer = json::parse(OutcomeText(message.id, "refused", "why"))["outcome"];
  Check(answer.contains("id") == !message.id.empty(), "an answer has the id of its command");
  if (message.kind != Message::Kind::kCommand) return;
  Check(json::parse(message.text, nullptr, false).is_object(), "a command is an object");
  Codec codec(3);
  if (const auto packet = codec.ReadCommand(message.text)) Check(packet->joints.size() == 3, "a packet of all joints");
}

void ReadHead(const std::string& text) {
  namespace http = boost::beast::http;
  http::request_parser<http::empty_body> parser;
  parser.header_limit(8 * 1024);
  boost::system::error_code error;
  parser.put(boost::asio::buffer(text), error);
  if (error || !parser.is_header_done()) return;
  const auto view = [&](http::field field) {
    const auto value = parser.get()[field];
    return std::string_view(value.data(), value.size());
  };
  static const Gate gate({"localhost", "127.0.0.1"}, "secret");
  const std::string host = HostName(view(http::field::host));
  const bool is_known = host == "localhost" || host == "127.0.0.1";
  if (gate.Check(view(http::field::host), view(http::field::origin), "127.0.0.1") == nullptr) {
    Check(is_known, "only known hosts are let in");
    const std::string origin(view(http::field::origin));
    Check(origin.empty() || origin.find(host) != std::string::npos || host != "127.0.0.1", "only own pages are let in");
  }
  const std::string_view bearer = view(http::field::authorization);
  if (gate.IsBearer(bearer)) Check(bearer.substr(bearer.size() - 6) == "secret", "only the token is let in");
}

/// Against the shortest model: who may command is known from whoever was heard last.
void FightForControl(Input& in) {
  using std::chrono::milliseconds;
  Control control({true, true, milliseconds(100)});
  Control::Time now{};
  Control::Time heard{};
  Commander holder;
  bool is_stopped = false;
  while (!in.Empty()) {
    now += milliseconds(in.Below(60));
    if (!holder.empty() && now - heard > milliseconds(100)) {
      holder.clear();
      is_stopped = true;
    }
    const Commander sender(1, static_cast<char>('a' + in.Below(3)));
    const bool holds = sender == holder;
    if (holds) heard = now;
    switch (in.Below(6)) {
      case 0:
        Check((control.Take(sender, now).refusal == Refusal::kNone) == (holder.empty() || holds), "take");
        if (holder.empty()) heard = now;
        if (holder.empty()) holder = sender;
        break;
      case 1:
        Check((control.Give(sender, now).refusal == Refusal::kNone) == holds, "give");
        if (holds) holder.clear();
        break;
      case 2:
        Check((control.Command(sender, now).refusal == Refusal::kNone) == (holds && !is_stopped), "command");
        break;
      case 3:
        Check(control.Rearm(sender, now).rearm == holds, "rearm");
        if (holds) is_stopped = false;
        break;
      case 4:
        Check(control.Stop(sender, now).stop, "stop");
        is_stopped = true;
        break;
      default:
        control.Expire(now);
        Check(control.Leave(sender).stop == holds, "who leaves with control stops the arm");
        if (holds) is_stopped = true;
        if (holds) holder.clear();
    }
    Check(control.Holder() == holder && control.IsStopped() == is_stopped, "holder and stop are as the model says");
  }
}

void Run(Input& in) {
  switch (in.Below(3)) {
    case 0:
      return ReadMessage(in.Rest());
    case 1:
      return ReadHead(in.Rest());
    default:
      return FightForControl(in);
  }
}

const Registered kTarget("bridge_message", Run);

}  // namespace
}  // namespace velta::fuzz
