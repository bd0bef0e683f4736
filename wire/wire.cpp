// SPDX-License-Identifier: MIT
#include "wire.h"

#include <cerrno>
#include <system_error>

#include "clock.h"

namespace velta::tools {

namespace {

std::int64_t After(int timeout_ms) { return MonotonicNs() + std::int64_t{timeout_ms} * 1'000'000; }

}  // namespace

Wire::Wire(const Link& link, int timeout_ms) : name_(ToString(link)), port_(Port::Connect(link)) {
  if (!port_.Connecting()) return;
  WaitWritable(After(timeout_ms), std::generic_category().message(ETIMEDOUT));
  port_.FinishConnecting();
}

void Wire::Fail(const std::string& what, int error) const { throw LinkError(name_ + ": " + what, error); }

void Wire::WaitWritable(std::int64_t deadline_ns, const std::string& otherwise) const {
  if (WaitUntil(deadline_ns, Fd(), POLLOUT)) return;
  if (StopRequested()) Fail("interrupted", EINTR);
  Fail(otherwise, ETIMEDOUT);
}

std::size_t Wire::Read(std::vector<char>& bytes) {
  char buffer[65536];
  const Port::Result result = port_.Read(buffer, sizeof buffer);
  const bool is_broken = result.io == Port::Io::kBroken;
  if (result.io == Port::Io::kEnded || (is_broken && result.error == 0)) {
    Fail("the other end closed the link", ECONNABORTED);
  }
  if (is_broken || result.error == ECONNREFUSED) {  // what a UDP port says that nobody listens on
    Fail("the link is lost: " + std::generic_category().message(result.error), result.error);
  }
  bytes.insert(bytes.end(), buffer, buffer + result.size);
  return result.size;
}

void Wire::Write(const std::vector<char>& frame) {
  const std::int64_t deadline = After(1000);
  for (std::size_t done = 0; done < frame.size();) {
    const Port::Result result = port_.Write(frame.data() + done, frame.size() - done);
    if (result.io == Port::Io::kBroken) {
      Fail("the link is lost: " + std::generic_category().message(result.error), result.error);
    }
    done += result.size;
    if (result.size == 0) WaitWritable(deadline, "the other end takes no more bytes");
  }
}

}  // namespace velta::tools
