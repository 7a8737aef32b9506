// How dravikctl names and prints frames: the class that fits the selector,
// the direction and the recipient, every argument, and a reason for each
// frame that it cannot decode.
#include "tools/dravikctl/frame_decoder.h"

#include <gtest/gtest.h>

#include "tests/tools/wire.h"
#include "tools/dravikctl/frame_format.h"

using dravikctl::decodeFrame;
using dravikctl::DecodedFrame;
using dravikctl::Direction;
using dravikctl::frameJson;
using dravikctl::frameText;

namespace {

TestHeader fromService(int32_t selector, int32_t recipient, int32_t responseSelector = 0) {
  TestHeader h;
  h.selector = selector;
  h.recipient = recipient;
  h.responseSelector = responseSelector;
  return h;
}

TestHeader toService(int32_t selector, int32_t sender = 100) {
  TestHeader h;
  h.sender = sender;
  h.recipient = 13;
  h.selector = selector;
  return h;
}

std::string textOf(const std::string& frame, Direction direction = Direction::fromService) {
  return frameText(decodeFrame(frame, direction), false);
}

}  // namespace

TEST(FrameNameTest, Selector13004IsNamedByItsRecipient) {
  std::string args = int32Arg(1) + stringArg("/x.xml");
  EXPECT_EQ(decodeFrame(testFrame(fromService(13004, 2, 13006), args), Direction::fromService).className,
            "SetAnalyticsFilterDataNotification");
  EXPECT_EQ(decodeFrame(testFrame(fromService(13004, 11), args), Direction::fromService).className,
            "RestoreAnalyticsFilterNotification");
  EXPECT_EQ(decodeFrame(testFrame(toService(13004), args), Direction::toService).className,
            "SetAnalyticsFilterDataCommand");
}

TEST(FrameNameTest, Selector13004ToAnotherRecipientIsNamedByItsResponseSelector) {
  std::string args = int32Arg(1) + stringArg("/x.xml");
  EXPECT_EQ(decodeFrame(testFrame(fromService(13004, 5, 13006), args), Direction::fromService).className,
            "SetAnalyticsFilterDataNotification");
  EXPECT_EQ(decodeFrame(testFrame(fromService(13004, 5, 0), args), Direction::fromService).className,
            "RestoreAnalyticsFilterNotification");
}

TEST(FrameNameTest, Selectors13001And13005AreNotificationsLeavingAndCommandsArriving) {
  EXPECT_EQ(decodeFrame(testFrame(fromService(13001, 2), int32Arg(0)), Direction::fromService).className,
            "ResetCalibrationNotification");
  EXPECT_EQ(decodeFrame(testFrame(toService(13001), int32Arg(0)), Direction::toService).className,
            "ResetCalibrationCommand");
  EXPECT_EQ(decodeFrame(testFrame(fromService(13005, 2), int32Arg(0)), Direction::fromService).className,
            "RestoreFactoryFilterNotification");
  EXPECT_EQ(decodeFrame(testFrame(toService(13005), int32Arg(0)), Direction::toService).className,
            "RestoreFactoryFilterCommand");
}

TEST(FrameNameTest, EveryIncomingSelectorHasItsCommandName) {
  EXPECT_EQ(textOf(testFrame(toService(13), ""), Direction::toService),
            "RestoreFactoryAllSettingsCommand 100->13 id=7 corr=0 resp=0");
  EXPECT_EQ(textOf(testFrame(toService(14), int32Arg(3)), Direction::toService),
            "RestoreFactoryVirtualCameraSettingsCommand 100->13 id=7 corr=0 resp=0 channel=3");
  EXPECT_EQ(textOf(testFrame(toService(13002), int32Arg(2)), Direction::toService),
            "GetAnalyticsFilterDataRequest 100->13 id=7 corr=0 resp=0 channel=2");
  EXPECT_EQ(textOf(testFrame(toService(13006, 2), int32Arg(1) + int32Arg(-5)), Direction::toService),
            "SaveAnalyticsFilterDataCommand 2->13 id=7 corr=0 resp=0 channel=1 status=-5");
  TestHeader answer = toService(2045, 11);
  answer.correlationId = 40;
  EXPECT_EQ(textOf(testFrame(answer, blockArg("\x0a\x0b\x0c")), Direction::toService),
            "CalibrationDataResponse 11->13 id=7 corr=40 resp=0 calibrationData=<3 bytes: 0a 0b 0c>");
}

TEST(FrameNameTest, ForwardedCalibrationNotificationMayArriveWithoutArguments) {
  EXPECT_EQ(textOf(testFrame(toService(2046), ""), Direction::toService),
            "SetCalibrationDataNotification 100->13 id=7 corr=0 resp=0");
}

