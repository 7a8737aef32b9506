#include "service/stop_signals.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "messaging/signal_descriptor.h"
#include "messaging/wake_up.h"

namespace stopsignals {
namespace {

// Made once by install() and never destroyed: a stop that runs during exit
// still finds them.
SignalDescriptor* signals = nullptr;
WakeUp* stopping = nullptr;
WakeUp* parked = nullptr;
Handler handler = nullptr;
pid_t mainThread = 0;
std::atomic<pid_t> owner{0};
// Set before `parked` is triggered: what the main thread did before it
// parked happens before what the dispatcher does after seeing it.
std::atomic<bool> mainParked{false};

pid_t thisThread() { return static_cast<pid_t>(syscall(SYS_gettid)); }

int64_t monotonicMilliseconds() {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

bool stopBegunElsewhere() {
  pid_t current = owner.load();
  return current != 0 && current != thisThread();
}

// On the main thread: a pending signal runs the stop; a stop begun by the
// dispatcher parks this thread.
void takeOnMain() {
  int signal = signals != nullptr ? signals->take() : 0;
  if (signal != 0) handler(signal);
  if (stopBegunElsewhere()) park();
}

}  // namespace

void install(Handler stopHandler) {
  if (signals != nullptr) return;
  handler = stopHandler;
  mainThread = thisThread();
  stopping = new WakeUp;
  parked = new WakeUp;
  signals = new SignalDescriptor({SIGHUP, SIGINT, SIGQUIT, SIGTERM});
}

int descriptor() { return signals != nullptr ? signals->fd() : -1; }

int stoppingDescriptor() { return stopping != nullptr ? stopping->fd() : -1; }

void sleep(unsigned seconds) {
  // poll() rather than sigtimedwait(): the same wait then also serves the
  // tests that run the schedule on accelerated time.
  const int64_t end = monotonicMilliseconds() + static_cast<int64_t>(seconds) * 1000;
  for (;;) {
    takeOnMain();
    int64_t left = end - monotonicMilliseconds();
    if (left <= 0) return;
    const int64_t day = 86400000;
    struct pollfd p[2] = {{descriptor(), POLLIN, 0}, {stoppingDescriptor(), POLLIN, 0}};
    if (poll(p, 2, static_cast<int>(left < day ? left : day)) < 0 && errno != EINTR) return;
  }
}

void check() { takeOnMain(); }

void checkOnDispatcher() {
  if (signals == nullptr) return;
  bool toThread = false;
  int signal = signals->take(&toThread);
  if (signal == 0) return;
  if (!toThread) {
    // The process's signal: the main thread runs a process's stop.
    (void)syscall(SYS_tgkill, getpid(), mainThread, signal);
    return;
  }
  if (claim()) handler(signal);
}

bool claim() {
  pid_t me = thisThread();
  pid_t expected = 0;
  if (owner.compare_exchange_strong(expected, me)) {
    stopping->trigger();
    return true;
  }
  return expected == me;
}

void park() {
  mainParked.store(true, std::memory_order_release);
  parked->trigger();
  for (;;) pause();  // no signal is caught: this never returns
}

void awaitMainParked() {
  if (parked == nullptr || thisThread() == mainThread) return;
  struct pollfd p = {parked->fd(), POLLIN, 0};
  while (poll(&p, 1, 1000) < 0 && errno == EINTR) {
  }
  (void)mainParked.load(std::memory_order_acquire);
}

}  // namespace stopsignals
