// SPDX-License-Identifier: MIT
#include "mqtt.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/post.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>

#include "ticker.h"
#include "version.h"

namespace velta::bridge {

namespace {

namespace asio = boost::asio;
using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int kKeepAlive = 10;  // s, between this bridge and the broker
constexpr int kTurn = 100;      // ms, the longest turn of the connection's thread
constexpr double kStatisticsHz = 0.1;
constexpr milliseconds kBackOff(250), kBackOffLimit(8000);
constexpr milliseconds kFarewell(500);
constexpr int kMaxOnTheWay = 1000;  ///< messages of either direction that wait for the other thread or the broker
constexpr const char* kNamePrefix = "mqtt";

/// What a message brings from the connection's thread.
struct Arrived {
  std::string commander;  ///< the topic's last level; empty: none
  std::string payload;
  std::string correlation;
  bool is_repeated = false;  ///< retained by the broker, or delivered before
  std::optional<steady_clock::time_point> expiry;
};

std::string RandomName() {
  std::random_device random;
  std::string name = "velta-";
  for (int i = 0; i < 16; ++i) name += "0123456789abcdef"[random() % 16];
  return name;
}

bool IsReadable(int socket) {
  pollfd descriptor{socket, POLLIN, 0};
  return poll(&descriptor, 1, 0) > 0;
}

std::string Correlation(const mosquitto_property* properties) {
  void* data = nullptr;
  std::uint16_t size = 0;
  if (!mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &data, &size, false)) return {};
  std::string bytes(static_cast<const char*>(data), size);
  std::free(data);
  return bytes;
}

}  // namespace

void ReadMqttAddress(const std::string& text, MqttOptions& options) {
  std::string rest = text;
  const auto take = [&rest](const std::string& beginning) {
    const bool begins = rest.compare(0, beginning.size(), beginning) == 0;
    if (begins) rest.erase(0, beginning.size());
    return begins;
  };
  options.tls = take("mqtts://");
  if (!options.tls && !take("mqtt://")) throw std::invalid_argument("it begins with mqtt:// or mqtts://");
  const auto slash = rest.find('/');
  std::string authority = rest.substr(0, slash);
  std::string prefix = slash != std::string::npos ? rest.substr(slash + 1) : "";
  while (!prefix.empty() && prefix.back() == '/') prefix.pop_back();
  if (prefix.empty() || prefix.find_first_of("+#") != std::string::npos || prefix.front() == '$') {
    throw std::invalid_argument("it ends with /PREFIX, the first levels of all topics, without + # $");
  }
  if (const auto at = authority.rfind('@'); at != std::string::npos) {
    const std::string user = authority.substr(0, at);
    if (user.find(':') != std::string::npos) throw std::invalid_argument("give the password by --mqtt-password-file");
    if (options.user.empty()) options.user = user;
    authority.erase(0, at + 1);
  }
  options.port = options.tls ? 8883 : 1883;
  const auto colon = authority.rfind(':');
  if (colon != std::string::npos && authority.find(']', colon) == std::string::npos) {
    const std::string port = authority.substr(colon + 1);
    const bool is_number =
        !port.empty() && port.size() <= 5 && port.find_first_not_of("0123456789") == std::string::npos;
    options.port = is_number ? std::stoi(port) : 0;
    if (options.port < 1 || options.port > 65535) throw std::invalid_argument("bad port");
    authority.erase(colon);
  }
  if (authority.size() > 2 && authority.front() == '[' && authority.back() == ']') {
    authority = authority.substr(1, authority.size() - 2);
  }
  if (authority.empty()) throw std::invalid_argument("there is no host");
  options.host = authority;
  options.prefix = prefix;
}

struct Mqtt::Parts {
  Parts(asio::io_context& io_context, Hub& the_hub, MqttOptions the_options);
  Parts(const Parts&) = delete;
  Parts& operator=(const Parts&) = delete;
  ~Parts() { mosquitto_destroy(client); }

  void Configure();
  void Run();
  void Stop();

  std::string Topic(const char* name) const { return options.prefix + "/" + name; }
  std::string ConnectionText(const char* connection) const;
  bool Publish(const std::string& topic, const std::string& payload, int qos, bool retain, int* mid = nullptr,
               const std::string& correlation = {});
  void PublishControl(const Commander& to);
  void PublishArm() { Publish(Topic("connection"), ConnectionText("online"), 1, true); }
  void ShowState();
  void Answer(const std::string& commander, const std::string& text, const std::string& correlation);

  // In the hub's thread, posted from the connection's:
  void Connected();
  void Lost(const std::string& why);
  void Take(const Arrived& arrived);
  void Published(int mid);

