#include "tests/support/syslog_capture.h"

#include <gtest/gtest.h>

#include "messaging/system_log.h"

namespace {

// The sink is a plain function, so it finds the capture through this.
SyslogCapture* active = nullptr;

}  // namespace

SyslogCapture::SyslogCapture() {
  if (active != nullptr) ADD_FAILURE() << "a SyslogCapture is already installed";
  active = this;
  systemlog::redirect(&SyslogCapture::receive);
}

SyslogCapture::~SyslogCapture() {
  systemlog::redirect(nullptr);
  active = nullptr;
}

std::vector<SyslogLine> SyslogCapture::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
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
