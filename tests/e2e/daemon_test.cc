// What needs the real process: exit statuses and getopt's text, the start
// and stop lines, a stop in each phase of the main thread, the first-writer
// wait, writers that come and go, a mailbox that is removed or replaced,
// idle CPU, the timed schedule, and what the daemon refuses to do for an
// unprivileged peer.
#include <fcntl.h>
#include <poll.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "tests/e2e/daemon_fixture.h"
#include "tests/support/store_files.h"
#include "tests/support/wire.h"
#include "harness/sandbox.h"

namespace {

const std::string kOpening = "<time> Info: Opening binary input FIFO: /tmp/dravik.mailbox\n";
const std::string kEndOfFile = "<time> Error: Exception ocurred reading message: basic_ios::clear: iostream error\n";
const SyslogLine kBanner = info("Running Halvora Parameter Storage Service (dravik)");
const SyslogLine kEmpty = info("API: Input FIFO is empty");
SyslogLine calibrationResetLine(int channel) {
  return info("ResetCalibrationNotification::toStream channel=" + std::to_string(channel));
}

std::vector<SyslogLine> startLines(const std::string& delay, bool dispatcher = true) {
  std::vector<SyslogLine> lines = {kBanner, info("API: starting dispatcher with sleep=" + delay),
                                   info("API: creating command (input) FIFO"),
                                   info("API: creating notification (output) FIFO")};
  if (dispatcher) {
    lines.push_back(info("API: creating dispatcher thread"));
    lines.push_back(info("API: starting dispatcher"));
  }
  return lines;
}

enum class Runs { main, dispatcher, noDispatcher };

// The stop's lines; on the dispatcher thread itself there is no thread to
// wait for, and it logs no exit of its own.
std::vector<SyslogLine> stopLines(int signal, Runs runs = Runs::main) {
  std::vector<SyslogLine> lines = {info("Dravik API")};
  if (signal != 0) lines.push_back(err("Received signal: " + std::to_string(signal) + " - stopping"));
  if (runs == Runs::noDispatcher) return lines;
  for (const char* text : {"API: Signaling thread exit", "API: Waiting for thread termination",
                           "API: exiting dispatcher", "API: Thread has exited"}) {
    if (runs == Runs::dispatcher && std::string(text) == "API: exiting dispatcher") continue;
    lines.push_back(info(text));
  }
  return lines;
}

std::vector<SyslogLine> concat(std::vector<SyslogLine> a, const std::vector<SyslogLine>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

using DaemonTest = DaemonFixture;

TEST_F(DaemonTest, BadOptionsEndWithStatus127AfterTheBanner) {
  const std::pair<std::vector<std::string>, std::string> rows[] = {
      {{"-x"}, "dravik: invalid option -- 'x'\n"},
      {{"-d"}, ""},
      {{"-q", "-s"}, "dravik: option requires an argument -- 's'\n"},
  };
  for (const auto& row : rows) {
    ChildProcess child;
    std::string why;
    ASSERT_TRUE(child.start(dravikBinary(), "dravik", row.first, {}, &why)) << why;
    std::optional<int> status = child.wait(kGuard);
    ASSERT_TRUE(status);
    EXPECT_EQ(describeWaitStatus(*status), "exited with status 127") << row.second;
    EXPECT_EQ(child.err(), row.second);
    syslog_.flush(kGuard);
    EXPECT_EQ(syslog_.lines(child.pid()), std::vector<SyslogLine>{kBanner}) << row.second;
    EXPECT_FALSE(fileExists(kCommandFifoPath));
  }
}

// Each stop signal, sent to the process or to one thread alone: the thread
// it is pending on takes it.
TEST_F(DaemonTest, EachStopSignalEndsWithStatus1AndTheStopLinesOnTheThreadItReaches) {
  enum class To { process, mainThread, dispatcherThread };
  const struct Row {
    int signal;  // 0: SIGTERM with -q
    std::vector<std::string> args;
    To to;
  } rows[] = {
      {SIGTERM, {"-s", "1000"}, To::process},       {SIGINT, {"-s", "0x3E8"}, To::process},
      {SIGHUP, {"-s", "1000"}, To::process},        {SIGQUIT, {"-s", "1000"}, To::process},
      {0, {"-q", "-s", "1000"}, To::process},       {SIGTERM, {"-s", "1000"}, To::mainThread},
      {SIGTERM, {"-s", "1000"}, To::dispatcherThread}, {SIGINT, {"-q", "-s", "1000"}, To::dispatcherThread},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE("signal " + std::to_string(row.signal) + " to " + std::to_string(static_cast<int>(row.to)));
    ASSERT_NO_FATAL_FAILURE(start(row.args));
    ASSERT_NO_FATAL_FAILURE(connect());
    pid_t tid = row.to == To::mainThread ? daemon_->pid() : row.to == To::dispatcherThread ? dispatcherTid() : 0;
    ASSERT_EQ(tid == 0, row.to == To::process);
    int signal = row.signal == 0 ? SIGTERM : row.signal;
    EXPECT_EQ(stop(signal, tid), "exited with status 1");
    bool quiet = row.signal == 0 || row.args[0] == "-q";
    EXPECT_EQ(log(), concat(startLines("1000"), stopLines(quiet ? 0 : signal,
                                                          row.to == To::dispatcherThread ? Runs::dispatcher : Runs::main)));
    EXPECT_EQ(maskLogTime(daemon_->out()), kOpening);
    EXPECT_EQ(daemon_->err(), "");
  }
  ASSERT_NO_FATAL_FAILURE(start({"-s", "0xffffffff"}));
  EXPECT_EQ(stop(SIGTERM), "exited with status 1");
  EXPECT_EQ(log(), concat(startLines("-1", false), stopLines(SIGTERM, Runs::noDispatcher)));
}

// Under a flood of requests no message starts once the exit is signalled,
// and the dispatcher's line falls between the two that follow.
TEST_F(DaemonTest, StopUnderAFloodRunsNoMessageAfterTheExitIsSignalled) {
  ASSERT_NO_FATAL_FAILURE(start({"-s", "1000"}));
  ASSERT_NO_FATAL_FAILURE(connect());
  std::atomic<bool> done{false};
  std::thread drain([&] {
    char buffer[65536];
    while (!done.load()) {
      struct pollfd p = {comm_.get(), POLLIN, 0};
      if (poll(&p, 1, 10) > 0 && read(comm_.get(), buffer, sizeof buffer) <= 0) std::this_thread::yield();
    }
  });
  std::thread flood([&] {
    std::string burst;
    for (int i = 0; i < 100; ++i) burst += frame(Header{13001, 2, 13, i + 1}, be32(7));
    std::string error;
    while (!done.load() && mailbox_.write(burst, peer::Deadline::after(1), &error)) {
    }
  });
  EXPECT_TRUE(waitForLine(calibrationResetLine(7), 500));
  EXPECT_EQ(stop(SIGTERM), "exited with status 1");
  done = true;
  flood.join();
  drain.join();
  std::vector<SyslogLine> lines = log();
  auto signalling = std::find(lines.begin(), lines.end(), info("API: Signaling thread exit"));
  ASSERT_NE(signalling, lines.end());
  EXPECT_EQ(std::vector<SyslogLine>(signalling, lines.end()),
            (std::vector<SyslogLine>{info("API: Signaling thread exit"), info("API: Waiting for thread termination"),
                                     info("API: exiting dispatcher"), info("API: Thread has exited")}));
}

TEST_F(DaemonTest, FirstWriterEndsTheWaitEvenIfItSendsNothing) {
  ASSERT_NO_FATAL_FAILURE(start({"-s", "1000"}));
  Fd(openFd(kCommandFifoPath, O_WRONLY)).reset();
  ASSERT_TRUE(waitForLine(kEmpty));
  EXPECT_EQ(log(), concat(startLines("1000"), {kEmpty}));
  EXPECT_TRUE(daemon_->waitForErr(kEndOfFile.substr(6), kGuard));
  // The next writer is served.
  ASSERT_NO_FATAL_FAILURE(connect());
  EXPECT_EQ(exchange(frame(Header{13001, 2, 13, 1}, be32(3))).frames.size(), 1u);
}

// Pipes left from an earlier run are used as they are, links to pipes too:
// a silent first writer through the link ends the wait as well.
TEST_F(DaemonTest, PipesReachedThroughLinksAreUsed) {
  makeFifo("/tmp/real.mailbox");
  makeFifo("/tmp/real.comm");
  ASSERT_EQ(symlink("/tmp/real.mailbox", kCommandFifoPath), 0);
  ASSERT_EQ(symlink("/tmp/real.comm", kNotificationFifoPath), 0);
  ASSERT_NO_FATAL_FAILURE(start({"-s", "1000"}, {}, "/tmp/real.mailbox"));
  ASSERT_NO_FATAL_FAILURE(connect());
  EXPECT_EQ(log(), startLines("1000"));
  Reply reply = exchange(frame(Header{13001, 2, 13, 1}, be32(3)));
  ASSERT_EQ(reply.frames.size(), 1u);
  EXPECT_EQ(matchFrame(reply.frames[0], framePattern(13001, 2, 0, be32(3))), "");
  EXPECT_EQ(stop(SIGTERM), "exited with status 1");
  EXPECT_EQ(daemon_->err(), "");
}

TEST_F(DaemonTest, WritersComeAndGoWithOneEmptyLineEach) {
  ASSERT_NO_FATAL_FAILURE(start({"-s", "1000"}));
  ASSERT_NO_FATAL_FAILURE(connect());
  for (int round = 1; round <= 2; ++round) {
    EXPECT_EQ(exchange(frame(Header{13001, 2, 13, round}, be32(3))).frames.size(), 1u);
    mailbox_.close();
    ASSERT_TRUE(waitForLine(kEmpty, static_cast<std::size_t>(round)));
    // Idle without a writer, then with a silent one: no CPU spent.
    double before = daemon_->cpuSeconds();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    ASSERT_NO_FATAL_FAILURE(openMailbox());
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_LT(daemon_->cpuSeconds() - before, 0.05);
  }
  // The silent writer leaves: end of file again, but no message ran since
  // the last line, so no new line.
  mailbox_.close();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  ASSERT_NO_FATAL_FAILURE(connect());
  EXPECT_EQ(exchange(frame(Header{13001, 2, 13, 3}, be32(3))).frames.size(), 1u);
  std::vector<SyslogLine> lines = log();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), kEmpty), 2);
}

