// SPDX-License-Identifier: MIT
#ifndef VELTA_WIRE_CONTROLLER_END_H_
#define VELTA_WIRE_CONTROLLER_END_H_

#include <memory>
#include <string>

#include "address.h"
#include "channel.h"
#include "fd.h"
#include "pty.h"

namespace velta::wire {

/// The controller's end of a link, where hosts can come: a listening TCP socket, a UDP socket, a pty, a serial device.
/// Nothing blocks.
///
/// Errors:  LinkError, which names the end and the reason; BadLink for a link that cannot be listened on.
/// Threads: no lock; one thread at a time.
class ControllerEnd {
 public:
  /// Opens it; a host name is looked up.
  explicit ControllerEnd(const LinkAddress& link);
  ControllerEnd(const ControllerEnd&) = delete;
  ControllerEnd& operator=(const ControllerEnd&) = delete;

  /// The end as a host names it, with the port that the system chose; a pty is a serial link to its device.
  const LinkAddress& Address() const { return address_; }

  /// What it is; a pty differs here from a serial device.
  LinkAddress::Kind Kind() const { return kind_; }

  /// Refuses hosts until Open(). The port of a TCP end stays its own meanwhile.
  void Close();
  void Open();
  bool IsOpen() const { return fd_ != nullptr || kind_ == LinkAddress::Kind::kSerial; }

  /// Readable when a host may have come; -1 for a pty that no host holds open, to be looked at every kPtyLook ms.
  int WaitDescriptor() const;
  static constexpr int kPtyLook = 10;

  /// Whether a host is there to be taken: a TCP connection waits, a datagram arrived, the pty is open. A serial line
  /// always has one.
  bool HostIsThere() const;

  /// Whether someone holds the pty's device open.
  bool HasDeviceUser() const { return pty_ && pty_->HasUser(); }

  /// The host's channel, which this object must outlive. Only when HostIsThere(); may still fail with LinkError when a
  /// TCP host has gone again.
  Channel Take();

  /// Forgets the host. A pty's leftover bytes are dropped, so that the next host does not read them.
  /// @param hang_up  take a pty away from a host that still holds it, as an unplugged adapter would
  void Release(bool hang_up);

 private:
  std::shared_ptr<const Fd> Bind();

  LinkAddress::Kind kind_;
  LinkAddress address_;
  std::string path_;  ///< of the pty's symbolic link; may be empty
  std::shared_ptr<Pty> pty_;
  std::shared_ptr<const Fd> fd_;        ///< a socket, or the pty's; none while closed
  std::shared_ptr<const Fd> reserved_;  ///< TCP: bound but not listening, so that nobody else gets the port
};

}  // namespace velta::wire

#endif  // VELTA_WIRE_CONTROLLER_END_H_
