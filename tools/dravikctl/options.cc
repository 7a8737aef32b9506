#include "tools/dravikctl/options.h"

#include <getopt.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <set>
#include <vector>

#include "messaging/frame_format.h"
#include "store/catalogue.h"

namespace dravikctl {
namespace {

// Stores an option's value. Returns what the value should be ("seconds,
// more than 0") when it is refused, nothing when it is taken.
using Setter = std::string (*)(const std::string& value, Options* o);

struct OptionRule {
  const char* name;
  bool takesValue;
  unsigned kinds;         // of the commands it applies to
  const char* appliesTo;  // those commands, for the error when it does not apply
  Setter set;
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
const char* const kReading = "commands that read the notification pipe";
const unsigned kShowsFrames = kMonitors | kSimulates | kDecodes;
const char* const kPrinting = "monitor, simulate and decode";
const char* const kFiltering = "monitor and decode";

const std::vector<OptionRule>& optionRules() {
  using V = const std::string&;
  static const std::vector<OptionRule> table = {
      {"help", false, kAnyKind, "", [](V, Options* o) { return setFlag(&o->help); }},
      {"version", false, kAnyKind, "", [](V, Options* o) { return setFlag(&o->version); }},
      {"mailbox", true, kAnyKind, "", [](V v, Options* o) { return setPath(v, &o->mailbox); }},
      {"notifications", true, kAnyKind, "", [](V v, Options* o) { return setPath(v, &o->notifications); }},
      {"timeout", true, kAnyKind, "", [](V v, Options* o) { return setSeconds(v, &o->timeout); }},
      {"sender", true, kSends, kSending,
       [](V v, Options* o) { return setNumber(v, &o->sender, "an endpoint number"); }},
      {"response-selector", true, kSends, kSending,
       [](V v, Options* o) { return setNumber(v, &o->responseSelector, "a selector number"); }},
      {"no-wait", false, kSends, kSending, [](V, Options* o) { return setFlag(&o->noWait); }},
      {"pid", true, kSends | kMonitors, kTapping,
       [](V v, Options* o) { return setPositive(v, &o->pid, "a process id"); }},
      {"direct", false, kSends | kMonitors, kTapping, [](V, Options* o) { return setFlag(&o->direct); }},
      {"force", false, kSends | kMonitors | kSimulates, kReading, [](V, Options* o) { return setFlag(&o->force); }},
      {"hex", false, kShowsFrames, kPrinting, [](V, Options* o) { return setFlag(&o->style.hex); }},
      {"json", false, kShowsFrames, kPrinting, [](V, Options* o) { return setFlag(&o->style.json); }},
      {"count", true, kShowsFrames, kPrinting,
       [](V v, Options* o) { return setPositive(v, &o->count, "a number of frames, more than 0"); }},
      {"duration", true, kMonitors | kSimulates, "monitor and simulate",
       [](V v, Options* o) { return setSeconds(v, &o->duration); }},
      {"log", false, kMonitors, "monitor", [](V, Options* o) { return setFlag(&o->log); }},
      {"pcap", true, kMonitors, "monitor", [](V v, Options* o) { return setPath(v, &o->pcap); }},
      {"selector", true, kMonitors | kDecodes, kFiltering,
       [](V v, Options* o) {
         int32_t selector = 0;
         std::string refused = setNumber(v, &selector, "a selector number");
         if (refused.empty()) o->style.filter.selectors.push_back(selector);
         return refused;
       }},
      {"channel", true, kMonitors | kDecodes, kFiltering,
       [](V v, Options* o) { return setNumber(v, &o->style.filter.channel, "a channel number"); }},
      {"endpoint", true, kMonitors | kDecodes, kFiltering,
       [](V v, Options* o) { return setNumber(v, &o->style.filter.endpoint, "an endpoint number"); }},
      {"direction", true, kMonitors | kDecodes, kFiltering, [](V v, Options* o) { return setDirection(v, o); }},
      {"filter-status", true, kSimulates, "simulate",
       [](V v, Options* o) { return setNumber(v, &o->filterStatus, "a 32-bit number"); }},
      {"block-size", true, kSimulates, "simulate", [](V v, Options* o) { return setBlockSize(v, &o->blockSize); }},
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
  if (candidates.size() == 1 && !candidates[0]->takesValue && arg.find('=') != std::string::npos) {
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
    longOptions.push_back({rule.name, rule.takesValue ? required_argument : no_argument, nullptr,
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
  }
  return true;
}

// The command and its arguments: what is left after the options.
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
  if (count != command.arguments.size()) {
    if (command.arguments.empty()) {
      *whyNot = std::string(command.name) + " takes no arguments";
      return false;
    }
    std::string expected;
    for (Argument a : command.arguments) expected += std::string(expected.empty() ? "" : " ") + usageName(a);
    *whyNot = std::string(command.name) + " takes " + expected + ", got " + std::to_string(count) +
              (count == 1 ? " argument" : " arguments");
    return false;
  }
  for (std::size_t k = 0; k < count; ++k) {
    if (!readArgument(command.arguments[k], words[k + 1], o, whyNot)) return false;
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
  } else if (o.noWait && (o.direct || o.pid != 0)) {
    *whyNot = "--no-wait only sends; --direct and --pid say how to wait";
  } else if (o.direct && (o.log || !o.pcap.empty())) {
    *whyNot = "--log and --pcap need the tap, which --direct turns off";
  } else {
    return true;
  }
  return false;
}

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

const char* usageText() {
  return R"(Usage: dravikctl [OPTIONS] COMMAND [ARGUMENTS]

Talks to the dravik parameter storage service through its named pipes, and
watches it through a tap (ptrace) that takes nothing from them.

Commands that send one message to the service, then show what the service
logged while handling it (exit status 1 when that was an error):
  reset-all                     factory reset of all four channels
  reset-channel N               factory reset of channel N (filter and calibration)
  reset-calibration N           delete the stored calibration of channel N
  reset-filter N                delete the stored analytics filter of channel N
  set-filter N FILE             have the filter in FILE applied to channel N; the
                                service saves it when endpoint 2 reports success
                                (FILE must be on the store's file system; a
                                relative name is sent as an absolute path)
  save-filter N STATUS          report endpoint 2's STATUS for channel N's new
                                filter (0: applied, the file is saved)
  calibration-response ID FILE  answer calibration request ID with the bytes of FILE
  get-filter N                  ask for the filter file of channel N, print its path

Commands that watch:
  monitor                       print every frame into and out of the service,
                                decoded, with requests paired with their answers
  decode FILE                   print a capture made with monitor --pcap
  simulate                      play the analytics engine (11) and endpoint 2:
                                answer calibration requests and filter settings;
                                reads the notification pipe, so it is the only
                                reader there (the camera's own must be stopped)
  dissector                     print the Wireshark dissector (Lua) for captures

Options:
  --mailbox PATH          the service's command pipe (default /tmp/dravik.mailbox)
  --notifications PATH    the service's notification pipe (default /tmp/comm.mailbox)
  --timeout SECONDS       bound of every wait for the service (default 5)
  --sender N              sender endpoint of the message sent (default 11 for
                          calibration-response, 2 for save-filter, 100 otherwise)
  --response-selector N   response selector of the message sent (default 13003
                          for get-filter, 0 otherwise)
  --no-wait               send only: neither tap nor wait for the outcome
  --pid N                 the dravik process to tap (default: the one called dravik)
  --direct                do not tap (it needs root or CAP_SYS_PTRACE): read the
                          notification pipe instead (monitor: only what the
                          service sends; a one-shot command: outcome unknown)
  --force                 read the notification pipe even while another process
                          reads it (that process then misses what this one takes)
  --hex                   add the whole frame to each line
  --json                  print one JSON object per line
  --count N               stop after N frames
  --duration SECONDS      stop after this time
  --log                   monitor: the service's syslog lines among the frames
  --pcap FILE             monitor: also write a pcapng capture ("-": standard
                          output, instead of the lines)
  --selector N            monitor, decode: only frames of selector N (repeatable)
  --channel N             monitor, decode: only frames about channel N
  --endpoint N            monitor, decode: only frames from or to endpoint N
  --direction in|out      monitor, decode: only frames into or out of the service
  --filter-status N       simulate: status reported for every filter (default 0)
  --block-size N          simulate: bytes of each calibration block (default 64)
  -h, --help              show this help and exit
  -V, --version           show the version and exit

A frame is printed as: time (UTC), in or out, class, sender->recipient, id,
corr (correlation id), resp (response selector), arguments, stamp (the
frame's own time) and age; an answer also names the request it answers.
Exit status: 0 done, 1 the service could not be reached, did not answer or
logged an error, 2 bad arguments.
)";
}

}  // namespace dravikctl
