#include "tools/dravikctl/options.h"

#include <getopt.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <set>
#include <vector>

#include "messaging/frame_format.h"
#include "store/catalogue.h"
#include "tools/dravikctl/report.h"

namespace dravikctl {
namespace {

// Stores an option's value. Returns what the value should be ("seconds,
// more than 0") when it is refused, nothing when it is taken.
using Setter = std::string (*)(const std::string& value, Options* o);

struct OptionRule {
  const char* name;
  const char* value;      // what it takes ("SECONDS"), or null for a flag
  unsigned kinds;         // of the commands it applies to
  const char* appliesTo;  // those commands, for the error when it does not apply
  Setter set;
  const char* help;       // for --help; lines after the first are indented
};

bool parseInt32(const std::string& text, int32_t* value) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  long long v = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || v < INT32_MIN || v > INT32_MAX) return false;
  if (!(text[0] == '-' || (text[0] >= '0' && text[0] <= '9'))) return false;  // no blanks, no '+'
  *value = static_cast<int32_t>(v);
  return true;
}

bool parseSeconds(const std::string& text, double* value) {
  if (text.empty() || !(text[0] >= '0' && text[0] <= '9')) return false;
  errno = 0;
  char* end = nullptr;
  double v = std::strtod(text.c_str(), &end);
  if (errno != 0 || *end != '\0' || !std::isfinite(v) || v <= 0 || v > 86400.0 * 365) return false;
  *value = v;
  return true;
}

// The setters' shapes.
std::string setFlag(bool* to) {
  *to = true;
  return "";
}

std::string setPath(const std::string& value, std::string* to) {
  if (value.empty()) return "a path";
  *to = value;
  return "";
}

std::string setSeconds(const std::string& value, double* to) {
  return parseSeconds(value, to) ? "" : "seconds, more than 0";
}

template <class T>
std::string setNumber(const std::string& value, T* to, const char* form) {
  int32_t n = 0;
  if (!parseInt32(value, &n)) return form;
  *to = n;
  return "";
}

template <class T>
std::string setPositive(const std::string& value, T* to, const char* form) {
  int32_t n = 0;
  if (!parseInt32(value, &n) || n <= 0) return form;
  *to = n;
  return "";
}

std::string setBlockSize(const std::string& value, uint32_t* to) {
  int32_t n = 0;
  if (!parseInt32(value, &n) || n < 0 || static_cast<uint32_t>(n) > kLargestCalibrationBlock) {
    return "0 to " + std::to_string(kLargestCalibrationBlock) + " bytes";
  }
  *to = static_cast<uint32_t>(n);
  return "";
}

std::string setDirection(const std::string& value, Options* o) {
  if (value != "in" && value != "out") return "in or out";
  o->style.filter.direction = value == "in" ? catalogue::Flow::in : catalogue::Flow::out;
  return "";
}

const char* const kSending = "commands that send a message";
const char* const kTapping = "monitor and commands that send a message";
const char* const kFindsDaemon = "monitor, status, wait and commands that send a message";
const char* const kReading = "commands that read the notification pipe";
const unsigned kShowsFrames = kMonitors | kSimulates | kDecodes;
const char* const kPrinting = "monitor, simulate and decode";
const char* const kFiltering = "monitor and decode";

