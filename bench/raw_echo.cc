#include "bench/raw_echo.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "bench/peer_messages.h"

namespace {

// Read as much at once as the daemon's pipe reader does.
constexpr std::size_t kReadSize = 65536 + 4;
// Anything longer than a request is a block to drop.
constexpr uint32_t kLargestAnswered = 1024;

struct Answers {
  char frame[4][kAnswerFrameSize];
  char line[4][96];
};

void buildAnswers(Answers& a) {
  for (int channel = 0; channel < 4; ++channel) {
    char path[64];
    std::snprintf(path, sizeof path, "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH%d.xml", channel);
    char* f = a.frame[channel];
    std::memset(f, 0, kAnswerFrameSize);
    storeBigEndian32(kAnswerFrameSize - 4, f);
    storeBigEndian32(1, f + 4);                      // version
    storeBigEndian32(13, f + kFrameSenderOffset);
    storeBigEndian32(13003, f + kFrameSelectorOffset);
    storeBigEndian32(2 + 51, f + 4 + 40);            // argsLength
    f[48] = 0;
    f[49] = 51;
    std::memcpy(f + 50, path, 51);
    std::snprintf(a.line[channel], sizeof a.line[channel], "Sending get CH=%d %s", channel, path);
  }
}

bool writeAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

int serveRawEcho(const char* inPath, const char* outPath, bool log) {
  int out = ::open(outPath, O_RDWR | O_CLOEXEC);  // like the daemon: never waits for a reader
  int in = ::open(inPath, O_RDONLY | O_CLOEXEC);  // waits for the benchmark's writer
  if (in < 0 || out < 0) {
    std::perror("raw echo: open");
    return 2;
  }
  Answers answers;
  buildAnswers(answers);
  std::vector<char> buffer(2 * kReadSize);
  std::size_t have = 0;
  std::size_t skip = 0;  // bytes of a dropped block still to come
  uint32_t nextId = 1;
  for (;;) {
    ssize_t n = ::read(in, buffer.data() + have, kReadSize);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n == 0 ? 0 : 2;
    have += static_cast<std::size_t>(n);
    std::size_t pos = 0;
    if (skip > 0) {
      std::size_t k = skip < have ? skip : have;
      pos += k;
      skip -= k;
    }
    while (skip == 0 && have - pos >= 4) {
      const char* frame = buffer.data() + pos;
      uint32_t length = loadBigEndian32(frame);
      if (length > kLargestAnswered) {
        std::size_t whole = 4 + static_cast<std::size_t>(length);
        std::size_t take = whole < have - pos ? whole : have - pos;
        pos += take;
        skip = whole - take;
        continue;
      }
      if (have - pos < 4 + length) break;
      uint32_t channel = length >= 48 ? loadBigEndian32(frame + 48) & 3 : 0;
      if (log) syslog(LOG_INFO, "%s", answers.line[channel]);
      char* answer = answers.frame[channel];
      std::memcpy(answer + kFrameRecipientOffset, frame + kFrameSenderOffset, 4);
      storeBigEndian32(nextId++, answer + kFrameIdOffset);
      std::memcpy(answer + kFrameCorrelationIdOffset, frame + kFrameIdOffset, 4);
      if (!writeAll(out, answer, kAnswerFrameSize)) return 2;
      pos += 4 + length;
    }
    std::memmove(buffer.data(), buffer.data() + pos, have - pos);
    have -= pos;
  }
}
