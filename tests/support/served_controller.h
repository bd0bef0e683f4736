// SPDX-License-Identifier: MIT
#ifndef VELTA_TESTS_SUPPORT_SERVED_CONTROLLER_H_
#define VELTA_TESTS_SUPPORT_SERVED_CONTROLLER_H_

#include <sys/eventfd.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "server.h"

namespace velta::test {

/// The simulated controller on one endpoint, served by a thread of the test.
class ServedController {
 public:
  using Kind = LinkAddress::Kind;

  /// @param rule       a fault as a flag, or as a script when it begins with '{'; empty for none
  /// @param on_status  is told every status frame before a fault touches it
  ServedController(Kind kind, int joints, int cycle_ms, const std::string& rule = "",
                   std::function<void(const std::vector<char>& frame)> on_status = nullptr, int port = 0)
      : server_(Config(kind, joints, cycle_ms, rule, std::move(on_status), port)),
        link_(server_.Links().at(0)),
        thread_([this] { server_.Run(stop_fd_); }) {}
  ServedController(const ServedController&) = delete;
  ServedController& operator=(const ServedController&) = delete;
  ~ServedController() {
    Stop();
    close(stop_fd_);
  }

  /// Ends the service. @return what happened
  sim::Summary Stop() {
    eventfd_write(stop_fd_, 1);
    if (thread_.joinable()) thread_.join();
    return server_.GetSummary();
  }

  /// How a tool names the controller.
  const std::string& Link() const { return link_; }

 private:
  static sim::ServerConfig Config(Kind kind, int joints, int cycle_ms, const std::string& rule,
                                  std::function<void(const std::vector<char>&)> on_status, int port) {
    const auto path = std::filesystem::temp_directory_path() / ("velta-served-" + std::to_string(getpid()));
    sim::ServerConfig config;
    config.joints = joints;
    config.cycle_ms = cycle_ms;
    config.listen.push_back({kind, "127.0.0.1", port, kind == Kind::kPty ? path.string() : "", 115200, 1});
    config.on_status = std::move(on_status);
    std::istringstream script(rule);
    if (!rule.empty()) {
      config.faults = rule[0] == '{' ? sim::ParseFaultScript(script, "rule") : std::vector{sim::ParseFaultFlag(rule)};
    }
    return config;
  }

  const int stop_fd_ = eventfd(0, EFD_CLOEXEC);
  sim::Server server_;
  const std::string link_;  // read while the server is not at work
  std::thread thread_;
};

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_SERVED_CONTROLLER_H_
