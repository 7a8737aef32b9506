// dravikctl as a person or a script uses it: the real executable, against the
// real daemon in a private mount namespace, or against pipes that the test
// holds itself when the daemon cannot produce the situation (a calibration
// request, a refused frame). Every run is bounded: a dravikctl that does not
// end within its guard time is killed and fails the test.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>

#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/daemon_process.h"
#include "tests/support/faketime.h"
#include "tests/support/pipe_io.h"
#include "tests/support/store_files.h"
#include "tests/support/syslog_socket.h"
#include "tests/support/temp_dir.h"
#include "tests/tools/dravikctl_e2e_test.h"
#include "tests/tools/wire.h"

namespace {

constexpr std::chrono::milliseconds kGuard{10000};  // only against a hung run
const char* const kMailbox = "/tmp/dravik.mailbox";
const char* const kComm = "/tmp/comm.mailbox";
const char* const kHint = "Try 'dravikctl --help' for more information.\n";

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// What one run of dravikctl did.
struct Outcome {
  int exitStatus = -1;  // -1: killed, or did not end in time
  std::string out;
  std::string err;
};

Outcome finish(DaemonProcess& process, std::chrono::milliseconds guard = kGuard) {
  Outcome run;
  std::optional<int> status = process.wait(guard);
  if (!status) {
    ADD_FAILURE() << "dravikctl did not end within " << guard.count() << " ms";
  } else if (WIFEXITED(*status)) {
    run.exitStatus = WEXITSTATUS(*status);
  } else {
    ADD_FAILURE() << "dravikctl " << describeWaitStatus(*status);
  }
  run.out = process.out();
  run.err = process.err();
  return run;
}

// Starts dravikctl with `args`; the caller finishes it.
std::unique_ptr<DaemonProcess> startDravikctl(const std::vector<std::string>& args) {
  auto process = std::make_unique<DaemonProcess>();
  std::string why;
  if (!process->start(dravikctlDescriptor(), "dravikctl", args, {}, &why)) ADD_FAILURE() << why;
  return process;
}

Outcome dravikctl(const std::vector<std::string>& args) {
  std::unique_ptr<DaemonProcess> process = startDravikctl(args);
  return finish(*process);
}

// The command line alone: needs no daemon and no sandbox.
class DravikctlCommandLineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (dravikctlDescriptor() < 0) GTEST_SKIP() << "dravikctl cannot be run: " << sandboxUnavailableReason();
  }

  void expectRefused(const std::vector<std::string>& args, const std::string& message) {
    Outcome run = dravikctl(args);
    EXPECT_EQ(run.exitStatus, 2) << ::testing::PrintToString(args);
    EXPECT_EQ(run.out, "") << ::testing::PrintToString(args);
    EXPECT_EQ(run.err, "dravikctl: " + message + "\n" + kHint) << ::testing::PrintToString(args);
  }
};

TEST_F(DravikctlCommandLineTest, BadArgumentsGetOneLineAndAHintWithStatusTwo) {
  expectRefused({}, "no command given");
  expectRefused({"frobnicate"}, "unknown command 'frobnicate'");
  expectRefused({"reset-channel"}, "reset-channel takes N, got 0 arguments");
  expectRefused({"reset-channel", "x"}, "invalid channel 'x' (a number such as 0 to 3)");
  expectRefused({"save-filter", "1", "zero"}, "invalid status 'zero' (a 32-bit number; 0 is success)");
  expectRefused({"reset-all", "--json"}, "option '--json' applies to monitor and simulate only");
  expectRefused({"get-filter", "1", "--timeout", "-1"}, "invalid --timeout value '-1' (seconds, more than 0)");
  expectRefused({"monitor", "--bogus"}, "unknown option '--bogus'");
}

TEST_F(DravikctlCommandLineTest, CalibrationFileThatCannotBeReadIsABadArgument) {
  expectRefused({"calibration-response", "5", "/nonexistent/block.bin"}, "cannot read /nonexistent/block.bin");
}

