// A peer's ends of the service's two named pipes, on plain descriptors so
// that every wait has a bound: opening the mailbox never waits (an absent
// reader is reported at once), a full mailbox is waited on until a deadline,
// and frames are read from the notification pipe with a deadline and a wake
// descriptor (a signalfd) that ends the wait.
#ifndef DRAVIK_PEER_PIPE_PEER_H_
#define DRAVIK_PEER_PIPE_PEER_H_

#include <time.h>

#include <istream>
#include <string>

#include "messaging/memory_stream.h"

namespace peer {

// A point in time after which waits give up, or none.
class Deadline {
 public:
  static Deadline never();
  static Deadline after(double seconds);
  bool passed() const;
  // Milliseconds for poll(): -1 without a deadline, 0 once it has passed.
  int pollTimeout() const;

 private:
  bool never_ = true;
  struct timespec at_ = {0, 0};
};

// The writing end of the service's mailbox.
class MailboxWriter {
 public:
  MailboxWriter() = default;
  ~MailboxWriter();
  MailboxWriter(const MailboxWriter&) = delete;
  MailboxWriter& operator=(const MailboxWriter&) = delete;

  // Opens `path` without waiting. False, with a one-line reason in `whyNot`,
  // when the pipe is missing, is no pipe, or has no reader (no daemon).
  bool open(const std::string& path, std::string* whyNot);
  bool isOpen() const { return fd_ >= 0; }
  // Writes the whole frame, waiting while the pipe is full, but not past
  // `deadline`. False with the reason in `whyNot`; a reader that has gone
  // closes the writer.
  bool write(const std::string& frame, const Deadline& deadline, std::string* whyNot);
  // The same for `size` bytes at `data`: a part of a larger buffer, or
  // several frames at once.
  bool write(const char* data, std::size_t size, const Deadline& deadline, std::string* whyNot);
  // How many bytes the last write put into the pipe: fewer than asked when
  // it failed, and then 0 means that nothing of the frame went in.
  std::size_t lastWritten() const { return lastWritten_; }
  void close();

 private:
  int fd_ = -1;
  std::string path_;
  std::size_t lastWritten_ = 0;
};

// Cuts a byte stream into frames as the service's reader does: a frame is
// the 4-byte length and its payload; a length that no reader accepts (0 or
// above 65536) comes alone, and the next frame is read from the bytes after
// it.
class FrameAssembler {
 public:
  void append(const char* bytes, std::size_t count);
  // The next whole frame, if the bytes hold one.
  bool next(std::string* frame);
  // Whatever is left of a frame cut short.
  std::string takeRest();
  bool empty() const { return start_ == buffer_.size(); }

 private:
  // Frames taken are skipped, not erased, until the next append: a read
  // of many small frames costs one move of the rest, not one per frame.
  std::string buffer_;
  std::size_t start_ = 0;
  // Each length prefix is decoded through this one stream.
  MemoryInputBuffer prefix_{nullptr, 0};
  std::istream prefixStream_{&prefix_};
};

// Frames from the service's notification pipe.
class FrameReader {
 public:
  enum class Event {
    frame,        // a frame, or the bytes that stand for a refused one
    timeout,      // the deadline passed
    woken,        // the wake descriptor turned readable
    writersGone,  // every writer closed the pipe (the service stopped)
    failed,       // reading failed; the reason is in `whyNot`
  };

  FrameReader() = default;
  ~FrameReader();
  FrameReader(const FrameReader&) = delete;
  FrameReader& operator=(const FrameReader&) = delete;

  // Opens `path` for reading without waiting for a writer. False with a
  // one-line reason when the pipe is missing or is no pipe.
  bool open(const std::string& path, std::string* whyNot);

  // Waits for the next frame until `deadline`, or until `wakeFd` (if not
  // negative) is readable. A frame is the 4-byte length and its payload; a
  // length that no reader accepts (0 or above 65536) comes alone, and the
  // next frame is read from the bytes after it; a frame cut short by the
  // writers' going comes with what there was of it. After writersGone the
  // reader waits for the next writer.
  Event next(std::string* frame, const Deadline& deadline, int wakeFd, std::string* whyNot);

 private:
  bool reopen(std::string* whyNot);

  int fd_ = -1;
  std::string path_;
  FrameAssembler frames_;
  bool goneToReport_ = false;
};

}  // namespace peer

#endif  // DRAVIK_PEER_PIPE_PEER_H_
