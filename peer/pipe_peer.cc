#include "peer/pipe_peer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>

#include <istream>

#include "messaging/binary_stream.h"
#include "messaging/frame_format.h"
#include "messaging/memory_stream.h"

namespace peer {
namespace {

std::string openFailure(const std::string& path, int errorNumber) {
  switch (errorNumber) {
    case ENOENT:
      return "no pipe at " + path + " (is the service running?)";
    case ENXIO:
      return "no daemon is reading " + path;
    default:
      return "cannot open " + path + ": " + std::strerror(errorNumber);
  }
}

bool isFifo(int fd) {
  struct stat info;
  return fstat(fd, &info) == 0 && S_ISFIFO(info.st_mode);
}

// Opens the named pipe at `path` without waiting (O_NONBLOCK); -1, with the
// reason, when it is missing, has no reader (a writer's open) or is no pipe.
int openPipe(const std::string& path, int access, std::string* whyNot) {
  // Looked at first, so that nothing else (a device) is ever opened.
  struct stat kind;
  if (stat(path.c_str(), &kind) == 0 && !S_ISFIFO(kind.st_mode)) {
    *whyNot = path + " is not a named pipe";
    return -1;
  }
  int fd = ::open(path.c_str(), access | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    *whyNot = openFailure(path, errno);
    return -1;
  }
  if (!isFifo(fd)) {
    ::close(fd);
    *whyNot = path + " is not a named pipe";
    return -1;
  }
  return fd;
}

int64_t nanosecondsUntil(const struct timespec& at) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (static_cast<int64_t>(at.tv_sec) - now.tv_sec) * 1000000000 + (at.tv_nsec - now.tv_nsec);
}

}  // namespace

Deadline Deadline::never() { return Deadline(); }

Deadline Deadline::after(double seconds) {
  Deadline d;
  d.never_ = false;
  clock_gettime(CLOCK_MONOTONIC, &d.at_);
  double whole = std::floor(seconds);
  d.at_.tv_sec += static_cast<time_t>(whole);
  d.at_.tv_nsec += static_cast<long>((seconds - whole) * 1e9);
  if (d.at_.tv_nsec >= 1000000000) {
    d.at_.tv_sec += 1;
    d.at_.tv_nsec -= 1000000000;
  }
  return d;
}

bool Deadline::passed() const { return !never_ && nanosecondsUntil(at_) <= 0; }

int Deadline::pollTimeout() const {
  if (never_) return -1;
  int64_t left = nanosecondsUntil(at_);
  if (left <= 0) return 0;
  // Rounded up, so that a wait never ends just before the deadline.
  return static_cast<int>((left + 999999) / 1000000);
}

MailboxWriter::~MailboxWriter() { close(); }

bool MailboxWriter::open(const std::string& path, std::string* whyNot) {
  close();
  path_ = path;
  // Without waiting: a FIFO without a reader fails at once with ENXIO.
  fd_ = openPipe(path, O_WRONLY, whyNot);
  return fd_ >= 0;
}

bool MailboxWriter::write(const std::string& frame, const Deadline& deadline, std::string* whyNot) {
  return write(frame.data(), frame.size(), deadline, whyNot);
}

bool MailboxWriter::write(const char* data, std::size_t size, const Deadline& deadline, std::string* whyNot) {
  lastWritten_ = 0;
  if (fd_ < 0) {
    *whyNot = "no daemon is reading " + path_;
    return false;
  }
  std::size_t& done = lastWritten_;
  done = 0;
  while (done < size) {
    ssize_t n = ::write(fd_, data + done, size - done);
    if (n > 0) {
      done += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EPIPE) {
      close();
      *whyNot = "the service stopped reading " + path_;
      return false;
    }
    if (n < 0 && errno != EAGAIN) {
      *whyNot = "cannot write to " + path_ + ": " + std::strerror(errno);
      return false;
    }
    struct pollfd p = {fd_, POLLOUT, 0};
    int ready = poll(&p, 1, deadline.pollTimeout());
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      *whyNot = "the service is not taking messages from " + path_ + " (pipe full";
      *whyNot += done != 0 ? ", frame cut short)" : ")";
      return false;
    }
    if (ready < 0) {
      *whyNot = "cannot wait for " + path_ + ": " + std::strerror(errno);
      return false;
    }
  }
  return true;
}

