// The main thread's life: the command line, and the start-up and periodic
// schedule run through the sleeper seam, so that every wait is recorded in
// its place among the log lines instead of being waited for.
#include "service/lifecycle.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "store/calibration_store.h"
#include "store/store_layout.h"
#include "tests/store/store_fixture.h"
#include "tests/support/hex.h"

namespace storetest {
namespace {

// --- Options --------------------------------------------------------------

TEST(ParseNumberArgumentTest, HexadecimalAfterLowerCaseZeroX) { EXPECT_EQ(ParseNumberArgument("0x1E"), 30u); }

TEST(ParseNumberArgumentTest, DecimalOtherwise) { EXPECT_EQ(ParseNumberArgument("30"), 30u); }

TEST(ParseNumberArgumentTest, UpperCaseXStopsTheDecimalReadingAtZero) {
  EXPECT_EQ(ParseNumberArgument("0X1E"), 0u);
}

TEST(ParseNumberArgumentTest, NoNumberGivesZero) {
  EXPECT_EQ(ParseNumberArgument("abc"), 0u);
  EXPECT_EQ(ParseNumberArgument(""), 0u);
}

TEST(ParseNumberArgumentTest, ReadingStopsAtTheFirstNonDigit) { EXPECT_EQ(ParseNumberArgument("12abc"), 12u); }

TEST(ParseNumberArgumentTest, LeadingWhiteSpaceIsSkipped) { EXPECT_EQ(ParseNumberArgument(" 7"), 7u); }

class ParseOptionsTest : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }

  static void reset() {
    optind = 1;
    quiet = false;
    startupDelay = 0;
  }

  // getopt may permute the vector, so it gets copies of its own.
  bool parse(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "dravik");
    storage_ = arguments;
    std::vector<char*> argv;
    for (std::string& argument : storage_) argv.push_back(&argument[0]);
    argv.push_back(nullptr);
    optind = 1;
    return ParseOptions(static_cast<int>(storage_.size()), argv.data());
  }

  std::vector<std::string> storage_;
};

TEST_F(ParseOptionsTest, NoOptionsKeepTheDefaults) {
  EXPECT_TRUE(parse({}));
  EXPECT_FALSE(quiet);
  EXPECT_EQ(startupDelay, 0u);
}

TEST_F(ParseOptionsTest, LastStartupDelayWins) {
  EXPECT_TRUE(parse({"-s", "5", "-s", "7"}));
  EXPECT_EQ(startupDelay, 7u);
}

TEST_F(ParseOptionsTest, StartupDelayMayBeHexadecimal) {
  EXPECT_TRUE(parse({"-s0x1E"}));
  EXPECT_EQ(startupDelay, 30u);
}

TEST_F(ParseOptionsTest, QuietIsSet) {
  EXPECT_TRUE(parse({"-q"}));
  EXPECT_TRUE(quiet);
}

TEST_F(ParseOptionsTest, UnknownLetterIsRefused) { EXPECT_FALSE(parse({"-x"})); }

TEST_F(ParseOptionsTest, DIsRefusedLikeAnUnknownOption) { EXPECT_FALSE(parse({"-d"})); }

TEST_F(ParseOptionsTest, StartupDelayWithoutValueIsRefused) { EXPECT_FALSE(parse({"-s"})); }

// --- Schedule -------------------------------------------------------------

// Thrown by the recording sleeper to leave the schedule's endless loop.
struct LeaveSchedule {};

class ScheduleTest : public StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    if (IsSkipped()) return;
    startupDelay = 7;
  }

  void TearDown() override {
    SetSleeper(nullptr);
    startupDelay = 0;
    StoreTest::TearDown();
  }

  // Runs the schedule until its wait number `lastWait` (counted from 1) ends
  // it. `onWait` runs at each wait with its number and seconds, as if the
  // rest of the camera acted during the pause.
  void runUntilWait(int lastWait, std::function<void(int, unsigned)> onWait = nullptr) {
    int count = 0;
    SetSleeper([&](unsigned seconds) {
      recordLines();
      ++count;
      events_.push_back("wait " + std::to_string(seconds));
      if (onWait) onWait(count, seconds);
      if (count == lastWait) throw LeaveSchedule();
    });
    EXPECT_THROW(RunSchedule(), LeaveSchedule);
    recordLines();
  }

  void recordLines() {
    for (const SyslogLine& line : takeLines()) events_.push_back((line.first == LOG_INFO ? "" : "err ") + line.second);
  }

  static std::vector<std::string> missingCalibration(int channel) {
    return {"Restoring Zek Calibration for ch=" + std::to_string(channel),
            "RestoreZekCalibrationData ZEK Calibration File CH " + std::to_string(channel) +
                " does not exist. Restore not required"};
  }
  static std::vector<std::string> missingFilter(int channel) {
    return {"RestoreZekAnalyticsFilter:: for ch=" + std::to_string(channel),
            "RestoreZekAnalyticsFilter ZEK Analytics File for CH=" + std::to_string(channel) +
                " does not exist. Restore not performed"};
  }
  static std::vector<std::string> request(int channel) {
    return {"Sending Zek Calibration Request for ch=" + std::to_string(channel),
            "GetCalibrationDataChangeNotification::toStream channel=" + std::to_string(channel)};
  }

  std::vector<std::string> events_;
};

