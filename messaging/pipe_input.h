// The reading half of a pipe stream. Besides the wakeable waits of
// PipeBuffer it keeps the path: the pipe's directory entry is watched, and a
// pipe removed or replaced while no writer holds it is followed to whatever
// the path names next (made again if it is missing), so that the next writer
// who opens the path is heard.
#ifndef DRAVIK_MESSAGING_PIPE_INPUT_H_
#define DRAVIK_MESSAGING_PIPE_INPUT_H_

#include <istream>
#include <vector>

#include "messaging/pipe_buffer.h"

class PipeReadBuffer : public PipeBuffer {
 public:
  PipeReadBuffer() = default;
  ~PipeReadBuffer() override;

  // Opens the pipe at `path` and waits until some process has opened it for
  // writing (a writer that has already gone again counts too). False if it
  // cannot be opened or a wake descriptor ended the wait (interrupted()).
  bool open(const char* path);
  // Opens the pipe at the path afresh without waiting for a writer; a pipe
  // that is missing is made again with the mode of the one held now. The old
  // descriptor closes only once the new one is open, so the pipe never loses
  // its reader. After the last writer has gone, the next read then waits for
  // a new writer instead of meeting end of file again. Buffered bytes are
  // dropped. False, keeping the old descriptor, if the path names no pipe
  // that can be opened or made.
  bool reopen();
  bool close() override;

  // Readable when the pipe's directory entry may have changed; -1 when the
  // system cannot watch it. Drain it with pathChanged().
  int watchDescriptor() const { return watchFd_; }
  // Takes the pending watch events; true if one concerned the pipe's name.
  bool pathChanged();

 protected:
  int_type underflow() override;
  std::streamsize xsgetn(char* s, std::streamsize n) override;
  std::streamsize showmanyc() override;

  // True when every writer has gone and nothing is left to read: asked right
  // after a read found the pipe empty. A writer may come, write and go in
  // between; then its bytes are there beside the hangup and this is false.
  // Virtual only as a seam: a test overrides it to act in that window and
  // calls this one to answer.
  virtual bool hungUp() const;

 private:
  bool waitForWriter();
  // Reads what the pipe holds (at least one byte, waiting if needed) into
  // `to`; 0 at end of file or on failure. Throws PipeInterrupted when woken.
  std::streamsize readSome(char* to, std::streamsize capacity);
  // Reopens when the path no longer names the pipe held now.
  void followPath();
  void startWatch();
  void watchOpens();

  std::vector<char> in_;
  int watchFd_ = -1;
  int fileWatch_ = -1;  // IN_OPEN of the pipe itself, while waiting for the first writer
  bool makeFailureReported_ = false;
};

// An input stream on a pipe; open(), reopen() and close() report success and
// leave the stream state to the caller.
class PipeInputStream : public std::istream {
 public:
  PipeInputStream() : std::istream(&buffer_) {}
  bool open(const char* path) { return buffer_.open(path); }
  bool reopen() { return buffer_.reopen(); }
  bool close() { return buffer_.close(); }
  bool is_open() const { return buffer_.isOpen(); }
  PipeReadBuffer& buffer() { return buffer_; }

 private:
  PipeReadBuffer buffer_;
};

#endif  // DRAVIK_MESSAGING_PIPE_INPUT_H_
