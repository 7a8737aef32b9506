#include "tools/dravikctl/options.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <set>
#include <vector>

#include "store/catalogue.h"

namespace dravikctl {
namespace {

// What a command does, for the options that apply to it.
enum Group : unsigned {
  kSends = 1,
  kMonitors = 2,
  kSimulates = 4,
  kCaptures = 8,
  kAll = 15,
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
  };
  return table;
}

struct OptionRule {
  const char* name;
  bool takesValue;
  unsigned groups;
  const char* appliesTo;  // for the error when it does not apply
};

const std::vector<OptionRule>& optionRules() {
  static const std::vector<OptionRule> table = {
      {"mailbox", true, kAll, ""},
      {"notifications", true, kAll, ""},
      {"timeout", true, kAll, ""},
      {"sender", true, kSends, "commands that send a message"},
      {"response-selector", true, kSends, "commands that send a message"},
      {"hex", false, kMonitors | kSimulates, "monitor and simulate"},
      {"json", false, kMonitors | kSimulates, "monitor and simulate"},
      {"count", true, kMonitors | kSimulates | kCaptures, "monitor and simulate"},
      {"duration", true, kMonitors | kSimulates | kCaptures, "monitor and simulate"},
      {"filter-status", true, kSimulates, "simulate"},
      {"block-size", true, kSimulates, "simulate"},
      {"socket", true, kCaptures, "syslog-capture"},
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

bool looksLikeNumber(const char* arg) { return arg[0] == '-' && arg[1] >= '0' && arg[1] <= '9'; }

std::string usageOf(const CommandRule& command) {
  std::string text = command.name;
  for (const char* a : command.arguments) text += std::string(" ") + a;
  return text;
}

bool setOption(const OptionRule& rule, const std::string& value, Options* o, std::string* error) {
  std::string name = rule.name;
  auto bad = [&](const char* what) {
    *error = "invalid --" + name + " value '" + value + "' (" + what + ")";
    return false;
  };
  if (name == "mailbox" || name == "notifications" || name == "socket") {
    if (value.empty()) return bad("a path");
    (name == "mailbox" ? o->mailbox : name == "notifications" ? o->notifications : o->socketPath) = value;
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
  } else if (name == "count") {
    int32_t n;
    if (!parseInt32(value, &n) || n <= 0) return bad("a number of frames, more than 0");
    o->count = n;
  } else if (name == "block-size") {
    int32_t n;
    if (!parseInt32(value, &n) || n < 0 || static_cast<uint32_t>(n) > kLargestCalibrationBlock) {
      return bad("0 to 65488 bytes");
    }
    o->blockSize = static_cast<uint32_t>(n);
  } else if (name == "hex") {
    o->hex = true;
  } else if (name == "json") {
    o->json = true;
  }
  return true;
}

}  // namespace

bool parseCommandLine(int argc, char* const argv[], Options* options, std::string* error) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--") break;
    if (arg == "--help" || arg == "-h") o.help = true;
    if (arg == "--version" || arg == "-V") o.version = true;
  }
  if (o.help || o.version) {
    *options = o;
    return true;
  }

  std::vector<std::string> positional;
  std::set<std::string> given;
  bool optionsEnded = false;
  for (int i = 1; i < argc; ++i) {
    const char* raw = argv[i];
    std::string arg = raw;
    if (optionsEnded || arg.size() < 2 || arg[0] != '-' || looksLikeNumber(raw)) {
      positional.push_back(arg);
      continue;
    }
    if (arg == "--") {
      optionsEnded = true;
      continue;
    }
    if (arg.compare(0, 2, "--") != 0) {
      *error = "unknown option '" + arg + "'";
      return false;
    }
    std::string name = arg.substr(2);
    std::string value;
    bool hasValue = false;
    std::size_t equals = name.find('=');
    if (equals != std::string::npos) {
      value = name.substr(equals + 1);
      name.resize(equals);
      hasValue = true;
    }
    const OptionRule* rule = nullptr;
    for (const OptionRule& s : optionRules()) {
      if (name == s.name) rule = &s;
    }
    if (rule == nullptr) {
      *error = "unknown option '--" + name + "'";
      return false;
    }
    if (rule->takesValue && !hasValue) {
      if (i + 1 >= argc) {
        *error = "option '--" + name + "' needs a value";
        return false;
      }
      value = argv[++i];
    } else if (!rule->takesValue && hasValue) {
      *error = "option '--" + name + "' takes no value";
      return false;
    }
    if (!setOption(*rule, value, &o, error)) return false;
    given.insert(name);
  }

  if (positional.empty()) {
    *error = "no command given";
    return false;
  }
  const CommandRule* command = nullptr;
  for (const CommandRule& c : commands()) {
    if (positional[0] == c.name) command = &c;
  }
  if (command == nullptr) {
    *error = "unknown command '" + positional[0] + "'";
    return false;
  }
  o.command = command->name;
  std::size_t count = positional.size() - 1;
  if (count != command->arguments.size()) {
    if (command->arguments.empty()) {
      *error = std::string(command->name) + " takes no arguments";
    } else {
      std::string expected = usageOf(*command).substr(std::strlen(command->name) + 1);
      *error = std::string(command->name) + " takes " + expected + ", got " + std::to_string(count) +
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
      if (!ok) *error = "invalid channel '" + value + "' (a number such as 0 to 3)";
    } else if (name == "STATUS") {
      ok = parseInt32(value, &o.status);
      if (!ok) *error = "invalid status '" + value + "' (a 32-bit number; 0 is success)";
    } else if (name == "ID") {
      ok = parseInt32(value, &o.requestId);
      if (!ok) *error = "invalid request id '" + value + "' (a 32-bit number)";
    } else if (name == "FILE") {
      o.file = value;
    }
    if (!ok) return false;
  }

  for (const std::string& name : given) {
    for (const OptionRule& s : optionRules()) {
      if (name == s.name && (s.groups & command->group) == 0) {
        *error = "option '--" + name + "' applies to " + s.appliesTo + " only";
        return false;
      }
    }
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

Talks to the dravik parameter storage service through its named pipes.

Commands that send one message to the service:
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

Commands that read the notification pipe (one reader at a time):
  monitor                       print each frame that the service sends, decoded
  simulate                      play the analytics engine (11) and endpoint 2:
                                answer calibration requests and filter settings,
                                print what is received and sent

Options:
  --mailbox PATH          the service's command pipe (default /tmp/dravik.mailbox)
  --notifications PATH    the service's notification pipe (default /tmp/comm.mailbox)
  --sender N              sender endpoint of the message sent (default 11 for
                          calibration-response, 2 for save-filter, 100 otherwise)
  --response-selector N   response selector of the message sent (default 13003
                          for get-filter, 0 otherwise)
  --timeout SECONDS       bound of every wait for the service (default 5)
  --hex                   monitor, simulate: add the whole frame to each line
  --json                  monitor, simulate: print one JSON object per line
  --count N               monitor, simulate: stop after N frames received
  --duration SECONDS      monitor, simulate: stop after this time
  --filter-status N       simulate: status reported for every filter (default 0)
  --block-size N          simulate: bytes of each calibration block (default 64)
  -h, --help              show this help and exit
  -V, --version           show the version and exit

A frame is printed as: time (UTC), class, sender->recipient, id, corr
(correlation id), resp (response selector), arguments.
Exit status: 0 done, 1 the service could not be reached or did not answer,
2 bad arguments.
)";
}

}  // namespace dravikctl
