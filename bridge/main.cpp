// SPDX-License-Identifier: MIT
#include <pthread.h>
#include <sched.h>

#include <CLI/CLI.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "errors.h"
#include "hub.h"
#include "messages.h"
#include "mqtt.h"
#include "notify.h"
#include "options.h"
#include "ticker.h"
#include "velta_link.h"
#include "velta_log.h"
#include "version.h"
#include "web.h"

namespace velta::bridge {

namespace {

namespace asio = boost::asio;
using std::chrono::milliseconds;
using std::chrono::seconds;
using tools::UsageError;

constexpr int kPriority = 40;  // of the arm's loop, where the system allows it

struct Options {
  HubOptions hub;
  WebOptions web;
  MqttOptions mqtt;
  std::string web_address, mqtt_address, mqtt_version = "5";
  std::string token_file, password_file, stop_documents;
  std::optional<int> priority;
  bool no_viewer_stop = false;
};

/// The first line of a file that holds a secret.
std::string ReadSecret(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  if (!std::getline(file, line) || line.find_first_not_of(" \t\r") == std::string::npos) {
    throw std::runtime_error(path + " holds no secret in its first line, or cannot be read");
  }
  line.erase(line.find_last_not_of(" \t\r") + 1);
  return line;
}

/// HOST:PORT, [ADDRESS]:PORT
void ReadWebAddress(const std::string& text, WebOptions& options) {
  const auto colon = text.rfind(':');
  std::string host = text.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']')
    host = host.substr(1, host.size() - 2);
  else if (host.find(':') != std::string::npos)
    host.clear();
  const std::string port = colon != std::string::npos ? text.substr(colon + 1) : "";
  const bool is_port = !port.empty() && port.size() <= 5 && port.find_first_not_of("0123456789") == std::string::npos &&
                       std::stoi(port) <= 65535;
  if (host.empty() || !is_port) throw UsageError("bad --web '" + text + "': give HOST:PORT");
  options.host = host;
  options.port = port;
}

void AddOptions(CLI::App& app, Options& options) {
  SessionOptions& session = options.hub.session;
  tools::AddJointsOption(app, session.joints);
  app.add_option("LINK", session.link, "The arm: tcp://HOST:PORT, udp://HOST:PORT, serial:///dev/ttyX?baud=N or sim:")
      ->required()
      ->type_name("")
      ->envname("VELTA_LINK");
  app.add_flag("--allow-commands", options.hub.control.allow_commands, "Let one commander at a time command the arm");
  app.add_option_function<std::string>(
         "--control-timeout",
         [&options](const std::string& text) {
           const bool is_bare = text.find_first_not_of("0123456789.") == std::string::npos;
           const auto timeout = tools::ReadDuration(is_bare ? text + "s" : text);
           if (timeout < milliseconds(20) || timeout > seconds(60)) {
             throw UsageError("bad --control-timeout '" + text + "': 20ms to 60s");
           }
           options.hub.control.timeout = timeout;
         },
         "How long who holds control may be silent (500ms)")
      ->option_text("DURATION");
  app.add_flag("--no-viewer-stop", options.no_viewer_stop, "Only who holds control may stop the arm");
  app.add_option("--stop-documents", options.stop_documents, "Command documents that stop the arm, in this order")
      ->option_text("FILE");
  app.add_option("--priority", options.priority,
                 "SCHED_FIFO priority of the arm's loop; 0 is the ordinary scheduler (40 where the system allows it)")
      ->check(CLI::Range(0, 99))
      ->type_name("N");
}

/// Adds options of one group: (NAME, TARGET, DESCRIPTION, what the value is called).
auto AddTo(CLI::App& app, const char* group) {
  return [&app, group](const std::string& name, auto& target, const char* description, const char* value) {
    return app.add_option(name, target, description)->type_name(value)->group(group);
  };
}

/// Adds a certificate and its key, of which neither is of use without the other.
template <typename Add>
void AddCertificate(const Add& add, const std::string& prefix, const char* description, std::string& certificate,
                    std::string& key) {
  CLI::Option* const first = add(prefix + "cert", certificate, description, "FILE");
  CLI::Option* const second = add(prefix + "key", key, "Its private key, PEM", "FILE");
  first->needs(second);
  second->needs(first);
}

CLI::Range Rate() { return {0.1, 1000.0}; }  // states per second

void AddWebOptions(CLI::App& app, Options& options) {
  const char* const group = "In a browser";
  const auto add = AddTo(app, group);
  WebOptions& web = options.web;
  add("--web", options.web_address, "Where to listen; port 0 picks one", "")->option_text("HOST:PORT");
  add("--web-hz", web.hz, "States per second", "HZ")->check(Rate());
  add("--token-file", options.token_file, "Ask for the token in the file's first line", "FILE");
  AddCertificate(add, "--tls-", "Certificate chain, PEM", web.certificate, web.key);
  app.add_flag("--insecure", web.insecure, "Listen on other addresses than loopback without token and TLS")
      ->group(group);
  add("--allow-host", web.allow_hosts, "Another name that browsers may use; may be repeated", "NAME")
      ->allow_extra_args(false)
      ->default_str("");
}

void AddMqttOptions(CLI::App& app, Options& options) {
  const auto add = AddTo(app, "Through a broker");
  MqttOptions& mqtt = options.mqtt;
  add("--mqtt", options.mqtt_address, "mqtt://HOST[:PORT]/PREFIX or mqtts://; PREFIX of all topics", "URL");
  add("--mqtt-hz", mqtt.hz, "States per second", "HZ")->check(Rate());
  add("--mqtt-version", options.mqtt_version, "5, or 3.1.1 for old brokers", "VERSION")
      ->check(CLI::IsMember({"5", "3.1.1"}));
  add("--mqtt-user", mqtt.user, "Name at the broker", "NAME");
  add("--mqtt-password-file", options.password_file, "Password, in the file's first line", "FILE");
  add("--mqtt-ca", mqtt.ca, "Whom to trust, PEM; else the system's", "FILE");
  AddCertificate(add, "--mqtt-", "Certificate of this bridge, PEM", mqtt.certificate, mqtt.key);
}

/// Whether the system gives this process that SCHED_FIFO priority. The calling thread keeps its own.
bool MayHavePriority(int priority) {
  int policy = SCHED_OTHER;
  sched_param own{}, wanted{};
  wanted.sched_priority = priority;
  if (pthread_getschedparam(pthread_self(), &policy, &own) != 0) return false;
  if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &wanted) != 0) return false;
  return pthread_setschedparam(pthread_self(), policy, &own) == 0;
}

