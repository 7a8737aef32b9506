// dravikctl's command line, through the program: each row is the arguments
// and what comes of them. A refused command line gives one line and status
// 2; what cannot be done is refused before anything is sent or tapped; a
// command that sends writes the frame its arguments make into a mailbox of
// the test's own (--no-wait, status 3: not watched); decode prints the
// frames of a capture that its options choose.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "conversation/pcapng.h"
#include "harness/child_process.h"
#include "harness/temp_dir.h"
#include "procfs/procfs.h"
#include "tests/support/pipes.h"
#include "tests/support/store_files.h"
#include "tests/support/wire.h"

namespace {

using namespace std::chrono_literals;

int gCtl = -1;
int gTshark = -1;
using catalogue::Flow;

struct Outcome {
  int status = -1;  // the exit status; -1 when it did not exit
  std::string out;
  std::string err;
};

Outcome runCtl(const std::vector<std::string>& args) {
  ChildProcess ctl;
  std::string why;
  EXPECT_TRUE(ctl.start(gCtl, "dravikctl", args, {}, &why)) << why;
  std::optional<int> status = ctl.wait(10s);
  Outcome outcome;
  if (status && WIFEXITED(*status)) outcome.status = WEXITSTATUS(*status);
  outcome.out = ctl.out();
  outcome.err = ctl.err();
  return outcome;
}

std::string joined(const std::vector<std::string>& args) {
  std::string text;
  for (const std::string& a : args) text += " " + a;
  return text;
}

TEST(DravikctlCommandLine, RefusedWithOneLine) {
  const struct {
    std::vector<std::string> args;
    std::string error;
  } rows[] = {
      {{}, "no command given"},
      {{"bogus"}, "unknown command 'bogus'"},
      {{"monitor", "--bogus"}, "unknown option '--bogus'"},
      {{"-x", "monitor"}, "unknown option '-x'"},
      {{"monitor", "--d"}, "ambiguous option '--d'"},
      {{"monitor", "--hex=1"}, "option '--hex' takes no value"},
      {{"monitor", "--count"}, "option '--count' needs a value"},
      {{"monitor", "--count", "0"}, "invalid --count value '0' (a number of frames, more than 0)"},
      {{"monitor", "--direction", "up"}, "invalid --direction value 'up' (in or out)"},
      {{"simulate", "--block-size", "65489"}, "invalid --block-size value '65489' (0 to 65488 bytes)"},
      {{"reset-all", "--log"}, "option '--log' applies to monitor only"},
      {{"simulate", "--pid", "3"}, "option '--pid' applies to monitor, status, wait and commands that send a message only"},
      {{"reset-all", "1"}, "reset-all takes no arguments"},
      {{"save-filter", "1"}, "save-filter takes N STATUS, got 1 argument"},
      {{"reset-channel", "x"}, "invalid channel 'x' (a number such as 0 to 3)"},
      {{"monitor", "--direct", "--pid", "5"},
       "--direct reads the notification pipe; --pid names a process to tap: choose one"},
      {{"get-filter", "1", "--no-wait", "--pid", "5"}, "--no-wait only sends; --direct, --pid and --wait-save say how to wait"},
      {{"monitor", "--direct", "--log"}, "--log, --pcap, --follow and --wait-save need the tap, which --direct turns off"},
      {{"monitor", "--follow", "--pid", "5"}, "--follow finds each new dravik by its name; --pid names one process: choose one"},
      {{"reset-all", "--wait-save"}, "--wait-save applies to set-filter (and call SetAnalyticsFilterDataCommand) only"},
      {{"help", "bogus"}, "unknown command 'bogus'"},
      {{"call"}, "call takes CLASS [NAME=VALUE...], got 0 arguments"},
      {{"call", "Foo"}, "no class Foo in the catalogue (dravikctl list shows them)"},
      {{"call", "13003", "path=x"}, "13003 is a class that dravik sends, not one it reads (dravikctl list shows them)"},
      {{"call", "13006", "channel=1"}, "SaveAnalyticsFilterDataCommand takes channel=N status=N: status is missing"},
      {{"call", "13006", "channel=1", "state=0"},
       "unexpected 'state=0': SaveAnalyticsFilterDataCommand takes channel=N status=N"},
      {{"call", "13006", "channel=1", "status=x"}, "invalid status 'x' (a 32-bit number)"},
      {{"call", "2045", "calibrationData=0g"}, "invalid calibrationData '0g' (hexadecimal digits, or @FILE)"},
      // Checked before any pipe is opened.
      {{"calibration-response", "7", "/nonexistent/block"}, "cannot read /nonexistent/block"},
  };
  for (const auto& row : rows) {
    Outcome outcome = runCtl(row.args);
    EXPECT_EQ(outcome.status, 2) << joined(row.args);
    EXPECT_EQ(outcome.out, "") << joined(row.args);
    EXPECT_EQ(outcome.err, "dravikctl: " + row.error + "\nTry 'dravikctl --help' for more information.\n")
        << joined(row.args);
  }
  // --help wins over everything else, and tells about the command given.
  Outcome help = runCtl({"reset-all", "--bogus", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.substr(0, 38), "Usage: dravikctl [OPTIONS] reset-all\n\n");
  EXPECT_EQ(help.err, "");
  EXPECT_EQ(runCtl({"help", "reset-all"}).out, help.out);
  EXPECT_EQ(runCtl({"--help"}).out.substr(0, 48), "Usage: dravikctl [OPTIONS] COMMAND [ARGUMENTS]\n\n");
}

// list: the catalogue, a class a line, as text and as JSON.
TEST(DravikctlCommandLine, ListShowsTheCatalogue) {
  Outcome text = runCtl({"list"});
  Outcome json = runCtl({"list", "--json"});
  EXPECT_EQ(text.status, 0);
  EXPECT_NE(text.out.find("\n13002    GetAnalyticsFilterDataRequest              in   any->13       13003  channel (int32)\n"),
            std::string::npos)
      << text.out;
  EXPECT_NE(json.out.find("\n{\"selector\":13003,\"class\":\"GetAnalyticsFilterDataResponse\",\"direction\":\"out\","
                          "\"sender\":13,\"recipient\":null,\"responseSelector\":0,\"args\":[{\"name\":\"path\","
                          "\"type\":\"string\"}]}\n"),
            std::string::npos)
      << json.out;
}

// What is refused once the command line is read, before anything is sent
// or tapped: a path that is no pipe, a capture that cannot be written, a
// process that is not the daemon.
TEST(DravikctlCommandLine, RefusedBeforeAnythingIsSentOrTapped) {
  TempDir dir;
  const std::string file = dir.file("regular");
  writeFile(file, "");
  pid_t zombie = fork();
  if (zombie == 0) {
    prctl(PR_SET_NAME, "dravik");
    _exit(0);
  }
  siginfo_t ended;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(zombie), &ended, WEXITED | WNOWAIT), 0);
  const std::string self = std::to_string(getpid());
  const std::string zombiePid = std::to_string(zombie);
  const std::string selfName = procfs::firstLine("/proc/self/comm");  // qemu-aarch64 under qemu-user
  const struct {
    std::vector<std::string> args;
    int status;
    std::string err;
  } rows[] = {
      {{"monitor", "--direct", "--notifications", file}, 1, file + " is not a named pipe"},
      {{"monitor", "--pcap", "/nonexistent/x", "--pid", self}, 1, "cannot write /nonexistent/x: No such file or directory"},
      {{"monitor", "--pid", self}, 1, "process " + self + " (" + selfName + ") is not dravik"},
      {{"monitor", "--pid", zombiePid}, 1, "dravik (pid " + zombiePid + ") has ended: a zombie that its parent has not collected"},
      {{"reset-all", "--pid", self}, 4, "not sent: process " + self + " (" + selfName + ") is not dravik"},
      {{"reset-all", "--direct", "--mailbox", file}, 4, "not sent: " + file + " is not a named pipe"},
  };
  for (const auto& row : rows) {
    Outcome outcome = runCtl(row.args);
    EXPECT_EQ(outcome.status, row.status) << joined(row.args);
    EXPECT_EQ(outcome.err, "dravikctl: " + row.err + "\n") << joined(row.args);
  }
  waitpid(zombie, nullptr, 0);
}

