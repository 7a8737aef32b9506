// A program under test run as a child process: started from a descriptor of
// its executable (so that it stays reachable when a sandbox covers its
// directory), its standard output and error captured, signalled, and waited
// for with a time limit. A child never outlives its DaemonProcess.
#ifndef DRAVIK_TESTS_SUPPORT_DAEMON_PROCESS_H_
#define DRAVIK_TESTS_SUPPORT_DAEMON_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

class DaemonProcess {
 public:
  DaemonProcess() = default;
  // Kills (SIGKILL) and reaps a child that is still running.
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  // Runs the executable open at `binaryFd` (O_PATH or O_RDONLY; the caller
  // keeps it open) through /proc/self/fd, with argv[0] `name` and then
  // `args`. `environment` holds "NAME=value" entries added to this process's
  // environment (replacing those of the same name). Standard input is
  // /dev/null. False with a reason if the child could not be started.
  bool start(int binaryFd, const std::string& name, const std::vector<std::string>& args,
             const std::vector<std::string>& environment, std::string* whyNot);

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
  // The wait status once reaped.
  std::optional<int> status() const { return status_; }

  // What the child has written so far.
  std::string out() const;
  std::string err() const;
  // Waits until the captured standard output (or error) contains `needle`.
  bool waitForOut(const std::string& needle, std::chrono::milliseconds timeout) const;
  bool waitForErr(const std::string& needle, std::chrono::milliseconds timeout) const;

  // Processor time used by all threads of the running child so far (user and
  // system, from /proc/PID/stat), in seconds; negative if unreadable.
  double cpuSeconds() const;

 private:
  void drain(int outFd, int errFd);
  bool waitForText(const std::string& needle, bool fromErr, std::chrono::milliseconds timeout) const;
  void reap(int status);

  pid_t pid_ = -1;
  int pidFd_ = -1;
  std::optional<int> status_;
  std::thread drainer_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::string out_;
  std::string err_;
};

// "exited with status 1", "killed by signal 9", for messages.
std::string describeWaitStatus(int status);

// True once process `pid` holds `path` open (as seen in /proc/PID/fd),
// false if it has not within `timeout`.
bool waitUntilOpen(pid_t pid, const std::string& path, std::chrono::milliseconds timeout);

#endif  // DRAVIK_TESTS_SUPPORT_DAEMON_PROCESS_H_
