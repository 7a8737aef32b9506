#include "tests/store/store_fixture.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "store/analytics_filter_store.h"
#include "store/calibration_store.h"
#include "tests/support/console_capture.h"
#include "tests/support/hex.h"
#include "tests/support/sandbox.h"

namespace storetest {
namespace {

uint32_t loadBe32(const std::string& bytes, std::size_t at) {
  uint32_t value = 0;
  for (std::size_t i = 0; i < 4; ++i) value = (value << 8) | static_cast<uint8_t>(bytes[at + i]);
  return value;
}

uint64_t loadBe64(const std::string& bytes, std::size_t at) {
  return (static_cast<uint64_t>(loadBe32(bytes, at)) << 32) | loadBe32(bytes, at + 4);
}

int32_t loadInt32(const std::string& bytes, std::size_t at) { return static_cast<int32_t>(loadBe32(bytes, at)); }

// Room for the largest frames the tests provoke (a restore of more than
// 64 KiB), so that a send never waits for the test to read.
constexpr int kNotificationPipeSize = 1 << 20;

}  // namespace

std::string Header::bytes() const {
  return be32(static_cast<uint32_t>(version)) + be32(static_cast<uint32_t>(sender)) +
         be32(static_cast<uint32_t>(recipient)) + be32(static_cast<uint32_t>(id)) +
         be32(static_cast<uint32_t>(correlationId)) + be64(milliseconds) + be32(static_cast<uint32_t>(selector)) +
         be32(static_cast<uint32_t>(responseSelector)) + be32(static_cast<uint32_t>(flags)) + be32(argsLength);
}

std::string frameOf(Header header, const std::string& args) {
  header.argsLength = static_cast<uint32_t>(args.size());
  std::string payload = header.bytes() + args;
  return be32(static_cast<uint32_t>(payload.size())) + payload;
}

Header headerFor(int32_t selector) {
  Header header;
  header.selector = selector;
  return header;
}

std::string int32Arg(int32_t value) { return be32(static_cast<uint32_t>(value)); }

std::string stringArg(const std::string& text) { return be16(static_cast<uint16_t>(text.size())) + text; }

std::string blockArg(const std::string& bytes) { return be32(static_cast<uint32_t>(bytes.size())) + bytes; }

std::string patternBytes(std::size_t count, int seed) {
  std::string bytes(count, '\0');
  for (std::size_t i = 0; i < count; ++i) {
    bytes[i] = static_cast<char>((i * 7 + static_cast<std::size_t>(seed) * 31) & 0xFF);
  }
  return bytes;
}

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream file(path, std::ios::out | std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (!file) ADD_FAILURE() << "cannot write " << path;
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::in | std::ios::binary);
  if (!file.is_open()) {
    ADD_FAILURE() << "cannot read " << path;
    return "";
  }
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

bool fileExists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

bool isFifo(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 && S_ISFIFO(info.st_mode);
}

void removeFilesIn(const std::string& directory) {
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) return;
  while (struct dirent* entry = readdir(dir)) {
    std::string path = directory + "/" + entry->d_name;
    struct stat info;
    if (lstat(path.c_str(), &info) == 0 && !S_ISDIR(info.st_mode)) unlink(path.c_str());
  }
  closedir(dir);
}

void StoreTest::SetUp() {
  if (!sandbox::active()) GTEST_SKIP() << "no private mount namespace: " << sandbox::unavailableReason();

  // A test that mounted over a store directory and failed half way must not
  // leave its mount to the next one.
  for (const char* dir : {kCalDirectory, kTbeDirectory}) {
    while (umount2(dir, MNT_DETACH) == 0) {
    }
  }
  for (const char* dir : {kDravikDirectory, kZekDirectory, kCalDirectory, kTbeDirectory}) {
    mkdir(dir, 0755);
    removeFilesIn(dir);
  }
  for (CalibrationRequest& entry : calibrationRequests) {
    entry.requestId.store(0);
    entry.channel.store(0);
  }
  for (std::string& pending : pendingFilterFiles) pending.clear();

  outputPath_ = makeFifo(dir_.file("comm.mailbox"));
  outputReader_ = openPipeReader(outputPath_);
  ASSERT_TRUE(outputReader_.valid());
  ASSERT_GE(fcntl(outputReader_.get(), F_SETPIPE_SZ, kNotificationPipeSize), kNotificationPipeSize)
      << std::strerror(errno);
  output_.reset(new BinaryOutputFifo(outputPath_.c_str()));
  output_->open();
  ASSERT_TRUE(output_->stream.is_open());
  BinaryMessage::defaultSender = 13;
  BinaryMessage::notificationOutput = output_.get();
}

