// SPDX-License-Identifier: MIT
#include "controller_end.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <termios.h>

#include <cerrno>
#include <system_error>

namespace velta::wire {

namespace {

using KindOfLink = LinkAddress::Kind;

[[noreturn]] void FailToListen(const LinkAddress& link) {
  const int error = errno;
  throw LinkError("cannot listen on " + ToString(link) + ": " + std::generic_category().message(error), error);
}

}  // namespace

ControllerEnd::ControllerEnd(const LinkAddress& link) : kind_(link.kind), address_(Resolved(link)) {
  if (kind_ == KindOfLink::kSimulator) throw BadLink("'" + ToString(link) + "' cannot be listened on");
  if (kind_ == KindOfLink::kPty) {
    path_ = link.device;
    address_.kind = KindOfLink::kSerial;
  }
  Open();
}

void ControllerEnd::Open() {
  if (kind_ == KindOfLink::kSerial) return;  // opened for each host by Take()
  if (kind_ == KindOfLink::kPty) {
    pty_ = std::make_shared<Pty>(path_);
    fd_ = {pty_, &pty_->Master()};
    address_.device = pty_->Path();
    return;
  }
  const bool is_tcp = kind_ == KindOfLink::kTcp;
  if (is_tcp && !reserved_) reserved_ = Bind();
  auto fd = Bind();
  if (is_tcp && listen(fd->Get(), SOMAXCONN) != 0) FailToListen(address_);
  fd_ = std::move(fd);
}

void ControllerEnd::Close() {
  fd_.reset();
  pty_.reset();
}

std::shared_ptr<const Fd> ControllerEnd::Bind() {
  auto fd = OpenSocket(address_);
  const int on = 1;
  if (kind_ == KindOfLink::kTcp) setsockopt(fd->Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address = SocketAddress(address_);
  socklen_t size = sizeof address;
  if (bind(fd->Get(), Generic(address), size) != 0 || getsockname(fd->Get(), Generic(address), &size) != 0) {
    FailToListen(address_);
  }
  address_.port = ntohs(address.sin_port);
  return fd;
}

int ControllerEnd::WaitDescriptor() const {
  if (!fd_ || (kind_ == KindOfLink::kPty && !HostIsThere())) return -1;
  return fd_->Get();
}

bool ControllerEnd::HostIsThere() const {
  if (kind_ == KindOfLink::kSerial) return true;
  return fd_ && (IsReady(fd_->Get(), POLLIN) || HasDeviceUser());
}

Channel ControllerEnd::Take() {
  if (kind_ == KindOfLink::kSerial) return {OpenSerial(address_), kind_};
  if (kind_ == KindOfLink::kTcp) {
    auto fd = std::make_shared<const Fd>(accept4(fd_->Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!*fd) FailLink(address_, errno);
    SetNoDelay(fd->Get());
    return {std::move(fd), kind_};
  }
  return {fd_, kind_, kind_ == KindOfLink::kUdp ? Channel::Peer::kLastToSend : Channel::Peer::kFixed};
}

void ControllerEnd::Release(bool hang_up) {
  if (kind_ != KindOfLink::kPty || !pty_) return;
  if (!hang_up) return pty_->Flush();
  Close();
  Open();
}

}  // namespace velta::wire
