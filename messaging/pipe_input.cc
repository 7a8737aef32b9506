#include "messaging/pipe_input.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>

#include "messaging/frame_format.h"

namespace {

std::string directoryOf(const char* path) {
  const char* slash = std::strrchr(path, '/');
  if (slash == nullptr) return ".";
  if (slash == path) return "/";
  return std::string(path, slash);
}

const char* nameOf(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash == nullptr ? path : slash + 1;
}

}  // namespace

PipeReadBuffer::~PipeReadBuffer() {
  if (watchFd_ >= 0) ::close(watchFd_);
}

void PipeReadBuffer::startWatch() {
  if (watchFd_ >= 0) return;
  watchFd_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (watchFd_ < 0) return;
  // The directory entry: a pipe removed, replaced or made again.
  if (inotify_add_watch(watchFd_, directoryOf(path_).c_str(),
                        IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR) < 0) {
    ::close(watchFd_);
    watchFd_ = -1;
    return;
  }
}

// The pipe held now, until the first writer has come: a writer that holds
// it open without writing shows up only as an open. Watched through the
// descriptor, so that a pipe reached through a link is the one watched.
void PipeReadBuffer::watchOpens() {
  if (watchFd_ < 0) return;
  if (fileWatch_ >= 0) inotify_rm_watch(watchFd_, fileWatch_);
  std::string held = "/proc/self/fd/" + std::to_string(fd_);
  fileWatch_ = inotify_add_watch(watchFd_, held.c_str(), IN_OPEN);
}

bool PipeReadBuffer::open(const char* path) {
  if (fd_ >= 0) return true;
  interrupted_ = false;
  path_ = path;
  in_.resize(kMaxFrameSize);
  setg(in_.data(), in_.data(), in_.data());
  // The directory is watched before the pipe is opened, and the pipe before
  // the first read: a writer who comes in between is seen by that read (it
  // holds the pipe, or left bytes or a hangup behind).
  startWatch();
  fd_ = openPipe(path, O_RDONLY);
  if (fd_ >= 0) watchOpens();
  bool ok = fd_ >= 0 && waitForWriter();
  if (fileWatch_ >= 0) {
    inotify_rm_watch(watchFd_, fileWatch_);
    fileWatch_ = -1;
    pathChanged();  // drops the events of the wait
  }
  if (!ok) close();
  return ok;
}

// A non-blocking read tells the states of a pipe apart: bytes, EAGAIN (a
// writer holds it open, silent), 0 (no writer now). A writer that came and
// went without a byte leaves a hangup behind, so it ends the wait as well.
bool PipeReadBuffer::waitForWriter() {
  for (;;) {
    ssize_t n = ::read(fd_, in_.data(), in_.size());
    if (n > 0) {
      setg(in_.data(), in_.data(), in_.data() + n);
      return true;
    }
    if (n < 0) {
      if (errno == EAGAIN) return true;
      if (errno == EINTR) continue;
      failed(errno);
      return false;
    }
    if (hungUp()) return true;
    Wait wait = waitFor(POLLIN, watchFd_);
    if (wait == Wait::woken || wait == Wait::failed) return false;
    if (wait == Wait::watched && pathChanged()) followPath();
  }
}

bool PipeReadBuffer::reopen() {
  if (path_ == nullptr) return false;
  int fd = openPipe(path_, O_RDONLY);
  struct stat held;
  if (fd < 0 && refusal_ == OpenRefusal::system && lastError_ == ENOENT && fd_ >= 0 && fstat(fd_, &held) == 0) {
    // Made again with the mode of the pipe it replaces: the process umask
    // would narrow it, and clients of every user must reach it.
    mode_t mode = held.st_mode & 07777;
    if (mkfifo(path_, mode) == 0 || errno == EEXIST) {
      fd = openPipe(path_, O_RDONLY);
      if (fd >= 0) (void)fchmod(fd, mode);
    } else {
      failed(errno);
      if (!makeFailureReported_) std::cerr << "Failed to create FIFO" << std::endl;
      makeFailureReported_ = true;
    }
  }
  if (fd < 0) return false;
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
  interrupted_ = false;
  makeFailureReported_ = false;
  if (in_.empty()) in_.resize(kMaxFrameSize);
  setg(in_.data(), in_.data(), in_.data());
  if (fileWatch_ >= 0) watchOpens();
  return true;
}

bool PipeReadBuffer::close() {
  if (watchFd_ >= 0) ::close(watchFd_);
  watchFd_ = -1;
  fileWatch_ = -1;
  return PipeBuffer::close();
}

bool PipeReadBuffer::pathChanged() {
  if (watchFd_ < 0) return false;
  alignas(struct inotify_event) char events[4096];
  const char* name = nameOf(path_);
  bool changed = false;
  ssize_t n;
  while ((n = ::read(watchFd_, events, sizeof events)) > 0) {
    for (char* p = events; p < events + n;) {
      const auto* event = reinterpret_cast<const struct inotify_event*>(p);
      if ((event->mask & IN_Q_OVERFLOW) || (event->len > 0 && std::strcmp(event->name, name) == 0)) changed = true;
      p += sizeof(struct inotify_event) + event->len;
    }
  }
  return changed;
}

void PipeReadBuffer::followPath() {
  struct stat atPath, held;
  if (stat(path_, &atPath) == 0 && fstat(fd_, &held) == 0 && atPath.st_dev == held.st_dev &&
      atPath.st_ino == held.st_ino) {
    return;
  }
  // Nothing that can be opened there (yet): the next change is another try.
  (void)reopen();
}

// Hung up with nothing left to read. A writer can come, write and go
// between a read that found the pipe empty and this look: then its bytes
// are there beside the hangup, and they are read first.
bool PipeReadBuffer::hungUp() const {
  struct pollfd p = {fd_, POLLIN, 0};
  return poll(&p, 1, 0) == 1 && (p.revents & POLLHUP) != 0 && (p.revents & POLLIN) == 0;
}

std::streamsize PipeReadBuffer::readSome(char* to, std::streamsize capacity) {
  for (;;) {
    ssize_t n = ::read(fd_, to, static_cast<std::size_t>(capacity));
    if (n > 0) return n;
    bool writerHolds = false;
    if (n == 0) {
      // Empty both when its writers have gone (end of file: poll() reports
      // the hangup) and when no writer has come since this descriptor was
      // opened (no hangup): then wait for one.
      if (hungUp()) return 0;
    } else if (errno == EINTR) {
      continue;
    } else if (errno == EAGAIN) {
      writerHolds = true;
    } else {
      failed(errno);
      return 0;
    }
    switch (waitFor(POLLIN, watchFd_)) {
      case Wait::woken:
        throw PipeInterrupted();
      case Wait::failed:
        return 0;
      case Wait::watched:
        // A writer who holds the old pipe is served to its end; the path is
        // followed once it has gone (the reader reopens then).
        if (pathChanged() && !writerHolds) followPath();
        break;
      case Wait::ready:
        break;
    }
  }
}

std::streambuf::int_type PipeReadBuffer::underflow() {
  if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
  if (fd_ < 0 || in_.empty()) return traits_type::eof();
  std::streamsize n = readSome(in_.data(), static_cast<std::streamsize>(in_.size()));
  if (n <= 0) return traits_type::eof();
  setg(in_.data(), in_.data(), in_.data() + n);
  return traits_type::to_int_type(*gptr());
}

std::streamsize PipeReadBuffer::xsgetn(char* s, std::streamsize n) {
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

std::streamsize PipeReadBuffer::showmanyc() { return egptr() - gptr(); }