TEST_F(DravikctlCommandLineTest, HelpListsEveryCommandAndExitsZero) {
  Outcome run = dravikctl({"--help"});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(run.out.rfind("Usage: dravikctl [OPTIONS] COMMAND [ARGUMENTS]\n", 0), 0u) << run.out;
  for (const char* command : {"reset-all", "reset-channel N", "reset-calibration N", "reset-filter N",
                              "set-filter N FILE", "save-filter N STATUS", "calibration-response ID FILE",
                              "get-filter N", "monitor", "simulate"}) {
    EXPECT_NE(run.out.find(std::string("\n  ") + command + " "), std::string::npos) << command;
  }
  for (const char* option : {"--mailbox PATH", "--notifications PATH", "--sender N", "--response-selector N",
                             "--timeout SECONDS", "--hex", "--json", "--filter-status N", "-h, --help",
                             "-V, --version"}) {
    EXPECT_NE(run.out.find(std::string("\n  ") + option + " "), std::string::npos) << option;
  }
  EXPECT_EQ(dravikctl({"reset-all", "-h"}).out, run.out);
}

TEST_F(DravikctlCommandLineTest, VersionIsTheProjectVersion) {
  Outcome run = dravikctl({"--version"});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.out, std::string("dravikctl ") + DRAVIK_VERSION + "\n");
  EXPECT_EQ(run.err, "");
}

// The sandbox: an empty store, no pipes and a syslog socket at /dev/log for
// every test; the daemon when a test starts it.
class DravikctlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!sandboxUnavailableReason().empty()) GTEST_SKIP() << sandboxUnavailableReason();
    ASSERT_TRUE(resetStoreAndPipes());
    std::string why;
    ASSERT_TRUE(syslog_.open("/dev/log", &why)) << why;
  }

  void TearDown() override {
    if (!sandboxUnavailableReason().empty()) return;
    if (daemon_ && daemon_->running()) daemon_->wait(std::chrono::milliseconds(0));
    syslog_.close();
  }

  // Starts dravik (the start-up restore postponed unless `args` say
  // otherwise) and returns once it reads its mailbox.
  void startDaemon(const std::vector<std::string>& args = {"-s", "1000"},
                   const std::vector<std::string>& environment = {}) {
    daemon_ = std::make_unique<DaemonProcess>();
    std::string why;
    ASSERT_TRUE(daemon_->start(dravikDescriptor(), "dravik", args, environment, &why)) << why;
    ASSERT_TRUE(hasOpen(kMailbox)) << "dravik does not read " << kMailbox << "; " << daemon_->err();
  }

  // Stops the daemon as its operators do; it ends with status 1.
  void stopDaemon() {
    ASSERT_TRUE(daemon_->signal(SIGTERM));
    std::optional<int> status = daemon_->wait(kGuard);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(describeWaitStatus(*status), "exited with status 1");
  }

  // True once the daemon (or process `pid`) holds `path` open.
  bool hasOpen(const std::string& path, pid_t pid = 0) const {
    return waitUntilOpen(pid != 0 ? pid : daemon_->pid(), path, kGuard);
  }

  bool waitForLog(int priority, const std::string& text) const {
    SyslogLine wanted{priority, text};
    return syslog_.waitFor(
        daemon_->pid(),
        [&](const std::vector<SyslogLine>& lines) {
          for (const SyslogLine& line : lines) {
            if (line == wanted) return true;
          }
          return false;
        },
        kGuard);
  }

  std::string log() const { return ::testing::PrintToString(syslog_.lines(daemon_->pid())); }

  // The dispatcher runs one message at a time: once a request sent now is
  // answered, everything sent before it has been done.
  void fence() { ASSERT_EQ(dravikctl({"get-filter", "0"}).exitStatus, 0); }

  std::unique_ptr<DaemonProcess> daemon_;
  SyslogSocket syslog_;
};

TEST_F(DravikctlTest, MissingPipeIsReportedAtOnce) {
  Outcome send = dravikctl({"reset-all"});
  EXPECT_EQ(send.exitStatus, 1);
  EXPECT_EQ(send.err, "dravikctl: no pipe at /tmp/dravik.mailbox (is the service running?)\n");
  EXPECT_EQ(send.out, "");
  Outcome get = dravikctl({"get-filter", "1"});
  EXPECT_EQ(get.exitStatus, 1);
  EXPECT_EQ(get.err, "dravikctl: no pipe at /tmp/comm.mailbox (is the service running?)\n");
  Outcome monitor = dravikctl({"monitor"});
  EXPECT_EQ(monitor.exitStatus, 1);
  EXPECT_EQ(monitor.err, "dravikctl: no pipe at /tmp/comm.mailbox (is the service running?)\n");
}

