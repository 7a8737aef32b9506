// The calibration store: requests and their table entries, answers matched
// by correlation id and written to the channel's file, the start-up restore,
// the reset, and the store's behaviour on refused blocks and failing files.
#include "store/calibration_store.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "store/service_messages.h"
#include "tests/store/store_fixture.h"
#include "tests/support/console_capture.h"
#include "tests/support/hex.h"

namespace storetest {
namespace {

const std::string kCal0 = "/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH0.bin";
const std::string kCal1 = "/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH1.bin";
const std::string kCal2 = "/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH2.bin";
const std::string kCal3 = "/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH3.bin";

class CalibrationStoreTest : public StoreTest {
 protected:
  // Sends a request for the channel and returns its id, leaving no frame
  // and no line behind.
  int32_t request(int32_t channel) {
    SendZekCalibrationRequest(channel);
    SentFrame frame = onlySentFrame();
    takeLines();
    return frame.id;
  }

  // The engine's answer: a CalibrationDataResponse frame.
  static std::string answer(int32_t correlationId, const std::string& block) {
    Header header = headerFor(2045);
    header.correlationId = correlationId;
    return frameOf(header, blockArg(block));
  }

  static std::string processedLine(int32_t correlationId, std::size_t argsSize) {
    return "Process Received Message with correlationID " + std::to_string(correlationId) +
           " ArgsSize=" + std::to_string(argsSize);
  }

  void expectTableUntouched() {
    for (const CalibrationRequest& entry : calibrationRequests) {
      EXPECT_EQ(entry.requestId.load(), 0);
      EXPECT_EQ(entry.channel.load(), 0);
    }
  }
};

// --- Asking ---------------------------------------------------------------

TEST_F(CalibrationStoreTest, RequestForChannelTwoIsSentAndRecorded) {
  SendZekCalibrationRequest(2);

  SentFrame frame = onlySentFrame();
  EXPECT_EQ(frame.selector, 2044);
  EXPECT_EQ(frame.sender, 13);
  EXPECT_EQ(frame.recipient, 11);
  EXPECT_EQ(frame.responseSelector, 2045);
  EXPECT_EQ(frame.correlationId, 0);
  EXPECT_EQ(toHex(frame.args), "00 00 00 02");
  EXPECT_EQ(calibrationRequests[2].requestId.load(), frame.id);
  EXPECT_EQ(calibrationRequests[2].channel.load(), 2);
  EXPECT_EQ(calibrationRequests[0].requestId.load(), 0);
  EXPECT_EQ(calibrationRequests[1].requestId.load(), 0);
  EXPECT_EQ(calibrationRequests[3].requestId.load(), 0);
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("Sending Zek Calibration Request for ch=2"),
                             info("GetCalibrationDataChangeNotification::toStream channel=2"),
                         }));
}

TEST_F(CalibrationStoreTest, NewRequestReplacesTheChannelsEntry) {
  int32_t first = request(1);
  int32_t second = request(1);
  EXPECT_NE(first, second);
  EXPECT_EQ(calibrationRequests[1].requestId.load(), second);
}

TEST_F(CalibrationStoreTest, RequestForChannelFourIsRefused) {
  SendZekCalibrationRequest(4);
  EXPECT_TRUE(sentFrames().empty());
  expectTableUntouched();
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{error(" SendZekCalibrationRequestOut of Range Channel ch=4")});
}

TEST_F(CalibrationStoreTest, RequestForNegativeChannelIsRefused) {
  SendZekCalibrationRequest(-1);
  EXPECT_TRUE(sentFrames().empty());
  expectTableUntouched();
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{error(" SendZekCalibrationRequestOut of Range Channel ch=-1")});
}

// --- Storing --------------------------------------------------------------

TEST_F(CalibrationStoreTest, AnswerToEntryOneWritesExactlyItsBlock) {
  request(0);
  int32_t id = request(1);
  std::string block = patternBytes(100, 1);
  deliver(answer(id, block));

  EXPECT_EQ(readFile(kCal1), block);
  EXPECT_FALSE(fileExists(kCal0));
  EXPECT_TRUE(sentFrames().empty());
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info(processedLine(id, 104)),
                             info("UpdateCalibrationData:Updating " + kCal1),
                             info("UpdateCalibrationData:Updated " + kCal1),
                         }));
}

TEST_F(CalibrationStoreTest, AnswerReplacesTheWholeOldFile) {
  int32_t id = request(2);
  writeFile(kCal2, patternBytes(500, 9));
  deliver(answer(id, "\x01\x02\x03"));
  EXPECT_EQ(toHex(readFile(kCal2)), "01 02 03");
}

