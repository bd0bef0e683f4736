// SPDX-License-Identifier: MIT
#ifndef VELTA_UDP_CLIENT_H_
#define VELTA_UDP_CLIENT_H_

#include <memory>
#include <string>
#include <vector>

#include "AbstractClient.h"
#include "velta_export.h"

struct sockaddr_in;

/// UDP link to the controller: one command frame per datagram out, whatever datagram has arrived in.
///
/// Connecting needs no listener, so a missing peer shows up only as errors received later, which Read turns into 0.
/// Disconnect() neither forgets the descriptor nor clears is_init_, as with TcpClient.
///
/// Units:   bytes; seconds while connecting.
/// Errors:  results, with the reason as a log line (see velta_log.h). A signal during the wait for a connection makes
///          Connect() false. Descriptors have no close-on-exec: programs that the host starts inherit them.
/// Threads: as AbstractClient. Connect() waits up to 3 s; nothing else blocks.
class VELTA_API UdpClient : public AbstractClient {
 public:
  /// @param ip    peer's IPv4 address as a dotted quad; no names
  /// @param port  peer's UDP port
  UdpClient(std::string ip, int port);
  UdpClient(const UdpClient&) = delete;
  UdpClient& operator=(const UdpClient&) = delete;
  ~UdpClient() override;

  bool Init() override;
  bool Connect() override;  ///< waits up to 3 s
  int Disconnect() override;
  int Read(std::vector<char>& data) override;         ///< one datagram, up to 65,534 bytes; larger ones are discarded
  int Write(const std::vector<char>& data) override;  ///< one send call; a short count is not completed

  /// Creates the IPv4 datagram socket; false and a message when the system has none.
  bool CreateSocket();

  /// Prints message, ": " and the text of the current errno on standard error.
  void PrintError(std::string message);

 protected:
  bool is_init_ = false;  ///< Init() succeeded; stays set after Disconnect()
  std::string ip;
  int port;
  int sockfd_ = -1;
  char recv_buf_[65536];  ///< at most 65,535 bytes are received at once; the last byte is 0
  std::unique_ptr<sockaddr_in> server_addr_;
};

#endif  // VELTA_UDP_CLIENT_H_
