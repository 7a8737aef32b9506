// Options and the schedule of the main thread, and the dispatcher, in this
// process: the schedule's waits go through a sleeper that records them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "procfs/procfs.h"
#include "service/lifecycle.h"
#include "messaging/system_log.h"
#include "service/service_api.h"
#include "store/calibration_store.h"
#include "store/catalogue.h"
#include "tests/support/capture.h"
#include "tests/support/pipes.h"
#include "tests/support/store_files.h"
#include "tests/support/wire.h"

namespace {

// The sanitizers' allocators end the process when an allocation that may
// throw fails, instead of throwing.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kThrowingAllocationsMayFail = false;
#elif defined(__has_feature)
constexpr bool kThrowingAllocationsMayFail = !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer);
#else
constexpr bool kThrowingAllocationsMayFail = true;
#endif

TEST(LifecycleTest, NumberArgumentsAreDecimalOrHexAfter0x) {
  const std::pair<const char*, uint32_t> rows[] = {
      {"30", 30}, {"0x1E", 30}, {"0X1E", 0}, {"abc", 0}, {"12abc", 12}, {" 7", 7}, {"0x", 0}, {"", 0}, {"0xffffffff", 4294967295u},
  };
  for (const auto& row : rows) EXPECT_EQ(ParseNumberArgument(row.first), row.second) << row.first;
}

TEST(LifecycleTest, OptionsAreQuietAndTheDelayAndNothingElse) {
  struct Row {
    std::vector<const char*> args;
    bool accepted;
    bool quiet;
    uint32_t delay;
  } rows[] = {
      {{}, true, false, 0},
      {{"-q"}, true, true, 0},
      {{"-s", "5", "-s", "7"}, true, false, 7},
      {{"-qs0x10"}, true, true, 16},
      {{"-x"}, false, false, 0},
      {{"-d"}, false, false, 0},
      {{"-s"}, false, false, 0},
  };
  for (const Row& row : rows) {
    std::vector<char*> argv{const_cast<char*>("dravik")};
    for (const char* a : row.args) argv.push_back(const_cast<char*>(a));
    argv.push_back(nullptr);
    optind = 0;  // a full restart of getopt
    quiet = false;
    startupDelay = 0;
    EXPECT_EQ(ParseOptions(static_cast<int>(argv.size() - 1), argv.data()), row.accepted);
    if (!row.accepted) continue;
    EXPECT_EQ(quiet, row.quiet);
    EXPECT_EQ(startupDelay, row.delay);
  }
}

// The main thread's notifications go to a pipe read here.
class MainThreadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(resetStoreAndPipes());
    notificationFifo.create();
    reader_ = openFd(kNotificationFifoPath, O_RDONLY | O_NONBLOCK);
    fcntl(reader_.get(), F_SETPIPE_SZ, 1 << 20);
    BinaryMessage::notificationOutput = &notificationFifo;
    BinaryMessage::defaultSender = kServiceEndpoint;
  }
  void TearDown() override { notificationFifo.close(); }
  Fd reader_;
};

