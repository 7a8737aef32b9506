#include "tools/dravikctl/proc_scan.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>

namespace dravikctl {
namespace {

const std::string kDeleted = " (deleted)";

std::string procPath(pid_t pid, const std::string& rest) { return "/proc/" + std::to_string(pid) + "/" + rest; }

std::string readLink(const std::string& path) {
  char target[4096];
  ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
  if (n <= 0) return "";
  std::string text(target, static_cast<std::size_t>(n));
  if (text.size() > kDeleted.size() && text.compare(text.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0) {
    text.resize(text.size() - kDeleted.size());
  }
  return text;
}

std::string firstLine(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

// Calls `visit` for every process but this one; it returns false to stop.
void forEachProcess(const std::function<bool(pid_t)>& visit) {
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return;
  pid_t self = getpid();
  while (dirent* entry = readdir(proc)) {
    char* end = nullptr;
    long pid = std::strtol(entry->d_name, &end, 10);
    if (*end != '\0' || pid <= 0 || pid == self) continue;
    if (!visit(static_cast<pid_t>(pid))) break;
  }
  closedir(proc);
}

// Whether `pid` has the pipe `pipe` (device and inode) open with read access.
bool readsPipe(pid_t pid, const struct stat& pipe) {
  std::string fdDir = procPath(pid, "fd");
  DIR* dir = opendir(fdDir.c_str());
  if (dir == nullptr) return false;
  bool reads = false;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    std::string link = fdDir + "/" + entry->d_name;
    struct stat held;
    if (stat(link.c_str(), &held) != 0) continue;
    if (held.st_dev != pipe.st_dev || held.st_ino != pipe.st_ino) continue;
    std::ifstream info(procPath(pid, std::string("fdinfo/") + entry->d_name));
    std::string key;
    std::string flags;
    while (info >> key >> flags && key != "flags:") {
    }
    int access = static_cast<int>(std::strtol(flags.c_str(), nullptr, 8)) & O_ACCMODE;
    if (key == "flags:" && (access == O_RDONLY || access == O_RDWR)) reads = true;
  }
  closedir(dir);
  return reads;
}

}  // namespace

std::string descriptorTarget(pid_t pid, int fd) { return readLink(procPath(pid, "fd/" + std::to_string(fd))); }

pid_t findDaemon(const std::string& mailbox, std::string* whyNot) {
  std::vector<pid_t> found;
  forEachProcess([&](pid_t pid) {
    std::string exe = readLink(procPath(pid, "exe"));
    std::string base = exe.substr(exe.rfind('/') + 1);
    if (firstLine(procPath(pid, "comm")) == "dravik" || base == "dravik") found.push_back(pid);
    return true;
  });
  auto list = [](const std::vector<pid_t>& pids) {
    std::string text;
    for (pid_t pid : pids) text += " " + std::to_string(pid);
    return text;
  };
  if (found.empty()) {
    *whyNot = "no dravik process is running (--pid N names one)";
    return 0;
  }
  if (found.size() == 1) return found[0];
  std::vector<pid_t> readers;
  struct stat mailboxInfo;
  if (stat(mailbox.c_str(), &mailboxInfo) == 0) {
    for (pid_t pid : found) {
      if (readsPipe(pid, mailboxInfo)) readers.push_back(pid);
    }
  }
  if (readers.size() == 1) return readers[0];
  if (readers.empty()) {
    *whyNot = "several dravik processes are running (pids" + list(found) + "), none of them reading " + mailbox +
             ": choose one with --pid";
  } else {
    *whyNot = "several dravik processes read " + mailbox + " (pids" + list(readers) + "): choose one with --pid";
  }
  return 0;
}

std::vector<pid_t> otherReaders(const std::string& pipe, const std::string& mailbox) {
  std::vector<pid_t> readers;
  struct stat pipeInfo, mailboxInfo;
  if (stat(pipe.c_str(), &pipeInfo) != 0) return readers;
  bool haveMailbox = stat(mailbox.c_str(), &mailboxInfo) == 0;
  forEachProcess([&](pid_t pid) {
    if (readsPipe(pid, pipeInfo) && !(haveMailbox && readsPipe(pid, mailboxInfo))) readers.push_back(pid);
    return true;
  });
  return readers;
}

std::vector<pid_t> threadsOf(pid_t pid) {
  std::vector<pid_t> threads;
  std::string path = procPath(pid, "task");
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) return threads;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') threads.push_back(static_cast<pid_t>(std::atoi(entry->d_name)));
  }
  closedir(dir);
  return threads;
}

std::string describeProcess(pid_t pid) { return std::to_string(pid) + " (" + firstLine(procPath(pid, "comm")) + ")"; }

}  // namespace dravikctl
