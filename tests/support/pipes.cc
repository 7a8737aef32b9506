#include "tests/support/pipes.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

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

namespace {

std::string procText(pid_t pid, pid_t tid, const char* name) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/" + name);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// Asleep (S) in poll(): the system call it sleeps in, or, where that number
// is another machine's (qemu-user), the kernel function it sleeps in.
bool sleepsInPoll(pid_t pid, pid_t tid) {
  std::string stat = procText(pid, tid, "stat");
  std::size_t end = stat.rfind(") ");
  if (end == std::string::npos || stat.compare(end + 2, 1, "S") != 0) return false;
  long call = std::atol(procText(pid, tid, "syscall").c_str());
#ifdef SYS_poll
  if (call == SYS_poll) return true;
#endif
  return call == SYS_ppoll || procText(pid, tid, "wchan").find("poll") != std::string::npos;
}

long sleeps(pid_t pid, pid_t tid) {
  std::istringstream status(procText(pid, tid, "status"));
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("voluntary_ctxt_switches:", 0) == 0) return std::atol(line.c_str() + 24);
  }
  return -1;
}

}  // namespace

long waitUntilPolling(pid_t pid, pid_t tid, long since) {
  for (int i = 0; i < kGuardMilliseconds; ++i) {
    long count = sleeps(pid, tid);
    if (count > since && sleepsInPoll(pid, tid) && sleeps(pid, tid) == count) return count;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ADD_FAILURE() << "thread " << tid << " of " << pid << " does not wait in poll()";
  return -1;
}
