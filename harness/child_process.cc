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
  if (running()) {
    kill(pid_, SIGKILL);
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    reap(status);
  }
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

  // Everything the child needs is built before fork(): between fork() and
  // exec() it may only make async-signal-safe calls.
  const std::vector<std::string>& environment = options.environment;
  std::string path = "/proc/self/fd/" + std::to_string(binaryFd);
  std::vector<std::string> argStrings = options.wrapper;
  argStrings.push_back(options.wrapper.empty() ? name : path);
  argStrings.insert(argStrings.end(), args.begin(), args.end());
  std::string program = options.wrapper.empty() ? path : options.wrapper.front();
  std::vector<std::string> envStrings;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry = *e;
    bool replaced = false;
    for (const std::string& extra : environment) replaced = replaced || nameOf(extra) == nameOf(entry);
    if (!replaced) envStrings.push_back(entry);
  }
  envStrings.insert(envStrings.end(), environment.begin(), environment.end());
  std::vector<char*> argv;
  for (std::string& a : argStrings) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (std::string& e : envStrings) envp.push_back(e.data());
  envp.push_back(nullptr);

  int outPipe[2], errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0) return fail("pipe");
  if (pipe2(errPipe, O_CLOEXEC) != 0) {
    close(outPipe[0]);
    close(outPipe[1]);
    return fail("pipe");
  }
  int devNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
  int outNull = options.discardOut ? open("/dev/null", O_WRONLY | O_CLOEXEC) : -1;
  pid_t parent = getpid();
  void* shared = mmap(nullptr, sizeof *execAt_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared != MAP_FAILED) execAt_ = static_cast<int64_t*>(shared);

  pid_t pid = fork();
  if (pid < 0) {
    for (int fd : {outPipe[0], outPipe[1], errPipe[0], errPipe[1], devNull, outNull}) {
      if (fd >= 0) close(fd);
    }
    return fail("fork");
  }
  if (pid == 0) {
    // The child dies with the test process, so that no daemon survives a
    // crashed test.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(126);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    ::signal(SIGPIPE, SIG_DFL);
    if (devNull >= 0) dup2(devNull, 0);
    dup2(outNull >= 0 ? outNull : outPipe[1], 1);
    dup2(errPipe[1], 2);
    // A wrapper reaches the program through the same descriptor.
    if (!options.wrapper.empty()) fcntl(binaryFd, F_SETFD, 0);
    if (options.gid != static_cast<gid_t>(-1) && (setgroups(0, nullptr) != 0 || setgid(options.gid) != 0)) _exit(126);
    if (options.uid != static_cast<uid_t>(-1) && setuid(options.uid) != 0) _exit(126);
    if (execAt_ != nullptr) {
      struct timespec now;
      clock_gettime(CLOCK_MONOTONIC, &now);
      __atomic_store_n(execAt_, static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec, __ATOMIC_RELEASE);
    }
    execve(program.c_str(), argv.data(), envp.data());
    _exit(126);
  }
  close(outPipe[1]);
  close(errPipe[1]);
  if (devNull >= 0) close(devNull);
  if (outNull >= 0) close(outNull);
  pid_ = pid;
  pidFd_ = openPidFd(pid);
  onOutput_ = options.onOutput;
  drainer_ = std::thread(&ChildProcess::drain, this, outPipe[0], errPipe[0]);
  return true;
}

bool ChildProcess::signal(int signal) const { return running() && kill(pid_, signal) == 0; }

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
      kill(pid_, SIGKILL);
      int status = 0;
      while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
      }
      reap(status);
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

bool waitUntilOpen(pid_t pid, const std::string& path, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    for (int fd : procfs::descriptorsOf(pid)) {
      if (procfs::descriptorTarget(pid, fd) == path) return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}
