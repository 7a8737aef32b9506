// The timed loops, each against one server (servers.h) and alike for
// every server: ping-pong with one request outstanding, pipelined requests,
// bulk calibration blocks, and an idle stretch. Rates come from the
// monotonic clock, server CPU and page faults from /proc.
#ifndef DRAVIK_BENCH_TIMED_RUNS_H_
#define DRAVIK_BENCH_TIMED_RUNS_H_

#include <cstdint>
#include <string>
#include <vector>

struct Server;

// The monotonic clock, in nanoseconds.
int64_t nowNs();

struct Run {
  long count = 0;
  int64_t ns = 0;
  int64_t cpuNs = 0;
  long long faults = 0;
  long errors = 0;  // answers missing or not matching their request
  std::vector<uint32_t> latencyNs;
  // Rates of the rounds added, for a median that one noisy round cannot move.
  std::vector<double> roundRates;

  void add(const Run& round);
  double perSecond() const;
  double medianRoundRate() const;
  double cpuUsPer() const;
  double faultsPer() const;
  double percentileUs(double p);
};

// `count` requests cycled from `requests` (frames.h), one outstanding.
Run pingPong(Server& server, const std::string& requests, long count, bool keepLatencies);
// A writer thread sends `count` requests 64 to a write (3,328 bytes, one
// atomic pipe write) while this thread takes the answers.
Run pipelined(Server& server, const std::string& requests, long count);
// `count` copies of `block`, then one request whose answer says that the
// server has taken them all.
Run bulk(Server& server, const std::string& block, const std::string& requests, long count);

struct Idle {
  double cpuMs = 0;
  double switchesPerSecond = 0;
};
// The server's CPU time and context switches over `seconds` of sleep.
Idle idle(const Server& server, int seconds);

#endif  // DRAVIK_BENCH_TIMED_RUNS_H_
