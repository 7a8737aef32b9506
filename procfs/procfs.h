// What /proc tells about a process: its threads and descriptors, the
// fields of its stat and status files. A process that has gone, or whose
// files this user may not read, reads as empty lists and strings.
#ifndef DRAVIK_PROCFS_PROCFS_H_
#define DRAVIK_PROCFS_PROCFS_H_

#include <sys/types.h>

#include <string>
#include <vector>

namespace procfs {

// "/proc/PID/REST".
std::string path(pid_t pid, const std::string& rest);

// Every process but this one.
std::vector<pid_t> otherProcesses();

// The thread ids of `pid` (/proc/PID/task).
std::vector<pid_t> threadsOf(pid_t pid);

// The descriptors that `pid` holds open (/proc/PID/fd).
std::vector<int> descriptorsOf(pid_t pid);

// What the symbolic link at `link` names (/proc/PID/exe, ...), without the
// " (deleted)" of a removed file.
std::string linkTarget(const std::string& link);
// The same for descriptor `fd` of `pid`: a path, "pipe:[...]", "socket:[...]".
std::string descriptorTarget(pid_t pid, int fd);

// The fields of /proc/PID/stat, numbered as proc(5) numbers them less one:
// [0] the pid, [1] the command name (without its parentheses, blanks and
// all), [9] minflt, [13] utime.
std::vector<std::string> statFields(pid_t pid);

// The value on the line "NAME:  value" of a file in that form
// (/proc/PID/status, /proc/PID/fdinfo/FD, smaps_rollup), leading blanks
// skipped.
std::string field(const std::string& file, const std::string& name);

// The first line of `file`, without its end of line (/proc/PID/comm).
std::string firstLine(const std::string& file);

}  // namespace procfs

#endif  // DRAVIK_PROCFS_PROCFS_H_
