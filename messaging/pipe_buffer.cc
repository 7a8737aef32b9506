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
  if (result != 0) failed(errno);
  fd_ = -1;
  setg(nullptr, nullptr, nullptr);
  setp(nullptr, nullptr);
  return result == 0;
}

std::string PipeBuffer::failure() const { return describeRefusal(refusal_, lastError_, "named pipe"); }

int PipeBuffer::openPipe(const char* path, int flags) {
  int fd = openTyped(path, flags, S_IFIFO, &refusal_);
  if (fd < 0) lastError_ = errno;
  return fd;
}

PipeBuffer::Wait PipeBuffer::waitFor(short events, int watchFd) {
  std::vector<pollfd> fds;
  fds.push_back({fd_, events, 0});
  fds.push_back({watchFd, POLLIN, 0});  // a negative descriptor is ignored
  for (int fd : wakeFds_) fds.push_back({fd, POLLIN, 0});
  while (poll(fds.data(), fds.size(), -1) < 0) {
    if (errno != EINTR) {
      failed(errno);
      return Wait::failed;
    }
  }
  for (std::size_t i = 2; i < fds.size(); ++i) {
    if (fds[i].revents != 0) {
      interrupted_ = true;
      failed(EINTR);
      return Wait::woken;
    }
  }
  return fds[1].revents != 0 ? Wait::watched : Wait::ready;
}
