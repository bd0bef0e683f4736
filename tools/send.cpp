// SPDX-License-Identifier: MIT
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <iostream>
#include <limits>
#include <string>
#include <system_error>
#include <vector>

#include "MasterControllerClient.h"
#include "SendPacket.h"
#include "command.h"
#include "command_words.h"
#include "link.h"
#include "stop.h"
#include "timing.h"

namespace velta::tools {

namespace {

struct SendOptions {
  std::string link;
  int joint_num = 0;
  std::vector<std::string> words;  ///< the command's word and its arguments
  std::string joints;
  std::string json;
  bool confirm = false;
  double timeout_s = 0.5;
  bool dry_run = false;
  bool list = false;
};

/// The client with a look at its confirmation gate.
class Sender : public MasterControllerClient {
 public:
  using MasterControllerClient::MasterControllerClient;
  bool Waiting() const { return wait_confirm_; }
  bool Confirmed() const { return last_recv_host_timestamp_ == last_send_timestamp_; }
  int Timeouts() const { return timeout_count_; }
};

std::string ReadStandardInput() {
  std::string text;
  for (;;) {
    WaitUntil(std::numeric_limits<std::int64_t>::max(), STDIN_FILENO);
    if (StopRequested()) throw Failure("interrupted; nothing was sent");
    char buffer[4096];
    const ssize_t count = read(STDIN_FILENO, buffer, sizeof buffer);
    if (count == 0) return text;
    if (count > 0) text.append(buffer, static_cast<std::size_t>(count));
    if (count == -1 && errno != EINTR && errno != EAGAIN) throw Failure("cannot read standard input; nothing was sent");
  }
}

/// @return the packet of a command document, read by the library itself
SendPacket ReadDocument(const SendOptions& options) {
  const std::string text = options.json == "-" ? ReadStandardInput() : options.json;
  MasterControllerClient client(options.joint_num);
  if (!client.PushSendQueueJson(text, false)) throw Failure("--json: not a command document; nothing was sent");
  return client.PopSendQueue();
}

std::string Hex(const std::vector<char>& bytes) {
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 0xF];
  }
  return text;
}

/// @return whether the bytes of packet command anything
bool Commands(const SendPacket& packet) {
  return packet.header.armOrder != 0 || std::any_of(packet.joints.begin(), packet.joints.end(),
                                                    [](const txJoint_t& joint) { return joint.order != 0; });
}

int Deliver(const SendOptions& options, const Link& link, SendPacket& packet) {
  Sender client(options.joint_num);
  if (!OpenLink(client, link)) {
    throw Failure("cannot open " + ToString(link) + ": " + std::generic_category().message(errno) +
                  "; velta doctor tells more");
  };
  client.PushSendQueue(packet, options.confirm);
  const std::int64_t start = MonotonicNs();
  client.SendPacketInBuffer();
  if (!client.IsConnected()) throw Failure("lost " + ToString(link) + " while sending");

  if (!options.confirm) {
    // Closing at once could overtake the frame: received bytes that nobody reads would reset the connection, and a
    // serial device gets its old rate back. A slow line needs ten bits per byte.
    double linger = 0.05;
    if (link.kind == Link::Kind::Serial) linger += 10.0 * packet.GetPacketSize() / link.baud;
    for (const std::int64_t end = start + static_cast<std::int64_t>(linger * 1e9); MonotonicNs() < end;) {
      client.ReceiveStatus();
      WaitUntil(MonotonicNs() + 2'000'000);
      if (StopRequested()) break;
    }
    Out() << "sent " << packet.GetPacketSize() << " bytes to " << ToString(link) << std::endl;
    return 0;
  }

  // The client waits 101 of its steps before each of four resends and before it gives up.
  constexpr int kSteps = 5 * 101;
  const auto step = static_cast<std::int64_t>(options.timeout_s * 1e9 / kSteps);
  int resends = 0;
  for (std::int64_t next = start + step; client.Waiting(); next += step) {
    WaitUntil(next);
    if (StopRequested()) throw Failure("interrupted before the echo came");
    client.ReceiveStatus();
    client.SendPacketInBuffer();
    if (!client.IsConnected()) throw Failure("lost " + ToString(link) + " before the echo came");
    resends = std::max(resends, client.Timeouts());
  }
  const auto took = static_cast<double>(MonotonicNs() - start);
  if (!client.Confirmed()) {
    throw Failure("no echo from " + ToString(link) + " within " + Duration(took) +
                  " and four resends; velta doctor tells why");
  }
  Out() << "sent " << packet.GetPacketSize() << " bytes to " << ToString(link) << ", confirmed after " << Duration(took)
        << " and " << resends << " resends" << std::endl;
  return 0;
}

int Send(const SendOptions& options) {
  InstallStopHandler();
  if (options.list) {
    for (const std::string& line : ListCommandWords()) Out() << line << "\n";
    Out().flush();
    return 0;
  }
  if (options.link.empty()) throw UsageError("send needs a LINK and a command; velta send --help shows how");
  if (options.joint_num == 0) throw UsageError("-n is required, the joints of the arm (--joints are those to command)");
  const Link link = ParseLink(options.link);
  if (options.json.empty() == options.words.empty()) throw UsageError("send takes either a command or --json DOCUMENT");
  if (!options.json.empty() && !options.joints.empty())
    throw UsageError("--json names its joints itself; leave --joints out");
  SendPacket packet = options.json.empty()
                          ? MakeCommand(options.joint_num, options.words.front(),
                                        {options.words.begin() + 1, options.words.end()}, options.joints)
                          : ReadDocument(options);
  if (!Commands(packet)) std::cerr << "velta: warning: this document commands nothing\n";
  if (options.dry_run) {
    Out() << Hex(packet.GetCharVector()) << std::endl;
    return 0;
  }
  return Deliver(options, link, packet);
}

}  // namespace

void AddSend(CLI::App& app, Action& action) {
  CLI::App& command = *app.add_subcommand("send", "Send one command, in words or as a document");
  static SendOptions options;
  command.add_option("LINK", options.link, "tcp://IP:PORT, udp://IP:PORT or serial:///dev/ttyX?baud=115200")
      ->option_text(" ");
  command.add_option("COMMAND", options.words, "The command's word and its arguments; --list shows all")
      ->option_text(" ");
  command.add_option("-n,--joint-count", options.joint_num, "Joints of the arm, the same at both ends of the link")
      ->check(CLI::Range(1, kMaxJoints))
      ->option_text("N");
  command.add_option("--joints", options.joints, "Joints to command: all, or indices from 0 as in 0/2/5")
      ->option_text("IDS");
  command.add_option("--json", options.json, "Send this command document; - reads it from standard input")
      ->option_text("DOCUMENT|-");
  command.add_flag("--confirm", options.confirm,
                   "Wait until the controller echoes the command, sending it again if need be");
  command.add_option("--timeout", options.timeout_s, "Seconds that --confirm waits, all resends included (0.5)")
      ->check(CLI::Range(0.01, 3600.0))
      ->option_text("S");
  command.add_flag("--dry-run", options.dry_run, "Print the frame's bytes instead of sending them");
  command.add_flag("--list", options.list, "List all commands");
  command.footer(
      "Here --joints names the joints that the command is for, and -n alone is the joint count.\n"
      "Example: velta send -n 6 tcp://192.168.0.10:5000 ref-position 30 --joints 0/2 --confirm");
  command.callback([&action] { action = [] { return Send(options); }; });
}

}  // namespace velta::tools
