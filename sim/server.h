// SPDX-License-Identifier: MIT
#ifndef VELTA_SIM_SERVER_H_
#define VELTA_SIM_SERVER_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "controller.h"
#include "controller_end.h"
#include "faults.h"
#include "frame_stream.h"
#include "outbox.h"

namespace velta::sim {

struct ServerConfig {
  int joints = 1;                   ///< joints of the arm (n), 1 or more
  int cycle_ms = 0;                 ///< ms between status frames; 0 is 1 over TCP and UDP and 10 on a pty
  bool on_command = false;          ///< status frames only in answer to commands
  std::vector<LinkAddress> listen;  ///< TCP, UDP or pty
  std::vector<FaultRule> faults;
  std::uint64_t seed = 1;  ///< of the faults

  /// Sees every status frame that the controller sends, before any fault touches it. Called by Run.
  std::function<void(const std::vector<char>& frame)> on_status;
};

/// What has happened so far.
struct Summary {
  double seconds = 0;
  std::uint64_t connections = 0;                              ///< hosts that came
  std::uint64_t commands = 0;                                 ///< whole commands with a right CRC
  std::uint64_t executed = 0;                                 ///< of these, executed
  std::uint64_t bad_crc = 0;                                  ///< command frames dropped for their CRC
  std::uint64_t garbage = 0;                                  ///< bytes dropped in front of command frames
  std::uint64_t status_frames = 0;                            ///< composed, whatever faults made of them
  std::uint64_t overruns = 0;                                 ///< of these, not sent because the host does not read
  std::uint64_t bytes_received = 0;                           ///< from hosts
  std::uint64_t bytes_discarded = 0;                          ///< of these, garbage and frames with a wrong CRC
  std::uint64_t frames_sent = 0;                              ///< given to links, whatever faults made of them
  std::vector<std::pair<std::string, std::uint64_t>> faults;  ///< strikes of every fault that the rules name
};

/// A controller on the wire: any number of places to listen, served by one thread in one poll loop. All hosts command
/// the same joints and see the same status. TCP takes any number of connections, UDP talks to the peer that sent last,
/// a pty to whoever has its device open.
///
/// Units:   as the frames; cycles in ms.
/// Errors:  the constructor throws what wire::ControllerEnd does; later trouble with a host ends its connection.
/// Threads: one thread constructs and runs; GetSummary only in that thread, or when Run has returned.
class Server {
 public:
  /// Opens every place to listen.
  explicit Server(ServerConfig config);
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// What hosts open, in the order of the configuration: "tcp://127.0.0.1:43210", "serial:///dev/pts/3".
  std::vector<std::string> Links() const;

  /// Serves until stop_fd is readable.
  /// @param on_tick when given, called in every turn of the loop, at least every 10 ms
  void Run(int stop_fd, const std::function<void()>& on_tick = nullptr);

  Summary GetSummary() const;

  /// Lets a fault begin while the server runs. Call it from on_tick.
  /// @param line  of a fault script; without a trigger the fault begins at once
  /// Throws std::invalid_argument with one line.
  void TakeFault(const std::string& line) { faults_.Add(ParseFaultLine(line)); }

 private:
  struct DueCommand {
    Clock::time_point due;
    std::uint64_t host_id;
    SendPacket command;
  };
  struct Accepted {
    Clock::time_point time;
    std::uint64_t stamp;
  };
  /// A host, and what is on its way to it.
  struct Host {
    Host(std::uint64_t number, wire::ControllerEnd& at, wire::Channel to, int joints)
        : id(number), end(at), channel(std::move(to)), commands(joints), outbox(channel.IsStream()) {}

    std::uint64_t id;
    wire::ControllerEnd& end;
    wire::Channel channel;
    wire::CommandStream commands;
    Outbox outbox;
    std::uint64_t frames = 0;  ///< composed for this host
    bool gone = false;
  };
  struct Place {
    std::unique_ptr<wire::ControllerEnd> end;
    std::chrono::milliseconds cycle;
    Clock::time_point next_cycle;
  };

  void UpdateClock();
  void OpenAndClose();
  void LookForDeviceUser(wire::ControllerEnd& end);
  void RunDueCommands();
  void RunCycles();
  void RunLate(Host& host);
  bool WaitAndServe(int stop_fd);
  Clock::time_point NextWake() const;
  Host* FindHost(const wire::ControllerEnd& end) const;
  Host& Welcome(wire::ControllerEnd& end, wire::Channel channel);
  void Accept(wire::ControllerEnd& end);
  void ReadDatagram(wire::ControllerEnd& end);
  void ReadStream(Host& host);
  void Receive(Host& host, const char* bytes, std::size_t count);
  void Execute(const SendPacket& command, std::uint64_t host_id);
  std::uint64_t Echo(std::uint64_t newest);
  RecvPacket ComposeStatus();
  void SendStatus(Host& host);
  void Send(Host& host, std::vector<char> bytes);
  void Depart(Host& host, std::vector<char> bytes);
  void Flush(Host& host);
  void CloseWhereDue(Host& host);
  void Sweep();

  ServerConfig config_;
  Controller controller_;
  Faults faults_;
  std::vector<Place> places_;
  std::vector<std::unique_ptr<Host>> hosts_;
  std::deque<DueCommand> due_commands_;
  std::deque<Accepted> accepted_;  ///< commands executed lately, oldest first
  std::optional<RecvPacket> frozen_;
  Summary summary_;
  Clock::time_point start_ = Clock::now();
  Clock::time_point now_ = start_;
  std::uint64_t next_host_id_ = 1;
  bool refusing_ = false;
  bool reading_ = true;
};

}  // namespace velta::sim

#endif  // VELTA_SIM_SERVER_H_
