// The named-pipe endpoints: making the pipe, opening and closing each end,
// and their console lines.
#include "messaging/fifo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "messaging/wake_up.h"
#include "tests/support/console_capture.h"
#include "tests/support/pipe_io.h"
#include "tests/support/temp_dir.h"

namespace {

class FifoTest : public TempDirTest {
 protected:
  void SetUp() override { path_ = dir_.file("pipe"); }

  ConsoleCapture console_;
  std::string path_;
};

TEST_F(FifoTest, CreateMakesPipeWithModeLessUmask) {
  mode_t mask = umask(0);
  umask(mask);
  InputFifo fifo(path_.c_str());
  fifo.create();
  struct stat info;
  ASSERT_EQ(stat(path_.c_str(), &info), 0);
  EXPECT_TRUE(S_ISFIFO(info.st_mode));
  EXPECT_EQ(info.st_mode & 0777, 0666 & ~mask);
  EXPECT_EQ(console_.err(), "");
}

TEST_F(FifoTest, CreateOnExistingPipeIsSilentAndLeavesItUntouched) {
  makeFifo(path_);
  UniqueFd holder = openPipeWriter(path_);
  writePipe(holder.get(), "abc");
  struct stat before;
  ASSERT_EQ(stat(path_.c_str(), &before), 0);

  OutputFifo fifo(path_.c_str());
  fifo.create();
  struct stat after;
  ASSERT_EQ(stat(path_.c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(pendingBytes(holder.get()), 3u);
  EXPECT_EQ(console_.err(), "");
  EXPECT_EQ(console_.out(), "");
}

TEST_F(FifoTest, CreateInMissingDirectoryWritesOnlyItsLine) {
  std::string nowhere = dir_.file("missing/pipe");
  OutputFifo fifo(nowhere.c_str());
  fifo.create();
  EXPECT_EQ(console_.takeErr(), "Failed to create FIFO");
  EXPECT_EQ(console_.out(), "");

  fifo.open();
  EXPECT_EQ(console_.takeOut(), "Attempt to open output FIFO failed (no reader yet)\n");
  EXPECT_EQ(console_.err(), "");
}

TEST_F(FifoTest, OutputOpenOfMissingPipeLeavesStreamGoodAndClosed) {
  OutputFifo fifo(path_.c_str());
  fifo.open();
  EXPECT_EQ(console_.out(), "Attempt to open output FIFO failed (no reader yet)\n");
  EXPECT_TRUE(fifo.stream.good());
  EXPECT_FALSE(fifo.stream.is_open());
}

TEST_F(FifoTest, WriteAfterFailedOpenIsLostUntilAnOpenSucceeds) {
  OutputFifo fifo(path_.c_str());
  fifo.open();
  fifo.stream << "lost" << std::flush;
  EXPECT_TRUE(fifo.stream.bad());

  makeFifo(path_);
  UniqueFd reader = openPipeReader(path_);
  console_.clear();
  fifo.open();
  EXPECT_EQ(console_.out(), "Opened output FIFO\n");
  EXPECT_TRUE(fifo.stream.good());
  fifo.stream << "kept" << std::flush;
  EXPECT_EQ(readAvailable(reader.get()), "kept");
}

TEST_F(FifoTest, OutputOpenWithoutReaderSucceedsAtOnce) {
  makeFifo(path_);
  OutputFifo fifo(path_.c_str());
  fifo.open();
  EXPECT_EQ(console_.out(), "Opened output FIFO\n");
  EXPECT_TRUE(fifo.stream.is_open());
  EXPECT_TRUE(fifo.stream.good());
}

TEST_F(FifoTest, SecondOpenOfOpenEndpointDoesNothing) {
  makeFifo(path_);
  OutputFifo output(path_.c_str());
  output.open();
  int descriptor = output.stream.buffer().descriptor();
  output.open();
  EXPECT_EQ(console_.out(), "Opened output FIFO\n");
  EXPECT_EQ(output.stream.buffer().descriptor(), descriptor);

  InputFifo input(path_.c_str());
  input.open();  // the output end counts as a writer
  ASSERT_TRUE(input.stream.is_open());
  descriptor = input.stream.buffer().descriptor();
  input.open();
  EXPECT_EQ(input.stream.buffer().descriptor(), descriptor);
  EXPECT_EQ(console_.out(), "Opened output FIFO\n");
  EXPECT_EQ(console_.err(), "");
}

TEST_F(FifoTest, CloseOfNeverOpenedEndpointChangesNothing) {
  InputFifo input(path_.c_str());
  input.close();
  EXPECT_TRUE(input.stream.good());
  input.stream.setstate(std::ios::eofbit);
  input.close();
  EXPECT_EQ(input.stream.rdstate(), std::ios::eofbit);

  OutputFifo output(path_.c_str());
  output.close();
  EXPECT_TRUE(output.stream.good());
  output.stream.setstate(std::ios::failbit);
  output.close();
  EXPECT_EQ(output.stream.rdstate(), std::ios::failbit);
  EXPECT_EQ(console_.out(), "");
  EXPECT_EQ(console_.err(), "");
}

TEST_F(FifoTest, ClosedEndpointCanBeReopened) {
  makeFifo(path_);
  OutputFifo fifo(path_.c_str());
  fifo.open();
  fifo.close();
  EXPECT_FALSE(fifo.stream.is_open());
  EXPECT_TRUE(fifo.stream.good());
  fifo.open();
  EXPECT_TRUE(fifo.stream.is_open());
  EXPECT_EQ(console_.out(), "Opened output FIFO\nOpened output FIFO\n");
}

TEST_F(FifoTest, DestroyingOpenEndpointClosesFileAndKeepsPipe) {
  makeFifo(path_);
  auto fifo = std::make_unique<OutputFifo>(path_.c_str());
  fifo->open();
  int descriptor = fifo->stream.buffer().descriptor();
  ASSERT_GE(descriptor, 0);
  fifo.reset();
  errno = 0;
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
  EXPECT_EQ(errno, EBADF);
  struct stat info;
  ASSERT_EQ(stat(path_.c_str(), &info), 0);
  EXPECT_TRUE(S_ISFIFO(info.st_mode));
}

TEST_F(FifoTest, InputOpenReturnsWhenWriterOpensWithoutWriting) {
  makeFifo(path_);
  InputFifo fifo(path_.c_str());
  std::thread opener([&] { fifo.open(); });
  UniqueFd writer(::open(path_.c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_TRUE(writer.valid());
  opener.join();
  EXPECT_TRUE(fifo.stream.is_open());
  EXPECT_TRUE(fifo.stream.good());
  EXPECT_EQ(console_.out(), "");
  EXPECT_EQ(console_.err(), "");
}

TEST_F(FifoTest, InputOpenEndedByWakeUpFails) {
  makeFifo(path_);
  InputFifo fifo(path_.c_str());
  WakeUp wake;
  fifo.stream.buffer().wakeOn({wake.fd()});
  auto opening = std::async(std::launch::async, [&] { fifo.open(); });
  wake.trigger();
  opening.get();
  EXPECT_FALSE(fifo.stream.is_open());
  EXPECT_TRUE(fifo.stream.fail());
  EXPECT_TRUE(fifo.stream.buffer().interrupted());
  EXPECT_EQ(console_.out(), "");
  EXPECT_EQ(console_.err(), "");
}

TEST_F(FifoTest, InputOpenOfMissingPipeSetsFail) {
  InputFifo fifo(path_.c_str());
  fifo.open();
  EXPECT_FALSE(fifo.stream.is_open());
  EXPECT_TRUE(fifo.stream.fail());
  EXPECT_EQ(console_.out(), "");
  EXPECT_EQ(console_.err(), "");
}

}  // namespace
