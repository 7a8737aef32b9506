// The processes that the benchmark measures, run in the harness sandbox
// (tmpfs /tmp and /etc/sysconfig, a private /dev whose /dev/log a
// SyslogReader drains as a syslog daemon would): the real dravik on its two
// FIFOs, and the two baseline echo servers of raw_echo.h, which are this
// program run with --serve. The benchmark plays every server's peer over
// the same peer-library ends, so that the client costs each the same.
//
// A tool attached to the daemon, the tap of `dravikctl monitor --pid N`
// (its cost is a ping-pong ratio with and without it), is one more
// ChildProcess started here, from an executable opened in open() like the
// daemon's.
#ifndef DRAVIK_BENCH_SERVERS_H_
#define DRAVIK_BENCH_SERVERS_H_

#include <memory>
#include <string>
#include <vector>

#include "harness/child_process.h"
#include "peer/pipe_peer.h"
#include "harness/syslog_reader.h"

struct Options;

struct Server {
  std::string name;
  std::unique_ptr<ChildProcess> process;
  peer::MailboxWriter requests;
  peer::FrameReader answers;

  pid_t pid() const { return process ? process->pid() : -1; }
  // What the process wrote on standard output and error.
  std::string console() const;
};

class Servers {
 public:
  // Opens the executables, enters the sandbox and binds the syslog reader
  // at /dev/log. REQUIRES: no thread has been started yet.
  bool open(const Options& options);

  // Starts a fresh daemon under -s 100000 (its schedule never runs during a
  // measurement), behind `wrapper` if there is one, and waits until it has
  // opened its mailbox: the milliseconds from its exec to that open, or a
  // negative number if it did not get there.
  double startDaemon(Server& daemon, const std::vector<std::string>& wrapper, int timeoutSeconds);
  // Becomes the daemon's writer (it must have opened its mailbox) and waits
  // for its dispatcher to start.
  bool connectDaemon(Server& daemon, int timeoutSeconds);
  // SIGTERM; true for the exit status a stop gives (1).
  bool stopDaemon(Server& daemon);

  // Starts an echo server on FIFOs named after `inPath` and connects to it.
  bool startEcho(Server& echo, const std::string& inPath, bool log, const std::vector<std::string>& wrapper);
  // Closes its input, which ends it.
  bool stopEcho(Server& echo);

  // Attaches `dravikctl monitor --pid N` to the daemon, run as a user runs
  // it with its printout going to /dev/null, and waits for its "tapping"
  // line. Null, with the reason in `whyNot` (the tool's own words when it
  // cannot trace here: no permission, qemu), when it did not attach.
  std::unique_ptr<ChildProcess> startTap(const Server& daemon, std::string* whyNot);
  // Stops the tap with SIGINT. True once it has exited with status 0 and
  // no thread of the daemon is traced any more; false with the reason in `whyNot` otherwise.
  bool stopTap(std::unique_ptr<ChildProcess> tap, const Server& daemon, std::string* whyNot);

  const SyslogReader& log() const { return log_; }
  SyslogReader& log() { return log_; }

 private:
  // Starts the executable open at `exe` and waits until it has opened the
  // FIFO `input` without waiting (inotify's IN_OPEN): the milliseconds from
  // its exec to that open, or a negative number.
  double start(Server& server, int exe, const std::string& name, const std::vector<std::string>& args,
               const std::vector<std::string>& wrapper, const std::string& input, int timeoutSeconds);

  int daemonExe_ = -1;
  int selfExe_ = -1;
  int dravikctlExe_ = -1;
  std::string dravikctlPath_;
  SyslogReader log_;
};

#endif  // DRAVIK_BENCH_SERVERS_H_