// A frame with its id and timestamp, which differ from run to run, zeroed.
std::string withoutIdAndTime(std::string frame) {
  if (frame.size() >= 32) {
    frame.replace(16, 4, 4, '\0');
    frame.replace(24, 8, 8, '\0');
  }
  return frame;
}

Header header(int32_t selector, int32_t sender, int32_t correlationId = 0, int32_t responseSelector = 0) {
  Header h;
  h.selector = selector;
  h.sender = sender;
  h.id = 0;
  h.correlationId = correlationId;
  h.responseSelector = responseSelector;
  return h;
}

TEST(DravikctlCommandLine, SendsTheFrameItsArgumentsMake) {
  TempDir dir;
  const std::string mailbox = makeFifo(dir.file("mailbox"));
  Fd reader = openFd(mailbox, O_RDONLY | O_NONBLOCK);
  const std::string blockFile = dir.file("block");
  writeFile(blockFile, "\x01\x02\x03");
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  const std::string relative = std::string(cwd) + "/no-such-filter.xml";
  const struct {
    std::vector<std::string> args;
    std::string frame;
    std::string err;
  } rows[] = {
      {{"save-filter", "1", "-5"}, frame(header(13006, 2), be32(1) + be32(static_cast<uint32_t>(-5))), ""},
      {{"save-filter", "1", "--", "-5"}, frame(header(13006, 2), be32(1) + be32(static_cast<uint32_t>(-5))), ""},
      {{"--sender", "-3", "reset-channel", "2", "--timeout=0.5"}, frame(header(14, -3), be32(2)), ""},
      {{"reset-all", "--resp", "5"}, frame(header(13, 100, 0, 5)), ""},
      {{"get-filter", "1"}, frame(header(13002, 100, 0, 13003), be32(1)), ""},
      {{"get-filter", "7"}, frame(header(13002, 100, 0, 13003), be32(7)),
       "dravikctl: note: channel 7 is not one of 0 to 3: dravik answers the path of that channel's filter file all the "
       "same\n"},
      {{"calibration-response", "7", blockFile}, frame(header(2045, 11, 7), block("\x01\x02\x03")), ""},
      {{"set-filter", "2", "no-such-filter.xml"}, frame(header(13004, 100), be32(2) + str(relative)),
       "dravikctl: warning: " + relative + " does not exist: dravik forwards its name to endpoint 2 all the same, "
       "and cannot save it when endpoint 2 accepts it\n"},
      {{"call", "GetAnalyticsFilterDataRequest", "channel=3", "--response-selector", "0"},
       frame(header(13002, 100), be32(3)), ""},
      {{"call", "2045", "calibrationData=0a0B", "--correlation-id", "9", "--sender", "11"},
       frame(header(2045, 11, 9), block("\x0a\x0b")), ""},
  };
  for (const auto& row : rows) {
    std::vector<std::string> args = {"--no-wait", "--mailbox", mailbox};
    args.insert(args.end(), row.args.begin(), row.args.end());
    Outcome outcome = runCtl(args);
    EXPECT_EQ(outcome.status, 3) << joined(row.args) << ": " << outcome.err;  // sent, not watched
    EXPECT_EQ(outcome.err, row.err) << joined(row.args);
    EXPECT_EQ(toHex(withoutIdAndTime(readAvailable(reader.get()))), toHex(row.frame)) << joined(row.args);
  }
}

