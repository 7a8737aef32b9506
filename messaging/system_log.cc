#include "messaging/system_log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace systemlog {
namespace {
Sink currentSink = nullptr;
}  // namespace

void write(int priority, const std::string& line) {
  if (currentSink != nullptr) {
    currentSink(priority, line);
    return;
  }
  syslog(priority, "%s", line.c_str());
}

void format(int priority, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  if (currentSink == nullptr) {
    vsyslog(priority, fmt, args);
    va_end(args);
    return;
  }
  // glibc's printf family expands "%m" like syslog does.
  int savedErrno = errno;
  va_list copy;
  va_copy(copy, args);
  int size = vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  std::vector<char> text(size > 0 ? static_cast<std::size_t>(size) + 1 : 1, '\0');
  errno = savedErrno;
  if (size > 0) vsnprintf(text.data(), text.size(), fmt, args);
  va_end(args);
  currentSink(priority, std::string(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0));
}

Sink redirect(Sink sink) {
  Sink previous = currentSink;
  currentSink = sink;
  return previous;
}

}  // namespace systemlog
