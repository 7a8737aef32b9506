#include "messaging/pipe_stream.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// Room for the largest frame (length prefix and 65536 payload bytes), so
// that one read can take a whole frame, or many small ones.
constexpr std::size_t kInputBufferSize = 65536 + 4;
// Small messages are collected here and leave in one write; larger ones are
// written straight from the caller's buffer.
constexpr std::size_t kOutputBufferSize = 4096;

}  // namespace

PipeBuffer::PipeBuffer() = default;

PipeBuffer::~PipeBuffer() {
  // No flush here: a destructor that runs at process exit must not wait on a
  // full pipe. Writers flush every message themselves.
  if (fd_ >= 0) ::close(fd_);
}

bool PipeBuffer::openForReading(const char* path) {
  if (fd_ >= 0) return true;
  interrupted_ = false;
  path_ = path;
  in_.resize(kInputBufferSize);
  setg(in_.data(), in_.data(), in_.data());

  // Watch the path before opening it, so that a writer who opens it between
  // our open and our first wait is still seen.
  int inotifyFd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (inotifyFd >= 0 && inotify_add_watch(inotifyFd, path, IN_OPEN | IN_MODIFY) < 0) {
    ::close(inotifyFd);
    inotifyFd = -1;
  }
  // Opened without blocking: the wait for a writer below can then be woken.
  fd_ = ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd_ < 0) {
    lastError_ = errno;
    if (inotifyFd >= 0) ::close(inotifyFd);
    return false;
  }
  struct stat info;
  isFifo_ = fstat(fd_, &info) == 0 && S_ISFIFO(info.st_mode);
  bool ok = !isFifo_ || waitForWriter(inotifyFd);
  if (inotifyFd >= 0) ::close(inotifyFd);
  if (!ok) {
    ::close(fd_);
    fd_ = -1;
  }
  return ok;
}

// A non-blocking read tells the three states of a FIFO apart: bytes (some
// writer has been here), EAGAIN (a writer holds it open, silent), 0 (no
// writer). Opens of the path are announced by inotify; without inotify the
// wait ends at the first bytes instead of at the writer's open.
bool PipeBuffer::waitForWriter(int inotifyFd) {
  for (;;) {
    ssize_t n = ::read(fd_, in_.data(), in_.size());
    if (n > 0) {
      setg(in_.data(), in_.data(), in_.data() + n);
      return true;
    }
    if (n < 0 && errno == EAGAIN) return true;
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      lastError_ = errno;
      return false;
    }
    std::vector<pollfd> fds;
    fds.push_back({fd_, POLLIN, 0});
    if (inotifyFd >= 0) fds.push_back({inotifyFd, POLLIN, 0});
    for (int fd : wakeFds_) fds.push_back({fd, POLLIN, 0});
    if (poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      lastError_ = errno;
      return false;
    }
    std::size_t firstWake = inotifyFd >= 0 ? 2 : 1;
    for (std::size_t i = firstWake; i < fds.size(); ++i) {
      if (fds[i].revents != 0) {
        interrupted_ = true;
        lastError_ = EINTR;
        return false;
      }
    }
    if (inotifyFd >= 0 && fds[1].revents != 0) {
      char events[4096];
      while (::read(inotifyFd, events, sizeof events) > 0) {
      }
    }
    if ((fds[0].revents & POLLHUP) && !(fds[0].revents & POLLIN)) {
      // A writer came and went without a byte; a fresh descriptor forgets the
      // hangup, which would otherwise keep poll() returning at once.
      if (!reopenForReading()) return false;
    }
  }
}

bool PipeBuffer::reopenForReading() {
  if (path_ == nullptr) return false;
  // The new descriptor is opened before the old one closes, so that the pipe
  // never loses its last reader and keeps what a writer put into it.
  int fd = ::open(path_, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    lastError_ = errno;
    return false;
  }
  struct stat info;
  if (fstat(fd, &info) != 0 || !S_ISFIFO(info.st_mode)) {
    // Reading a plain file again from its start would replay it for ever.
    ::close(fd);
    lastError_ = ENXIO;
    return false;
  }
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
  isFifo_ = true;
  interrupted_ = false;
  if (in_.empty()) in_.resize(kInputBufferSize);
  setg(in_.data(), in_.data(), in_.data());
  return true;
}

