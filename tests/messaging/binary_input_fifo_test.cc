// The frame reader over a real named pipe: what it accepts, what it refuses
// with which reports, how much of the pipe each refusal consumes, and how its
// waits end.
#include <fcntl.h>
#include <syslog.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "messaging/binary_fifo.h"
#include "messaging/wake_up.h"
#include "tests/messaging/test_messages.h"
#include "tests/support/console_capture.h"
#include "tests/support/hex.h"
#include "tests/support/pipe_io.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/temp_dir.h"

namespace {

// The selector-13 example: sender 5, recipient 13, id 7, 1234567890.123 s.
const char kExampleFrame[] =
    "00 00 00 2C, 00 00 00 01, 00 00 00 05, 00 00 00 0D, 00 00 00 07, 00 00 00 00,"
    " 00 00 01 1F 71 FB 04 CB, 00 00 00 0D, 00 00 00 00, 00 00 00 00, 00 00 00 00";

// The payload dump of the reader: lowercase pairs, each followed by a blank.
std::string dumpOf(const std::string& bytes) {
  std::string text;
  for (char c : toHex(bytes)) text.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
  return bytes.empty() ? text : text + " ";
}

// A frame of the registered no-argument class with a given id, to show that
// the reader is back in step after a refused frame.
std::string markerFrame(int32_t id) {
  WireHeader header;
  header.id = id;
  return frameOf(payloadOf(header));
}

// An open reader on a fresh pipe, with a writer holding the pipe open.
class BinaryInputFifoTest : public TempDirTest {
 protected:
  void SetUp() override {
    path_ = makeFifo(dir_.file("mailbox"));
    writer_ = openPipeWriter(path_);
    fifo_ = std::make_unique<BinaryInputFifo>(path_.c_str());
    fifo_->open();
    ASSERT_EQ(maskLogTime(console_.takeOut()), "<time> Info: Opening binary input FIFO: " + path_ + "\n");
  }

  void write(const std::string& bytes) { writePipe(writer_.get(), bytes); }

  // The next message, which must be a real one.
  std::unique_ptr<BinaryMessage> readMessage() {
    BinaryMessage* message = fifo_->getMessage();
    if (message == notGoodResult<BinaryMessage>()) {
      ADD_FAILURE() << "stream not good";
      return nullptr;
    }
    if (message == nullptr) ADD_FAILURE() << "no message";
    return std::unique_ptr<BinaryMessage>(message);
  }

  // Reads the next message and checks it is the marker frame with `id`.
  void expectMarker(int32_t id) {
    std::unique_ptr<BinaryMessage> message = readMessage();
    ASSERT_NE(dynamic_cast<EmptyCommand*>(message.get()), nullptr);
    EXPECT_EQ(message->id, id);
  }

