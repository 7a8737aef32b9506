// The service's message catalogue: which selectors the registry builds into
// which classes, the exact argument bytes and header values of what the
// service sends, the toStream log lines, and the few messages whose handling
// is the class itself (the get request, an incoming 2046).
#include "store/service_messages.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <typeinfo>
#include <vector>

#include "tests/store/store_fixture.h"
#include "tests/support/console_capture.h"
#include "tests/support/hex.h"

namespace storetest {
namespace {

const char* className(const BinaryMessage& message) { return typeid(message).name(); }

// The argument bytes that a message's toStream writes after its header.
std::string encodedArgs(const BinaryMessage& message) {
  std::ostringstream bytes;
  bostream out(bytes);
  message.toStream(out);
  return bytes.str().substr(44);
}

TEST(SelectorRegistryTest, HoldsExactlyTheNineIncomingSelectors) {
  std::vector<int32_t> selectors;
  for (const auto& entry : selectorRegistry()) selectors.push_back(entry.first);
  EXPECT_EQ(selectors, (std::vector<int32_t>{13, 14, 2045, 2046, 13001, 13002, 13004, 13005, 13006}));
}

TEST(SelectorRegistryTest, EachSelectorBuildsItsIncomingClassWithDefaults) {
  const std::map<int32_t, const char*> expected = {
      {13, typeid(RestoreFactoryAllSettingsCommand).name()},
      {14, typeid(RestoreFactoryVirtualCameraSettingsCommand).name()},
      {2045, typeid(CalibrationDataResponse).name()},
      {2046, typeid(SetCalibrationDataNotification).name()},
      {13001, typeid(ResetCalibrationCommand).name()},
      {13002, typeid(GetAnalyticsFilterDataRequest).name()},
      {13004, typeid(SetAnalyticsFilterDataCommand).name()},
      {13005, typeid(RestoreFactoryFilterCommand).name()},
      {13006, typeid(SaveAnalyticsFilterDataCommand).name()},
  };
  for (const auto& entry : selectorRegistry()) {
    std::unique_ptr<BinaryMessage> message(entry.second());
    ASSERT_NE(message, nullptr);
    auto wanted = expected.find(entry.first);
    ASSERT_NE(wanted, expected.end()) << "unexpected selector " << entry.first;
    EXPECT_STREQ(className(*message), wanted->second) << "selector " << entry.first;
    EXPECT_EQ(message->getSelector(), entry.first);
    EXPECT_EQ(message->correlationId, 0);
    EXPECT_EQ(message->responseSelector, 0);
  }
}

TEST(SelectorRegistryTest, SharedSelectorsAreBuiltAsTheCommands) {
  std::unique_ptr<BinaryMessage> reset(selectorRegistry().at(13001)());
  std::unique_ptr<BinaryMessage> filter(selectorRegistry().at(13005)());
  std::unique_ptr<BinaryMessage> set(selectorRegistry().at(13004)());
  EXPECT_NE(dynamic_cast<ResetCalibrationCommand*>(reset.get()), nullptr);
  EXPECT_EQ(dynamic_cast<BinaryNotification*>(reset.get()), nullptr);
  EXPECT_NE(dynamic_cast<RestoreFactoryFilterCommand*>(filter.get()), nullptr);
  EXPECT_EQ(dynamic_cast<BinaryNotification*>(filter.get()), nullptr);
  EXPECT_NE(dynamic_cast<SetAnalyticsFilterDataCommand*>(set.get()), nullptr);
  EXPECT_EQ(dynamic_cast<BinaryNotification*>(set.get()), nullptr);
}

TEST(MessageEncodingTest, SaveAnalyticsFilterDataCommandArgumentsAreChannelThenStatus) {
  SaveAnalyticsFilterDataCommand command;
  command.channel = 1;
  command.status = -5;
  EXPECT_EQ(toHex(encodedArgs(command)), "00 00 00 01 FF FF FF FB");
}

TEST(MessageEncodingTest, FilterNotificationsShareOneWireForm) {
  SetAnalyticsFilterDataNotification set;
  set.channel = 3;
  set.fileName = "a.xml";
  RestoreAnalyticsFilterNotification restore;
  restore.channel = 3;
  restore.fileName = "a.xml";
  restore.fileFound = true;
  EXPECT_EQ(toHex(encodedArgs(set)), "00 00 00 03 00 05 61 2E 78 6D 6C");
  EXPECT_EQ(toHex(encodedArgs(restore)), "00 00 00 03 00 05 61 2E 78 6D 6C");
  EXPECT_EQ(set.getSelector(), 13004);
  EXPECT_EQ(restore.getSelector(), 13004);
}

using MessageCatalogueTest = StoreTest;

TEST_F(MessageCatalogueTest, ResetCalibrationNotificationForChannelTwo) {
  ResetCalibrationNotification notification;
  notification.recipient = 2;
  notification.channel = 2;
  notification.Process();

  SentFrame frame = onlySentFrame();
  EXPECT_EQ(frame.length, 48u);
  EXPECT_EQ(frame.version, 1);
  EXPECT_EQ(frame.sender, 13);
  EXPECT_EQ(frame.recipient, 2);
  EXPECT_EQ(frame.id, notification.id);
  EXPECT_EQ(frame.correlationId, 0);
  EXPECT_EQ(frame.selector, 13001);
  EXPECT_EQ(frame.responseSelector, 0);
  EXPECT_EQ(frame.argsLength, 4u);
  EXPECT_EQ(toHex(frame.args), "00 00 00 02");
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{info("ResetCalibrationNotification::toStream channel=2")});
}

TEST_F(MessageCatalogueTest, RestoreFactoryFilterNotificationLogsItsChannelSigned) {
  RestoreFactoryFilterNotification notification;
  notification.recipient = 2;
  notification.channel = -3;
  notification.Process();

  SentFrame frame = onlySentFrame();
  EXPECT_EQ(frame.selector, 13005);
  EXPECT_EQ(toHex(frame.args), "FF FF FF FD");
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{info("RestoreFactoryFilterNotification::toStream channel=-3")});
}

