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
#include "endpoint.h"
#include "faults.h"
#include "frames.h"

namespace velta::sim {

struct ServerConfig {
  int joints = 1;           ///< joints of the arm (n), 1 or more
  int cycle_ms = 0;         ///< ms between status frames; 0 is 1 over TCP and UDP and 10 on a pty
  bool on_command = false;  ///< status frames only in answer to commands
  std::vector<EndpointConfig> endpoints;
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
  std::vector<std::pair<std::string, std::uint64_t>> faults;  ///< strikes of every fault that the rules name
};

/// A controller on the wire: any number of endpoints, served by one thread in one poll loop. All hosts command the same
/// joints and see the same status.
///
/// Units:   as the frames; cycles in ms.
/// Errors:  the constructor throws std::runtime_error, one line; later trouble with a host ends its connection.
/// Threads: one thread constructs and runs; GetSummary only in that thread, or when Run has returned.
class Server {
 public:
  /// Opens every endpoint.
  explicit Server(ServerConfig config);
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Where hosts reach the endpoints, in the order of the configuration.
  std::vector<std::string> Links() const;

  /// Serves until stop_fd is readable.
  /// @param on_tick when given, called in every turn of the loop, at least every 10 ms
  void Run(int stop_fd, const std::function<void()>& on_tick = nullptr);

  Summary GetSummary() const;

 private:
  using Clock = std::chrono::steady_clock;

  struct DueCommand {
    Clock::time_point due;
    std::uint64_t host_id;
    SendPacket command;
  };
  struct Accepted {
    Clock::time_point time;
    std::uint64_t stamp;
  };
  /// A host that an endpoint talks to, and what is on its way to it.
  struct Host {
    Host(std::uint64_t number, Endpoint* at, Peer who, int joints)
        : id(number), endpoint(at), peer(std::move(who)), framer(joints) {}

    std::uint64_t id;
    Endpoint* endpoint;
    Peer peer;
    CommandFramer framer;
    struct Chunk {
      std::vector<char> bytes;
      bool bytewise;
    };
    struct Delayed {
      Clock::time_point due;
      std::vector<char> bytes;
    };
    std::deque<Chunk> chunks;  ///< one write each
    std::size_t position = 0;  ///< bytes of the first chunk that have left
    std::size_t queued = 0;    ///< bytes in all chunks and delayed frames
    std::deque<Delayed> delayed;
    std::vector<char> coalesced;  ///< frames that wait for company
    int coalesced_frames = 0;
    std::uint64_t frames = 0;  ///< composed for this host
    bool gone = false;
  };
  struct Port {
    std::unique_ptr<Endpoint> endpoint;
    std::chrono::milliseconds cycle;
    Clock::time_point next_cycle;
  };

  void UpdateClock();
  void OpenAndClose();
  void LookForDeviceUser(Endpoint& endpoint);
  void RunDueCommands();
  void RunCycles();
  void RunDelayed(Host& host);
  bool WaitAndServe(int stop_fd);
  Clock::time_point NextWake() const;
  Host* FindHost(const Endpoint& endpoint) const;
  Host& Welcome(Endpoint& endpoint, Peer peer);
  void ReadDatagram(Endpoint& endpoint);
  void ReadStream(Host& host);
  void Receive(Host& host, const char* bytes, std::size_t count);
  void Execute(const SendPacket& command, std::uint64_t host_id);
  std::uint64_t Echo(std::uint64_t newest);
  void SendStatus(Host& host);
  void Enqueue(Host& host, std::vector<char> bytes);
  void Depart(Host& host, std::vector<char> bytes);
  static void PushChunk(Host& host, std::vector<char> bytes, bool bytewise);
  void Flush(Host& host);
  void CloseWhereDue(Host& host);
  void Sweep();

  ServerConfig config_;
  Controller controller_;
  Faults faults_;
  std::vector<Port> ports_;
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