TEST_F(CalibrationStoreTest, AnswerWithEmptyBlockRemovesTheFile) {
  int32_t id = request(1);
  writeFile(kCal1, "old calibration");
  deliver(answer(id, ""));

  EXPECT_FALSE(fileExists(kCal1));
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info(processedLine(id, 4)),
                             info("UpdateCalibrationData:Received Invalid Calibration Size 0"),
                         }));
}

TEST_F(CalibrationStoreTest, SameAnswerProcessedTwiceWritesTwice) {
  int32_t id = request(1);
  std::string block = patternBytes(100, 2);
  std::unique_ptr<BinaryMessage> response = receive(answer(id, block));
  ASSERT_NE(response, nullptr);
  response->Process();
  writeFile(kCal1, "changed in between");
  response->Process();

  EXPECT_EQ(readFile(kCal1), block);
  EXPECT_EQ(calibrationRequests[1].requestId.load(), id);
  std::vector<SyslogLine> once = {
      info(processedLine(id, 104)),
      info("UpdateCalibrationData:Updating " + kCal1),
      info("UpdateCalibrationData:Updated " + kCal1),
  };
  std::vector<SyslogLine> twice = once;
  twice.insert(twice.end(), once.begin(), once.end());
  EXPECT_EQ(takeLines(), twice);
}

TEST_F(CalibrationStoreTest, AnswerMatchingNoEntryStoresNothing) {
  int32_t id = request(1);
  deliver(answer(id + 1000, patternBytes(10, 3)));

  for (const std::string& path : {kCal0, kCal1, kCal2, kCal3}) EXPECT_FALSE(fileExists(path)) << path;
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{info(processedLine(id + 1000, 14))});
}

TEST_F(CalibrationStoreTest, StrayAnswerWithCorrelationIdZeroNeverMatchesUnusedEntries) {
  for (const std::string& path : {kCal0, kCal1, kCal2, kCal3}) writeFile(path, "stored");
  request(1);  // entries 0, 2 and 3 stay unused, with request id 0
  deliver(answer(0, patternBytes(20, 4)));

  for (const std::string& path : {kCal0, kCal1, kCal2, kCal3}) EXPECT_EQ(readFile(path), "stored") << path;
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{info(processedLine(0, 24))});
}

TEST_F(CalibrationStoreTest, AnswerToARestoreNotificationStoresNothing) {
  writeFile(kCal0, "stored");
  RestoreZekCalibrationData(0);
  SentFrame restore = onlySentFrame();
  takeLines();
  deliver(answer(restore.id, patternBytes(8, 5)));

  EXPECT_EQ(readFile(kCal0), "stored");
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{info(processedLine(restore.id, 12))});
}

TEST_F(CalibrationStoreTest, RefusedBlockKeepsTheStoredFile) {
  int32_t id = request(1);
  writeFile(kCal1, "old calibration");
  Header header = headerFor(2045);
  header.correlationId = id;
  // A block length that the decoder refuses, with no block behind it.
  std::string frame = frameOf(header, be32(70000));
  ConsoleCapture console;
  deliver(frame);

  EXPECT_EQ(readFile(kCal1), "old calibration");
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info(processedLine(id, 4)),
                             error("UpdateCalibrationData:Received Invalid Calibration Size 70000"),
                         }));
}

TEST_F(CalibrationStoreTest, MissingDirectoryIsAnOpenFailure) {
  ASSERT_EQ(rmdir(kCalDirectory), 0) << std::strerror(errno);
  byteArray block;
  block.assign("\x01\x02", 2);
  UpdateCalibrationData(0, block);

  EXPECT_FALSE(fileExists(kCal0));
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("UpdateCalibrationData:Updating " + kCal0),
                             error("UpdateCalibrationData:File open failed for File::" + kCal0),
                         }));
}

TEST_F(CalibrationStoreTest, FullFileSystemIsAWriteFailure) {
  ASSERT_EQ(mount("dravik-full", kCalDirectory, "tmpfs", MS_NOSUID | MS_NODEV, "size=16k"), 0)
      << std::strerror(errno);
  {
    // Fill every block of the small file system.
    int fd = open((std::string(kCalDirectory) + "/filler").c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    std::string chunk(4096, 'x');
    while (write(fd, chunk.data(), chunk.size()) > 0) {
    }
    close(fd);
  }
  byteArray block;
  std::string bytes = patternBytes(65536, 6);
  block.assign(bytes.data(), static_cast<uint32_t>(bytes.size()));
  UpdateCalibrationData(0, block);

  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("UpdateCalibrationData:Updating " + kCal0),
                             error("UpdateCalibrationData:Data Write failed"),
                         }));
  EXPECT_EQ(umount2(kCalDirectory, MNT_DETACH), 0) << std::strerror(errno);
}

