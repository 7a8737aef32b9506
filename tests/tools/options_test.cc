// dravikctl's command line: each row is the arguments and the options they
// give (their fields that matter here) or the one-line error.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "tools/dravikctl/options.h"

namespace {

using dravikctl::Options;

std::string describe(const Options& o) {
  std::ostringstream text;
  if (o.help) return "help";
  text << o.command << " ch=" << o.channel << " status=" << o.status << " sender=" << o.sender
       << " resp=" << o.responseSelector << " timeout=" << o.timeout << " pid=" << o.pid << " count=" << o.count
       << (o.direct ? " direct" : "") << (o.noWait ? " no-wait" : "") << (o.log ? " log" : "");
  if (!o.pcap.empty()) text << " pcap=" << o.pcap;
  for (int32_t s : o.filter.selectors) text << " selector=" << s;
  if (o.filter.channel) text << " only-ch=" << *o.filter.channel;
  if (o.filter.direction) text << (*o.filter.direction == catalogue::Flow::in ? " in" : " out");
  return text.str();
}

struct Row {
  std::vector<const char*> args;
  std::string expected;  // describe() of the options, or "error: ..."
};

TEST(DravikctlOptions, ParsesOrExplains) {
  const Row rows[] = {
      {{"save-filter", "1", "-5"}, "save-filter ch=1 status=-5 sender=2 resp=0 timeout=5 pid=0 count=0"},
      {{"--sender", "-3", "reset-channel", "2", "--timeout=0.5"},
       "reset-channel ch=2 status=0 sender=-3 resp=0 timeout=0.5 pid=0 count=0"},
      {{"get-filter", "1", "--pid", "42"}, "get-filter ch=1 status=0 sender=100 resp=13003 timeout=5 pid=42 count=0"},
      {{"reset-all", "--no-wait"}, "reset-all ch=0 status=0 sender=100 resp=0 timeout=5 pid=0 count=0 no-wait"},
      {{"save-filter", "1", "--", "-5"}, "save-filter ch=1 status=-5 sender=2 resp=0 timeout=5 pid=0 count=0"},
      {{"monitor", "--selector", "13002", "--selector=13003", "--channel", "1", "--direction", "in", "--count", "5",
        "--log", "--pcap", "c.pcapng", "--time", "2"},
       "monitor ch=0 status=0 sender=100 resp=0 timeout=2 pid=0 count=5 log pcap=c.pcapng selector=13002 "
       "selector=13003 only-ch=1 in"},
      {{"monitor", "--direct"}, "monitor ch=0 status=0 sender=100 resp=0 timeout=5 pid=0 count=0 direct"},
      {{"reset-all", "--bogus", "--help"}, "help"},
      {{}, "error: no command given"},
      {{"bogus"}, "error: unknown command 'bogus'"},
      {{"monitor", "--bogus"}, "error: unknown option '--bogus'"},
      {{"-x", "monitor"}, "error: unknown option '-x'"},
      {{"monitor", "--d"}, "error: ambiguous option '--d'"},
      {{"monitor", "--hex=1"}, "error: option '--hex' takes no value"},
      {{"monitor", "--count"}, "error: option '--count' needs a value"},
      {{"monitor", "--count", "0"}, "error: invalid --count value '0' (a number of frames, more than 0)"},
      {{"monitor", "--direction", "up"}, "error: invalid --direction value 'up' (in or out)"},
      {{"reset-all", "--log"}, "error: option '--log' applies to monitor only"},
      {{"simulate", "--pid", "3"}, "error: option '--pid' applies to monitor and commands that send a message only"},
      {{"save-filter", "1"}, "error: save-filter takes N STATUS, got 1 argument"},
      {{"reset-channel", "x"}, "error: invalid channel 'x' (a number such as 0 to 3)"},
      {{"monitor", "--direct", "--pid", "5"},
       "error: --direct reads the notification pipe; --pid names a process to tap: choose one"},
      {{"monitor", "--direct", "--log"}, "error: --log and --pcap need the tap, which --direct turns off"},
  };
  for (const Row& row : rows) {
    std::vector<char*> argv = {const_cast<char*>("dravikctl")};
    for (const char* a : row.args) argv.push_back(const_cast<char*>(a));
    argv.push_back(nullptr);
    Options options;
    std::string error;
    bool ok = dravikctl::parseCommandLine(static_cast<int>(argv.size()) - 1, argv.data(), &options, &error);
    EXPECT_EQ(ok ? describe(options) : "error: " + error, row.expected) << row.args.size() << " arguments";
  }
}

}  // namespace
