// The other processes of the camera, as the daemon sees them: a writer on
// its mailbox "/tmp/dravik.mailbox" and a reader of "/tmp/comm.mailbox".
// Frames are built and taken apart here by hand, independently of the
// daemon's own encoder, so that the tests pin the wire bytes.
#ifndef DRAVIK_TESTS_E2E_MAILBOX_PEER_H_
#define DRAVIK_TESTS_E2E_MAILBOX_PEER_H_

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "tests/support/pipe_io.h"

constexpr const char* kMailboxPath = "/tmp/dravik.mailbox";
constexpr const char* kCommPath = "/tmp/comm.mailbox";

// The 44-byte header of a binary message, field by field.
struct WireHeader {
  int32_t version = 1;
  int32_t sender = 11;
  int32_t recipient = 13;
  int32_t id = 1;
  int32_t correlationId = 0;
  int64_t timestamp = 1700000000123;  // milliseconds
  int32_t selector = 0;
  int32_t responseSelector = 0;
  int32_t flags = 0;
  int32_t argsLength = 0;  // as received; computed when building a frame
};

// A frame: the 4-byte length L, the header and `args`, with L and argsLength
// filled in.
std::string buildFrame(WireHeader header, const std::string& args);

// Argument encodings: 32-bit big-endian; a string as a 16-bit length and its
// bytes; a block (byteArray) as a 32-bit length and its bytes.
std::string int32Arg(int32_t value);
std::string stringArg(const std::string& text);
std::string blockArg(const std::string& bytes);

struct Frame {
  std::string bytes;  // the whole frame, length prefix included
  uint32_t length = 0;
  WireHeader header;
  std::string args;                                // the payload after the header
  std::chrono::steady_clock::time_point received;  // when the peer read it
};

// Takes a whole frame apart; false if it is shorter than its header.
bool decodeFrame(const std::string& bytes, Frame* frame);

class MailboxPeer {
 public:
  // Waits until the daemon has made its pipes, then opens /tmp/comm.mailbox
  // for reading (without waiting for the daemon to open it).
  bool openNotifications(std::chrono::milliseconds timeout);
  // Opens /tmp/dravik.mailbox for writing as soon as the daemon reads it.
  bool connect(std::chrono::milliseconds timeout);
  // Closes the writer: the daemon sees its last writer go.
  void disconnect() { writer_.reset(); }
  void closeNotifications() {
    reader_.reset();
    pending_.clear();
  }
  bool connected() const { return writer_.valid(); }

  // Writes all bytes to the mailbox, waiting while it is full.
  void send(const std::string& bytes);
  // The next frame on the notification pipe, or nothing within `timeout`.
  std::optional<Frame> readFrame(std::chrono::milliseconds timeout);
  // True if no byte arrives on the notification pipe within `timeout`.
  bool quietFor(std::chrono::milliseconds timeout);

  int writerFd() const { return writer_.get(); }

 private:
  bool fill(std::size_t count, std::chrono::steady_clock::time_point deadline);

  UniqueFd writer_;
  UniqueFd reader_;
  std::string pending_;  // bytes read but not yet handed out
};

// Polls every millisecond until `path` is a FIFO; false after `timeout`.
bool waitForFifo(const char* path, std::chrono::milliseconds timeout);

#endif  // DRAVIK_TESTS_E2E_MAILBOX_PEER_H_
