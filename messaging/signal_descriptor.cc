#include "messaging/signal_descriptor.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>

SignalDescriptor::SignalDescriptor(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (int signal : signals) sigaddset(&set, signal);
  // Blocked before the descriptor exists: a signal that came in between
  // would otherwise end the process by its default action.
  sigset_t previous;
  pthread_sigmask(SIG_BLOCK, &set, &previous);
  fd_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd_ < 0) pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

SignalDescriptor::~SignalDescriptor() {
  if (fd_ >= 0) ::close(fd_);
}

int SignalDescriptor::take(bool* toThread) {
  struct signalfd_siginfo info;
  ssize_t n;
  do {
    n = fd_ >= 0 ? ::read(fd_, &info, sizeof info) : -1;
  } while (n < 0 && errno == EINTR);
  if (n != static_cast<ssize_t>(sizeof info)) return 0;
  if (toThread != nullptr) *toThread = info.ssi_code == SI_TKILL;
  return static_cast<int>(info.ssi_signo);
}