TEST_F(DravikctlTest, PipeThatNoDaemonReadsIsReportedAtOnce) {
  makeFifo(kMailbox);
  makeFifo(kComm);
  Outcome send = dravikctl({"reset-channel", "2"});
  EXPECT_EQ(send.exitStatus, 1);
  EXPECT_EQ(send.err, "dravikctl: no daemon is reading /tmp/dravik.mailbox\n");
  Outcome get = dravikctl({"get-filter", "2"});
  EXPECT_EQ(get.exitStatus, 1);
  EXPECT_EQ(get.err, "dravikctl: no daemon is reading /tmp/dravik.mailbox\n");
}

TEST_F(DravikctlTest, GetFilterGivesUpWhenNobodyAnswers) {
  makeFifo(kMailbox);
  makeFifo(kComm);
  UniqueFd silentService = openPipeReader(kMailbox);  // takes the request, never answers
  Outcome run = dravikctl({"get-filter", "1", "--timeout", "0.3"});
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "dravikctl: no answer from the service on /tmp/comm.mailbox within 0.3 s\n");
}

TEST_F(DravikctlTest, GetFilterPrintsThePathOfTheChannelsFilter) {
  ASSERT_NO_FATAL_FAILURE(startDaemon());
  Outcome run = dravikctl({"get-filter", "3"});
  EXPECT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.out, filterPath(3) + "\n");
  EXPECT_EQ(run.err, "");
  EXPECT_TRUE(waitForLog(LOG_INFO, "Sending get CH=3 " + filterPath(3))) << log();
}

TEST_F(DravikctlTest, GetFilterMatchesItsAnswerWhateverResponseSelectorItAsksFor) {
  ASSERT_NO_FATAL_FAILURE(startDaemon());
  Outcome run = dravikctl({"get-filter", "0", "--response-selector", "0", "--sender", "42"});
  EXPECT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.out, filterPath(0) + "\n");
}

TEST_F(DravikctlTest, GetFilterSkipsOtherFramesAndSaysSo) {
  ASSERT_NO_FATAL_FAILURE(startDaemon());
  // The notification of this reset waits in the pipe, unread.
  ASSERT_EQ(dravikctl({"reset-filter", "2"}).exitStatus, 0);
  ASSERT_TRUE(waitForLog(LOG_INFO, "RestoreFactoryFilterNotification::toStream channel=2")) << log();
  Outcome run = dravikctl({"get-filter", "1"});
  EXPECT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.out, filterPath(1) + "\n");
  EXPECT_TRUE(std::regex_match(
      run.err, std::regex("dravikctl: skipped RestoreFactoryFilterNotification 13->2 id=[0-9]+ corr=0 resp=0 "
                          "channel=2\n")))
      << run.err;
}

TEST_F(DravikctlTest, ResetAllShowsEightNotificationsInMonitorJson) {
  ASSERT_NO_FATAL_FAILURE(startDaemon());
  std::unique_ptr<DaemonProcess> monitor = startDravikctl({"monitor", "--json", "--count", "8"});
  Outcome reset = dravikctl({"reset-all"});
  EXPECT_EQ(reset.exitStatus, 0) << reset.err;
  EXPECT_EQ(reset.out + reset.err, "");
  Outcome watched = finish(*monitor);
  EXPECT_EQ(watched.exitStatus, 0);
  EXPECT_EQ(watched.err, "");
  std::vector<std::string> lines = splitLines(watched.out);
  ASSERT_EQ(lines.size(), 8u) << watched.out;
  for (int channel = 0; channel < 4; ++channel) {
    const std::string time = "\\{\"time\":\"[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z\",";
    const std::string rest = ",\"sender\":13,\"recipient\":2,\"id\":[0-9]+,\"correlationId\":0,"
                             "\"responseSelector\":0,\"selector\":(13005|13001),\"flags\":0,\"version\":1,"
                             "\"timestamp\":[0-9]+,\"argsLength\":4,\"args\":\\{\"channel\":" +
                             std::to_string(channel) + "\\}\\}";
    EXPECT_TRUE(std::regex_match(lines[2 * channel],
                                 std::regex(time + "\"class\":\"RestoreFactoryFilterNotification\"" + rest)))
        << lines[2 * channel];
    EXPECT_NE(lines[2 * channel].find("\"selector\":13005"), std::string::npos);
    EXPECT_TRUE(std::regex_match(lines[2 * channel + 1],
                                 std::regex(time + "\"class\":\"ResetCalibrationNotification\"" + rest)))
        << lines[2 * channel + 1];
    EXPECT_NE(lines[2 * channel + 1].find("\"selector\":13001"), std::string::npos);
  }
}

