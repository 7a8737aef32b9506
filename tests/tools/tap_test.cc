// dravikctl's tap on the real daemon, in the harness sandbox: while a
// consumer reads the notification pipe as the camera's reader does, monitor
// prints every frame of both directions once and takes none from it; the
// shipped dissector reads its capture; one-shot commands report the daemon's
// verdict; and the daemon outlives a tool killed in the middle.
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "harness/child_process.h"
#include "harness/sandbox.h"
#include "harness/syslog_reader.h"
#include "messaging/binary_fifo.h"
#include "peer/frame_codec.h"
#include "peer/pipe_peer.h"
#include "procfs/procfs.h"
#include "store/service_paths.h"
#include "tests/support/store_files.h"
#include "tests/support/wire.h"

namespace {

using namespace std::chrono_literals;
using catalogue::Flow;
using peer::CatalogueMessage;

// Opened before the sandbox covers anything; the programs run through them.
int gDaemon = -1;
int gCtl = -1;
int gCat = -1;
int gTshark = -1;
std::string gSkip;  // why no tap can work here
std::string gDissector;  // read before the sandbox hides the build directory

class TapTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!gSkip.empty()) GTEST_SKIP() << gSkip;
    ASSERT_TRUE(resetStoreAndPipes());
    std::string why;
    ASSERT_TRUE(syslog_.open("/dev/log", &why)) << why;
    ASSERT_TRUE(daemon_.start(gDaemon, "dravik", {"-s", "3600"}, {}, &why)) << why;
    ASSERT_TRUE(waitUntilOpen(daemon_.pid(), kCommandFifoPath, 5s));
    ASSERT_TRUE(consumer_.start(gCat, "cat", {kNotificationFifoPath}, {}, &why)) << why;
    ASSERT_TRUE(waitUntilOpen(consumer_.pid(), kNotificationFifoPath, 5s));
    ASSERT_TRUE(client_.open(kCommandFifoPath, &why)) << why;
    // The first writer starts the dispatcher, whose first lines belong to no command.
    ASSERT_TRUE(syslog_.waitFor(daemon_.pid(), [](const std::vector<SyslogLine>& lines) {
      for (const SyslogLine& line : lines) {
        if (line.second.find("API: starting dispatcher") != std::string::npos) return true;
      }
      return false;
    }, 5s));
  }

  void run(ChildProcess& ctl, std::vector<std::string> args, bool tap = true) {
    if (tap) args.insert(args.end(), {"--pid", std::to_string(daemon_.pid())});
    std::string why;
    ASSERT_TRUE(ctl.start(gCtl, "dravikctl", args, {}, &why)) << why;
  }

  // A running monitor, once it has attached.
  void monitor(ChildProcess& ctl, std::vector<std::string> args) {
    args.insert(args.begin(), {"monitor", "--hex"});
    run(ctl, args);
    ASSERT_TRUE(ctl.waitForErr("dravikctl: tapping dravik", 5s)) << ctl.err();
  }

  // Frames as a client writes them to the mailbox: one write each, or all
  // in one (pipelined).
  std::string send(const std::vector<CatalogueMessage>& messages, bool pipelined) {
    std::string all, error;
    for (const CatalogueMessage& m : messages) {
      std::string frame = encodeFrame(m);
      all += frame;
      if (!pipelined) {
        EXPECT_TRUE(client_.write(frame, peer::Deadline::after(5), &error)) << error;
      }
    }
    if (pipelined) {
      EXPECT_TRUE(client_.write(all, peer::Deadline::after(5), &error)) << error;
    }
    return all;
  }

  // Sends a request from an endpoint of its own and waits until the
  // consumer has the answer; returns that endpoint.
  int32_t roundTrip() {
    CatalogueMessage request("GetAnalyticsFilterDataRequest", {0});
    request.sender = ++lastEndpoint_;
    send({request}, false);
    EXPECT_TRUE(consumer_.waitForOut(bytesFromHex("00000001 0000000D") + be32(static_cast<uint32_t>(request.sender)), 10s))
        << "no answer to endpoint " << request.sender;
    return request.sender;
  }

  // The frames that monitor printed, per direction, in order; the pairing
  // of each answer to a get-filter request is checked on the way.
  void printed(const std::string& lines, std::string* in, std::string* out) {
    std::istringstream text(lines);
    std::string line;
    while (std::getline(text, line)) {
      std::size_t frame = line.find(" frame=");
      ASSERT_NE(frame, std::string::npos) << line;
      (line.compare(12, 4, " in ") == 0 ? *in : *out) += bytesFromHex(line.substr(frame + 7));
      std::size_t corr = line.find(" corr=");
      if (line.find(" GetAnalyticsFilterDataResponse ") != std::string::npos) {
        std::string id = line.substr(corr + 6, line.find(' ', corr + 6) - corr - 6);
        EXPECT_NE(line.find(" answers=" + id + " after="), std::string::npos) << line;
      }
    }
  }

  // Neither stopped nor traced, and answering.
  void expectDaemonRuns() {
    std::string status = procfs::path(daemon_.pid(), "status");
    std::string state = procfs::field(status, "State");
    EXPECT_TRUE(state.rfind("t ", 0) != 0 && state.rfind("T ", 0) != 0) << state;
    EXPECT_EQ(procfs::field(status, "TracerPid"), "0");
    roundTrip();
  }

  SyslogReader syslog_;
  ChildProcess daemon_;
  ChildProcess consumer_;
  peer::MailboxWriter client_;
  int32_t lastEndpoint_ = 1000;
};