// The steps of the schedule and its waits, in the order they came.
TEST_F(MainThreadTest, ScheduleRestoresThenRequestsHourly) {
  SyslogCapture syslog;
  std::vector<std::string> timeline;
  auto note = [&] {
    for (const SyslogLine& line : syslog.take()) {
      for (const char* step : {"Restoring Zek Calibration for ch=", "RestoreZekAnalyticsFilter:: for ch=",
                               "Sending Zek Calibration Request for ch="}) {
        if (line.second.rfind(step, 0) == 0) timeline.push_back(step + line.second.substr(std::string(step).size()));
      }
    }
  };
  startupDelay = 7;
  SetSleeper([&](unsigned seconds) {
    note();
    timeline.push_back("sleep " + std::to_string(seconds));
    if (timeline.size() > 30) throw std::runtime_error("enough");
  });
  EXPECT_THROW(RunSchedule(), std::runtime_error);
  SetSleeper(nullptr);
  const std::string cal = "Restoring Zek Calibration for ch=", filter = "RestoreZekAnalyticsFilter:: for ch=",
                    request = "Sending Zek Calibration Request for ch=";
  EXPECT_EQ(timeline, (std::vector<std::string>{
                          "sleep 7",      cal + "0",     "sleep 4",     cal + "1",     "sleep 4",      cal + "2",
                          "sleep 4",      cal + "3",     "sleep 4",     "sleep 5",     filter + "0",   filter + "1",
                          filter + "2",   filter + "3",  "sleep 1800",  request + "0", "sleep 45",     request + "1",
                          "sleep 45",     request + "2", "sleep 45",    request + "3", "sleep 45",     "sleep 3600",
                          request + "0",  "sleep 45",    request + "1", "sleep 45",    request + "2", "sleep 45",
                          request + "3",  "sleep 45"}));
}

// The entry that an answer must match is complete before the request
// leaves, so that no answer can come before it: seen here while the request
// is being encoded.
int32_t entryWhileEncoding = -1;

TEST_F(MainThreadTest, CalibrationRequestIsRecordedBeforeItIsSent) {
  calibrationRequests[2].requestId = 0;
  systemlog::redirect([](int, const std::string& line) {
    if (line == "GetCalibrationDataChangeNotification::toStream channel=2") {
      entryWhileEncoding = calibrationRequests[2].requestId.load();
    }
  });
  SendZekCalibrationRequest(2);
  systemlog::redirect(nullptr);
  std::string sent = readAvailable(reader_.get());
  ASSERT_EQ(sent.size(), 52u);
  EXPECT_EQ(entryWhileEncoding, be32At(sent, 16));
}

// A calibration file whose block, or whose frame, cannot be had in memory is
// reported after its size, nothing is sent for it, and the schedule goes
// on. The schedule runs in a child whose address space is limited to 256 MiB
// more than it uses, so that these allocations fail and nothing else; its
// lines come back through a pipe.
TEST_F(MainThreadTest, CalibrationTooLargeToAllocateIsReportedAndTheScheduleGoesOn) {
  // qemu-user maps the guest's memory inside its own address space, which
  // a limit sized from the guest's view cannot account for.
  if (procfs::firstLine("/proc/self/comm").rfind("qemu-", 0) == 0) GTEST_SKIP() << "address-space limits do not work under qemu-user";
  const std::string huge = "3000000000", large = "157286400";  // a frame's 32-bit length could carry both
  writeFile(calibrationPath(1), "");
  ASSERT_EQ(truncate(calibrationPath(1).c_str(), std::stoll(huge)), 0);
  writeFile(calibrationPath(2), "two");
  if (kThrowingAllocationsMayFail) {
    writeFile(calibrationPath(3), "");
    ASSERT_EQ(truncate(calibrationPath(3).c_str(), std::stoll(large)), 0);
  }
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  Fd linesIn(ends[0]), linesOut(ends[1]);
  pid_t child = fork();
  if (child == 0) {
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlim_t limit = static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (256 << 20);
    struct rlimit space = {limit, limit};
    if (setrlimit(RLIMIT_AS, &space) != 0) _exit(2);
    SyslogCapture syslog;
    SetSleeper([](unsigned seconds) {
      if (seconds == 5) throw std::runtime_error("calibration restored");
    });
    try {
      RunSchedule();
    } catch (const std::runtime_error&) {
    }
    std::string text;
    for (const SyslogLine& line : syslog.take()) text += std::to_string(line.first) + " " + line.second + "\n";
    writeAll(linesOut.get(), text);
    _exit(0);
  }
  linesOut.reset();
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = read(linesIn.get(), buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<std::size_t>(n));
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  std::vector<SyslogLine> lines;
  std::istringstream in(text);
  for (int priority; in >> priority && in.get() == ' ';) {
    lines.emplace_back(priority, "");
    std::getline(in, lines.back().second);
  }
  std::vector<SyslogLine> expected = {
      info("Restoring Zek Calibration for ch=0"),
      info("RestoreZekCalibrationData ZEK Calibration File CH 0 does not exist. Restore not required"),
      info("Restoring Zek Calibration for ch=1"),
      info("SetCalibrationDataNotification File: " + calibrationPath(1) + " Has data size=" + huge),
      err("RestoreZekCalibrationData: File " + calibrationPath(1) + " of " + huge + " bytes is too large to restore"),
      info("Restoring Zek Calibration for ch=2"),
      info("SetCalibrationDataNotification File: " + calibrationPath(2) + " Has data size=3"),
      info("toStream channel=2 length=3"),
      info("Restoring Zek Calibration for ch=3")};
  if (kThrowingAllocationsMayFail) {  // the block is read, its frame cannot be built
    expected.push_back(info("SetCalibrationDataNotification File: " + calibrationPath(3) + " Has data size=" + large));
    expected.push_back(info("toStream channel=3 length=" + large));
    expected.push_back(
        err("RestoreZekCalibrationData: File " + calibrationPath(3) + " of " + large + " bytes is too large to restore"));
  } else {
    expected.push_back(info("RestoreZekCalibrationData ZEK Calibration File CH 3 does not exist. Restore not required"));
  }
  EXPECT_EQ(lines, expected);
  std::vector<std::string> sent = splitFrames(readAvailable(reader_.get()));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(matchFrame(sent[0], framePattern(2046, 11, 2045, be32(2) + block("two"))), "");
}