const std::vector<OptionRule>& optionRules() {
  using V = const std::string&;
  static const std::vector<OptionRule> table = {
      {"help", nullptr, kAnyKind, "", [](V, Options* o) { return setFlag(&o->help); },
       "show the help (of the command given) and exit"},
      {"version", nullptr, kAnyKind, "", [](V, Options* o) { return setFlag(&o->version); },
       "show the version and exit"},
      {"mailbox", "PATH", kAnyKind, "", [](V v, Options* o) { return setPath(v, &o->mailbox); },
       "the service's command pipe (default /tmp/dravik.mailbox)"},
      {"notifications", "PATH", kAnyKind, "", [](V v, Options* o) { return setPath(v, &o->notifications); },
       "the service's notification pipe (default /tmp/comm.mailbox)"},
      {"timeout", "SECONDS", kAnyKind, "", [](V v, Options* o) { return setSeconds(v, &o->timeout); },
       "bound of every wait for the service (default 5)"},
      {"sender", "N", kSends, kSending,
       [](V v, Options* o) { return setNumber(v, &o->sender, "an endpoint number"); },
       "sender endpoint of the message sent (default 11 for calibration-response,\n"
       "2 for save-filter, 100 otherwise)"},
      {"response-selector", "N", kSends, kSending,
       [](V v, Options* o) { return setNumber(v, &o->responseSelector, "a selector number"); },
       "response selector of the message sent (default: its class's, 13003 for a\n"
       "GetAnalyticsFilterDataRequest, 0 otherwise)"},
      {"correlation-id", "N", kSends, kSending,
       [](V v, Options* o) { return setNumber(v, &o->correlationId, "a 32-bit number"); },
       "correlation id of the message sent (default 0; calibration-response: ID)"},
      {"no-wait", nullptr, kSends, kSending, [](V, Options* o) { return setFlag(&o->noWait); },
       "send only: neither tap nor wait for the outcome (exit status 3)"},
      {"wait-save", nullptr, kSends, kSending, [](V, Options* o) { return setFlag(&o->waitSave); },
       "set-filter: wait for endpoint 2's answer and dravik's save; their outcome\n"
       "is the verdict"},
      {"json", nullptr, kShowsFrames | kSends | kLists | kInspects, "commands that send, monitor, simulate, decode, list and status",
       [](V, Options* o) { return setFlag(&o->style.json); }, "print JSON: one object per line"},
      {"pid", "N", kSends | kMonitors | kInspects, kFindsDaemon,
       [](V v, Options* o) { return setPositive(v, &o->pid, "a process id"); },
       "the dravik process (default: the one called dravik that reads the mailbox)"},
      {"direct", nullptr, kSends | kMonitors, kTapping, [](V, Options* o) { return setFlag(&o->direct); },
       "do not tap (it needs root or CAP_SYS_PTRACE): read the notification pipe\n"
       "instead (monitor: only what the service sends; a one-shot command: the\n"
       "answer of a request, the outcome of a command is not known)"},
      {"force", nullptr, kSends | kMonitors | kSimulates, kReading, [](V, Options* o) { return setFlag(&o->force); },
       "read the notification pipe even while another process reads it (that\n"
       "process then misses what this one takes)"},
      {"hex", nullptr, kShowsFrames, kPrinting, [](V, Options* o) { return setFlag(&o->style.hex); },
       "add the whole frame to each line"},
      {"no-age", nullptr, kShowsFrames, kPrinting, [](V, Options* o) { return setFlag(&o->style.noAge); },
       "leave out each frame's age (when the sender's clock is not this one's)"},
      {"count", "N", kShowsFrames, kPrinting,
       [](V v, Options* o) { return setPositive(v, &o->count, "a number of frames, more than 0"); },
       "stop after N frames"},
      {"duration", "SECONDS", kMonitors | kSimulates, "monitor and simulate",
       [](V v, Options* o) { return setSeconds(v, &o->duration); }, "stop after this time"},
      {"log", nullptr, kMonitors, "monitor", [](V, Options* o) { return setFlag(&o->log); },
       "the service's syslog lines among the frames"},
      {"pcap", "FILE", kMonitors, "monitor", [](V v, Options* o) { return setPath(v, &o->pcap); },
       "also write a pcapng capture (\"-\": standard output, instead of the lines)"},
      {"follow", nullptr, kMonitors, "monitor", [](V, Options* o) { return setFlag(&o->follow); },
       "when dravik ends, wait for the next one and tap it"},
      {"selector", "N", kMonitors | kDecodes, kFiltering,
       [](V v, Options* o) {
         int32_t selector = 0;
         std::string refused = setNumber(v, &selector, "a selector number");
         if (refused.empty()) o->style.filter.selectors.push_back(selector);
         return refused;
       },
       "only frames of selector N (repeatable)"},
      {"channel", "N", kMonitors | kDecodes, kFiltering,
       [](V v, Options* o) { return setNumber(v, &o->style.filter.channel, "a channel number"); },
       "only frames about channel N (and the answers to its requests)"},
      {"endpoint", "N", kMonitors | kDecodes, kFiltering,
       [](V v, Options* o) { return setNumber(v, &o->style.filter.endpoint, "an endpoint number"); },
       "only frames from or to endpoint N"},
      {"direction", "in|out", kMonitors | kDecodes, kFiltering, [](V v, Options* o) { return setDirection(v, o); },
       "only frames into or out of the service"},
      {"filter-status", "N", kSimulates, "simulate",
       [](V v, Options* o) { return setNumber(v, &o->filterStatus, "a 32-bit number"); },
       "status reported for every filter (default 0)"},
      {"block-size", "N", kSimulates, "simulate", [](V v, Options* o) { return setBlockSize(v, &o->blockSize); },
       "bytes of each calibration block (default 64)"},
  };
  return table;
}

