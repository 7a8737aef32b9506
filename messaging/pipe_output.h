// The writing half of a pipe stream: bytes are collected so that one
// message leaves in one write(), and a write into a full pipe waits in
// poll(), where a wake descriptor can end it (the stream is then marked bad
// and the message is lost).
#ifndef DRAVIK_MESSAGING_PIPE_OUTPUT_H_
#define DRAVIK_MESSAGING_PIPE_OUTPUT_H_

#include <ostream>
#include <vector>

#include "messaging/pipe_buffer.h"

class PipeWriteBuffer : public PipeBuffer {
 public:
  // Writes out what is still buffered, then closes, like std::ofstream. A
  // full pipe is waited for, unless a wake descriptor is readable: at the
  // daemon's exit the stop has triggered them, so exit never hangs here.
  ~PipeWriteBuffer() override;
  // Opens the pipe at `path` for reading and writing, so that it never waits
  // for a reader and never fails for want of one; bytes wait in the pipe
  // until a reader takes them.
  bool open(const char* path);

 protected:
  int_type overflow(int_type c) override;
  std::streamsize xsputn(const char* s, std::streamsize n) override;
  int sync() override;

 private:
  bool writeAll(const char* data, std::size_t size);
  bool flushPending();

  std::vector<char> out_;
};

class PipeOutputStream : public std::ostream {
 public:
  PipeOutputStream() : std::ostream(&buffer_) {}
  bool open(const char* path) { return buffer_.open(path); }
  bool close() {
    // Bytes still buffered go out first, as with a file stream.
    bool flushed = buffer_.pubsync() == 0;
    return buffer_.close() && flushed;
  }
  bool is_open() const { return buffer_.isOpen(); }
  PipeWriteBuffer& buffer() { return buffer_; }

 private:
  PipeWriteBuffer buffer_;
};

#endif  // DRAVIK_MESSAGING_PIPE_OUTPUT_H_
