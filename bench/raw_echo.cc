#include "bench/raw_echo.h"

#include <fcntl.h>
#include <poll.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bench/frames.h"
#include "store/store_layout.h"

namespace {

// Read as much at once as the daemon's pipe reader does.
constexpr std::size_t kReadSize = kMaxFrameSize;
// Anything longer than a request is a block to drop.
constexpr uint32_t kLargestAnswered = 1024;

uint32_t lengthOf(const char* frame) {
  const auto* b = reinterpret_cast<const unsigned char*>(frame);
  return (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | uint32_t{b[3]};
}

}  // namespace

int serveRawEcho(const char* inPath, const char* outPath, bool log) {
  // Like the daemon: the output never waits for a reader, and the input is
  // opened without waiting (which the benchmark sees) and then waited on.
  int out = ::open(outPath, O_RDWR | O_CLOEXEC);
  int in = ::open(inPath, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (in < 0 || out < 0) {
    std::perror("raw echo: open");
    return 2;
  }
  pollfd first = {in, POLLIN, 0};
  poll(&first, 1, -1);
  fcntl(in, F_SETFL, 0);
  std::string answers[kChannelCount], lines[kChannelCount];
  for (int channel = 0; channel < kChannelCount; ++channel) {
    answers[channel] = answerFrame(channel);
    lines[channel] = "Sending get CH=" + std::to_string(channel) + " " + FilterFilePath(channel);
  }
  std::vector<char> buffer(2 * kReadSize);
  std::size_t have = 0;
  std::size_t skip = 0;  // bytes of a dropped block still to come
  for (;;) {
    ssize_t n = ::read(in, buffer.data() + have, kReadSize);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n == 0 ? 0 : 2;
    have += static_cast<std::size_t>(n);
    std::size_t pos = std::min(skip, have);
    skip -= pos;
    while (skip == 0 && have - pos >= kFrameLengthSize) {
      const char* frame = buffer.data() + pos;
      std::size_t whole = kFrameLengthSize + lengthOf(frame);
      if (whole > kFrameLengthSize + kLargestAnswered) {
        std::size_t take = std::min(whole, have - pos);
        pos += take;
        skip = whole - take;
        continue;
      }
      if (have - pos < whole) break;
      int channel = frame[kFrameLengthSize + kHeaderSize + 3] & 3;  // the low byte of the channel
      if (log) syslog(LOG_INFO, "%s", lines[channel].c_str());
      std::string& answer = answers[channel];
      std::memcpy(&answer[kFrameLengthSize + kRecipientOffset], frame + kFrameLengthSize + kSenderOffset, 4);
      std::memcpy(&answer[kFrameLengthSize + kCorrelationIdOffset], frame + kFrameLengthSize + kIdOffset, 4);
      // At most PIPE_BUF bytes: one write, whole or not at all.
      if (::write(out, answer.data(), answer.size()) != static_cast<ssize_t>(answer.size())) return 2;
      pos += whole;
    }
    std::memmove(buffer.data(), buffer.data() + pos, have - pos);
    have -= pos;
  }
}
