// SPDX-License-Identifier: MIT
#include "session_link.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <system_error>
#include <utility>

#include "MasterControllerClientMock.h"
#include "serial_line.h"

namespace velta::detail {

namespace {

constexpr std::size_t kMaxAtOnce = 65535;  // bytes of one receive step; a datagram more may follow

std::string ErrorText(int error) { return std::generic_category().message(error); }

bool IsTransient(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

constexpr const char* kEnded = "the other end closed the link";

FlightRecorder::Event EventOf(Traffic::Kind kind) {
  using Event = FlightRecorder::Event;
  switch (kind) {
    case Traffic::Kind::kOpened:
      return Event::kOpened;
    case Traffic::Kind::kToController:
      return Event::kToController;
    case Traffic::Kind::kToHost:
      return Event::kToHost;
    case Traffic::Kind::kClosed:
      break;
  }
  return Event::kClosed;
}

}  // namespace

// SessionLink

int SessionLink::Read(std::vector<char>& data) {
  std::size_t size = 0;
  while (size < kMaxAtOnce) {
    const std::size_t room = buffer_.size() - size;
    const long count = ReadSome(buffer_.data() + size, room);
    if (count < 0 && size == 0) return -1;
    if (count <= 0) break;
    Show(Traffic::Kind::kToHost, buffer_.data() + size, static_cast<std::size_t>(count));
    size += static_cast<std::size_t>(count);
    if (IsStream() && static_cast<std::size_t>(count) < room) break;
  }
  data.assign(buffer_.data(), buffer_.data() + size);
  return static_cast<int>(size);
}

int SessionLink::Write(const std::vector<char>& data) {
  if (!Flush()) return -1;
  if (!kept_.empty()) return 0;
  const long count = WriteSome(data.data(), data.size());
  if (count < 0) return -1;
  if (count > 0) Show(Traffic::Kind::kToController, data.data(), static_cast<std::size_t>(count));
  kept_.assign(data.begin() + count, data.end());
  return static_cast<int>(data.size());
}

bool SessionLink::Flush() {
  if (kept_.empty()) return true;
  const long count = WriteSome(kept_.data(), kept_.size());
  if (count < 0) return false;
  if (count > 0) Show(Traffic::Kind::kToController, kept_.data(), static_cast<std::size_t>(count));
  kept_.erase(kept_.begin(), kept_.begin() + count);
  return true;
}

void SessionLink::Opened() {
  is_open_ = true;
  kept_.clear();
  Show(Traffic::Kind::kOpened);
}

void SessionLink::Closed() {
  kept_.clear();
  if (std::exchange(is_open_, false)) Show(Traffic::Kind::kClosed);
}

void SessionLink::Show(Traffic::Kind kind, const char* bytes, std::size_t size) {
  if (witnesses_.recorder != nullptr) witnesses_.recorder->Add(EventOf(kind), bytes, size);
  if (witnesses_.on_traffic == nullptr || !*witnesses_.on_traffic) return;
  try {
    (*witnesses_.on_traffic)({kind, std::chrono::steady_clock::now(), std::chrono::system_clock::now(), {bytes, size}});
  } catch (...) {  // what a callback throws is the host's own matter
  }
}

namespace {

/// A host name on its way to becoming an address, in a thread of its own that nobody waits for.
class Lookup {
 public:
  /// Throws std::system_error.
  static std::shared_ptr<Lookup> Start(const std::string& host) {
    auto lookup = std::make_shared<Lookup>();
    StartThread([lookup, host] { lookup->Resolve(host); }).detach();
    return lookup;
  }

  bool IsDone() const { return is_done_; }
  const std::string& Why() const { return why_; }  ///< empty: it has an address
  in_addr Address() const { return address_; }

 private:
  void Resolve(const std::string& host) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(host.c_str(), nullptr, &hints, &found);
    if (error == 0 && found != nullptr) {
      sockaddr_in address{};
      std::memcpy(&address, found->ai_addr, sizeof address);
      address_ = address.sin_addr;
      freeaddrinfo(found);
    } else {
      why_ = "cannot resolve '" + host + "': " + gai_strerror(error);
    }
    is_done_ = true;
  }

