#include "messaging/pipe_output.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {
// Small messages are collected here and leave in one write; larger ones are
// written straight from the caller's buffer.
constexpr std::size_t kOutputBufferSize = 4096;
}  // namespace

PipeWriteBuffer::~PipeWriteBuffer() {
  if (fd_ >= 0) (void)flushPending();
}

bool PipeWriteBuffer::open(const char* path) {
  if (fd_ >= 0) return true;
  interrupted_ = false;
  path_ = path;
  fd_ = openPipe(path, O_RDWR);
  if (fd_ < 0) return false;
  out_.resize(kOutputBufferSize);
  setp(out_.data(), out_.data() + out_.size());
  return true;
}

bool PipeWriteBuffer::writeAll(const char* data, std::size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd_, data, size);
    if (n > 0) {
      data += n;
      size -= static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) {
      if (waitFor(POLLOUT) == Wait::ready) continue;
      return false;
    }
    failed(n < 0 ? errno : EIO);
    return false;
  }
  return true;
}

bool PipeWriteBuffer::flushPending() {
  std::size_t pending = static_cast<std::size_t>(pptr() - pbase());
  if (pending == 0) return true;
  bool ok = writeAll(pbase(), pending);
  setp(out_.data(), out_.data() + out_.size());
  return ok;
}

std::streambuf::int_type PipeWriteBuffer::overflow(int_type c) {
  if (fd_ < 0 || out_.empty()) return traits_type::eof();
  if (!flushPending()) return traits_type::eof();
  if (!traits_type::eq_int_type(c, traits_type::eof())) {
    *pptr() = traits_type::to_char_type(c);
    pbump(1);
  }
  return traits_type::not_eof(c);
}

std::streamsize PipeWriteBuffer::xsputn(const char* s, std::streamsize n) {
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

int PipeWriteBuffer::sync() {
  if (fd_ < 0) return pptr() == pbase() ? 0 : -1;
  return flushPending() ? 0 : -1;
}
