// SPDX-License-Identifier: MIT
#include "TcpClient.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "link_io.h"
#include "log.h"

using velta::detail::ConnectSocket;
using velta::detail::ReportFailure;

namespace {
constexpr velta::detail::SocketKind kKind{"TcpClient", "[TcpClient::Read]", "TCP", SOCK_STREAM, 5};
}

TcpClient::TcpClient(std::string ip_, int port_)
    : ip(std::move(ip_)), port(port_), server_addr_(std::make_unique<sockaddr_in>()) {
  recv_buf_[sizeof recv_buf_ - 1] = 0;
}

TcpClient::~TcpClient() {
  TcpClient::Disconnect();
  is_init_ = false;
}

bool TcpClient::Init() {
  velta::detail::SetAddress(*server_addr_, ip, port);
  const bool connected = Connect();
  if (connected) is_init_ = true;
  return connected;
}

bool TcpClient::CreateSocket() {
  sockfd_ = velta::detail::OpenSocket(kKind);
  return sockfd_ != -1;
}

bool TcpClient::Connect() {
  CreateSocket();  // unchecked deliberately: without a socket the steps below fail and say why
  if (!ConnectSocket(kKind, sockfd_, *server_addr_, ip)) return false;
  int no_delay = 0;
  socklen_t size = sizeof no_delay;
  if (getsockopt(sockfd_, IPPROTO_TCP, TCP_NODELAY, &no_delay, &size) == -1) {
    ReportFailure(kKind, "Connect", errno, "Failed to get TCP_NODELAY option");
    return false;
  }
  no_delay = 1;
  if (setsockopt(sockfd_, IPPROTO_TCP, TCP_NODELAY, &no_delay, size) == -1) {
    ReportFailure(kKind, "Connect", errno, "Failed to set TCP_NODELAY option");
    return false;
  }
  return true;
}

// Neither the descriptor nor is_init_ is reset, deliberately: later reads and writes must fail with -1.
int TcpClient::Disconnect() { return close(sockfd_); }

int TcpClient::Read(std::vector<char>& data) {
  return velta::detail::ReadSocket(kKind, is_init_, sockfd_, recv_buf_, data);
}

int TcpClient::Write(const std::vector<char>& data) {
  return velta::detail::WriteSocket(kKind, is_init_, sockfd_, data);
}

void TcpClient::PrintError(std::string message) {  // NOLINT(performance-unnecessary-value-param): published signature
  const int error = errno;
  velta::detail::LogError(message, error);
  errno = error;
}
