// dravikctl's command line: one command, its arguments, and options that may
// stand before or after them ("--name value" or "--name=value"), read with
// getopt_long.
#ifndef DRAVIK_TOOLS_DRAVIKCTL_OPTIONS_H_
#define DRAVIK_TOOLS_DRAVIKCTL_OPTIONS_H_

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "conversation/transcript.h"
#include "store/service_paths.h"
#include "tools/dravikctl/commands.h"

namespace dravikctl {

struct Options {
  bool help = false;
  bool version = false;

  const Command* command = nullptr;  // set unless help or version
  // Arguments of the command, checked and converted.
  int32_t channel = 0;
  int32_t status = 0;
  int32_t requestId = 0;
  std::string file;
  std::string className;            // call: a class name or a selector
  std::vector<std::string> fields;  // call: NAME=VALUE
  std::string topic;                // help: the command to tell about

  std::string mailbox = kCommandFifoPath;
  std::string notifications = kNotificationFifoPath;
  std::optional<int32_t> sender;            // unless given: the command's own
  std::optional<int32_t> responseSelector;  // unless given: its class's own
  std::optional<int32_t> correlationId;     // unless given: the command's own (0)
  bool waitSave = false;                    // set-filter: the verdict of the save
  double timeout = 5;                       // seconds

  pid_t pid = 0;        // the daemon to tap; 0: found by name
  bool direct = false;  // read the notification pipe instead of tapping
  bool force = false;   // read it even while another process does
  bool noWait = false;  // send only

  conversation::Style style;  // how monitor, decode and simulate show frames
  bool log = false;           // monitor: the daemon's syslog lines too
  bool follow = false;        // monitor: tap each new daemon after a restart
  std::string pcap;           // monitor: capture file; "-": standard output
  long count = 0;             // 0: no bound
  double duration = 0;        // seconds; 0: no bound
  int32_t filterStatus = 0;
  uint32_t blockSize = 64;
};

// Reads the command line into `options`. False with a one-line reason in
// `whyNot` on bad arguments. --help and --version win over everything else;
// with --help, `command` is set when the line names one.
bool parseCommandLine(int argc, char* const argv[], Options* options, std::string* whyNot);

// The text of --help: every command and option.
std::string usageText();
// The help of one command: its usage, what it does, the options that
// apply to it.
std::string commandHelp(const Command& command);

}  // namespace dravikctl

#endif  // DRAVIK_TOOLS_DRAVIKCTL_OPTIONS_H_
