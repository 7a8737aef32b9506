// The mailbox reader as seen from outside: frames it refuses, each followed by
// a valid frame that is still served, and writers that come and go.
#include <string>

#include "tests/e2e/daemon_test.h"
#include "tests/support/console_capture.h"
#include "tests/support/hex.h"

namespace {

const SyslogLine kServedLine = info("ResetCalibrationNotification::toStream channel=3");

class ReaderTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_NO_FATAL_FAILURE(startServing());
  }

  // A command that the daemon answers with one notification, sent after the
  // refused frame to show that reading goes on.
  std::string validCommand() { return command(kResetCalibration, int32Arg(3)); }

  void expectServed(const Reply& reply) {
    ASSERT_EQ(reply.frames.size(), 1u);
    expectSent(reply.frames[0], kResetCalibration, kEndpoint2, 0, int32Arg(3));
  }
};

TEST_F(ReaderTest, ZeroLengthIsRefusedAndTheNextFrameServed) {
  Reply reply = exchange(bytesFromHex("00 00 00 00") + validCommand());
  EXPECT_EQ(reply.lines,
            (std::vector<SyslogLine>{
                err("getMessage::Received 0 sized message (empty message or message exceeding maxlen)"), kServedLine}));
  expectServed(reply);
  ASSERT_TRUE(daemon_.waitForErr("bytes)\n", kWait)) << daemon_.err();
  EXPECT_EQ(maskLogTime(daemon_.err()), "<time> Warn: Message with invalid length received (0 bytes)\n");
}

TEST_F(ReaderTest, OversizedLengthIsRefusedAndTheBytesAfterItReadAsTheNextFrame) {
  Reply reply = exchange(bytesFromHex("00 01 00 01") + validCommand());
  EXPECT_EQ(reply.lines, (std::vector<SyslogLine>{err("getMessage::Received 65537 sized message (empty message or "
                                                      "message exceeding maxlen)"),
                                                  kServedLine}));
  expectServed(reply);
  ASSERT_TRUE(daemon_.waitForErr("bytes)\n", kWait)) << daemon_.err();
  EXPECT_EQ(maskLogTime(daemon_.err()),
            "Error: >> byteArray[65537]: invalid length!\n"
            "<time> Warn: Message with invalid length received (65537 bytes)\n");
}

TEST_F(ReaderTest, LargestLengthIsReadInFull) {
  // A CalibrationDataResponse that answers nothing, with the largest block
  // that fits: 65536 payload bytes.
  std::string block(65536 - 44 - 4, '\x5A');
  std::string frame = command(kCalibrationData, blockArg(block));
  ASSERT_EQ(frame.size(), 4u + 65536u);
  Reply reply = exchange(frame + validCommand());
  EXPECT_EQ(reply.lines, (std::vector<SyslogLine>{info("Process Received Message with correlationID 0 ArgsSize=65492"),
                                                  kServedLine}));
  expectServed(reply);
}

TEST_F(ReaderTest, VersionTwoIsRefusedWithAPayloadDump) {
  WireHeader h = header(kResetCalibration);
  h.version = 2;
  h.id = 0x0102;
  std::string refused = buildFrame(h, int32Arg(1));
  Reply reply = exchange(refused + validCommand());
  EXPECT_EQ(reply.lines, std::vector<SyslogLine>{kServedLine});
  expectServed(reply);
  ASSERT_TRUE(daemon_.waitForErr("version: 2\n", kWait)) << daemon_.err();
  EXPECT_EQ(maskLogTime(daemon_.err()), "<time> Error: Unsupported message version: 2\n");
  std::string dump;
  for (std::size_t i = 4; i < refused.size(); ++i) {
    static const char digits[] = "0123456789abcdef";
    unsigned char byte = static_cast<unsigned char>(refused[i]);
    dump += {digits[byte >> 4], digits[byte & 15], ' '};
  }
  ASSERT_EQ(dump.substr(0, 12), "00 00 00 02 ");
  ASSERT_TRUE(daemon_.waitForOut(dump, kWait)) << daemon_.out();
  EXPECT_EQ(maskLogTime(daemon_.out()), "<time> Info: Opening binary input FIFO: /tmp/dravik.mailbox\n" + dump);
}

