#include "tools/dravikctl/tap.h"

#include <poll.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "procfs/procfs.h"
#include "tools/dravikctl/proc_scan.h"

namespace dravikctl {
namespace {

using catalogue::Flow;

constexpr double kStopWait = 2;  // seconds a thread may take to stop for attach or detach

// System calls after which a descriptor number may name another file.
bool changesDescriptors(uint64_t call) {
  switch (call) {
    case SYS_close:
    case SYS_openat:
    case SYS_dup:
    case SYS_dup3:
    case SYS_fcntl:
    case SYS_socket:
    case SYS_socketpair:
    case SYS_pipe2:
    case SYS_accept4:
    case SYS_eventfd2:
    case SYS_signalfd4:
    case SYS_inotify_init1:
    case SYS_epoll_create1:
    case SYS_timerfd_create:
    case SYS_memfd_create:
#ifdef SYS_open
    case SYS_open:
#endif
#ifdef SYS_dup2
    case SYS_dup2:
#endif
#ifdef SYS_fcntl64
    case SYS_fcntl64:
#endif
#ifdef SYS_pipe
    case SYS_pipe:
#endif
#ifdef SYS_accept
    case SYS_accept:
#endif
#ifdef SYS_close_range
    case SYS_close_range:
#endif
#ifdef SYS_pidfd_open
    case SYS_pidfd_open:
#endif
      return true;
    default:
      return false;
  }
}

bool sendsDatagram(uint64_t call) {
#ifdef SYS_send
  if (call == SYS_send) return true;
#endif
  return call == SYS_sendto;
}

std::string copyFrom(pid_t tid, uint64_t address, std::size_t count) {
  std::string bytes(count, '\0');
  struct iovec local = {&bytes[0], count};
  struct iovec remote = {reinterpret_cast<void*>(static_cast<uintptr_t>(address)), count};
  ssize_t n = count == 0 ? 0 : process_vm_readv(tid, &local, 1, &remote, 1, 0);
  bytes.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
  return bytes;
}

struct timespec now() {
  struct timespec t;
  clock_gettime(CLOCK_REALTIME, &t);
  return t;
}

bool isStopSignal(int signal) { return signal == SIGSTOP || signal == SIGTSTP || signal == SIGTTIN || signal == SIGTTOU; }

}  // namespace

void blockChildSignals() {
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  pthread_sigmask(SIG_BLOCK, &child, nullptr);
}

Tap::Tap(std::string mailbox, std::string notifications)
    : mailbox_(std::move(mailbox)), notifications_(std::move(notifications)) {}

Tap::~Tap() { detach(); }

std::vector<pid_t> Tap::threads() const {
  std::vector<pid_t> tids;
  for (const auto& t : threads_) tids.push_back(t.first);
  return tids;
}

bool Tap::attach(pid_t pid, std::string* whyNot) {
  detach();
  pid_ = pid;
  blockChildSignals();
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  childSignals_ = signalfd(-1, &child, SFD_NONBLOCK | SFD_CLOEXEC);
  if (childSignals_ < 0) {
    *whyNot = std::string("signalfd: ") + std::strerror(errno);
    return false;
  }
  // Threads started while the list is read are seized on the next pass;
  // those started by a seized thread are seized by the kernel.
  for (bool grew = true; grew;) {
    grew = false;
    for (pid_t tid : procfs::threadsOf(pid)) {
      if (threads_.count(tid) != 0) continue;
      if (ptrace(PTRACE_SEIZE, tid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE) != 0) {
        if (errno == ESRCH && !threads_.empty()) continue;  // ended meanwhile
        *whyNot = whyNotTraced(pid, errno);
        detach();
        return false;
      }
      threads_[tid];
      ptrace(PTRACE_INTERRUPT, tid, nullptr, nullptr);
      grew = true;
    }
  }
  if (threads_.empty()) {
    *whyNot = "no process " + std::to_string(pid);
    detach();
    return false;
  }
  // Each thread is traced once it has stopped and been resumed.
  peer::Deadline deadline = peer::Deadline::after(kStopWait);
  for (;;) {
    if (!collect(&pending_, whyNot)) {
      if (whyNot->empty()) *whyNot = "dravik (pid " + std::to_string(pid) + ") ended while the tap attached";
      detach();
      return false;
    }
    bool all = true;
    for (const auto& t : threads_) all = all && t.second.traced;
    if (all) return true;
    if (!waitForStops(deadline)) {
      *whyNot = "the threads of dravik (pid " + std::to_string(pid) + ") did not stop for the tap";
      detach();
      return false;
    }
  }
}

bool Tap::waitForStops(const peer::Deadline& deadline) {
  struct pollfd p = {childSignals_, POLLIN, 0};
  int ready;
  while ((ready = poll(&p, 1, deadline.pollTimeout())) < 0 && errno == EINTR) {
  }
  return ready > 0;
}

bool Tap::collect(std::vector<TapEvent>* events, std::string* whyNot) {
  // Drained before the threads are asked: a stop that comes after its
  // thread's turn raises another SIGCHLD, which the next wait sees.
  struct signalfd_siginfo infos[16];
  while (read(childSignals_, infos, sizeof infos) == static_cast<ssize_t>(sizeof infos)) {
  }
  std::vector<pid_t> asked;
  for (std::vector<pid_t> tids = threads(); tids != asked; tids = threads()) {
    // A thread born in this pass may have stopped before its birth was
    // known (its SIGCHLD drained already): it is asked in another pass.
    asked = tids;
    for (pid_t tid : tids) {
      int status = 0;
      pid_t got = waitpid(tid, &status, WNOHANG | __WALL);
      if (got < 0 && errno == ECHILD) threads_.erase(tid);
      if (got > 0 && !handle(tid, status, events, whyNot)) return false;
    }
  }
  return !threads_.empty();
}

bool Tap::handle(pid_t tid, int status, std::vector<TapEvent>* events, std::string* whyNot) {
  if (WIFEXITED(status) || WIFSIGNALED(status)) {
    threads_.erase(tid);
    return true;
  }
  if (!WIFSTOPPED(status)) return true;
  Thread& thread = threads_[tid];
  int signal = WSTOPSIG(status);
  int event = status >> 16;
  int inject = 0;
  if (signal == (SIGTRAP | 0x80)) {
    handleSyscall(tid, thread, events);
  } else if (event == PTRACE_EVENT_CLONE) {
    unsigned long child = 0;
    if (ptrace(PTRACE_GETEVENTMSG, tid, nullptr, &child) == 0) threads_[static_cast<pid_t>(child)];
  } else if (event == PTRACE_EVENT_STOP) {
    // A seized thread reports a group stop with the stopping signal, its
    // other event stops (PTRACE_INTERRUPT, a new thread) with SIGTRAP.
    if (isStopSignal(signal)) {
      // Someone stopped the daemon: it stays stopped, as job control wants,
      // until SIGCONT.
      ptrace(PTRACE_LISTEN, tid, nullptr, nullptr);
      thread.traced = true;
      return true;
    }
    if (!thread.traced) {
      struct __ptrace_syscall_info probe;
      if (ptrace(PTRACE_GET_SYSCALL_INFO, tid, sizeof probe, &probe) < 0 && errno == EIO) {
        *whyNot = "this kernel cannot report system calls to the tap (PTRACE_GET_SYSCALL_INFO needs Linux 5.3 or later)";
        // Let go at once: detach() only sees threads that stop again.
        ptrace(PTRACE_DETACH, tid, nullptr, nullptr);
        threads_.erase(tid);
        return false;
      }
    }
  } else if (event == 0) {
    inject = signal;  // a signal on its way to the thread: passed on
  }
  if (ptrace(PTRACE_SYSCALL, tid, nullptr, reinterpret_cast<void*>(static_cast<uintptr_t>(inject))) == 0) {
    thread.traced = true;
  }
  return true;
}

void Tap::handleSyscall(pid_t tid, Thread& thread, std::vector<TapEvent>* events) {
  struct __ptrace_syscall_info info;
  if (ptrace(PTRACE_GET_SYSCALL_INFO, tid, sizeof info, &info) <= 0) return;
  if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
    thread.inCall = true;
    thread.call = info.entry.nr;
    std::memcpy(thread.args, info.entry.args, sizeof thread.args);
    if (thread.call == SYS_close) fds_.clear();
    if (thread.call == SYS_read && kindOf(static_cast<int>(thread.args[0])) == Fd::mailbox) {
      TapEvent read;
      read.kind = TapEvent::Kind::mailboxRead;
      read.thread = tid;
      read.seen = now();
      events->push_back(std::move(read));
    }
    return;
  }
  // An exit without its entry is a call that was under way at attach time.
  if (info.op != PTRACE_SYSCALL_INFO_EXIT || !thread.inCall) return;
  thread.inCall = false;
  if (changesDescriptors(thread.call)) fds_.clear();
  if (info.exit.is_error || info.exit.rval < 0) {
    // glibc connects to /dev/log for a line and sends it: a failure of
    // either loses the line (a camera without a syslog daemon).
    bool connects = thread.call == SYS_connect;
    if ((connects || sendsDatagram(thread.call)) && kindOf(static_cast<int>(thread.args[0])) == Fd::logSocket) {
      TapEvent lost;
      lost.kind = TapEvent::Kind::logLost;
      lost.bytes = std::string(connects ? "connect to /dev/log: " : "send to /dev/log: ") +
                   std::strerror(static_cast<int>(-info.exit.rval));
      lost.thread = tid;
      lost.seen = now();
      events->push_back(std::move(lost));
    }
    return;
  }
  std::size_t done = static_cast<std::size_t>(info.exit.rval);
  int fd = static_cast<int>(thread.args[0]);
  if (thread.call == SYS_read && kindOf(fd) == Fd::mailbox) {
    if (done == 0) {
      endOfMailbox(tid, now(), events);
    } else {
      addBytes(Flow::in, copyFrom(tid, thread.args[1], done), tid, now(), events);
    }
  } else if (thread.call == SYS_write && done > 0 && kindOf(fd) == Fd::notifications) {
    addBytes(Flow::out, copyFrom(tid, thread.args[1], done), tid, now(), events);
  } else if (sendsDatagram(thread.call) && done > 0 && kindOf(fd) == Fd::logSocket) {
    TapEvent log;
    log.kind = TapEvent::Kind::log;
    log.bytes = copyFrom(tid, thread.args[1], done);
    log.thread = tid;
    log.seen = now();
    events->push_back(std::move(log));
  }
}

