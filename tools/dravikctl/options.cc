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

// What a command does, for the options that apply to it.
enum Group : unsigned {
  kSends = 1,
  kMonitors = 2,
  kSimulates = 4,
  kDecodes = 8,
  kPrints = 16,
  kAll = 31,
};

struct CommandRule {
  const char* name;
  std::vector<const char*> arguments;  // names as the usage shows them
  Group group;
};

const std::vector<CommandRule>& commands() {
  static const std::vector<CommandRule> table = {
      {"reset-all", {}, kSends},
      {"reset-channel", {"N"}, kSends},
      {"reset-calibration", {"N"}, kSends},
      {"reset-filter", {"N"}, kSends},
      {"set-filter", {"N", "FILE"}, kSends},
      {"save-filter", {"N", "STATUS"}, kSends},
      {"calibration-response", {"ID", "FILE"}, kSends},
      {"get-filter", {"N"}, kSends},
      {"monitor", {}, kMonitors},
      {"simulate", {}, kSimulates},
      {"decode", {"FILE"}, kDecodes},
      {"dissector", {}, kPrints},
  };
  return table;
}

struct OptionRule {
  const char* name;
  bool takesValue;
  unsigned groups;
  const char* appliesTo;  // for the error when it does not apply
};

const char* const kSending = "commands that send a message";
const char* const kReading = "commands that read the notification pipe";

// getopt_long returns the index of the rule plus kFirstLong.
constexpr int kFirstLong = 256;

const std::vector<OptionRule>& optionRules() {
  static const std::vector<OptionRule> table = {
      {"help", false, kAll, ""},
      {"version", false, kAll, ""},
      {"mailbox", true, kAll, ""},
      {"notifications", true, kAll, ""},
      {"timeout", true, kAll, ""},
      {"sender", true, kSends, kSending},
      {"response-selector", true, kSends, kSending},
      {"no-wait", false, kSends, kSending},
      {"pid", true, kSends | kMonitors, "monitor and commands that send a message"},
      {"direct", false, kSends | kMonitors, "monitor and commands that send a message"},
      {"force", false, kSends | kMonitors | kSimulates, kReading},
      {"hex", false, kMonitors | kSimulates | kDecodes, "monitor, simulate and decode"},
      {"json", false, kMonitors | kSimulates | kDecodes, "monitor, simulate and decode"},
      {"count", true, kMonitors | kSimulates | kDecodes, "monitor, simulate and decode"},
      {"duration", true, kMonitors | kSimulates, "monitor and simulate"},
      {"log", false, kMonitors, "monitor"},
      {"pcap", true, kMonitors, "monitor"},
      {"selector", true, kMonitors | kDecodes, "monitor and decode"},
      {"channel", true, kMonitors | kDecodes, "monitor and decode"},
      {"endpoint", true, kMonitors | kDecodes, "monitor and decode"},
      {"direction", true, kMonitors | kDecodes, "monitor and decode"},
      {"filter-status", true, kSimulates, "simulate"},
      {"block-size", true, kSimulates, "simulate"},
  };
  return table;
}

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

std::string usageOf(const CommandRule& command) {
  std::string text = command.name;
  for (const char* a : command.arguments) text += std::string(" ") + a;
  return text;
}

bool setOption(const OptionRule& rule, const std::string& value, Options* o, std::string* whyNot) {
  std::string name = rule.name;
  auto bad = [&](const char* what) {
    *whyNot = "invalid --" + name + " value '" + value + "' (" + what + ")";
    return false;
  };
  int32_t n = 0;
  if (name == "help") {
    o->help = true;
  } else if (name == "version") {
    o->version = true;
  } else if (name == "mailbox" || name == "notifications" || name == "pcap") {
    if (value.empty()) return bad("a path");
    (name == "mailbox" ? o->mailbox : name == "notifications" ? o->notifications : o->pcap) = value;
  } else if (name == "timeout") {
    if (!parseSeconds(value, &o->timeout)) return bad("seconds, more than 0");
  } else if (name == "duration") {
    if (!parseSeconds(value, &o->duration)) return bad("seconds, more than 0");
  } else if (name == "sender") {
    if (!parseInt32(value, &o->sender)) return bad("an endpoint number");
  } else if (name == "response-selector") {
    if (!parseInt32(value, &o->responseSelector)) return bad("a selector number");
  } else if (name == "filter-status") {
    if (!parseInt32(value, &o->filterStatus)) return bad("a 32-bit number");
  } else if (name == "pid") {
    if (!parseInt32(value, &n) || n <= 0) return bad("a process id");
    o->pid = n;
  } else if (name == "count") {
    if (!parseInt32(value, &n) || n <= 0) return bad("a number of frames, more than 0");
    o->count = n;
  } else if (name == "block-size") {
    if (!parseInt32(value, &n) || n < 0 || static_cast<uint32_t>(n) > kLargestCalibrationBlock) {
      return bad("0 to 65488 bytes");
    }
    o->blockSize = static_cast<uint32_t>(n);
  } else if (name == "selector") {
    if (!parseInt32(value, &n)) return bad("a selector number");
    o->filter.selectors.push_back(n);
  } else if (name == "channel") {
    if (!parseInt32(value, &n)) return bad("a channel number");
    o->filter.channel = n;
  } else if (name == "endpoint") {
    if (!parseInt32(value, &n)) return bad("an endpoint number");
    o->filter.endpoint = n;
  } else if (name == "direction") {
    if (value != "in" && value != "out") return bad("in or out");
    o->filter.direction = value == "in" ? catalogue::Flow::in : catalogue::Flow::out;
  } else {
    bool* flag = name == "hex" ? &o->hex : name == "json" ? &o->json : name == "log" ? &o->log
               : name == "direct" ? &o->direct : name == "force" ? &o->force : &o->noWait;
    *flag = true;
  }
  return true;
}

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

}  // namespace

