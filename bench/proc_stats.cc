#include "bench/proc_stats.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "procfs/procfs.h"

namespace procstats {
namespace {

// minflt in /proc/PID/stat (procfs::statFields).
constexpr std::size_t kMinorFaultsField = 9;

cpu_set_t cpuSet(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  for (long i = 0; i < sysconf(_SC_NPROCESSORS_CONF) && i < CPU_SETSIZE; ++i) {
    if (cpu < 0 || i == cpu) CPU_SET(static_cast<int>(i), &set);
  }
  return set;
}

// The number on the line `name` of `file`; -1 if there is none.
long long numberField(const std::string& file, const std::string& name) {
  std::string value = procfs::field(file, name);
  return value.empty() ? -1 : std::atoll(value.c_str());
}

std::string threadStatus(pid_t pid, pid_t tid) { return procfs::path(pid, "task/" + std::to_string(tid) + "/status"); }

}  // namespace

long long minorFaults(pid_t pid) {
  std::vector<std::string> fields = procfs::statFields(pid);
  return fields.size() > kMinorFaultsField ? std::atoll(fields[kMinorFaultsField].c_str()) : -1;
}

long long contextSwitches(pid_t pid) {
  long long total = 0;
  for (pid_t tid : procfs::threadsOf(pid)) {
    std::string status = threadStatus(pid, tid);
    total += numberField(status, "voluntary_ctxt_switches") + numberField(status, "nonvoluntary_ctxt_switches");
  }
  return total;
}

long privateDirtyKiB(pid_t pid) {
  return static_cast<long>(numberField(procfs::path(pid, "smaps_rollup"), "Private_Dirty"));
}

bool traced(pid_t pid) {
  for (pid_t tid : procfs::threadsOf(pid)) {
    if (numberField(threadStatus(pid, tid), "TracerPid") > 0) return true;
  }
  return false;
}

bool setAffinity(pid_t pid, int cpu) {
  cpu_set_t set = cpuSet(cpu);
  bool ok = true;
  for (pid_t tid : procfs::threadsOf(pid)) ok = sched_setaffinity(tid, sizeof set, &set) == 0 && ok;
  return ok;
}

bool setOwnAffinity(int cpu) {
  cpu_set_t set = cpuSet(cpu);
  return pthread_setaffinity_np(pthread_self(), sizeof set, &set) == 0;
}

}  // namespace procstats
