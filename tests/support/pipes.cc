#include "tests/support/pipes.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {
// Only a guard against a hung test; no test relies on it.
constexpr int kGuardMilliseconds = 20000;
}  // namespace

Fd& Fd::operator=(Fd&& other) noexcept {
  if (this != &other) {
    reset(other.fd_);
    other.fd_ = -1;
  }
  return *this;
}

void Fd::reset(int fd) {
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
}

std::string makeFifo(const std::string& path) {
  if (mkfifo(path.c_str(), 0666) != 0) ADD_FAILURE() << "mkfifo " << path << ": " << std::strerror(errno);
  return path;
}

Fd openFd(const std::string& path, int flags) {
  int fd = ::open(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0) ADD_FAILURE() << "open " << path << ": " << std::strerror(errno);
  return Fd(fd);
}

void writeAll(int fd, const std::string& bytes) {
  for (std::size_t done = 0; done < bytes.size();) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n > 0) {
      done += static_cast<std::size_t>(n);
    } else if (n < 0 && errno == EAGAIN) {
      struct pollfd p = {fd, POLLOUT, 0};
      ::poll(&p, 1, kGuardMilliseconds);
    } else if (!(n < 0 && errno == EINTR)) {
      ADD_FAILURE() << "write: " << std::strerror(errno);
      return;
    }
  }
}

std::string readAvailable(int fd) {
  int pending = 0;
  if (::ioctl(fd, FIONREAD, &pending) != 0 || pending <= 0) return "";
  return readExactly(fd, static_cast<std::size_t>(pending));
}

std::string readExactly(int fd, std::size_t count) {
  std::string bytes;
  char buffer[65536];
  while (bytes.size() < count) {
    struct pollfd p = {fd, POLLIN, 0};
    if (::poll(&p, 1, kGuardMilliseconds) <= 0) {
      ADD_FAILURE() << "expected " << count << " bytes, got " << bytes.size();
      break;
    }
    ssize_t n = ::read(fd, buffer, std::min(sizeof buffer, count - bytes.size()));
    if (n > 0) {
      bytes.append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
      ADD_FAILURE() << "read ended after " << bytes.size() << " of " << count << " bytes";
      break;
    }
  }
  return bytes;
}
