#include "harness/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <grp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "procfs/procfs.h"

extern char** environ;

namespace {

int openPidFd(pid_t pid) {
#ifdef SYS_pidfd_open
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
  (void)pid;
  return -1;
#endif
}

std::string nameOf(const std::string& entry) { return entry.substr(0, entry.find('=')); }

// What execve gets, all built before fork(): between fork() and exec() the
// child may only make async-signal-safe calls. The program is the
// executable open at the descriptor, or the wrapper that runs it.
class ExecArguments {
 public:
  ExecArguments(int binaryFd, const std::string& name, const std::vector<std::string>& args,
                const ChildOptions& options) {
    std::string path = "/proc/self/fd/" + std::to_string(binaryFd);
    program_ = options.wrapper.empty() ? path : options.wrapper.front();
    argStrings_ = options.wrapper;
    argStrings_.push_back(options.wrapper.empty() ? name : path);
    argStrings_.insert(argStrings_.end(), args.begin(), args.end());
    // This process's environment, less what the options replace, then theirs.
    for (char** e = environ; *e != nullptr; ++e) {
      std::string entry = *e;
      bool replaced = false;
      for (const std::string& extra : options.environment) replaced = replaced || nameOf(extra) == nameOf(entry);
      if (!replaced) envStrings_.push_back(entry);
    }
    envStrings_.insert(envStrings_.end(), options.environment.begin(), options.environment.end());
    for (std::string& a : argStrings_) argv_.push_back(a.data());
    argv_.push_back(nullptr);
    for (std::string& e : envStrings_) envp_.push_back(e.data());
    envp_.push_back(nullptr);
  }
  ExecArguments(const ExecArguments&) = delete;
  ExecArguments& operator=(const ExecArguments&) = delete;

  // Returns only when execve fails.
  void exec() const { execve(program_.c_str(), argv_.data(), envp_.data()); }

 private:
  std::string program_;
  std::vector<std::string> argStrings_;
  std::vector<std::string> envStrings_;
  std::vector<char*> argv_;
  std::vector<char*> envp_;
};

// The child's standard streams: input from /dev/null, output and error into
// pipes that the parent drains (output to /dev/null when discarded). Closes
// what the parent does not keep.
class ChildStreams {
 public:
  ~ChildStreams() {
    for (int fd : {outRead_, outWrite_, errRead_, errWrite_, in_, discardedOut_}) {
      if (fd >= 0) close(fd);
    }
  }

  bool open(bool discardOut) {
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0) return false;
    outRead_ = out[0];
    outWrite_ = out[1];
    if (pipe2(err, O_CLOEXEC) != 0) return false;
    errRead_ = err[0];
    errWrite_ = err[1];
    in_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (discardOut) discardedOut_ = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    return true;
  }

  // In the child: descriptors 0, 1 and 2.
  void install() const {
    if (in_ >= 0) dup2(in_, 0);
    dup2(discardedOut_ >= 0 ? discardedOut_ : outWrite_, 1);
    dup2(errWrite_, 2);
  }

  // In the parent: the read ends, which the drain thread closes.
  int takeOutRead() { return take(&outRead_); }
  int takeErrRead() { return take(&errRead_); }

 private:
  static int take(int* fd) {
    int taken = *fd;
    *fd = -1;
    return taken;
  }

  int outRead_ = -1, outWrite_ = -1;
  int errRead_ = -1, errWrite_ = -1;
  int in_ = -1;
  int discardedOut_ = -1;
};

// The child's side of start(), from fork() to execve(): async-signal-safe
// calls only. Never returns.
[[noreturn]] void execChild(const ExecArguments& exec, const ChildStreams& streams, pid_t parent, int binaryFd,
                            const ChildOptions& options, int64_t* execAt) {
  // The child dies with the test process, so that no daemon survives a
  // crashed test.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(126);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  ::signal(SIGPIPE, SIG_DFL);
  streams.install();
  // A wrapper reaches the program through the same descriptor.
  if (!options.wrapper.empty()) fcntl(binaryFd, F_SETFD, 0);
  if (options.gid != static_cast<gid_t>(-1) && (setgroups(0, nullptr) != 0 || setgid(options.gid) != 0)) _exit(126);
  if (options.uid != static_cast<uid_t>(-1) && setuid(options.uid) != 0) _exit(126);
  if (execAt != nullptr) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    __atomic_store_n(execAt, static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec, __ATOMIC_RELEASE);
  }
  exec.exec();
  _exit(126);
}

// The processor time fields of /proc/PID/stat (procfs::statFields).
constexpr std::size_t kUtimeField = 13;
constexpr std::size_t kStimeField = 14;

}  // namespace

int openExecutable(const std::string& path) { return open(path.c_str(), O_PATH | O_CLOEXEC); }

std::string describeWaitStatus(int status) {
  std::ostringstream text;
  if (WIFEXITED(status)) {
    text << "exited with status " << WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    text << "killed by signal " << WTERMSIG(status);
  } else {
    text << "wait status " << status;
  }
  return text.str();
}

