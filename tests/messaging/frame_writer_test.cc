// The frame writer: the bytes a send puts into the pipe, the drop report of
// a stream that is not good, the retried open, whole frames from two
// threads, and a blocked write that a stop ends.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <thread>

#include "messaging/binary_fifo.h"
#include "messaging/wake_up.h"
#include "tests/support/capture.h"
#include "tests/support/pipes.h"
#include "tests/support/wire.h"
#include "harness/temp_dir.h"

namespace {

class Payload : public BinaryNotification {
 public:
  explicit Payload(std::string args = "") : args_(std::move(args)) {
    selector = 13;
    sender = 5;
    recipient = 13;
    id = 7;
    timestamp = Timestamp{1234567890, 123456};
  }
  void toStream(bostream& out) const override {
    BinaryNotification::toStream(out);
    if (!args_.empty()) out.write(args_.data(), static_cast<int>(args_.size()));
  }

 private:
  std::string args_;
};

// A class whose toStream writes its arguments only, no header.
class Headerless : public Payload {
 public:
  using Payload::Payload;
  void toStream(bostream& out) const override { out.write("\x11\x22\x33\x44\x55\x66\x77\x88", 8); }
};

class FrameWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = dir_.file("comm");
    fifo_ = std::make_unique<BinaryOutputFifo>(path_.c_str());
  }
  Fd openReader() {
    makeFifo(path_);
    Fd reader = openFd(path_, O_RDONLY | O_NONBLOCK);
    fifo_->open();
    return reader;
  }

  TempDir dir_;
  std::string path_;
  std::unique_ptr<BinaryOutputFifo> fifo_;
  ConsoleCapture console_;
};

TEST_F(FrameWriterTest, FramesCarryTheirLengthAndArgsLength) {
  Fd reader = openReader();
  struct Row {
    const char* name;
    std::string args;
    int32_t argsLengthMember;
    std::string hex;
    bool header = true;
  } rows[] = {
      {"no arguments", "", 0,
       "00 00 00 2C 00 00 00 01 00 00 00 05 00 00 00 0D 00 00 00 07 00 00 00 00"
       "00 00 01 1F 71 FB 04 CB 00 00 00 0D 00 00 00 00 00 00 00 00 00 00 00 00"},
      {"10 argument bytes, argsLength patched", "0123456789", 99,
       "00 00 00 36 00 00 00 01 00 00 00 05 00 00 00 0D 00 00 00 07 00 00 00 00"
       "00 00 01 1F 71 FB 04 CB 00 00 00 0D 00 00 00 00 00 00 00 00 00 00 00 0A"
       "30 31 32 33 34 35 36 37 38 39"},
      {"no header written: no argsLength field to patch", "", 0, "00 00 00 08 11 22 33 44 55 66 77 88", false},
  };
  for (const Row& row : rows) {
    Payload payload(row.args);
    Headerless headerless;
    Payload& message = row.header ? payload : headerless;
    message.argsLength = row.argsLengthMember;
    fifo_->send(message);
    EXPECT_EQ(toHex(readAvailable(reader.get())), toHex(bytesFromHex(row.hex))) << row.name;
  }
  EXPECT_EQ(console_.takeErr() + console_.takeOut(), "");
}

// A class's constant selector, with the member left at 0.
class Constant : public Payload {
 public:
  Constant() { selector = 0; }
  int32_t getSelector() const override { return 13; }
};

TEST_F(FrameWriterTest, StreamNotGoodDropsTheMessageWithItsDetails) {
  Fd reader = openReader();
  fifo_->stream.setstate(std::ios::badbit);
  Constant message;
  message.flags = 0x1F;
  message.correlationId = 3;
  message.responseSelector = 2045;
  fifo_->send(message);
  EXPECT_EQ(console_.takeErr(), "<time> Error: Output fifo is not good - dropping message: 7\n");
  EXPECT_EQ(console_.takeOut(),
            "<time> Info: Message details:  Version: 1 Sender: 5 Recipient: 13 Id: 7 CorrelationId: 3 "
            "Timestamp: 1234567890123 Selector: 13 ResponseSelector: 2045 Flags: 0x1f\n");
  EXPECT_EQ(readAvailable(reader.get()), "");
}

TEST_F(FrameWriterTest, OpenIsRetriedByTheNextSend) {
  Payload lost;
  fifo_->send(lost);  // no pipe yet: reported, and the bytes go nowhere
  EXPECT_EQ(console_.takeErr(), "<time> Error: Attempt to open binary output FIFO failed: " + path_ + "\n");
  EXPECT_FALSE(fifo_->stream.is_open());
  makeFifo(path_);
  Fd reader = openFd(path_, O_RDONLY | O_NONBLOCK);
  fifo_->send(Payload("x"));
  EXPECT_EQ(readAvailable(reader.get()).size(), 49u);
  EXPECT_EQ(console_.takeErr(), "");
}

TEST_F(FrameWriterTest, SendersOnTwoThreadsNeverInterleaveFrames) {
  Fd reader = openReader();
  // Frames larger than the pipe go in several writes each.
  constexpr int kFrames = 20;
  constexpr std::size_t kArgs = 100000;
  auto sendMany = [this](char fill) {
    for (int i = 0; i < kFrames; ++i) fifo_->send(Payload(std::string(kArgs, fill)));
  };
  std::thread a(sendMany, 'a');
  std::thread b(sendMany, 'b');
  int seen[2] = {0, 0};
  for (int i = 0; i < 2 * kFrames; ++i) {
    std::string f = readExactly(reader.get(), 48 + kArgs);
    ASSERT_EQ(f.substr(0, 4), be32(44 + kArgs));
    char fill = f[48];
    ASSERT_TRUE(fill == 'a' || fill == 'b');
    ASSERT_EQ(f.substr(48), std::string(kArgs, fill)) << "frame " << i << " is mixed";
    ++seen[fill - 'a'];
  }
  a.join();
  b.join();
  EXPECT_EQ(seen[0], kFrames);
  EXPECT_EQ(seen[1], kFrames);
}

TEST_F(FrameWriterTest, WakeUpEndsAWriteIntoAFullPipe) {
  Fd reader = openReader();
  WakeUp wake;
  fifo_->stream.buffer().wakeOn({wake.fd()});
  // Triggered first: the send fills the pipe, then gives up at its first wait.
  wake.trigger();
  fifo_->send(Payload(std::string(200000, 'z')));
  EXPECT_TRUE(fifo_->stream.bad());
  EXPECT_TRUE(fifo_->stream.buffer().interrupted());
}

}  // namespace
