#include "messaging/pipe_buffer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

PipeBuffer::~PipeBuffer() {
  if (fd_ >= 0) ::close(fd_);
}

bool PipeBuffer::close() {
  if (fd_ < 0) return true;
  int result = ::close(fd_);
  if (result != 0) lastError_ = errno;
  fd_ = -1;
  setg(nullptr, nullptr, nullptr);
  setp(nullptr, nullptr);
  return result == 0;
}

std::string PipeBuffer::failure() const {
  return lastError_ == kNotAPipe ? "not a named pipe" : std::strerror(lastError_);
}

int PipeBuffer::openPipe(const char* path, int flags) {
  // O_NOFOLLOW: a symlink planted where the pipe should be must not lead the
  // service's frames, or its reads, to another file.
  int fd = ::open(path, flags | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) {
    lastError_ = errno == ELOOP ? kNotAPipe : errno;  // ELOOP: a symlink stands there
    return -1;
  }
  struct stat info;
  if (fstat(fd, &info) != 0 || !S_ISFIFO(info.st_mode)) {
    ::close(fd);
    lastError_ = kNotAPipe;
    return -1;
  }
  return fd;
}

PipeBuffer::Wait PipeBuffer::waitFor(short events, int watchFd) {
  std::vector<pollfd> fds;
  fds.push_back({fd_, events, 0});
  fds.push_back({watchFd, POLLIN, 0});  // a negative descriptor is ignored
  for (int fd : wakeFds_) fds.push_back({fd, POLLIN, 0});
  while (poll(fds.data(), fds.size(), -1) < 0) {
    if (errno != EINTR) {
      lastError_ = errno;
      return Wait::failed;
    }
  }
  for (std::size_t i = 2; i < fds.size(); ++i) {
    if (fds[i].revents != 0) {
      interrupted_ = true;
      lastError_ = EINTR;
      return Wait::woken;
    }
  }
  return fds[1].revents != 0 ? Wait::watched : Wait::ready;
}