// getopt_long returns the index of the rule plus kFirstLong.
constexpr int kFirstLong = 256;

// The command line as getopt_long is to see it. A negative number
// ("save-filter 1 -5", "--sender -3") is an argument, not an option: it goes
// in as a stand-in that does not begin with '-', and comes back by the
// stand-in's address.
class Arguments {
 public:
  Arguments(int argc, char* const argv[]) : args_(argv, argv + argc) {
    standIns_.reserve(static_cast<std::size_t>(argc));  // their addresses must hold
    for (std::size_t i = 1; i < args_.size(); ++i) {
      if (std::strcmp(args_[i], "--") == 0) break;
      if (args_[i][0] == '-' && args_[i][1] >= '0' && args_[i][1] <= '9') {
        standIns_.push_back(std::string("n") + args_[i]);
        args_[i] = &standIns_.back()[0];
        negative_.insert(args_[i]);
      }
    }
    args_.push_back(nullptr);
  }
  int count() const { return static_cast<int>(args_.size()) - 1; }
  char** argv() { return args_.data(); }
  // An argument as it was typed.
  std::string text(const char* arg) const { return negative_.count(arg) != 0 ? arg + 1 : arg; }
  std::string text(int index) const { return text(args_[static_cast<std::size_t>(index)]); }

 private:
  std::vector<std::string> standIns_;
  std::vector<char*> args_;
  std::set<const char*> negative_;
};

// The error for an option that getopt_long refused: `arg` as typed.
std::string refusedOption(const std::string& arg, int shortOption) {
  if (arg.compare(0, 2, "--") != 0) return "unknown option '-" + std::string(1, static_cast<char>(shortOption)) + "'";
  std::string name = arg.substr(2, arg.find('=') - 2);
  std::vector<const OptionRule*> candidates;
  for (const OptionRule& rule : optionRules()) {
    if (name == rule.name) {
      candidates.assign(1, &rule);
      break;
    }
    if (!name.empty() && std::strncmp(rule.name, name.c_str(), name.size()) == 0) candidates.push_back(&rule);
  }
  if (candidates.size() > 1) return "ambiguous option '--" + name + "'";
  if (candidates.size() == 1 && candidates[0]->value == nullptr && arg.find('=') != std::string::npos) {
    return std::string("option '--") + candidates[0]->name + "' takes no value";
  }
  return "unknown option '--" + name + "'";
}

// Reads every option into `o`, and the names of those taken into `given`.
// The first error, if any, goes to `firstError`; the rest are read all the
// same, since --help wins over them.
void readOptions(Arguments& args, Options* o, std::set<std::string>* given, std::string* firstError) {
  std::vector<struct option> longOptions;
  for (std::size_t i = 0; i < optionRules().size(); ++i) {
    const OptionRule& rule = optionRules()[i];
    longOptions.push_back({rule.name, rule.value != nullptr ? required_argument : no_argument, nullptr,
                           kFirstLong + static_cast<int>(i)});
  }
  longOptions.push_back({nullptr, 0, nullptr, 0});
  optind = 0;  // a fresh scan, for every call
  opterr = 0;
  for (;;) {
    int index = 0;
    int c = getopt_long(args.count(), args.argv(), ":hV", longOptions.data(), &index);
    if (c == -1) break;
    std::string problem;
    if (c == 'h' || c == 'V') {
      (c == 'h' ? o->help : o->version) = true;
    } else if (c == ':') {
      problem = optopt >= kFirstLong ? std::string("option '--") + optionRules()[optopt - kFirstLong].name + "' needs a value"
                                     : std::string("option '-") + static_cast<char>(optopt) + "' needs a value";
    } else if (c == '?') {
      problem = refusedOption(args.text(optind - 1), optopt);
    } else {
      const OptionRule& rule = optionRules()[c - kFirstLong];
      std::string value = optarg != nullptr ? args.text(optarg) : "";
      std::string form = rule.set(value, o);
      if (form.empty()) {
        given->insert(rule.name);
      } else {
        problem = std::string("invalid --") + rule.name + " value '" + value + "' (" + form + ")";
      }
    }
    if (!problem.empty() && firstError->empty()) *firstError = problem;
  }
}

