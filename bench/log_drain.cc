#include "bench/log_drain.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace {

constexpr int kBatch = 64;
constexpr std::size_t kLineCapacity = 2048;

}  // namespace

LogDrain::~LogDrain() { stop(); }

bool LogDrain::start(const char* path, std::string* whyNot) {
  fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) {
    *whyNot = std::string("socket: ") + std::strerror(errno);
    return false;
  }
  int on = 1;
  setsockopt(fd_, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
  int buffer = 4 << 20;
  setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof buffer);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  unlink(path);
  if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    *whyNot = std::string("bind ") + path + ": " + std::strerror(errno);
    close(fd_);
    fd_ = -1;
    return false;
  }
  chmod(path, 0666);
  stopFd_ = eventfd(0, EFD_CLOEXEC);
  thread_ = std::thread(&LogDrain::run, this);
  return true;
}

void LogDrain::stop() {
  if (thread_.joinable()) {
    uint64_t one = 1;
    (void)!write(stopFd_, &one, sizeof one);
    thread_.join();
  }
  if (fd_ >= 0) close(fd_);
  if (stopFd_ >= 0) close(stopFd_);
  fd_ = stopFd_ = -1;
}

long LogDrain::linesFrom(pid_t pid) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = counts_.find(pid);
  return found == counts_.end() ? 0 : found->second;
}

std::string LogDrain::lastLineFrom(pid_t pid) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = last_.find(pid);
  return found == last_.end() ? std::string() : found->second;
}

void LogDrain::run() {
  std::vector<char> lines(kBatch * kLineCapacity);
  std::vector<char> controls(kBatch * CMSG_SPACE(sizeof(ucred)));
  iovec iov[kBatch];
  mmsghdr messages[kBatch];
  pollfd fds[2] = {{fd_, POLLIN, 0}, {stopFd_, POLLIN, 0}};
  for (;;) {
    if (poll(fds, 2, -1) < 0 && errno != EINTR) return;
    if (fds[1].revents != 0) return;
    for (;;) {
      for (int i = 0; i < kBatch; ++i) {
        iov[i] = {&lines[i * kLineCapacity], kLineCapacity - 1};
        std::memset(&messages[i], 0, sizeof messages[i]);
        messages[i].msg_hdr.msg_iov = &iov[i];
        messages[i].msg_hdr.msg_iovlen = 1;
        messages[i].msg_hdr.msg_control = &controls[i * CMSG_SPACE(sizeof(ucred))];
        messages[i].msg_hdr.msg_controllen = CMSG_SPACE(sizeof(ucred));
      }
      int n = recvmmsg(fd_, messages, kBatch, MSG_DONTWAIT, nullptr);
      if (n <= 0) break;
      std::lock_guard<std::mutex> lock(mutex_);
      for (int i = 0; i < n; ++i) {
        pid_t pid = 0;
        for (cmsghdr* c = CMSG_FIRSTHDR(&messages[i].msg_hdr); c != nullptr;
             c = CMSG_NXTHDR(&messages[i].msg_hdr, c)) {
          if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS) {
            ucred credentials;
            std::memcpy(&credentials, CMSG_DATA(c), sizeof credentials);
            pid = credentials.pid;
          }
        }
        ++counts_[pid];
        last_[pid].assign(&lines[i * kLineCapacity], messages[i].msg_len);
      }
    }
  }
}