Tap::Fd Tap::kindOf(int fd) {
  auto known = fds_.find(fd);
  if (known != fds_.end()) return known->second;
  std::string target = procfs::descriptorTarget(pid_, fd);
  Fd kind = Fd::other;
  if (target == mailbox_) {
    kind = Fd::mailbox;
  } else if (target == notifications_) {
    kind = Fd::notifications;
  } else if (target.compare(0, 8, "socket:[") == 0 && target.back() == ']' &&
             isUnixSocket(pid_, target.substr(8, target.size() - 9))) {
    // The daemon's only socket is glibc's connection to /dev/log.
    kind = Fd::logSocket;
  }
  fds_[fd] = kind;
  return kind;
}

void Tap::addBytes(Flow direction, const std::string& bytes, pid_t tid, const struct timespec& seen,
                   std::vector<TapEvent>* events) {
  peer::FrameAssembler& frames = direction == Flow::in ? inFrames_ : outFrames_;
  frames.append(bytes.data(), bytes.size());
  TapEvent event;
  event.direction = direction;
  event.thread = tid;
  event.seen = seen;
  while (frames.next(&event.bytes)) events->push_back(event);
}

void Tap::endOfMailbox(pid_t tid, const struct timespec& seen, std::vector<TapEvent>* events) {
  // The writers have gone: the daemon drops what it holds of a frame.
  if (inFrames_.empty()) return;
  TapEvent event;
  event.direction = Flow::in;
  event.bytes = inFrames_.takeRest();
  event.thread = tid;
  event.seen = seen;
  events->push_back(std::move(event));
}

