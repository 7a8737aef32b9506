// What /proc tells about another process: CPU time, context switches, dirty
// private memory, and which CPUs its threads may run on.
#ifndef DRAVIK_BENCH_PROC_STATS_H_
#define DRAVIK_BENCH_PROC_STATS_H_

#include <sys/types.h>

namespace procstats {

// utime + stime of the whole process (all threads), in nanoseconds; the
// kernel counts in clock ticks, so the resolution is 1/CLK_TCK s (10 ms).
// -1 if the process is gone.
long long cpuNanoseconds(pid_t pid);

// Minor page faults of the whole process.
long long minorFaults(pid_t pid);

// Voluntary plus non-voluntary context switches, summed over the threads.
long long contextSwitches(pid_t pid);

// Private_Dirty of /proc/PID/smaps_rollup in KiB; -1 if unreadable.
long privateDirtyKiB(pid_t pid);

// Puts every thread of `pid` on `cpu`, or on all CPUs when `cpu` is -1.
bool setAffinity(pid_t pid, int cpu);

// The same for the calling thread only.
bool setOwnAffinity(int cpu);

}  // namespace procstats

#endif  // DRAVIK_BENCH_PROC_STATS_H_
