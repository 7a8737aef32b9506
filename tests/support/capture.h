// What code under test writes to the console and to syslog, captured in
// this process.
#ifndef DRAVIK_TESTS_SUPPORT_CAPTURE_H_
#define DRAVIK_TESTS_SUPPORT_CAPTURE_H_

#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "peer/syslog_record.h"  // SyslogLine

// While it lives, std::cout and std::cerr write into strings of its own.
// Read it after any other thread that writes to the console has ended.
class ConsoleCapture {
 public:
  ConsoleCapture();
  ~ConsoleCapture();
  ConsoleCapture(const ConsoleCapture&) = delete;
  ConsoleCapture& operator=(const ConsoleCapture&) = delete;

  // What was written so far, with each line's time prefix replaced by
  // "<time>"; the capture starts afresh.
  std::string takeOut();
  std::string takeErr();

 private:
  std::ostringstream out_;
  std::ostringstream err_;
  std::streambuf* savedOut_;
  std::streambuf* savedErr_;
};

// The console time prefix ("2026-11-16_14:05:49") at the start of any line
// replaced by "<time>".
std::string maskLogTime(const std::string& text);

// While it lives, the service's syslog lines come here instead; any thread
// may log. One at a time.
class SyslogCapture {
 public:
  SyslogCapture();
  ~SyslogCapture();
  SyslogCapture(const SyslogCapture&) = delete;
  SyslogCapture& operator=(const SyslogCapture&) = delete;

  // The lines so far; the capture starts afresh.
  std::vector<SyslogLine> take();

 private:
  static void receive(int priority, const std::string& line);
  std::mutex mutex_;
  std::vector<SyslogLine> lines_;
};

SyslogLine info(const std::string& text);
SyslogLine err(const std::string& text);

#endif  // DRAVIK_TESTS_SUPPORT_CAPTURE_H_
