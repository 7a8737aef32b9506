// The frame reader: each row writes bytes into the mailbox and pins what
// getMessage makes of them (the message, or null and the reports on the
// console and in syslog), and that the frame after them is read normally.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <memory>
#include <thread>

#include "messaging/binary_fifo.h"
#include "messaging/wake_up.h"
#include "tests/support/capture.h"
#include "tests/support/pipes.h"
#include "tests/support/wire.h"
#include "harness/temp_dir.h"

namespace {

// Registered for these tests: no arguments, and an int32 and a block.
class Bare : public BinaryCommand {
 public:
  int32_t getSelector() const override { return 13; }
};
class WithArgs : public BinaryCommand {
 public:
  int32_t getSelector() const override { return 31020; }
  void fromStream(bistream& in) override {
    BinaryCommand::fromStream(in);
    in >> channel >> data;
  }
  int32_t channel = 0;
  byteArray data;
};
const SelectorRegistration registerBare(13, newMessage<Bare>);
const SelectorRegistration registerWithArgs(31020, newMessage<WithArgs>);

const std::string kMarker = frame(Header{13, 11, 13, 4711});

class FrameReaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = makeFifo(dir_.file("mailbox"));
    writer_ = openFd(path_, O_RDWR);  // a writer, so that open() does not wait
    fifo_ = std::make_unique<BinaryInputFifo>(path_.c_str());
    fifo_->open();
    console_.takeOut();
  }

  // Reads the frame after a row's bytes: it must be the marker.
  void expectMarkerNext(const std::string& row) {
    std::unique_ptr<BinaryMessage> next(fifo_->getMessage());
    ASSERT_NE(next, nullptr) << row;
    EXPECT_EQ(next->id, 4711) << row;
  }

  TempDir dir_;
  std::string path_;
  Fd writer_;
  std::unique_ptr<BinaryInputFifo> fifo_;
  ConsoleCapture console_;
  SyslogCapture syslog_;
};

struct RefusedRow {
  const char* name;
  std::string bytes;
  std::string err;
  std::string out;
  std::vector<SyslogLine> lines;
  bool built = false;  // the class decoded it, then it was refused
};

