#include "tests/e2e/mailbox_peer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "tests/support/hex.h"

namespace {

using Clock = std::chrono::steady_clock;

uint32_t readBe32(const std::string& bytes, std::size_t at) {
  uint32_t value = 0;
  for (std::size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<uint8_t>(bytes[at + i]);
  return value;
}

int64_t readBe64(const std::string& bytes, std::size_t at) {
  uint64_t value = 0;
  for (std::size_t i = 0; i < 8; ++i) value = value << 8 | static_cast<uint8_t>(bytes[at + i]);
  return static_cast<int64_t>(value);
}

int millisecondsUntil(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

std::string int32Arg(int32_t value) { return be32(static_cast<uint32_t>(value)); }

std::string stringArg(const std::string& text) { return be16(static_cast<uint16_t>(text.size())) + text; }

std::string blockArg(const std::string& bytes) { return be32(static_cast<uint32_t>(bytes.size())) + bytes; }

std::string buildFrame(WireHeader h, const std::string& args) {
  std::string payload = be32(h.version) + be32(h.sender) + be32(h.recipient) + be32(h.id) + be32(h.correlationId) +
                        be64(static_cast<uint64_t>(h.timestamp)) + be32(h.selector) + be32(h.responseSelector) +
                        be32(h.flags) + be32(static_cast<uint32_t>(args.size())) + args;
  return be32(static_cast<uint32_t>(payload.size())) + payload;
}

bool decodeFrame(const std::string& bytes, Frame* frame) {
  if (bytes.size() < 48) return false;
  frame->bytes = bytes;
  frame->length = readBe32(bytes, 0);
  WireHeader& h = frame->header;
  h.version = static_cast<int32_t>(readBe32(bytes, 4));
  h.sender = static_cast<int32_t>(readBe32(bytes, 8));
  h.recipient = static_cast<int32_t>(readBe32(bytes, 12));
  h.id = static_cast<int32_t>(readBe32(bytes, 16));
  h.correlationId = static_cast<int32_t>(readBe32(bytes, 20));
  h.timestamp = readBe64(bytes, 24);
  h.selector = static_cast<int32_t>(readBe32(bytes, 32));
  h.responseSelector = static_cast<int32_t>(readBe32(bytes, 36));
  h.flags = static_cast<int32_t>(readBe32(bytes, 40));
  h.argsLength = static_cast<int32_t>(readBe32(bytes, 44));
  frame->args = bytes.substr(48);
  return true;
}

bool waitForFifo(const char* path, std::chrono::milliseconds timeout) {
  auto deadline = Clock::now() + timeout;
  for (;;) {
    struct stat info;
    if (stat(path, &info) == 0 && S_ISFIFO(info.st_mode)) return true;
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

bool MailboxPeer::openNotifications(std::chrono::milliseconds timeout) {
  if (!waitForFifo(kCommPath, timeout)) return false;
  int fd = ::open(kCommPath, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  reader_ = UniqueFd(fd);
  pending_.clear();
  return true;
}

bool MailboxPeer::connect(std::chrono::milliseconds timeout) {
  auto deadline = Clock::now() + timeout;
  if (!waitForFifo(kMailboxPath, timeout)) return false;
  // Without O_NONBLOCK the open would wait for a reader for ever if the
  // daemon died; with it, it fails (ENXIO) until the daemon has the pipe open.
  for (;;) {
    int fd = ::open(kMailboxPath, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0) {
      fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
      writer_ = UniqueFd(fd);
      return true;
    }
    if (errno != ENXIO || Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

void MailboxPeer::send(const std::string& bytes) { writePipe(writer_.get(), bytes); }

bool MailboxPeer::fill(std::size_t count, Clock::time_point deadline) {
  char buffer[65536];
  while (pending_.size() < count) {
    if (!reader_.valid()) return false;
    ssize_t n = ::read(reader_.get(), buffer, sizeof buffer);
    if (n > 0) {
      pending_.append(buffer, static_cast<std::size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno != EAGAIN) return false;
    int left = millisecondsUntil(deadline);
    if (left == 0) return false;
    struct pollfd p = {reader_.get(), POLLIN, 0};
    ::poll(&p, 1, left);
  }
  return true;
}

std::optional<Frame> MailboxPeer::readFrame(std::chrono::milliseconds timeout) {
  auto deadline = Clock::now() + timeout;
  if (!fill(4, deadline)) return std::nullopt;
  std::size_t total = 4 + static_cast<std::size_t>(readBe32(pending_, 0));
  if (!fill(total, deadline)) return std::nullopt;
  std::string bytes = pending_.substr(0, total);
  pending_.erase(0, total);
  Frame frame;
  if (!decodeFrame(bytes, &frame)) {
    frame.bytes = bytes;
    frame.length = static_cast<uint32_t>(total - 4);
  }
  frame.received = Clock::now();
  return frame;
}

bool MailboxPeer::quietFor(std::chrono::milliseconds timeout) {
  return pending_.empty() && !fill(1, Clock::now() + timeout);
}