Tap::End Tap::run(const std::vector<int>& stopFds, const peer::Deadline& deadline, const TapSink& sink,
                  std::string* whyNot) {
  whyNot->clear();
  std::vector<struct pollfd> fds;
  fds.push_back({childSignals_, POLLIN, 0});
  for (int fd : stopFds) fds.push_back({fd, POLLIN, 0});
  for (;;) {
    std::vector<TapEvent> events;
    events.swap(pending_);
    bool alive = !threads_.empty() && collect(&events, whyNot);
    for (std::size_t i = 0; i < events.size(); ++i) {
      if (!sink(events[i])) {
        pending_.assign(events.begin() + static_cast<std::ptrdiff_t>(i) + 1, events.end());
        return End::done;
      }
    }
    if (!whyNot->empty()) return End::failed;
    if (!alive) return End::daemonGone;
    int ready = poll(fds.data(), fds.size(), deadline.pollTimeout());
    if (ready < 0 && errno != EINTR) {
      *whyNot = std::string("poll: ") + std::strerror(errno);
      return End::failed;
    }
    if (ready == 0) return End::timeout;
    for (std::size_t i = 1; i < fds.size(); ++i) {
      if (fds[i].revents != 0) return End::woken;
    }
  }
}

void Tap::detach() {
  for (const auto& t : threads_) ptrace(PTRACE_INTERRUPT, t.first, nullptr, nullptr);
  peer::Deadline deadline = peer::Deadline::after(kStopWait);
  while (!threads_.empty()) {
    bool any = false;
    for (pid_t tid : threads()) {
      int status = 0;
      pid_t got = waitpid(tid, &status, WNOHANG | __WALL);
      if (got == 0) continue;
      any = true;
      if (got < 0 || WIFEXITED(status) || WIFSIGNALED(status)) {
        threads_.erase(tid);
        continue;
      }
      int signal = WSTOPSIG(status);
      int event = status >> 16;
      unsigned long child = 0;
      if (event == PTRACE_EVENT_CLONE && ptrace(PTRACE_GETEVENTMSG, tid, nullptr, &child) == 0) {
        threads_[static_cast<pid_t>(child)];  // detached at its first stop
      }
      int inject = (event == 0 && signal != (SIGTRAP | 0x80)) ? signal : 0;
      ptrace(PTRACE_DETACH, tid, nullptr, reinterpret_cast<void*>(static_cast<uintptr_t>(inject)));
      threads_.erase(tid);
    }
    if (!any && !waitForStops(deadline)) break;
    struct signalfd_siginfo info;
    while (read(childSignals_, &info, sizeof info) > 0) {
    }
  }
  threads_.clear();
  fds_.clear();
  pending_.clear();
  inFrames_.takeRest();
  outFrames_.takeRest();
  if (childSignals_ >= 0) close(childSignals_);
  childSignals_ = -1;
}

}  // namespace dravikctl
