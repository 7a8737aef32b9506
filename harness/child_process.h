// A program run as a child process: started from a descriptor of its
// executable (so that it stays reachable when a sandbox covers its
// directory), optionally behind a wrapper such as valgrind or as another
// user, its standard output and error captured, signalled, and waited for
// with a time limit. A child never outlives its ChildProcess, nor the
// process that started it.
#ifndef DRAVIK_HARNESS_CHILD_PROCESS_H_
#define DRAVIK_HARNESS_CHILD_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

// An O_PATH descriptor of the executable at `path`, to be kept open by the
// caller; -1 if it cannot be opened.
int openExecutable(const std::string& path);

struct ChildOptions {
  // "NAME=value" entries added to this process's environment (replacing
  // those of the same name).
  std::vector<std::string> environment;
  // A command that runs the program: its arguments, then the program's path
  // and arguments are appended. Its first element is an executable's path.
  std::vector<std::string> wrapper;
  // Another user and group to run as (needs root); -1: this process's.
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
  // Receives the child's output as it comes, one call per read, on the
  // capturing thread: true for standard error.
  std::function<void(bool fromErr, const std::string& text)> onOutput;
  // Standard output goes to /dev/null instead of being captured: for a
  // child that prints much while it is being timed.
  bool discardOut = false;
};

class ChildProcess {
 public:
  ChildProcess() = default;
  // Kills (SIGKILL) and reaps a child that is still running.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Runs the executable open at `binaryFd` (see openExecutable) with argv[0]
  // `name` and then `args`. Standard input is /dev/null. False with a reason
  // if the child could not be started.
  bool start(int binaryFd, const std::string& name, const std::vector<std::string>& args,
             const ChildOptions& options, std::string* whyNot);

  pid_t pid() const { return pid_; }
  // True from start() until the child has been reaped.
  bool running() const { return pid_ > 0 && !status_; }
  bool signal(int signal) const;

  // Waits until the child ends and returns its wait status. A child still
  // running after `timeout` is killed with SIGKILL and reaped, and the result
  // is empty.
  std::optional<int> wait(std::chrono::milliseconds timeout);
  // Reaps the child if it has ended, without waiting.
  bool poll();
  std::optional<int> status() const { return status_; }

  // What the child has written so far.
  std::string out() const;
  std::string err() const;
  // Waits until the captured standard output (or error) contains `needle`.
  bool waitForOut(const std::string& needle, std::chrono::milliseconds timeout) const;
  bool waitForErr(const std::string& needle, std::chrono::milliseconds timeout) const;

  // Processor time used by all threads of the running child so far, in
  // seconds; negative if unreadable.
  double cpuSeconds() const;

  // The moment the child called execve (the wrapper's, with a wrapper), on
  // the steady clock: for timing a program's start from its very first
  // instruction. Empty until the child has got that far.
  std::optional<std::chrono::steady_clock::time_point> execTime() const;

 private:
  void drain(int outFd, int errFd);
  bool waitForText(const std::string& needle, bool fromErr, std::chrono::milliseconds timeout) const;
  // SIGKILL, and reaps the child.
  void killAndReap();
  void reap(int status);

  pid_t pid_ = -1;
  int pidFd_ = -1;
  // Nanoseconds on CLOCK_MONOTONIC, shared with the child, which writes
  // them just before execve.
  int64_t* execAt_ = nullptr;
  std::optional<int> status_;
  std::thread drainer_;
  std::function<void(bool, const std::string&)> onOutput_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::string out_;
  std::string err_;
};

// "exited with status 1", "killed by signal 9", for messages.
std::string describeWaitStatus(int status);

// True once process `pid` holds `path` open (as seen in /proc/PID/fd; a
// descriptor that only names it, O_PATH, does not count),
// false if it has not within `timeout`.
bool waitUntilOpen(pid_t pid, const std::string& path, std::chrono::milliseconds timeout);

#endif  // DRAVIK_HARNESS_CHILD_PROCESS_H_