TEST_F(DaemonTest, MailboxRemovedOrReplacedWhileIdleIsFollowed) {
  ASSERT_NO_FATAL_FAILURE(start({"-s", "1000"}));
  ASSERT_NO_FATAL_FAILURE(connect());
  mailbox_.close();
  ASSERT_TRUE(waitForLine(kEmpty));
  chmod(kCommandFifoPath, 0666);
  ASSERT_EQ(unlink(kCommandFifoPath), 0);
  for (int i = 0; i < 1000 && !fileExists(kCommandFifoPath); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  struct stat info;
  ASSERT_EQ(lstat(kCommandFifoPath, &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0666u);
  ASSERT_NO_FATAL_FAILURE(connect());
  EXPECT_EQ(exchange(frame(Header{13001, 2, 13, 1}, be32(3))).frames.size(), 1u);
  mailbox_.close();
  ASSERT_TRUE(waitForLine(kEmpty, 2));
  makeFifo("/tmp/replacement");
  ASSERT_EQ(rename("/tmp/replacement", kCommandFifoPath), 0);
  std::string error;
  for (int i = 0; i < 1000 && !mailbox_.open(kCommandFifoPath, &error); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  EXPECT_EQ(exchange(frame(Header{13001, 2, 13, 2}, be32(3))).frames.size(), 1u);
}

// While /tmp is read-only the mailbox cannot be made again: "Failed to
// create FIFO" once per stretch and again in the next one, and a stop sent
// to the process or to the dispatcher ends the wait for a mailbox. A
// read-only file system over /tmp hides the daemon's directory; the mailbox
// is removed below it, through a descriptor kept from before.
TEST_F(DaemonTest, MailboxThatCannotBeMadeAgainIsReportedOncePerStretchAndAStopEndsTheWait) {
  struct Unmount {
    ~Unmount() { umount2("/tmp", MNT_DETACH); }
  } unmountAtTheEnd;
  for (bool toDispatcher : {false, true}) {
    SCOPED_TRACE(toDispatcher ? "stop sent to the dispatcher" : "stop sent to the process");
    ASSERT_NO_FATAL_FAILURE(start({"-s", "1000"}));
    ASSERT_NO_FATAL_FAILURE(connect());
    const pid_t dispatcher = dispatcherTid();
    Fd lower = openFd("/tmp", O_RDONLY | O_DIRECTORY);
    std::string err;
    if (!toDispatcher) {
      // The mailbox goes while the daemon waits for a writer.
      mailbox_.close();
      ASSERT_TRUE(waitForLine(kEmpty));
      ASSERT_EQ(mount("ro", "/tmp", "tmpfs", MS_RDONLY, nullptr), 0) << std::strerror(errno);
      ASSERT_EQ(unlinkat(lower.get(), "dravik.mailbox", 0), 0);
      ASSERT_TRUE(daemon_->waitForErr("Failed to create FIFO\n", kGuard));
      // Another try within the stretch (the name changed below wakes the
      // daemon, which finds it still missing): nothing more said.
      long sleeps = waitUntilPolling(daemon_->pid(), dispatcher);
      ASSERT_EQ(mkfifoat(lower.get(), "dravik.mailbox", 0666), 0);
      ASSERT_GE(waitUntilPolling(daemon_->pid(), dispatcher, sleeps), 0);
      ASSERT_EQ(umount("/tmp"), 0);
      // Back: the pipe made below is found at the next change of the name.
      ASSERT_EQ(mkfifoat(lower.get(), "next", 0666), 0);
      ASSERT_EQ(renameat(lower.get(), "next", lower.get(), "dravik.mailbox"), 0);
      std::string error;
      for (int i = 0; i < 1000 && !mailbox_.open(kCommandFifoPath, &error); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
      EXPECT_EQ(exchange(frame(Header{13001, 2, 13, 1}, be32(3))).frames.size(), 1u);
      err = kEndOfFile + "Failed to create FIFO\n";
    }
    // The mailbox goes while a writer holds it; when the writer leaves it
    // cannot be opened again, and the stop comes while the daemon waits.
    ASSERT_EQ(mount("ro", "/tmp", "tmpfs", MS_RDONLY, nullptr), 0) << std::strerror(errno);
    ASSERT_EQ(unlinkat(lower.get(), "dravik.mailbox", 0), 0);
    mailbox_.close();
    ASSERT_TRUE(waitForLine(kEmpty, toDispatcher ? 1 : 2));
    ASSERT_GE(waitUntilPolling(daemon_->pid(), dispatcher), 0);
    EXPECT_EQ(stop(SIGTERM, toDispatcher ? dispatcher : 0), "exited with status 1");
    std::vector<SyslogLine> lines = log();
    const std::vector<SyslogLine> stopping = stopLines(SIGTERM, toDispatcher ? Runs::dispatcher : Runs::main);
    ASSERT_GE(lines.size(), stopping.size());
    EXPECT_EQ(std::vector<SyslogLine>(lines.end() - static_cast<std::ptrdiff_t>(stopping.size()), lines.end()),
              stopping);
    EXPECT_EQ(maskLogTime(daemon_->err()), err + kEndOfFile + "Failed to create FIFO\n");
    ASSERT_EQ(umount("/tmp"), 0);
  }
}

// Fills the notification pipe with a frame of junk, leaving `room` bytes.
Fd fillNotificationPipe(std::size_t room) {
  makeFifo(kNotificationFifoPath);
  Fd holder = openFd(kNotificationFifoPath, O_RDWR | O_NONBLOCK);
  int size = fcntl(holder.get(), F_GETPIPE_SZ);
  writeAll(holder.get(), std::string(static_cast<std::size_t>(size) - room, 'j'));
  return holder;
}

TEST_F(DaemonTest, StopEndsASendIntoAFullPipeOnEitherThread) {
  // The dispatcher blocked: a reset cannot be announced. The stop goes to the
  // main thread alone (the send ends because a stop has begun) or to the
  // dispatcher alone (the send ends on its signal).
  for (bool toDispatcher : {false, true}) {
    SCOPED_TRACE(toDispatcher ? "stop sent to the dispatcher" : "stop sent to the main thread");
    ASSERT_TRUE(resetStoreAndPipes());
    Fd full = fillNotificationPipe(10);
    ASSERT_NO_FATAL_FAILURE(start({"-s", "1000"}));
    std::string error;
    ASSERT_NO_FATAL_FAILURE(openMailbox());
    ASSERT_TRUE(mailbox_.write(frame(Header{13005, 2, 13, 1}, be32(1)), peer::Deadline::after(5), &error));
    ASSERT_TRUE(waitForLine(info("RestoreFactoryFilterNotification::toStream channel=1")));
    const pid_t dispatcher = dispatcherTid();
    ASSERT_GE(waitUntilPolling(daemon_->pid(), dispatcher), 0);
    EXPECT_EQ(stop(SIGTERM, toDispatcher ? dispatcher : daemon_->pid()), "exited with status 1");
    const std::vector<SyslogLine> lines = log(), stopping = stopLines(SIGTERM, toDispatcher ? Runs::dispatcher : Runs::main);
    ASSERT_GE(lines.size(), stopping.size());
    EXPECT_EQ(std::vector<SyslogLine>(lines.end() - static_cast<std::ptrdiff_t>(stopping.size()), lines.end()), stopping);
  }

  // The main thread blocked in the start-up restore: nothing after it runs.
  writeFile(calibrationPath(0), "zero");
  writeFile(calibrationPath(1), "one");
  ASSERT_NO_FATAL_FAILURE(start({"-s", "0"}));
  ASSERT_NO_FATAL_FAILURE(openMailbox());
  ASSERT_TRUE(waitForLine(info("toStream channel=0 length=4")));
  ASSERT_TRUE(waitForLine(info("API: starting dispatcher")));
  EXPECT_EQ(stop(SIGTERM), "exited with status 1");
  std::vector<SyslogLine> lines = log();
  EXPECT_EQ(std::vector<SyslogLine>(lines.end() - 6, lines.end()), stopLines(SIGTERM));
  EXPECT_EQ(std::count(lines.begin(), lines.end(), info("Restoring Zek Calibration for ch=1")), 0);
}

class AcceleratedTest : public DaemonFixture {
 protected:
  void SetUp() override {
    DaemonFixture::SetUp();
    std::string why;
    clock_ = acceleratedClock(&why);
    if (clock_.empty()) GTEST_SKIP() << why;
  }
  std::vector<std::string> clock_;
};

TEST_F(AcceleratedTest, StopBetweenFilterRestoresRunsNoneOfTheRest) {
  for (int ch = 0; ch < 4; ++ch) writeFile(filterPath(ch), "<f/>");
  Fd full = fillNotificationPipe(155);  // room for the first filter's 105-byte frame only
  ChildOptions options;
  options.environment = clock_;
  ASSERT_NO_FATAL_FAILURE(start({"-s", "0"}, options));
  ASSERT_NO_FATAL_FAILURE(openMailbox());
  ASSERT_TRUE(waitForLine(info("RestoreZekAnalyticsFilter:: for ch=1")));
  EXPECT_EQ(stop(SIGTERM), "exited with status 1");
  std::vector<SyslogLine> lines = log();
  EXPECT_EQ(std::vector<SyslogLine>(lines.end() - 7, lines.end()),
            concat({info("RestoreZekAnalyticsFilter:: for ch=1")}, stopLines(SIGTERM)));
}

TEST_F(AcceleratedTest, ScheduleKeepsItsWaits) {
  // Frame times come from the daemon's accelerated clock: a second of its
  // time is a millisecond here, so the waits show in its own timestamps.
  writeFile(calibrationPath(0), "zero");
  ChildOptions options;
  options.environment = clock_;
  ASSERT_NO_FATAL_FAILURE(start({"-s", "7"}, options));
  ASSERT_NO_FATAL_FAILURE(connect());
  std::vector<int64_t> ms;
  for (int i = 0; i < 9; ++i) {
    std::string f = nextFrame();
    ms.push_back((static_cast<int64_t>(static_cast<uint32_t>(be32At(f, 24))) << 32) |
                 static_cast<uint32_t>(be32At(f, 28)));
  }
  // Restore of channel 0, then four requests 45 s apart 16 + 5 + 1800 s
  // later, and the next cycle 3600 s after the last wait of this one. A
  // wait is never shorter; a loaded machine may make it longer.
  const int64_t waits[] = {1821, 45, 45, 45, 3645, 45, 45, 45};
  for (int i = 0; i < 8; ++i) {
    int64_t seconds = (ms[i + 1] - ms[i]) / 1000;
    EXPECT_GE(seconds, waits[i]) << "wait " << i;
    EXPECT_LT(seconds, 2 * waits[i]) << "wait " << i;
  }
}

class PrivilegeTest : public DaemonFixture {
 protected:
  void SetUp() override {
    if (sandbox::inUserNamespace()) GTEST_SKIP() << "needs the real root to run the daemon as another user";
    DaemonFixture::SetUp();
  }
};

TEST_F(PrivilegeTest, UnprivilegedDaemonCannotMoveAFileItCannotReach) {
  const uid_t user = 4242;
  for (const char* dir : {"/etc/sysconfig/dravik/zek/cal", "/etc/sysconfig/dravik/zek/tbe"}) {
    ASSERT_EQ(chown(dir, user, user), 0);
  }
  mkdir("/etc/sysconfig/dravik/secret", 0700);
  const std::string secret = "/etc/sysconfig/dravik/secret/root.xml";
  writeFile(secret, "<root/>");
  ChildOptions options;
  options.uid = user;
  options.gid = user;
  ASSERT_NO_FATAL_FAILURE(start({"-s", "1000"}, options));
  chmod(kCommandFifoPath, 0666);
  chmod(kNotificationFifoPath, 0666);
  ASSERT_NO_FATAL_FAILURE(connect());
  exchange(frame(Header{13004, 100, 13, 1}, be32(1) + str(secret)));
  Reply saved = exchange(frame(Header{13006, 2, 13, 2}, be32(1) + be32(0)));
  EXPECT_EQ(saved.lines, (std::vector<SyslogLine>{
                             info("Saving Analytics Filter To file for ch=1 FileName:: " + secret),
                             err("SaveAnalyticsFilterFile: Error renaming " + secret + " to " + filterPath(1) +
                                 ": Permission denied\n")}));
  EXPECT_EQ(readFile(secret), "<root/>");
  EXPECT_FALSE(fileExists(filterPath(1)));
}

TEST_F(DaemonTest, SymlinkWhereTheNotificationPipeShouldBeGetsNothing) {
  const std::string target = "/etc/sysconfig/root-only";
  writeFile(target, "");
  chmod(target.c_str(), 0600);
  ASSERT_EQ(symlink(target.c_str(), kNotificationFifoPath), 0);
  ASSERT_NO_FATAL_FAILURE(start({"-s", "1000"}));
  std::string error;
  ASSERT_NO_FATAL_FAILURE(openMailbox());
  ASSERT_TRUE(mailbox_.write(frame(Header{13001, 2, 13, 1}, be32(1)), peer::Deadline::after(5), &error));
  ASSERT_TRUE(waitForLine(info("ResetCalibrationNotification::toStream channel=1")));
  EXPECT_EQ(stop(SIGTERM), "exited with status 1");
  EXPECT_EQ(readFile(target), "");
  EXPECT_EQ(maskLogTime(daemon_->err()).rfind(
                "<time> Error: Attempt to open binary output FIFO failed: /tmp/comm.mailbox\n", 0),
            0u);
}

}  // namespace
