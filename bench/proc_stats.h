// What /proc tells about another process beside its CPU time
// (ChildProcess::cpuSeconds): page faults, context switches, dirty private
// memory, whether it is traced, and which CPUs its threads may run on.
#ifndef DRAVIK_BENCH_PROC_STATS_H_
#define DRAVIK_BENCH_PROC_STATS_H_

#include <sys/types.h>

namespace procstats {

// Minor page faults of the whole process.
long long minorFaults(pid_t pid);

// Voluntary plus non-voluntary context switches, summed over the threads.
long long contextSwitches(pid_t pid);

// Private_Dirty of /proc/PID/smaps_rollup in KiB; -1 if unreadable.
long privateDirtyKiB(pid_t pid);

// Whether a tracer holds any thread of `pid` (TracerPid in its status).
bool traced(pid_t pid);

// Puts every thread of `pid` on `cpu`, or on all CPUs when `cpu` is -1.
bool setAffinity(pid_t pid, int cpu);

// The same for the calling thread only.
bool setOwnAffinity(int cpu);

}  // namespace procstats

#endif  // DRAVIK_BENCH_PROC_STATS_H_