ChildProcess::~ChildProcess() {
  if (running()) killAndReap();
  if (drainer_.joinable()) drainer_.join();
  if (pidFd_ >= 0) close(pidFd_);
  if (execAt_ != nullptr) munmap(execAt_, sizeof *execAt_);
}

bool ChildProcess::start(int binaryFd, const std::string& name, const std::vector<std::string>& args,
                         const ChildOptions& options, std::string* whyNot) {
  auto fail = [&](const std::string& what) {
    if (whyNot != nullptr) *whyNot = what + ": " + std::strerror(errno);
    return false;
  };
  if (pid_ > 0) {
    errno = EBUSY;
    return fail("already started");
  }
  ExecArguments exec(binaryFd, name, args, options);
  ChildStreams streams;
  if (!streams.open(options.discardOut)) return fail("pipe");
  void* shared = mmap(nullptr, sizeof *execAt_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared != MAP_FAILED) execAt_ = static_cast<int64_t*>(shared);

  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid < 0) return fail("fork");
  if (pid == 0) execChild(exec, streams, parent, binaryFd, options, execAt_);
  pid_ = pid;
  pidFd_ = openPidFd(pid);
  onOutput_ = options.onOutput;
  drainer_ = std::thread(&ChildProcess::drain, this, streams.takeOutRead(), streams.takeErrRead());
  return true;
}

bool ChildProcess::signal(int signal) const { return running() && kill(pid_, signal) == 0; }

void ChildProcess::killAndReap() {
  kill(pid_, SIGKILL);
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  reap(status);
}

void ChildProcess::reap(int status) {
  std::lock_guard<std::mutex> lock(mutex_);
  status_ = status;
  changed_.notify_all();
}

bool ChildProcess::poll() {
  if (!running()) return status_.has_value();
  int status = 0;
  pid_t done = waitpid(pid_, &status, WNOHANG);
  if (done == pid_) {
    reap(status);
    return true;
  }
  return false;
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
  if (pid_ <= 0) return std::nullopt;
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!poll()) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      killAndReap();
      if (drainer_.joinable()) drainer_.join();
      return std::nullopt;
    }
    if (pidFd_ >= 0) {
      struct pollfd p = {pidFd_, POLLIN, 0};
      ::poll(&p, 1, static_cast<int>(left.count()));
    } else {
      usleep(1000);
    }
  }
  // The child's pipes close when it ends; what it wrote last is collected
  // before the status is handed out.
  if (drainer_.joinable()) drainer_.join();
  return status_;
}

void ChildProcess::drain(int outFd, int errFd) {
  struct pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
  int open = 2;
  char buffer[4096];
  while (open > 0) {
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        if (onOutput_) onOutput_(i == 1, std::string(buffer, static_cast<std::size_t>(n)));
        std::lock_guard<std::mutex> lock(mutex_);
        (i == 0 ? out_ : err_).append(buffer, static_cast<std::size_t>(n));
        changed_.notify_all();
      } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  for (auto& p : fds) {
    if (p.fd >= 0) close(p.fd);
  }
}

std::string ChildProcess::out() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return out_;
}

std::string ChildProcess::err() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return err_;
}

bool ChildProcess::waitForText(const std::string& needle, bool fromErr, std::chrono::milliseconds timeout) const {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if ((fromErr ? err_ : out_).find(needle) != std::string::npos) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    changed_.wait_until(lock, deadline);
  }
}

bool ChildProcess::waitForOut(const std::string& needle, std::chrono::milliseconds timeout) const {
  return waitForText(needle, false, timeout);
}

bool ChildProcess::waitForErr(const std::string& needle, std::chrono::milliseconds timeout) const {
  return waitForText(needle, true, timeout);
}

double ChildProcess::cpuSeconds() const {
  if (!running()) return -1;
  std::vector<std::string> fields = procfs::statFields(pid_);
  if (fields.size() <= kStimeField) return -1;
  unsigned long long ticks = std::strtoull(fields[kUtimeField].c_str(), nullptr, 10) +
                             std::strtoull(fields[kStimeField].c_str(), nullptr, 10);
  return static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

std::optional<std::chrono::steady_clock::time_point> ChildProcess::execTime() const {
  if (execAt_ == nullptr) return std::nullopt;
  int64_t at = __atomic_load_n(execAt_, __ATOMIC_ACQUIRE);
  if (at == 0) return std::nullopt;
  return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(at));
}

namespace {

// True for an O_PATH descriptor, which names a file without opening it (a
// program that checks what a path is before it opens it holds one).
bool pathOnly(pid_t pid, int fd) {
  std::string flags = procfs::field(procfs::path(pid, "fdinfo/" + std::to_string(fd)), "flags");
  return !flags.empty() && (std::stoul(flags, nullptr, 8) & O_PATH) != 0;
}

}  // namespace

bool waitUntilOpen(pid_t pid, const std::string& path, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    for (int fd : procfs::descriptorsOf(pid)) {
      if (procfs::descriptorTarget(pid, fd) == path && !pathOnly(pid, fd)) return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}