  // In the connection's thread:
  static void OnConnect(mosquitto*, void* self, int result, int, const mosquitto_property*);
  static void OnDisconnect(mosquitto*, void* self, int result, const mosquitto_property*);
  static void OnMessage(mosquitto*, void* self, const mosquitto_message* message, const mosquitto_property* properties);
  static void OnPublish(mosquitto*, void* self, int mid, int, const mosquitto_property*);
  static void OnLog(mosquitto*, void* self, int level, const char* text);
  template <typename Work>
  void Post(Work work) {
    asio::post(io, std::move(work));
  }

  asio::io_context& io;
  Hub& hub;
  MqttOptions options;
  mosquitto* client;
  Ticker states, statistics;

  // The hub's thread:
  bool is_connected = false;
  int state_mid = 0;                         ///< the state that has not left yet; 0: none
  int waiting = 0;                           ///< messages that the broker has not acknowledged
  std::shared_ptr<const std::string> shown;  ///< the last state
  std::uint64_t connections = 0, left_out = 0, repeated = 0;
  std::string reported;           ///< why there was no connection, when it was said last
  Commander last_holder, sender;  ///< who held control before; whose message is being handled
  ExecutedIds executed;

  // The connection's thread:
  bool was_connected = false;
  std::string complaint;                       ///< why the broker, or the TLS library, ends a connection
  bool is_duplicate = false;                   ///< the message that comes next
  steady_clock::time_point nothing_waited_at;  ///< what comes next has come since

  // Both:
  std::atomic<int> on_the_way{0};
  std::atomic<int> farewell_mid{0};
  std::mutex mutex;
  std::condition_variable changed;
  bool is_stopping = false, is_ended = false, is_farewell_sent = false;
  std::thread thread;
};

Mqtt::Parts::Parts(asio::io_context& io_context, Hub& the_hub, MqttOptions the_options)
    : io(io_context),
      hub(the_hub),
      options(std::move(the_options)),
      client((mosquitto_lib_init(), mosquitto_new(RandomName().c_str(), true, this))),
      states(io, options.hz, [this] { ShowState(); }),
      statistics(io, kStatisticsHz, [this] { Publish(Topic("statistics"), hub.Statistics(), 1, false); }) {
  if (client == nullptr) throw std::runtime_error("no memory for the broker's client");
}

void Mqtt::Parts::Configure() {
  mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, options.is_version_5 ? MQTT_PROTOCOL_V5 : MQTT_PROTOCOL_V311);
  mosquitto_threaded_set(client, true);
  mosquitto_connect_v5_callback_set(client, OnConnect);
  mosquitto_disconnect_v5_callback_set(client, OnDisconnect);
  mosquitto_message_v5_callback_set(client, OnMessage);
  mosquitto_publish_v5_callback_set(client, OnPublish);
  mosquitto_log_callback_set(client, OnLog);
  const auto c_str = [](const std::string& text) { return text.empty() ? nullptr : text.c_str(); };
  if (!options.user.empty()) mosquitto_username_pw_set(client, options.user.c_str(), c_str(options.password));
  const std::string will = ConnectionText("lost");
  mosquitto_will_set_v5(client, Topic("connection").c_str(), static_cast<int>(will.size()), will.data(), 1, true,
                        nullptr);
  if (!options.tls) return;
  const char* const system = options.ca.empty() ? "/etc/ssl/certs" : nullptr;
  const int result =
      mosquitto_tls_set(client, c_str(options.ca), system, c_str(options.certificate), c_str(options.key), nullptr);
  if (result != MOSQ_ERR_SUCCESS) {
    throw std::runtime_error(std::string("bad --mqtt-ca, --mqtt-cert or --mqtt-key: ") + mosquitto_strerror(result));
  }
}

/// The connection's thread: tried for ever, with growing pauses.
void Mqtt::Parts::Run() {
  milliseconds pause = kBackOff;
  std::unique_lock lock(mutex);
  while (!is_stopping) {
    lock.unlock();
    was_connected = false;
    complaint.clear();
    int result = mosquitto_connect_bind_v5(client, options.host.c_str(), options.port, kKeepAlive, nullptr, nullptr);
    while (result == MOSQ_ERR_SUCCESS) {
      const auto now = steady_clock::now();
      if (!IsReadable(mosquitto_socket(client))) nothing_waited_at = now;
      result = mosquitto_loop(client, kTurn, 1);
    }
    std::string why = result == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(result);
    if (!complaint.empty()) why = complaint;
    if (!why.empty() && why.back() == '.') why.pop_back();
    Post([this, why] { Lost(why); });
    pause = was_connected ? kBackOff : std::min(2 * pause, kBackOffLimit);
    lock.lock();
    changed.wait_for(lock, pause, [this] { return is_stopping; });
  }
  is_ended = true;
  changed.notify_all();
}

