// How dravikctl speaks and ends: its lines on standard output, each written
// at once, and its failures on standard error as one line that begins with
// "dravikctl: ", with the exit status that goes with them.
#ifndef DRAVIK_TOOLS_DRAVIKCTL_REPORT_H_
#define DRAVIK_TOOLS_DRAVIKCTL_REPORT_H_

#include <signal.h>

#include <string>

#include "messaging/signal_descriptor.h"

namespace dravikctl {

// The exit statuses. A command that sends a message exits 0 only when it
// saw the daemon accept it, 1 when it saw the daemon refuse it, 3 when the
// message went out but its outcome could not be seen (it may still run),
// and 4 when nothing was sent.
constexpr int kExitOk = 0;
// Seen refused (an error line in the daemon's log, no answer to a request);
// for the other commands: failed.
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;  // bad arguments; nothing sent
constexpr int kExitUnknown = 3;
constexpr int kExitNotSent = 4;

// "dravikctl: <message>" on standard error; returns kExitFailure.
int fail(const std::string& message);
// The same and the hint to --help; returns kExitUsage.
int usageError(const std::string& message);
// "dravikctl: warning: <message>" on standard error.
void warn(const std::string& message);
// Writes one line to standard output at once. False when standard output
// is gone.
bool printLine(const std::string& line);
// The same for text that brings its own line ends.
bool printText(const std::string& text);

// SIGINT, SIGTERM and SIGHUP from construction on: a long-running command
// watches the descriptor in its waits and ends cleanly instead of dying in
// the middle of a line.
class StopSignals : public SignalDescriptor {
 public:
  StopSignals() : SignalDescriptor({SIGINT, SIGTERM, SIGHUP}) {}
};

}  // namespace dravikctl

#endif  // DRAVIK_TOOLS_DRAVIKCTL_REPORT_H_
