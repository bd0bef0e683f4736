// SPDX-License-Identifier: MIT
#ifndef VELTA_TCP_CLIENT_H_
#define VELTA_TCP_CLIENT_H_

#include <memory>
#include <string>
#include <vector>

#include "AbstractClient.h"
#include "velta_export.h"

struct sockaddr_in;

/// TCP link to the controller: non-blocking for its whole life, with TCP_NODELAY.
///
/// A peer that closes is not seen by Read (0, like silence) but by a later failing Write. Disconnect() neither forgets
/// the descriptor nor clears is_init_: later reads and writes fail with -1, and a second Disconnect() closes the same
/// number again.
///
/// Units:   bytes; seconds while connecting.
/// Errors:  results, with the reason as a log line (see velta_log.h). A signal during the wait for a connection makes
///          Connect() false. Descriptors have no close-on-exec: programs that the host starts inherit them.
/// Threads: as AbstractClient. Connect() waits up to 5 s; nothing else blocks.
class VELTA_API TcpClient : public AbstractClient {
 public:
  /// @param ip    peer's IPv4 address as a dotted quad; no names
  /// @param port  peer's TCP port
  TcpClient(std::string ip, int port);
  TcpClient(const TcpClient&) = delete;
  TcpClient& operator=(const TcpClient&) = delete;
  ~TcpClient() override;

  bool Init() override;
  bool Connect() override;  ///< waits up to 5 s
  int Disconnect() override;
  int Read(std::vector<char>& data) override;  ///< up to 65,534 bytes; exactly 65,535 are discarded as an overflow
  int Write(const std::vector<char>& data) override;  ///< one send call; a short count is not completed

  /// Creates the IPv4 stream socket; false and a message when the system has none.
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

#endif  // VELTA_TCP_CLIENT_H_
