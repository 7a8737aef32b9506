#include "tests/support/pipe_io.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// Only a guard against a hung test; no test relies on it.
constexpr int kGuardMilliseconds = 20000;

}  // namespace

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  if (this != &other) {
    reset();
    fd_ = other.release();
  }
  return *this;
}

int UniqueFd::release() {
  int fd = fd_;
  fd_ = -1;
  return fd;
}

void UniqueFd::reset() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

UniqueFd openPipeWriter(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) ADD_FAILURE() << "open " << path << " for writing: " << std::strerror(errno);
  return UniqueFd(fd);
}

UniqueFd openPipeReader(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) ADD_FAILURE() << "open " << path << " for reading: " << std::strerror(errno);
  return UniqueFd(fd);
}

void writePipe(int fd, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
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

std::string readPipe(int fd, std::size_t count) {
  std::string bytes;
  char buffer[65536];
  while (bytes.size() < count) {
    struct pollfd p = {fd, POLLIN, 0};
    int ready = ::poll(&p, 1, kGuardMilliseconds);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      ADD_FAILURE() << "expected " << count << " bytes from the pipe, got " << bytes.size();
      return bytes;
    }
    std::size_t want = std::min(sizeof buffer, count - bytes.size());
    ssize_t n = ::read(fd, buffer, want);
    if (n > 0) {
      bytes.append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0) {
      ADD_FAILURE() << "end of file after " << bytes.size() << " of " << count << " bytes";
      return bytes;
    } else if (errno != EAGAIN && errno != EINTR) {
      ADD_FAILURE() << "read: " << std::strerror(errno);
      return bytes;
    }
  }
  return bytes;
}

std::string readAvailable(int fd) {
  std::string bytes;
  std::size_t pending = pendingBytes(fd);
  if (pending > 0) bytes = readPipe(fd, pending);
  return bytes;
}

std::size_t pendingBytes(int fd) {
  int pending = 0;
  if (::ioctl(fd, FIONREAD, &pending) != 0) ADD_FAILURE() << "FIONREAD: " << std::strerror(errno);
  return pending > 0 ? static_cast<std::size_t>(pending) : 0;
}
