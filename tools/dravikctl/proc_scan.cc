#include "tools/dravikctl/proc_scan.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "procfs/procfs.h"
#include "tools/dravikctl/options.h"

namespace dravikctl {
namespace {

constexpr int kCapSysPtrace = 19;

// Whether `pid` has the pipe `pipe` (device and inode) open with read access.
bool readsPipe(pid_t pid, const struct stat& pipe) {
  for (int fd : procfs::descriptorsOf(pid)) {
    struct stat held;
    std::string link = procfs::path(pid, "fd/" + std::to_string(fd));
    if (stat(link.c_str(), &held) != 0 || held.st_dev != pipe.st_dev || held.st_ino != pipe.st_ino) continue;
    std::string flags = procfs::field(procfs::path(pid, "fdinfo/" + std::to_string(fd)), "flags");
    int access = static_cast<int>(std::strtol(flags.c_str(), nullptr, 8)) & O_ACCMODE;
    if (!flags.empty() && (access == O_RDONLY || access == O_RDWR)) return true;
  }
  return false;
}

// A process called dravik: by its command name, or its executable's when
// this user may read it.
bool calledDravik(pid_t pid) {
  std::string exe = procfs::linkTarget(procfs::path(pid, "exe"));
  return procfs::firstLine(procfs::path(pid, "comm")) == "dravik" || exe.substr(exe.rfind('/') + 1) == "dravik";
}

bool isZombie(pid_t pid) { return procfs::field(procfs::path(pid, "status"), "State").rfind("Z", 0) == 0; }

// Whether this user may list the descriptors of `pid`.
bool descriptorsVisible(pid_t pid) { return access(procfs::path(pid, "fd").c_str(), R_OK | X_OK) == 0; }

// Whether `pid` serves another mailbox than the one at `mailbox` here: the
// mailbox's directory is another one in its mount namespace (another
// sandbox's or container's /tmp), or, where its root cannot be seen, it
// holds another pipe at that path.
bool servesOtherMailbox(pid_t pid, const std::string& mailbox) {
  std::string directory = mailbox.substr(0, mailbox.rfind('/') + 1);
  struct stat ours, theirs;
  if (!directory.empty() && stat(directory.c_str(), &ours) == 0 &&
      stat((procfs::path(pid, "root") + directory).c_str(), &theirs) == 0) {
    return ours.st_dev != theirs.st_dev || ours.st_ino != theirs.st_ino;
  }
  bool haveOurs = stat(mailbox.c_str(), &ours) == 0;
  for (int fd : procfs::descriptorsOf(pid)) {
    if (procfs::descriptorTarget(pid, fd) != mailbox) continue;
    struct stat held;
    if (stat(procfs::path(pid, "fd/" + std::to_string(fd)).c_str(), &held) != 0) continue;
    if (!haveOurs || held.st_dev != ours.st_dev || held.st_ino != ours.st_ino) return true;
  }
  return false;
}

std::string pidList(const std::vector<pid_t>& pids) {
  std::string text;
  for (pid_t pid : pids) text += " " + std::to_string(pid);
  return text;
}

bool haveCapSysPtrace() {
  unsigned long long capabilities =
      std::strtoull(procfs::field(procfs::path(getpid(), "status"), "CapEff").c_str(), nullptr, 16);
  return (capabilities >> kCapSysPtrace) & 1;
}

int yamaScope() {
  std::ifstream file("/proc/sys/kernel/yama/ptrace_scope");
  int scope = -1;
  file >> scope;
  return file ? scope : -1;
}

// Why a process that ptrace may not touch is out of reach (EPERM).
std::string whyNotPermitted(pid_t pid, const std::string& who) {
  pid_t tracer = static_cast<pid_t>(std::atoi(procfs::field(procfs::path(pid, "status"), "TracerPid").c_str()));
  if (tracer != 0) {
    // ptrace allows one tracer: a second tap must wait for the first.
    std::string by = describeProcess(tracer);
    if (by.find(" (dravikctl)") != std::string::npos) {
      return who + " is tapped already, by dravikctl (pid " + std::to_string(tracer) +
             "): one tap at a time (a process has one tracer)";
    }
    return who + " is already traced by " + by + "; end that tracer first";
  }
  int scope = yamaScope();
  if (scope == 3) return "tracing is disabled on this machine until it restarts (kernel.yama.ptrace_scope=3)";
  if (haveCapSysPtrace()) {
    return "not permitted to trace " + who + " even with CAP_SYS_PTRACE (a security module or a seccomp policy forbids it)";
  }
  if (scope == 2) return "only root or a process with CAP_SYS_PTRACE may trace (kernel.yama.ptrace_scope=2): run dravikctl as root";
  struct stat owner;
  std::string proc = procfs::path(pid, "");
  if (stat(proc.c_str(), &owner) == 0 && owner.st_uid != geteuid()) {
    return who + " runs as uid " + std::to_string(owner.st_uid) + ": run dravikctl as root (or with CAP_SYS_PTRACE)";
  }
  if (scope == 1) {
    return "kernel.yama.ptrace_scope=1 lets a process trace only its own descendants: run dravikctl as root "
           "(or with CAP_SYS_PTRACE), or set kernel.yama.ptrace_scope=0";
  }
  return "not permitted to trace " + who + ": run dravikctl as root (or with CAP_SYS_PTRACE)";
}

}  // namespace

pid_t findDaemon(const std::string& mailbox, std::string* whyNot) {
  std::vector<pid_t> found;
  bool zombie = false;
  for (pid_t pid : procfs::otherProcesses()) {
    if (!calledDravik(pid) || servesOtherMailbox(pid, mailbox)) continue;
    if (isZombie(pid)) {
      zombie = true;
    } else {
      found.push_back(pid);
    }
  }
  if (found.empty()) {
    *whyNot = std::string("no dravik process is running") + (zombie ? " (only one that has ended, a zombie)" : "") +
              " (--pid N names one)";
    return 0;
  }
  if (found.size() == 1) return found[0];
  std::vector<pid_t> readers;
  struct stat mailboxInfo;
  if (stat(mailbox.c_str(), &mailboxInfo) == 0) {
    for (pid_t pid : found) {
      if (readsPipe(pid, mailboxInfo)) readers.push_back(pid);
    }
  }
  if (readers.size() == 1) return readers[0];
  bool hidden = false;
  for (pid_t pid : found) hidden = hidden || !descriptorsVisible(pid);
  if (readers.empty() && hidden) {
    *whyNot = "several dravik processes are running (pids" + pidList(found) + "), and this user may not see which "
              "one reads " + mailbox + " (their descriptors): run dravikctl as root, or choose one with --pid";
  } else if (readers.empty()) {
    *whyNot = "several dravik processes are running (pids" + pidList(found) + "), none of them reading " + mailbox +
              ": choose one with --pid";
  } else {
    *whyNot = "several dravik processes read " + mailbox + " (pids" + pidList(readers) + "): choose one with --pid";
  }
  return 0;
}

std::string whyNotDaemon(pid_t pid) {
  std::string comm = procfs::firstLine(procfs::path(pid, "comm"));
  if (comm.empty()) return "no process " + std::to_string(pid);
  if (!calledDravik(pid)) return "process " + describeProcess(pid) + " is not dravik";
  if (isZombie(pid)) return "dravik (pid " + std::to_string(pid) + ") has ended: a zombie that its parent has not collected";
  return "";
}

pid_t daemonPid(const Options& o, std::string* whyNot) {
  if (o.pid == 0) return findDaemon(o.mailbox, whyNot);
  *whyNot = whyNotDaemon(o.pid);
  return whyNot->empty() ? o.pid : 0;
}

// The dravik that holds `o.mailbox` open for reading; 0, with the reason,
// while there is none.
pid_t daemonReading(const Options& o, std::string* whyNot) {
  pid_t pid = daemonPid(o, whyNot);
  if (pid == 0) return 0;
  struct stat mailbox;
  if (stat(o.mailbox.c_str(), &mailbox) != 0) {
    *whyNot = "no pipe at " + o.mailbox;
    return 0;
  }
  if (descriptorsVisible(pid)) {
    if (readsPipe(pid, mailbox)) return pid;
  } else {
    // Its descriptors are hidden from this user: a writer's open without
    // waiting tells whether the pipe has a reader.
    int fd = open(o.mailbox.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0) {
      close(fd);
      return pid;
    }
  }
  *whyNot = "dravik (pid " + std::to_string(pid) + ") does not read " + o.mailbox + " yet";
  return 0;
}

pid_t waitForDaemon(const Options& o, const peer::Deadline& deadline, int stopFd, std::string* whyNot) {
  // Every open, creation or move in the mailbox's directory is a moment to
  // look again; so is every second, for what the directory does not show.
  std::string directory = o.mailbox.substr(0, o.mailbox.rfind('/') + 1);
  int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (watch >= 0) inotify_add_watch(watch, directory.empty() ? "." : directory.c_str(), IN_OPEN | IN_CREATE | IN_MOVED_TO);
  pid_t pid = 0;
  for (;;) {
    pid = daemonReading(o, whyNot);
    if (pid != 0 || deadline.passed()) break;
    int timeout = deadline.pollTimeout();
    struct pollfd fds[2] = {{stopFd, POLLIN, 0}, {watch, POLLIN, 0}};
    if (poll(fds, 2, timeout < 0 || timeout > 1000 ? 1000 : timeout) > 0 && fds[0].revents != 0) {
      *whyNot = "interrupted";
      break;
    }
    char events[4096];
    while (watch >= 0 && read(watch, events, sizeof events) > 0) {
    }
  }
  if (watch >= 0) close(watch);
  return pid;
}

std::vector<pid_t> otherReaders(const std::string& pipe, const std::string& mailbox) {
  std::vector<pid_t> readers;
  struct stat pipeInfo, mailboxInfo;
  if (stat(pipe.c_str(), &pipeInfo) != 0) return readers;
  bool haveMailbox = stat(mailbox.c_str(), &mailboxInfo) == 0;
  for (pid_t pid : procfs::otherProcesses()) {
    // The daemon holds both pipes; it may be between two opens of its mailbox.
    if (readsPipe(pid, pipeInfo) && !(haveMailbox && readsPipe(pid, mailboxInfo)) && !calledDravik(pid)) {
      readers.push_back(pid);
    }
  }
  return readers;
}

bool mayReadNotifications(const Options& o, const std::string& what, std::string* whyNot) {
  if (o.force) return true;
  std::vector<pid_t> readers = otherReaders(o.notifications, o.mailbox);
  if (readers.empty()) return true;
  std::string who;
  for (pid_t pid : readers) who += (who.empty() ? "" : ", ") + describeProcess(pid);
  *whyNot = "process " + who + " reads " + o.notifications + ", and " + what +
            " would take frames from it (each frame reaches one reader); watch through the tap instead "
            "(root or CAP_SYS_PTRACE), or --force";
  return false;
}

std::string programName(pid_t pid) {
  // The executable's name where this user may read it: a command name is
  // cut at 15 characters, and is a number for a program run by descriptor.
  std::string exe = procfs::linkTarget(procfs::path(pid, "exe"));
  return exe.empty() ? procfs::firstLine(procfs::path(pid, "comm")) : exe.substr(exe.rfind('/') + 1);
}

std::string describeProcess(pid_t pid) { return std::to_string(pid) + " (" + programName(pid) + ")"; }

bool isUnixSocket(pid_t pid, const std::string& inode) {
  std::ifstream table(procfs::path(pid, "net/unix"));
  std::string line;
  std::getline(table, line);  // the heading
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string field;
    for (int i = 0; i < 7 && fields >> field; ++i) {
    }
    if (field == inode) return true;
  }
  return false;
}

std::string whyNotTraced(pid_t pid, int errorNumber) {
  std::string who = "dravik (pid " + std::to_string(pid) + ")";
  if (errorNumber == ESRCH) return "no process " + std::to_string(pid);
  if (errorNumber == ENOSYS || errorNumber == EIO) {
    return std::string("this system lets no program trace another (ptrace: ") + std::strerror(errorNumber) +
           "; under qemu-user no tracer can work)";
  }
  if (errorNumber != EPERM) return "cannot trace " + who + ": " + std::strerror(errorNumber);
  return whyNotPermitted(pid, who);
}

}  // namespace dravikctl