// The value of `key` in one JSON line of dravikctl decode: a number or a
// string's text; a list's strings joined by commas; empty for null or none.
std::string jsonField(const std::string& line, const std::string& key) {
  std::smatch m;
  if (std::regex_search(line, m, std::regex("\"" + key + "\":(\"([^\"]*)\"|(-?[0-9]+|true|false)|\\[([^\\]]*)\\])"))) {
    if (m[4].matched) return std::regex_replace(m[4].str(), std::regex("\"(,?)"), "$1");
    return m[2].matched ? m[2].str() : m[3].str();
  }
  return "";
}

// The fields of each frame of `capture` as the shipped dissector shows them
// in Debian's tshark, and as `dravikctl decode` shows them: one line each.
const char* const kComparedFields[] = {"direction", "class",   "version",          "sender", "recipient",
                                       "id",        "correlationId", "timestamp", "selector", "responseSelector",
                                       "argsLength", "channel", "path",             "error",  "note"};

std::string fieldsOf(const std::string& capture) {
  EXPECT_FALSE(gDissector.empty()) << "no dissector at " DRAVIK_DISSECTOR;
  writeFile("/tmp/dravik.lua", gDissector);
  std::vector<std::string> args = {"-X", "lua_script:/tmp/dravik.lua", "-r", capture, "-T", "fields", "-E", "occurrence=a"};
  for (const char* field : kComparedFields) args.insert(args.end(), {"-e", std::string("dravik.") + field});
  ChildProcess tshark;
  std::string why;
  EXPECT_TRUE(tshark.start(gTshark, "tshark", args, {}, &why)) << why;
  EXPECT_EQ(tshark.wait(60s).value_or(-1), 0) << tshark.err();
  return tshark.out();
}

std::string decodedFields(const std::string& capture) {
  ChildProcess decode;
  std::string why;
  EXPECT_TRUE(decode.start(gCtl, "dravikctl", {"decode", "--json", capture}, {}, &why)) << why;
  EXPECT_EQ(decode.wait(60s).value_or(-1), 0) << decode.err();
  std::istringstream lines(decode.out());
  std::string line, out;
  while (std::getline(lines, line)) {
    std::string row;
    for (const char* field : kComparedFields) {
      std::string value = jsonField(line, std::string(field) == "note" ? "notes" : field);
      if (std::string(field) == "timestamp" && !value.empty()) {
        // tshark's form of a time: "Jan  1, 1970 00:00:01.000000000 UTC".
        long long ms = std::stoll(value);
        time_t seconds = static_cast<time_t>(ms / 1000);
        struct tm utc;
        gmtime_r(&seconds, &utc);
        char text[64];
        strftime(text, sizeof text, "%b %e, %Y %H:%M:%S", &utc);
        char fraction[32];
        snprintf(fraction, sizeof fraction, ".%03lld000000 UTC", ms % 1000);
        value = std::string(text) + fraction;
      }
      row += (row.empty() && std::string(field) == "direction" ? "" : "\t") + value;
    }
    out += row + "\n";
  }
  return out;
}

