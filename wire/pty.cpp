// SPDX-License-Identifier: MIT
#include "pty.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include "address.h"

namespace velta::wire {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void Fail(const std::string& what, int error) {
  throw LinkError(what + ": " + std::generic_category().message(error), error);
}

}  // namespace

Pty::Pty(const std::string& path)
    : path_(path.empty() ? path : fs::absolute(path).lexically_normal().string()),
      master_(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)) {
  char name[64];
  termios settings{};
  if (!master_ || grantpt(master_.Get()) != 0 || unlockpt(master_.Get()) != 0 ||
      ptsname_r(master_.Get(), name, sizeof name) != 0 || tcgetattr(master_.Get(), &settings) != 0) {
    Fail("cannot open a pty", errno);
  }
  cfmakeraw(&settings);
  // A device that was never opened counts as in use; one that was closed does not.
  const Fd first(open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!first || tcsetattr(master_.Get(), TCSANOW, &settings) != 0) {
    Fail(std::string("cannot open ") + name, errno);
  }
  device_ = name;
  if (!path_.empty()) Link();
}

void Pty::Link() {
  std::error_code error;
  if (fs::exists(fs::symlink_status(path_, error)) &&
      fs::read_symlink(path_, error).string().rfind("/dev/pts/", 0) != 0) {
    Fail("cannot make the link " + path_ + ", which does not lead to a pty", EEXIST);
  }
  const std::string fresh = path_ + ".new";  // put in place at once: a host never finds no link
  fs::remove(fresh, error);
  fs::create_symlink(device_, fresh, error);
  if (!error) fs::rename(fresh, path_, error);
  if (error) Fail("cannot make the link " + path_, error.value());
}

Pty::~Pty() {
  std::error_code error;
  if (!path_.empty() && fs::read_symlink(path_, error) == device_) fs::remove(path_, error);
}

bool Pty::HasUser() const {
  pollfd request{master_.Get(), 0, 0};
  return poll(&request, 1, 0) >= 0 && (request.revents & POLLHUP) == 0;
}

void Pty::Flush() const {
  const Fd device(open(device_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  if (device) tcflush(device.Get(), TCIFLUSH);
}

}  // namespace velta::wire
