// SPDX-License-Identifier: MIT
#ifndef VELTA_SRC_SESSION_LOOP_H_
#define VELTA_SRC_SESSION_LOOP_H_

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "MasterControllerClient.h"
#include "client_parts.h"
#include "session_command.h"
#include "session_link.h"
#include "session_notifier.h"
#include "session_recorder.h"
#include "session_status.h"
#include "session_sync.h"
#include "velta_session.h"

namespace velta::detail {

/// Counts durations in classes of about 3 %, from 1 ns to more than an hour. One thread adds, any thread reads.
class Histogram {
 public:
  void Add(Nanos duration);
  Lateness Get() const;

 private:
  static constexpr int kBits = 5;  // of a class number within a power of two
  static constexpr std::size_t kClasses = std::size_t{40} << kBits;
  static std::size_t ClassOf(std::uint64_t ns);
  static std::uint64_t LargestOf(std::size_t index);

  std::array<Counter, kClasses> counts_;
  Counter count_, max_;
};

/// Why there is no status yet, for those who wait for one.
class Situation {
 public:
  void Set(bool is_connected, bool is_final, std::string why);
  bool IsConnected() const { return is_connected_; }
  bool IsFinal() const { return is_final_; }
  std::string Why() const;
  Signal changed;

 private:
  mutable InheritingMutex mutex_;
  std::string why_ = "the session was not started";
  std::atomic<bool> is_connected_{false}, is_final_{false};
};

/// What the loop shares with the host's threads.
struct SessionShared {
  SessionShared(SessionOptions given, LinkAddress link);

  const SessionOptions options;
  const LinkAddress address;
  std::unique_ptr<FlightRecorder> recorder;  ///< or null
  std::shared_ptr<Admission> admission = std::make_shared<Admission>();
  std::shared_ptr<Stream> plain;
  Keys keys;
  Notifier notifier;
  LatestStatus latest;
  StatusQueue statuses;
  Situation situation;

  InheritingMutex new_sources_mutex;
  std::vector<std::shared_ptr<Stream>> new_sources;
  std::atomic<bool> has_new_sources{false};

  Counter reconnections, cycles, overruns, late, statuses_left_out;
  Histogram lateness;
};

/// The cycle of a session.
///
///   state       event                                       next state, and what is done
///   kPaused     its time has come                           kConnecting, an attempt begins
///   kConnecting the link is open                            kOpen; a stop that is due leaves first
///   kConnecting refused, timed out, no address              kPaused (kOver without reconnection), longer each time
///   kOpen       the first status, where one is awaited      kOpen, connected: commands are taken
///   kOpen       link lost, or silent for too long           kPaused (kOver without reconnection); all is discarded
///   any         Close()                                     kOver, everything is discarded
///
/// Threads: one at a time.
class SessionLoop : private MasterControllerClient {
 public:
  /// @param link  how the controller is reached; owned
  SessionLoop(SessionShared& shared, std::unique_ptr<SessionLink> link);

  /// One cycle; never waits. Throws nothing but what allocation does.
  void Cycle(Nanos now);

  /// Between two cycles: waits for bytes, at most until then, takes them in, and sends what became possible. One command
  /// that nobody confirmed leaves per cycle.
  /// @return false when there is nothing to wait for until the next cycle
  bool Listen(Nanos until);

  /// Ends it all, as stopped.
  void Close();

  using MasterControllerClient::GetStatistics;

 private:
  enum class State { kPaused, kConnecting, kOpen, kOver };

  void RunLink(Nanos now);
  void Begin(Nanos now);
  void Open(Nanos now);
  void Greet();
  void Pause(Nanos now, const std::string& why);
  void Lose(Nanos now, const std::string& why);
  void Receive(Nanos now);
  void Send(Nanos now);
  void TakeIn();
  bool ChooseStop();
  bool Choose();
  Command* ValidFront(Stream& stream);
  bool ChooseFrom(Stream& stream);
  bool ChooseFromKeys();
  bool ChooseFromSources();
  void Carry(Command* command);
  void BeginStop(const char* why);
  void EndStopFrame();
  void ResetGate();
  void SetStamp(SendPacket& packet);
  void Finish(velta::Outcome outcome, velta::Reason reason);
  void Drop(Command* command, velta::Reason reason);
  void DropAll(Stream& stream, velta::Reason reason);

  SessionShared& shared_;
  const SessionOptions& options_;
  SessionLink& link_;  ///< the client's own

  State state_ = State::kPaused;
  Nanos next_attempt_ = 0;
  Nanos pause_;
  std::minstd_rand random_;
  bool was_ever_connected_ = false;
  bool is_connected_now_ = false;  ///< a status has come on this connection, or none is awaited
  Nanos opened_ = 0, last_heard_ = 0, next_ask_ = 0;
  std::uint64_t bytes_at_open_ = 0;

  std::vector<std::shared_ptr<Stream>> sources_;
  bool has_sent_ = false;          ///< a command, in this cycle
  std::size_t first_source_ = 0;   ///< that may fill the next merged frame first
  int turn_ = 0;                   ///< of the plain queue, the sources, the keys
  std::vector<Command*> carried_;  ///< by the frame that left last, while its outcome is open
  std::vector<Stream*> carried_from_;
  SendPacket candidate_, idle_;

  bool is_stopping_arm_ = false;  ///< stop frames are due
  bool is_stop_carried_ = false;  ///< the frame that left last is one of them
  std::size_t stop_index_ = 0;
  std::vector<bool> velocity_mode_;  ///< per joint, by the newest status

  std::vector<RecvPacket> received_;
};

}  // namespace velta::detail

#endif  // VELTA_SRC_SESSION_LOOP_H_