TEST_F(DravikctlTest, MonitorPrintsOneTextLinePerFrame) {
  ASSERT_NO_FATAL_FAILURE(startDaemon());
  ASSERT_EQ(dravikctl({"reset-channel", "2"}).exitStatus, 0);
  Outcome watched = dravikctl({"monitor", "--count", "2"});
  EXPECT_EQ(watched.exitStatus, 0);
  std::vector<std::string> lines = splitLines(watched.out);
  ASSERT_EQ(lines.size(), 2u) << watched.out;
  const std::string time = "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";
  EXPECT_TRUE(std::regex_match(
      lines[0], std::regex(time + "RestoreFactoryFilterNotification 13->2 id=[0-9]+ corr=0 resp=0 channel=2")))
      << lines[0];
  EXPECT_TRUE(std::regex_match(
      lines[1], std::regex(time + "ResetCalibrationNotification 13->2 id=[0-9]+ corr=0 resp=0 channel=2")))
      << lines[1];
}

TEST_F(DravikctlTest, MonitorEndsAfterItsDurationWhenNothingComes) {
  ASSERT_NO_FATAL_FAILURE(startDaemon());
  Outcome watched = dravikctl({"monitor", "--duration", "0.2"});
  EXPECT_EQ(watched.exitStatus, 0);
  EXPECT_EQ(watched.out + watched.err, "");
}

TEST_F(DravikctlTest, SimulateAcceptsAFilterAndTheServiceSavesIt) {
  ASSERT_NO_FATAL_FAILURE(startDaemon());
  const std::string filter = "/etc/sysconfig/dravik/f1.xml";  // the store's file system: renamed, not copied
  writeFile(filter, "<filter/>\n");
  std::unique_ptr<DaemonProcess> simulate = startDravikctl({"simulate", "--count", "1"});
  ASSERT_TRUE(simulate->waitForErr("dravikctl: simulate: writing to /tmp/dravik.mailbox\n", kGuard)) << simulate->err();

  Outcome set = dravikctl({"set-filter", "1", filter});
  EXPECT_EQ(set.exitStatus, 0) << set.err;
  Outcome played = finish(*simulate);
  EXPECT_EQ(played.exitStatus, 0);
  ASSERT_NO_FATAL_FAILURE(fence());
  EXPECT_TRUE(waitForLog(LOG_INFO, "Saving Analytics Filter To file for ch=1 FileName:: " + filter)) << log();

  std::vector<std::string> lines = splitLines(played.out);
  ASSERT_EQ(lines.size(), 2u) << played.out;
  const std::string time = "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";
  EXPECT_TRUE(std::regex_match(lines[0], std::regex(time + "recv SetAnalyticsFilterDataNotification 13->2 id=[0-9]+ "
                                                           "corr=0 resp=13006 channel=1 fileName=\"" +
                                                           filter + "\"")))
      << lines[0];
  EXPECT_TRUE(std::regex_match(
      lines[1], std::regex(time + "send SaveAnalyticsFilterDataCommand 2->13 id=[0-9]+ corr=0 resp=0 channel=1 status=0")))
      << lines[1];
  EXPECT_EQ(played.err,
            "dravikctl: simulate: writing to /tmp/dravik.mailbox\n"
            "dravikctl: simulate: 1 frames received, 1 answers sent\n");
  EXPECT_FALSE(fileExists(filter));
  EXPECT_EQ(readFile(filterPath(1)), "<filter/>\n");
}