TEST(FrameTextTest, OutgoingNotificationsShowTheirArguments) {
  EXPECT_EQ(textOf(testFrame(fromService(13004, 2, 13006), int32Arg(1) + stringArg("/tmp/f.xml"))),
            "SetAnalyticsFilterDataNotification 13->2 id=7 corr=0 resp=13006 channel=1 fileName=\"/tmp/f.xml\"");
  EXPECT_EQ(textOf(testFrame(fromService(2044, 11, 2045), be32(0xFFFFFFFF))),
            "GetCalibrationDataChangeNotification 13->11 id=7 corr=0 resp=2045 channel=4294967295");
  EXPECT_EQ(textOf(testFrame(fromService(2046, 11, 2045), int32Arg(0) + blockArg(""))),
            "SetCalibrationDataNotification 13->11 id=7 corr=0 resp=2045 channel=0 calibrationData=<0 bytes>");
}

TEST(FrameTextTest, LongBlockShowsItsFirstEightBytes) {
  std::string block;
  for (int i = 0; i < 10; ++i) block += static_cast<char>(i);
  EXPECT_EQ(textOf(testFrame(fromService(2046, 11, 2045), int32Arg(2) + blockArg(block))),
            "SetCalibrationDataNotification 13->11 id=7 corr=0 resp=2045 channel=2 "
            "calibrationData=<10 bytes: 00 01 02 03 04 05 06 07 ...>");
}

TEST(FrameTextTest, FlagsAppearOnlyWhenSet) {
  TestHeader h = fromService(13001, 2);
  h.flags = 0x1F;
  EXPECT_EQ(textOf(testFrame(h, int32Arg(3))), "ResetCalibrationNotification 13->2 id=7 corr=0 resp=0 flags=0x1f channel=3");
}

TEST(FrameTextTest, StringsAreQuotedWithEscapes) {
  EXPECT_EQ(textOf(testFrame(fromService(13004, 11), int32Arg(0) + stringArg(std::string("a\"b\\c\n\xff", 7)))),
            "RestoreAnalyticsFilterNotification 13->11 id=7 corr=0 resp=0 channel=0 fileName=\"a\\\"b\\\\c\\n\\xff\"");
}

TEST(FrameTextTest, HexAddsTheWholeFrame) {
  std::string frame = testFrame(fromService(13005, 2), int32Arg(2));
  EXPECT_EQ(frameText(decodeFrame(frame, Direction::fromService), true),
            "RestoreFactoryFilterNotification 13->2 id=7 corr=0 resp=0 channel=2 frame="
            "00 00 00 30 00 00 00 01 00 00 00 0d 00 00 00 02 00 00 00 07 00 00 00 00 "
            "00 00 01 8b cf e5 68 7b 00 00 32 cd 00 00 00 00 00 00 00 00 00 00 00 04 00 00 00 02");
}

TEST(FrameResponseTest, AnswerToFilterRequestIsRecognisedWhateverItsSelector) {
  std::string path = "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH1.xml";
  TestHeader h = fromService(13003, 7);
  h.correlationId = 40;
  DecodedFrame usual = decodeFrame(testFrame(h, stringArg(path)), Direction::fromService);
  EXPECT_EQ(frameText(usual, false),
            "GetAnalyticsFilterDataResponse 13->7 id=7 corr=40 resp=0 path=\"" + path + "\"");

  h.selector = 0;  // the requester put 0 in its response selector
  DecodedFrame chosen = decodeFrame(testFrame(h, stringArg(path)), Direction::fromService);
  EXPECT_EQ(chosen.className, "GetAnalyticsFilterDataResponse");
  std::string text;
  ASSERT_TRUE(dravikctl::responseText(chosen, &text));
  EXPECT_EQ(text, path);
}

TEST(FrameResponseTest, UncorrelatedUnknownSelectorIsNoResponse) {
  DecodedFrame frame = decodeFrame(testFrame(fromService(31999, 7), stringArg("/x")), Direction::fromService);
  EXPECT_FALSE(frame.decoded());
  EXPECT_EQ(frame.error, "unknown selector 31999");
}

TEST(FrameUndecodableTest, RefusedLengthsAreShownWithTheirBytes) {
  EXPECT_EQ(textOf(be32(0)), "undecodable frame (invalid frame length 0): 00 00 00 00");
  EXPECT_EQ(textOf(be32(65537)), "undecodable frame (invalid frame length 65537): 00 01 00 01");
  EXPECT_EQ(textOf(std::string("\x00\x00", 2)), "undecodable frame (frame ends after 2 bytes of its length): 00 00");
}

TEST(FrameUndecodableTest, TruncatedFrameSaysHowMuchCame) {
  std::string whole = testFrame(fromService(13001, 2), int32Arg(1));
  EXPECT_EQ(textOf(whole.substr(0, 14)),
            "undecodable frame (truncated frame: 10 of 48 payload bytes): " +
                dravikctl::hexString(whole.substr(0, 14), true));
  DecodedFrame headerOnly = decodeFrame(whole.substr(0, 50), Direction::fromService);
  EXPECT_EQ(headerOnly.error, "truncated frame: 46 of 48 payload bytes");
  EXPECT_TRUE(headerOnly.hasHeader);
}

