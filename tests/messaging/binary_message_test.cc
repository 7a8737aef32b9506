// The binary message model: construction defaults, numbering, the header's
// bytes, responses, the selector registry and the default Process().
#include "messaging/binary_message.h"

#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "messaging/binary_fifo.h"
#include "tests/messaging/test_messages.h"
#include "tests/support/console_capture.h"
#include "tests/support/hex.h"
#include "tests/support/pipe_io.h"
#include "tests/support/temp_dir.h"

namespace {

Timestamp fixedTime() {
  Timestamp t;
  t.seconds = 1234567890;
  t.microseconds = 123456;
  return t;
}

// A fixed clock and sender for every message built in the test; both are
// restored afterwards, as other tests rely on their defaults.
class MessageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setClock(fixedTime);
    savedSender_ = BinaryMessage::defaultSender;
  }
  void TearDown() override {
    setClock(nullptr);
    BinaryMessage::defaultSender = savedSender_;
  }

  static std::string encode(const BinaryMessage& message) {
    std::ostringstream target;
    bostream out(target);
    message.toStream(out);
    return target.str();
  }

  int32_t savedSender_ = 0;
};

TEST_F(MessageTest, NewMessageTakesConstructionDefaults) {
  BinaryMessage::defaultSender = 13;
  BinaryMessage message;
  EXPECT_EQ(message.version, 1);
  EXPECT_EQ(message.sender, 13);
  EXPECT_EQ(message.recipient, 0);
  EXPECT_EQ(message.id, BinaryMessage::lastId.load());
  EXPECT_EQ(message.correlationId, 0);
  EXPECT_EQ(message.timestamp, fixedTime());
  EXPECT_EQ(message.selector, 0);
  EXPECT_EQ(message.responseSelector, 0);
  EXPECT_EQ(message.flags, 0);
  EXPECT_EQ(message.argsLength, 0);
}

TEST_F(MessageTest, EveryConstructionTakesTheNextIdWhateverTheClass) {
  BinaryMessage first;
  EmptyCommand second;
  PairCommand third;
  BlockNotification fourth;
  EXPECT_EQ(second.id, first.id + 1);
  EXPECT_EQ(third.id, first.id + 2);
  EXPECT_EQ(fourth.id, first.id + 3);
}

TEST_F(MessageTest, IdsBuiltOnSeveralThreadsNeverRepeat) {
  constexpr int kPerThread = 20000;
  std::vector<int32_t> idsA, idsB;
  auto build = [](std::vector<int32_t>* ids) {
    for (int i = 0; i < kPerThread; ++i) ids->push_back(EmptyCommand().id);
  };
  std::thread a(build, &idsA);
  std::thread b(build, &idsB);
  a.join();
  b.join();
  std::set<int32_t> all(idsA.begin(), idsA.end());
  all.insert(idsB.begin(), idsB.end());
  EXPECT_EQ(all.size(), 2u * kPerThread);
}

TEST_F(MessageTest, HeaderOfZeroTimeIsFortyFourBytes) {
  BinaryMessage message;
  message.sender = 0x0A0B0C0D;
  message.id = 0x01020304;
  message.timestamp = Timestamp{};
  message.selector = 0x77;
  EXPECT_EQ(toHex(encode(message)), canonicalHex("00 00 00 01, 0A 0B 0C 0D, 00 00 00 00, 01 02 03 04, 00 00 00 00,"
                                                 " 00 00 00 00 00 00 00 00, 00 00 00 77,"
                                                 " 00 00 00 00, 00 00 00 00, 00 00 00 00"));
}

TEST_F(MessageTest, HeaderCarriesEveryFieldInOrder) {
  BinaryMessage message;
  message.version = 1;
  message.sender = 5;
  message.recipient = 13;
  message.id = 7;
  message.correlationId = -3;
  message.selector = 2044;
  message.responseSelector = 2045;
  message.flags = 0x40;
  message.argsLength = 9;
  EXPECT_EQ(toHex(encode(message)), canonicalHex("00 00 00 01, 00 00 00 05, 00 00 00 0D, 00 00 00 07, FF FF FF FD,"
                                                 " 00 00 01 1F 71 FB 04 CB, 00 00 07 FC, 00 00 07 FD,"
                                                 " 00 00 00 40, 00 00 00 09"));
}