// A few hundred commands of every kind, some refused by the daemon.
std::vector<CatalogueMessage> mixedCommands(int count) {
  std::vector<CatalogueMessage> messages;
  for (int i = 0; i < count; ++i) {
    int32_t channel = i % 4;
    switch (i % 6) {
      case 0: messages.emplace_back("GetAnalyticsFilterDataRequest", std::vector<peer::Value>{channel}); break;
      case 1: messages.emplace_back("RestoreFactoryFilterCommand", std::vector<peer::Value>{channel}); break;
      case 2: messages.emplace_back("ResetCalibrationCommand", std::vector<peer::Value>{channel}); break;
      case 3: messages.emplace_back("SetAnalyticsFilterDataCommand", std::vector<peer::Value>{channel, "/x.xml"}); break;
      case 4: messages.emplace_back("SaveAnalyticsFilterDataCommand", std::vector<peer::Value>{channel, 5}); break;
      default: messages.emplace_back("RestoreFactoryVirtualCameraSettingsCommand", std::vector<peer::Value>{7});
    }
    messages.back().sender = i % 6 == 4 ? kFilterEndpoint : 100;
  }
  return messages;
}

TEST_F(TapTest, MonitorSeesBothDirectionsAndTakesNothing) {
  ChildProcess ctl;
  monitor(ctl, {});
  std::string sent = send(mixedCommands(300), false);
  int32_t last = roundTrip();
  ASSERT_TRUE(ctl.waitForOut(" GetAnalyticsFilterDataResponse 13->" + std::to_string(last) + " ", 10s));
  ctl.signal(SIGINT);
  ASSERT_EQ(ctl.wait(10s).value_or(-1), 0) << ctl.err();
  std::string in, out;
  printed(ctl.out(), &in, &out);
  EXPECT_EQ(in.substr(0, sent.size()), sent);
  EXPECT_EQ(in.size(), sent.size() + 52);  // and the round trip's request
  EXPECT_EQ(toHex(out), toHex(consumer_.out()));
  expectDaemonRuns();
}

TEST_F(TapTest, PipelinedLoadCapturedForWireshark) {
  const int requests = 200;
  ChildProcess ctl;
  monitor(ctl, {"--pcap", "/tmp/capture.pcapng", "--count", std::to_string(2 * requests)});
  std::vector<CatalogueMessage> messages;
  for (int i = 0; i < requests; ++i) messages.emplace_back("GetAnalyticsFilterDataRequest", std::vector<peer::Value>{i % 4});
  // The first with 4 bytes after its arguments, which dravik reads past.
  std::string sent = bytesFromHex("00000034") + encodeFrame(messages[0]).substr(4) + bytesFromHex("DEADBEEF");
  for (int i = 1; i < requests; ++i) sent += encodeFrame(messages[static_cast<std::size_t>(i)]);
  std::string error;
  ASSERT_TRUE(client_.write(sent, peer::Deadline::after(5), &error)) << error;
  ASSERT_EQ(ctl.wait(20s).value_or(-1), 0) << ctl.err();
  std::string in, out;
  printed(ctl.out(), &in, &out);
  EXPECT_EQ(in, sent);
  ASSERT_TRUE(consumer_.waitForOut(out, 5s));
  EXPECT_EQ(toHex(out), toHex(consumer_.out()));

  if (gTshark < 0) GTEST_SKIP() << "tshark is not installed (Debian package tshark)";
  std::string shown = fieldsOf("/tmp/capture.pcapng");
  EXPECT_EQ(std::count(shown.begin(), shown.end(), '\n'), 2 * requests);
  EXPECT_EQ(shown, decodedFields("/tmp/capture.pcapng"));
  EXPECT_NE(shown.find("\targsLength 4 but 8 argument bytes,4 bytes after the arguments\n"), std::string::npos);
}

TEST_F(TapTest, DaemonOutlivesAKilledTool) {
  ChildProcess ctl;
  monitor(ctl, {});
  std::vector<CatalogueMessage> messages;
  for (int i = 0; i < 300; ++i) messages.emplace_back("GetAnalyticsFilterDataRequest", std::vector<peer::Value>{i % 4});
  send(messages, true);
  ASSERT_TRUE(ctl.waitForOut(" GetAnalyticsFilterDataResponse ", 10s));
  ctl.signal(SIGKILL);
  ctl.wait(10s);
  expectDaemonRuns();
}

// What stands around the daemon while a command runs.
enum class Around {
  nothing,
  noLog,      // no syslog socket at /dev/log
  monitored,  // a monitor taps the daemon
  stopped,    // the daemon is stopped (SIGSTOP) until the command ends
};

std::string joined(const std::vector<std::string>& args) {
  std::string text;
  for (const std::string& a : args) text += " " + a;
  return text;
}

