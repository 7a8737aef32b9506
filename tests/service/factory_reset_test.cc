// Factory resets as they arrive on the mailbox: which files go, which
// notifications leave in which order, and what a bad channel leaves behind.
#include "service/factory_reset.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "store/store_layout.h"
#include "tests/store/store_fixture.h"
#include "tests/support/hex.h"

namespace storetest {
namespace {

class FactoryResetTest : public StoreTest {
 protected:
  void storeEverything() {
    for (int32_t channel = 0; channel < 4; ++channel) {
      writeFile(CalibrationFilePath(channel), "calibration");
      writeFile(FilterFilePath(channel), "<filter/>");
    }
  }

  // (selector, channel) of each frame, in order.
  std::vector<std::pair<int32_t, std::string>> sentResets() {
    std::vector<std::pair<int32_t, std::string>> resets;
    for (const SentFrame& frame : sentFrames()) {
      EXPECT_EQ(frame.recipient, 2);
      EXPECT_EQ(frame.sender, 13);
      EXPECT_EQ(frame.responseSelector, 0);
      resets.emplace_back(frame.selector, toHex(frame.args));
    }
    return resets;
  }
};

TEST_F(FactoryResetTest, AllSettingsOnAnEmptyStoreStillSendsEightNotificationsInOrder) {
  deliver(frameOf(headerFor(13)));

  EXPECT_EQ(sentResets(), (std::vector<std::pair<int32_t, std::string>>{
                              {13005, "00 00 00 00"},
                              {13001, "00 00 00 00"},
                              {13005, "00 00 00 01"},
                              {13001, "00 00 00 01"},
                              {13005, "00 00 00 02"},
                              {13001, "00 00 00 02"},
                              {13005, "00 00 00 03"},
                              {13001, "00 00 00 03"},
                          }));
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info(" RestoreFactoryAllSettings Received"),
                             info("RestoreFactoryFilterNotification::toStream channel=0"),
                             info("ResetCalibrationNotification::toStream channel=0"),
                             info("RestoreFactoryFilterNotification::toStream channel=1"),
                             info("ResetCalibrationNotification::toStream channel=1"),
                             info("RestoreFactoryFilterNotification::toStream channel=2"),
                             info("ResetCalibrationNotification::toStream channel=2"),
                             info("RestoreFactoryFilterNotification::toStream channel=3"),
                             info("ResetCalibrationNotification::toStream channel=3"),
                         }));
}

TEST_F(FactoryResetTest, AllSettingsRemovesEveryStoredFile) {
  storeEverything();
  deliver(frameOf(headerFor(13)));
  for (int32_t channel = 0; channel < 4; ++channel) {
    EXPECT_FALSE(fileExists(CalibrationFilePath(channel))) << channel;
    EXPECT_FALSE(fileExists(FilterFilePath(channel))) << channel;
  }
  EXPECT_EQ(sentFrames().size(), 8u);
}

TEST_F(FactoryResetTest, VirtualCameraSettingsResetOneChannelFilterFirst) {
  storeEverything();
  deliver(frameOf(headerFor(14), int32Arg(1)));

  EXPECT_FALSE(fileExists(CalibrationFilePath(1)));
  EXPECT_FALSE(fileExists(FilterFilePath(1)));
  for (int32_t channel : {0, 2, 3}) {
    EXPECT_TRUE(fileExists(CalibrationFilePath(channel))) << channel;
    EXPECT_TRUE(fileExists(FilterFilePath(channel))) << channel;
  }
  EXPECT_EQ(sentResets(), (std::vector<std::pair<int32_t, std::string>>{
                              {13005, "00 00 00 01"},
                              {13001, "00 00 00 01"},
                          }));
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info(" RestoreFactorySettings ch=1"),
                             info("RestoreFactoryFilterNotification::toStream channel=1"),
                             info("ResetCalibrationNotification::toStream channel=1"),
                         }));
}

TEST_F(FactoryResetTest, VirtualCameraSettingsForChannelFourChangeNothing) {
  storeEverything();
  deliver(frameOf(headerFor(14), int32Arg(4)));

  EXPECT_TRUE(sentFrames().empty());
  for (int32_t channel = 0; channel < 4; ++channel) {
    EXPECT_TRUE(fileExists(CalibrationFilePath(channel))) << channel;
    EXPECT_TRUE(fileExists(FilterFilePath(channel))) << channel;
  }
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info(" RestoreFactorySettings ch=4"),
                             error("RestoreFactorySettings::Invalid Channel=4"),
                         }));
}

TEST_F(FactoryResetTest, VirtualCameraSettingsForChannelMinusOneChangeNothing) {
  storeEverything();
  deliver(frameOf(headerFor(14), int32Arg(-1)));

  EXPECT_TRUE(sentFrames().empty());
  for (int32_t channel = 0; channel < 4; ++channel) {
    EXPECT_TRUE(fileExists(CalibrationFilePath(channel))) << channel;
    EXPECT_TRUE(fileExists(FilterFilePath(channel))) << channel;
  }
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info(" RestoreFactorySettings ch=-1"),
                             error("RestoreFactorySettings::Invalid Channel=-1"),
                         }));
}

TEST_F(FactoryResetTest, ResetCalibrationCommandForChannelSevenOnlyNotifies) {
  storeEverything();
  deliver(frameOf(headerFor(13001), int32Arg(7)));

  EXPECT_EQ(sentResets(), (std::vector<std::pair<int32_t, std::string>>{{13001, "00 00 00 07"}}));
  for (int32_t channel = 0; channel < 4; ++channel) EXPECT_TRUE(fileExists(CalibrationFilePath(channel))) << channel;
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{info("ResetCalibrationNotification::toStream channel=7")});
}

TEST_F(FactoryResetTest, RestoreFactoryFilterCommandRemovesOnlyTheFilterFile) {
  storeEverything();
  deliver(frameOf(headerFor(13005), int32Arg(2)));

  EXPECT_FALSE(fileExists("/etc/sysconfig/dravik/zek/tbe/metadataFilterCH2.xml"));
  EXPECT_TRUE(fileExists("/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH2.bin"));
  EXPECT_TRUE(fileExists(FilterFilePath(1)));
  EXPECT_EQ(sentResets(), (std::vector<std::pair<int32_t, std::string>>{{13005, "00 00 00 02"}}));
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{info("RestoreFactoryFilterNotification::toStream channel=2")});
}

TEST_F(FactoryResetTest, CommandsFromAnySenderNotifyEndpointTwo) {
  Header header = headerFor(13005);
  header.sender = 11;
  header.id = 1234;
  header.responseSelector = 777;
  deliver(frameOf(header, int32Arg(0)));

  SentFrame frame = onlySentFrame();
  EXPECT_EQ(frame.recipient, 2);
  EXPECT_EQ(frame.correlationId, 0);
  EXPECT_EQ(frame.responseSelector, 0);
}

}  // namespace
}  // namespace storetest