/// What the options mean together. Files are read here.
void Complete(Options& options) {
  if (options.web_address.empty() && options.mqtt_address.empty()) throw UsageError("give --web, --mqtt or both");
  SessionOptions& session = options.hub.session;
  LinkAddress address;
  std::string why;
  if (!ParseLinkAddress(session.link, address, why)) throw UsageError("bad link '" + session.link + "': " + why);
  if (!options.web_address.empty()) ReadWebAddress(options.web_address, options.web);
  if (!options.mqtt_address.empty()) {
    try {
      ReadMqttAddress(options.mqtt_address, options.mqtt);
    } catch (const std::invalid_argument& error) {
      const bool has_secret = options.mqtt_address.find('@') != std::string::npos;  // perhaps
      throw UsageError("bad --mqtt" + (has_secret ? "" : " '" + options.mqtt_address + "'") + ": " + error.what());
    }
  }
  const MqttOptions& mqtt = options.mqtt;
  if (!mqtt.tls && !(mqtt.ca + mqtt.certificate).empty()) throw UsageError("--mqtt-ca and --mqtt-cert need mqtts://");
  if (mqtt.user.empty() && !options.password_file.empty()) throw UsageError("--mqtt-password-file needs --mqtt-user");
  for (const std::string& path : {options.web.certificate, options.web.key, mqtt.ca, mqtt.certificate, mqtt.key}) {
    if (!path.empty() && !std::ifstream(path)) throw std::runtime_error("cannot read " + path);
  }
  options.mqtt.is_version_5 = options.mqtt_version == "5";
  options.hub.control.viewer_stop = !options.no_viewer_stop;
  if (!options.token_file.empty()) options.web.token = ReadSecret(options.token_file);
  if (!options.password_file.empty()) options.mqtt.password = ReadSecret(options.password_file);
  if (!options.stop_documents.empty()) session.stop = ReadStopDocuments(options.stop_documents, session.joints);
  session.priority = options.priority.value_or(MayHavePriority(kPriority) ? kPriority : 0);
  session.status_buffer = 64;  // nobody asks for more than the newest
  if (options.hub.control.allow_commands) session.dead_man = options.hub.control.timeout;
}

