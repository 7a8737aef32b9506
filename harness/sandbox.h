// A private mount namespace for programs that need the daemon's fixed
// paths: fresh tmpfs on /tmp and on /etc/sysconfig (with the two store
// directories), and a private /dev whose /dev/log may be bound by a
// SyslogReader. Nothing reaches the host's files or log. As root it is a
// plain mount namespace; for another user it is made inside a user
// namespace of its own (uid 0 there is the caller), where the kernel allows
// one.
#ifndef DRAVIK_HARNESS_SANDBOX_H_
#define DRAVIK_HARNESS_SANDBOX_H_

#include <string>

namespace sandbox {

// Moves the calling process into the sandbox. Call once, before any thread
// starts (e.g. first thing in main). False with a reason when namespaces or
// mounts are not available.
bool enter(std::string* whyNot);

// True in a user namespace other than the initial one (the sandbox's own,
// or one this process was started in): only a few ids exist there, so
// nothing can run as an arbitrary other user.
bool inUserNamespace();

}  // namespace sandbox

#endif  // DRAVIK_HARNESS_SANDBOX_H_
