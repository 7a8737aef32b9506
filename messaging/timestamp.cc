#include "messaging/timestamp.h"

#include <sys/time.h>

#include <ctime>
#include <istream>
#include <ostream>

namespace {

Timestamp systemClock() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  Timestamp t;
  t.seconds = static_cast<int32_t>(tv.tv_sec);
  t.microseconds = static_cast<int32_t>(tv.tv_usec);
  return t;
}

Clock currentClock = systemClock;

}  // namespace

int64_t toMilliseconds(const Timestamp& t) {
  return static_cast<int64_t>(t.seconds) * 1000 + t.microseconds / 1000;
}

Timestamp fromMilliseconds(uint64_t milliseconds) {
  Timestamp t;
  t.seconds = static_cast<int32_t>(milliseconds / 1000);
  t.microseconds = static_cast<int32_t>((milliseconds % 1000) * 1000);
  return t;
}

Timestamp now() { return currentClock(); }

void setClock(Clock clock) { currentClock = clock ? clock : systemClock; }

std::ostream& writeLogTime(std::ostream& out) {
  time_t seconds = time(nullptr);
  struct tm utc;
  char text[200];
  if (gmtime_r(&seconds, &utc) != nullptr) {
    size_t n = strftime(text, sizeof text, "%F_%T", &utc);
    if (n > 0) out.write(text, static_cast<std::streamsize>(n));
  }
  return out;
}

std::ostream& operator<<(std::ostream& out, const Timestamp& t) {
  return out << static_cast<uint64_t>(toMilliseconds(t));
}

std::istream& operator>>(std::istream& in, Timestamp& t) {
  uint64_t milliseconds = 0;
  if (in >> milliseconds) t = fromMilliseconds(milliseconds);
  return in;
}