TEST(DravikctlCommandLine, DecodePrintsTheFramesItsOptionsChoose) {
  Header request = header(13002, 100, 0, 13003);
  request.id = 7;
  request.milliseconds = 1000;
  Header notification = header(13004, 13, 0, 13006);
  notification.recipient = 2;
  notification.id = 4;
  notification.milliseconds = 1000;
  TempDir dir;
  const std::string capture = dir.file("capture.pcapng");
  const std::string notificationFrame = frame(notification, be32(2) + str("/f"));
  writeFile(capture, pcapng::fileHeader() +
                         pcapng::packetBlock(frame(request, be32(1)), catalogue::Flow::in, {1, 3000000}) +
                         pcapng::packetBlock(notificationFrame, catalogue::Flow::out, {1, 10000000}));
  const std::string first =
      "00:00:01.003 in GetAnalyticsFilterDataRequest 100->13 id=7 corr=0 resp=13003 channel=1 stamp=00:00:01.000 "
      "age=3ms\n";
  const std::string second =
      "00:00:01.010 out SetAnalyticsFilterDataNotification 13->2 id=4 corr=0 resp=13006 channel=2 fileName=\"/f\" "
      "stamp=00:00:01.000 age=10ms\n";
  const struct {
    std::vector<std::string> options;
    std::string out;
  } rows[] = {
      {{}, first + second},
      {{"--selector=13002", "--selector", "13004"}, first + second},
      {{"--selector", "13004"}, second},
      {{"--channel", "2"}, second},
      {{"--direction", "in"}, first},
      {{"--endpoint", "2"}, second},
      {{"--count", "1"}, first},
      {{"--json", "--direction", "in"},
       "{\"time\":\"1970-01-01T00:00:01.003Z\",\"direction\":\"in\",\"class\":\"GetAnalyticsFilterDataRequest\","
       "\"sender\":100,\"recipient\":13,\"id\":7,\"correlationId\":0,\"responseSelector\":13003,\"selector\":13002,"
       "\"flags\":0,\"version\":1,\"timestamp\":1000,\"argsLength\":4,\"stamp\":\"1970-01-01T00:00:01.000Z\","
       "\"ageMs\":3,\"args\":{\"channel\":1}}\n"},
  };
  for (const auto& row : rows) {
    std::vector<std::string> args = {"decode", capture};
    args.insert(args.end(), row.options.begin(), row.options.end());
    Outcome outcome = runCtl(args);
    EXPECT_EQ(outcome.status, 0) << joined(row.options) << ": " << outcome.err;
    EXPECT_EQ(outcome.out, row.out) << joined(row.options);
  }
}