std::string replaced(std::string text, const std::string& marker, const std::string& with) {
  for (std::size_t at; (at = text.find(marker)) != std::string::npos;) text.replace(at, marker.size(), with);
  return text;
}

// The verdict table: each row is a command line and what stands around the
// daemon, and the exit status (0 seen accepted, 1 seen refused, 3 sent but
// not known, 4 not sent), standard output and standard error it gives.
// <pid> stands for the daemon's pid, <monitor> for the monitor's.
TEST_F(TapTest, OneShotCommandsReportTheVerdict) {
  const std::string incoming = "/etc/sysconfig/dravik/incoming/";
  ASSERT_EQ(mkdir(incoming.c_str(), 0755), 0);
  for (const char* name : {"f1.xml", "f3.xml"}) writeFile(incoming + name, "<filter/>\n");
  writeFile("/tmp/f2.xml", "<filter/>\n");
  const std::string reader = "process " + std::to_string(consumer_.pid()) + " (cat) reads /tmp/comm.mailbox";
  const std::string tbe = "/etc/sysconfig/dravik/zek/tbe/";
  const std::string badChannel = "dravikctl: note: channel 7 is not one of 0 to 3: dravik refuses it with an error line\n";
  auto forwarded = [&](int channel, const std::string& file) {
    std::string ch = std::to_string(channel);
    return "dravik: info: Set AnalyticsFilterData for input " + ch +
           "\ndravik: info: Sending SendAnalyticsFilterDataNotification for ch=" + ch +
           "\ndravik: info: SetAnalyticsFilter ch=" + ch + " name=" + file + "\n";
  };
  const struct {
    std::vector<std::string> args;
    Around around;
    int32_t endpoint2;  // the status endpoint 2 answers a new filter with; -1: no answer
    int status;
    std::string out, err;
  } rows[] = {
      // Seen accepted.
      {{"get-filter", "2"}, Around::nothing, -1, 0, tbe + "metadataFilterCH2.xml\n",
       "dravik: info: Sending get CH=2 " + tbe + "metadataFilterCH2.xml\n"},
      {{"call", "13002", "channel=1"}, Around::nothing, -1, 0, "path=" + tbe + "metadataFilterCH1.xml\n",
       "dravik: info: Sending get CH=1 " + tbe + "metadataFilterCH1.xml\n"},
      {{"reset-calibration", "3"}, Around::nothing, -1, 0, "",
       "dravik: info: ResetCalibrationNotification::toStream channel=3\n"},
      {{"set-filter", "1", incoming + "f1.xml", "--wait-save"}, Around::nothing, 0, 0, "",
       forwarded(1, incoming + "f1.xml") + "dravik: info: Saving Analytics Filter To file for ch=1 FileName:: " +
           incoming + "f1.xml\n"},
      // Seen refused.
      {{"reset-channel", "7"}, Around::nothing, -1, 1, "",
       badChannel + "dravik: info:  RestoreFactorySettings ch=7\ndravik: err: RestoreFactorySettings::Invalid Channel=7\n"},
      {{"save-filter", "0", "0"}, Around::nothing, -1, 1, "",
       "dravik: info: Saving Analytics Filter To file for ch=0 FileName:: \n"
       "dravik: err: SaveAnalyticsFilterFile: Error renaming  to " + tbe + "metadataFilterCH0.xml: "
       "No such file or directory\n"},
      {{"set-filter", "2", "/tmp/f2.xml", "--wait-save"}, Around::nothing, 0, 1, "",
       "dravikctl: warning: /tmp/f2.xml is on another file system than dravik's store (" + tbe +
           "): dravik moves a filter there with a rename, which cannot cross file systems (Invalid cross-device "
           "link); put it in /etc/sysconfig/dravik/incoming\n" +
           forwarded(2, "/tmp/f2.xml") + "dravik: info: Saving Analytics Filter To file for ch=2 FileName:: /tmp/f2.xml\n"
           "dravik: err: SaveAnalyticsFilterFile: Error renaming /tmp/f2.xml to " + tbe + "metadataFilterCH2.xml: "
           "Invalid cross-device link\n"},
      // Sent, the outcome not known.
      {{"reset-all", "--no-wait"}, Around::nothing, -1, 3, "", ""},
      {{"reset-all", "--direct"}, Around::nothing, -1, 3, "", "dravikctl: sent; the outcome is not known: --direct\n"},
      {{"reset-channel", "7"}, Around::noLog, -1, 3, "",
       badChannel + "dravikctl: sent; the outcome is not known: dravik could not write its log (connect to /dev/log: No such file "
       "or directory), which tells whether it accepted the message\n"},
      {{"reset-calibration", "2"}, Around::monitored, -1, 3, "",
       "dravikctl: sent; the outcome is not known: cannot tap dravik: dravik (pid <pid>) is tapped already, by "
       "dravikctl (pid <monitor>): one tap at a time (a process has one tracer)\n"},
      {{"get-filter", "0", "--timeout", "1"}, Around::stopped, -1, 3, "",
       "dravikctl: sent; the outcome is not known: dravik did not take the message from /tmp/dravik.mailbox within "
       "1 s (dravik, pid <pid>, is stopped); it stays there and runs when dravik reads on\n"},
      {{"set-filter", "3", incoming + "f3.xml", "--wait-save", "--timeout", "1"}, Around::nothing, -1, 3, "",
       forwarded(3, incoming + "f3.xml") + "dravikctl: sent; the outcome is not known: dravik forwarded the filter "
       "to endpoint 2, which had not answered within 1 s: the filter is not saved yet\n"},
      // Not sent.
      {{"get-filter", "1", "--direct"}, Around::nothing, -1, 4, "",
       "dravikctl: not sent: " + reader + ", and get-filter would take frames from it (each frame reaches one "
       "reader); watch through the tap instead (root or CAP_SYS_PTRACE), or --force\n"},
  };
  for (const auto& row : rows) {
    bool tap = row.args[1] != "--no-wait" && row.args[1] != "--direct" && row.args.back() != "--direct";
    ChildProcess watcher;
    if (row.around == Around::monitored) monitor(watcher, {});
    if (row.around == Around::noLog) syslog_.close();
    if (row.around == Around::stopped) kill(daemon_.pid(), SIGSTOP);
    ChildProcess ctl;
    run(ctl, row.args, tap);
    if (row.endpoint2 >= 0) {
      // Endpoint 2's answer, once the filter's name has reached it.
      int32_t channel = std::stoi(row.args[1]);
      ASSERT_TRUE(consumer_.waitForOut(be32(static_cast<uint32_t>(channel)) + str(row.args[2]), 10s)) << row.args[2];
      CatalogueMessage answer("SaveAnalyticsFilterDataCommand", {channel, row.endpoint2});
      answer.sender = kFilterEndpoint;
      send({answer}, false);
    }
    EXPECT_EQ(ctl.wait(10s).value_or(-1), row.status << 8) << joined(row.args);
    EXPECT_EQ(ctl.out(), row.out) << joined(row.args);
    std::string err = replaced(replaced(row.err, "<pid>", std::to_string(daemon_.pid())), "<monitor>",
                               std::to_string(watcher.pid()));
    EXPECT_EQ(ctl.err(), err) << joined(row.args);
    if (row.around == Around::stopped) {
      // The message ran once dravik went on: its answer reaches the reader.
      kill(daemon_.pid(), SIGCONT);
      EXPECT_TRUE(consumer_.waitForOut("/etc/sysconfig/dravik/zek/tbe/metadataFilterCH0.xml", 10s));
    }
    std::string why;
    if (row.around == Around::noLog) {
      ASSERT_TRUE(syslog_.open("/dev/log", &why)) << why;
    }
    if (row.around == Around::monitored) {
      watcher.signal(SIGINT);
      EXPECT_EQ(watcher.wait(10s).value_or(-1), 0) << watcher.err();
    }
  }
  // The camera's reader got the answer that get-filter printed.
  EXPECT_TRUE(consumer_.waitForOut("/etc/sysconfig/dravik/zek/tbe/metadataFilterCH2.xml", 5s));
  expectDaemonRuns();
}

