// SPDX-License-Identifier: MIT
#include "support/stand_in.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <stdexcept>

#include "support/bytes.h"

namespace velta::test {

namespace {

float ReadF32(const std::vector<char>& bytes, std::size_t offset) {
  float value = 0;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

}  // namespace

StandIn::StandIn(Link link, int joints, int drop_every, int port)
    : link_(link), drop_every_(drop_every), joints_(static_cast<std::size_t>(joints)) {
  if (link == Link::Pty) {
    fd_ = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);  // a host that is gone must not hold us
    if (fd_ < 0 || grantpt(fd_) != 0 || unlockpt(fd_) != 0) throw std::runtime_error("no pseudo terminal");
    address_ = ptsname(fd_);
    termios raw{};  // until the host opens the device, nothing may be echoed back
    tcgetattr(fd_, &raw);
    cfmakeraw(&raw);
    tcsetattr(fd_, TCSANOW, &raw);
  } else {
    listener_ = socket(AF_INET, (link == Link::Tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    const int again = 1;  // a port whose last connection has only just ended
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &again, sizeof again);
    socklen_t size = sizeof address;
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
        (link == Link::Tcp && listen(listener_, 1) != 0)) {
      throw std::runtime_error("no socket");
    }
    address_ = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  }
  thread_ = std::thread([this] { Run(); });
}

StandIn::~StandIn() {
  Stop();
  for (const int fd : {fd_, listener_}) {
    if (fd >= 0) close(fd);
  }
}

void StandIn::Stop() {
  running_ = false;
  if (thread_.joinable()) thread_.join();
  positions.clear();
  for (const Joint& joint : joints_) positions.push_back(joint.position);
}

void StandIn::Run() {
  const auto start = std::chrono::steady_clock::now();
  for (std::uint64_t cycle = 0; running_; ++cycle) {
    pollfd request{fd_ >= 0 ? fd_ : listener_, POLLIN, 0};
    if (poll(&request, 1, 1) == 1 && (request.revents & POLLIN) != 0) {
      if (fd_ >= 0) {
        char bytes[4096];
        const ssize_t count = read(fd_, bytes, sizeof bytes);
        if (count > 0) Receive(bytes, static_cast<std::size_t>(count));
      } else if (link_ == Link::Tcp) {
        fd_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      } else {
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        recvfrom(listener_, nullptr, 0, MSG_PEEK, reinterpret_cast<sockaddr*>(&peer), &size);
        if (connect(listener_, reinterpret_cast<sockaddr*>(&peer), size) == 0) std::swap(fd_, listener_);
      }
    }
    now_s_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    Move(now_s_);
    if (fd_ < 0) continue;
    const std::vector<char> status = Status(cycle);
    const ssize_t sent = link_ == Link::Pty ? write(fd_, status.data(), status.size())
                                            : send(fd_, status.data(), status.size(), MSG_NOSIGNAL);
    if (sent < 0) usleep(1000);
  }
}

void StandIn::Receive(const char* bytes, std::size_t count) {
  stream_.insert(stream_.end(), bytes, bytes + count);
  const std::size_t size = 18 * joints_.size() + 13;
  while (stream_.size() >= size) {
    const std::vector<char> frame(stream_.begin(), stream_.begin() + static_cast<std::ptrdiff_t>(size));
    const unsigned crc = BitwiseCrc16(frame, size - 2);
    const bool good = static_cast<unsigned char>(frame[0]) == 0xAB && static_cast<unsigned char>(frame[1]) == 0xCD &&
                      static_cast<unsigned char>(frame[size - 2]) == (crc & 0xFF) &&
                      static_cast<unsigned char>(frame[size - 1]) == crc >> 8;
    if (!good) ++bad_bytes;
    stream_.erase(stream_.begin(), stream_.begin() + (good ? static_cast<std::ptrdiff_t>(size) : 1));
    if (good && (drop_every_ == 0 || ++seen_ % drop_every_ != 0)) Accept(frame);
  }
}

void StandIn::Accept(const std::vector<char>& frame) {
  if (ReadU64(frame, 2) == echo_) return;
  echo_ = ReadU64(frame, 2);
  ++commands;
  if (frame[12] != 0 && frame[11 + 18 * (joints_.size() - 1) + 1] != 0) ++merged_commands;
  for (std::size_t i = 0; i < joints_.size(); ++i) {
    const std::size_t at = 11 + 18 * i;
    Joint& joint = joints_[i];
    if (static_cast<unsigned char>(frame[at]) != i) ++bad_bytes;
    switch (static_cast<unsigned char>(frame[at + 1])) {
      case 0xA2:
        joint.servo = 2;
        break;
      case 0xA3:
        joint.mode = static_cast<int>(ReadF32(frame, at + 2));
        break;
      case 0x30:
        joint.points.clear();
        break;
      case 0x3A:
        joint.points.emplace_back(ReadF32(frame, at + 2), ReadF32(frame, at + 6));
        break;
      case 0x35:
        if (joint.servo != 2 || joint.mode != 0 || joint.moving != 0) break;
        joint.moving = 1;
        joint.from = joint.position;
        joint.start_s = static_cast<float>(now_s_);
        break;
      default:
        break;
    }
  }
}

void StandIn::Move(double seconds) {
  for (Joint& joint : joints_) {
    if (joint.moving == 0) continue;
    const float t = static_cast<float>(seconds) - joint.start_s;
    float from_s = 0;
    while (!joint.points.empty() && t >= joint.points.front().second) {
      joint.position = joint.from = joint.points.front().first;
      from_s = joint.points.front().second;
      joint.points.pop_front();
    }
    if (joint.points.empty()) continue;
    const auto [target, at_s] = joint.points.front();
    joint.position = joint.from + (target - joint.from) * (t - from_s) / (at_s - from_s);
  }
}

std::vector<char> StandIn::Status(std::uint64_t cycle) const {
  Bytes frame;
  frame.U8(0xAB).U8(0xCD).U64(cycle).U64(echo_).F32(0);
  for (const Joint& joint : joints_) {
    frame.Fill(2, 0).U8(static_cast<unsigned>(joint.servo)).U8(static_cast<unsigned>(joint.mode)).U32(0).U8(2).U16(0);
    frame.Fill(24, 0).F32(joint.position).Fill(40, 0);
  }
  return frame.Crc();
}

}  // namespace velta::test
