// Options and the schedule of the main thread, in this process: the
// schedule's waits go through a sleeper that records them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <stdexcept>

#include "service/lifecycle.h"
#include "messaging/system_log.h"
#include "service/service_api.h"
#include "store/calibration_store.h"
#include "tests/support/capture.h"
#include "tests/support/pipes.h"
#include "tests/support/store_files.h"
#include "tests/support/wire.h"

namespace {

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

}  // namespace
