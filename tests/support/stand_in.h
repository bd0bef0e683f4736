// SPDX-License-Identifier: MIT
#ifndef VELTA_TESTS_SUPPORT_STAND_IN_H_
#define VELTA_TESTS_SUPPORT_STAND_IN_H_

#include <atomic>
#include <cstdint>
#include <deque>
#include <string>
#include <thread>
#include <vector>

namespace velta::test {

/// A controller at the other end of a real link, in a thread of its own. It packs and unpacks every byte itself and
/// shares no code with the library, so that both can only agree on the wire.
///
/// It plays position-time points per joint, answers each accepted command by its time stamp, and sends a status frame
/// every millisecond.
class StandIn {
 public:
  enum class Link { Tcp, Udp, Pty };

  /// @param drop_every every so-many-th command frame is lost before the controller sees it; 0 for none
  /// @param port       where to listen; 0 lets the system choose
  StandIn(Link link, int joints, int drop_every = 0, int port = 0);
  ~StandIn();

  /// "127.0.0.1:PORT" or the device's path.
  const std::string& Address() const { return address_; }

  int commands = 0;         ///< frames with a right CRC; read after Stop()
  int merged_commands = 0;  ///< those that command the first and the last joint
  int bad_bytes = 0;        ///< bytes that belong to no good frame
  std::vector<float> positions;

  void Stop();

 private:
  struct Joint {
    float position = 0, from = 0, start_s = 0;
    int servo = 0, mode = 255, moving = 0;
    std::deque<std::pair<float, float>> points;  ///< position, s
  };

  void Run();
  void Receive(const char* bytes, std::size_t count);
  void Accept(const std::vector<char>& frame);
  void Move(double seconds);
  std::vector<char> Status(std::uint64_t cycle) const;

  Link link_;
  int drop_every_;
  int seen_ = 0;
  int fd_ = -1;
  int listener_ = -1;
  std::string address_;
  std::vector<char> stream_;
  std::vector<Joint> joints_;
  std::uint64_t echo_ = 0;
  double now_s_ = 0;
  std::atomic<bool> running_{true};
  std::thread thread_;
};

}  // namespace velta::test

#endif  // VELTA_TESTS_SUPPORT_STAND_IN_H_
