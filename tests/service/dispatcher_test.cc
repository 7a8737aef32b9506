// The dispatcher thread against the real mailbox (/tmp/dravik.mailbox, in
// the private namespace): messages run one at a time in arrival order, the
// "Input FIFO is empty" line comes once per stretch without a writer, a new
// writer is heard after the last one left, and an exception out of Process()
// is reported without ending the thread.
//
// The test follows the dispatcher by events, never by time: the reader's
// reopen after a writer has gone shows up as a close of a read-only
// descriptor of the FIFO (inotify), and a processed message as its
// notification on the output pipe.
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "messaging/wake_up.h"
#include "service/service_api.h"
#include "tests/store/store_fixture.h"
#include "tests/support/console_capture.h"
#include "tests/support/hex.h"

namespace storetest {
namespace {

constexpr int32_t kThrowingSelector = 4711;

// A message whose Process() fails, as a faulty handler would.
class ThrowingCommand : public BinaryCommand {
 public:
  void Process() override { throw std::runtime_error("handler failed"); }
  int32_t getSelector() const override { return kThrowingSelector; }
};

const SelectorRegistration registerThrowing(kThrowingSelector, newMessage<ThrowingCommand>);

class DispatcherTest : public StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    commandFifo.create();
    ASSERT_TRUE(isFifo(kCommandFifoPath));
    inotify_ = UniqueFd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    ASSERT_TRUE(inotify_.valid()) << std::strerror(errno);
    ASSERT_GE(inotify_add_watch(inotify_.get(), kCommandFifoPath, IN_CLOSE_NOWRITE), 0) << std::strerror(errno);

    writer_ = openPipeWriter(kCommandFifoPath);
    // The test's own wake-up ends the dispatcher's blocked read at the end.
    commandFifo.stream.buffer().wakeOn({wake_.fd()});
    // The reader's reports on the console are not what these tests check.
    console_.reset(new ConsoleCapture);
    commandFifo.open();
    ASSERT_TRUE(commandFifo.stream.is_open());
    dispatcher_ = std::thread(RunDispatcher);
  }

  void TearDown() override {
    if (dispatcher_.joinable()) {
      dispatcherExit.store(true);
      wake_.trigger();
      dispatcher_.join();
      dispatcherExit.store(false);
    }
    console_.reset();
    commandFifo.close();
    // The next test opens the endpoint again, which arms the stream's
    // exceptions: a state left failed by this test's stop would raise there.
    commandFifo.stream.exceptions(std::ios::goodbit);
    commandFifo.stream.clear();
    commandFifo.stream.buffer().wakeOn({});
    StoreTest::TearDown();
  }

  // Waits until the dispatcher has replaced its read descriptor `count`
  // times in all, which it does after each stretch without a writer.
  void awaitReopens(int count) {
    while (reopens_ < count) {
      struct pollfd p = {inotify_.get(), POLLIN, 0};
      int ready = poll(&p, 1, 20000);
      if (ready < 0 && errno == EINTR) continue;
      ASSERT_GT(ready, 0) << "the dispatcher did not reopen the mailbox (" << reopens_ << " of " << count << ")";
      alignas(struct inotify_event) char buffer[4096];
      ssize_t n = read(inotify_.get(), buffer, sizeof buffer);
      for (ssize_t at = 0; at < n;) {
        const auto* event = reinterpret_cast<const struct inotify_event*>(buffer + at);
        if (event->mask & IN_CLOSE_NOWRITE) ++reopens_;
        at += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
      }
    }
  }

  // A writer comes, writes `bytes` (maybe none) and leaves.
  void visit(const std::string& bytes) {
    UniqueFd writer = openPipeWriter(kCommandFifoPath);
    if (!bytes.empty()) writePipe(writer.get(), bytes);
  }

  UniqueFd inotify_;
  int reopens_ = 0;
  UniqueFd writer_;
  WakeUp wake_;
  std::unique_ptr<ConsoleCapture> console_;
  std::thread dispatcher_;
};

TEST_F(DispatcherTest, MessagesRunOneAtATimeInArrivalOrder) {
  writePipe(writer_.get(), frameOf(headerFor(13001), int32Arg(5)) + frameOf(headerFor(13005), int32Arg(6)) +
                               frameOf(headerFor(13001), int32Arg(7)));

  SentFrame first = nextSentFrame();
  SentFrame second = nextSentFrame();
  SentFrame third = nextSentFrame();
  EXPECT_EQ(first.selector, 13001);
  EXPECT_EQ(toHex(first.args), "00 00 00 05");
  EXPECT_EQ(second.selector, 13005);
  EXPECT_EQ(toHex(second.args), "00 00 00 06");
  EXPECT_EQ(third.selector, 13001);
  EXPECT_EQ(toHex(third.args), "00 00 00 07");
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("API: starting dispatcher"),
                             info("ResetCalibrationNotification::toStream channel=5"),
                             info("RestoreFactoryFilterNotification::toStream channel=6"),
                             info("ResetCalibrationNotification::toStream channel=7"),
                         }));
}

TEST_F(DispatcherTest, EmptyInputIsReportedOncePerStretchWithoutWriter) {
  writer_.reset();  // the last writer leaves: not readable
  awaitReopens(1);
  visit("");  // and twice more
  awaitReopens(2);
  visit("");
  awaitReopens(3);
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("API: starting dispatcher"),
                             info("API: Input FIFO is empty"),
                         }));

  // A new writer is heard, and the stretch after its message is reported again.
  visit(frameOf(headerFor(13001), int32Arg(1)));
  EXPECT_EQ(toHex(nextSentFrame().args), "00 00 00 01");
  awaitReopens(4);
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("ResetCalibrationNotification::toStream channel=1"),
                             info("API: Input FIFO is empty"),
                         }));

  // A refused frame is no message: the stretch after it is not reported.
  visit(bytesFromHex("00 00 00 00"));
  awaitReopens(5);
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             error("getMessage::Received 0 sized message (empty message or message exceeding maxlen)"),
                         }));
}

TEST_F(DispatcherTest, ExceptionOutOfProcessIsLoggedAndTheNextMessageRuns) {
  writePipe(writer_.get(), frameOf(headerFor(kThrowingSelector)) + frameOf(headerFor(13005), int32Arg(3)));

  EXPECT_EQ(toHex(nextSentFrame().args), "00 00 00 03");
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("API: starting dispatcher"),
                             error("API: dispatcher caught exception: handler failed"),
                             info("RestoreFactoryFilterNotification::toStream channel=3"),
                         }));
}

TEST_F(DispatcherTest, ExitFlagEndsTheDispatcherBlockedOnASilentWriter) {
  writePipe(writer_.get(), frameOf(headerFor(13005), int32Arg(0)));
  EXPECT_EQ(nextSentFrame().selector, 13005);  // the dispatcher now waits on the silent writer

  dispatcherExit.store(true);
  wake_.trigger();
  dispatcher_.join();
  dispatcherExit.store(false);
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("API: starting dispatcher"),
                             info("RestoreFactoryFilterNotification::toStream channel=0"),
                             info("API: exiting dispatcher"),
                         }));
}

}  // namespace
}  // namespace storetest
