// Collects the lines that the code under test sends to syslog.
#ifndef DRAVIK_TESTS_SUPPORT_SYSLOG_CAPTURE_H_
#define DRAVIK_TESTS_SUPPORT_SYSLOG_CAPTURE_H_

#include <mutex>
#include <string>
#include <vector>

#include "tools/peer/syslog_reader.h"  // SyslogLine

// While it lives, systemlog lines come here instead of syslog(); any thread
// may log. One capture at a time; create it before starting the threads that
// log.
class SyslogCapture {
 public:
  SyslogCapture();
  ~SyslogCapture();
  SyslogCapture(const SyslogCapture&) = delete;
  SyslogCapture& operator=(const SyslogCapture&) = delete;

  std::vector<SyslogLine> lines() const;
  // Returns the lines so far and starts afresh.
  std::vector<SyslogLine> take();

 private:
  static void receive(int priority, const std::string& line);

  mutable std::mutex mutex_;
  std::vector<SyslogLine> lines_;
};

#endif  // DRAVIK_TESTS_SUPPORT_SYSLOG_CAPTURE_H_
