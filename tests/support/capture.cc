#include "tests/support/capture.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <iostream>
#include <regex>

#include "messaging/system_log.h"

namespace {
// The sink is a plain function, so it finds the capture through this.
SyslogCapture* active = nullptr;

std::string take(std::ostringstream& stream) {
  std::string text = maskLogTime(stream.str());
  stream.str("");
  return text;
}
}  // namespace

ConsoleCapture::ConsoleCapture()
    : savedOut_(std::cout.rdbuf(out_.rdbuf())), savedErr_(std::cerr.rdbuf(err_.rdbuf())) {}

ConsoleCapture::~ConsoleCapture() {
  std::cout.rdbuf(savedOut_);
  std::cerr.rdbuf(savedErr_);
}

std::string ConsoleCapture::takeOut() { return take(out_); }
std::string ConsoleCapture::takeErr() { return take(err_); }

std::string maskLogTime(const std::string& text) {
  static const std::regex prefix(R"((^|\n)\d{4}-\d\d-\d\d_\d\d:\d\d:\d\d)");
  return std::regex_replace(text, prefix, "$1<time>");
}

SyslogCapture::SyslogCapture() {
  if (active != nullptr) ADD_FAILURE() << "a SyslogCapture is already installed";
  active = this;
  systemlog::redirect(&SyslogCapture::receive);
}

SyslogCapture::~SyslogCapture() {
  systemlog::redirect(nullptr);
  active = nullptr;
}

std::vector<SyslogLine> SyslogCapture::take() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<SyslogLine> taken;
  taken.swap(lines_);
  return taken;
}

void SyslogCapture::receive(int priority, const std::string& line) {
  std::lock_guard<std::mutex> lock(active->mutex_);
  active->lines_.emplace_back(priority, line);
}

SyslogLine info(const std::string& text) { return {LOG_INFO, text}; }
SyslogLine err(const std::string& text) { return {LOG_ERR, text}; }