TEST_F(DravikctlTest, SimulateWithAFailureStatusLeavesTheFilterWhereItIs) {
  ASSERT_NO_FATAL_FAILURE(startDaemon());
  const std::string filter = "/etc/sysconfig/dravik/f2.xml";
  writeFile(filter, "<filter/>\n");
  std::unique_ptr<DaemonProcess> simulate = startDravikctl({"simulate", "--count", "1", "--filter-status", "3"});
  ASSERT_TRUE(simulate->waitForErr("writing to", kGuard)) << simulate->err();
  ASSERT_EQ(dravikctl({"set-filter", "2", filter}).exitStatus, 0);
  Outcome played = finish(*simulate);
  EXPECT_EQ(played.exitStatus, 0);
  ASSERT_NO_FATAL_FAILURE(fence());
  EXPECT_NE(played.out.find(" send SaveAnalyticsFilterDataCommand 2->13 "), std::string::npos) << played.out;
  EXPECT_NE(played.out.find(" channel=2 status=3\n"), std::string::npos) << played.out;
  EXPECT_TRUE(waitForLog(LOG_ERR, "SaveAnalyticsFilterFile Error. Failed ZEK SetAnalyticsFilter with status 3 for file::" +
                                      filter))
      << log();
  EXPECT_EQ(readFile(filter), "<filter/>\n");
  EXPECT_FALSE(fileExists(filterPath(2)));
}

TEST_F(DravikctlTest, SetFilterSendsARelativeNameAsAnAbsolutePath) {
  ASSERT_NO_FATAL_FAILURE(startDaemon());
  std::unique_ptr<DaemonProcess> monitor = startDravikctl({"monitor", "--count", "1"});
  ASSERT_EQ(chdir("/etc/sysconfig/dravik"), 0);
  Outcome set = dravikctl({"set-filter", "0", "new.xml"});
  ASSERT_EQ(chdir("/"), 0);
  EXPECT_EQ(set.exitStatus, 0);
  EXPECT_EQ(set.err, "dravikctl: warning: /etc/sysconfig/dravik/new.xml does not exist (sent all the same)\n");
  EXPECT_TRUE(waitForLog(LOG_INFO, "SetAnalyticsFilter ch=0 name=/etc/sysconfig/dravik/new.xml")) << log();
  Outcome watched = finish(*monitor);
  EXPECT_NE(watched.out.find(" fileName=\"/etc/sysconfig/dravik/new.xml\"\n"), std::string::npos) << watched.out;
}

TEST_F(DravikctlTest, SimulateStopsCleanlyOnSigterm) {
  ASSERT_NO_FATAL_FAILURE(startDaemon());
  std::unique_ptr<DaemonProcess> simulate = startDravikctl({"simulate"});
  ASSERT_TRUE(simulate->waitForErr("writing to", kGuard)) << simulate->err();
  ASSERT_TRUE(simulate->signal(SIGTERM));
  Outcome played = finish(*simulate);
  EXPECT_EQ(played.exitStatus, 0);
  EXPECT_EQ(played.out, "");
  EXPECT_EQ(played.err,
            "dravikctl: simulate: writing to /tmp/dravik.mailbox\n"
            "dravikctl: simulate: 0 frames received, 0 answers sent\n");
}

TEST_F(DravikctlTest, MonitorWaitsForTheServiceToComeBack) {
  ASSERT_NO_FATAL_FAILURE(startDaemon());
  std::unique_ptr<DaemonProcess> monitor = startDravikctl({"monitor", "--count", "1"});
  ASSERT_TRUE(hasOpen(kComm, monitor->pid()));
  ASSERT_NO_FATAL_FAILURE(stopDaemon());
  ASSERT_TRUE(monitor->waitForErr("\n", kGuard));
  EXPECT_EQ(monitor->err(), "dravikctl: the service closed /tmp/comm.mailbox; waiting for it to come back\n");

  ASSERT_NO_FATAL_FAILURE(startDaemon());
  ASSERT_EQ(dravikctl({"reset-calibration", "3"}).exitStatus, 0);
  Outcome watched = finish(*monitor);
  EXPECT_EQ(watched.exitStatus, 0);
  EXPECT_TRUE(std::regex_search(watched.out,
                                std::regex(" ResetCalibrationNotification 13->2 id=[0-9]+ corr=0 resp=0 channel=3\n$")))
      << watched.out;
}

