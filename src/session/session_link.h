// SPDX-License-Identifier: MIT
#ifndef VELTA_SRC_SESSION_LINK_H_
#define VELTA_SRC_SESSION_LINK_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "AbstractClient.h"
#include "session_recorder.h"
#include "session_sync.h"
#include "velta_link.h"
#include "velta_session.h"

namespace velta::detail {

/// A link that never makes its loop wait: connecting is begun and then looked after in every cycle, frames that the
/// system does not take at once leave later, closing is immediate. Prints nothing.
///
/// Threads: the loop's, or whoever comes after it.
class SessionLink : public AbstractClient {
 public:
  enum class Progress { kConnecting, kOpen, kFailed };

  using OnTraffic = std::function<void(const Traffic&)>;

  /// What sees every byte; each may be null.
  struct Witnesses {
    FlightRecorder* recorder = nullptr;
    const OnTraffic* on_traffic = nullptr;
  };

  explicit SessionLink(Witnesses witnesses) : witnesses_(witnesses) {}

  /// Begins to connect. An earlier connection was ended with Disconnect() or Abort().
  virtual void Begin() = 0;
  /// @param[out] why  one line, for kFailed
  virtual Progress Look(std::string& why) = 0;

  /// Ends the connection and all that is still on its way out.
  virtual void Abort() = 0;
  int Disconnect() override = 0;  ///< ends it, and lets the system deliver what it has taken

  /// @return bytes; 0 for none; -1 when the connection is lost
  int Read(std::vector<char>& data) final;

  /// Sends a frame, or keeps what the system does not take now. While something is kept, another frame is dropped.
  /// @return its size; 0 when it was dropped; -1 when the connection is lost
  int Write(const std::vector<char>& data) final;

  /// Sends what is kept. @return false when the connection is lost
  bool Flush();
  bool IsFlushed() const { return kept_.empty(); }

  /// What can be polled for bytes; -1 for nothing.
  virtual int Descriptor() const { return -1; }

  /// Whether the controller must be addressed before it sends anything.
  virtual bool MustBeAsked() const { return false; }

  /// Why the connection was lost; one line.
  const std::string& Why() const { return why_; }

  bool Init() final { return true; }
  bool Connect() final { return true; }

 protected:
  /// @return bytes put into buffer; 0 when there is no more; -1 for a lost connection, with why_
  virtual long ReadSome(char* buffer, std::size_t size) = 0;
  /// @return bytes taken; 0 for none now; -1 for a lost connection, with why_
  virtual long WriteSome(const char* bytes, std::size_t size) = 0;
  /// Whether a read that did not fill its buffer was the last one.
  virtual bool IsStream() const { return true; }

  void Opened();  ///< call when Look() finds the connection open
  void Closed();  ///< call when the connection ends

  std::string why_;

 private:
  void Show(Traffic::Kind kind, const char* bytes = nullptr, std::size_t size = 0);

  const Witnesses witnesses_;
  bool is_open_ = false;
  std::vector<char> kept_;
  std::vector<char> buffer_ = std::vector<char>(std::size_t{1} << 17);
};

/// The link of an address, which is not a pty's.
/// @param options   outlive the link
/// @param recorder  may be null
std::unique_ptr<SessionLink> MakeSessionLink(const LinkAddress& address, const SessionOptions& options,
                                             FlightRecorder* recorder);

}  // namespace velta::detail

#endif  // VELTA_SRC_SESSION_LINK_H_
