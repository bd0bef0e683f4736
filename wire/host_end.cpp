// SPDX-License-Identifier: MIT
#include "host_end.h"

#include <sys/socket.h>

#include <cerrno>
#include <system_error>

#include "clock.h"
#include "stop.h"

namespace velta::wire {

namespace {

using Kind = LinkAddress::Kind;

std::int64_t After(int timeout_ms) { return MonotonicNs() + std::int64_t{timeout_ms} * 1'000'000; }
std::string Reason(int error) { return std::generic_category().message(error); }

}  // namespace

void HostEnd::Check(const LinkAddress& link) {
  if (link.kind == Kind::kSimulator) {
    throw BadLink("'" + ToString(link) + "' lives inside a program; velta sim serves a simulated controller on a link");
  }
  if (link.kind == Kind::kPty) {
    throw BadLink("'" + ToString(link) + "' is a place to listen on; a controller's tty is serial://" +
                  (link.device.empty() ? "/dev/pts/N" : link.device));
  }
  if (link.kind != Kind::kSerial && link.port == 0) {
    throw BadLink("'" + ToString(link) + "': a controller has a port other than 0");
  }
}

HostEnd::HostEnd(const LinkAddress& link) : name_(ToString(link)), channel_(Open(link)) {
  if (link.kind == Kind::kSerial) return;
  const sockaddr_in address = SocketAddress(Resolved(link));
  if (connect(Descriptor(), Generic(address), sizeof address) != 0) {
    if (errno != EINPROGRESS) FailLink(link, errno);
    connecting_ = true;
  }
  if (link.kind == Kind::kTcp) SetNoDelay(Descriptor());
}

HostEnd::HostEnd(const LinkAddress& link, int timeout_ms) : HostEnd(link) {
  if (!connecting_) return;
  WaitWritable(After(timeout_ms), Reason(ETIMEDOUT));
  FinishConnecting();
}

Channel HostEnd::Open(const LinkAddress& link) {
  Check(link);
  return {link.kind == Kind::kSerial ? OpenSerial(link) : OpenSocket(link), link.kind};
}

void HostEnd::FinishConnecting() {
  int error = 0;
  socklen_t size = sizeof error;
  getsockopt(Descriptor(), SOL_SOCKET, SO_ERROR, &error, &size);
  if (error != 0) Fail(Reason(error), error);
  connecting_ = false;
}

void HostEnd::Fail(const std::string& what, int error) const { throw LinkError(name_ + ": " + what, error); }

bool HostEnd::WaitReadable(std::int64_t deadline_ns) const { return WaitUntil(deadline_ns, Descriptor()); }

void HostEnd::WaitWritable(std::int64_t deadline_ns, const std::string& otherwise) const {
  if (WaitUntil(deadline_ns, Descriptor(), POLLOUT)) return;
  if (StopRequested()) Fail("interrupted", EINTR);
  Fail(otherwise, ETIMEDOUT);
}

std::size_t HostEnd::Read(std::vector<char>& bytes) {
  char buffer[65536];
  const IoResult result = channel_.Read(buffer, sizeof buffer);
  const bool is_broken = result.io == Io::kBroken;
  if (result.io == Io::kEnded || (is_broken && result.error == 0)) Fail("the other end closed the link", ECONNABORTED);
  if (is_broken || result.error == ECONNREFUSED) {  // what a UDP port says that nobody listens on
    Fail("the link is lost: " + Reason(result.error), result.error);
  }
  bytes.insert(bytes.end(), buffer, buffer + result.size);
  return result.size;
}

void HostEnd::Write(const std::vector<char>& frame) {
  const std::int64_t deadline = After(1000);
  for (std::size_t done = 0; done < frame.size();) {
    const IoResult result = channel_.Write(frame.data() + done, frame.size() - done);
    if (result.io == Io::kBroken) Fail("the link is lost: " + Reason(result.error), result.error);
    done += result.size;
    if (result.size == 0) WaitWritable(deadline, "the other end takes no more bytes");
  }
}

}  // namespace velta::wire
