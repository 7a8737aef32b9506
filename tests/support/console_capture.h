// Captures what the code under test writes to std::cout and std::cerr.
#ifndef DRAVIK_TESTS_SUPPORT_CONSOLE_CAPTURE_H_
#define DRAVIK_TESTS_SUPPORT_CONSOLE_CAPTURE_H_

#include <sstream>
#include <string>

// While it lives, std::cout and std::cerr write into strings of its own; the
// previous buffers come back when it is destroyed. Not for use while another
// thread writes to the console: read it after such threads have ended.
class ConsoleCapture {
 public:
  ConsoleCapture();
  ~ConsoleCapture();
  ConsoleCapture(const ConsoleCapture&) = delete;
  ConsoleCapture& operator=(const ConsoleCapture&) = delete;

  std::string out() const { return out_.str(); }
  std::string err() const { return err_.str(); }
  // Return what was captured so far and start afresh.
  std::string takeOut();
  std::string takeErr();
  void clear();

 private:
  std::ostringstream out_;
  std::ostringstream err_;
  std::streambuf* savedOut_;
  std::streambuf* savedErr_;
};

// The console time prefix ("2026-11-16_14:05:49") at the start of any line of
// `text` replaced by "<time>", so that whole lines can be compared exactly:
//   EXPECT_EQ(maskLogTime(console.err()), "<time> Error: ...\n");
std::string maskLogTime(const std::string& text);

#endif  // DRAVIK_TESTS_SUPPORT_CONSOLE_CAPTURE_H_