TEST_F(FrameReaderTest, RefusedFramesAreReportedAndReadingGoesOn) {
  const std::string truncated = " Error: Truncated message received (";
  const std::string frame10 = be32(10) + frame(Header{13, 5}).substr(4, 10);
  std::string frame42 = frame(Header{13, 5});
  frame42 = be32(42) + frame42.substr(4, 42);
  const RefusedRow rows[] = {
      {"length 0", be32(0), "<time> Warn: Message with invalid length received (0 bytes)\n", "",
       {err("getMessage::Received 0 sized message (empty message or message exceeding maxlen)")}},
      {"length 65537: the next length is read from its payload", be32(65537),
       "Error: >> byteArray[65537]: invalid length!\n"
       "<time> Warn: Message with invalid length received (65537 bytes)\n",
       "", {err("getMessage::Received 65537 sized message (empty message or message exceeding maxlen)")}},
      {"version 2", frame(Header{13, 11, 13, 1, 0, 0, 0, 0, 2}),
       "<time> Error: Unsupported message version: 2\n",
       "00 00 00 02 00 00 00 0b 00 00 00 0d 00 00 00 01 00 00 00 00 00 00 00 00 00 00 00 00 "
       "00 00 00 0d 00 00 00 00 00 00 00 00 00 00 00 00 ",
       {}},
      {"payload shorter than its version", be32(3) + bytesFromHex("00 00 00"),
       "<time> Error: Unsupported message version: -1\n", "00 00 00 ", {}},
      {"unregistered selector", frame(Header{999, 11, 13, 7, 9, 0, 1234567890123, 0x1F}, "abc"),
       "<time> Error: Unrecognized selector: 999\n",
       "<time> Info: Received message: Size: 47 Version: 1 Sender: 11 Recipient: 13 Id: 7 CorrelationId: 9 "
       "Timestamp: 1234567890123 Selector: 999 ResponseSelector: 0 Flags: 0x1f Args[3]: 61 62 63 \n",
       {err("getMessage::Received Unrecognized selector=999")}},
      {"argsLength beyond the payload", frame(Header{999, 1, 2, 3, 4, 5, 6, 7, 1, 5}, "ab"),
       "<time> Error: Unrecognized selector: 999\n",
       "<time> Info: Received message: Size: 46 Version: 1 Sender: 1 Recipient: 2 Id: 3 CorrelationId: 4 "
       "Timestamp: 6 Selector: 999 ResponseSelector: 5 Flags: 0x7 Args[5]: 61 62 \n",
       {err("getMessage::Received Unrecognized selector=999")}},
      {"refused argsLength", frame(Header{999, 1, 2, 3, 4, 5, 6, 7, 1, 65537}),
       "Error: >> byteArray[65537]: invalid length!\n<time> Error: Unrecognized selector: 999\n",
       "<time> Info: Received message: Size: 44 Version: 1 Sender: 1 Recipient: 2 Id: 3 CorrelationId: 4 "
       "Timestamp: 6 Selector: 999 ResponseSelector: 5 Flags: 0x7 Args[65537]: \n",
       {err("getMessage::Received Unrecognized selector=999")}},
      {"payload without its selector", frame10, "<time> Error: Unrecognized selector: -1\n",
       "<time> Info: Received message: Size: 10 Version: 1 Sender: 5 Recipient: -1 Id: -1 CorrelationId: -1 "
       "Timestamp: -1 Selector: -1 ResponseSelector: -1 Flags: 0xffffffff Args[0]: \n",
       {err("getMessage::Received Unrecognized selector=-1")}},
      {"registered class, header cut short", frame42, "<time>" + truncated + "42 bytes, selector 13)\n", "",
       {err("getMessage::Received truncated message (42 bytes, selector=13)")}},
      {"registered class, arguments cut short", frame(Header{31020}, be32(7) + be32(10) + "abc"),
       "<time>" + truncated + "55 bytes, selector 31020)\n", "",
       {err("getMessage::Received truncated message (55 bytes, selector=31020)")}, true},
  };
  for (const RefusedRow& row : rows) {
    writeAll(writer_.get(), row.bytes + kMarker);
    int32_t before = BinaryMessage::lastId.load();
    EXPECT_EQ(fifo_->getMessage(), nullptr) << row.name;
    EXPECT_EQ(BinaryMessage::lastId.load(), before + (row.built ? 1 : 0)) << row.name;
    EXPECT_EQ(console_.takeErr(), row.err) << row.name;
    EXPECT_EQ(console_.takeOut(), row.out) << row.name;
    EXPECT_EQ(syslog_.take(), row.lines) << row.name;
    expectMarkerNext(row.name);
  }
}

TEST_F(FrameReaderTest, WellFormedFramesBecomeMessages) {
  // A complete frame: selector 13, sender 5, recipient 13, id 7, time
  // 1234567890 s 123000 us.
  writeAll(writer_.get(), bytesFromHex("00 00 00 2C 00 00 00 01 00 00 00 05 00 00 00 0D 00 00 00 07 00 00 00 00"
                                       "00 00 01 1F 71 FB 04 CB 00 00 00 0D 00 00 00 00 00 00 00 00 00 00 00 00"));
  std::unique_ptr<BinaryMessage> m(fifo_->getMessage());
  ASSERT_NE(dynamic_cast<Bare*>(m.get()), nullptr);
  EXPECT_EQ((std::vector<int32_t>{m->version, m->sender, m->recipient, m->id, m->correlationId, m->timestamp.seconds,
                                  m->timestamp.microseconds, m->selector, m->responseSelector, m->flags}),
            (std::vector<int32_t>{1, 5, 13, 7, 0, 1234567890, 123000, 13, 0, 0}));

  // The largest payload, 65536 bytes; argsLength is not compared with it,
  // and bytes after a class's arguments are ignored.
  std::string big(65488 - 4, '\x42');
  std::thread writer([&] {  // more than the pipe holds
    writeAll(writer_.get(), frame(Header{31020, 11, 13, 8, 0, 0, 0, 0, 1, 3}, be32(2) + block(big)) +
                                frame(Header{13, 11, 13, 9}, "trailing"));
  });
  std::unique_ptr<BinaryMessage> large(fifo_->getMessage());
  writer.join();
  auto* withArgs = dynamic_cast<WithArgs*>(large.get());
  ASSERT_NE(withArgs, nullptr);
  EXPECT_EQ(withArgs->argsLength, 3);
  EXPECT_EQ(withArgs->channel, 2);
  EXPECT_EQ(std::string(withArgs->data.data, withArgs->data.length), big);
  std::unique_ptr<BinaryMessage> trailing(fifo_->getMessage());
  ASSERT_NE(trailing, nullptr);
  EXPECT_EQ(trailing->id, 9);
  EXPECT_EQ(console_.takeErr(), "");
}

