// SPDX-License-Identifier: MIT
#ifndef VELTA_BRIDGE_HUB_H_
#define VELTA_BRIDGE_HUB_H_

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "control.h"
#include "messages.h"
#include "velta_session.h"

namespace velta::bridge {

/// One way by which people and programs reach the hub. Called from the hub's thread.
class FrontEnd {
 public:
  FrontEnd() = default;
  FrontEnd(const FrontEnd&) = delete;
  FrontEnd& operator=(const FrontEnd&) = delete;
  virtual ~FrontEnd() = default;

  virtual void ShowControl() = 0;                       ///< another one holds control than before
  virtual void ShowEvent(const std::string& text) = 0;  ///< an EventText
  virtual void ShowArm() = 0;                           ///< the arm's link came or went
  virtual void AddStatistics(nlohmann::json& to) const = 0;
};

struct HubOptions {
  SessionOptions session;
  ControlOptions control;
};

/// The arm's session, who may command it, and everybody who is told about it.
///
/// Threads: the one that runs the io_context.
class Hub {
 public:
  using Reply = std::function<void(const std::string& text)>;

  Hub(boost::asio::io_context& io, HubOptions options);

  void Add(FrontEnd& front_end) { front_ends_.push_back(&front_end); }
  void Start() { session_.Start(); }

  /// Stops the arm if somebody holds control, and ends the session. For good.
  void Stop();

  /// Does what the message asks. Answers go to reply, possibly later and then from the hub's thread, too.
  /// @return whether it was a command that was given to the session
  bool Handle(const Commander& sender, const Message& message, const Reply& reply);

  /// Refuses a message unseen: it does not even show that its sender is alive.
  static void Refuse(const Message& message, Refusal why, const Reply& reply);

  /// The sender's connection has ended, and what it left waiting ends with it.
  void Leave(const Commander& sender);

  /// The same for everybody whose name begins so.
  void LeaveAll(const std::string& beginning);

  /// The control document as the sender sees it.
  std::string ControlFor(const Commander& sender) const;
  const Commander& Holder() const { return control_.Holder(); }

  /// The newest status's document, the same object for the same status; null while the arm is away.
  std::shared_ptr<const std::string> State();
  bool IsConnected() const { return session_.IsConnected(); }
  bool IsArmThere() const { return is_arm_there_; }  ///< by the last event that was shown
  const HubOptions& Options() const { return options_; }
  std::string Statistics() const;  ///< one compact JSON object
  std::uint64_t Cycles() const { return session_.GetStatistics().cycles; }

 private:
  void Apply(const Control::Effects& effects);
  void WatchHolder();
  bool Send(const Commander& sender, const Message& message, const Reply& reply);
  void OnStatus(const RecvPacket& status);  ///< in the session's thread
  void OnEvent(const Event& event);         ///< in the session's thread
  void Show(Event event);
  Source& SourceOf(const Commander& sender);

  boost::asio::io_context& io_;
  HubOptions options_;
  Control control_;
  Codec codec_;
  boost::asio::steady_timer holder_timer_;
  std::vector<FrontEnd*> front_ends_;
  std::map<Commander, Source> sources_;
  std::deque<std::string> events_;  ///< the last ones, as texts
  std::shared_ptr<const std::string> state_;
  std::uint64_t state_count_ = 0;  ///< of statuses, when state_ was made
  std::mutex latest_mutex_;
  std::optional<RecvPacket> latest_;  ///< of the statuses that were counted; the session's own may be newer

  bool is_arm_there_ = false;
  double overruns_ = 0;                               ///< that were not shown yet
  std::chrono::steady_clock::time_point overrun_at_;  ///< when some were shown last

  std::atomic<std::uint64_t> status_count_{0};
  std::atomic<std::uint64_t> latency_ns_{0};    ///< of the last echo; 0: none yet
  std::atomic<unsigned> events_on_the_way_{0};  ///< from the session's thread to the hub's
  std::uint64_t last_echo_ = 0;                 ///< in the session's thread
  Session session_;                             ///< last: its callbacks use the rest
};

}  // namespace velta::bridge

#endif  // VELTA_BRIDGE_HUB_H_
