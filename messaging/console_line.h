// One console line of the messaging layers: the time prefix, the text, a
// newline and a flush, written to the stream in one piece. Composing the
// line first keeps it whole on an unbuffered standard error that other
// threads and processes write to as well.
//   ConsoleLine(std::cerr) << " Warn: Message with invalid length received (" << n << " bytes)";
#ifndef DRAVIK_MESSAGING_CONSOLE_LINE_H_
#define DRAVIK_MESSAGING_CONSOLE_LINE_H_

#include <ostream>
#include <sstream>
#include <string>

#include "messaging/timestamp.h"

class ConsoleLine {
 public:
  explicit ConsoleLine(std::ostream& out) : out_(out) { writeLogTime(text_); }
  ~ConsoleLine() {
    text_ << '\n';
    const std::string line = text_.str();
    out_.write(line.data(), static_cast<std::streamsize>(line.size()));
    out_.flush();
  }
  ConsoleLine(const ConsoleLine&) = delete;
  ConsoleLine& operator=(const ConsoleLine&) = delete;

  template <class T>
  ConsoleLine& operator<<(const T& value) {
    text_ << value;
    return *this;
  }
  ConsoleLine& operator<<(std::ios_base& (*manipulator)(std::ios_base&)) {
    text_ << manipulator;
    return *this;
  }
  // The line being composed, for writers that take a stream.
  std::ostream& stream() { return text_; }

 private:
  std::ostream& out_;
  std::ostringstream text_;
};

#endif  // DRAVIK_MESSAGING_CONSOLE_LINE_H_