void StoreTest::TearDown() {
  BinaryMessage::notificationOutput = nullptr;
  if (output_) output_->close();
  if (mailbox_) mailbox_->close();
}

std::vector<SentFrame> decodeFrames(const std::string& bytes) {
  std::vector<SentFrame> frames;
  std::size_t at = 0;
  while (at < bytes.size()) {
    if (bytes.size() - at < 4 + 44) {
      ADD_FAILURE() << "a partial frame on the notification pipe: " << toHex(bytes.substr(at));
      break;
    }
    SentFrame frame;
    frame.length = loadBe32(bytes, at);
    if (frame.length < 44 || bytes.size() - at - 4 < frame.length) {
      ADD_FAILURE() << "frame length " << frame.length << " with " << bytes.size() - at - 4 << " bytes left";
      break;
    }
    std::size_t p = at + 4;
    frame.version = loadInt32(bytes, p);
    frame.sender = loadInt32(bytes, p + 4);
    frame.recipient = loadInt32(bytes, p + 8);
    frame.id = loadInt32(bytes, p + 12);
    frame.correlationId = loadInt32(bytes, p + 16);
    frame.milliseconds = loadBe64(bytes, p + 20);
    frame.selector = loadInt32(bytes, p + 28);
    frame.responseSelector = loadInt32(bytes, p + 32);
    frame.flags = loadInt32(bytes, p + 36);
    frame.argsLength = loadBe32(bytes, p + 40);
    frame.args = bytes.substr(p + 44, frame.length - 44);
    frames.push_back(frame);
    at = p + frame.length;
  }
  return frames;
}

std::vector<SentFrame> StoreTest::sentFrames() {
  if (!outputReader_.valid()) return {};
  return decodeFrames(readAvailable(outputReader_.get()));
}

SentFrame StoreTest::nextSentFrame() {
  std::string prefix = readPipe(outputReader_.get(), 4);
  if (prefix.size() < 4) return SentFrame();
  std::vector<SentFrame> frames = decodeFrames(prefix + readPipe(outputReader_.get(), loadBe32(prefix, 0)));
  return frames.empty() ? SentFrame() : frames.front();
}

SentFrame StoreTest::onlySentFrame() {
  std::vector<SentFrame> frames = sentFrames();
  EXPECT_EQ(frames.size(), 1u);
  return frames.empty() ? SentFrame() : frames.front();
}

std::unique_ptr<BinaryMessage> StoreTest::receive(const std::string& frame) {
  if (!mailbox_) {
    mailboxPath_ = makeFifo(dir_.file("dravik.mailbox"));
    // Held open by the test, so that the reader's open does not wait and
    // its reads never see the end of the pipe.
    mailboxWriter_ = openPipeWriter(mailboxPath_);
    mailbox_.reset(new BinaryInputFifo(mailboxPath_.c_str()));
    ConsoleCapture console;  // the endpoint announces its open
    mailbox_->open();
  }
  writePipe(mailboxWriter_.get(), frame);
  BinaryMessage* message = mailbox_->getMessage();
  if (message == notGoodResult<BinaryMessage>()) {
    ADD_FAILURE() << "the mailbox stream was not good";
    return nullptr;
  }
  return std::unique_ptr<BinaryMessage>(message);
}

void StoreTest::deliver(const std::string& frame) {
  std::unique_ptr<BinaryMessage> message = receive(frame);
  ASSERT_NE(message, nullptr) << "the reader refused " << toHex(frame);
  message->Process();
}

}  // namespace storetest