TEST_F(MessageCatalogueTest, CalibrationRequestChannelIsUnsigned) {
  GetCalibrationDataChangeNotification request;
  request.recipient = 11;
  request.responseSelector = 2045;
  request.channel = 0xFFFFFFFFu;
  request.Process();

  SentFrame frame = onlySentFrame();
  EXPECT_EQ(frame.selector, 2044);
  EXPECT_EQ(frame.responseSelector, 2045);
  EXPECT_EQ(toHex(frame.args), "FF FF FF FF");
  EXPECT_EQ(takeLines(),
            std::vector<SyslogLine>{info("GetCalibrationDataChangeNotification::toStream channel=4294967295")});
}

TEST_F(MessageCatalogueTest, SetCalibrationDataNotificationWithThreeBytes) {
  SetCalibrationDataNotification notification;
  notification.recipient = 11;
  notification.responseSelector = 2045;
  notification.channel = 0;
  notification.calibrationData.assign("\x0A\x0B\x0C", 3);
  notification.Process();

  SentFrame frame = onlySentFrame();
  EXPECT_EQ(frame.selector, 2046);
  EXPECT_EQ(frame.recipient, 11);
  EXPECT_EQ(frame.responseSelector, 2045);
  EXPECT_EQ(frame.argsLength, 11u);
  EXPECT_EQ(toHex(frame.args), "00 00 00 00 00 00 00 03 0A 0B 0C");
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{info("toStream channel=0 length=3")});
}

TEST_F(MessageCatalogueTest, FilterNotificationsLogNothingWhenSent) {
  SetAnalyticsFilterDataNotification set;
  set.recipient = 2;
  set.channel = 1;
  set.fileName = "f";
  set.Process();
  RestoreAnalyticsFilterNotification restore;
  restore.recipient = 11;
  restore.channel = 2;
  restore.fileName = "g";
  restore.Process();

  std::vector<SentFrame> frames = sentFrames();
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(toHex(frames[0].args), "00 00 00 01 00 01 66");
  EXPECT_EQ(toHex(frames[1].args), "00 00 00 02 00 01 67");
  EXPECT_TRUE(takeLines().empty());
}

TEST_F(MessageCatalogueTest, SaveAnalyticsFilterDataCommandDecodesChannelThenStatus) {
  std::unique_ptr<BinaryMessage> message = receive(frameOf(headerFor(13006), bytesFromHex("00 00 00 01 FF FF FF FB")));
  auto* command = dynamic_cast<SaveAnalyticsFilterDataCommand*>(message.get());
  ASSERT_NE(command, nullptr);
  EXPECT_EQ(command->channel, 1);
  EXPECT_EQ(command->status, -5);
}

