// SPDX-License-Identifier: MIT
#ifndef VELTA_BRIDGE_WEB_H_
#define VELTA_BRIDGE_WEB_H_

#include <boost/asio/io_context.hpp>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "hub.h"

namespace velta::bridge {

struct WebOptions {
  std::string host = "127.0.0.1";
  std::string port = "8080";
  std::vector<std::string> allow_hosts;
  double hz = 50;           ///< states per second and viewer
  std::string token;        ///< empty: none is asked for
  std::string certificate;  ///< files in PEM; both empty: plain HTTP
  std::string key;
  bool insecure = false;  ///< other addresses than loopback without token and TLS
};

/// The page, its WebSocket and what else is asked for over HTTP.
class Web final : public FrontEnd {
 public:
  /// Listens. The hub must outlive the io_context's run.
  /// @throw std::runtime_error one line: the address cannot be had or is not safe to listen on, or a bad file
  Web(boost::asio::io_context& io, Hub& hub, WebOptions options);
  ~Web() override;

  std::string Url() const;  ///< "http://127.0.0.1:8080/", with the port that the system chose
  void Stop();              ///< says good-bye to the viewers and accepts no further ones

  void ShowControl() override;
  void ShowEvent(const std::string& text) override;
  void ShowArm() override {}
  void AddStatistics(nlohmann::json& to) const override;

 private:
  struct Parts;
  std::shared_ptr<Parts> parts_;
};

}  // namespace velta::bridge

#endif  // VELTA_BRIDGE_WEB_H_