TEST_F(FrameReaderTest, EndOfFileIsReportedOnceThenTheStreamIsNotGood) {
  // A frame split over two writes is read whole; then the last writer goes.
  std::string marker = kMarker;
  writeAll(writer_.get(), marker.substr(0, 10));
  Fd late = openFd(path_, O_WRONLY);
  writer_.reset();
  writeAll(late.get(), marker.substr(10));
  late.reset();
  expectMarkerNext("split frame");
  EXPECT_EQ(fifo_->getMessage(), nullptr);
  EXPECT_EQ(console_.takeErr(), "<time> Error: Exception ocurred reading message: basic_ios::clear: iostream error\n");
  EXPECT_EQ(fifo_->getMessage(), notGoodResult<BinaryMessage>());
  EXPECT_EQ(fifo_->getMessage(), notGoodResult<BinaryMessage>());
  EXPECT_EQ(console_.takeErr(), "");
  // A writer who comes and goes before the reader opens the pipe afresh:
  // the pipe never loses its reader, so the frame is still there (and not
  // the one written after the reopen).
  writeAll(openFd(path_, O_WRONLY).get(), kMarker);
  ASSERT_TRUE(fifo_->stream.reopen());
  fifo_->stream.clear();
  writer_ = openFd(path_, O_WRONLY);
  writeAll(writer_.get(), frame(Header{13, 11, 13, 4712}));
  expectMarkerNext("written before the reopen");
}

TEST_F(FrameReaderTest, OneFlagForTheProcessDecidesTheUnhappyWarning) {
  // A second reader on a pipe of its own; both share the flag.
  std::string otherPath = makeFifo(dir_.file("other"));
  Fd otherWriter = openFd(otherPath, O_RDWR);
  BinaryInputFifo other(otherPath.c_str());
  other.open();
  console_.takeOut();
  writeAll(writer_.get(), kMarker);
  expectMarkerNext("a good read sets the flag");
  other.stream.setstate(std::ios::eofbit);
  EXPECT_EQ(other.getMessage(), notGoodResult<BinaryMessage>());
  EXPECT_EQ(other.getMessage(), notGoodResult<BinaryMessage>());
  EXPECT_EQ(console_.takeErr(), "<time> Warn: Fifo is unhappy - good=0 eof=1\n");
  fifo_->stream.exceptions(std::ios::goodbit);
  fifo_->stream.setstate(std::ios::failbit);
  EXPECT_EQ(fifo_->getMessage(), notGoodResult<BinaryMessage>());
  EXPECT_EQ(console_.takeErr(), "") << "the other reader cleared the flag";
  other.stream.clear();
  writeAll(otherWriter.get(), kMarker);
  std::unique_ptr<BinaryMessage> good(other.getMessage());
  ASSERT_NE(good, nullptr);
  EXPECT_EQ(fifo_->getMessage(), notGoodResult<BinaryMessage>());
  EXPECT_EQ(console_.takeErr(), "<time> Warn: Fifo is unhappy - good=0 eof=0\n") << "the other reader set it again";
  EXPECT_EQ(syslog_.take(), std::vector<SyslogLine>{});
}

TEST_F(FrameReaderTest, WakeUpEndsABlockedRead) {
  WakeUp wake;
  fifo_->stream.buffer().wakeOn({wake.fd()});
  wake.trigger();
  EXPECT_THROW(fifo_->getMessage(), PipeInterrupted);
}

}  // namespace
