// The frame writer over a real named pipe: exact frames, whole frames under
// concurrent senders, the drop and open-failure reports, and how a blocked
// write ends.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "messaging/binary_fifo.h"
#include "messaging/wake_up.h"
#include "tests/messaging/test_messages.h"
#include "tests/support/console_capture.h"
#include "tests/support/hex.h"
#include "tests/support/pipe_io.h"
#include "tests/support/temp_dir.h"

namespace {

Timestamp exampleTime() {
  Timestamp t;
  t.seconds = 1234567890;
  t.microseconds = 123000;
  return t;
}

// The header values of the documented example frame.
template <class M>
void setExampleHeader(M& message) {
  message.sender = 5;
  message.recipient = 13;
  message.id = 7;
}

class BinaryOutputFifoTest : public TempDirTest {
 protected:
  void SetUp() override {
    setClock(exampleTime);
    path_ = makeFifo(dir_.file("notifications"));
    reader_ = openPipeReader(path_);
    fifo_ = std::make_unique<BinaryOutputFifo>(path_.c_str());
  }
  void TearDown() override { setClock(nullptr); }

  std::string sentBytes() { return readAvailable(reader_.get()); }

  ConsoleCapture console_;
  std::string path_;
  UniqueFd reader_;
  std::unique_ptr<BinaryOutputFifo> fifo_;
};

TEST_F(BinaryOutputFifoTest, MessageWithoutArgumentsIsTheFortyEightByteExample) {
  EmptyCommand message;
  setExampleHeader(message);
  fifo_->send(message);
  EXPECT_EQ(toHex(sentBytes()),
            canonicalHex("00 00 00 2C, 00 00 00 01, 00 00 00 05, 00 00 00 0D, 00 00 00 07, 00 00 00 00,"
                         " 00 00 01 1F 71 FB 04 CB, 00 00 00 0D, 00 00 00 00, 00 00 00 00, 00 00 00 00"));
  EXPECT_EQ(console_.out(), "");
  EXPECT_EQ(console_.err(), "");
}

TEST_F(BinaryOutputFifoTest, TenArgumentBytesGiveLengthFiftyFourAndArgsLengthTen) {
  PairCommand message;
  setExampleHeader(message);
  message.argsLength = 999;  // the writer puts the true value on the wire
  message.number = -2;
  message.name = "abcd";
  fifo_->send(message);
  EXPECT_EQ(toHex(sentBytes()),
            canonicalHex("00 00 00 36, 00 00 00 01, 00 00 00 05, 00 00 00 0D, 00 00 00 07, 00 00 00 00,"
                         " 00 00 01 1F 71 FB 04 CB, 00 00 03 84, 00 00 00 00, 00 00 00 00, 00 00 00 0A,"
                         " FF FF FF FE, 00 04 61 62 63 64"));
  EXPECT_EQ(message.argsLength, 999);
}

TEST_F(BinaryOutputFifoTest, ConsecutiveSendsFollowEachOther) {
  EmptyCommand first;
  setExampleHeader(first);
  PairCommand second;
  setExampleHeader(second);
  second.id = 8;
  fifo_->send(first);
  fifo_->send(second);
  std::string bytes = sentBytes();
  ASSERT_EQ(bytes.size(), 48u + 4u + 44u + 6u);
  EXPECT_EQ(toHex(bytes.substr(48, 4)), "00 00 00 32");
  EXPECT_EQ(toHex(bytes.substr(48 + 16, 4)), "00 00 00 08");
}

TEST_F(BinaryOutputFifoTest, ConcurrentSendersNeverInterleaveFrames) {
  constexpr int kPerThread = 2000;
  // Several sizes above the pipe's atomic write size (4096 bytes).
  const std::size_t sizes[] = {0, 1, 100, 4000, 4097, 9000, 30000};
  const std::size_t kinds = sizeof sizes / sizeof sizes[0];
  auto fill = [](int sender, int sequence) { return static_cast<char>(sequence * 2 + sender); };

  // A damaged frame stops the check; the wake-up then ends the senders'
  // writes, so that a failure cannot leave them blocked on a full pipe.
  WakeUp giveUp;
  fifo_->open();
  fifo_->stream.buffer().wakeOn({giveUp.fd()});
  std::atomic<int> framesChecked{0};
  std::thread reader([&] {
    struct GiveUpUnlessDone {
      ~GiveUpUnlessDone() {
        if (checked.load() != 2 * kPerThread) wake.trigger();
      }
      WakeUp& wake;
      std::atomic<int>& checked;
    } guard{giveUp, framesChecked};
    int next[3] = {0, 0, 0};
    for (int n = 0; n < 2 * kPerThread; ++n) {
      std::string prefix = readPipe(reader_.get(), 4);
      if (prefix.size() != 4) return;
      uint32_t length = static_cast<uint32_t>(static_cast<unsigned char>(prefix[0])) << 24 |
                        static_cast<uint32_t>(static_cast<unsigned char>(prefix[1])) << 16 |
                        static_cast<uint32_t>(static_cast<unsigned char>(prefix[2])) << 8 |
                        static_cast<uint32_t>(static_cast<unsigned char>(prefix[3]));
      std::string payload = readPipe(reader_.get(), length);
      if (payload.size() != length || length < 48) {
        ADD_FAILURE() << "frame " << n << " has length " << length;
        return;
      }
      int sender = static_cast<unsigned char>(payload[7]);
      int sequence = static_cast<unsigned char>(payload[18]) << 8 | static_cast<unsigned char>(payload[19]);
      if ((sender != 1 && sender != 2) || sequence != next[sender]) {
        ADD_FAILURE() << "frame " << n << " from sender " << sender << " has sequence " << sequence;
        return;
      }
      ++next[sender];
      std::size_t blockSize = sizes[static_cast<std::size_t>(sequence) % kinds];
      if (length != 48 + blockSize || payload.substr(44, 4) != be32(static_cast<uint32_t>(blockSize)) ||
          payload.find_first_not_of(fill(sender, sequence), 48) != std::string::npos) {
        ADD_FAILURE() << "frame " << n << " (sender " << sender << ", sequence " << sequence << ") is damaged";
        return;
      }
      ++framesChecked;
    }
  });

  auto sendAll = [&](int sender) {
    for (int sequence = 0; sequence < kPerThread; ++sequence) {
      BlockNotification message;
      message.sender = sender;
      message.correlationId = sequence;
      std::string block(sizes[static_cast<std::size_t>(sequence) % kinds], fill(sender, sequence));
      message.block.assign(block.data(), static_cast<uint32_t>(block.size()));
      fifo_->send(message);
    }
  };
  std::thread first(sendAll, 1);
  std::thread second(sendAll, 2);
  first.join();
  second.join();
  reader.join();
  EXPECT_EQ(framesChecked.load(), 2 * kPerThread);
  EXPECT_EQ(pendingBytes(reader_.get()), 0u);
  EXPECT_EQ(console_.err(), "");
}

TEST_F(BinaryOutputFifoTest, BadStreamDropsMessageWithTwoReports) {
  fifo_->open();
  fifo_->stream.setstate(std::ios::badbit);
  EmptyCommand message;
  setExampleHeader(message);
  fifo_->send(message);
  EXPECT_EQ(maskLogTime(console_.takeErr()), "<time> Error: Output fifo is not good - dropping message: 7\n");
  EXPECT_EQ(maskLogTime(console_.takeOut()),
            "<time> Info: Message details:  Version: 1 Sender: 5 Recipient: 13 Id: 7 CorrelationId: 0"
            " Timestamp: 1234567890123 Selector: 13 ResponseSelector: 0 Flags: 0x0\n");
  EXPECT_EQ(pendingBytes(reader_.get()), 0u);

  // Nothing clears the state: every later send is dropped too.
  PairCommand another;
  setExampleHeader(another);
  another.id = 8;
  another.correlationId = 57;
  another.responseSelector = 2045;
  another.flags = 0x1F;
  fifo_->send(another);
  EXPECT_EQ(maskLogTime(console_.takeErr()), "<time> Error: Output fifo is not good - dropping message: 8\n");
  EXPECT_EQ(maskLogTime(console_.takeOut()),
            "<time> Info: Message details:  Version: 1 Sender: 5 Recipient: 13 Id: 8 CorrelationId: 57"
            " Timestamp: 1234567890123 Selector: 900 ResponseSelector: 2045 Flags: 0x1f\n");
  EXPECT_EQ(pendingBytes(reader_.get()), 0u);
}

TEST_F(BinaryOutputFifoTest, OpenOfMissingPipeReportsAndLeavesStreamGood) {
  std::string missing = dir_.file("missing");
  BinaryOutputFifo fifo(missing.c_str());
  fifo.open();
  EXPECT_EQ(maskLogTime(console_.err()), "<time> Error: Attempt to open binary output FIFO failed: " + missing + "\n");
  EXPECT_EQ(console_.out(), "");
  EXPECT_TRUE(fifo.stream.good());
  EXPECT_FALSE(fifo.stream.is_open());
}

TEST_F(BinaryOutputFifoTest, SendRetriesOpenUntilPipeExists) {
  std::string later = dir_.file("later");
  BinaryOutputFifo fifo(later.c_str());
  EmptyCommand message;
  setExampleHeader(message);
  const std::string failed = "<time> Error: Attempt to open binary output FIFO failed: " + later + "\n";

  // The frame goes into the closed stream and is lost without a drop report.
  fifo.send(message);
  EXPECT_EQ(maskLogTime(console_.takeErr()), failed);
  fifo.send(message);
  EXPECT_EQ(maskLogTime(console_.takeErr()), failed);

  makeFifo(later);
  UniqueFd reader = openPipeReader(later);
  fifo.send(message);
  EXPECT_EQ(console_.err(), "");
  EXPECT_EQ(console_.out(), "");
  EXPECT_EQ(readAvailable(reader.get()).size(), 48u);
}

TEST_F(BinaryOutputFifoTest, WakeUpEndsSendBlockedOnFullPipe) {
  WakeUp wake;
  fifo_->open();
  fifo_->stream.buffer().wakeOn({wake.fd()});
  BlockNotification big;
  setExampleHeader(big);
  std::string block(300000, 'x');  // far more than the pipe holds
  big.block.assign(block.data(), static_cast<uint32_t>(block.size()));
  std::thread sender([&] { fifo_->send(big); });
  wake.trigger();
  sender.join();
  EXPECT_TRUE(fifo_->stream.bad());
  EXPECT_TRUE(fifo_->stream.buffer().interrupted());
  EXPECT_EQ(console_.err(), "");

  EmptyCommand next;
  setExampleHeader(next);
  fifo_->send(next);
  EXPECT_EQ(maskLogTime(console_.takeErr()), "<time> Error: Output fifo is not good - dropping message: 7\n");
}

}  // namespace
