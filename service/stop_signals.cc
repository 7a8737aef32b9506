#include "service/stop_signals.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace stopsignals {
namespace {

int signalFd = -1;

int64_t monotonicMilliseconds() {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

int readSignal() {
  struct signalfd_siginfo info;
  ssize_t n = read(signalFd, &info, sizeof info);
  return n == static_cast<ssize_t>(sizeof info) ? static_cast<int>(info.ssi_signo) : 0;
}

}  // namespace

void block() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGHUP);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGQUIT);
  sigaddset(&set, SIGTERM);
  if (signalFd >= 0) return;
  // Blocked first: a signal that came between the signalfd and the mask
  // would otherwise end the process without a line.
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signalFd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  // Without a signalfd nobody would take them: give them back their default
  // action, which at least ends the process.
  if (signalFd < 0) pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

int descriptor() { return signalFd; }

int wait(unsigned seconds) {
  // poll() rather than sigtimedwait(): the same wait then also serves the
  // tests that run the schedule on accelerated time.
  const int64_t end = monotonicMilliseconds() + static_cast<int64_t>(seconds) * 1000;
  for (;;) {
    int64_t left = end - monotonicMilliseconds();
    if (left <= 0) return take();
    const int64_t day = 86400000;
    struct pollfd p = {signalFd, POLLIN, 0};
    int ready = poll(&p, 1, static_cast<int>(left < day ? left : day));
    if (ready > 0) {
      int signal = readSignal();
      if (signal != 0) return signal;
    } else if (ready < 0 && errno != EINTR) {
      return 0;
    }
  }
}

int take() { return signalFd >= 0 ? readSignal() : 0; }

}  // namespace stopsignals