// Appends the pieces in order.
std::vector<std::string> sequence(std::initializer_list<std::vector<std::string>> pieces) {
  std::vector<std::string> all;
  for (const auto& piece : pieces) all.insert(all.end(), piece.begin(), piece.end());
  return all;
}

TEST_F(ScheduleTest, RestoresThenRequestsWithTheExactWaitsInBetween) {
  runUntilWait(13);

  EXPECT_EQ(events_, sequence({
                         {"wait 7"},
                         missingCalibration(0), {"wait 4"},
                         missingCalibration(1), {"wait 4"},
                         missingCalibration(2), {"wait 4"},
                         missingCalibration(3), {"wait 4"},
                         {"wait 5"},
                         missingFilter(0), missingFilter(1), missingFilter(2), missingFilter(3),
                         {"wait 1800"},
                         request(0), {"wait 45"},
                         request(1), {"wait 45"},
                         request(2), {"wait 45"},
                         request(3), {"wait 45"},
                         {"wait 3600"},
                         request(0), {"wait 45"},
                     }));
  std::vector<SentFrame> frames = sentFrames();
  ASSERT_EQ(frames.size(), 5u);
  for (const SentFrame& frame : frames) EXPECT_EQ(frame.selector, 2044);
  EXPECT_EQ(toHex(frames[3].args), "00 00 00 03");
  EXPECT_EQ(toHex(frames[4].args), "00 00 00 00");
}

TEST_F(ScheduleTest, FirstRequestFollowsTheStartupDelayAndTheRestorePauses) {
  runUntilWait(8);

  unsigned waited = 0;
  for (const std::string& event : events_) {
    if (event.rfind("Sending Zek Calibration Request", 0) == 0) break;
    if (event.rfind("wait ", 0) == 0) waited += static_cast<unsigned>(std::stoul(event.substr(5)));
  }
  EXPECT_EQ(waited, 7u + 16u + 5u + 1800u);
}

TEST_F(ScheduleTest, StoredFilesAreSentBackInScheduleOrder) {
  writeFile(CalibrationFilePath(1), "\x0A\x0B\x0C");
  writeFile(FilterFilePath(2), "<filter/>");
  runUntilWait(8);

  EXPECT_EQ(events_, sequence({
                         {"wait 7"},
                         missingCalibration(0), {"wait 4"},
                         {"Restoring Zek Calibration for ch=1",
                          "SetCalibrationDataNotification File: " + CalibrationFilePath(1) + " Has data size=3",
                          "toStream channel=1 length=3"},
                         {"wait 4"},
                         missingCalibration(2), {"wait 4"},
                         missingCalibration(3), {"wait 4"},
                         {"wait 5"},
                         missingFilter(0), missingFilter(1),
                         {"RestoreZekAnalyticsFilter:: for ch=2"},
                         missingFilter(3),
                         {"wait 1800"},
                         request(0), {"wait 45"},
                     }));
  std::vector<SentFrame> frames = sentFrames();
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(frames[0].selector, 2046);
  EXPECT_EQ(toHex(frames[0].args), "00 00 00 01 00 00 00 03 0A 0B 0C");
  EXPECT_EQ(frames[1].selector, 13004);
  EXPECT_EQ(frames[1].args, int32Arg(2) + stringArg(FilterFilePath(2)));
  EXPECT_EQ(frames[2].selector, 2044);
}

TEST_F(ScheduleTest, PeriodicRequestAnsweredDuringItsPauseIsStored) {
  const std::string block = patternBytes(100, 3);
  // Waits 8, 9 and 10 follow the requests for channels 0, 1 and 2.
  runUntilWait(10, [&](int wait, unsigned) {
    if (wait != 10) return;
    std::vector<SentFrame> frames = sentFrames();
    ASSERT_FALSE(frames.empty());
    ASSERT_EQ(toHex(frames.back().args), "00 00 00 02");
    Header answer = headerFor(2045);
    answer.correlationId = frames.back().id;
    deliver(frameOf(answer, blockArg(block)));
  });

  EXPECT_EQ(readFile(CalibrationFilePath(2)), block);
  EXPECT_FALSE(fileExists(CalibrationFilePath(0)));
  EXPECT_FALSE(fileExists(CalibrationFilePath(1)));
  ASSERT_GE(events_.size(), 3u);
  const std::string id = std::to_string(calibrationRequests[2].requestId.load());
  EXPECT_EQ(std::vector<std::string>(events_.end() - 3, events_.end()),
            (std::vector<std::string>{
                "Process Received Message with correlationID " + id + " ArgsSize=104",
                "UpdateCalibrationData:Updating " + CalibrationFilePath(2),
                "UpdateCalibrationData:Updated " + CalibrationFilePath(2),
            }));
}

}  // namespace
}  // namespace storetest
