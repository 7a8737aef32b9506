// dravikctl's commands, one row each: the name and the arguments as typed,
// the options that apply, what a command that sends puts in its frame, the
// function that runs it and its help. Each function returns the process's
// exit status and reports its failures itself (report.h).
#ifndef DRAVIK_TOOLS_DRAVIKCTL_COMMANDS_H_
#define DRAVIK_TOOLS_DRAVIKCTL_COMMANDS_H_

#include <cstdint>
#include <string>
#include <vector>

namespace dravikctl {

struct Options;

// What a command does, for the options that apply to it.
enum Kind : unsigned {
  kSends = 1,
  kMonitors = 2,
  kSimulates = 4,
  kDecodes = 8,
  kPrints = 16,    // prints what it knows without the daemon
  kLists = 32,     // list
  kInspects = 64,  // status, wait
  kAnyKind = 127,
};

// An argument of a command: what becomes of it.
enum class Argument {
  channel,      // N: the message's channel
  status,       // STATUS: the message's status
  requestId,    // ID: the message's correlation id
  sentPath,     // FILE: the message's file name, made absolute
  blockFile,    // FILE: whose bytes are the message's block
  captureFile,  // FILE: a capture to read
  className,    // CLASS: a catalogue class by name or selector
  fields,       // NAME=VALUE...: its arguments, any number (last)
  topic,        // [COMMAND]: a command to tell about, or none (last)
};

struct Command {
  const char* name;
  std::vector<Argument> arguments;  // in the order they are typed
  Kind kind;
  // For a command that sends: the catalogue class of its message (null:
  // named on the command line), and the endpoint that it signs with unless
  // --sender says otherwise.
  const char* className;
  int32_t sender;
  int (*run)(const Options& options);
  const char* summary;  // one line for the list of commands
  const char* details;  // what `dravikctl help NAME` adds; may be empty
  // For a command with a channel: what dravik does with one outside 0 to 3,
  // which it takes by design.
  const char* badChannel = nullptr;
};

const std::vector<Command>& commands();
// The command called `name`, or null.
const Command* findCommand(const std::string& name);
// "N", "STATUS", "ID", "FILE", "CLASS", "[NAME=VALUE...]" or "[COMMAND]",
// as the usage names the argument.
const char* usageName(Argument argument);

// What the rows run.
int runOneShot(const Options& options);      // one_shot.cc: the commands that send
int runMonitor(const Options& options);      // monitor.cc
int runDecode(const Options& options);       // monitor.cc
int runSimulate(const Options& options);     // simulate.cc
int printDissector(const Options& options);  // dissector.cc
int runList(const Options& options);         // observe.cc
int runStatus(const Options& options);       // observe.cc
int runWait(const Options& options);         // observe.cc
int runHelp(const Options& options);         // options.cc

}  // namespace dravikctl

#endif  // DRAVIK_TOOLS_DRAVIKCTL_COMMANDS_H_
