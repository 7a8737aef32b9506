// SIGINT, SIGTERM and SIGHUP as a descriptor: from the construction of an
// instance on, the three signals are blocked for the rest of the process
// and turn its descriptor readable, so that the long-running commands end
// their waits and stop cleanly instead of dying in the middle of a line.
#ifndef DRAVIK_TOOLS_DRAVIKCTL_STOP_SIGNALS_H_
#define DRAVIK_TOOLS_DRAVIKCTL_STOP_SIGNALS_H_

#include <signal.h>

namespace dravikctl {

class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  // Readable once a stop signal is pending; -1 if no signalfd could be made
  // (the signals then keep their default actions).
  int fd() const { return fd_; }
  // Consumes the pending stop signal and returns its number; 0 if none.
  int take();

 private:
  int fd_ = -1;
};

}  // namespace dravikctl

#endif  // DRAVIK_TOOLS_DRAVIKCTL_STOP_SIGNALS_H_
