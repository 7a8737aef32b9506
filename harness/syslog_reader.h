// A stand-in for the system log daemon: a datagram socket bound at /dev/log
// (or another path) that collects the lines processes send with syslog(),
// with each sender's pid. It is drained on a thread of its own, up to 64
// datagrams per call: glibc's syslog() blocks once the socket's queue is
// full, so a slow reader would throttle the process it watches.
#ifndef DRAVIK_HARNESS_SYSLOG_READER_H_
#define DRAVIK_HARNESS_SYSLOG_READER_H_

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "messaging/wake_up.h"
#include "peer/syslog_record.h"

class SyslogReader {
 public:
  SyslogReader() = default;
  ~SyslogReader();
  SyslogReader(const SyslogReader&) = delete;
  SyslogReader& operator=(const SyslogReader&) = delete;

  // Called on the drain thread for each record as it arrives. Set before open().
  void onRecord(std::function<void(const SyslogRecord&)> callback) { callback_ = std::move(callback); }

  // Binds the socket at `path`, replacing a socket file left there, and
  // starts draining. REQUIRES: the caller owns `path` (a private /dev).
  bool open(const std::string& path, std::string* whyNot);
  // Takes what is queued, stops draining, closes and removes the socket.
  void close();

  // The lines that `pid` has sent so far.
  std::vector<SyslogLine> lines(pid_t pid) const;
  std::size_t count(pid_t pid) const;
  // Returns once every datagram queued before the call has been collected
  // (a marker sent now comes back through the queue).
  bool flush(std::chrono::milliseconds timeout);
  // Waits until the lines of `pid` satisfy `done`.
  bool waitFor(pid_t pid, const std::function<bool(const std::vector<SyslogLine>&)>& done,
               std::chrono::milliseconds timeout) const;

 private:
  void drain();

  int fd_ = -1;
  // Ends the drain; one per open(), since a wake-up stays triggered.
  std::unique_ptr<WakeUp> stop_;
  std::string path_;
  std::thread thread_;
  std::function<void(const SyslogRecord&)> callback_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  // A deque: growing it never moves what was collected, so a reader that
  // runs for hundreds of thousands of lines does not stall its drain (and
  // with it the senders) to copy them.
  std::deque<SyslogRecord> records_;
  int markers_ = 0;
};

#endif  // DRAVIK_HARNESS_SYSLOG_READER_H_