  in_addr address_{};
  std::string why_;
  std::atomic<bool> is_done_{false};
};

/// TCP or UDP over IPv4.
class SocketLink : public SessionLink {
 public:
  SocketLink(const LinkAddress& address, const SessionOptions& options, Witnesses witnesses)
      : SessionLink(witnesses),
        is_tcp_(address.kind == LinkAddress::Kind::kTcp),
        host_(address.host),
        port_(static_cast<std::uint16_t>(address.port)),
        timeout_(options.connect_timeout.count()),
        bears_refusal_(options.silence.count() != 0) {}
  SocketLink(const SocketLink&) = delete;
  SocketLink& operator=(const SocketLink&) = delete;
  ~SocketLink() override { Close(); }

  void Begin() override {
    deadline_ = DeadlineAfter(std::chrono::nanoseconds(timeout_));
    in_addr address{};
    if (inet_pton(AF_INET, host_.c_str(), &address) == 1) {
      Open(address);
    } else if (lookup_ == nullptr) {  // else an earlier one is still on its way
      lookup_ = Lookup::Start(host_);
    }
  }

  Progress Look(std::string& why) override {
    if (lookup_ != nullptr && lookup_->IsDone()) {
      const std::shared_ptr<Lookup> lookup = std::exchange(lookup_, nullptr);
      if (!lookup->Why().empty()) return Fail(why, lookup->Why());
      Open(lookup->Address());
    }
    if (error_ != 0) return Fail(why, ErrorText(error_));
    if (fd_ >= 0) {
      pollfd request{fd_, POLLOUT, 0};
      const int ready = poll(&request, 1, 0);
      int error = 0;
      socklen_t size = sizeof error;
      if (ready > 0 && getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &size) != 0) error = errno;
      if (error != 0) return Fail(why, ErrorText(error));
      if (ready > 0) {
        Opened();
        return Progress::kOpen;
      }
    }
    if (SteadyNow() < deadline_) return Progress::kConnecting;
    return Fail(why, fd_ >= 0 ? ErrorText(ETIMEDOUT) : "cannot resolve '" + host_ + "': no answer in time");
  }

  // What the system has not delivered yet would move the arm later: a reset connection drops it.
  void Abort() override {
    const linger drop{1, 0};
    if (fd_ >= 0 && is_tcp_) setsockopt(fd_, SOL_SOCKET, SO_LINGER, &drop, sizeof drop);
    Close();
  }
  // Closing over unread bytes would reset the connection, which may cost the peer what was sent last.
  int Disconnect() override {
    char unread[4096];
    if (fd_ >= 0 && is_tcp_) {
      shutdown(fd_, SHUT_WR);
      for (int i = 0; i < 64 && recv(fd_, unread, sizeof unread, MSG_DONTWAIT) > 0; ++i) {
      }
    }
    return Close();
  }
  int Descriptor() const override { return fd_; }
  bool MustBeAsked() const override { return !is_tcp_; }

 protected:
  bool IsStream() const override { return is_tcp_; }

  long ReadSome(char* buffer, std::size_t size) override {
    const ssize_t count = recv(fd_, buffer, size, MSG_DONTWAIT);
    if (count > 0) return count;
    if (count == 0) return is_tcp_ ? Lose(kEnded) : 0;
    if (IsTransient(errno) || (!is_tcp_ && bears_refusal_)) return 0;  // a datagram that nobody took reads as silence
    return Lose(ErrorText(errno));
  }

