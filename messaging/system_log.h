// The one way the service writes to syslog: one call per line, priority
// LOG_INFO for progress and LOG_ERR for errors. The log is never opened, so
// the identity is the process name and the facility the system default.
// Tests redirect the lines to a sink of their own.
#ifndef DRAVIK_MESSAGING_SYSTEM_LOG_H_
#define DRAVIK_MESSAGING_SYSTEM_LOG_H_

#include <syslog.h>

#include <charconv>
#include <sstream>
#include <string>
#include <type_traits>

namespace systemlog {

// Logs `line` as it is, through the format "%s".
void write(int priority, const std::string& line);

// Logs a line composed by a syslog format (for the few lines whose format is
// fixed, such as one ending in "%m"), expanded exactly as syslog would.
void format(int priority, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// Receives every line instead of syslog while installed: priority and text.
using Sink = void (*)(int priority, const std::string& line);
// Installs `sink` (null restores syslog) and returns the previous one.
// Install before other threads run.
Sink redirect(Sink sink);

}  // namespace systemlog

// Composes one log line and writes it when it goes out of scope:
//   LogLine(LOG_INFO) << "API: starting dispatcher with sleep=" << delay;
// Text and integers are appended as a default std::ostream writes them
// (integers in decimal); other types go through a string stream.
class LogLine {
 public:
  explicit LogLine(int priority) : priority_(priority) { text_.reserve(120); }
  ~LogLine() { systemlog::write(priority_, text_); }
  LogLine(const LogLine&) = delete;
  LogLine& operator=(const LogLine&) = delete;

  LogLine& operator<<(const char* text) {
    text_ += text;
    return *this;
  }
  LogLine& operator<<(const std::string& text) {
    text_ += text;
    return *this;
  }
  LogLine& operator<<(char c) {
    text_ += c;
    return *this;
  }
  template <class T>
  LogLine& operator<<(const T& value) {
    if constexpr (std::is_integral_v<T> && !std::is_same_v<T, bool> && !std::is_same_v<T, char> &&
                  !std::is_same_v<T, signed char> && !std::is_same_v<T, unsigned char>) {
      char digits[24];
      std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, value);
      text_.append(digits, end.ptr);
    } else {
      std::ostringstream text;
      text << value;
      text_ += text.str();
    }
    return *this;
  }

 private:
  int priority_;
  std::string text_;
};

#endif  // DRAVIK_MESSAGING_SYSTEM_LOG_H_
