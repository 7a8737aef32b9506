// A private mount namespace for tests that need the daemon's fixed paths:
// fresh tmpfs on /tmp and on /etc/sysconfig (with the two store
// directories), and a private /dev whose /dev/log a test may bind. Nothing
// reaches the host's files. Needs root (CI runs as root).
#ifndef DRAVIK_TESTS_SUPPORT_SANDBOX_H_
#define DRAVIK_TESTS_SUPPORT_SANDBOX_H_

#include <string>

namespace sandbox {

// Moves the calling process into the sandbox. Call once, before any thread
// starts (e.g. first thing in main). False with a reason when namespaces or
// mounts are not available; the caller then skips its tests.
bool enter(std::string* whyNot);

// True once enter() has succeeded in this process.
bool active();

// The reason enter() failed, for skip messages.
const std::string& unavailableReason();

}  // namespace sandbox

#endif  // DRAVIK_TESTS_SUPPORT_SANDBOX_H_