  ConsoleCapture console_;
  SyslogCapture syslog_;
  std::string path_;
  UniqueFd writer_;
  std::unique_ptr<BinaryInputFifo> fifo_;
};

TEST_F(BinaryInputFifoTest, ExampleFrameBuildsRegisteredClassWithItsValues) {
  write(bytesFromHex(kExampleFrame));
  int32_t before = BinaryMessage::lastId.load();
  std::unique_ptr<BinaryMessage> message = readMessage();
  ASSERT_NE(dynamic_cast<EmptyCommand*>(message.get()), nullptr);
  EXPECT_EQ(message->version, 1);
  EXPECT_EQ(message->sender, 5);
  EXPECT_EQ(message->recipient, 13);
  EXPECT_EQ(message->id, 7);
  EXPECT_EQ(message->correlationId, 0);
  EXPECT_EQ(message->timestamp.seconds, 1234567890);
  EXPECT_EQ(message->timestamp.microseconds, 123000);
  EXPECT_EQ(message->selector, 13);
  EXPECT_EQ(message->responseSelector, 0);
  EXPECT_EQ(message->flags, 0);
  EXPECT_EQ(message->argsLength, 0);
  EXPECT_EQ(BinaryMessage::lastId.load(), before + 1);
  EXPECT_EQ(console_.out(), "");
  EXPECT_EQ(console_.err(), "");
  EXPECT_TRUE(syslog_.lines().empty());
}

TEST_F(BinaryInputFifoTest, ArgumentsAreDecodedByTheClass) {
  WireHeader header;
  header.selector = kPairSelector;
  std::string payload = payloadOf(header, bytesFromHex("00 00 01 00 00 04 61 62 63 64"));
  ASSERT_EQ(payload.size(), 54u);
  write(frameOf(payload));
  std::unique_ptr<BinaryMessage> message = readMessage();
  auto* pair = dynamic_cast<PairCommand*>(message.get());
  ASSERT_NE(pair, nullptr);
  EXPECT_EQ(pair->argsLength, 10);
  EXPECT_EQ(pair->number, 256);
  EXPECT_EQ(pair->name, "abcd");
}

TEST_F(BinaryInputFifoTest, ZeroLengthIsRefusedAndNextFrameIsRead) {
  write(bytesFromHex("00 00 00 00") + markerFrame(41));
  EXPECT_EQ(fifo_->getMessage(), nullptr);
  EXPECT_EQ(maskLogTime(console_.takeErr()), "<time> Warn: Message with invalid length received (0 bytes)\n");
  EXPECT_EQ(syslog_.take(),
            (std::vector<SyslogLine>{
                {LOG_ERR, "getMessage::Received 0 sized message (empty message or message exceeding maxlen)"}}));
  expectMarker(41);
  EXPECT_EQ(console_.err(), "");
  EXPECT_EQ(console_.out(), "");
}

TEST_F(BinaryInputFifoTest, OversizedLengthLeavesPayloadInPipe) {
  // The refused frame's payload starts with a whole valid frame: the next
  // call takes its length from there.
  write(be32(65537) + markerFrame(42));
  EXPECT_EQ(fifo_->getMessage(), nullptr);
  EXPECT_EQ(maskLogTime(console_.takeErr()),
            "Error: >> byteArray[65537]: invalid length!\n"
            "<time> Warn: Message with invalid length received (65537 bytes)\n");
  EXPECT_EQ(syslog_.take(),
            (std::vector<SyslogLine>{
                {LOG_ERR, "getMessage::Received 65537 sized message (empty message or message exceeding maxlen)"}}));
  expectMarker(42);
  EXPECT_EQ(console_.err(), "");
}

TEST_F(BinaryInputFifoTest, LargestPayloadIsReadInFull) {
  BlockNotification sent;
  WireHeader header;
  header.selector = kBlockSelector;
  std::string block(kMaxPayloadLength - kHeaderSize - 4, '\0');
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i % 251);
  std::string payload = payloadOf(header, be32(static_cast<uint32_t>(block.size())) + block);
  ASSERT_EQ(payload.size(), kMaxPayloadLength);
  // More than the pipe holds: written while the reader reads.
  std::thread writer([&] { write(frameOf(payload) + markerFrame(43)); });
  std::unique_ptr<BinaryMessage> message = readMessage();
  writer.join();
  auto* notification = dynamic_cast<BlockNotification*>(message.get());
  ASSERT_NE(notification, nullptr);
  EXPECT_EQ(notification->argsLength, static_cast<int32_t>(block.size() + 4));
  ASSERT_EQ(notification->block.length, block.size());
  EXPECT_EQ(std::memcmp(notification->block.data, block.data(), block.size()), 0);
  expectMarker(43);
  EXPECT_EQ(console_.err(), "");
}

TEST_F(BinaryInputFifoTest, UnsupportedVersionIsDumpedAndConsumed) {
  WireHeader header;
  header.version = 2;
  std::string payload = payloadOf(header, bytesFromHex("AB CD"));
  write(frameOf(payload) + markerFrame(44));
  EXPECT_EQ(fifo_->getMessage(), nullptr);
  EXPECT_EQ(maskLogTime(console_.takeErr()), "<time> Error: Unsupported message version: 2\n");
  std::string dump = console_.takeOut();
  EXPECT_EQ(dump.substr(0, 12), "00 00 00 02 ");
  EXPECT_EQ(dump, dumpOf(payload));
  EXPECT_EQ(dump.substr(dump.size() - 6), "ab cd ");
  EXPECT_TRUE(syslog_.lines().empty());
  expectMarker(44);
}

