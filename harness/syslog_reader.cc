#include "harness/syslog_reader.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr int kBatch = 64;
constexpr std::size_t kDatagramSize = 65536;  // only the pages that lines touch are ever used

bool socketAddress(const std::string& path, sockaddr_un* address) {
  if (path.size() >= sizeof address->sun_path) return false;
  *address = sockaddr_un{};
  address->sun_family = AF_UNIX;
  std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
  return true;
}

}  // namespace

SyslogReader::~SyslogReader() { close(); }

bool SyslogReader::open(const std::string& path, std::string* whyNot) {
  auto fail = [&](const std::string& what) {
    if (whyNot != nullptr) *whyNot = what + ": " + std::strerror(errno);
    close();
    return false;
  };
  close();
  sockaddr_un address;
  if (!socketAddress(path, &address)) {
    errno = ENAMETOOLONG;
    return fail("syslog socket path");
  }
  fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) return fail("socket");
  int on = 1;
  if (setsockopt(fd_, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0) return fail("SO_PASSCRED");
  int size = 1 << 20;
  (void)setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  struct stat info;
  if (lstat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode)) unlink(path.c_str());
  if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return fail("bind " + path);
  path_ = path;
  // Anyone may log, whatever user the process watched runs as.
  chmod(path.c_str(), 0666);
  stop_ = std::make_unique<WakeUp>();
  if (stop_->fd() < 0) return fail("pipe");
  thread_ = std::thread(&SyslogReader::drain, this);
  return true;
}

void SyslogReader::close() {
  if (thread_.joinable()) {
    stop_->trigger();
    thread_.join();
  }
  stop_.reset();
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  if (!path_.empty()) unlink(path_.c_str());
  path_.clear();
}

void SyslogReader::drain() {
  std::vector<char> buffers(kBatch * kDatagramSize);
  iovec io[kBatch];
  mmsghdr messages[kBatch];
  alignas(cmsghdr) char control[kBatch][CMSG_SPACE(sizeof(ucred))];
  for (;;) {
    pollfd fds[2] = {{fd_, POLLIN, 0}, {stop_->fd(), POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    // Everything queued goes first, so that no line sent before a stop is lost.
    for (;;) {
      for (int i = 0; i < kBatch; ++i) {
        io[i] = {buffers.data() + i * kDatagramSize, kDatagramSize};
        messages[i].msg_hdr = msghdr{};
        messages[i].msg_hdr.msg_iov = &io[i];
        messages[i].msg_hdr.msg_iovlen = 1;
        messages[i].msg_hdr.msg_control = control[i];
        messages[i].msg_hdr.msg_controllen = sizeof control[i];
      }
      int n = recvmmsg(fd_, messages, kBatch, MSG_DONTWAIT, nullptr);
      if (n <= 0) break;
      auto now = std::chrono::system_clock::now();
      std::vector<SyslogRecord> batch(static_cast<std::size_t>(n));
      for (int i = 0; i < n; ++i) {
        SyslogRecord& record = batch[static_cast<std::size_t>(i)];
        record.received = now;
        msghdr& header = messages[i].msg_hdr;
        for (cmsghdr* c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c)) {
          if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS) {
            ucred credentials;
            std::memcpy(&credentials, CMSG_DATA(c), sizeof credentials);
            record.pid = credentials.pid;
          }
        }
        std::string datagram(static_cast<const char*>(io[i].iov_base), messages[i].msg_len);
        if (!parseSyslogDatagram(datagram, &record)) {
          record.priority = -1;
          record.message = datagram;
        }
        if (callback_) callback_(record);
      }
      std::lock_guard<std::mutex> lock(mutex_);
      for (SyslogRecord& record : batch) records_.push_back(std::move(record));
      changed_.notify_all();
    }
    if (fds[1].revents != 0) return;
  }
}

std::vector<SyslogLine> SyslogReader::lines(pid_t pid) const {
  std::vector<SyslogLine> result;
  std::lock_guard<std::mutex> lock(mutex_);
  for (const SyslogRecord& record : records_) {
    if (record.pid == pid) result.emplace_back(record.priority, record.message);
  }
  return result;
}

std::size_t SyslogReader::count(pid_t pid) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::size_t n = 0;
  for (const SyslogRecord& record : records_) n += record.pid == pid;
  return n;
}

bool SyslogReader::waitFor(pid_t pid, const std::function<bool(const std::vector<SyslogLine>&)>& done,
                           std::chrono::milliseconds timeout) const {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    std::vector<SyslogLine> mine;
    for (const SyslogRecord& record : records_) {
      if (record.pid == pid) mine.emplace_back(record.priority, record.message);
    }
    if (done(mine)) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    changed_.wait_until(lock, deadline);
  }
}

bool SyslogReader::flush(std::chrono::milliseconds timeout) {
  sockaddr_un address;
  if (path_.empty() || !socketAddress(path_, &address)) return false;
  std::string text = "syslog-reader flush " + std::to_string(++markers_);
  std::string marker = "<15>Jan  1 00:00:00 syslog-reader: " + text;
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  bool sent = sendto(fd, marker.data(), marker.size(), 0, reinterpret_cast<sockaddr*>(&address), sizeof address) ==
              static_cast<ssize_t>(marker.size());
  ::close(fd);
  return sent && waitFor(
                     getpid(),
                     [&](const std::vector<SyslogLine>& mine) { return !mine.empty() && mine.back().second == text; },
                     timeout);
}
