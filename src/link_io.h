// SPDX-License-Identifier: MIT
#ifndef VELTA_SRC_LINK_IO_H_
#define VELTA_SRC_LINK_IO_H_

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

struct sockaddr_in;

/// What the links share: the one body behind the TCP and the UDP link, and the rule for what a read delivers.
namespace velta::detail {

/// Bytes that one read may fetch.
inline constexpr std::size_t kMaxRead = 65535;

/// The rule of all links: 1 to 65,534 bytes are delivered; 65,535 count as an overflow and are dropped with a line;
/// anything else (closed, failed) empties data.
/// @param where  the reading operation as its log lines name it, e.g. "[Read]"
/// @return bytes delivered, or 0
int DeliverRead(ssize_t count, const char* bytes, std::vector<char>& data, const char* where);

/// How the socket links differ.
struct SocketKind {
  const char* tag;        ///< class name, as log lines show it
  const char* read_tag;   ///< its reading operation, as log lines show it
  const char* link;       ///< "TCP" or "UDP"
  int type;               ///< SOCK_STREAM or SOCK_DGRAM
  int connect_timeout_s;  ///< how long Connect() waits
};

/// "[tag::operation]"
std::string Where(const SocketKind& kind, const char* operation);

/// Reports "[tag::operation] text" and more with the system's text of error, and leaves error in errno.
/// @param error  errno as the failed call left it. The texts are no strings to be built: that could change errno first.
void ReportFailure(const SocketKind& kind, const char* operation, int error, const char* text,
                   std::string_view more = {});

/// Writes an IPv4 address of dotted quads and the low 16 bits of port; all ones for another text, deliberately unchecked.
void SetAddress(sockaddr_in& address, const std::string& ip, int port);

/// @return a new IPv4 socket; -1 with a message
int OpenSocket(const SocketKind& kind);

/// Connects fd and waits for the outcome, which is reported. fd stays non-blocking.
bool ConnectSocket(const SocketKind& kind, int fd, const sockaddr_in& address, const std::string& ip);

/// The socket links' Read and Write: polled, one system call, results as AbstractClient says.
int ReadSocket(const SocketKind& kind, bool is_init, int fd, char* buffer, std::vector<char>& data);
int WriteSocket(const SocketKind& kind, bool is_init, int fd, const std::vector<char>& data);

}  // namespace velta::detail

#endif  // VELTA_SRC_LINK_IO_H_