// --- Restoring ------------------------------------------------------------

TEST_F(CalibrationStoreTest, RestoreSendsTheStoredBlockToTheEngine) {
  std::string block = patternBytes(100, 7);
  writeFile(kCal0, block);
  RestoreZekCalibrationData(0);

  SentFrame frame = onlySentFrame();
  EXPECT_EQ(frame.selector, 2046);
  EXPECT_EQ(frame.sender, 13);
  EXPECT_EQ(frame.recipient, 11);
  EXPECT_EQ(frame.responseSelector, 2045);
  EXPECT_EQ(frame.argsLength, 108u);
  EXPECT_EQ(toHex(frame.args), toHex(bytesFromHex("00 00 00 00 00 00 00 64") + block));
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("Restoring Zek Calibration for ch=0"),
                             info("SetCalibrationDataNotification File: " + kCal0 + " Has data size=100"),
                             info("toStream channel=0 length=100"),
                         }));
  EXPECT_EQ(calibrationRequests[0].requestId.load(), 0);
}

TEST_F(CalibrationStoreTest, RestoreOfABlockTooLargeForAReaderIsSentAllTheSame) {
  std::string block = patternBytes(65485, 8);
  writeFile(kCal3, block);
  RestoreZekCalibrationData(3);

  SentFrame frame = onlySentFrame();
  EXPECT_EQ(frame.length, 65537u);
  EXPECT_EQ(frame.argsLength, 65493u);
  EXPECT_EQ(frame.args, int32Arg(3) + blockArg(block));
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("Restoring Zek Calibration for ch=3"),
                             info("SetCalibrationDataNotification File: " + kCal3 + " Has data size=65485"),
                             info("toStream channel=3 length=65485"),
                         }));
}

TEST_F(CalibrationStoreTest, RestoreWithoutFileSendsNothing) {
  RestoreZekCalibrationData(1);
  EXPECT_TRUE(sentFrames().empty());
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("Restoring Zek Calibration for ch=1"),
                             info("RestoreZekCalibrationData ZEK Calibration File CH 1 does not exist. "
                                  "Restore not required"),
                         }));
}

TEST_F(CalibrationStoreTest, RestoreOfChannelFourIsRefused) {
  RestoreZekCalibrationData(4);
  EXPECT_TRUE(sentFrames().empty());
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{error(" RestoreZekCalibrationDataOut of Range Channel ch=4")});
}

// --- Resetting ------------------------------------------------------------

TEST_F(CalibrationStoreTest, ResetRemovesTheFileAndNotifiesEndpointTwo) {
  writeFile(kCal1, "stored");
  writeFile(kCal2, "stored");
  ResetChannelCalibration(1);

  EXPECT_FALSE(fileExists(kCal1));
  EXPECT_TRUE(fileExists(kCal2));
  SentFrame frame = onlySentFrame();
  EXPECT_EQ(frame.selector, 13001);
  EXPECT_EQ(frame.recipient, 2);
  EXPECT_EQ(frame.responseSelector, 0);
  EXPECT_EQ(toHex(frame.args), "00 00 00 01");
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{info("ResetCalibrationNotification::toStream channel=1")});
}

TEST_F(CalibrationStoreTest, ResetWithoutFileStillNotifies) {
  ResetChannelCalibration(3);

  SentFrame frame = onlySentFrame();
  EXPECT_EQ(frame.selector, 13001);
  EXPECT_EQ(frame.recipient, 2);
  EXPECT_EQ(toHex(frame.args), "00 00 00 03");
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{info("ResetCalibrationNotification::toStream channel=3")});
}

TEST_F(CalibrationStoreTest, ResetCalibrationCommandForChannelSevenRemovesItsFileUnchecked) {
  const std::string cal7 = "/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH7.bin";
  writeFile(cal7, "seven");
  deliver(frameOf(headerFor(13001), int32Arg(7)));

  EXPECT_FALSE(fileExists(cal7));
  SentFrame frame = onlySentFrame();
  EXPECT_EQ(frame.selector, 13001);
  EXPECT_EQ(frame.recipient, 2);
  EXPECT_EQ(toHex(frame.args), "00 00 00 07");
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{info("ResetCalibrationNotification::toStream channel=7")});
}

}  // namespace
}  // namespace storetest
