// Opening a path only when it names the kind of file the caller expects: a
// named pipe for the pipe endpoints, a regular file for the store. Nothing
// else is ever opened, since opening a device has side effects and opening
// a named pipe without a peer can wait for ever; the kind is checked on a
// descriptor that opens nothing (O_PATH), and the same file is then opened
// through /proc/self/fd, so nothing can be swapped in between.
//
// Symbolic links are followed, except in a sticky directory that everyone
// may write (such as /tmp): there a link is followed only when it belongs to
// this process's user or to root, so that another user cannot point the
// service at a file of their choosing (the kernel's protected_symlinks rule,
// which many cameras run without).
#ifndef DRAVIK_MESSAGING_TYPED_OPEN_H_
#define DRAVIK_MESSAGING_TYPED_OPEN_H_

#include <sys/types.h>

#include <string>

// Why a typed open failed.
enum class OpenRefusal {
  none,
  system,         // the system refused; errno says why
  wrongKind,      // something else than the expected kind of file is there
  untrustedLink,  // a link of another user in a sticky, world-writable directory
};

// Opens `path` with `flags` plus O_NONBLOCK and O_CLOEXEC when it names a
// file of `kind` (S_IFIFO, S_IFREG, ...). Returns the descriptor, or -1 with
// the reason in `*refusal` (and errno, for OpenRefusal::system).
int openTyped(const char* path, int flags, mode_t kind, OpenRefusal* refusal);

// A refusal as text: the system's text for `error` (an errno value) when the
// system refused, otherwise what stood in the way.
std::string describeRefusal(OpenRefusal refusal, int error, const char* kindName);

#endif  // DRAVIK_MESSAGING_TYPED_OPEN_H_