TEST_F(BinaryInputFifoTest, UnrecognizedSelectorIsReportedThreeWays) {
  WireHeader header;
  header.selector = kUnknownSelector;
  header.correlationId = 57;
  header.responseSelector = 2045;
  header.flags = 0xAB;
  std::string payload = payloadOf(header, bytesFromHex("DE AD BE EF 00 01 02 03 0A FF"));
  ASSERT_EQ(payload.size(), 54u);
  write(frameOf(payload) + markerFrame(45));
  int32_t before = BinaryMessage::lastId.load();
  EXPECT_EQ(fifo_->getMessage(), nullptr);
  EXPECT_EQ(BinaryMessage::lastId.load(), before);
  EXPECT_EQ(maskLogTime(console_.takeErr()), "<time> Error: Unrecognized selector: 4242\n");
  EXPECT_EQ(syslog_.take(), (std::vector<SyslogLine>{{LOG_ERR, "getMessage::Received Unrecognized selector=4242"}}));
  EXPECT_EQ(maskLogTime(console_.takeOut()),
            "<time> Info: Received message: Size: 54 Version: 1 Sender: 5 Recipient: 13 Id: 7 CorrelationId: 57"
            " Timestamp: 1234567890123 Selector: 4242 ResponseSelector: 2045 Flags: 0xab"
            " Args[10]: de ad be ef 00 01 02 03 0a ff \n");
  expectMarker(45);
}

TEST_F(BinaryInputFifoTest, UnrecognizedSelectorWithoutArgumentsDumpsNothing) {
  WireHeader header;
  header.selector = -9;
  header.sender = -1;
  write(frameOf(payloadOf(header)));
  EXPECT_EQ(fifo_->getMessage(), nullptr);
  EXPECT_EQ(maskLogTime(console_.takeErr()), "<time> Error: Unrecognized selector: -9\n");
  EXPECT_EQ(maskLogTime(console_.takeOut()),
            "<time> Info: Received message: Size: 44 Version: 1 Sender: -1 Recipient: 13 Id: 7 CorrelationId: 0"
            " Timestamp: 1234567890123 Selector: -9 ResponseSelector: 0 Flags: 0x0 Args[0]: \n");
}

TEST_F(BinaryInputFifoTest, UnrecognizedSelectorDumpsOnlyArgumentBytesPresent) {
  WireHeader header;
  header.selector = kUnknownSelector;
  header.argsLength = 100;
  write(frameOf(header.bytes() + bytesFromHex("01 02 03")) + markerFrame(46));
  EXPECT_EQ(fifo_->getMessage(), nullptr);
  EXPECT_EQ(maskLogTime(console_.takeOut()),
            "<time> Info: Received message: Size: 47 Version: 1 Sender: 5 Recipient: 13 Id: 7 CorrelationId: 0"
            " Timestamp: 1234567890123 Selector: 4242 ResponseSelector: 0 Flags: 0x0 Args[100]: 01 02 03 \n");
  expectMarker(46);
}

TEST_F(BinaryInputFifoTest, ArgsLengthIsNotComparedWithPayload) {
  WireHeader header;
  header.argsLength = 100;
  write(frameOf(header.bytes()));
  std::unique_ptr<BinaryMessage> message = readMessage();
  ASSERT_NE(dynamic_cast<EmptyCommand*>(message.get()), nullptr);
  EXPECT_EQ(message->argsLength, 100);
  EXPECT_EQ(console_.err(), "");
}

TEST_F(BinaryInputFifoTest, PayloadWithoutSelectorIsAnUnrecognizedSelector) {
  std::string header = WireHeader{}.bytes();
  write(frameOf(header.substr(0, 20)) + markerFrame(47));
  EXPECT_EQ(fifo_->getMessage(), nullptr);
  EXPECT_EQ(maskLogTime(console_.takeErr()), "<time> Error: Unrecognized selector: -1\n");
  EXPECT_EQ(syslog_.take(), (std::vector<SyslogLine>{{LOG_ERR, "getMessage::Received Unrecognized selector=-1"}}));
  expectMarker(47);
}

