// SPDX-License-Identifier: MIT
#ifndef VELTA_BRIDGE_MQTT_H_
#define VELTA_BRIDGE_MQTT_H_

#include <boost/asio/io_context.hpp>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "hub.h"

namespace velta::bridge {

struct MqttOptions {
  std::string host;
  int port = 1883;
  std::string prefix;  ///< of all topics, without a slash at its ends
  bool tls = false;
  bool is_version_5 = true;  ///< else 3.1.1
  double hz = 10;            ///< states per second
  std::string user, password;
  std::string ca, certificate, key;  ///< files; an empty ca: the system's
};

/// Reads mqtt://[USER@]HOST[:PORT]/PREFIX, or mqtts://, into host, port, prefix, tls and user.
/// @throw std::invalid_argument one line that says what is wrong
void ReadMqttAddress(const std::string& text, MqttOptions& options);

/// The bridge's connection to a broker, which may be away at any time: it is tried again for ever.
class Mqtt final : public FrontEnd {
 public:
  /// Connects in a thread of its own. The hub must outlive the io_context's run.
  /// @throw std::runtime_error one line for a file that cannot be used
  Mqtt(boost::asio::io_context& io, Hub& hub, MqttOptions options);
  ~Mqtt() override;

  void Stop();  ///< says that it goes offline, waits for that a moment, and disconnects

  void ShowControl() override;
  void ShowEvent(const std::string& text) override;
  void ShowArm() override;
  void AddStatistics(nlohmann::json& to) const override;

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

}  // namespace velta::bridge

#endif  // VELTA_BRIDGE_MQTT_H_
