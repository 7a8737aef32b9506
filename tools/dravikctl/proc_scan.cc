#include "tools/dravikctl/proc_scan.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "procfs/procfs.h"
#include "tools/dravikctl/options.h"
#include "tools/dravikctl/report.h"

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
    if (by.find(" (dravikctl)") != std::string::npos) return who + " is tapped already, by dravikctl " + by;
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
  for (pid_t pid : procfs::otherProcesses()) {
    std::string exe = procfs::linkTarget(procfs::path(pid, "exe"));
    std::string base = exe.substr(exe.rfind('/') + 1);
    if (procfs::firstLine(procfs::path(pid, "comm")) == "dravik" || base == "dravik") found.push_back(pid);
  }
  if (found.empty()) {
    *whyNot = "no dravik process is running (--pid N names one)";
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
  if (readers.empty()) {
    *whyNot = "several dravik processes are running (pids" + pidList(found) + "), none of them reading " + mailbox +
              ": choose one with --pid";
  } else {
    *whyNot = "several dravik processes read " + mailbox + " (pids" + pidList(readers) + "): choose one with --pid";
  }
  return 0;
}

pid_t daemonPid(const Options& o, std::string* whyNot) { return o.pid != 0 ? o.pid : findDaemon(o.mailbox, whyNot); }

std::vector<pid_t> otherReaders(const std::string& pipe, const std::string& mailbox) {
  std::vector<pid_t> readers;
  struct stat pipeInfo, mailboxInfo;
  if (stat(pipe.c_str(), &pipeInfo) != 0) return readers;
  bool haveMailbox = stat(mailbox.c_str(), &mailboxInfo) == 0;
  for (pid_t pid : procfs::otherProcesses()) {
    if (readsPipe(pid, pipeInfo) && !(haveMailbox && readsPipe(pid, mailboxInfo))) readers.push_back(pid);
  }
  return readers;
}

bool mayReadNotifications(const Options& o, const std::string& what) {
  if (o.force) return true;
  std::vector<pid_t> readers = otherReaders(o.notifications, o.mailbox);
  if (readers.empty()) return true;
  std::string who;
  for (pid_t pid : readers) who += (who.empty() ? "" : ", ") + describeProcess(pid);
  fail("process " + who + " reads " + o.notifications + ", and " + what +
       " would take frames from it (each frame reaches one reader); watch through the tap instead "
       "(root or CAP_SYS_PTRACE), or --force");
  return false;
}

std::string describeProcess(pid_t pid) {
  return std::to_string(pid) + " (" + procfs::firstLine(procfs::path(pid, "comm")) + ")";
}

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