// monitor --follow taps the next daemon when one ends, and says so.
TEST_F(TapTest, MonitorFollowsARestart) {
  ChildProcess ctl;
  run(ctl, {"monitor", "--follow"}, false);
  ASSERT_TRUE(ctl.waitForErr("dravikctl: tapping dravik", 5s)) << ctl.err();
  const std::string first = std::to_string(daemon_.pid());
  daemon_.signal(SIGTERM);
  ASSERT_TRUE(daemon_.wait(10s));
  ASSERT_TRUE(ctl.waitForErr("dravikctl: dravik (pid " + first + ") has ended; waiting for the next one\n"
                             "dravikctl: waiting for dravik to read /tmp/dravik.mailbox\n", 10s))
      << ctl.err();
  ChildProcess next;
  std::string why;
  ASSERT_TRUE(next.start(gDaemon, "dravik", {"-s", "3600"}, {}, &why)) << why;
  ASSERT_TRUE(ctl.waitForErr("dravikctl: tapping dravik (pid " + std::to_string(next.pid()) + ", threads", 10s))
      << ctl.err();
  ASSERT_TRUE(client_.open(kCommandFifoPath, &why)) << why;
  send({CatalogueMessage("ResetCalibrationCommand", {1})}, false);
  EXPECT_TRUE(ctl.waitForOut(" in ResetCalibrationCommand -1->13 ", 10s)) << ctl.out();
  ctl.signal(SIGINT);
  EXPECT_EQ(ctl.wait(10s).value_or(-1), 0) << ctl.err();
}

