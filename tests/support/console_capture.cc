#include "tests/support/console_capture.h"

#include <iostream>
#include <regex>

ConsoleCapture::ConsoleCapture()
    : savedOut_(std::cout.rdbuf(out_.rdbuf())), savedErr_(std::cerr.rdbuf(err_.rdbuf())) {}

ConsoleCapture::~ConsoleCapture() {
  std::cout.rdbuf(savedOut_);
  std::cerr.rdbuf(savedErr_);
}

std::string ConsoleCapture::takeOut() {
  std::string text = out_.str();
  out_.str("");
  return text;
}

std::string ConsoleCapture::takeErr() {
  std::string text = err_.str();
  err_.str("");
  return text;
}

void ConsoleCapture::clear() {
  out_.str("");
  err_.str("");
}

std::string maskLogTime(const std::string& text) {
  static const std::regex prefix(R"(^\d{4}-\d\d-\d\d_\d\d:\d\d:\d\d)");
  std::string result;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    end = end == std::string::npos ? text.size() : end + 1;
    std::string line = text.substr(start, end - start);
    std::smatch match;
    if (std::regex_search(line, match, prefix)) {
      result += "<time>" + line.substr(match.length(0));
    } else {
      result += line;
    }
    start = end;
  }
  return result;
}
