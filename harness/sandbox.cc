#include "harness/sandbox.h"

#include <sched.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace sandbox {
namespace {

bool entered = false;
bool ownUserNamespace = false;

bool fail(std::string* whyNot, const std::string& what) {
  if (whyNot != nullptr) *whyNot = what + ": " + std::strerror(errno);
  return false;
}

bool writeFile(const char* path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  file.close();
  return !file.fail();
}

// A user namespace in which the caller is root, so that it may make the
// mount namespace: only the caller's own uid and gid are mapped.
bool enterUserNamespace(std::string* whyNot) {
  uid_t uid = geteuid();
  gid_t gid = getegid();
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
    return fail(whyNot, "unshare(CLONE_NEWUSER) (user namespaces refused: kernel.unprivileged_userns_clone=0?)");
  }
  if (!writeFile("/proc/self/setgroups", "deny") ||
      !writeFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
      !writeFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1")) {
    return fail(whyNot, "user namespace id maps");
  }
  ownUserNamespace = true;
  return true;
}

bool mountTmpfs(const char* where, const char* options) {
  return mount("dravik-test", where, "tmpfs", MS_NOSUID | MS_NODEV, options) == 0;
}

bool bindDevice(const char* saved, const char* name) {
  std::string from = std::string(saved) + "/" + name;
  std::string to = std::string("/dev/") + name;
  struct stat info;
  if (stat(from.c_str(), &info) != 0) return true;  // not on this machine: fine
  if (S_ISDIR(info.st_mode)) {
    mkdir(to.c_str(), 0755);
  } else {
    int fd = open(to.c_str(), O_CREAT | O_WRONLY, 0666);
    if (fd >= 0) close(fd);
  }
  return mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
}

}  // namespace

bool enter(std::string* whyNot) {
  if (entered) return true;
  if (geteuid() != 0) {
    if (!enterUserNamespace(whyNot)) return false;
  } else if (unshare(CLONE_NEWNS) != 0) {
    return fail(whyNot, "unshare(CLONE_NEWNS) (a mount namespace needs CAP_SYS_ADMIN, which this container or "
                        "seccomp policy withholds)");
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    // EINVAL: "/" is no mount point, as in a plain chroot.
    return fail(whyNot, errno == EINVAL ? "the root directory is not a mount point (a plain chroot?), so the "
                                          "sandbox's mounts cannot be kept from the host: run it in a container or "
                                          "a virtual machine, or bind-mount the chroot's directory onto itself "
                                          "before entering it; making the mounts private"
                                        : "making the mounts private");
  }

  // /etc/sysconfig may not exist on the host: an overlay over /etc, whose
  // upper layer lives in a scratch tmpfs, lets the namespace create it.
  if (!mountTmpfs("/tmp", "mode=1777")) return fail(whyNot, "tmpfs on /tmp");
  mkdir("/tmp/.etc-upper", 0755);
  mkdir("/tmp/.etc-work", 0755);
  if (access("/etc/sysconfig", F_OK) != 0) {
    if (mount("overlay", "/etc", "overlay", 0, "lowerdir=/etc,upperdir=/tmp/.etc-upper,workdir=/tmp/.etc-work") != 0)
      return fail(whyNot, "overlay on /etc");
    mkdir("/etc/sysconfig", 0755);
  }
  if (!mountTmpfs("/etc/sysconfig", "mode=755")) return fail(whyNot, "tmpfs on /etc/sysconfig");
  mkdir("/etc/sysconfig/dravik", 0755);
  mkdir("/etc/sysconfig/dravik/zek", 0755);
  mkdir("/etc/sysconfig/dravik/zek/cal", 0755);
  mkdir("/etc/sysconfig/dravik/zek/tbe", 0755);

  // A second, clean tmpfs hides the overlay's scratch directories.
  if (!mountTmpfs("/tmp", "mode=1777")) return fail(whyNot, "second tmpfs on /tmp");

  // A private /dev, so that a test can own /dev/log.
  mkdir("/run", 0755);
  if (!mountTmpfs("/run", "mode=755")) return fail(whyNot, "tmpfs on /run");
  mkdir("/run/host-dev", 0755);
  if (mount("/dev", "/run/host-dev", nullptr, MS_BIND | MS_REC, nullptr) != 0) return fail(whyNot, "bind /dev");
  if (!mountTmpfs("/dev", "mode=755")) return fail(whyNot, "tmpfs on /dev");
  for (const char* name : {"null", "zero", "full", "random", "urandom", "tty", "pts", "shm"}) {
    if (!bindDevice("/run/host-dev", name)) return fail(whyNot, std::string("bind /dev/") + name);
  }
  entered = true;
  return true;
}

bool inUserNamespace() {
  if (ownUserNamespace) return true;
  // Entered by whoever started us (unshare -Ur, as the cross tests do): the
  // initial namespace alone maps every id onto itself.
  std::ifstream map("/proc/self/uid_map");
  unsigned long inside = 0, outside = 0, count = 0;
  if (!(map >> inside >> outside >> count)) return false;
  return !(inside == 0 && outside == 0 && count == 4294967295UL);
}

}  // namespace sandbox
