// dravikctl: send messages to the dravik service, watch it through a tap,
// and play its peers.
#include <csignal>
#include <cstdio>

#include "dravikctl_version.h"
#include "peer/frame_codec.h"
#include "tools/dravikctl/commands.h"
#include "tools/dravikctl/options.h"
#include "tools/dravikctl/report.h"
#include "tools/dravikctl/tap.h"

int main(int argc, char* argv[]) {
  // A reader that goes away shows up as EPIPE on the write, which is
  // reported, instead of killing the tool.
  std::signal(SIGPIPE, SIG_IGN);
  // Before any thread starts, so that every thread has it blocked.
  dravikctl::blockChildSignals();

  dravikctl::Options options;
  std::string whyNot;
  if (!dravikctl::parseCommandLine(argc, argv, &options, &whyNot)) return dravikctl::usageError(whyNot);
  if (options.help) {
    std::string text = options.command != nullptr ? dravikctl::commandHelp(*options.command) : dravikctl::usageText();
    fputs(text.c_str(), stdout);
    return dravikctl::kExitOk;
  }
  if (options.version) {
    printf("dravikctl %s\n", DRAVIKCTL_VERSION);
    return dravikctl::kExitOk;
  }
  peer::seedMessageIds();
  return options.command->run(options);
}
