#include "tests/e2e/daemon_fixture.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "tests/support/store_files.h"
#include "tests/support/wire.h"
#include "harness/faketime.h"
#include "harness/sandbox.h"

namespace {

int binaryFd = -1;

// The fence: GetAnalyticsFilterDataRequest for channel 99 from endpoint 99.
const int32_t kFenceId = 999999;
const std::string kFenceLine = "Sending get CH=99 /etc/sysconfig/dravik/zek/tbe/metadataFilterCH99.xml";

}  // namespace

int dravikBinary() { return binaryFd; }

std::vector<std::string> acceleratedClock(std::string* whyNot) {
  std::string library = fakeTimeLibrary(DRAVIK_DAEMON_SANITIZERS, whyNot);
  if (library.empty()) return {};
  return {"LD_PRELOAD=" + library, "FAKETIME=+0 x1000", "FAKETIME_NO_CACHE=1"};
}

void DaemonFixture::SetUp() {
  ASSERT_TRUE(resetStoreAndPipes());
  std::string why;
  ASSERT_TRUE(syslog_.open("/dev/log", &why)) << why;
}

void DaemonFixture::TearDown() {
  mailbox_.close();
  daemon_.reset();  // kills one still running
  syslog_.close();
}

void DaemonFixture::start(const std::vector<std::string>& args, const ChildOptions& options,
                          const std::string& mailbox) {
  // A mailbox left open here would be the child's too until it execs, and
  // would pass for the daemon's own below.
  mailbox_.close();
  std::string why;
  daemon_ = std::make_unique<ChildProcess>();
  ASSERT_TRUE(daemon_->start(dravikBinary(), "dravik", args, options, &why)) << why;
  ASSERT_TRUE(waitUntilOpen(daemon_->pid(), mailbox, kGuard)) << "dravik does not wait on its mailbox";
}

void DaemonFixture::connect() {
  comm_ = openFd(kNotificationFifoPath, O_RDONLY | O_NONBLOCK);
  commBytes_.clear();
  ASSERT_NO_FATAL_FAILURE(openMailbox());
  ASSERT_TRUE(waitForLine(info("API: starting dispatcher")));
}

void DaemonFixture::openMailbox() {
  std::string error;
  ASSERT_TRUE(mailbox_.open(kCommandFifoPath, &error)) << error;
}

bool DaemonFixture::waitForLine(const SyslogLine& line, std::size_t count) const {
  return syslog_.waitFor(
      daemon_->pid(),
      [&](const std::vector<SyslogLine>& lines) {
        return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), line)) >= count;
      },
      kGuard);
}

std::string DaemonFixture::nextFrame() {
  for (;;) {
    std::vector<std::string> frames = splitFrames(commBytes_);
    if (!frames.empty()) {
      commBytes_.erase(0, frames[0].size());
      return frames[0];
    }
    std::string more = readExactly(comm_.get(), 1);
    if (more.empty()) return "";
    commBytes_ += more + readAvailable(comm_.get());
  }
}

DaemonFixture::Reply DaemonFixture::exchange(const std::string& bytes) {
  Reply reply;
  std::vector<SyslogLine> earlier = log();
  std::size_t before = earlier.size();
  std::size_t fences = std::count(earlier.begin(), earlier.end(), info(kFenceLine));
  Header fence{13002, 99, 13, kFenceId, 0, 13003};
  std::string error;
  EXPECT_TRUE(mailbox_.write(bytes + frame(fence, be32(99)), peer::Deadline::after(10), &error)) << error;
  for (;;) {
    std::string f = nextFrame();
    if (f.empty()) {
      ADD_FAILURE() << "no answer to the fence";
      return reply;
    }
    if (be32At(f, 20) == kFenceId && be32At(f, 12) == 99) break;
    reply.frames.push_back(f);
  }
  EXPECT_TRUE(waitForLine(info(kFenceLine), fences + 1));
  std::vector<SyslogLine> lines = log();
  for (std::size_t i = before; i < lines.size() && lines[i] != info(kFenceLine); ++i) reply.lines.push_back(lines[i]);
  return reply;
}

std::string DaemonFixture::stop(int signal, pid_t tid) {
  if (tid != 0) {
    syscall(SYS_tgkill, daemon_->pid(), tid, signal);
  } else {
    daemon_->signal(signal);
  }
  std::optional<int> status = daemon_->wait(kGuard);
  syslog_.flush(kGuard);
  return status ? describeWaitStatus(*status) : "did not stop";
}

pid_t DaemonFixture::dispatcherTid() const {
  std::string dir = "/proc/" + std::to_string(daemon_->pid()) + "/task";
  pid_t found = 0;
  if (DIR* tasks = opendir(dir.c_str())) {
    while (dirent* entry = readdir(tasks)) {
      pid_t tid = static_cast<pid_t>(std::atoi(entry->d_name));
      if (tid > 0 && tid != daemon_->pid()) found = tid;
    }
    closedir(tasks);
  }
  return found;
}

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (::testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();
  // A writer whose daemon stopped learns it from the write's error.
  signal(SIGPIPE, SIG_IGN);
  // Opened before the sandbox may cover the directory it was built in.
  binaryFd = openExecutable(DRAVIK_BINARY);
  std::string why;
  if (binaryFd < 0 || !sandbox::enter(&why)) {
    std::fprintf(stderr, "cannot run dravik in a private sandbox: %s\n",
                 binaryFd < 0 ? "cannot open " DRAVIK_BINARY : why.c_str());
    return 1;
  }
  return RUN_ALL_TESTS();
}
