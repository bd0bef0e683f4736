// SPDX-License-Identifier: MIT
#ifndef VELTA_BENCH_SUPPORT_H_
#define VELTA_BENCH_SUPPORT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What the benchmarks share: frames made without the library, the CRC that floors use, counted allocations and a TCP
/// peer on loopback.
namespace velta::bench {

/// Calls of operator new by the calling thread, the library's included.
std::uint64_t Allocations();

/// CRC-16/USB as fast as the processor can: 64 bytes per multiplication where it has 512-bit carry-less multiplication,
/// eight table look-ups per eight bytes elsewhere.
unsigned FloorCrc(const unsigned char* data, std::size_t length);

/// A good status frame of n joints whose bytes are no start mark.
std::vector<char> StatusFrame(int n, std::uint64_t host_timestamp = 0);

/// A good command frame of n idle joints.
std::vector<char> CommandFrame(int n);

/// Writes the CRC of all other bytes into the last two.
void CloseFrame(char* frame, std::size_t size);

/// A listening socket on loopback and the connection that it accepted.
class Peer {
 public:
  Peer();
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer();

  int Port() const { return port_; }
  void Accept();
  int Fd() const { return fd_; }
  void Send(const std::vector<char>& bytes) const;
  void Drain() const;  ///< drops what has arrived

 private:
  int listener_;
  int port_ = 0;
  int fd_ = -1;
};

/// A plain non-blocking socket with TCP_NODELAY, connected to peer.
class BareSocket {
 public:
  explicit BareSocket(Peer& peer);
  BareSocket(const BareSocket&) = delete;
  BareSocket& operator=(const BareSocket&) = delete;
  ~BareSocket();

  int Receive(char* bytes, std::size_t size) const;  ///< poll, then recv
  int WaitAndReceive(char* bytes, std::size_t size) const;
  void Send(const std::vector<char>& bytes) const;  ///< poll, then send
  int SelectReceive(char* bytes, std::size_t size) const;
  void SelectSend(const std::vector<char>& bytes) const;

 private:
  int PollAndReceive(char* bytes, std::size_t size, int timeout_ms) const;

  int fd_;
};

/// Ends the program with message when ok is false: a benchmark that measures something else is worse than none.
void Require(bool ok, const char* message);

}  // namespace velta::bench

#endif  // VELTA_BENCH_SUPPORT_H_
