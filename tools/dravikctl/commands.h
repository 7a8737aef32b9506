// The commands of dravikctl. Each returns the process's exit status and
// reports failures itself, on standard error, as one line that begins with
// "dravikctl: ".
#ifndef DRAVIK_TOOLS_DRAVIKCTL_COMMANDS_H_
#define DRAVIK_TOOLS_DRAVIKCTL_COMMANDS_H_

#include <sys/types.h>
#include <time.h>

#include <string>

#include "store/catalogue.h"
#include "tools/dravikctl/options.h"
#include "tools/dravikctl/pairing.h"

namespace dravikctl {

constexpr int kExitOk = 0;
// The service could not be reached, did not answer, or logged an error.
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;  // bad arguments

// Runs `options.command`.
int runCommand(const Options& options);

int runMonitor(const Options& options);
int runDecode(const Options& options);
int runSimulate(const Options& options);

// "dravikctl: <message>" on standard error; returns kExitFailure.
int fail(const std::string& message);
// The same and the hint to --help; returns kExitUsage.
int usageError(const std::string& message);
// Writes one line to standard output at once. False when standard output
// is gone.
bool printLine(const std::string& line);

// The process to tap: --pid, or the one called dravik. 0 with the reason.
pid_t daemonPid(const Options& options, std::string* whyNot);
// True when this process may read the notification pipe: nobody else reads
// it, or --force. Otherwise reports who does and returns false.
bool mayReadNotifications(const Options& options, const std::string& what);

// The lines of one conversation with the service, as the options ask (text
// or JSON, filtered), with answers paired to their requests.
class ConversationPrinter {
 public:
  explicit ConversationPrinter(const Options& options) : o_(options) {}
  // The line for a frame seen at `seen`, or empty when the filters leave it
  // out. Every frame counts for the pairing, shown or not.
  std::string frame(const std::string& bytes, catalogue::Flow flow, const struct timespec& seen);
  // The line for a datagram the service sent to the system log.
  std::string log(const std::string& datagram, const struct timespec& seen) const;

 private:
  const Options& o_;
  Pairing pairing_;
};

}  // namespace dravikctl

#endif  // DRAVIK_TOOLS_DRAVIKCTL_COMMANDS_H_
