// The commands of dravikctl. Each returns the process's exit status and
// reports failures itself, on standard error, as one line that begins with
// "dravikctl: ".
#ifndef DRAVIK_TOOLS_DRAVIKCTL_COMMANDS_H_
#define DRAVIK_TOOLS_DRAVIKCTL_COMMANDS_H_

#include <string>

#include "tools/dravikctl/options.h"
#include "tools/peer/frame_codec.h"

namespace dravikctl {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;  // the service could not be reached or did not answer
constexpr int kExitUsage = 2;    // bad arguments

// Runs `options.command`.
int runCommand(const Options& options);

int runMonitor(const Options& options);
int runSimulate(const Options& options);

// "dravikctl: <message>" on standard error; returns kExitFailure.
int fail(const std::string& message);
// The same and the hint to --help; returns kExitUsage.
int usageError(const std::string& message);
// Writes one line to standard output at once. False when standard output
// is gone.
bool printLine(const std::string& line);
// The line (text or JSON, as the options say) for a frame read or sent now;
// `event` ("recv", "send") is left out when empty.
std::string frameLine(const peer::DecodedFrame& frame, const Options& options, const std::string& event);

}  // namespace dravikctl

#endif  // DRAVIK_TOOLS_DRAVIKCTL_COMMANDS_H_
