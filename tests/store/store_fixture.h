// The plumbing shared by the in-process tests of the store and the service:
// an empty store in the private mount namespace, a notification pipe whose
// frames the test reads back and decodes without the code under test, a
// mailbox through which crafted frames are received, and the captured log.
// Each test then reads as: given these bytes or files, expect these frames,
// these files and these lines.
#ifndef DRAVIK_TESTS_STORE_STORE_FIXTURE_H_
#define DRAVIK_TESTS_STORE_STORE_FIXTURE_H_

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "messaging/binary_fifo.h"
#include "tests/support/pipe_io.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/temp_dir.h"

namespace storetest {

constexpr const char* kDravikDirectory = "/etc/sysconfig/dravik";
constexpr const char* kZekDirectory = "/etc/sysconfig/dravik/zek";
constexpr const char* kCalDirectory = "/etc/sysconfig/dravik/zek/cal";
constexpr const char* kTbeDirectory = "/etc/sysconfig/dravik/zek/tbe";

inline SyslogLine info(const std::string& text) { return {LOG_INFO, text}; }
inline SyslogLine error(const std::string& text) { return {LOG_ERR, text}; }

// One frame as it left on the notification pipe, decoded field by field.
struct SentFrame {
  uint32_t length = 0;  // the frame's payload length
  int32_t version = 0;
  int32_t sender = 0;
  int32_t recipient = 0;
  int32_t id = 0;
  int32_t correlationId = 0;
  uint64_t milliseconds = 0;
  int32_t selector = 0;
  int32_t responseSelector = 0;
  int32_t flags = 0;
  uint32_t argsLength = 0;
  std::string args;  // the payload after the header
};

// Decodes whole frames; fails the current test on bytes left over.
std::vector<SentFrame> decodeFrames(const std::string& bytes);

// The 44 header bytes of a frame that a peer sends to the service.
struct Header {
  int32_t version = 1;
  int32_t sender = 11;
  int32_t recipient = 13;
  int32_t id = 500;
  int32_t correlationId = 0;
  uint64_t milliseconds = 1700000000123ULL;
  int32_t selector = 0;
  int32_t responseSelector = 0;
  int32_t flags = 0;
  uint32_t argsLength = 0;

  std::string bytes() const;
};

// A whole frame: length prefix, the header with argsLength := args.size(),
// then `args`.
std::string frameOf(Header header, const std::string& args = "");
// A header for `selector` with everything else at its default.
Header headerFor(int32_t selector);

// Argument encodings, built without the code under test.
std::string int32Arg(int32_t value);
std::string stringArg(const std::string& text);
std::string blockArg(const std::string& bytes);

// `count` bytes of a recognisable pattern that differs per `seed`.
std::string patternBytes(std::size_t count, int seed);

// Files of the store (or anywhere else) as plain bytes.
void writeFile(const std::string& path, const std::string& bytes);
// The file's content; fails the current test if it cannot be read.
std::string readFile(const std::string& path);
bool fileExists(const std::string& path);
bool isFifo(const std::string& path);

// Removes the files (not the directories) in `directory`.
void removeFilesIn(const std::string& directory);

// A fixture for everything that runs the store's operations: skips when the
// private namespace is not available; otherwise starts every test from an
// empty store with its directories in place, empty per-channel tables, this
// process as endpoint 13, and notifications going to a pipe of its own.
class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Every frame sent since the last call, in order. Fails the current test
  // on bytes that do not form whole frames.
  std::vector<SentFrame> sentFrames();
  // Exactly one frame is expected.
  SentFrame onlySentFrame();
  // Waits for the next frame, for sends made by another thread.
  SentFrame nextSentFrame();

  // Puts `frame` into a mailbox and reads it back with the real reader, as
  // the dispatcher does. Null when the reader refused it.
  std::unique_ptr<BinaryMessage> receive(const std::string& frame);
  // receive() and Process(), as the dispatcher does.
  void deliver(const std::string& frame);

  // The syslog lines since the last call.
  std::vector<SyslogLine> takeLines() { return syslog_.take(); }

  TempDir dir_;
  SyslogCapture syslog_;
  std::string outputPath_;
  std::unique_ptr<BinaryOutputFifo> output_;
  UniqueFd outputReader_;
  std::string mailboxPath_;
  std::unique_ptr<BinaryInputFifo> mailbox_;
  UniqueFd mailboxWriter_;
};

}  // namespace storetest

#endif  // DRAVIK_TESTS_STORE_STORE_FIXTURE_H_