TEST_F(BinaryInputFifoTest, PayloadEndingInArgsLengthIsRefused) {
  std::string header = WireHeader{}.bytes();
  int32_t before = BinaryMessage::lastId.load();
  write(frameOf(header.substr(0, 42)) + markerFrame(48));
  EXPECT_EQ(fifo_->getMessage(), nullptr);
  EXPECT_EQ(BinaryMessage::lastId.load(), before);
  EXPECT_EQ(maskLogTime(console_.takeErr()), "<time> Error: Truncated message received (42 bytes, selector 13)\n");
  EXPECT_EQ(syslog_.take(),
            (std::vector<SyslogLine>{{LOG_ERR, "getMessage::Received truncated message (42 bytes, selector=13)"}}));
  expectMarker(48);
}

TEST_F(BinaryInputFifoTest, PayloadShorterThanClassArgumentsIsRefused) {
  WireHeader header;
  header.selector = kPairSelector;
  header.argsLength = 10;
  write(frameOf(header.bytes() + bytesFromHex("00 00 00 01")) + markerFrame(49));
  EXPECT_EQ(fifo_->getMessage(), nullptr);
  EXPECT_EQ(maskLogTime(console_.takeErr()), "<time> Error: Truncated message received (48 bytes, selector 900)\n");
  EXPECT_EQ(syslog_.take(),
            (std::vector<SyslogLine>{{LOG_ERR, "getMessage::Received truncated message (48 bytes, selector=900)"}}));
  expectMarker(49);
}

TEST_F(BinaryInputFifoTest, FrameSplitAcrossWritesIsReassembled) {
  std::string frame = bytesFromHex(kExampleFrame);
  auto reading = std::async(std::launch::async, [this] { return readMessage(); });
  // Each piece is taken by the reader before the next is written, so the
  // frame arrives in separate reads.
  const std::size_t cuts[] = {0, 3, 5, 30, frame.size()};
  for (std::size_t i = 0; i + 1 < sizeof cuts / sizeof cuts[0]; ++i) {
    write(frame.substr(cuts[i], cuts[i + 1] - cuts[i]));
    while (pendingBytes(writer_.get()) > 0 && reading.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
      std::this_thread::yield();
    }
  }
  std::unique_ptr<BinaryMessage> message = reading.get();
  ASSERT_NE(dynamic_cast<EmptyCommand*>(message.get()), nullptr);
  EXPECT_EQ(message->id, 7);
  EXPECT_EQ(message->timestamp.microseconds, 123000);
}

TEST_F(BinaryInputFifoTest, SeveralFramesInOneWriteAreReadOneByOne) {
  WireHeader pair;
  pair.selector = kPairSelector;
  pair.id = 51;
  write(markerFrame(50) + frameOf(payloadOf(pair, bytesFromHex("00 00 00 02 00 01 7A"))) + markerFrame(52));
  expectMarker(50);
  std::unique_ptr<BinaryMessage> message = readMessage();
  auto* second = dynamic_cast<PairCommand*>(message.get());
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->id, 51);
  EXPECT_EQ(second->name, "z");
  expectMarker(52);
}

TEST_F(BinaryInputFifoTest, LastWriterClosingEndsReadingForGood) {
  write(markerFrame(60));
  writer_.reset();
  expectMarker(60);
  EXPECT_EQ(fifo_->getMessage(), nullptr);
  std::string err = maskLogTime(console_.takeErr());
  const std::string expected = "<time> Error: Exception ocurred reading message: ";
  EXPECT_EQ(err.substr(0, expected.size()), expected);
  EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
  EXPECT_EQ(err.back(), '\n');
  EXPECT_TRUE(fifo_->stream.eof());

  EXPECT_EQ(fifo_->getMessage(), notGoodResult<BinaryMessage>());
  EXPECT_EQ(fifo_->getMessage(), notGoodResult<BinaryMessage>());
  EXPECT_EQ(console_.err(), "");
  EXPECT_EQ(console_.out(), "");
  EXPECT_TRUE(syslog_.lines().empty());
}

