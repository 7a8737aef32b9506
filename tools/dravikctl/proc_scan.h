// What /proc tells about the processes around the service: which one is
// the daemon, and who else reads its notification pipe.
#ifndef DRAVIK_TOOLS_DRAVIKCTL_PROC_SCAN_H_
#define DRAVIK_TOOLS_DRAVIKCTL_PROC_SCAN_H_

#include <sys/types.h>

#include <string>
#include <vector>

namespace dravikctl {

// The one process called dravik (by its command name or its executable's);
// of several, the one that reads `mailbox` (others may serve other mount
// namespaces). 0, with the reason in `whyNot`, when there is none or no one.
pid_t findDaemon(const std::string& mailbox, std::string* whyNot);

// The target of /proc/PID/fd/FD (" (deleted)" removed); empty if unreadable.
std::string descriptorTarget(pid_t pid, int fd);

// Processes other than this one that hold the pipe at `pipe` open for
// reading, leaving out the daemon: a process that also reads `mailbox`.
// Processes whose descriptors this user may not see are not counted.
std::vector<pid_t> otherReaders(const std::string& pipe, const std::string& mailbox);

// The thread ids of process `pid` (/proc/PID/task); empty if it has gone.
std::vector<pid_t> threadsOf(pid_t pid);

// "1234 (simulate)" for messages.
std::string describeProcess(pid_t pid);

}  // namespace dravikctl

#endif  // DRAVIK_TOOLS_DRAVIKCTL_PROC_SCAN_H_
