// A tap on the running service: with ptrace it watches the system calls of
// every thread of the daemon and copies what they read from the mailbox,
// write to the notification pipe and send to the system log, without
// opening either pipe, so that the processes that read and write them get
// every byte as before. Bytes are cut into frames per direction as the
// daemon's reader cuts them.
//
// Each system call of the daemon stops it twice (entry and exit) until the
// tap has looked and let it go on; nothing else ever stops it. The tap is
// not the daemon's killer: without PTRACE_O_EXITKILL, the kernel detaches a
// tap that dies and the daemon runs on.
//
//   Tap tap(kCommandFifoPath, kNotificationFifoPath);
//   if (!tap.attach(pid, &whyNot)) ...
//   tap.run({stop.fd()}, Deadline::never(), [](const TapEvent& e) { ...; return true; }, &whyNot);
//
// All calls must come from the thread that called attach() (ptrace's rule),
// and SIGCHLD must be blocked in every thread of the process (the tap waits
// for the tracees' stops on a signalfd): construct the Tap before starting
// other threads, or block SIGCHLD first. The daemon must not be a child that
// another part of the process waits for while it is tapped.
#ifndef DRAVIK_TOOLS_DRAVIKCTL_TAP_H_
#define DRAVIK_TOOLS_DRAVIKCTL_TAP_H_

#include <sys/types.h>
#include <time.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "store/catalogue.h"
#include "peer/pipe_peer.h"

namespace dravikctl {

struct TapEvent {
  enum class Kind {
    frame,        // a frame in `direction`; one cut short when its writer left
    log,          // one datagram sent to the system log
    mailboxRead,  // `thread` begins to read the mailbox: it has handled all it read before
    logLost,      // a line of `thread` did not reach the system log; `bytes` says why
  };
  Kind kind = Kind::frame;
  catalogue::Flow direction = catalogue::Flow::in;
  std::string bytes;
  pid_t thread = 0;
  struct timespec seen = {0, 0};
};

// Blocks SIGCHLD in the calling thread and the threads it starts from now
// on, as a process that taps must (see above).
void blockChildSignals();

// Returns false to end run().
using TapSink = std::function<bool(const TapEvent&)>;

class Tap {
 public:
  enum class End {
    woken,       // a stop descriptor turned readable
    timeout,     // the deadline passed
    done,        // the sink returned false
    daemonGone,  // every thread of the daemon has ended
    failed,      // the reason is in `whyNot`
  };

  // The paths by which the daemon's descriptors are recognised.
  Tap(std::string mailbox, std::string notifications);
  // Detaches.
  ~Tap();
  Tap(const Tap&) = delete;
  Tap& operator=(const Tap&) = delete;

  // Seizes every thread of `pid` and returns once each of them is traced:
  // whatever the daemon reads, writes or logs from then on is seen. False,
  // with why and what to do in `whyNot`, when it cannot (no permission, no
  // such process, no ptrace here).
  bool attach(pid_t pid, std::string* whyNot);

  // Handles the tracees' stops and hands what they show to `sink`, until a
  // descriptor of `stopFds` is readable, `deadline` passes, the sink
  // returns false or the daemon ends. May be called again afterwards.
  End run(const std::vector<int>& stopFds, const peer::Deadline& deadline, const TapSink& sink, std::string* whyNot);

  // Lets every thread go: interrupts each, and detaches it at its next
  // stop, passing on a signal that it was about to take. Waits at most two
  // seconds; a thread that has not stopped by then is detached by the
  // kernel when this process ends.
  void detach();

  pid_t pid() const { return pid_; }
  std::vector<pid_t> threads() const;

 private:
  enum class Fd { unknown, mailbox, notifications, logSocket, other };
  struct Thread {
    bool traced = false;  // resumed with PTRACE_SYSCALL at least once
    bool inCall = false;
    uint64_t call = 0;
    uint64_t args[6] = {};
  };

  // Handles one wait status of `tid`; appends what it shows to `events`.
  bool handle(pid_t tid, int status, std::vector<TapEvent>* events, std::string* whyNot);
  void handleSyscall(pid_t tid, Thread& thread, std::vector<TapEvent>* events);
  // Collects the stops that are waiting; false when the daemon has gone.
  bool collect(std::vector<TapEvent>* events, std::string* whyNot);
  bool waitForStops(const peer::Deadline& deadline);
  Fd kindOf(int fd);
  void addBytes(catalogue::Flow direction, const std::string& bytes, pid_t tid, const struct timespec& seen,
                std::vector<TapEvent>* events);
  void endOfMailbox(pid_t tid, const struct timespec& seen, std::vector<TapEvent>* events);

  std::string mailbox_;
  std::string notifications_;
  pid_t pid_ = 0;
  int childSignals_ = -1;
  std::map<pid_t, Thread> threads_;
  std::map<int, Fd> fds_;
  peer::FrameAssembler inFrames_;
  peer::FrameAssembler outFrames_;
  std::vector<TapEvent> pending_;  // seen while attaching
};

}  // namespace dravikctl

#endif  // DRAVIK_TOOLS_DRAVIKCTL_TAP_H_