bool parseCommandLine(int argc, char* const argv[], Options* options, std::string* whyNot) {
  // A negative number ("save-filter 1 -5", "--sender -3") is an argument,
  // not an option: getopt_long gets a stand-in that does not begin with '-'
  // and the number comes back by the stand-in's address.
  std::vector<std::string> standIns;
  standIns.reserve(static_cast<std::size_t>(argc));
  std::vector<char*> args(argv, argv + argc);
  std::set<const char*> negative;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--") == 0) break;
    if (argv[i][0] == '-' && argv[i][1] >= '0' && argv[i][1] <= '9') {
      standIns.push_back(std::string("n") + argv[i]);
      args[static_cast<std::size_t>(i)] = &standIns.back()[0];
      negative.insert(args[static_cast<std::size_t>(i)]);
    }
  }
  args.push_back(nullptr);
  auto text = [&](const char* arg) { return negative.count(arg) != 0 ? std::string(arg + 1) : std::string(arg); };

  std::vector<struct option> longOptions;
  for (std::size_t i = 0; i < optionRules().size(); ++i) {
    const OptionRule& rule = optionRules()[i];
    longOptions.push_back({rule.name, rule.takesValue ? required_argument : no_argument, nullptr,
                           kFirstLong + static_cast<int>(i)});
  }
  longOptions.push_back({nullptr, 0, nullptr, 0});

  Options o;
  std::set<std::string> given;
  std::string firstError;
  optind = 0;  // a fresh scan, for every call
  opterr = 0;
  for (;;) {
    int index = 0;
    int c = getopt_long(argc, args.data(), ":hV", longOptions.data(), &index);
    if (c == -1) break;
    std::string problem;
    if (c == 'h' || c == 'V') {
      (c == 'h' ? o.help : o.version) = true;
    } else if (c == ':') {
      problem = optopt >= kFirstLong ? std::string("option '--") + optionRules()[optopt - kFirstLong].name + "' needs a value"
                                     : std::string("option '-") + static_cast<char>(optopt) + "' needs a value";
    } else if (c == '?') {
      problem = refusedOption(text(args[optind - 1]), optopt);
    } else {
      const OptionRule& rule = optionRules()[c - kFirstLong];
      if (setOption(rule, optarg != nullptr ? text(optarg) : "", &o, &problem)) given.insert(rule.name);
    }
    if (!problem.empty() && firstError.empty()) firstError = problem;
  }
  if (o.help || o.version) {
    Options shown;
    shown.help = o.help;
    shown.version = o.version;
    *options = shown;
    return true;
  }
  if (!firstError.empty()) {
    *whyNot = firstError;
    return false;
  }

  std::vector<std::string> positional;
  for (int i = optind; i < argc; ++i) positional.push_back(text(args[static_cast<std::size_t>(i)]));
  if (positional.empty()) {
    *whyNot = "no command given";
    return false;
  }
  const CommandRule* command = nullptr;
  for (const CommandRule& c : commands()) {
    if (positional[0] == c.name) command = &c;
  }
  if (command == nullptr) {
    *whyNot = "unknown command '" + positional[0] + "'";
    return false;
  }
  o.command = command->name;
  std::size_t count = positional.size() - 1;
  if (count != command->arguments.size()) {
    if (command->arguments.empty()) {
      *whyNot = std::string(command->name) + " takes no arguments";
    } else {
      std::string expected = usageOf(*command).substr(std::strlen(command->name) + 1);
      *whyNot = std::string(command->name) + " takes " + expected + ", got " + std::to_string(count) +
               (count == 1 ? " argument" : " arguments");
    }
    return false;
  }
  for (std::size_t k = 0; k < count; ++k) {
    const std::string name = command->arguments[k];
    const std::string& value = positional[k + 1];
    bool ok = true;
    if (name == "N") {
      ok = parseInt32(value, &o.channel);
      if (!ok) *whyNot = "invalid channel '" + value + "' (a number such as 0 to 3)";
    } else if (name == "STATUS") {
      ok = parseInt32(value, &o.status);
      if (!ok) *whyNot = "invalid status '" + value + "' (a 32-bit number; 0 is success)";
    } else if (name == "ID") {
      ok = parseInt32(value, &o.requestId);
      if (!ok) *whyNot = "invalid request id '" + value + "' (a 32-bit number)";
    } else if (name == "FILE") {
      o.file = value;
    }
    if (!ok) return false;
  }

  for (const OptionRule& rule : optionRules()) {
    if (given.count(rule.name) != 0 && (rule.groups & command->group) == 0) {
      *whyNot = std::string("option '--") + rule.name + "' applies to " + rule.appliesTo + " only";
      return false;
    }
  }
  if (o.direct && o.pid != 0) {
    *whyNot = "--direct reads the notification pipe; --pid names a process to tap: choose one";
    return false;
  }
  if (o.noWait && (o.direct || o.pid != 0)) {
    *whyNot = "--no-wait only sends; --direct and --pid say how to wait";
    return false;
  }
  if (o.direct && (o.log || !o.pcap.empty())) {
    *whyNot = "--log and --pcap need the tap, which --direct turns off";
    return false;
  }
  if (given.count("sender") == 0) {
    if (o.command == "calibration-response") o.sender = kEngineEndpoint;
    if (o.command == "save-filter") o.sender = kFilterEndpoint;
  }
  if (given.count("response-selector") == 0 && o.command == "get-filter") {
    o.responseSelector = kGetAnalyticsFilterDataResponseSelector;
  }
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
