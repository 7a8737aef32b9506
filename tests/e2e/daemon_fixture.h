// The real dravik in the sandbox that the test binary entered at start
// (fresh /tmp, /etc/sysconfig and /dev), its syslog lines taken from a
// SyslogReader at /dev/log, and the test on the far ends of its pipes.
// Every test starts from an empty store and no pipes; no daemon outlives
// its test.
#ifndef DRAVIK_TESTS_E2E_DAEMON_FIXTURE_H_
#define DRAVIK_TESTS_E2E_DAEMON_FIXTURE_H_

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "harness/child_process.h"
#include "harness/syslog_reader.h"
#include "peer/pipe_peer.h"
#include "store/service_paths.h"
#include "tests/support/capture.h"
#include "tests/support/pipes.h"

// Only a guard against a hung test; no test relies on it.
constexpr std::chrono::milliseconds kGuard{10000};

// Set up by the test binary's main() before it enters the sandbox.
int dravikBinary();
// The environment that runs the daemon a thousand times faster (libfaketime),
// or empty with the reason why it cannot.
std::vector<std::string> acceleratedClock(std::string* whyNot);

class DaemonFixture : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Starts dravik with `args` (a new one after each stop) and waits until it
  // holds its mailbox open: `mailbox`, the pipe that the path leads to.
  void start(const std::vector<std::string>& args, const ChildOptions& options = {},
             const std::string& mailbox = kCommandFifoPath);
  // Opens the notification pipe and the mailbox like the camera's peers,
  // and waits until the dispatcher runs.
  void connect();
  // Becomes the daemon's writer only; the notification pipe is left to the
  // test (held full, or planted with something that is not a pipe).
  void openMailbox();
  // The daemon's syslog lines so far.
  std::vector<SyslogLine> log() const { return syslog_.lines(daemon_->pid()); }
  // Waits until the daemon has logged `line` `count` times.
  bool waitForLine(const SyslogLine& line, std::size_t count = 1) const;
  // Sends `bytes`, then a fence (a request no test sends itself); returns
  // the frames and the lines that came before the fence's answer.
  struct Reply {
    std::vector<std::string> frames;
    std::vector<SyslogLine> lines;
  };
  Reply exchange(const std::string& bytes);
  // The next frame from the notification pipe, whatever its length (empty
  // when none came).
  std::string nextFrame();
  // Sends `signal` (to the thread `tid` alone, if given) and returns the
  // exit status ("exited with status 1").
  std::string stop(int signal, pid_t tid = 0);
  // The dispatcher thread's id: the daemon's one thread besides the main.
  pid_t dispatcherTid() const;

  std::unique_ptr<ChildProcess> daemon_ = std::make_unique<ChildProcess>();
  SyslogReader syslog_;
  peer::MailboxWriter mailbox_;
  Fd comm_;
  std::string commBytes_;
};

#endif  // DRAVIK_TESTS_E2E_DAEMON_FIXTURE_H_
