// SPDX-License-Identifier: MIT
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "MasterControllerClient.h"
#include "SendPacket.h"
#include "command.h"
#include "command_words.h"
#include "counted.h"
#include "own_link.h"
#include "stop.h"
#include "timing.h"

namespace velta::tools {

namespace {

using namespace std::chrono_literals;

struct SendOptions {
  Link link;
  int joints = 0;
  std::vector<std::string> words;  ///< the command's word and its arguments
  std::string selection;
  std::string document;
  bool confirm = false;
  std::chrono::nanoseconds timeout = 500ms;
  bool dry_run = false;
  bool json = false;
  bool list = false;
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
  const std::string text = options.document == "-" ? ReadStandardInput() : options.document;
  MasterControllerClient client(options.joints);
  if (!client.PushSendQueueJson(text, false)) throw Failure("--document: not a command document; nothing was sent");
  return client.PopSendQueue();
}

/// What became of a command, as text or as one JSON object.
void Print(const SendOptions& options, const SendPacket& packet, std::optional<std::int64_t> confirmed_after_ns,
           std::uint64_t resends) {
  if (options.json) {
    nlohmann::ordered_json document = {{"link", ToString(options.link)}, {"bytes", packet.GetPacketSize()}};
    if (confirmed_after_ns) {
      document["confirmed_after_us"] = *confirmed_after_ns / 1000;
      document["resends"] = resends;
    }
    Out() << document << std::endl;
    return;
  }
  Out() << fmt::format("sent {} bytes to {}", packet.GetPacketSize(), ToString(options.link));
  if (confirmed_after_ns) {
    Out() << fmt::format(", confirmed after {} and {}", RoundedDuration(*confirmed_after_ns),
                         Counted(resends, "resend"));
  }
  Out() << std::endl;
}

bool IsIdle(const SendPacket& packet) {
  return packet.header.armOrder == 0 && std::all_of(packet.joints.begin(), packet.joints.end(),
                                                    [](const txJoint_t& joint) { return joint.order == 0; });
}

std::vector<unsigned char> Bytes(const SendPacket& packet) {
  const std::vector<char> frame = packet.GetCharVector();
  return {frame.begin(), frame.end()};
}

/// Waits for the last outcome of a command.
/// @param longest  0: as long as it takes
void Await(const Ticket& ticket, std::chrono::nanoseconds longest, const char* interrupted) {
  const std::int64_t start = MonotonicNs();
  while (ticket.Wait(20ms) == Outcome::kPending) {
    if (StopRequested()) throw Failure(interrupted);
    if (longest.count() != 0 && MonotonicNs() - start > longest.count()) return;
  }
}

/// Closing at once could overtake the frame: a serial device gets its old rate back. A slow line needs ten bits per byte.
void Linger(const Link& link, int bytes) {
  auto linger = 50ms;
  if (link.kind == Link::Kind::kSerial) linger += std::chrono::milliseconds(10'000LL * bytes / link.baud);
  WaitUntil(MonotonicNs() + std::chrono::nanoseconds(linger).count());
}

/// The client waits 101 cycles before each of four resends and before it gives up, so the time-out is cut into as many.
std::chrono::nanoseconds PeriodFor(std::chrono::nanoseconds timeout) { return timeout / (5 * 101); }

void Deliver(const SendOptions& options, const SendPacket& packet) {
  const std::string link = ToString(options.link);
  std::atomic<std::int64_t> left_at{0};
  SessionOptions session;
  session.joints = options.joints;
  session.reconnect = false;
  session.ask = 0ns;
  if (options.confirm) session.period = PeriodFor(options.timeout);
  session.on_traffic = [&left_at](const Traffic& traffic) {
    if (traffic.kind == Traffic::Kind::kToController && left_at == 0) left_at = MonotonicNs();
  };
  std::optional<OwnLink> own;
  try {
    own.emplace(options.link, session);
  } catch (const LinkError& error) {
    throw Failure(fmt::format("cannot open {}; velta doctor finds out more", error.what()));
  }
  const std::int64_t start = MonotonicNs();
  const Ticket ticket = own->Arm().Send(packet, options.confirm ? Confirm::kYes : Confirm::kNo);
  if (!options.confirm) {
    Await(ticket, 1s, "interrupted while sending");
    if (ticket.Outcome() != Outcome::kSent) throw Failure("lost " + link + " while sending");
    Linger(options.link, packet.GetPacketSize());
    Print(options, packet, std::nullopt, 0);
    return;
  }
  Await(ticket, 0s, "interrupted before the echo came");
  const std::int64_t waited = MonotonicNs() - (left_at != 0 ? left_at.load() : start);
  if (ticket.Outcome() == Outcome::kConfirmed) {
    Print(options, packet, waited, own->Arm().GetStatistics().client.frames_sent_again);
  } else if (ticket.Outcome() == Outcome::kGaveUp) {
    throw Failure(fmt::format("no echo from {} within {} and four resends; velta doctor finds out why", link,
                              RoundedDuration(waited)));
  } else {
    throw Failure("lost " + link + " before the echo came");
  }
}

int Send(const SendOptions& options) {
  InstallStopHandler();
  if (options.document.empty() == options.words.empty()) {
    throw UsageError("send takes either a command or --document; velta send --list shows the commands");
  }
  if (!options.document.empty() && !options.selection.empty()) {
    throw UsageError("--document names its joints itself; leave --select out");
  }
  const SendPacket packet = options.document.empty()
                                ? MakeCommand(options.joints, options.words.front(),
                                              {options.words.begin() + 1, options.words.end()}, options.selection)
                                : ReadDocument(options);
  if (IsIdle(packet)) std::cerr << "velta: warning: this document commands nothing\n";
  if (options.dry_run) {
    Out() << fmt::format("{:02x}\n", fmt::join(Bytes(packet), ""));
  } else {
    Deliver(options, packet);
  }
  return 0;
}

int List() {
  for (const std::string& line : ListCommandWords()) Out() << line << "\n";
  return 0;
}

}  // namespace

void AddSend(CLI::App& app, Action& action) {
  CLI::App& command = *app.add_subcommand("send", "Send one command, in words or as a document");
  const auto options = std::make_shared<SendOptions>();
  auto* const link = AddLinkArgument(command, options->link, Arguments::kOthersToo);
  command.add_option("COMMAND", options->words, "The command's word and its arguments; --list shows all")
      ->type_name("")
      ->default_str("");
  auto* const joints = AddJointsOption(command, options->joints);
  AddSelectOption(command, options->selection, "Joints to command");
  command
      .add_option("--document", options->document, "Send this JSON command document; - reads it from standard input")
      ->type_name("JSON");
  command.add_flag("--confirm", options->confirm,
                   "Wait until the controller echoes the command, sending it again if need be");
  AddDurationOption(command, "--timeout", options->timeout, {10ms, 1h},
                    "How long --confirm waits, all resends included");
  command.add_flag("--dry-run", options->dry_run, "Print the frame's bytes instead of sending them");
  AddJsonFlag(command, options->json, "Print one JSON object");
  command
      .add_flag_callback(
          "--list",
          [options, link, joints] {
            options->list = true;
            link->required(false);
            joints->required(false);
          },
          "List all commands")
      ->trigger_on_parse();
  command.footer(
      "Example: velta send -n 6 tcp://192.168.0.10:5000 ref-position 30 --select 0/2 --confirm\n"
      "Write negative numbers with a digit first: -0.5, not -.5.");
  command.callback([options, &action] { action = [options] { return options->list ? List() : Send(*options); }; });
}

}  // namespace velta::tools