void MailboxWriter::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

FrameReader::~FrameReader() {
  if (fd_ >= 0) ::close(fd_);
}

bool FrameReader::open(const std::string& path, std::string* whyNot) {
  path_ = path;
  int fd = openPipe(path, O_RDONLY, whyNot);
  if (fd < 0) return false;
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
  return true;
}

// A FIFO whose writers have all gone reports a hangup for ever; a fresh
// descriptor waits for the next writer instead. It is opened before the old
// one closes, so that the pipe keeps a reader and loses nothing.
bool FrameReader::reopen(std::string* whyNot) {
  int old = fd_;
  fd_ = -1;
  bool ok = open(path_, whyNot);
  if (old >= 0) ::close(old);
  return ok;
}

void FrameAssembler::append(const char* bytes, std::size_t count) {
  buffer_.erase(0, start_);
  start_ = 0;
  buffer_.append(bytes, count);
}

bool FrameAssembler::next(std::string* frame) {
  if (buffer_.size() - start_ < kFrameLengthSize) return false;
  prefix_.reset(buffer_.data() + start_, kFrameLengthSize);
  prefixStream_.clear();
  uint32_t length = 0;
  bistream(prefixStream_) >> length;
  // A refused length gives no way to find the next frame: as the service's
  // own reader does, take the following bytes as the next length.
  std::size_t size = isAcceptedPayloadLength(length) ? kFrameLengthSize + length : kFrameLengthSize;
  if (buffer_.size() - start_ < size) return false;
  frame->assign(buffer_, start_, size);
  start_ += size;
  return true;
}

std::string FrameAssembler::takeRest() {
  std::string rest = buffer_.substr(start_);
  buffer_.clear();
  start_ = 0;
  return rest;
}

FrameReader::Event FrameReader::next(std::string* frame, const Deadline& deadline, int wakeFd, std::string* whyNot) {
  if (goneToReport_) {
    goneToReport_ = false;
    return Event::writersGone;
  }
  for (;;) {
    if (frames_.next(frame)) return Event::frame;
    if (fd_ < 0) {
      *whyNot = "no pipe open";
      return Event::failed;
    }
    struct pollfd fds[2] = {{fd_, POLLIN, 0}, {wakeFd, POLLIN, 0}};
    int ready = poll(fds, wakeFd >= 0 ? 2 : 1, deadline.pollTimeout());
    if (ready < 0) {
      if (errno == EINTR) continue;
      *whyNot = std::string("cannot wait for ") + path_ + ": " + std::strerror(errno);
      return Event::failed;
    }
    if (ready == 0) return Event::timeout;
    if (fds[0].revents != 0) {
      char chunk[kMaxFrameSize];
      ssize_t n = ::read(fd_, chunk, sizeof chunk);
      if (n > 0) {
        frames_.append(chunk, static_cast<std::size_t>(n));
        continue;
      }
      if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
      if (n < 0) {
        *whyNot = std::string("cannot read ") + path_ + ": " + std::strerror(errno);
        return Event::failed;
      }
      if (!reopen(whyNot)) return Event::failed;
      if (!frames_.empty()) {
        // The writer went in the middle of a frame: show what came of it.
        *frame = frames_.takeRest();
        goneToReport_ = true;
        return Event::frame;
      }
      return Event::writersGone;
    }
    if (wakeFd >= 0 && fds[1].revents != 0) return Event::woken;
  }
}

}  // namespace peer
