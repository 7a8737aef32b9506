// The store's layout: the path of every channel's files, the channel check
// with its line, and the file operations at their edges.
#include "store/store_layout.h"

#include <gtest/gtest.h>

#include <vector>

#include "store/calibration_store.h"
#include "tests/store/store_fixture.h"
#include "tests/support/hex.h"

namespace storetest {
namespace {

TEST(StorePathTest, CalibrationPathsOfTheFourChannels) {
  EXPECT_EQ(CalibrationFilePath(0), "/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH0.bin");
  EXPECT_EQ(CalibrationFilePath(1), "/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH1.bin");
  EXPECT_EQ(CalibrationFilePath(2), "/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH2.bin");
  EXPECT_EQ(CalibrationFilePath(3), "/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH3.bin");
}

TEST(StorePathTest, FilterPathsOfTheFourChannels) {
  EXPECT_EQ(FilterFilePath(0), "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH0.xml");
  EXPECT_EQ(FilterFilePath(1), "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH1.xml");
  EXPECT_EQ(FilterFilePath(2), "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH2.xml");
  EXPECT_EQ(FilterFilePath(3), "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH3.xml");
}

TEST(StorePathTest, PathsOfUncheckedChannelsFollowTheSamePattern) {
  EXPECT_EQ(CalibrationFilePath(7), "/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH7.bin");
  EXPECT_EQ(FilterFilePath(7), "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH7.xml");
  EXPECT_EQ(CalibrationFilePath(-1), "/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH-1.bin");
  EXPECT_EQ(FilterFilePath(-1), "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH-1.xml");
  EXPECT_EQ(CalibrationFilePath(-2147483647 - 1), "/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH-2147483648.bin");
}

class ChannelCheckTest : public ::testing::Test {
 protected:
  SyslogCapture syslog_;
};

TEST_F(ChannelCheckTest, ChannelsZeroToThreePassSilently) {
  for (int32_t channel = 0; channel <= 3; ++channel) EXPECT_TRUE(CheckChannel("SendZekCalibrationRequest", channel));
  EXPECT_TRUE(syslog_.lines().empty());
}

TEST_F(ChannelCheckTest, ChannelFourFailsWithTheNameJoinedToOutOfRange) {
  EXPECT_FALSE(CheckChannel("SendZekCalibrationRequest", 4));
  EXPECT_EQ(syslog_.take(), std::vector<SyslogLine>{error(" SendZekCalibrationRequestOut of Range Channel ch=4")});
}

TEST_F(ChannelCheckTest, NegativeChannelFailsWithItsSign) {
  EXPECT_FALSE(CheckChannel("RestoreZekCalibrationData", -1));
  EXPECT_EQ(syslog_.take(), std::vector<SyslogLine>{error(" RestoreZekCalibrationDataOut of Range Channel ch=-1")});
}

using StoreFileTest = StoreTest;

TEST_F(StoreFileTest, RemovingAMissingFileLogsNothingAndChangesNothing) {
  writeFile(CalibrationFilePath(1), "keep");
  RemoveStoreFile(CalibrationFilePath(0));
  EXPECT_FALSE(fileExists(CalibrationFilePath(0)));
  EXPECT_EQ(readFile(CalibrationFilePath(1)), "keep");
  EXPECT_TRUE(takeLines().empty());
}

TEST_F(StoreFileTest, EmptyCalibrationFileReadsBackAsLengthZero) {
  writeFile(CalibrationFilePath(0), "");
  byteArray block;
  uint64_t size = 9;
  ASSERT_EQ(ReadCalibrationFile(CalibrationFilePath(0), block, &size), CalibrationRead::read);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(block.length, 0u);
  EXPECT_EQ(block.data, nullptr);
}

TEST_F(StoreFileTest, MissingCalibrationFileIsNotRead) {
  byteArray block;
  uint64_t size = 0;
  EXPECT_EQ(ReadCalibrationFile(CalibrationFilePath(2), block, &size), CalibrationRead::missing);
  EXPECT_EQ(block.length, 0u);
}

TEST_F(StoreFileTest, CalibrationFileReadsBackByteForByte) {
  std::string bytes = bytesFromHex("00 FF 0A 0D 1A 00 80");
  writeFile(CalibrationFilePath(3), bytes);
  byteArray block;
  uint64_t size = 0;
  ASSERT_EQ(ReadCalibrationFile(CalibrationFilePath(3), block, &size), CalibrationRead::read);
  ASSERT_EQ(block.length, bytes.size());
  EXPECT_EQ(toHex(block.data, block.length), "00 FF 0A 0D 1A 00 80");
}

TEST_F(StoreFileTest, EmptyCalibrationFileIsRestoredAsAnEmptyBlock) {
  writeFile(CalibrationFilePath(0), "");
  RestoreZekCalibrationData(0);
  SentFrame frame = onlySentFrame();
  EXPECT_EQ(frame.selector, 2046);
  EXPECT_EQ(toHex(frame.args), "00 00 00 00 00 00 00 00");
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("Restoring Zek Calibration for ch=0"),
                             info("SetCalibrationDataNotification File: "
                                  "/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH0.bin Has data size=0"),
                             info("toStream channel=0 length=0"),
                         }));
}

}  // namespace
}  // namespace storetest