  long WriteSome(const char* bytes, std::size_t size) override {
    ssize_t count = send(fd_, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    // The error is an earlier datagram's that nobody took; it is reported once.
    if (count < 0 && errno == ECONNREFUSED && !is_tcp_) count = send(fd_, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count >= 0) return count;
    if (IsTransient(errno) || errno == ENOBUFS) return 0;
    if (errno == ECONNREFUSED && !is_tcp_ && bears_refusal_) return static_cast<long>(size);
    return Lose(ErrorText(errno));
  }

 private:
  void Open(in_addr address) {
    error_ = 0;
    fd_ = socket(AF_INET, (is_tcp_ ? SOCK_STREAM : SOCK_DGRAM) | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
      error_ = errno;
      return;
    }
    if (is_tcp_) {
      const int on = 1;
      setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(port_);
    peer.sin_addr = address;
    if (connect(fd_, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0 && errno != EINPROGRESS) {
      error_ = errno;
    }
  }

  int Close() {
    Closed();
    error_ = 0;
    return fd_ >= 0 ? close(std::exchange(fd_, -1)) : 0;
  }

  Progress Fail(std::string& why, std::string text) {
    why = std::move(text);
    Close();
    return Progress::kFailed;
  }

  long Lose(std::string why) {
    why_ = std::move(why);
    return -1;
  }

  const bool is_tcp_;
  const std::string host_;
  const std::uint16_t port_;
  const Nanos timeout_;
  const bool bears_refusal_;  ///< silence will show that nobody is there
  std::shared_ptr<Lookup> lookup_;
  Nanos deadline_ = 0;
  int fd_ = -1;
  int error_ = 0;  ///< of the attempt
};

/// A tty, set up as SerialClient does, but never waited for.
class SerialLink : public SessionLink {
 public:
  SerialLink(const LinkAddress& address, Witnesses witnesses)
      : SessionLink(witnesses), device_(address.device), baud_rate_(address.baud) {}
  SerialLink(const SerialLink&) = delete;
  SerialLink& operator=(const SerialLink&) = delete;
  ~SerialLink() override { SerialLink::Abort(); }

  void Begin() override {
    error_ = 0;
    fd_ = open(device_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd_ < 0) {
      error_ = errno;
      return;
    }
    errno = 0;
    if (!ConfigureSerialLine(fd_, baud_rate_, saved_)) {
      error_ = errno != 0 ? errno : EINVAL;
      close(std::exchange(fd_, -1));
      return;
    }
    fcntl(fd_, F_SETFL, O_NONBLOCK);
    tcflush(fd_, TCIFLUSH);  // what came before was not for this connection
  }

  Progress Look(std::string& why) override {
    if (error_ != 0) {
      why = device_ + ": " + (error_ == ENOTTY ? "not a serial device" : ErrorText(error_));
      return Progress::kFailed;
    }
    Opened();
    return Progress::kOpen;
  }

  int Descriptor() const override { return fd_; }

  void Abort() override {
    if (fd_ >= 0) tcflush(fd_, TCOFLUSH);
    SerialLink::Disconnect();
  }

  int Disconnect() override {
    Closed();
    if (fd_ < 0) return 0;
    for (int i = 0, left = 0; i < 10 && ioctl(fd_, TIOCOUTQ, &left) == 0 && left > 0; ++i) usleep(2000);
    tcflush(fd_, TCOFLUSH);  // else closing waits until all has left
    tcsetattr(fd_, TCSANOW, &saved_);
    return close(std::exchange(fd_, -1));
  }

 protected:
  long ReadSome(char* buffer, std::size_t size) override {
    const ssize_t count = read(fd_, buffer, size);
    if (count > 0) return count;
    if (count < 0) return IsTransient(errno) ? 0 : Lose();
    pollfd request{fd_, 0, 0};  // nothing came, or the device is gone
    if (poll(&request, 1, 0) <= 0 || (request.revents & (POLLHUP | POLLERR)) == 0) return 0;
    why_ = kEnded;
    return -1;
  }

  long WriteSome(const char* bytes, std::size_t size) override {
    const ssize_t count = write(fd_, bytes, size);
    if (count >= 0) return count;
    return IsTransient(errno) ? 0 : Lose();
  }

 private:
  long Lose() {
    why_ = device_ + ": " + ErrorText(errno);
    return -1;
  }

  const std::string device_;
  const unsigned baud_rate_;
  termios saved_{};
  int fd_ = -1;
  int error_ = 0;  ///< of the attempt
};

/// The simulated controller, as if it were at the other end of a wire.
class SimulatorLink : public SessionLink {
 public:
  SimulatorLink(const LinkAddress& address, int joints, Witnesses witnesses)
      : SessionLink(witnesses),
        cycle_ms_(address.cycle_ms),
        command_(joints),
        controller_(std::make_unique<Controller>(joints, address.cycle_ms)) {}
  SimulatorLink(const SimulatorLink&) = delete;
  SimulatorLink& operator=(const SimulatorLink&) = delete;

  // The simulator's end takes a cycle: a long one is waited for by a thread that nobody waits for.
  ~SimulatorLink() override {
    if (cycle_ms_ <= 10) return;
    try {
      StartThread([controller = std::shared_ptr<Controller>(std::move(controller_))] {}).detach();
    } catch (const std::system_error&) {
    }
  }

  void Begin() override {}
  Progress Look(std::string& /*why*/) override {
    Opened();
    is_new_ = true;
    return Progress::kOpen;
  }
  void Abort() override { Closed(); }
  int Disconnect() override {
    Closed();
    return 0;
  }

 protected:
  // One status per cycle, and one in answer to each command.
  long ReadSome(char* buffer, std::size_t /*size*/) override {
    const std::size_t size = controller_->Status(buffer, is_new_);
    is_new_ = false;
    return static_cast<long>(size);
  }

  long WriteSome(const char* bytes, std::size_t size) override {
    std::memcpy(&command_.header, bytes, sizeof command_.header);
    std::memcpy(static_cast<void*>(command_.joints.data()), bytes + sizeof command_.header,
                command_.joints.size() * sizeof(txJoint_t));
    controller_->ParseSendPacket(command_);
    is_new_ = true;
    return static_cast<long>(size);
  }

 private:
  struct Controller : MasterControllerClientMock {
    using MasterControllerClientMock::MasterControllerClientMock;

    /// @return bytes of a status frame; 0 for none, when the last one was of the same cycle and is_new is not set
    std::size_t Status(char* frame, bool is_new) {
      const std::lock_guard<std::mutex> lock(state_mutex_);
      rxHeader_t header = inner_state_.header;
      if (!is_new && header.timestamp == last_timestamp_) return 0;
      last_timestamp_ = header.timestamp;
      std::memcpy(header.startMark, kStartMark, sizeof kStartMark);
      const std::size_t records = inner_state_.joints.size() * sizeof(rxJoint_t);
      std::memcpy(frame, &header, sizeof header);
      std::memcpy(frame + sizeof header, inner_state_.joints.data(), records);
      const std::uint16_t crc = CalcCrc16(reinterpret_cast<const unsigned char*>(frame),
                                          static_cast<unsigned short>(sizeof header + records));
      std::memcpy(frame + sizeof header + records, &crc, sizeof crc);
      return sizeof header + records + sizeof crc;
    }

   private:
    std::uint64_t last_timestamp_ = 0;
  };

  const int cycle_ms_;
  SendPacket command_;
  std::unique_ptr<Controller> controller_;
  bool is_new_ = true;
};

}  // namespace

std::unique_ptr<SessionLink> MakeSessionLink(const LinkAddress& address, const SessionOptions& options,
                                             FlightRecorder* recorder) {
  const SessionLink::Witnesses witnesses{recorder, &options.on_traffic};
  switch (address.kind) {
    case LinkAddress::Kind::kSerial:
      return std::make_unique<SerialLink>(address, witnesses);
    case LinkAddress::Kind::kSimulator:
      return std::make_unique<SimulatorLink>(address, options.joints, witnesses);
    default:
      return std::make_unique<SocketLink>(address, options, witnesses);
  }
}

}  // namespace velta::detail
