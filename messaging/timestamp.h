// Time values shared by every layer: the message timestamp, the clock that
// fills it, and the time prefix of console lines.
#ifndef DRAVIK_MESSAGING_TIMESTAMP_H_
#define DRAVIK_MESSAGING_TIMESTAMP_H_

#include <cstdint>
#include <iosfwd>

// Seconds since 1970-01-01 UTC and the microseconds within that second.
struct Timestamp {
  int32_t seconds = 0;
  int32_t microseconds = 0;
};

inline bool operator==(const Timestamp& a, const Timestamp& b) {
  return a.seconds == b.seconds && a.microseconds == b.microseconds;
}

// seconds * 1000 + microseconds / 1000 in signed 64-bit arithmetic, the
// division truncating toward zero.
int64_t toMilliseconds(const Timestamp& t);

// The inverse for a received count: sub-millisecond precision is gone.
Timestamp fromMilliseconds(uint64_t milliseconds);

// The current time, from gettimeofday unless a test has installed a clock.
Timestamp now();

// Tests that need a fixed "now" install their own clock; null restores the
// system clock. Not thread-safe: set it before threads run.
using Clock = Timestamp (*)();
void setClock(Clock clock);

// Writes the current UTC time as "%F_%T" (2026-11-16_14:05:49), the prefix of
// every console line of the messaging layers. Writes nothing if formatting
// yields nothing.
std::ostream& writeLogTime(std::ostream& out);

// Text form: the millisecond count as an unsigned 64-bit decimal number.
std::ostream& operator<<(std::ostream& out, const Timestamp& t);
// Reads an unsigned decimal millisecond count, leading white space skipped.
std::istream& operator>>(std::istream& in, Timestamp& t);

#endif  // DRAVIK_MESSAGING_TIMESTAMP_H_
