// A stand-in for the syslog daemon: a datagram socket bound at /dev/log that
// a thread empties as fast as lines arrive, counting them by sender pid.
// glibc's syslog() blocks once ten datagrams wait unread, so a slow drain
// would throttle whatever it measures; this one takes up to 64 per call.
#ifndef DRAVIK_BENCH_LOG_DRAIN_H_
#define DRAVIK_BENCH_LOG_DRAIN_H_

#include <sys/types.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>

class LogDrain {
 public:
  LogDrain() = default;
  ~LogDrain();
  LogDrain(const LogDrain&) = delete;
  LogDrain& operator=(const LogDrain&) = delete;

  // Binds `path` (replacing a stale socket file) and starts the thread.
  // REQUIRES: the caller owns `path` (a private /dev in the sandbox).
  bool start(const char* path, std::string* whyNot);
  void stop();

  // Lines received from `pid` so far.
  long linesFrom(pid_t pid) const;
  // The last line received from `pid`, as sent ("<PRI>date ident: text").
  std::string lastLineFrom(pid_t pid) const;

 private:
  void run();

  int fd_ = -1;
  int stopFd_ = -1;
  std::thread thread_;
  mutable std::mutex mutex_;
  std::map<pid_t, long> counts_;
  std::map<pid_t, std::string> last_;
};

#endif  // DRAVIK_BENCH_LOG_DRAIN_H_