bool PipeBuffer::openForWriting(const char* path) {
  if (fd_ >= 0) return true;
  interrupted_ = false;
  path_ = path;
  // Read and write: the open never waits for a reader and never fails for
  // want of one; bytes wait in the pipe until a reader takes them.
  fd_ = ::open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (fd_ < 0) {
    lastError_ = errno;
    return false;
  }
  out_.resize(kOutputBufferSize);
  setp(out_.data(), out_.data() + out_.size());
  return true;
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

PipeBuffer::Wait PipeBuffer::waitFor(short events) {
  std::vector<pollfd> fds;
  fds.push_back({fd_, events, 0});
  for (int fd : wakeFds_) fds.push_back({fd, POLLIN, 0});
  for (;;) {
    if (poll(fds.data(), fds.size(), -1) >= 0) break;
    if (errno != EINTR) {
      lastError_ = errno;
      return Wait::failed;
    }
  }
  for (std::size_t i = 1; i < fds.size(); ++i) {
    if (fds[i].revents != 0) return Wait::woken;
  }
  return Wait::ready;
}

bool PipeBuffer::hungUp() const {
  struct pollfd p = {fd_, POLLIN, 0};
  return poll(&p, 1, 0) == 1 && (p.revents & POLLHUP) != 0;
}

std::streamsize PipeBuffer::readSome(char* to, std::streamsize capacity) {
  for (;;) {
    ssize_t n = ::read(fd_, to, static_cast<std::size_t>(capacity));
    if (n > 0) return n;
    if (n == 0) {
      // A FIFO reads as empty both when its writers have gone (end of file,
      // and poll() reports the hangup) and when no writer has come since
      // this descriptor was opened (no hangup): then wait for one.
      if (!isFifo_ || hungUp()) return 0;
    } else if (errno == EINTR) {
      continue;
    } else if (errno != EAGAIN) {
      lastError_ = errno;
      return 0;
    }
    Wait wait = waitFor(POLLIN);
    if (wait == Wait::woken) {
      interrupted_ = true;
      throw PipeInterrupted();
    }
    if (wait == Wait::failed) return 0;
  }
}

std::streambuf::int_type PipeBuffer::underflow() {
  if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
  if (fd_ < 0 || in_.empty()) return traits_type::eof();
  std::streamsize n = readSome(in_.data(), static_cast<std::streamsize>(in_.size()));
  if (n <= 0) return traits_type::eof();
  setg(in_.data(), in_.data(), in_.data() + n);
  return traits_type::to_int_type(*gptr());
}

std::streamsize PipeBuffer::xsgetn(char* s, std::streamsize n) {
  std::streamsize done = 0;
  while (done < n) {
    std::streamsize buffered = egptr() - gptr();
    if (buffered > 0) {
      std::streamsize k = std::min(buffered, n - done);
      std::memcpy(s + done, gptr(), static_cast<std::size_t>(k));
      gbump(static_cast<int>(k));
      done += k;
      continue;
    }
    if (fd_ < 0 || in_.empty()) break;
    if (n - done >= static_cast<std::streamsize>(in_.size())) {
      // A large block goes straight into the caller's memory.
      std::streamsize got = readSome(s + done, n - done);
      if (got <= 0) break;
      done += got;
    } else if (traits_type::eq_int_type(underflow(), traits_type::eof())) {
      break;
    }
  }
  return done;
}

std::streamsize PipeBuffer::showmanyc() { return egptr() - gptr(); }

bool PipeBuffer::writeAll(const char* data, std::size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd_, data, size);
    if (n > 0) {
      data += n;
      size -= static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) {
      Wait wait = waitFor(POLLOUT);
      if (wait == Wait::ready) continue;
      if (wait == Wait::woken) {
        interrupted_ = true;
        lastError_ = EINTR;
      }
      return false;
    }
    lastError_ = n < 0 ? errno : EIO;
    return false;
  }
  return true;
}

bool PipeBuffer::flushPending() {
  std::size_t pending = static_cast<std::size_t>(pptr() - pbase());
  if (pending == 0) return true;
  bool ok = writeAll(pbase(), pending);
  setp(out_.data(), out_.data() + out_.size());
  return ok;
}

std::streambuf::int_type PipeBuffer::overflow(int_type c) {
  if (fd_ < 0 || out_.empty()) return traits_type::eof();
  if (!flushPending()) return traits_type::eof();
  if (!traits_type::eq_int_type(c, traits_type::eof())) {
    *pptr() = traits_type::to_char_type(c);
    pbump(1);
  }
  return traits_type::not_eof(c);
}

std::streamsize PipeBuffer::xsputn(const char* s, std::streamsize n) {
  if (fd_ < 0 || out_.empty()) return 0;
  if (n <= epptr() - pptr()) {
    std::memcpy(pptr(), s, static_cast<std::size_t>(n));
    pbump(static_cast<int>(n));
    return n;
  }
  if (!flushPending()) return 0;
  if (n < static_cast<std::streamsize>(out_.size())) {
    std::memcpy(pptr(), s, static_cast<std::size_t>(n));
    pbump(static_cast<int>(n));
    return n;
  }
  return writeAll(s, static_cast<std::size_t>(n)) ? n : 0;
}

int PipeBuffer::sync() {
  if (fd_ < 0) return pptr() == pbase() ? 0 : -1;
  return flushPending() ? 0 : -1;
}
