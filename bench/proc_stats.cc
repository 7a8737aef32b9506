#include "bench/proc_stats.h"

#include <dirent.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace procstats {
namespace {

std::string proc(pid_t pid, const std::string& file) { return "/proc/" + std::to_string(pid) + "/" + file; }

std::vector<pid_t> threadsOf(pid_t pid) {
  std::vector<pid_t> tids;
  if (DIR* dir = opendir(proc(pid, "task").c_str())) {
    while (dirent* entry = readdir(dir)) {
      if (entry->d_name[0] != '.') tids.push_back(static_cast<pid_t>(std::atol(entry->d_name)));
    }
    closedir(dir);
  }
  return tids;
}

cpu_set_t cpuSet(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  for (long i = 0; i < sysconf(_SC_NPROCESSORS_CONF) && i < CPU_SETSIZE; ++i) {
    if (cpu < 0 || i == cpu) CPU_SET(static_cast<int>(i), &set);
  }
  return set;
}

// The value after `key` on the first line of `path` that begins with it.
long long valueAfter(const std::string& path, const std::string& key) {
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(key, 0) == 0) return std::atoll(line.c_str() + key.size());
  }
  return -1;
}

}  // namespace

long long minorFaults(pid_t pid) {
  std::ifstream in(proc(pid, "stat"));
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // The command name may hold blanks and parentheses: field 3 follows the
  // last ')', and minflt is field 10.
  std::size_t close = text.rfind(')');
  if (close == std::string::npos) return -1;
  std::istringstream fields(text.substr(close + 2));
  std::string field;
  for (int i = 3; i <= 10 && fields >> field; ++i) {
  }
  return std::atoll(field.c_str());
}

long long contextSwitches(pid_t pid) {
  long long total = 0;
  for (pid_t tid : threadsOf(pid)) {
    std::string status = proc(pid, "task/" + std::to_string(tid) + "/status");
    total += valueAfter(status, "voluntary_ctxt_switches:") + valueAfter(status, "nonvoluntary_ctxt_switches:");
  }
  return total;
}

long privateDirtyKiB(pid_t pid) { return static_cast<long>(valueAfter(proc(pid, "smaps_rollup"), "Private_Dirty:")); }

bool traced(pid_t pid) {
  for (pid_t tid : threadsOf(pid)) {
    if (valueAfter(proc(pid, "task/" + std::to_string(tid) + "/status"), "TracerPid:") > 0) return true;
  }
  return false;
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