int Serve(const Options& options) {
  SetLogSink([](LogLevel, std::string_view) {});  // the session's events say it better
  asio::io_context io(1);
  asio::signal_set signals(io, SIGINT, SIGTERM);
  Hub hub(io, options.hub);
  std::unique_ptr<Web> web;
  std::unique_ptr<Mqtt> mqtt;
  if (!options.web_address.empty()) web = std::make_unique<Web>(io, hub, options.web);
  if (!options.mqtt_address.empty()) mqtt = std::make_unique<Mqtt>(io, hub, options.mqtt);
  if (web) hub.Add(*web);
  if (mqtt) hub.Add(*mqtt);
  hub.Start();
  if (web) std::cout << "listening on " << web->Url() << std::endl;

  // The manager hears from this program as long as the session's loop runs.
  std::uint64_t cycles = 0;
  const std::chrono::duration<double> watchdog = WatchdogPeriod();
  Ticker feed(io, watchdog.count() > 0 ? 1 / watchdog.count() : 1, [&] {
    if (const std::uint64_t now = hub.Cycles(); now != std::exchange(cycles, now)) NotifyManager("WATCHDOG=1");
  });
  if (watchdog.count() > 0) feed.Start();
  asio::steady_timer farewell(io);
  signals.async_wait([&](const boost::system::error_code& error, int) {
    if (error) return;
    NotifyManager("STOPPING=1");
    hub.Stop();
    if (web) web->Stop();
    farewell.expires_after(milliseconds(200));  // for the viewers' answers
    farewell.async_wait([&](const boost::system::error_code&) {
      if (mqtt) mqtt->Stop();
      io.stop();
    });
  });
  NotifyManager("READY=1");
  io.run();
  return 0;
}

int Report(const std::string& text, int status) {
  std::cerr << "velta-bridge: " << text << std::endl;
  return status;
}

/// The manual page, in roff, from the help itself.
std::string ManPage(const std::string& help) {
  std::string page =
      ".TH VELTA-BRIDGE 1\n.SH NAME\nvelta-bridge \\- a robot arm's state in browsers and through a broker\n"
      ".SH DESCRIPTION\n.nf\n";
  for (const char c : help) {
    if (c == '-' || c == '\\') page += '\\';
    page += c;
  }
  return page + ".fi\n.SH SEE ALSO\n.BR velta (1)\n";
}

int Run(int argc, char** argv) {
  CLI::App app{"Carries an arm's state to browsers and brokers, and their commands to the arm.", "velta-bridge"};
  Options options;
  tools::SetHelpStyle(app);
  app.set_version_flag("--version", VELTA_VERSION::major + "." + VELTA_VERSION::minor + "." + VELTA_VERSION::revision,
                       "Show the version");
  app.set_help_flag("-h,--help", "Show this help");
  AddOptions(app, options);
  AddWebOptions(app, options);
  AddMqttOptions(app, options);
  app.footer(
      "The page on this machine, in two terminals:\n"
      "  velta sim -n 6 tcp://127.0.0.1:43210\n"
      "  velta-bridge -n 6 tcp://127.0.0.1:43210 --web 127.0.0.1:8080 --allow-commands\n"
      "Exit status: 0 success, 1 the job failed, 2 bad usage.");
  app.add_flag_callback("--man-page",
                        [&app] {  // for the build, which installs what this prints
                          std::cout << ManPage(app.help());
                          throw CLI::Success();
                        })
      ->group("");
  try {
    app.parse(argc, argv);
    Complete(options);
  } catch (const CLI::Success& asked) {
    return app.exit(asked);
  } catch (const CLI::ParseError& error) {
    return Report(std::string(error.what()) + "; see velta-bridge --help", 2);
  } catch (const UsageError& error) {
    return Report(std::string(error.what()) + "; see velta-bridge --help", 2);
  }
  return Serve(options);
}

}  // namespace

}  // namespace velta::bridge

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  try {
    return velta::bridge::Run(argc, argv);
  } catch (const std::exception& error) {
    return velta::bridge::Report(error.what(), 1);
  }
}
