#include "procfs/procfs.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace procfs {
namespace {

const std::string kDeleted = " (deleted)";

// The entries of `directory` that are numbers: pids, tids, descriptors.
std::vector<long> numberedEntries(const std::string& directory) {
  std::vector<long> numbers;
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) return numbers;
  while (dirent* entry = readdir(dir)) {
    char* end = nullptr;
    long n = std::strtol(entry->d_name, &end, 10);
    if (end != entry->d_name && *end == '\0') numbers.push_back(n);
  }
  closedir(dir);
  return numbers;
}

}  // namespace

std::string path(pid_t pid, const std::string& rest) { return "/proc/" + std::to_string(pid) + "/" + rest; }

std::vector<pid_t> otherProcesses() {
  std::vector<pid_t> pids;
  pid_t self = getpid();
  for (long n : numberedEntries("/proc")) {
    if (n > 0 && n != self) pids.push_back(static_cast<pid_t>(n));
  }
  return pids;
}

std::vector<pid_t> threadsOf(pid_t pid) {
  std::vector<pid_t> tids;
  for (long n : numberedEntries(path(pid, "task"))) tids.push_back(static_cast<pid_t>(n));
  return tids;
}

std::vector<int> descriptorsOf(pid_t pid) {
  std::vector<int> fds;
  for (long n : numberedEntries(path(pid, "fd"))) fds.push_back(static_cast<int>(n));
  return fds;
}

std::string linkTarget(const std::string& link) {
  char target[4096];
  ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
  if (n <= 0) return "";
  std::string text(target, static_cast<std::size_t>(n));
  if (text.size() > kDeleted.size() && text.compare(text.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0) {
    text.resize(text.size() - kDeleted.size());
  }
  return text;
}

std::string descriptorTarget(pid_t pid, int fd) { return linkTarget(path(pid, "fd/" + std::to_string(fd))); }

std::vector<std::string> statFields(pid_t pid) {
  std::ifstream file(path(pid, "stat"));
  std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  // The command name may hold blanks and parentheses: it ends at the last ')'.
  std::size_t open = text.find('(');
  std::size_t close = text.rfind(')');
  if (open == std::string::npos || close == std::string::npos || close < open) return {};
  std::vector<std::string> fields = {text.substr(0, open - 1), text.substr(open + 1, close - open - 1)};
  std::istringstream rest(text.substr(close + 1));
  for (std::string f; rest >> f;) fields.push_back(f);
  return fields;
}

std::string field(const std::string& file, const std::string& name) {
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, name.size(), name) != 0 || line.compare(name.size(), 1, ":") != 0) continue;
    std::size_t start = line.find_first_not_of(" \t", name.size() + 1);
    return start == std::string::npos ? "" : line.substr(start);
  }
  return "";
}

std::string firstLine(const std::string& file) {
  std::ifstream in(file);
  std::string line;
  std::getline(in, line);
  return line;
}

}  // namespace procfs
