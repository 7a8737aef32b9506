#include "messaging/typed_open.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

std::string directoryOf(const std::string& path) {
  std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// Walks the chain of links at `path`: false when one of them lies in a
// sticky, world-writable directory and belongs to neither this user nor
// root. Whatever else is wrong with the path is left to the open.
bool linksTrusted(const char* path) {
  std::string current = path;
  for (int hop = 0; hop < 40; ++hop) {
    struct stat link;
    if (lstat(current.c_str(), &link) != 0 || !S_ISLNK(link.st_mode)) return true;
    std::string directory = directoryOf(current);
    struct stat dir;
    if (stat(directory.c_str(), &dir) == 0 && (dir.st_mode & S_ISVTX) != 0 && (dir.st_mode & S_IWOTH) != 0 &&
        link.st_uid != geteuid() && link.st_uid != 0) {
      return false;
    }
    char target[PATH_MAX];
    ssize_t n = readlink(current.c_str(), target, sizeof target - 1);
    if (n < 0) return true;
    target[n] = '\0';
    current = target[0] == '/' ? std::string(target) : directory + "/" + target;
  }
  return true;  // the open reports the loop
}

}  // namespace

int openTyped(const char* path, int flags, mode_t kind, OpenRefusal* refusal) {
  *refusal = OpenRefusal::none;
  if (!linksTrusted(path)) {
    *refusal = OpenRefusal::untrustedLink;
    return -1;
  }
  int handle = ::open(path, O_PATH | O_CLOEXEC);
  if (handle < 0) {
    *refusal = OpenRefusal::system;
    return -1;
  }
  struct stat held;
  if (fstat(handle, &held) != 0 || (held.st_mode & S_IFMT) != kind) {
    ::close(handle);
    *refusal = OpenRefusal::wrongKind;
    return -1;
  }
  char proc[32];
  std::snprintf(proc, sizeof proc, "/proc/self/fd/%d", handle);
  int fd = ::open(proc, flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0 && errno == ENOENT) {
    // No /proc: open the path itself and make sure it is still the file
    // whose kind was checked.
    fd = ::open(path, flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    struct stat opened;
    if (fd >= 0 && (fstat(fd, &opened) != 0 || opened.st_dev != held.st_dev || opened.st_ino != held.st_ino)) {
      ::close(fd);
      ::close(handle);
      *refusal = OpenRefusal::wrongKind;
      return -1;
    }
  }
  int error = errno;
  ::close(handle);
  if (fd < 0) {
    errno = error;
    *refusal = OpenRefusal::system;
  }
  return fd;
}

std::string describeRefusal(OpenRefusal refusal, int error, const char* kindName) {
  switch (refusal) {
    case OpenRefusal::wrongKind:
      return std::string("not a ") + kindName;
    case OpenRefusal::untrustedLink:
      return "a link of another user in a sticky directory";
    default:
      return std::strerror(error);
  }
}