TEST_F(MessageCatalogueTest, IncomingResetSelectorIsBuiltAsResetCalibrationCommand) {
  std::unique_ptr<BinaryMessage> message = receive(frameOf(headerFor(13001), int32Arg(5)));
  ASSERT_NE(message, nullptr);
  EXPECT_STREQ(className(*message), typeid(ResetCalibrationCommand).name());
  EXPECT_EQ(static_cast<ResetCalibrationCommand&>(*message).channel, 5);
}

TEST_F(MessageCatalogueTest, GetAnalyticsFilterDataRequestIsAnsweredToItsSender) {
  Header request = headerFor(13002);
  request.sender = 7;
  request.id = 40;
  request.responseSelector = 13003;
  deliver(frameOf(request, int32Arg(1)));

  const std::string path = "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH1.xml";
  SentFrame frame = onlySentFrame();
  EXPECT_EQ(frame.selector, 13003);
  EXPECT_EQ(frame.sender, 13);
  EXPECT_EQ(frame.recipient, 7);
  EXPECT_EQ(frame.correlationId, 40);
  EXPECT_EQ(frame.responseSelector, 0);
  EXPECT_EQ(frame.argsLength, 53u);
  EXPECT_EQ(toHex(frame.args), toHex(bytesFromHex("00 33") + path));
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{info("Sending get CH=1 " + path)});
}

TEST_F(MessageCatalogueTest, GetAnalyticsFilterDataRequestWithoutResponseSelectorIsAnsweredWithSelectorZero) {
  Header request = headerFor(13002);
  request.sender = 7;
  request.id = 41;
  request.responseSelector = 0;
  deliver(frameOf(request, int32Arg(0)));

  SentFrame frame = onlySentFrame();
  EXPECT_EQ(frame.selector, 0);
  EXPECT_EQ(frame.recipient, 7);
  EXPECT_EQ(frame.correlationId, 41);
  EXPECT_EQ(frame.args, bytesFromHex("00 33") + "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH0.xml");
}

TEST_F(MessageCatalogueTest, IncomingSetCalibrationDataIsForwardedWithItsHeaderAndNoArguments) {
  Header incoming = headerFor(2046);
  incoming.sender = 11;
  incoming.recipient = 13;
  incoming.id = 77;
  incoming.correlationId = 5;
  incoming.milliseconds = 1700000000123ULL;
  incoming.responseSelector = 2045;
  incoming.flags = 0x10;
  // Arguments that the class does not decode: channel 3 and a 2-byte block.
  deliver(frameOf(incoming, int32Arg(3) + blockArg("\x01\x02")));

  SentFrame frame = onlySentFrame();
  EXPECT_EQ(frame.version, 1);
  EXPECT_EQ(frame.sender, 11);
  EXPECT_EQ(frame.recipient, 13);
  EXPECT_EQ(frame.id, 77);
  EXPECT_EQ(frame.correlationId, 5);
  EXPECT_EQ(frame.milliseconds, 1700000000123ULL);
  EXPECT_EQ(frame.selector, 2046);
  EXPECT_EQ(frame.responseSelector, 2045);
  EXPECT_EQ(frame.flags, 0x10);
  EXPECT_EQ(frame.argsLength, 8u);
  EXPECT_EQ(toHex(frame.args), "00 00 00 00 00 00 00 00");
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{info("toStream channel=0 length=0")});
}

TEST_F(MessageCatalogueTest, RestoreFactoryAllSettingsCommandIgnoresTrailingArguments) {
  deliver(frameOf(headerFor(13), bytesFromHex("DE AD BE EF")));

  std::vector<SentFrame> frames = sentFrames();
  ASSERT_EQ(frames.size(), 8u);
  EXPECT_EQ(frames[0].selector, 13005);
  EXPECT_EQ(toHex(frames[0].args), "00 00 00 00");
  EXPECT_EQ(frames[7].selector, 13001);
  EXPECT_EQ(toHex(frames[7].args), "00 00 00 03");
  std::vector<SyslogLine> lines = takeLines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.front(), info(" RestoreFactoryAllSettings Received"));
}

}  // namespace
}  // namespace storetest