TEST_F(BinaryInputFifoTest, LastWriterClosingMidFrameEndsWithException) {
  write(bytesFromHex(kExampleFrame).substr(0, 30));
  writer_.reset();
  EXPECT_EQ(fifo_->getMessage(), nullptr);
  std::string err = maskLogTime(console_.takeErr());
  EXPECT_EQ(err.rfind("<time> Error: Exception ocurred reading message: ", 0), 0u) << err;
  EXPECT_EQ(fifo_->getMessage(), notGoodResult<BinaryMessage>());
  EXPECT_EQ(console_.err(), "");
}

TEST_F(BinaryInputFifoTest, UnhappyWarningOnlyWhenStreamTurnsBad) {
  fifo_->stream.setstate(std::ios::eofbit);
  EXPECT_EQ(fifo_->getMessage(), notGoodResult<BinaryMessage>());
  EXPECT_EQ(maskLogTime(console_.takeErr()), "<time> Warn: Fifo is unhappy - good=0 eof=1\n");
  EXPECT_EQ(fifo_->getMessage(), notGoodResult<BinaryMessage>());
  EXPECT_EQ(console_.takeErr(), "");

  // A call that finds the stream good again re-arms the warning.
  fifo_->stream.clear();
  write(markerFrame(61));
  expectMarker(61);
  fifo_->stream.setstate(std::ios::eofbit);
  EXPECT_EQ(fifo_->getMessage(), notGoodResult<BinaryMessage>());
  EXPECT_EQ(maskLogTime(console_.takeErr()), "<time> Warn: Fifo is unhappy - good=0 eof=1\n");
  EXPECT_EQ(console_.out(), "");
}

TEST_F(BinaryInputFifoTest, WakeUpEndsReadOfSilentPipe) {
  WakeUp wake;
  fifo_->stream.buffer().wakeOn({wake.fd()});
  auto reading = std::async(std::launch::async, [this] { return fifo_->getMessage(); });
  wake.trigger();
  EXPECT_THROW(reading.get(), PipeInterrupted);
  EXPECT_TRUE(fifo_->stream.buffer().interrupted());
  EXPECT_EQ(console_.err(), "");
}

TEST_F(BinaryInputFifoTest, WakeUpEndsReadOfPartialFrame) {
  write(bytesFromHex(kExampleFrame).substr(0, 10));
  WakeUp wake;
  fifo_->stream.buffer().wakeOn({wake.fd()});
  auto reading = std::async(std::launch::async, [this] { return fifo_->getMessage(); });
  wake.trigger();
  EXPECT_THROW(reading.get(), PipeInterrupted);
  EXPECT_EQ(console_.err(), "");
}

class BinaryInputOpenTest : public TempDirTest {
 protected:
  void SetUp() override { path_ = makeFifo(dir_.file("mailbox")); }

  ConsoleCapture console_;
  std::string path_;
};

TEST_F(BinaryInputOpenTest, OpenReturnsWhenWriterOpens) {
  BinaryInputFifo fifo(path_.c_str());
  std::thread opener([&] { fifo.open(); });
  // Blocks until the reader has its descriptor, then the reader sees us.
  UniqueFd writer(::open(path_.c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_TRUE(writer.valid());
  opener.join();
  EXPECT_TRUE(fifo.stream.is_open());
  EXPECT_TRUE(fifo.stream.good());
  EXPECT_EQ(maskLogTime(console_.out()), "<time> Info: Opening binary input FIFO: " + path_ + "\n");
}

TEST_F(BinaryInputOpenTest, WakeUpMakesOpenRaise) {
  BinaryInputFifo fifo(path_.c_str());
  WakeUp wake;
  fifo.stream.buffer().wakeOn({wake.fd()});
  auto opening = std::async(std::launch::async, [&] { fifo.open(); });
  wake.trigger();
  EXPECT_THROW(opening.get(), std::ios_base::failure);
  EXPECT_FALSE(fifo.stream.is_open());
  EXPECT_TRUE(fifo.stream.buffer().interrupted());
}

TEST_F(BinaryInputOpenTest, MissingPipeMakesOpenRaise) {
  std::string missing = dir_.file("missing");
  BinaryInputFifo fifo(missing.c_str());
  EXPECT_THROW(fifo.open(), std::ios_base::failure);
  EXPECT_EQ(maskLogTime(console_.out()), "<time> Info: Opening binary input FIFO: " + missing + "\n");
  EXPECT_EQ(console_.err(), "");
}

}  // namespace