TEST_F(MessageTest, ConcreteSelectorGoesOnTheWireThoughMemberIsZero) {
  EmptyCommand message;
  ASSERT_EQ(message.selector, 0);
  EXPECT_EQ(toHex(encode(message).substr(28, 4)), "00 00 00 0D");
}

TEST_F(MessageTest, ArgumentsFollowTheHeader) {
  PairCommand message;
  message.number = 0x01020304;
  message.name = "abcd";
  std::string bytes = encode(message);
  ASSERT_EQ(bytes.size(), kHeaderSize + 10);
  EXPECT_EQ(toHex(bytes.substr(kHeaderSize)), "01 02 03 04 00 04 61 62 63 64");
}

TEST_F(MessageTest, FromStreamReplacesEveryHeaderMember) {
  WireHeader header;
  header.version = 2;
  header.sender = -1;
  header.recipient = 11;
  header.id = 99;
  header.correlationId = 57;
  header.milliseconds = 1999;
  header.selector = 321;
  header.responseSelector = 654;
  header.flags = 0x7F;
  header.argsLength = 12;
  std::istringstream source(header.bytes());
  bistream in(source);
  BinaryMessage message;
  message.fromStream(in);
  EXPECT_EQ(message.version, 2);
  EXPECT_EQ(message.sender, -1);
  EXPECT_EQ(message.recipient, 11);
  EXPECT_EQ(message.id, 99);
  EXPECT_EQ(message.correlationId, 57);
  EXPECT_EQ(message.timestamp.seconds, 1);
  EXPECT_EQ(message.timestamp.microseconds, 999000);
  EXPECT_EQ(message.selector, 321);
  EXPECT_EQ(message.responseSelector, 654);
  EXPECT_EQ(message.flags, 0x7F);
  EXPECT_EQ(message.argsLength, 12);
  EXPECT_EQ(source.tellg(), 44);
}

TEST_F(MessageTest, ResponseAnswersItsRequest) {
  BinaryMessage::defaultSender = 13;
  EchoRequest request;
  request.sender = 11;
  request.id = 57;
  request.responseSelector = kEchoResponseSelector;
  BinaryResponse response(request);
  EXPECT_EQ(response.recipient, 11);
  EXPECT_EQ(response.correlationId, 57);
  EXPECT_EQ(response.selector, kEchoResponseSelector);
  EXPECT_EQ(response.getSelector(), kEchoResponseSelector);
  EXPECT_EQ(response.responseSelector, 0);
  EXPECT_EQ(response.version, 1);
  EXPECT_EQ(response.sender, 13);
  EXPECT_EQ(response.id, BinaryMessage::lastId.load());
  EXPECT_NE(response.id, 57);
  EXPECT_EQ(response.flags, 0);
  EXPECT_EQ(response.argsLength, 0);
}

TEST_F(MessageTest, ResponseEncodesHeaderThenRequestsAnswer) {
  EchoRequest request;
  request.sender = 11;
  request.id = 57;
  request.responseSelector = kEchoResponseSelector;
  BinaryResponse response(request);
  response.sender = 13;
  response.id = 60;
  EXPECT_EQ(toHex(encode(response)), canonicalHex("00 00 00 01, 00 00 00 0D, 00 00 00 0B, 00 00 00 3C, 00 00 00 39,"
                                                  " 00 00 01 1F 71 FB 04 CB, 00 00 07 FD, 00 00 00 00,"
                                                  " 00 00 00 00, 00 00 00 00, 11 22 33 44"));
}

// Process() of a notification, a response or a request sends through
// notificationOutput.
class MessageProcessTest : public MessageTest {
 protected:
  void SetUp() override {
    MessageTest::SetUp();
    path_ = makeFifo(dir_.file("out"));
    reader_ = openPipeReader(path_);
    output_ = std::make_unique<BinaryOutputFifo>(path_.c_str());
    BinaryMessage::notificationOutput = output_.get();
  }
  void TearDown() override {
    BinaryMessage::notificationOutput = nullptr;
    MessageTest::TearDown();
  }

  TempDir dir_;
  std::string path_;
  UniqueFd reader_;
  std::unique_ptr<BinaryOutputFifo> output_;
};

