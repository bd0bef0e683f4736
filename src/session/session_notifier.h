// SPDX-License-Identifier: MIT
#ifndef VELTA_SRC_SESSION_NOTIFIER_H_
#define VELTA_SRC_SESSION_NOTIFIER_H_

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "session_command.h"
#include "session_recorder.h"
#include "session_status.h"
#include "session_sync.h"
#include "velta_session.h"

namespace velta::detail {

/// Calls the host back, so that the loop never does: from a thread of its own, or from whoever runs Deliver().
///
/// Threads: any, but where another is named.
class Notifier {
 public:
  /// @param recorder  what is written when RequestRecord() was called; may be null
  Notifier(int joints, std::size_t status_limit, FlightRecorder* recorder, std::string record_path)
      : joints_(joints), status_limit_(status_limit), recorder_(recorder), record_path_(std::move(record_path)) {}
  Notifier(const Notifier&) = delete;
  Notifier& operator=(const Notifier&) = delete;
  ~Notifier();

  void OnEvent(Session::EventCallback callback);
  void OnStatus(Session::StatusCallback callback);

  void Post(Event::Kind kind, std::string text, double value = 0);
  /// @param command  has a callback; its reference is taken over
  void Post(Command* command);
  void PostStatus(const RecvPacket& status);  ///< by the loop
  void RequestRecord();

  void Start();  ///< the thread. Throws std::system_error.
  /// Calls back the rest, except statuses and what comes after a second in such callbacks. Returns at
  /// once.
  void Stop();
  void Join();     ///< waits for the callback that runs
  void Deliver();  ///< calls back all that waits; nothing while another call of it runs

  std::uint64_t EventsLeftOut() const { return events_left_out_; }
  std::uint64_t StatusesLeftOut() const { return statuses_left_out_; }

 private:
  static constexpr std::size_t kMaxEvents = 256;
  static constexpr int kMaxRecords = 100;

  bool IsOver() const;
  template <typename Act>
  void Timed(Act act);
  bool DeliverEvent();
  bool DeliverCommands();
  bool DeliverStatuses();
  void WriteRecord();

  const int joints_;
  const std::size_t status_limit_;
  FlightRecorder* const recorder_;
  const std::string record_path_;

  Signal work_;
  std::thread thread_;
  std::atomic<bool> is_stopping_{false};
  std::atomic<Nanos> spent_{0};  ///< in callbacks since Stop()
  std::atomic<bool> is_delivering_{false};

  InheritingMutex mutex_;  ///< guards what follows
  std::shared_ptr<const Session::EventCallback> event_callback_;
  std::shared_ptr<const Session::StatusCallback> status_callback_;
  std::array<Event, kMaxEvents> events_;
  std::size_t first_event_ = 0;
  std::size_t event_count_ = 0;
  std::uint64_t left_out_ = 0;  ///< events before the first one

  std::atomic<StatusQueue*> statuses_{nullptr};  ///< once there is a callback
  std::unique_ptr<StatusQueue> owned_statuses_;
  std::atomic<bool> has_event_callback_{false};
  std::atomic<bool> has_status_callback_{false};
  std::atomic<bool> has_statuses_{false};
  std::atomic<Command*> commands_{nullptr};  ///< newest first
  std::atomic<bool> is_record_asked_{false};
  int records_ = 0;
  std::atomic<std::uint64_t> events_left_out_{0}, statuses_left_out_{0};
};

}  // namespace velta::detail

#endif  // VELTA_SRC_SESSION_NOTIFIER_H_
