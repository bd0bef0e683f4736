// SPDX-License-Identifier: MIT
// What a stranger may send to the bridge: a message, or a request's head, of which Host, Origin and Authorization decide who
// is let in.
#include <boost/asio/buffer.hpp>
#include <boost/beast/http.hpp>
#include <nlohmann/json.hpp>
#include <string_view>

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
  const std::string_view origin = view(http::field::origin);
  if (gate.Check(view(http::field::host), origin, "192.0.2.1") == nullptr) {
    const std::string host = HostName(view(http::field::host));
    Check(host == "localhost" || host == "127.0.0.1" || host == "192.0.2.1", "only known hosts are let in");
    Check(origin.empty() || HostName(origin.substr(origin.find("://") + 3)) == host, "only own pages are let in");
  }
  const std::string_view bearer = view(http::field::authorization);
  if (gate.IsBearer(bearer)) Check(bearer.substr(7) == "secret", "only the token is let in");
}

void Run(Input& in) {
  if (in.Below(3) == 0) return ReadMessage(in.Rest());
  ReadHead(in.Rest());
}

const Registered kTarget("bridge_message", Run);

}  // namespace
}  // namespace velta::fuzz
