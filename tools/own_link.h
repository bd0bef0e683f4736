// SPDX-License-Identifier: MIT
#ifndef VELTA_TOOLS_OWN_LINK_H_
#define VELTA_TOOLS_OWN_LINK_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "fd.h"
#include "link.h"
#include "relay.h"
#include "velta_session.h"

namespace velta::tools {

/// The controller's link of a tool that is the host itself. A session runs it: reads what arrives at once, asks a silent
/// controller, reconnects where that is wanted. What passes is kept with its time until the tool's own thread takes it,
/// as it would take it from a relay; so neither drawing nor writing a file delays a time stamp.
///
/// Errors:  LinkError, one line that names the link.
/// Threads: one at a time.
class OwnLink {
 public:
  /// Waits until the link is open; a requested stop ends the wait.
  /// @param options   but for its link, await_status, silence and wake_on_arrival
  /// @param observer  takes what passes, outlives this, in place of options.on_traffic; null for none
  OwnLink(const Link& link, SessionOptions options, RelayObserver* observer = nullptr);
  OwnLink(const OwnLink&) = delete;
  OwnLink& operator=(const OwnLink&) = delete;

  /// Waits until something has passed, at the latest until the deadline, a stop, or until `wake` is readable, and hands
  /// it to the observer. Throws when the link is lost for good.
  void Step(std::int64_t deadline_ns, int wake = -1);

  /// Ends the session, and hands over what is left.
  void Close();

  /// @return one line while the link is away, which is tried again; else nothing
  std::string Trouble();

  Session& Arm() { return *session_; }

 private:
  struct Piece {
    Traffic::Kind kind;
    Stamp at;
    std::vector<char> bytes;
  };

  void Keep(const Traffic& traffic);
  void Note(const Event& event);
  void Wake();
  void AwaitNews(std::int64_t deadline_ns, int wake = -1);
  void HandOver();
  std::string Why();

  const Link link_;
  RelayObserver* const observer_;
  const bool reconnects_;
  const Fd news_;  ///< an eventfd
  std::mutex mutex_;
  std::vector<Piece> pieces_;  ///< guarded by mutex_
  std::atomic<bool> was_opened_{false}, has_failed_{false};
  bool is_open_ = true;
  std::unique_ptr<Session> session_;  ///< last, since its threads use the rest
};

}  // namespace velta::tools

#endif  // VELTA_TOOLS_OWN_LINK_H_
