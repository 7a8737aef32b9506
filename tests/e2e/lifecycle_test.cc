// The process as a whole: options and exit codes, the start-up lines, every
// way of stopping it, and what it costs while idle.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "tests/e2e/daemon_test.h"
#include "tests/support/console_capture.h"

namespace {

const char* const kBanner = "Running Halvora Parameter Storage Service (dravik)";
const char* const kOpeningLine = "<time> Info: Opening binary input FIFO: /tmp/dravik.mailbox\n";

// How many writes of `size` bytes an empty pipe of `capacity` bytes takes
// before it is full.
std::size_t framesThatFit(int capacity, std::size_t size) {
  int fds[2];
  if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) return 0;
  fcntl(fds[1], F_SETPIPE_SZ, capacity);
  std::string frame(size, 'f');
  std::size_t count = 0;
  while (write(fds[1], frame.data(), frame.size()) == static_cast<ssize_t>(size)) ++count;
  close(fds[0]);
  close(fds[1]);
  return count;
}

std::vector<SyslogLine> startLines(const std::string& delay) {
  return {info(kBanner), info("API: starting dispatcher with sleep=" + delay),
          info("API: creating command (input) FIFO"), info("API: creating notification (output) FIFO")};
}

// ---------------------------------------------------------------------------

class OptionsTest : public DaemonTest {
 protected:
  // Runs dravik with `args` and expects it to end at once with status 127,
  // having logged only its banner.
  void expectRefused(const std::vector<std::string>& args) {
    ASSERT_NO_FATAL_FAILURE(startDaemon(args));
    std::optional<int> status = daemon_.wait(kWait);
    ASSERT_TRUE(status.has_value());
    syslog_.flush(kWait);
    EXPECT_EQ(describeWaitStatus(*status), "exited with status 127");
    EXPECT_EQ(log(), std::vector<SyslogLine>{info(kBanner)});
    EXPECT_FALSE(fileExists(kMailboxPath));
    EXPECT_FALSE(fileExists(kCommPath));
    EXPECT_EQ(daemon_.out(), "");
  }
};

TEST_F(OptionsTest, UnknownOptionEndsWithStatus127AfterTheBanner) {
  expectRefused({"-x"});
  EXPECT_EQ(daemon_.err(), "dravik: invalid option -- 'x'\n");
}

TEST_F(OptionsTest, OptionDEndsWithStatus127AfterTheBanner) {
  expectRefused({"-d"});
  EXPECT_EQ(daemon_.err(), "");
}

TEST_F(OptionsTest, OptionSWithoutValueEndsWithStatus127) {
  expectRefused({"-s"});
  EXPECT_EQ(daemon_.err(), "dravik: option requires an argument -- 's'\n");
}

TEST_F(OptionsTest, BadOptionAfterGoodOnesStillEndsWithStatus127) { expectRefused({"-q", "-s", "5", "-d"}); }

struct DelayCase {
  const char* name;
  std::vector<std::string> args;
  const char* shown;
};

class StartupDelayTest : public DaemonTest, public ::testing::WithParamInterface<DelayCase> {};

TEST_P(StartupDelayTest, IsShownInTheDispatcherLine) {
  ASSERT_NO_FATAL_FAILURE(startDaemon(GetParam().args));
  ASSERT_TRUE(waitForLog(info("API: creating notification (output) FIFO")));
  EXPECT_EQ(log(), startLines(GetParam().shown));
  int status = stopDaemon(SIGTERM);
  EXPECT_EQ(describeWaitStatus(status), "exited with status 1");
}

INSTANTIATE_TEST_SUITE_P(
    Forms, StartupDelayTest,
    ::testing::Values(DelayCase{"None", {}, "0"}, DelayCase{"Hex", {"-s", "0x1E"}, "30"},
                      DelayCase{"Decimal", {"-s", "30"}, "30"}, DelayCase{"UpperCaseX", {"-s", "0X1E"}, "0"},
                      DelayCase{"Letters", {"-s", "abc"}, "0"}, DelayCase{"TrailingLetters", {"-s", "12abc"}, "12"},
                      DelayCase{"LastWins", {"-s", "5", "-s", "7"}, "7"}, DelayCase{"Attached", {"-s0x1E"}, "30"},
                      DelayCase{"LargestShownSigned", {"-s", "0xFFFFFFFF"}, "-1"},
                      DelayCase{"WithQuiet", {"-q", "-s", "3"}, "3"}),
    [](const ::testing::TestParamInfo<DelayCase>& param) { return std::string(param.param.name); });