void Mqtt::Parts::Stop() {
  states.Stop();
  statistics.Stop();
  std::unique_lock lock(mutex);
  if (is_connected) {
    lock.unlock();
    int mid = 0;
    if (Publish(Topic("connection"), ConnectionText("offline"), 1, true, &mid)) farewell_mid = mid;
    lock.lock();
    changed.wait_for(lock, kFarewell, [this] { return is_farewell_sent; });
  }
  is_stopping = true;
  changed.notify_all();
  lock.unlock();
  mosquitto_disconnect_v5(client, 0, nullptr);
  lock.lock();
  const bool ended = changed.wait_for(lock, kFarewell, [this] { return is_ended; });
  lock.unlock();
  if (!ended) std::_Exit(0);  // it is stuck in a connect, and everything else has ended
  thread.join();
}

std::string Mqtt::Parts::ConnectionText(const char* connection) const {
  nlohmann::ordered_json document{{"connection", connection}};
  if (std::strcmp(connection, "online") == 0) document["arm"] = hub.IsArmThere() ? "connected" : "away";
  document["version"] = VELTA_VERSION::major + "." + VELTA_VERSION::minor + "." + VELTA_VERSION::revision;
  document["joints"] = hub.Options().session.joints;
  return document.dump();
}

/// @return whether it was given to the connection
bool Mqtt::Parts::Publish(const std::string& topic, const std::string& payload, int qos, bool retain, int* mid,
                          const std::string& correlation) {
  if (!is_connected) return false;
  if (qos > 0 && !retain && waiting >= kMaxOnTheWay) {
    ++left_out;
    return false;
  }
  mosquitto_property* properties = nullptr;
  if (options.is_version_5 && !correlation.empty()) {
    mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA, correlation.data(),
                                  static_cast<std::uint16_t>(correlation.size()));
  }
  int own_mid = 0;
  const int result = mosquitto_publish_v5(client, mid != nullptr ? mid : &own_mid, topic.c_str(),
                                          static_cast<int>(payload.size()), payload.data(), qos, retain, properties);
  mosquitto_property_free_all(&properties);
  if (result == MOSQ_ERR_SUCCESS && qos > 0) ++waiting;
  return result == MOSQ_ERR_SUCCESS;
}

void Mqtt::Parts::Answer(const std::string& commander, const std::string& text, const std::string& correlation) {
  const std::string topic = commander.empty() ? Topic("outcome") : Topic("outcome/") + commander;
  Publish(topic, text, 1, false, nullptr, correlation);
}

/// One state is on its way at a time, so that a slow broker gets fewer and newer ones.
void Mqtt::Parts::ShowState() {
  if (!is_connected || state_mid != 0) return;
  const auto state = hub.State();
  if (!state || state == shown) return;
  shown = state;
  int mid = 0;
  if (Publish(Topic("state"), *state, 0, false, &mid)) state_mid = mid;
}

void Mqtt::Parts::Connected() {
  is_connected = true;
  reported.clear();
  ++connections;
  state_mid = 0;
  for (const char* topic : {"command", "command/+"}) {
    mosquitto_subscribe_v5(client, nullptr, Topic(topic).c_str(), 1, 0, nullptr);
  }
  PublishArm();
  std::cerr << "velta-bridge: connected to the broker " << options.host << std::endl;
}

void Mqtt::Parts::Lost(const std::string& why) {
  const char* const what = std::exchange(is_connected, false) ? "lost the broker " : "no connection to the broker ";
  if (std::exchange(reported, why) != why) {
    std::cerr << "velta-bridge: " << what << options.host << ": " << why << "; trying again" << std::endl;
  }
  hub.LeaveAll(kNamePrefix);
}

void Mqtt::Parts::Published(int mid) {
  if (mid == state_mid)
    state_mid = 0;
  else
    waiting = std::max(waiting - 1, 0);
}

void Mqtt::Parts::Take(const Arrived& arrived) {
  const Message message = ParseMessage(arrived.payload);
  const Commander name = arrived.commander.empty() ? kNamePrefix : kNamePrefix + (" " + arrived.commander);
  const auto reply = [this, arrived](const std::string& text) { Answer(arrived.commander, text, arrived.correlation); };
  const bool is_known = !message.id.empty() && executed.Contains(name, message.id);
  if (arrived.is_repeated || is_known) {
    ++repeated;
    return Hub::Refuse(message, Refusal::kRepeated, reply);
  }
  const bool is_late = arrived.expiry && steady_clock::now() > *arrived.expiry;
  if (is_late && message.kind != Message::Kind::kStop) return Hub::Refuse(message, Refusal::kExpired, reply);
  sender = name;
  if (hub.Handle(name, message, reply) && !message.id.empty()) executed.Add(name, message.id);
  sender.clear();
}

