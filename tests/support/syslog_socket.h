// A stand-in for the system log daemon: a datagram socket bound at /dev/log
// (or another path) that collects the lines other processes send with
// syslog(). For tests that run a real process in a private /dev (see
// sandbox.h).
#ifndef DRAVIK_TESTS_SUPPORT_SYSLOG_SOCKET_H_
#define DRAVIK_TESTS_SUPPORT_SYSLOG_SOCKET_H_

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/syslog_capture.h"  // SyslogLine

// One datagram as glibc's syslog() formats it:
//   "<PRI>Mmm dd hh:mm:ss IDENT: MESSAGE" (IDENT[PID] with LOG_PID).
struct SyslogRecord {
  pid_t pid = 0;                                   // the sender, from its credentials
  int priority = 0;                                // PRI & 7
  std::string ident;                               // the tag before ": "
  std::string message;                             // everything after ": ", kept as sent (a trailing newline too)
  std::chrono::steady_clock::time_point received;  // when the socket gave it to us
};

// Splits a datagram into its parts. False when it is not in the format above.
bool parseSyslogDatagram(const std::string& datagram, SyslogRecord* record);

// Binds the socket and drains it on a thread of its own for as long as it
// lives: a sender's syslog() blocks while the socket's queue is full, so the
// queue is emptied continuously.
class SyslogSocket {
 public:
  SyslogSocket() = default;
  ~SyslogSocket();
  SyslogSocket(const SyslogSocket&) = delete;
  SyslogSocket& operator=(const SyslogSocket&) = delete;

  // Replaces whatever is at `path` by the socket and starts draining. False
  // with a reason on failure.
  bool open(const std::string& path, std::string* whyNot);
  // Stops draining, closes the socket and removes its file.
  void close();

  // The lines that process `pid` has sent so far, as (priority, message).
  std::vector<SyslogLine> lines(pid_t pid) const;
  std::vector<SyslogRecord> records() const;
  // Forgets everything received so far.
  void clear();
  // Returns once every datagram queued on the socket before the call has
  // been collected (a marker sent now comes back through the queue).
  bool flush(std::chrono::milliseconds timeout);

  // Waits until the lines of `pid` satisfy `done`; true if they did before
  // `timeout` passed.
  bool waitFor(pid_t pid, const std::function<bool(const std::vector<SyslogLine>&)>& done,
               std::chrono::milliseconds timeout) const;

 private:
  void drain();

  int fd_ = -1;
  int stopRead_ = -1;
  int stopWrite_ = -1;
  std::string path_;
  std::thread thread_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<SyslogRecord> records_;
  int markers_ = 0;
};

#endif  // DRAVIK_TESTS_SUPPORT_SYSLOG_SOCKET_H_
