// The main thread's schedule run for real: the start-up restore with its
// pauses, and (on an accelerated clock) the periodic calibration requests
// whose answers land in the store.
#include <signal.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/e2e/daemon_test.h"
#include "tests/support/hex.h"

namespace {

double secondsBetween(std::chrono::steady_clock::time_point from, std::chrono::steady_clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

// The lines of the restore itself; the dispatcher's lines in between are left out.
std::vector<SyslogRecord> restoreRecords(const std::vector<SyslogRecord>& records) {
  std::vector<SyslogRecord> kept;
  for (const SyslogRecord& record : records) {
    const std::string& m = record.message;
    if (m.rfind("Restor", 0) == 0 || m.rfind("SetCalibrationDataNotification File: ", 0) == 0 ||
        m.rfind("toStream channel=", 0) == 0) {
      kept.push_back(record);
    }
  }
  return kept;
}

using RestoreTest = DaemonTest;

TEST_F(RestoreTest, SendsTheStoredFilesInChannelOrderWithTheScheduledPauses) {
  std::string block;
  for (int i = 0; i < 100; ++i) block += static_cast<char>(i);
  writeFile(calibrationPath(0), block);
  writeFile(calibrationPath(2), "");
  writeFile(calibrationPath(3), bytesFromHex("0A 0B 0C"));
  writeFile(filterPath(0), "<filter/>");
  writeFile(filterPath(2), "<filter/>");
  auto started = std::chrono::steady_clock::now();
  ASSERT_NO_FATAL_FAILURE(startServing({"-s", "0"}));

  std::vector<Frame> frames;
  for (int i = 0; i < 5; ++i) {
    std::optional<Frame> frame = peer_.readFrame(std::chrono::seconds(30));
    ASSERT_TRUE(frame.has_value()) << "restore frame " << i;
    frames.push_back(*frame);
    if (i == 0) {
      // The dispatcher serves the mailbox while the main thread restores.
      Reply reply = exchange(command(kResetCalibration, int32Arg(1)));
      ASSERT_EQ(reply.frames.size(), 1u);
      EXPECT_EQ(reply.frames[0].header.selector, kResetCalibration);
    }
  }
  expectSent(frames[0], kSetCalibration, kEngine, kCalibrationData, int32Arg(0) + blockArg(block));
  EXPECT_EQ(frames[0].header.argsLength, 108);
  expectSent(frames[1], kSetCalibration, kEngine, kCalibrationData, int32Arg(2) + blockArg(""));
  expectSent(frames[2], kSetCalibration, kEngine, kCalibrationData, int32Arg(3) + blockArg(bytesFromHex("0A 0B 0C")));
  expectSent(frames[3], kSetFilter, kEngine, 0, int32Arg(0) + stringArg(filterPath(0)));
  expectSent(frames[4], kSetFilter, kEngine, 0, int32Arg(2) + stringArg(filterPath(2)));

  // 4 s after each calibration restore, 5 s more before the filters, which
  // follow each other without a pause.
  auto first = frames[0].received;
  EXPECT_LT(secondsBetween(started, first), 2.0);
  EXPECT_NEAR(secondsBetween(first, frames[1].received), 8.0, 1.0);
  EXPECT_NEAR(secondsBetween(first, frames[2].received), 12.0, 1.0);
  EXPECT_NEAR(secondsBetween(first, frames[3].received), 21.0, 1.0);
  EXPECT_NEAR(secondsBetween(frames[3].received, frames[4].received), 0.0, 0.5);

  const std::string lastLine =
      "RestoreZekAnalyticsFilter ZEK Analytics File for CH=3 does not exist. Restore not performed";
  ASSERT_TRUE(waitForLog(info(lastLine)));
  std::vector<SyslogRecord> records = restoreRecords(logRecords());
  std::vector<SyslogLine> lines;
  for (const SyslogRecord& record : records) lines.emplace_back(record.priority, record.message);
  const std::string cal = kCalibrationDir;
  EXPECT_EQ(lines,
            (std::vector<SyslogLine>{
                info("Restoring Zek Calibration for ch=0"),
                info("SetCalibrationDataNotification File: " + cal + "zekCalibrationDataCH0.bin Has data size=100"),
                info("toStream channel=0 length=100"),
                info("Restoring Zek Calibration for ch=1"),
                info("RestoreZekCalibrationData ZEK Calibration File CH 1 does not exist. Restore not required"),
                info("Restoring Zek Calibration for ch=2"),
                info("SetCalibrationDataNotification File: " + cal + "zekCalibrationDataCH2.bin Has data size=0"),
                info("toStream channel=2 length=0"),
                info("Restoring Zek Calibration for ch=3"),
                info("SetCalibrationDataNotification File: " + cal + "zekCalibrationDataCH3.bin Has data size=3"),
                info("toStream channel=3 length=3"),
                info("RestoreZekAnalyticsFilter:: for ch=0"),
                info("RestoreZekAnalyticsFilter:: for ch=1"),
                info("RestoreZekAnalyticsFilter ZEK Analytics File for CH=1 does not exist. Restore not performed"),
                info("RestoreZekAnalyticsFilter:: for ch=2"),
                info("RestoreZekAnalyticsFilter:: for ch=3"),
                info(lastLine),
            }));
  if (lines.size() == 17) {
    // Channel 1 has no calibration file: its turn still comes 4 s after channel 0's.
    EXPECT_NEAR(secondsBetween(records[0].received, records[3].received), 4.0, 1.0);
  }

  // Then the half-hour pause: nothing more is sent, and a stop ends it.
  EXPECT_TRUE(peer_.quietFor(std::chrono::milliseconds(200)));
  expectNormalStop(SIGTERM);
}

// ---------------------------------------------------------------------------

using PeriodicRequestTest = AcceleratedTest;

TEST_F(PeriodicRequestTest, AnswersAreStoredForTheChannelTheyAnswer) {
  writeFile(calibrationPath(1), "old one");
  writeFile(calibrationPath(2), "old two");
  ASSERT_NO_FATAL_FAILURE(startAccelerated());
  std::vector<Frame> restored;
  std::vector<int32_t> ids = readRequestCycle(&restored);
  ASSERT_EQ(ids.size(), 4u);
  ASSERT_EQ(restored.size(), 2u);
  std::vector<SyslogLine> requestLines;
  for (int channel = 0; channel < 4; ++channel) {
    requestLines.push_back(info("Sending Zek Calibration Request for ch=" + std::to_string(channel)));
    requestLines.push_back(info("GetCalibrationDataChangeNotification::toStream channel=" + std::to_string(channel)));
  }
  ASSERT_TRUE(waitForLog(requestLines.back()));
  std::vector<SyslogLine> lines = log();
  auto firstRequest = std::find(lines.begin(), lines.end(), requestLines[0]);
  ASSERT_GE(lines.end() - firstRequest, 8);
  EXPECT_EQ(std::vector<SyslogLine>(firstRequest, firstRequest + 8), requestLines);

  const std::string path0 = calibrationPath(0);
  std::string block(100, '\0');
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(0xFF - i);
  Reply stored = exchange(answer(ids[0], blockArg(block)));
  EXPECT_EQ(withoutRequests(stored.lines),
            (std::vector<SyslogLine>{
                info("Process Received Message with correlationID " + std::to_string(ids[0]) + " ArgsSize=104"),
                info("UpdateCalibrationData:Updating " + path0), info("UpdateCalibrationData:Updated " + path0)}));
  EXPECT_EQ(readFile(path0), block);

  // The entry stays: the same answer again replaces the file again.
  exchange(answer(ids[0], blockArg("second")));
  EXPECT_EQ(readFile(path0), "second");

  // A block whose length the decoder refused carries no data: the old file stays.
  Reply refused = exchange(answer(ids[1], be32(70000) + "0123456789"));
  EXPECT_EQ(withoutRequests(refused.lines),
            (std::vector<SyslogLine>{
                info("Process Received Message with correlationID " + std::to_string(ids[1]) + " ArgsSize=14"),
                err("UpdateCalibrationData:Received Invalid Calibration Size 70000")}));
  EXPECT_EQ(readFile(calibrationPath(1)), "old one");

  // An empty block removes the file.
  Reply empty = exchange(answer(ids[2], blockArg("")));
  EXPECT_EQ(withoutRequests(empty.lines),
            (std::vector<SyslogLine>{
                info("Process Received Message with correlationID " + std::to_string(ids[2]) + " ArgsSize=4"),
                info("UpdateCalibrationData:Received Invalid Calibration Size 0")}));
  EXPECT_FALSE(fileExists(calibrationPath(2)));

  // The id of a restore notification is not recorded: its answer stores nothing.
  int32_t restoreId = restored[0].header.id;
  Reply toRestore = exchange(answer(restoreId, blockArg("xyz")));
  EXPECT_EQ(withoutRequests(toRestore.lines),
            std::vector<SyslogLine>{
                info("Process Received Message with correlationID " + std::to_string(restoreId) + " ArgsSize=7")});
  EXPECT_EQ(readFile(calibrationPath(1)), "old one");

  // A stop in the periodic phase.
  expectNormalStop(SIGTERM);
}

TEST_F(PeriodicRequestTest, EveryCycleAsksAgainWithNewIds) {
  ASSERT_NO_FATAL_FAILURE(startAccelerated());
  std::vector<int32_t> first = readRequestCycle();
  ASSERT_EQ(first.size(), 4u);
  std::vector<Frame> firstCycle = requests_;
  std::vector<int32_t> second = readRequestCycle();
  ASSERT_EQ(second.size(), 4u);
  EXPECT_GT(second[0], first[3]);
  // On the clock running a thousand times faster: the first request
  // 16 + 5 + 1800 s after the start, 45 s between channels, cycles
  // 3600 + 4 * 45 s apart.
  // The bounds are wide upwards for a loaded machine; none can be met early.
  double firstRequest = secondsBetween(connected_, firstCycle[0].received);
  EXPECT_TRUE(firstRequest > 1.7 && firstRequest < 2.6) << firstRequest << " s";
  double channels = secondsBetween(firstCycle[0].received, firstCycle[3].received);
  EXPECT_TRUE(channels > 0.1 && channels < 0.8) << channels << " s";
  double cycle = secondsBetween(firstCycle[0].received, requests_[0].received);
  EXPECT_TRUE(cycle > 3.6 && cycle < 4.5) << cycle << " s";
  // The answer to a request that a later one has replaced stores nothing.
  Reply stale = exchange(answer(first[0], blockArg("stale")));
  EXPECT_EQ(withoutRequests(stale.lines), std::vector<SyslogLine>{info("Process Received Message with correlationID " +
                                                                       std::to_string(first[0]) + " ArgsSize=9")});
  EXPECT_FALSE(fileExists(calibrationPath(0)));
  expectNormalStop(SIGINT);
}

}  // namespace