bool readArgument(Argument argument, const std::string& value, Options* o, std::string* whyNot) {
  switch (argument) {
    case Argument::channel:
      if (parseInt32(value, &o->channel)) return true;
      *whyNot = "invalid channel '" + value + "' (a number such as 0 to 3)";
      return false;
    case Argument::status:
      if (parseInt32(value, &o->status)) return true;
      *whyNot = "invalid status '" + value + "' (a 32-bit number; 0 is success)";
      return false;
    case Argument::requestId:
      if (parseInt32(value, &o->requestId)) return true;
      *whyNot = "invalid request id '" + value + "' (a 32-bit number)";
      return false;
    case Argument::sentPath:
    case Argument::blockFile:
    case Argument::captureFile:
      o->file = value;
      return true;
    case Argument::className:
      o->className = value;
      return true;
    case Argument::fields:
      o->fields.push_back(value);
      return true;
    case Argument::topic:
      if (findCommand(value) != nullptr) {
        o->topic = value;
        return true;
      }
      *whyNot = "unknown command '" + value + "'";
      return false;
  }
  return true;
}

// "N STATUS", as the usage shows a command's arguments.
std::string argumentsText(const Command& command) {
  std::string text;
  for (Argument a : command.arguments) text += std::string(text.empty() ? "" : " ") + usageName(a);
  return text;
}

// The command and its arguments: what is left after the options. The last
// argument may take any number of words (fields) or none (topic).
bool readCommand(const std::vector<std::string>& words, Options* o, std::string* whyNot) {
  if (words.empty()) {
    *whyNot = "no command given";
    return false;
  }
  o->command = findCommand(words[0]);
  if (o->command == nullptr) {
    *whyNot = "unknown command '" + words[0] + "'";
    return false;
  }
  const Command& command = *o->command;
  std::size_t count = words.size() - 1;
  std::size_t required = command.arguments.size();
  std::size_t most = required;
  if (required > 0 && command.arguments.back() == Argument::fields) {
    --required;
    most = count;
  } else if (required > 0 && command.arguments.back() == Argument::topic) {
    --required;
  }
  if (count < required || count > most) {
    if (command.arguments.empty()) {
      *whyNot = std::string(command.name) + " takes no arguments";
    } else {
      *whyNot = std::string(command.name) + " takes " + argumentsText(command) + ", got " + std::to_string(count) +
                (count == 1 ? " argument" : " arguments");
    }
    return false;
  }
  for (std::size_t k = 0; k < count; ++k) {
    Argument a = command.arguments[std::min(k, command.arguments.size() - 1)];
    if (!readArgument(a, words[k + 1], o, whyNot)) return false;
  }
  return true;
}

// Options given that do not apply to the command, or that contradict each other.
bool checkOptions(const Options& o, const std::set<std::string>& given, std::string* whyNot) {
  for (const OptionRule& rule : optionRules()) {
    if (given.count(rule.name) != 0 && (rule.kinds & o.command->kind) == 0) {
      *whyNot = std::string("option '--") + rule.name + "' applies to " + rule.appliesTo + " only";
      return false;
    }
  }
  if (o.direct && o.pid != 0) {
    *whyNot = "--direct reads the notification pipe; --pid names a process to tap: choose one";
  } else if (o.noWait && (o.direct || o.pid != 0 || o.waitSave)) {
    *whyNot = "--no-wait only sends; --direct, --pid and --wait-save say how to wait";
  } else if (o.direct && (o.log || !o.pcap.empty() || o.follow || o.waitSave)) {
    *whyNot = "--log, --pcap, --follow and --wait-save need the tap, which --direct turns off";
  } else if (o.follow && o.pid != 0) {
    *whyNot = "--follow finds each new dravik by its name; --pid names one process: choose one";
  } else if (o.waitSave && (o.command->className == nullptr || std::string(o.command->name) != "set-filter") &&
             !(o.command->className == nullptr && o.className == "SetAnalyticsFilterDataCommand")) {
    *whyNot = "--wait-save applies to set-filter (and call SetAnalyticsFilterDataCommand) only";
  } else {
    return true;
  }
  return false;
}

