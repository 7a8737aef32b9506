// libfaketime for runs of the daemon on accelerated time (tests, demo): its
// schedule sleeps in poll() on a signalfd, which libfaketime speeds up.
#ifndef DRAVIK_HARNESS_FAKETIME_H_
#define DRAVIK_HARNESS_FAKETIME_H_

#include <string>

// The multi-threaded libfaketime to preload into a daemon built with the
// given sanitizers (the -fsanitize list, empty for none). Empty, with the
// reason in `whyNot`, when it is not installed or cannot work: the
// sanitizer runtimes deadlock in libfaketime's start-up.
std::string fakeTimeLibrary(const std::string& daemonSanitizers, std::string* whyNot);

#endif  // DRAVIK_HARNESS_FAKETIME_H_