TEST(FrameUndecodableTest, PayloadShorterThanHeader) {
  std::string frame = be32(8) + be32(1) + be32(13);
  EXPECT_EQ(textOf(frame), "undecodable frame (payload of 8 bytes is shorter than the header): " +
                               dravikctl::hexString(frame, true));
}

TEST(FrameUndecodableTest, OtherVersionAndUnknownSelectorKeepTheirHeader) {
  TestHeader v2 = fromService(13001, 2);
  v2.version = 2;
  std::string frame = testFrame(v2, int32Arg(1));
  EXPECT_EQ(textOf(frame), "undecodable frame (unsupported version 2) 13->2 id=7 corr=0 resp=0 selector=13001: " +
                               dravikctl::hexString(frame, true));
  std::string unknown = testFrame(fromService(4242, 2), "");
  EXPECT_EQ(textOf(unknown), "undecodable frame (unknown selector 4242) 13->2 id=7 corr=0 resp=0 selector=4242: " +
                                 dravikctl::hexString(unknown, true));
}

TEST(FrameUndecodableTest, ArgumentsCutShortOrRefused) {
  EXPECT_EQ(decodeFrame(testFrame(toService(13006), int32Arg(1)), Direction::toService).error,
            "SaveAnalyticsFilterDataCommand: frame ends inside argument status");
  EXPECT_EQ(decodeFrame(testFrame(fromService(13004, 2), int32Arg(1) + be16(5) + "ab"), Direction::fromService).error,
            "SetAnalyticsFilterDataNotification: frame ends inside argument fileName");
  EXPECT_EQ(decodeFrame(testFrame(fromService(13004, 2), int32Arg(1) + be16(0x8000)), Direction::fromService).error,
            "SetAnalyticsFilterDataNotification: string fileName of 32768 bytes is refused by readers");
  EXPECT_EQ(decodeFrame(testFrame(fromService(2046, 11), int32Arg(1) + be32(65537)), Direction::fromService).error,
            "SetCalibrationDataNotification: byteArray calibrationData of 65537 bytes is refused by readers");
}

TEST(FrameOdditiesTest, ArgsLengthMismatchAndTrailingBytesAreNoted) {
  std::string frame = testFrame(fromService(13001, 2), int32Arg(1) + "\x01\x02");
  frame[4 + 40 + 3] = 9;  // argsLength 9, while 6 bytes follow
  EXPECT_EQ(textOf(frame),
            "ResetCalibrationNotification 13->2 id=7 corr=0 resp=0 channel=1 "
            "[argsLength 9 but 6 argument bytes] [2 bytes after the arguments]");
}

TEST(FrameJsonTest, DecodedFrameHasHeaderAndArguments) {
  std::string frame = testFrame(fromService(13004, 2, 13006), int32Arg(1) + stringArg("/tmp/f.xml"));
  EXPECT_EQ(frameJson(decodeFrame(frame, Direction::fromService), false, "2026-11-16T14:05:49.123Z", ""),
            "{\"time\":\"2026-11-16T14:05:49.123Z\",\"class\":\"SetAnalyticsFilterDataNotification\","
            "\"sender\":13,\"recipient\":2,\"id\":7,\"correlationId\":0,\"responseSelector\":13006,"
            "\"selector\":13004,\"flags\":0,\"version\":1,\"timestamp\":1700000000123,\"argsLength\":16,"
            "\"args\":{\"channel\":1,\"fileName\":\"/tmp/f.xml\"}}");
}

TEST(FrameJsonTest, EventBlockAndHex) {
  std::string frame = testFrame(toService(2045, 11), blockArg("\xab\xcd"));
  EXPECT_EQ(frameJson(decodeFrame(frame, Direction::toService), true, "T", "send"),
            "{\"time\":\"T\",\"event\":\"send\",\"class\":\"CalibrationDataResponse\",\"sender\":11,"
            "\"recipient\":13,\"id\":7,\"correlationId\":0,\"responseSelector\":0,\"selector\":2045,\"flags\":0,"
            "\"version\":1,\"timestamp\":1700000000123,\"argsLength\":6,\"args\":{\"calibrationData\":\"abcd\"},"
            "\"frame\":\"" + dravikctl::hexString(frame, false) + "\"}");
}

TEST(FrameJsonTest, UndecodableFrameHasNullClassAndItsBytes) {
  EXPECT_EQ(frameJson(decodeFrame(be32(0), Direction::fromService), false, "T", ""),
            "{\"time\":\"T\",\"class\":null,\"error\":\"invalid frame length 0\",\"frame\":\"00000000\"}");
}

TEST(FrameJsonTest, StringsAreValidJsonWhateverTheirBytes) {
  EXPECT_EQ(dravikctl::jsonQuote(std::string("q\"b\\n\n\t\x01 \xc3\xa9 \xff\xc3", 14)),
            "\"q\\\"b\\\\n\\n\\t\\u0001 \xc3\xa9 \\u00ff\\u00c3\"");
}