// status and wait, for scripts: while dravik runs and after it has ended.
TEST_F(TapTest, StatusAndWaitTellWhetherDravikRuns) {
  const std::string pid = std::to_string(daemon_.pid());
  ChildProcess wait, status;
  run(wait, {"wait"}, false);
  EXPECT_EQ(wait.wait(10s).value_or(-1), 0);
  EXPECT_EQ(wait.out(), "dravik (pid " + pid + ") reads /tmp/dravik.mailbox\n");
  writeFile("/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH1.bin", "abc");
  run(status, {"status", "--json"}, false);
  EXPECT_EQ(status.wait(10s).value_or(-1), 0);
  const std::string json = status.out();
  EXPECT_EQ(jsonField(json, "running") + " " + jsonField(json, "pid") + " " + jsonField(json, "readsMailbox"),
            "true " + pid + " true");
  EXPECT_NE(json.find("{\"pid\":" + pid + ",\"name\":\"dravik\",\"access\":\"read\"}"), std::string::npos)
      << json;
  EXPECT_NE(json.find("\"store\":[{\"path\":\"/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH1.bin\",\"size\":3,"),
            std::string::npos)
      << json;

  daemon_.signal(SIGTERM);
  ASSERT_TRUE(daemon_.wait(10s));
  ChildProcess stopped, waited;
  run(stopped, {"status"}, false);
  EXPECT_EQ(stopped.wait(10s).value_or(-1), 1 << 8);
  EXPECT_EQ(stopped.out().substr(0, stopped.out().find('\n')),
            "dravik: not running: no dravik process is running (--pid N names one)");
  run(waited, {"wait", "--timeout", "0.5"}, false);
  EXPECT_EQ(waited.wait(10s).value_or(-1), 1 << 8);
  EXPECT_EQ(waited.err(), "dravikctl: dravik did not read /tmp/dravik.mailbox within 0.5 s: no dravik process is "
                          "running (--pid N names one)\n");
}

TEST_F(TapTest, SimulateRefusesBesideAnotherReader) {
  ChildProcess ctl;
  run(ctl, {"simulate"}, false);
  EXPECT_EQ(ctl.wait(10s).value_or(-1), 1 << 8);
  EXPECT_EQ(ctl.err(), "dravikctl: process " + std::to_string(consumer_.pid()) + " (cat) reads /tmp/comm.mailbox, and simulate would take frames from it (each frame reaches one "
                           "reader); watch through the tap instead (root or CAP_SYS_PTRACE), or --force\n");
}

// Whether this process may trace a child: not under qemu-user, nor where a
// policy forbids ptrace.
std::string whyNoTracing() {
  pid_t child = fork();
  if (child == 0) {
    pause();
    _exit(0);
  }
  std::string why;
  if (ptrace(PTRACE_SEIZE, child, nullptr, nullptr) != 0) {
    why = std::string("ptrace cannot trace even a child here (") + std::strerror(errno) +
          "): under qemu-user or a seccomp policy no tap can work";
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  return why;
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (::testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();
  gDaemon = openExecutable(DRAVIK_BINARY);
  gCtl = openExecutable(DRAVIKCTL_BINARY);
  gCat = openExecutable("/bin/cat");
  gTshark = openExecutable("/usr/bin/tshark");
  gSkip = whyNoTracing();
  std::ifstream dissector(DRAVIK_DISSECTOR);
  gDissector.assign(std::istreambuf_iterator<char>(dissector), std::istreambuf_iterator<char>());
  std::string why;
  if (!sandbox::enter(&why)) {
    std::fprintf(stderr, "cannot run dravik in a private sandbox: %s\n", why.c_str());
    return 1;
  }
  return RUN_ALL_TESTS();
}