// Registered for the dispatcher's test: Process() throws a standard
// exception (argument 1) or something else (any other).
class Throwing : public BinaryCommand {
 public:
  int32_t getSelector() const override { return 31050; }
  void fromStream(bistream& in) override {
    BinaryCommand::fromStream(in);
    in >> what;
  }
  void Process() override {
    if (what == 1) throw std::runtime_error("no room for the block");
    throw what;
  }
  int32_t what = 0;
};
const SelectorRegistration registerThrowing(31050, newMessage<Throwing>);

// An exception out of a message's Process() is logged and the dispatcher
// reads on: the request after it is answered.
TEST_F(MainThreadTest, DispatcherLogsAnExceptionOutOfAMessageAndGoesOn) {
  SyslogCapture syslog;
  ConsoleCapture console;
  dispatcherExit = false;
  makeFifo(kCommandFifoPath);
  Fd writer = openFd(kCommandFifoPath, O_RDWR);
  StartApi();
  writeAll(writer.get(), frame(Header{31050}, be32(1)) + frame(Header{31050}, be32(2)) +
                             frame(Header{kGetAnalyticsFilterDataSelector, 7, 13, 40, 0, 13003}, be32(1)));
  const std::string answer = readExactly(reader_.get(), 50 + filterPath(1).size());
  StopApi();
  commandFifo.stream.buffer().wakeOn({});
  notificationFifo.stream.buffer().wakeOn({});
  EXPECT_EQ(matchFrame(answer, framePattern(13003, 7, 0, str(filterPath(1)), 40)), "");
  EXPECT_EQ(syslog.take(),
            (std::vector<SyslogLine>{info("API: creating command (input) FIFO"),
                                     info("API: creating notification (output) FIFO"),
                                     info("API: creating dispatcher thread"), info("API: starting dispatcher"),
                                     err("API: dispatcher caught exception: no room for the block"),
                                     err("API: dispatcher caught unknown exception"),
                                     info("Sending get CH=1 " + filterPath(1)), info("API: Signaling thread exit"),
                                     info("API: Waiting for thread termination"), info("API: exiting dispatcher"),
                                     info("API: Thread has exited")}));
}

}  // namespace