// ---------------------------------------------------------------------------

class StartTest : public DaemonTest {};

TEST_F(StartTest, LogsItsStartLinesInOrder) {
  ASSERT_NO_FATAL_FAILURE(startServing({"-s", "1000"}));
  std::vector<SyslogLine> expected = startLines("1000");
  expected.push_back(info("API: creating dispatcher thread"));
  expected.push_back(info("API: starting dispatcher"));
  EXPECT_EQ(log(), expected);
  ASSERT_TRUE(daemon_.waitForOut("\n", kWait));
  EXPECT_EQ(maskLogTime(daemon_.out()), kOpeningLine);
  EXPECT_EQ(daemon_.err(), "");
  EXPECT_TRUE(waitForFifo(kMailboxPath, kWait));
  EXPECT_TRUE(waitForFifo(kCommPath, kWait));
}

TEST_F(StartTest, UsesPipesLeftFromAnEarlierRun) {
  ASSERT_EQ(mkfifo(kMailboxPath, 0600), 0);
  ASSERT_EQ(mkfifo(kCommPath, 0600), 0);
  ASSERT_NO_FATAL_FAILURE(startServing());
  Reply reply = exchange(command(kResetCalibration, int32Arg(1)));
  ASSERT_EQ(reply.frames.size(), 1u);
  expectSent(reply.frames[0], kResetCalibration, kEndpoint2, 0, int32Arg(1));
  struct stat info;
  ASSERT_EQ(stat(kMailboxPath, &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST_F(StartTest, CommandPipeThatCannotBeOpenedEndsWithStatus2) {
  // A dangling symbolic link: mkfifo finds the name taken, open finds nothing.
  ASSERT_EQ(symlink("/tmp/no-such-dir/mailbox", kMailboxPath), 0);
  ASSERT_NO_FATAL_FAILURE(startDaemon({"-s", "1000"}));
  std::optional<int> status = daemon_.wait(kWait);
  ASSERT_TRUE(status.has_value());
  syslog_.flush(kWait);
  EXPECT_EQ(describeWaitStatus(*status), "exited with status 2");
  std::vector<SyslogLine> expected = startLines("1000");
  expected.push_back(err("API: cannot open command (input) FIFO /tmp/dravik.mailbox: not a named pipe"));
  EXPECT_EQ(log(), expected);
  EXPECT_EQ(maskLogTime(daemon_.out()), kOpeningLine);
}

// ---------------------------------------------------------------------------

using StopTest = DaemonTest;

TEST_F(StopTest, StopWhileWaitingForTheFirstWriterLogsNoThreadLines) {
  ASSERT_NO_FATAL_FAILURE(startDaemon({"-s", "1000"}));
  ASSERT_TRUE(waitForOpen(kMailboxPath)) << "dravik does not wait on its mailbox";
  double seconds = 0;
  int status = stopDaemon(SIGTERM, &seconds);
  EXPECT_EQ(describeWaitStatus(status), "exited with status 1");
  EXPECT_LT(seconds, 1.0);
  std::vector<SyslogLine> expected = startLines("1000");
  expected.push_back(info("Dravik API"));
  expected.push_back(err("Received signal: 15 - stopping"));
  EXPECT_EQ(log(), expected);
}

TEST_F(StopTest, QuietStopLogsNoReceivedLine) {
  ASSERT_NO_FATAL_FAILURE(startServing({"-q", "-s", "1000"}));
  double seconds = 0;
  int status = stopDaemon(SIGTERM, &seconds);
  EXPECT_EQ(describeWaitStatus(status), "exited with status 1");
  EXPECT_LT(seconds, 1.0);
  std::vector<SyslogLine> expected = normalStop(SIGTERM);
  expected.erase(expected.begin() + 1);
  EXPECT_EQ(stopLines(), expected);
}

class StopSignalTest : public StopTest, public ::testing::WithParamInterface<int> {};

TEST_P(StopSignalTest, StopsWithASilentWriterHoldingTheMailbox) {
  ASSERT_NO_FATAL_FAILURE(startServing());
  expectNormalStop(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Signals, StopSignalTest, ::testing::Values(SIGHUP, SIGINT, SIGQUIT, SIGTERM),
                         [](const ::testing::TestParamInfo<int>& param) {
                           return std::string(sigabbrev_np(param.param));
                         });

TEST_F(StopTest, StopsAfterTheWriterHasLeft) {
  ASSERT_NO_FATAL_FAILURE(startServing());
  peer_.disconnect();
  ASSERT_TRUE(waitForLog(info("API: Input FIFO is empty")));
  expectNormalStop(SIGTERM);
}

TEST_F(StopTest, StopsWhileTheNotificationPipeIsFullAndNobodyReadsIt) {
  ASSERT_NO_FATAL_FAILURE(startServing());
  peer_.closeNotifications();
  // Each answer to a get request is a 101-byte frame (44 header, 2 + 51 path,
  // 4 length); the dispatcher blocks in the write of the first that does not
  // fit. How many fit depends on how the kernel packs small writes into the
  // pipe's pages, so a pipe of the same size is filled here first to find out.
  int capacity = fcntl(peer_.writerFd(), F_GETPIPE_SZ);
  ASSERT_GT(capacity, 0);
  const std::size_t fitting = framesThatFit(capacity, 101);
  ASSERT_GT(fitting, 0u);
  std::string requests;
  for (std::size_t i = 0; i < fitting + 20; ++i) requests += command(kGetFilter, int32Arg(0));
  ASSERT_LT(requests.size(), static_cast<std::size_t>(capacity));
  peer_.send(requests);
  const SyslogLine answered = info("Sending get CH=0 /etc/sysconfig/dravik/zek/tbe/metadataFilterCH0.xml");
  ASSERT_TRUE(waitForLog(answered, fitting + 1)) << logCount(answered) << " answered";
  expectNormalStop(SIGTERM);
  EXPECT_EQ(logCount(answered), fitting + 1);
}

TEST_F(StopTest, StopsDuringTheStartupRestore) {
  writeFile(calibrationPath(0), "abc");
  writeFile(calibrationPath(1), "def");
  ASSERT_NO_FATAL_FAILURE(startServing({"-s", "0"}));
  std::optional<Frame> restored = peer_.readFrame(kWait);
  ASSERT_TRUE(restored.has_value());
  expectSent(*restored, kSetCalibration, kEngine, kCalibrationData, int32Arg(0) + blockArg("abc"));
  expectNormalStop(SIGTERM);
  EXPECT_EQ(logCount(info("Restoring Zek Calibration for ch=1")), 0u);
  EXPECT_TRUE(peer_.quietFor(std::chrono::milliseconds(0)));
}

// ---------------------------------------------------------------------------

class IdleTest : public DaemonTest {
 protected:
  // Processor time that the daemon uses over two seconds of idling.
  double idleCost() {
    double before = daemon_.cpuSeconds();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    double after = daemon_.cpuSeconds();
    EXPECT_GE(before, 0.0);
    return after - before;
  }
};

TEST_F(IdleTest, WaitingForTheFirstWriterCostsNoProcessorTime) {
  ASSERT_NO_FATAL_FAILURE(startDaemon({"-s", "1000"}));
  ASSERT_TRUE(waitForOpen(kMailboxPath));
  EXPECT_LT(idleCost(), 0.2);
}

TEST_F(IdleTest, SilentWriterCostsNoProcessorTime) {
  ASSERT_NO_FATAL_FAILURE(startServing());
  EXPECT_LT(idleCost(), 0.2);
}

TEST_F(IdleTest, NoWriterAfterTheLastLeftCostsNoProcessorTime) {
  ASSERT_NO_FATAL_FAILURE(startServing());
  peer_.disconnect();
  ASSERT_TRUE(waitForLog(info("API: Input FIFO is empty")));
  EXPECT_LT(idleCost(), 0.2);
  EXPECT_EQ(logCount(info("API: Input FIFO is empty")), 1u);
}

}  // namespace