void Mqtt::Parts::PublishControl(const Commander& to) {
  const std::string name = std::string(kNamePrefix) + " ";
  Answer(to.compare(0, name.size(), name) == 0 ? to.substr(name.size()) : "", hub.ControlFor(to), "");
}

void Mqtt::Parts::OnConnect(mosquitto*, void* self, int result, int, const mosquitto_property*) {
  auto& parts = *static_cast<Parts*>(self);
  if (result != 0) {  // refused; the loop ends with an error
    const bool is_version_5 = parts.options.is_version_5;
    parts.complaint = is_version_5 ? mosquitto_reason_string(result) : mosquitto_connack_string(result);
    return;
  }
  parts.was_connected = true;
  parts.Post([&parts] { parts.Connected(); });
}

void Mqtt::Parts::OnDisconnect(mosquitto*, void*, int, const mosquitto_property*) {}  // the loop's result says it

void Mqtt::Parts::OnMessage(mosquitto*, void* self, const mosquitto_message* message,
                            const mosquitto_property* properties) {
  auto& parts = *static_cast<Parts*>(self);
  const std::string topic = message->topic;
  const std::string command = parts.Topic("command");
  Arrived arrived;
  arrived.is_repeated = std::exchange(parts.is_duplicate, false) || message->retain;
  if (topic.size() > command.size()) arrived.commander = topic.substr(command.size() + 1);
  const auto size = static_cast<std::size_t>(message->payloadlen);
  if (size > 0 && size <= kMaxMessage) arrived.payload.assign(static_cast<const char*>(message->payload), size);
  arrived.correlation = Correlation(properties);
  std::uint32_t lifetime = 0;  // in seconds; the broker counts until it sends the message, the bridge from there
  if (mosquitto_property_read_int32(properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &lifetime, false) != nullptr) {
    arrived.expiry = parts.nothing_waited_at + std::chrono::seconds(lifetime);
  }
  if (parts.on_the_way.fetch_add(1) >= kMaxOnTheWay) {
    parts.on_the_way.fetch_sub(1);
    return;
  }
  parts.Post([&parts, arrived = std::move(arrived)] {
    parts.on_the_way.fetch_sub(1);
    parts.Take(arrived);
  });
}

void Mqtt::Parts::OnPublish(mosquitto*, void* self, int mid, int, const mosquitto_property*) {
  auto& parts = *static_cast<Parts*>(self);
  if (mid == parts.farewell_mid) {
    const std::lock_guard lock(parts.mutex);
    parts.is_farewell_sent = true;
    parts.changed.notify_all();
  }
  parts.Post([&parts, mid] { parts.Published(mid); });
}

/// The client library shows a message's duplicate flag nowhere else: "... received PUBLISH (d1, q1, ...", just before
/// it calls back with the message.
void Mqtt::Parts::OnLog(mosquitto*, void* self, int level, const char* text) {
  if (level == MOSQ_LOG_ERR) static_cast<Parts*>(self)->complaint = text;
  if (level != MOSQ_LOG_DEBUG) return;
  const char* const at = std::strstr(text, " received PUBLISH (d");
  if (at != nullptr) static_cast<Parts*>(self)->is_duplicate = at[std::strlen(" received PUBLISH (d")] == '1';
}

Mqtt::Mqtt(asio::io_context& io, Hub& hub, MqttOptions options)
    : parts_(std::make_unique<Parts>(io, hub, std::move(options))) {
  parts_->Configure();
  parts_->thread = std::thread([parts = parts_.get()] { parts->Run(); });
  parts_->states.Start();
  parts_->statistics.Start();
}

Mqtt::~Mqtt() {
  if (parts_->thread.joinable()) Stop();
}

void Mqtt::Stop() { parts_->Stop(); }

void Mqtt::ShowControl() {
  const Commander holder = parts_->hub.Holder();
  std::set<Commander> told{kNamePrefix, holder, parts_->last_holder, parts_->sender};
  for (const Commander& each : told) {
    if (each.compare(0, std::strlen(kNamePrefix), kNamePrefix) == 0) parts_->PublishControl(each);
  }
  parts_->last_holder = holder;
}

void Mqtt::ShowEvent(const std::string& text) {
  parts_->Publish(parts_->Topic("event"), json::parse(text)["event"].dump(), 1, false);
}

void Mqtt::ShowArm() { parts_->PublishArm(); }

void Mqtt::AddStatistics(json& to) const {
  to["mqtt"] = {{"connected", parts_->is_connected},
                {"connections", parts_->connections},
                {"left_out", parts_->left_out},
                {"repeated", parts_->repeated}};
}

}  // namespace velta::bridge
