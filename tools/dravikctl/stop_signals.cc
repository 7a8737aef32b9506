#include "tools/dravikctl/stop_signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

namespace dravikctl {

StopSignals::StopSignals() {
  sigset_t stops;
  sigemptyset(&stops);
  sigaddset(&stops, SIGINT);
  sigaddset(&stops, SIGTERM);
  sigaddset(&stops, SIGHUP);
  sigset_t previous;
  sigprocmask(SIG_BLOCK, &stops, &previous);
  fd_ = signalfd(-1, &stops, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd_ < 0) sigprocmask(SIG_SETMASK, &previous, nullptr);
}

StopSignals::~StopSignals() {
  if (fd_ >= 0) ::close(fd_);
}

int StopSignals::take() {
  struct signalfd_siginfo info;
  if (fd_ < 0 || ::read(fd_, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) return 0;
  return static_cast<int>(info.ssi_signo);
}

}  // namespace dravikctl