// The dissector that `dravikctl dissector` prints, run by Debian's tshark
// over a capture of one frame per row: the direction every frame carries,
// its class, the expert info for what dravik refuses or reads differently,
// the links between a request and its answer, an empty block, and the
// endpoints in the Source and Destination columns.
TEST(DravikctlCommandLine, DissectorFlagsWhatDravikRefuses) {
  if (gTshark < 0) GTEST_SKIP() << "tshark is not installed (Debian package tshark)";
  TempDir dir;
  Outcome dissector = runCtl({"dissector"});
  ASSERT_EQ(dissector.status, 0);
  writeFile(dir.file("dravik.lua"), dissector.out);
  const std::string h = "00000001 00000064 0000000D 00000009 00000000 00000000000003E8";  // version to timestamp
  const struct {
    const char* frame;
    catalogue::Flow flow;
    std::string fields;  // direction, class, expert info, request in, answer in, calibrationData, source, destination
  } rows[] = {
      {"00000000", Flow::in, "in\t\tinvalid frame length 0\t\t\t\t\t"},
      {"0000", Flow::in, "in\t\tframe ends after 2 bytes of its length\t\t\t\t\t"},
      {"00000030 00000002 00000064 0000000D 00000009 00000000 00000000000003E8 0000000E 00000000 00000000 00000004"
       " 00000001",
       Flow::in, "in\t\tunsupported version 2\t\t\t\t100\t13 (dravik)"},
      {"0000003C 00000001 00000064 0000000D 00000009 00000000 00000000000003E8 0000000E 00000000 00000000 00000010"
       " 00000001",
       Flow::in, "in\t\ttruncated frame: 48 of 60 payload bytes\t\t\t\t100\t13 (dravik)"},
      {"00000030 00000001 0000000D 00000064 00000009 00000000 00000000000003E8 00000063 00000000 00000000 00000004"
       " 00000001",
       Flow::out, "out\t\tunknown selector 99\t\t\t\t13 (dravik)\t100"},
      {"00000030 00000001 00000064 0000000D 00000009 00000000 00000000000003E8 0000000E 00000000 00000000 00000009"
       " 00000001",
       Flow::in, "in\tRestoreFactoryVirtualCameraSettingsCommand\targsLength 9 but 4 argument bytes\t\t\t\t100\t13 (dravik)"},
      {"00000034 00000001 00000064 0000000D 00000009 00000000 00000000000003E8 0000000E 00000000 00000000 00000008"
       " 00000001 00000002",
       Flow::in, "in\tRestoreFactoryVirtualCameraSettingsCommand\t4 bytes after the arguments\t\t\t\t100\t13 (dravik)"},
      {"00000032 00000001 00000064 0000000D 00000009 00000000 00000000000003E8 000032CC 00000000 00000000 00000006"
       " 00000001 8000",
       Flow::in, "in\tSetAnalyticsFilterDataCommand\tfileName: length 32768 is over the readers' limit of 32767: dravik "
       "reads it as empty\t\t\t\t100\t13 (dravik)"},
      {"00000034 00000001 00000064 0000000D 00000009 00000000 00000000000003E8 000032CC 00000000 00000000 00000008"
       " 00000001 0005 6162",
       Flow::in, "in\t\tSetAnalyticsFilterDataCommand: frame ends inside argument fileName\t\t\t\t100\t13 (dravik)"},
      {"00000030 00000001 0000000B 0000000D 00000009 00000004 00000000000003E8 000007FD 00000000 00000000 00000004"
       " 00000000",
       Flow::in, "in\tCalibrationDataResponse\t\t\t\t\t11 (engine)\t13 (dravik)"},
      // A 13002 without a response selector is answered with selector 0: frames 11 and 12 link.
      {"00000030 00000001 00000064 0000000D 00000009 00000000 00000000000003E8 000032CA 00000000 00000000 00000004"
       " 00000002",
       Flow::in, "in\tGetAnalyticsFilterDataRequest\t\t\t12\t\t100\t13 (dravik)"},
      {"00000030 00000001 0000000D 00000064 00000005 00000009 00000000000003E8 00000000 00000000 00000000 00000004"
       " 0002 2F71",
       Flow::out, "out\tGetAnalyticsFilterDataResponse\t\t11\t\t\t13 (dravik)\t100"},
  };
  std::string capture = pcapng::fileHeader();
  std::string expected;
  for (const auto& row : rows) {
    capture += pcapng::packetBlock(bytesFromHex(row.frame), row.flow, {1, 0});
    expected += row.fields + "\n";
  }
  writeFile(dir.file("capture.pcapng"), capture);
  ChildProcess tshark;
  std::string why;
  ASSERT_TRUE(tshark.start(gTshark, "tshark",
                           {"-2", "-X", "lua_script:" + dir.file("dravik.lua"), "-r", dir.file("capture.pcapng"), "-T",
                            "fields", "-E", "occurrence=a", "-e", "dravik.direction", "-e", "dravik.class", "-e",
                            "_ws.expert.message", "-e", "dravik.request_in", "-e", "dravik.answer_in", "-e",
                            "dravik.calibrationData", "-e", "_ws.col.Source", "-e", "_ws.col.Destination"},
                           {}, &why))
      << why;
  ASSERT_EQ(tshark.wait(60s).value_or(-1), 0) << tshark.err();
  EXPECT_EQ(tshark.out(), expected);
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (::testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();
  gCtl = openExecutable(DRAVIKCTL_BINARY);
  gTshark = openExecutable("/usr/bin/tshark");
  if (gCtl < 0) {
    std::fprintf(stderr, "no dravikctl at %s\n", DRAVIKCTL_BINARY);
    return 1;
  }
  return RUN_ALL_TESTS();
}
