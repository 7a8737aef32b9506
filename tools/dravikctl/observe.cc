// list, status and wait: what dravikctl can tell about the service without
// sending it anything. list prints the catalogue; status what /proc shows
// of the running daemon, its pipes and its store; wait returns once the
// daemon reads its mailbox.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "conversation/frame_printer.h"
#include "peer/frame_codec.h"
#include "procfs/procfs.h"
#include "store/catalogue.h"
#include "store/store_layout.h"
#include "tools/dravikctl/commands.h"
#include "tools/dravikctl/options.h"
#include "tools/dravikctl/proc_scan.h"
#include "tools/dravikctl/report.h"

namespace dravikctl {
namespace {

using catalogue::ArgType;
using catalogue::Entry;
using catalogue::Flow;
using conversation::jsonQuote;

// Who sends a class that dravik reads: endpoint 2 its verdict on a filter,
// the engine calibration; anyone the rest.
int32_t senderOf(const Entry& e) {
  if (e.flow == Flow::out) return kServiceEndpoint;
  if (e.selector == kSaveAnalyticsFilterDataSelector) return kFilterEndpoint;
  if (e.selector == kCalibrationDataResponseSelector || e.selector == kSetCalibrationDataSelector) return kEngineEndpoint;
  return -1;
}

std::string endpointText(int32_t endpoint, const char* none) {
  return endpoint < 0 ? none : std::to_string(endpoint);
}

// The columns of list: selector, class, direction, route, answer, arguments.
constexpr const char* kListFormat = "%-8s %-42s %-4s %-13s %-6s %s";

std::string listLine(const Entry& e, bool json) {
  std::string args;
  for (const catalogue::Arg& a : e.args) {
    args += json ? std::string(args.empty() ? "" : ",") + "{\"name\":\"" + a.name + "\",\"type\":\"" + peer::typeName(a.type) + "\"}"
                 : std::string(args.empty() ? "" : ", ") + a.name + " (" + peer::typeName(a.type) + ")";
  }
  const char* direction = e.flow == Flow::in ? "in" : "out";
  if (json) {
    return "{\"selector\":" + std::to_string(e.selector) + ",\"class\":" + jsonQuote(e.name) + ",\"direction\":\"" +
           direction + "\",\"sender\":" + (senderOf(e) < 0 ? "null" : std::to_string(senderOf(e))) +
           ",\"recipient\":" + (e.recipient < 0 ? "null" : std::to_string(e.recipient)) +
           ",\"responseSelector\":" + std::to_string(e.responseSelector) + ",\"args\":[" + args + "]}";
  }
  char line[256];
  std::string route = endpointText(senderOf(e), "any") + "->" + endpointText(e.recipient, "requester");
  snprintf(line, sizeof line, kListFormat, std::to_string(e.selector).c_str(), e.name, direction, route.c_str(),
           e.responseSelector != 0 ? std::to_string(e.responseSelector).c_str() : "-", args.empty() ? "-" : args.c_str());
  return line;
}

// --- status ---------------------------------------------------------------

struct Holder {
  pid_t pid;
  std::string access;  // "read", "write", "read+write"
};

// The processes that hold the pipe at `path` open, and how.
std::vector<Holder> holdersOf(const std::string& path) {
  std::vector<Holder> holders;
  struct stat pipe;
  if (stat(path.c_str(), &pipe) != 0) return holders;
  for (pid_t pid : procfs::otherProcesses()) {
    unsigned modes = 0;
    for (int fd : procfs::descriptorsOf(pid)) {
      struct stat held;
      if (stat(procfs::path(pid, "fd/" + std::to_string(fd)).c_str(), &held) != 0 || held.st_dev != pipe.st_dev ||
          held.st_ino != pipe.st_ino) {
        continue;
      }
      std::string flags = procfs::field(procfs::path(pid, "fdinfo/" + std::to_string(fd)), "flags");
      int access = static_cast<int>(std::strtol(flags.c_str(), nullptr, 8)) & 3;
      modes |= access == 0 ? 1u : access == 1 ? 2u : 3u;
    }
    if (modes != 0) holders.push_back({pid, modes == 1 ? "read" : modes == 2 ? "write" : "read+write"});
  }
  return holders;
}

struct StoreFile {
  std::string path;
  long long size;
  struct timespec modified;
};

// The files of the store, as the daemon sees them when this user may look
// through its root.
std::vector<StoreFile> storeFiles(pid_t daemon) {
  std::string root = daemon != 0 && access(procfs::path(daemon, "root/").c_str(), X_OK) == 0 ? procfs::path(daemon, "root") : "";
  std::vector<StoreFile> files;
  for (const char* directory : {kCalibrationDirectory, kFilterDirectory, "/etc/sysconfig/dravik/incoming/"}) {
    DIR* dir = opendir((root + directory).c_str());
    while (dirent* entry = dir != nullptr ? readdir(dir) : nullptr) {
      struct stat info;
      std::string path = std::string(directory) + entry->d_name;
      if (entry->d_name[0] == '.' || stat((root + path).c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
      files.push_back({path, static_cast<long long>(info.st_size), info.st_mtim});
    }
    if (dir != nullptr) closedir(dir);
  }
  std::sort(files.begin(), files.end(), [](const StoreFile& a, const StoreFile& b) { return a.path < b.path; });
  return files;
}

// Seconds since `pid` started.
long long uptimeOf(pid_t pid) {
  std::vector<std::string> stat = procfs::statFields(pid);
  std::ifstream uptime("/proc/uptime");
  double now = 0;
  uptime >> now;
  if (stat.size() <= 21 || !uptime) return -1;
  return static_cast<long long>(now - std::strtod(stat[21].c_str(), nullptr) / static_cast<double>(sysconf(_SC_CLK_TCK)));
}

std::string durationText(long long seconds) {
  char text[64];
  if (seconds >= 86400) {
    snprintf(text, sizeof text, "%lld d %lld h", seconds / 86400, seconds % 86400 / 3600);
  } else if (seconds >= 3600) {
    snprintf(text, sizeof text, "%lld h %lld min", seconds / 3600, seconds % 3600 / 60);
  } else {
    snprintf(text, sizeof text, "%lld min %lld s", seconds / 60, seconds % 60);
  }
  return text;
}

std::string holdersText(const std::vector<Holder>& holders, bool json) {
  std::string text;
  for (const Holder& h : holders) {
    if (json) {
      text += std::string(text.empty() ? "" : ",") + "{\"pid\":" + std::to_string(h.pid) + ",\"name\":" +
              jsonQuote(programName(h.pid)) + ",\"access\":\"" + h.access + "\"}";
    } else {
      text += std::string(text.empty() ? "" : ", ") + describeProcess(h.pid) + " " + h.access;
    }
  }
  return json ? "[" + text + "]" : text.empty() ? "nobody this user can see" : text;
}

}  // namespace

int runList(const Options& o) {
  char heading[128];
  snprintf(heading, sizeof heading, kListFormat, "SELECTOR", "CLASS", "DIR", "FROM->TO", "ANSWER", "ARGUMENTS");
  if (!o.style.json && !printLine(heading)) return kExitFailure;
  for (const Entry& e : catalogue::entries()) {
    if (!printLine(listLine(e, o.style.json))) return kExitFailure;
  }
  return kExitOk;
}

int runStatus(const Options& o) {
  std::string whyNot;
  pid_t pid = daemonPid(o, &whyNot);
  bool running = pid != 0;
  std::vector<pid_t> threads = running ? procfs::threadsOf(pid) : std::vector<pid_t>();
  long long uptime = running ? uptimeOf(pid) : -1;
  std::vector<Holder> mailbox = holdersOf(o.mailbox), notifications = holdersOf(o.notifications);
  bool reading = false;
  for (const Holder& h : mailbox) reading = reading || (h.pid == pid && h.access != "write");
  std::vector<StoreFile> files = storeFiles(pid);
  // No daemon, or one that cannot be told from several.
  int status = running ? kExitOk : whyNot.rfind("no dravik", 0) == 0 ? kExitFailure : kExitUnknown;
  std::string text;
  if (o.style.json) {
    std::string tids, store;
    for (pid_t t : threads) tids += (tids.empty() ? "" : ",") + std::to_string(t);
    for (const StoreFile& f : files) {
      store += std::string(store.empty() ? "" : ",") + "{\"path\":" + jsonQuote(f.path) + ",\"size\":" +
               std::to_string(f.size) + ",\"modified\":" + jsonQuote(conversation::isoTime(f.modified)) + "}";
    }
    text = std::string("{\"running\":") + (running ? "true" : "false") +
           ",\"pid\":" + (running ? std::to_string(pid) : "null") +
           ",\"uptimeSeconds\":" + (uptime >= 0 ? std::to_string(uptime) : "null") + ",\"threads\":[" + tids +
           "],\"readsMailbox\":" + (reading ? "true" : "false") + ",\"reason\":" + jsonQuote(whyNot) +
           ",\"mailbox\":{\"path\":" + jsonQuote(o.mailbox) + ",\"holders\":" + holdersText(mailbox, true) +
           "},\"notifications\":{\"path\":" + jsonQuote(o.notifications) +
           ",\"holders\":" + holdersText(notifications, true) + "},\"store\":[" + store + "]}\n";
  } else {
    if (running) {
      std::string tids;
      for (pid_t t : threads) tids += " " + std::to_string(t);
      text = "dravik: running, pid " + std::to_string(pid) + ", up " + (uptime >= 0 ? durationText(uptime) : "?") +
             ", " + std::to_string(threads.size()) + " threads:" + tids +
             (reading ? "" : " (not reading its mailbox: starting or stopping)") + "\n";
    } else {
      text = "dravik: not running: " + whyNot + "\n";
    }
    text += "mailbox " + o.mailbox + ": " + holdersText(mailbox, false) + "\n";
    text += "notifications " + o.notifications + ": " + holdersText(notifications, false) + "\n";
    text += "store:" + std::string(files.empty() ? " no files" : "") + "\n";
    for (const StoreFile& f : files) {
      char line[512];
      snprintf(line, sizeof line, "  %-58s %6lld bytes  %s\n", f.path.c_str(), f.size,
               conversation::isoTime(f.modified).c_str());
      text += line;
    }
  }
  if (!printText(text)) return kExitFailure;
  if (running && !reading) return kExitUnknown;
  return status;
}

int runWait(const Options& o) {
  StopSignals stop;
  std::string whyNot;
  pid_t pid = waitForDaemon(o, peer::Deadline::after(o.timeout), stop.fd(), &whyNot);
  if (pid == 0) {
    char seconds[32];
    snprintf(seconds, sizeof seconds, "%g s", o.timeout);
    return fail("dravik did not read " + o.mailbox + " within " + seconds + ": " + whyNot);
  }
  return printLine("dravik (pid " + std::to_string(pid) + ") reads " + o.mailbox) ? kExitOk : kExitFailure;
}

}  // namespace dravikctl
