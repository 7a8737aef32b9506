// How dravikctl speaks and ends: its lines on standard output, each written
// at once, and its failures on standard error as one line that begins with
// "dravikctl: ", with the exit status that goes with them.
#ifndef DRAVIK_TOOLS_DRAVIKCTL_REPORT_H_
#define DRAVIK_TOOLS_DRAVIKCTL_REPORT_H_

#include <signal.h>

#include <string>

#include "messaging/signal_descriptor.h"

namespace dravikctl {

constexpr int kExitOk = 0;
// The service could not be reached, did not answer, or logged an error.
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;  // bad arguments

// "dravikctl: <message>" on standard error; returns kExitFailure.
int fail(const std::string& message);
// The same and the hint to --help; returns kExitUsage.
int usageError(const std::string& message);
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
