// What /proc tells dravikctl about the processes around the service: which
// one is the daemon, who else reads its notification pipe, and why the
// daemon cannot be traced.
#ifndef DRAVIK_TOOLS_DRAVIKCTL_PROC_SCAN_H_
#define DRAVIK_TOOLS_DRAVIKCTL_PROC_SCAN_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "peer/pipe_peer.h"

namespace dravikctl {

struct Options;

// The one process called dravik (by its command name or its executable's),
// leaving out those that hold another pipe at the path `mailbox` (they
// serve another /tmp); of several, the one that reads `mailbox`. 0, with the reason in `whyNot`, when there is none or no one.
pid_t findDaemon(const std::string& mailbox, std::string* whyNot);
// Why `pid` is no running dravik (no such process, another program, a
// zombie); empty when it is one.
std::string whyNotDaemon(pid_t pid);
// The process to tap: --pid once it is checked, or the one called dravik.
// 0 with the reason.
pid_t daemonPid(const Options& options, std::string* whyNot);

// Waits until a dravik process (--pid, or the one called dravik) holds the
// mailbox open for reading, and returns it; 0, with the last reason, when
// `deadline` passes or `stopFd` turns readable first ("interrupted").
pid_t waitForDaemon(const Options& options, const peer::Deadline& deadline, int stopFd, std::string* whyNot);

// Processes other than this one that hold the pipe at `pipe` open for
// reading, leaving out the daemon: a process called dravik, or one that
// also reads `mailbox`.
// Processes whose descriptors this user may not see are not counted.
std::vector<pid_t> otherReaders(const std::string& pipe, const std::string& mailbox);
// True when this process may read the notification pipe: nobody else reads
// it, or --force. Otherwise false, with who does and that `what` would take
// frames from them in `whyNot`.
bool mayReadNotifications(const Options& options, const std::string& what, std::string* whyNot);

// The name of the program that `pid` runs: its executable's, or its
// command name where this user may not read that.
std::string programName(pid_t pid);
// "1234 (dravikctl)" for messages.
std::string describeProcess(pid_t pid);

// Whether the socket of inode `inode` is an AF_UNIX socket of `pid`'s
// network namespace.
bool isUnixSocket(pid_t pid, const std::string& inode);

// Why PTRACE_SEIZE of dravik at `pid` failed with `errorNumber`, and what to
// do about it: the tracer that holds it already, Yama's ptrace_scope, the
// capability or the user that is missing.
std::string whyNotTraced(pid_t pid, int errorNumber);

}  // namespace dravikctl

#endif  // DRAVIK_TOOLS_DRAVIKCTL_PROC_SCAN_H_
