// Named-pipe endpoints: making the pipe, the opens with their console
// lines, refusing what is not a pipe, and a reader that follows its path
// when the pipe is removed or replaced while no writer holds it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <iostream>
#include <thread>

#include "messaging/binary_fifo.h"
#include "messaging/wake_up.h"
#include "tests/support/capture.h"
#include "tests/support/pipes.h"
#include "tests/support/store_files.h"
#include "tests/support/wire.h"
#include "harness/temp_dir.h"

namespace {

class Marker : public BinaryCommand {
 public:
  int32_t getSelector() const override { return 31040; }
};
const SelectorRegistration registerMarker(31040, newMessage<Marker>);

mode_t modeOf(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 && S_ISFIFO(info.st_mode) ? info.st_mode & 07777 : 0;
}

// Waits (bounded) until `path` names a pipe again.
bool waitForPipe(const std::string& path) {
  for (int i = 0; i < 2000 && modeOf(path) == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return modeOf(path) != 0;
}

class EndpointTest : public ::testing::Test {
 protected:
  TempDir dir_;
  ConsoleCapture console_;
};

TEST_F(EndpointTest, CreateMakesThePipeOnceAndReportsOnlyOtherFailures) {
  mode_t mask = umask(022);
  const std::string path = dir_.file("p"), missing = dir_.file("missing/p");
  OutputFifo fifo(path.c_str());
  fifo.create();
  EXPECT_EQ(modeOf(fifo.path), 0644u);
  chmod(fifo.path, 0600);
  fifo.create();
  EXPECT_EQ(modeOf(fifo.path), 0600u);
  OutputFifo lost(missing.c_str());
  lost.create();
  umask(mask);
  EXPECT_EQ(console_.takeErr(), "Failed to create FIFO");
  lost.open();
  EXPECT_EQ(console_.takeOut(), "Attempt to open output FIFO failed (no reader yet)\n");
  EXPECT_TRUE(lost.stream.good());
  EXPECT_FALSE(lost.stream.is_open());
}

TEST_F(EndpointTest, OutputOpensAtOnceWithoutAReaderAndOnlyOnce) {
  std::string path = makeFifo(dir_.file("p"));
  OutputFifo fifo(path.c_str());
  fifo.close();  // never opened: nothing
  EXPECT_TRUE(fifo.stream.good());
  fifo.open();
  fifo.open();
  EXPECT_EQ(console_.takeOut(), "Opened output FIFO\n");
  fifo.close();
  fifo.open();
  EXPECT_EQ(console_.takeOut(), "Opened output FIFO\n");
}

// What stands at a pipe's path: only a named pipe is opened, through a link
// where the link can be trusted; anything else is refused without being
// opened.
TEST_F(EndpointTest, OnlyANamedPipeIsOpenedThroughALinkThatCanBeTrusted) {
  const std::string fifo = makeFifo(dir_.file("fifo")), file = dir_.file("file");
  writeFile(file, "keep");
  // A sticky directory that everyone may write, as /tmp is.
  const std::string sticky = dir_.file("sticky");
  ASSERT_EQ(mkdir(sticky.c_str(), 0777), 0);
  ASSERT_EQ(chmod(sticky.c_str(), 01777), 0);
  auto link = [&](const std::string& name, const std::string& target, uid_t owner = geteuid()) {
    const std::string path = name[0] == '/' ? name : dir_.file(name);
    EXPECT_EQ(symlink(target.c_str(), path.c_str()), 0) << path;
    if (owner != geteuid() && lchown(path.c_str(), owner, owner) != 0) return std::string();
    return path;
  };
  auto node = [&](const std::string& name, mode_t kind, dev_t device) {
    const std::string path = dir_.file(name);
    return mknod(path.c_str(), kind | 0666, device) == 0 ? path : std::string();
  };
  const std::string socketPath = dir_.file("socket");
  Fd bound(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  struct sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(bind(bound.get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof address), 0);
  const std::string notAPipe = "not a named pipe";
  const struct Row {
    const char* name;
    std::string path;  // empty: this system cannot make the row (another user's link, a device node need root)
    std::string failure;  // empty: it opens
  } rows[] = {
      {"a named pipe", fifo, ""},
      {"a link to a named pipe", link("link", fifo), ""},
      {"a link to a link to a named pipe", link("link2", dir_.file("link")), ""},
      {"my own link in a sticky directory", link(sticky + "/mine", fifo), ""},
      {"another user's link in a sticky directory", link(sticky + "/theirs", fifo, 4242),
       "a link of another user in a sticky directory"},
      {"a regular file", file, notAPipe},
      {"a link to a regular file", link("to-file", file), notAPipe},
      {"a directory", dir_.path(), notAPipe},
      {"a device, through a link", link("to-null", "/dev/null"), notAPipe},
      {"a character device", node("null", S_IFCHR, makedev(1, 3)), notAPipe},
      {"a block device", node("loop", S_IFBLK, makedev(7, 0)), notAPipe},
      {"a socket", socketPath, notAPipe},
      {"a dangling link", link("dangling", dir_.file("nothing")), "No such file or directory"},
      {"nothing", dir_.file("absent"), "No such file or directory"},
  };
  for (const Row& row : rows) {
    if (row.path.empty()) {
      std::cout << "[ SKIPPED  ] row \"" << row.name << "\": needs root here\n";
      continue;
    }
    BinaryOutputFifo out(row.path.c_str());
    out.open();
    EXPECT_EQ(out.stream.is_open(), row.failure.empty()) << row.name;
    EXPECT_EQ(console_.takeErr(),
              row.failure.empty() ? "" : "<time> Error: Attempt to open binary output FIFO failed: " + row.path + "\n")
        << row.name;
    if (row.failure.empty()) continue;
    EXPECT_EQ(out.stream.buffer().failure(), row.failure) << row.name;
    BinaryInputFifo in(row.path.c_str());
    EXPECT_THROW(in.open(), std::ios_base::failure) << row.name;
    EXPECT_EQ(in.stream.buffer().failure(), row.failure) << row.name;
  }
  EXPECT_EQ(readFile(file), "keep");
}

// As a file stream does, closing and destroying an endpoint write out what
// its stream still holds.
TEST_F(EndpointTest, ClosingOrDestroyingAnOutputWritesOutWhatItHolds) {
  std::string path = makeFifo(dir_.file("p"));
  Fd reader = openFd(path, O_RDONLY | O_NONBLOCK);
  for (bool destroy : {false, true}) {
    auto fifo = std::make_unique<OutputFifo>(path.c_str());
    fifo->open();
    fifo->stream << "held";
    EXPECT_EQ(readAvailable(reader.get()), "") << "written out too early";
    if (destroy) {
      fifo.reset();
    } else {
      fifo->close();
    }
    EXPECT_EQ(readAvailable(reader.get()), "held") << (destroy ? "destroyed" : "closed");
  }
}

TEST_F(EndpointTest, InputOpenWaitsForAWriterEvenOneThatLeavesAtOnce) {
  std::string path = makeFifo(dir_.file("p"));
  InputFifo fifo(path.c_str());
  std::thread writer([&] { Fd leaving(openFd(path, O_WRONLY)); });
  fifo.open();
  writer.join();
  EXPECT_TRUE(fifo.stream.is_open());

  InputFifo woken(path.c_str());
  WakeUp wake;
  woken.stream.buffer().wakeOn({wake.fd()});
  wake.trigger();
  woken.open();
  EXPECT_TRUE(woken.stream.fail());
  EXPECT_TRUE(woken.stream.buffer().interrupted());
  const std::string absent = dir_.file("absent");
  InputFifo missing(absent.c_str());
  missing.open();
  EXPECT_TRUE(missing.stream.fail());
}

// A reader whose look for a hangup lets a writer come, write all of `bytes`
// and go first: the window between a read that found the pipe empty and
// that look, made certain.
class WriterInTheWindow : public PipeReadBuffer {
 public:
  mutable std::string bytes;

 protected:
  bool hungUp() const override {
    if (!bytes.empty()) writeAll(openFd(path_, O_WRONLY).get(), bytes);
    bytes.clear();
    return PipeReadBuffer::hungUp();
  }
};

TEST_F(EndpointTest, WriterBetweenAnEmptyReadAndTheHangupCheckIsReadNotTakenForEndOfFile) {
  const std::string path = makeFifo(dir_.file("p")), sent = frame(Header{31040, 1, 13, 6});
  WriterInTheWindow buffer;
  Fd first = openFd(path, O_RDWR);
  ASSERT_TRUE(buffer.open(path.c_str()));
  first.reset();  // gone: the pipe is empty and hung up
  buffer.bytes = sent;
  std::istream in(&buffer);
  std::string got(sent.size(), '\0');
  in.read(&got[0], static_cast<std::streamsize>(got.size()));
  EXPECT_EQ(toHex(got), toHex(sent));
  EXPECT_EQ(in.get(), EOF) << "then the writer's end of file";
}

class FollowingReaderTest : public EndpointTest {
 protected:
  void SetUp() override {
    path_ = makeFifo(dir_.file("mailbox"));
    chmod(path_.c_str(), 0604);
    fifo_ = std::make_unique<BinaryInputFifo>(path_.c_str());
    // The first writer leaves: end of file, then a fresh descriptor.
    std::thread writer([&] { writeAll(openFd(path_, O_WRONLY).get(), frame(Header{31040, 1, 13, 1})); });
    fifo_->open();
    writer.join();
    delete fifo_->getMessage();
    EXPECT_EQ(fifo_->getMessage(), nullptr);
    ASSERT_TRUE(fifo_->stream.reopen());
    fifo_->stream.clear();
    console_.takeErr();
    console_.takeOut();
    fifo_->stream.buffer().wakeOn({giveUp_.fd()});
  }
  // The id of the next message, read on the thread reader_ while the test acts.
  std::future<int32_t> nextId() {
    reader_ = 0;
    std::future<int32_t> id = std::async(std::launch::async, [this] {
      reader_ = static_cast<pid_t>(syscall(SYS_gettid));
      std::unique_ptr<BinaryMessage> m(fifo_->getMessage());
      return m ? m->id : -1;
    });
    while (reader_ == 0) std::this_thread::yield();
    return id;
  }
  // What nextId() read; -1, and the reader woken, if nothing came within a
  // generous guard.
  int32_t idOf(std::future<int32_t>& id) {
    if (id.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
      ADD_FAILURE() << "no message read";
      giveUp_.trigger();
    }
    try {
      return id.get();
    } catch (const PipeInterrupted&) {
      return -1;
    }
  }
  void sendThroughPath(int32_t id) {
    ASSERT_TRUE(waitForPipe(path_));
    writeAll(openFd(path_, O_WRONLY).get(), frame(Header{31040, 1, 13, id}));
  }
  std::string path_;
  std::unique_ptr<BinaryInputFifo> fifo_;
  WakeUp giveUp_;
  std::atomic<pid_t> reader_{0};
};

TEST_F(FollowingReaderTest, RemovedPipeIsMadeAgainWithItsMode) {
  const mode_t mask = umask(077);  // it would narrow the mode
  auto id = nextId();
  EXPECT_EQ(unlink(path_.c_str()), 0);
  sendThroughPath(2);
  EXPECT_EQ(idOf(id), 2);
  umask(mask);
  EXPECT_EQ(modeOf(path_), 0604u);
}

TEST_F(FollowingReaderTest, ReplacedPipeIsFollowed) {
  auto id = nextId();
  std::string other = makeFifo(dir_.file("other"));
  ASSERT_EQ(rename(other.c_str(), path_.c_str()), 0);
  sendThroughPath(3);
  EXPECT_EQ(idOf(id), 3);
}

TEST_F(FollowingReaderTest, WriterOfTheOldPipeIsServedToItsEnd) {
  Fd old = openFd(path_, O_WRONLY);
  auto first = nextId();
  // The pipe is replaced while the reader waits for the old writer's bytes.
  EXPECT_GE(waitUntilPolling(getpid(), reader_), 0);
  std::string other = makeFifo(dir_.file("other"));
  EXPECT_EQ(rename(other.c_str(), path_.c_str()), 0);
  writeAll(old.get(), frame(Header{31040, 1, 13, 4}));
  EXPECT_EQ(idOf(first), 4);
  old.reset();
  EXPECT_EQ(fifo_->getMessage(), nullptr);  // its end of file
  ASSERT_TRUE(fifo_->stream.reopen());       // what the service does then
  fifo_->stream.clear();
  auto second = nextId();
  sendThroughPath(5);
  EXPECT_EQ(idOf(second), 5);
}

}  // namespace