TEST_F(DravikctlTest, SimulateServesTheNextDaemonAfterARestart) {
  ASSERT_NO_FATAL_FAILURE(startDaemon());
  std::unique_ptr<DaemonProcess> simulate = startDravikctl({"simulate", "--count", "1"});
  ASSERT_TRUE(simulate->waitForErr("writing to", kGuard)) << simulate->err();
  ASSERT_NO_FATAL_FAILURE(stopDaemon());
  ASSERT_TRUE(simulate->waitForErr("waiting for it to come back\n", kGuard)) << simulate->err();

  ASSERT_NO_FATAL_FAILURE(startDaemon());
  const std::string filter = "/etc/sysconfig/dravik/f3.xml";
  writeFile(filter, "<filter/>\n");
  ASSERT_EQ(dravikctl({"set-filter", "3", filter}).exitStatus, 0);
  Outcome played = finish(*simulate);
  EXPECT_EQ(played.exitStatus, 0);
  ASSERT_NO_FATAL_FAILURE(fence());
  EXPECT_EQ(readFile(filterPath(3)), "<filter/>\n");
  EXPECT_EQ(played.err,
            "dravikctl: simulate: writing to /tmp/dravik.mailbox\n"
            "dravikctl: simulate: the service closed /tmp/comm.mailbox; waiting for it to come back\n"
            "dravikctl: simulate: writing to /tmp/dravik.mailbox\n"
            "dravikctl: simulate: 1 frames received, 1 answers sent\n");
}

TEST_F(DravikctlTest, SimulatedEngineAnswersCalibrationRequestsAndTheServiceStoresThem) {
  std::string whyNot;
  std::string library = fakeTimeLibrary(DRAVIK_DAEMON_SANITIZERS, &whyNot);
  if (library.empty()) GTEST_SKIP() << whyNot;
  // A thousand times faster: the first requests come 1.8 s after the restore.
  ASSERT_NO_FATAL_FAILURE(startDaemon({"-s", "0"}, {"LD_PRELOAD=" + library, "FAKETIME=+0 x1000"}));
  std::unique_ptr<DaemonProcess> simulate = startDravikctl({"simulate", "--count", "4", "--block-size", "16"});
  Outcome played = finish(*simulate);
  EXPECT_EQ(played.exitStatus, 0) << played.err;
  ASSERT_TRUE(waitForLog(LOG_INFO, "UpdateCalibrationData:Updated " + calibrationPath(3))) << log();
  for (int channel = 0; channel < 4; ++channel) {
    std::string block;
    for (int i = 0; i < 16; ++i) block += static_cast<char>(channel * 16 + i);
    EXPECT_EQ(readFile(calibrationPath(channel)), block) << channel;
  }
  std::vector<std::string> lines = splitLines(played.out);
  ASSERT_EQ(lines.size(), 8u) << played.out;
  std::smatch request;
  ASSERT_TRUE(std::regex_search(lines[0], request, std::regex("recv GetCalibrationDataChangeNotification 13->11 "
                                                              "id=([0-9]+) corr=0 resp=2045 channel=0$")))
      << lines[0];
  EXPECT_TRUE(std::regex_search(
      lines[1], std::regex("send CalibrationDataResponse 11->13 id=[0-9]+ corr=" + request[1].str() +
                           " resp=0 calibrationData=<16 bytes: 00 01 02 03 04 05 06 07 \\.\\.\\.>$")))
      << lines[1];
}

// Frames that the daemon never sends, from pipes that the test holds.
class DravikctlPeerTest : public DravikctlTest {
 protected:
  void SetUp() override {
    DravikctlTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    // Made after the base fixture has emptied /tmp.
    dir_ = std::make_unique<TempDir>();
    mailbox_ = makeFifo(dir_->file("mailbox"));
    notifications_ = makeFifo(dir_->file("notifications"));
    serviceReader_ = openPipeReader(mailbox_);
    serviceWriter_ = openPipeWriter(notifications_);
  }

  std::vector<std::string> pipes() const { return {"--mailbox", mailbox_, "--notifications", notifications_}; }

  std::unique_ptr<TempDir> dir_;
  std::string mailbox_;
  std::string notifications_;
  UniqueFd serviceReader_;  // the service's ends
  UniqueFd serviceWriter_;
};

