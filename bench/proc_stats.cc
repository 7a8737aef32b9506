#include "bench/proc_stats.h"

#include <dirent.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace procstats {
namespace {

std::vector<pid_t> threadsOf(pid_t pid) {
  std::vector<pid_t> tids;
  std::string path = "/proc/" + std::to_string(pid) + "/task";
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) return tids;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') tids.push_back(static_cast<pid_t>(std::atol(entry->d_name)));
  }
  closedir(dir);
  return tids;
}

cpu_set_t cpuSet(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (cpu >= 0) {
    CPU_SET(cpu, &set);
  } else {
    long count = sysconf(_SC_NPROCESSORS_CONF);
    for (long i = 0; i < count && i < CPU_SETSIZE; ++i) CPU_SET(static_cast<int>(i), &set);
  }
  return set;
}

// Fields `first` to `last` (numbered as in proc(5)) of /proc/PID/stat.
std::vector<unsigned long long> statFields(pid_t pid, int first, int last) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<unsigned long long> values;
  // The command name may hold blanks and parentheses: field 3 follows the
  // last ')'.
  std::size_t close = text.rfind(')');
  if (close == std::string::npos) return values;
  std::istringstream fields(text.substr(close + 2));
  std::string field;
  for (int i = 3; i <= last && fields >> field; ++i) {
    if (i >= first) values.push_back(std::strtoull(field.c_str(), nullptr, 10));
  }
  return values;
}

}  // namespace

long long cpuNanoseconds(pid_t pid) {
  std::vector<unsigned long long> times = statFields(pid, 14, 15);  // utime, stime
  if (times.size() != 2) return -1;
  unsigned long long utime = times[0], stime = times[1];
  static const long ticks = sysconf(_SC_CLK_TCK);
  return static_cast<long long>((utime + stime) * (1000000000ULL / static_cast<unsigned long long>(ticks)));
}

long long minorFaults(pid_t pid) {
  std::vector<unsigned long long> faults = statFields(pid, 10, 10);
  return faults.empty() ? -1 : static_cast<long long>(faults[0]);
}

long long contextSwitches(pid_t pid) {
  long long total = 0;
  for (pid_t tid : threadsOf(pid)) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
      if (line.rfind("voluntary_ctxt_switches:", 0) == 0 || line.rfind("nonvoluntary_ctxt_switches:", 0) == 0) {
        total += std::atoll(line.c_str() + line.find(':') + 1);
      }
    }
  }
  return total;
}

long privateDirtyKiB(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("Private_Dirty:", 0) == 0) return std::atol(line.c_str() + 14);
  }
  return -1;
}

bool setAffinity(pid_t pid, int cpu) {
  cpu_set_t set = cpuSet(cpu);
  bool ok = true;
  for (pid_t tid : threadsOf(pid)) ok = sched_setaffinity(tid, sizeof set, &set) == 0 && ok;
  return ok;
}

bool setOwnAffinity(int cpu) {
  cpu_set_t set = cpuSet(cpu);
  return pthread_setaffinity_np(pthread_self(), sizeof set, &set) == 0;
}

}  // namespace procstats