TEST_F(MessageProcessTest, NotificationProcessSendsItself) {
  BlockNotification notification;
  notification.sender = 13;
  notification.recipient = 2;
  notification.id = 8;
  notification.block.assign("\xAB\xCD", 2);
  notification.Process();
  EXPECT_EQ(toHex(readAvailable(reader_.get())),
            canonicalHex("00 00 00 32, 00 00 00 01, 00 00 00 0D, 00 00 00 02, 00 00 00 08, 00 00 00 00,"
                         " 00 00 01 1F 71 FB 04 CB, 00 00 03 85, 00 00 00 00, 00 00 00 00, 00 00 00 06,"
                         " 00 00 00 02 AB CD"));
}

TEST_F(MessageProcessTest, RequestProcessSendsItsResponse) {
  BinaryMessage::defaultSender = 13;
  EchoRequest request;
  request.sender = 11;
  request.id = 57;
  request.responseSelector = kEchoResponseSelector;
  request.Process();
  std::string frame = readAvailable(reader_.get());
  ASSERT_EQ(frame.size(), 4u + 48u);
  int32_t responseId = BinaryMessage::lastId.load();
  EXPECT_EQ(toHex(frame), canonicalHex("00 00 00 30, 00 00 00 01, 00 00 00 0D, 00 00 00 0B," + toHex(be32(responseId)) +
                                       ", 00 00 00 39, 00 00 01 1F 71 FB 04 CB, 00 00 07 FD, 00 00 00 00,"
                                       " 00 00 00 00, 00 00 00 04, 11 22 33 44"));
  EXPECT_EQ(request.sender, 11);
  EXPECT_EQ(request.id, 57);
}

TEST(RegistryTest, FirstRegistrationOfASelectorStays) {
  constexpr int32_t kSelector = 7001;
  registerSelector(kSelector, newMessage<EmptyCommand>);
  registerSelector(kSelector, newMessage<PairCommand>);
  EXPECT_EQ(selectorRegistry().at(kSelector), &newMessage<EmptyCommand>);

  WireHeader header;
  header.selector = kSelector;
  std::istringstream source(payloadOf(header, bytesFromHex("00 00 00 01 00 01 61")));
  bistream in(source);
  std::unique_ptr<BinaryMessage> message(createMessage(kSelector, in));
  ASSERT_NE(message, nullptr);
  EXPECT_NE(dynamic_cast<EmptyCommand*>(message.get()), nullptr);
}

TEST(RegistryTest, UnregisteredSelectorBuildsNothing) {
  std::istringstream source(payloadOf(WireHeader{}));
  bistream in(source);
  int32_t before = BinaryMessage::lastId.load();
  EXPECT_EQ(createMessage(kUnknownSelector, in), nullptr);
  EXPECT_EQ(BinaryMessage::lastId.load(), before);
  EXPECT_EQ(source.tellg(), 0);
}

TEST(RegistryTest, CreateMessageDecodesWholePayloadIntoRegisteredClass) {
  WireHeader header;
  header.selector = kPairSelector;
  header.id = 7;
  std::istringstream source(payloadOf(header, bytesFromHex("FF FF FF FE 00 04 61 62 63 64")));
  bistream in(source);
  int32_t before = BinaryMessage::lastId.load();
  std::unique_ptr<BinaryMessage> message(createMessage(kPairSelector, in));
  EXPECT_EQ(BinaryMessage::lastId.load(), before + 1);
  auto* pair = dynamic_cast<PairCommand*>(message.get());
  ASSERT_NE(pair, nullptr);
  EXPECT_EQ(pair->id, 7);
  EXPECT_EQ(pair->sender, 5);
  EXPECT_EQ(pair->recipient, 13);
  EXPECT_EQ(pair->argsLength, 10);
  EXPECT_EQ(pair->number, -2);
  EXPECT_EQ(pair->name, "abcd");
  EXPECT_EQ(source.tellg(), 54);
}

TEST(DefaultProcessTest, KindsWithoutBehaviourWriteOneErrorLine) {
  ConsoleCapture console;
  BinaryMessage message;
  message.Process();
  std::string line = console.takeErr();
  EXPECT_TRUE(std::regex_search(line, std::regex(R"(^\d{4}-\d\d-\d\d_\d\d:\d\d:\d\d )"))) << line;
  EXPECT_EQ(maskLogTime(line), "<time> Error: BinaryMessage::Process() was not implemented by a message class\n");

  BinaryCommand command;
  command.Process();
  EXPECT_EQ(maskLogTime(console.err()),
            "<time> Error: BinaryMessage::Process() was not implemented by a message class\n");
  EXPECT_EQ(console.out(), "");
}

}  // namespace