TEST_F(ReaderTest, UnknownSelectorIsRefusedAndReported) {
  WireHeader h = header(4242);
  h.id = 77;
  h.correlationId = 5;
  h.responseSelector = 13;
  h.flags = 0x1F;
  Reply reply = exchange(buildFrame(h, bytesFromHex("01 AB")) + validCommand());
  EXPECT_EQ(reply.lines,
            (std::vector<SyslogLine>{err("getMessage::Received Unrecognized selector=4242"), kServedLine}));
  expectServed(reply);
  ASSERT_TRUE(daemon_.waitForErr("selector: 4242\n", kWait)) << daemon_.err();
  EXPECT_EQ(maskLogTime(daemon_.err()), "<time> Error: Unrecognized selector: 4242\n");
  const std::string details =
      "<time> Info: Received message: Size: 46 Version: 1 Sender: 11 Recipient: 13 Id: 77 CorrelationId: 5 "
      "Timestamp: 1700000000123 Selector: 4242 ResponseSelector: 13 Flags: 0x1f Args[2]: 01 ab \n";
  ASSERT_TRUE(daemon_.waitForOut("Args[2]", kWait));
  EXPECT_EQ(maskLogTime(daemon_.out()), "<time> Info: Opening binary input FIFO: /tmp/dravik.mailbox\n" + details);
}

TEST_F(ReaderTest, PayloadShorterThanItsArgumentsIsRefused) {
  // A ResetCalibrationCommand whose channel is missing: nothing may be reset.
  Reply reply = exchange(command(kResetCalibration, "") + validCommand());
  EXPECT_EQ(reply.lines, (std::vector<SyslogLine>{
                             err("getMessage::Received truncated message (44 bytes, selector=13001)"), kServedLine}));
  expectServed(reply);
}

TEST_F(ReaderTest, SecondWriterIsServedAfterTheFirstHasLeft) {
  const SyslogLine empty = info("API: Input FIFO is empty");
  Reply first = exchange(command(kResetCalibration, int32Arg(1)));
  ASSERT_EQ(first.frames.size(), 1u);
  peer_.disconnect();
  ASSERT_TRUE(waitForLog(empty));

  ASSERT_TRUE(peer_.connect(kWait));
  Reply second = exchange(validCommand());
  EXPECT_EQ(second.lines, std::vector<SyslogLine>{kServedLine});
  expectServed(second);
  EXPECT_EQ(logCount(empty), 1u);

  // A new stretch without writers is reported once again.
  peer_.disconnect();
  ASSERT_TRUE(waitForLog(empty, 2));
  ASSERT_TRUE(peer_.connect(kWait));
  expectServed(exchange(validCommand()));
  EXPECT_EQ(logCount(empty), 2u);

  // Each departure ends one pending read with a stream failure, reported once.
  std::string console = maskLogTime(daemon_.err());
  std::size_t failures = 0;
  for (std::size_t at = 0;
       (at = console.find("<time> Error: Exception ocurred reading message: ", at)) != std::string::npos; ++at) {
    ++failures;
  }
  EXPECT_EQ(failures, 2u) << console;
  EXPECT_EQ(console.find("Fifo is unhappy"), std::string::npos) << console;
}

TEST_F(ReaderTest, FrameSentRightAfterConnectingIsServed) {
  peer_.disconnect();
  ASSERT_TRUE(waitForLog(info("API: Input FIFO is empty")));
  // Connect, send and leave at once: the frame is in the pipe when the
  // writer is already gone.
  ASSERT_TRUE(peer_.connect(kWait));
  peer_.send(validCommand());
  peer_.disconnect();
  std::optional<Frame> frame = peer_.readFrame(kWait);
  ASSERT_TRUE(frame.has_value());
  expectSent(*frame, kResetCalibration, kEndpoint2, 0, int32Arg(3));
}

}  // namespace