TEST_F(DravikctlPeerTest, SimulateAnswersACalibrationRequestWithABlockForItsChannel) {
  std::vector<std::string> args = pipes();
  args.insert(args.begin(), {"simulate", "--count", "1", "--block-size", "4"});
  std::unique_ptr<DaemonProcess> simulate = startDravikctl(args);
  TestHeader request;
  request.recipient = 11;
  request.id = 77;
  request.selector = 2044;
  request.responseSelector = 2045;
  writePipe(serviceWriter_.get(), testFrame(request, int32Arg(2)));

  std::string answer = readPipe(serviceReader_.get(), 4 + 44 + 8);
  ASSERT_EQ(answer.size(), 56u);
  TestHeader expected;
  expected.sender = 11;
  expected.recipient = 13;
  expected.id = static_cast<int32_t>(static_cast<unsigned char>(answer[16]) << 24 |
                                     static_cast<unsigned char>(answer[17]) << 16 |
                                     static_cast<unsigned char>(answer[18]) << 8 | static_cast<unsigned char>(answer[19]));
  expected.correlationId = 77;
  expected.selector = 2045;
  std::string expectedFrame = testFrame(expected, bytesFromHex("00 00 00 04 20 21 22 23"));
  // The timestamp (payload bytes 20 to 27) is the simulator's clock.
  expectedFrame.replace(24, 8, answer.substr(24, 8));
  EXPECT_EQ(toHex(answer), toHex(expectedFrame));

  Outcome played = finish(*simulate);
  EXPECT_EQ(played.exitStatus, 0);
  std::vector<std::string> lines = splitLines(played.out);
  ASSERT_EQ(lines.size(), 2u) << played.out;
  EXPECT_NE(lines[0].find(" recv GetCalibrationDataChangeNotification 13->11 id=77 corr=0 resp=2045 channel=2"),
            std::string::npos)
      << lines[0];
  EXPECT_NE(lines[1].find(" send CalibrationDataResponse 11->13 id=" + std::to_string(expected.id) +
                          " corr=77 resp=0 calibrationData=<4 bytes: 20 21 22 23>"),
            std::string::npos)
      << lines[1];
}

TEST_F(DravikctlPeerTest, MonitorShowsFramesItCannotDecodeInsteadOfSkippingThem) {
  std::vector<std::string> args = pipes();
  args.insert(args.begin(), {"monitor", "--count", "3"});
  std::unique_ptr<DaemonProcess> monitor = startDravikctl(args);
  TestHeader unknown;
  unknown.selector = 4242;
  TestHeader reset;
  reset.selector = 13001;
  writePipe(serviceWriter_.get(), be32(0) + testFrame(unknown, "") + testFrame(reset, int32Arg(1)));
  Outcome watched = finish(*monitor);
  EXPECT_EQ(watched.exitStatus, 0);
  std::vector<std::string> lines = splitLines(watched.out);
  ASSERT_EQ(lines.size(), 3u) << watched.out;
  EXPECT_EQ(lines[0].substr(13), "undecodable frame (invalid frame length 0): 00 00 00 00");
  EXPECT_EQ(lines[1].substr(13).rfind(
                "undecodable frame (unknown selector 4242) 13->2 id=7 corr=0 resp=0 selector=4242: 00 00 00 2c ", 0),
            0u)
      << lines[1];
  EXPECT_EQ(lines[2].substr(13), "ResetCalibrationNotification 13->2 id=7 corr=0 resp=0 channel=1");
}

TEST_F(DravikctlPeerTest, FullMailboxIsReportedAfterTheTimeout) {
  // Fill the pipe that nobody empties.
  UniqueFd filler = openPipeWriter(mailbox_);
  std::string block(4096, 'x');
  fcntl(filler.get(), F_SETFL, O_NONBLOCK);
  while (write(filler.get(), block.data(), block.size()) > 0) {
  }
  while (write(filler.get(), "x", 1) > 0) {
  }
  std::vector<std::string> args = pipes();
  args.insert(args.begin(), {"reset-all", "--timeout", "0.2"});
  Outcome run = dravikctl(args);
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_EQ(run.err, "dravikctl: the service is not taking messages from " + mailbox_ + " (pipe full)\n");
}

}  // namespace
