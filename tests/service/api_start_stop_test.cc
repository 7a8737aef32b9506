// The service API's one start and one stop, on the real pipe paths in the
// private namespace. StartApi and StopApi run once per process (the exit
// flag is never cleared), so this binary holds this one test alone.
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "service/service_api.h"
#include "tests/store/store_fixture.h"
#include "tests/support/console_capture.h"
#include "tests/support/hex.h"
#include "tests/support/sandbox.h"

namespace storetest {
namespace {

bool logged(const SyslogCapture& syslog, const std::string& text) {
  std::vector<SyslogLine> lines = syslog.lines();
  return std::find(lines.begin(), lines.end(), info(text)) != lines.end();
}

TEST(ServiceApiTest, StartWaitsForAWriterAndStopEndsTheDispatcherInOrder) {
  if (!sandbox::active()) GTEST_SKIP() << "no private mount namespace: " << sandbox::unavailableReason();
  for (const char* dir : {kCalDirectory, kTbeDirectory}) removeFilesIn(dir);
  // Pipe files left from an earlier run are used as they are.
  ASSERT_EQ(mkfifo(kCommandFifoPath, 0666), 0) << std::strerror(errno);
  ASSERT_EQ(mkfifo(kNotificationFifoPath, 0666), 0) << std::strerror(errno);
  UniqueFd notifications = openPipeReader(kNotificationFifoPath);
  UniqueFd inotify(inotify_init1(IN_CLOEXEC));
  ASSERT_TRUE(inotify.valid());
  ASSERT_GE(inotify_add_watch(inotify.get(), kCommandFifoPath, IN_OPEN), 0) << std::strerror(errno);

  SyslogCapture syslog;
  ConsoleCapture console;
  UniqueFd writer;
  bool startedBeforeWriter = true;
  std::thread peer([&] {
    // The service's reader opens the mailbox first; until a writer comes,
    // StartApi has not got as far as the dispatcher.
    struct pollfd p = {inotify.get(), POLLIN, 0};
    if (poll(&p, 1, 20000) != 1) return;
    startedBeforeWriter = logged(syslog, "API: creating dispatcher thread");
    writer = UniqueFd(open(kCommandFifoPath, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
  });
  StartApi();
  peer.join();
  ASSERT_TRUE(writer.valid());
  EXPECT_FALSE(startedBeforeWriter);
  EXPECT_EQ(BinaryMessage::defaultSender, 13);
  EXPECT_EQ(BinaryMessage::notificationOutput, &notificationFifo);

  // A command runs and its notification leaves on /tmp/comm.mailbox.
  writePipe(writer.get(), frameOf(headerFor(13005), int32Arg(1)));
  std::vector<SentFrame> frames = decodeFrames(readPipe(notifications.get(), 4 + 44 + 4));
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].sender, 13);
  EXPECT_EQ(frames[0].recipient, 2);
  EXPECT_EQ(frames[0].selector, 13005);
  EXPECT_EQ(toHex(frames[0].args), "00 00 00 01");

  // The writer stays, silent: the dispatcher waits in its read.
  StopApi();

  EXPECT_EQ(syslog.take(), (std::vector<SyslogLine>{
                               info("API: creating command (input) FIFO"),
                               info("API: creating notification (output) FIFO"),
                               info("API: creating dispatcher thread"),
                               info("API: starting dispatcher"),
                               info("RestoreFactoryFilterNotification::toStream channel=1"),
                               info("API: Signaling thread exit"),
                               info("API: Waiting for thread termination"),
                               info("API: exiting dispatcher"),
                               info("API: Thread has exited"),
                           }));
  EXPECT_FALSE(dispatcherThread.joinable());
  EXPECT_TRUE(dispatcherExit.load());
  EXPECT_FALSE(commandFifo.stream.is_open());
  EXPECT_FALSE(notificationFifo.stream.is_open());
  EXPECT_TRUE(isFifo(kCommandFifoPath));
  EXPECT_TRUE(isFifo(kNotificationFifoPath));
}

}  // namespace
}  // namespace storetest
