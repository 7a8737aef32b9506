// The frames that dravikctl sends, byte for byte: each must be the wire form
// that the service's own class decodes.
#include "tools/dravikctl/tool_messages.h"

#include <gtest/gtest.h>

#include "tests/tools/wire.h"
#include "tools/dravikctl/frame_decoder.h"

using namespace dravikctl;

namespace {

// Header values fixed so that whole frames can be compared.
void stamp(BinaryMessage* message, int32_t sender, int32_t id) {
  message->sender = sender;
  message->recipient = 13;
  message->id = id;
  message->timestamp = Timestamp{1700000000, 123000};
}

TestHeader expectedHeader(int32_t selector, int32_t sender, int32_t id) {
  TestHeader h;
  h.sender = sender;
  h.recipient = 13;
  h.id = id;
  h.selector = selector;
  return h;
}

}  // namespace

TEST(ToolMessagesTest, FactoryResetOfAllHasNoArguments) {
  BareCommand message(13);
  stamp(&message, 100, 5);
  std::string frame = encodeFrame(message);
  EXPECT_EQ(toHex(frame), toHex(testFrame(expectedHeader(13, 100, 5), "")));
  EXPECT_EQ(frame.size(), 48u);
}

TEST(ToolMessagesTest, ChannelCommandsCarryTheChannel) {
  for (int32_t selector : {14, 13001, 13005}) {
    ChannelOnlyCommand message(selector, -1);
    stamp(&message, 100, 6);
    EXPECT_EQ(toHex(encodeFrame(message)), toHex(testFrame(expectedHeader(selector, 100, 6), int32Arg(-1))))
        << selector;
  }
}

TEST(ToolMessagesTest, SetFilterCarriesChannelAndFileName) {
  FilterFileCommand message(1, "/etc/sysconfig/dravik/f.xml");
  stamp(&message, 100, 7);
  EXPECT_EQ(toHex(encodeFrame(message)),
            toHex(testFrame(expectedHeader(13004, 100, 7), int32Arg(1) + stringArg("/etc/sysconfig/dravik/f.xml"))));
}

TEST(ToolMessagesTest, SaveFilterCarriesChannelAndStatus) {
  FilterStatusCommand message(1, -5);
  stamp(&message, 2, 8);
  EXPECT_EQ(toHex(encodeFrame(message)), toHex(testFrame(expectedHeader(13006, 2, 8), bytesFromHex("00 00 00 01 FF FF FF FB"))));
}

TEST(ToolMessagesTest, FilterRequestCarriesChannelAndItsResponseSelector) {
  FilterPathRequest message(3);
  stamp(&message, 100, 9);
  message.responseSelector = 13003;
  TestHeader h = expectedHeader(13002, 100, 9);
  h.responseSelector = 13003;
  EXPECT_EQ(toHex(encodeFrame(message)), toHex(testFrame(h, int32Arg(3))));
}

TEST(ToolMessagesTest, CalibrationAnswerCarriesTheBlockAndTheRequestId) {
  CalibrationBlockCommand message(std::string("\x0a\x0b\x0c", 3));
  stamp(&message, 11, 10);
  message.correlationId = 41;
  TestHeader h = expectedHeader(2045, 11, 10);
  h.correlationId = 41;
  EXPECT_EQ(toHex(encodeFrame(message)), toHex(testFrame(h, bytesFromHex("00 00 00 03 0A 0B 0C"))));
}

TEST(ToolMessagesTest, EmptyCalibrationBlockIsALengthOfZero) {
  CalibrationBlockCommand message("");
  stamp(&message, 11, 11);
  EXPECT_EQ(toHex(encodeFrame(message)), toHex(testFrame(expectedHeader(2045, 11, 11), be32(0))));
}

TEST(ToolMessagesTest, SentFramesDecodeAsTheServicesIncomingClasses) {
  FilterStatusCommand message(2, 3);
  DecodedFrame decoded = decodeFrame(encodeFrame(message), Direction::toService);
  EXPECT_EQ(decoded.className, "SaveAnalyticsFilterDataCommand");
  EXPECT_TRUE(decoded.notes.empty());
}