// One option's lines of the help.
std::string optionHelp(const OptionRule& rule) {
  std::string head = std::string("  --") + rule.name + (rule.value != nullptr ? std::string(" ") + rule.value : "");
  if (std::string(rule.name) == "help") head = "  -h, --help";
  if (std::string(rule.name) == "version") head = "  -V, --version";
  std::string text;
  std::string help = rule.help;
  for (std::size_t start = 0; start <= help.size();) {
    std::size_t end = help.find('\n', start);
    if (end == std::string::npos) end = help.size();
    std::string left = text.empty() ? head : "";
    left.resize(std::max<std::size_t>(left.size() + 1, 26), ' ');
    text += left + help.substr(start, end - start) + "\n";
    start = end + 1;
  }
  return text;
}

std::string commandLine(const Command& command) {
  std::string args = argumentsText(command);
  return std::string(command.name) + (args.empty() ? "" : " " + args);
}

const char* const kExitStatuses =
    "Exit status of a command that sends: 0 dravik was seen to accept the message (and\n"
    "answer a request); 1 it was seen to refuse it (an error in its log, a failed rename,\n"
    "no answer); 3 sent, but the outcome could not be seen (no tap, no log, a timeout:\n"
    "the message may still run); 4 not sent (no dravik reads the mailbox). Other\n"
    "commands: 0 done, 1 failed. 2: bad arguments, for all.\n";

}  // namespace

bool parseCommandLine(int argc, char* const argv[], Options* options, std::string* whyNot) {
  Arguments args(argc, argv);
  Options o;
  std::set<std::string> given;
  std::string firstError;
  readOptions(args, &o, &given, &firstError);
  if (o.help || o.version) {
    *options = Options();
    options->help = o.help;
    options->version = o.version;
    if (optind < argc) options->command = findCommand(args.text(optind));
    return true;
  }
  if (!firstError.empty()) {
    *whyNot = firstError;
    return false;
  }
  std::vector<std::string> words;
  for (int i = optind; i < argc; ++i) words.push_back(args.text(i));
  if (!readCommand(words, &o, whyNot) || !checkOptions(o, given, whyNot)) return false;
  *options = o;
  return true;
}

std::string usageText() {
  std::string text =
      "Usage: dravikctl [OPTIONS] COMMAND [ARGUMENTS]\n\n"
      "Talks to the dravik parameter storage service through its named pipes, and\n"
      "watches it through a tap (ptrace) that takes nothing from them.\n\nCommands:\n";
  for (const Command& command : commands()) {
    std::string left = "  " + commandLine(command);
    left.resize(std::max<std::size_t>(left.size() + 1, 32), ' ');
    text += left + command.summary + "\n";
  }
  text += "\nOptions (`dravikctl help COMMAND` shows those of one command):\n";
  for (const OptionRule& rule : optionRules()) text += optionHelp(rule);
  return text +
         "\nA frame is printed as: time (UTC), in or out, class, sender->recipient, id,\n"
         "corr (correlation id), resp (response selector), arguments, stamp (the\n"
         "frame's own time) and age; an answer also names the request it answers.\n" +
         kExitStatuses;
}

std::string commandHelp(const Command& command) {
  std::string summary = command.summary;
  summary[0] = static_cast<char>(toupper(static_cast<unsigned char>(summary[0])));
  std::string text = "Usage: dravikctl [OPTIONS] " + commandLine(command) + "\n\n" + summary + ".\n";
  if (*command.details != '\0') text += std::string(command.details) + "\n";
  text += "\nOptions:\n";
  for (const OptionRule& rule : optionRules()) {
    if ((rule.kinds & command.kind) != 0) text += optionHelp(rule);
  }
  if ((command.kind & kSends) != 0) text += std::string("\n") + kExitStatuses;
  return text;
}

int runHelp(const Options& o) {
  const Command* command = findCommand(o.topic);
  return printText(command != nullptr ? commandHelp(*command) : usageText()) ? kExitOk : kExitFailure;
}

}  // namespace dravikctl
