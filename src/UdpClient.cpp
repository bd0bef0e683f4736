// SPDX-License-Identifier: MIT
#include "UdpClient.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "link_io.h"
#include "log.h"

using velta::detail::ConnectSocket;

namespace {
constexpr velta::detail::SocketKind kKind{"UdpClient", "[UdpClient::Read]", "UDP", SOCK_DGRAM, 3};
}

UdpClient::UdpClient(std::string ip_, int port_)
    : ip(std::move(ip_)), port(port_), server_addr_(std::make_unique<sockaddr_in>()) {
  recv_buf_[sizeof recv_buf_ - 1] = 0;
}

UdpClient::~UdpClient() {
  UdpClient::Disconnect();
  is_init_ = false;
}

bool UdpClient::Init() {
  velta::detail::SetAddress(*server_addr_, ip, port);
  const bool connected = Connect();
  if (connected) is_init_ = true;
  return connected;
}

bool UdpClient::CreateSocket() {
  sockfd_ = velta::detail::OpenSocket(kKind);
  return sockfd_ != -1;
}

bool UdpClient::Connect() {
  CreateSocket();  // unchecked deliberately: without a socket the steps below fail and say why
  return ConnectSocket(kKind, sockfd_, *server_addr_, ip);
}

// Neither the descriptor nor is_init_ is reset, deliberately: later reads and writes must fail with -1.
int UdpClient::Disconnect() { return close(sockfd_); }

int UdpClient::Read(std::vector<char>& data) {
  return velta::detail::ReadSocket(kKind, is_init_, sockfd_, recv_buf_, data);
}

int UdpClient::Write(const std::vector<char>& data) {
  return velta::detail::WriteSocket(kKind, is_init_, sockfd_, data);
}

void UdpClient::PrintError(std::string message) {  // NOLINT(performance-unnecessary-value-param): published signature
  const int error = errno;
  velta::detail::LogError(message, error);
  errno = error;
}
