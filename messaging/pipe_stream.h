// Standard streams on a named pipe whose blocking waits can be ended from
// another thread. A std::fstream cannot be woken while it waits in read() or
// write(); these streams wait with poll() on the pipe and on "wake"
// descriptors (a WakeUp, a signalfd), and give up as soon as one turns
// readable. Otherwise they behave as file streams: state bits, exception
// masks and flushing are those of std::istream and std::ostream.
#ifndef DRAVIK_MESSAGING_PIPE_STREAM_H_
#define DRAVIK_MESSAGING_PIPE_STREAM_H_

#include <exception>
#include <istream>
#include <ostream>
#include <streambuf>
#include <vector>

// Thrown out of a read when a wake descriptor ended the wait. It is not a
// std::ios_base::failure, so a reader that handles stream failures lets it
// through to whoever asked for the stop.
class PipeInterrupted : public std::exception {
 public:
  const char* what() const noexcept override { return "pipe wait interrupted"; }
};

class PipeBuffer : public std::streambuf {
 public:
  PipeBuffer();
  ~PipeBuffer() override;
  PipeBuffer(const PipeBuffer&) = delete;
  PipeBuffer& operator=(const PipeBuffer&) = delete;

  // Opens `path` for reading and waits until some process has it open for
  // writing (or has written to it). False if the path cannot be opened or a
  // wake descriptor ended the wait (then interrupted() is true).
  bool openForReading(const char* path);
  // Opens `path` for reading and writing, so that it never waits for a reader.
  bool openForWriting(const char* path);
  // Replaces the read descriptor by a fresh one on the same FIFO without
  // waiting for a writer. After the last writer has gone, a reader that
  // reopens blocks in its next read until a new writer sends something,
  // instead of seeing end of file again at once. REQUIRES: at end of file
  // (buffered bytes are dropped).
  bool reopenForReading();
  bool close();
  bool isOpen() const { return fd_ >= 0; }
  int descriptor() const { return fd_; }

  // Descriptors whose readability ends every wait of this buffer. Set before
  // the stream is shared between threads.
  void wakeOn(std::vector<int> fds) { wakeFds_ = std::move(fds); }
  bool interrupted() const { return interrupted_; }
  // errno of the last failed open, read or write.
  int lastError() const { return lastError_; }

 protected:
  int_type underflow() override;
  std::streamsize xsgetn(char* s, std::streamsize n) override;
  std::streamsize showmanyc() override;
  int_type overflow(int_type c) override;
  std::streamsize xsputn(const char* s, std::streamsize n) override;
  int sync() override;

 private:
  enum class Wait { ready, woken, failed };
  // Waits until the pipe shows `events`, or a wake descriptor is readable.
  Wait waitFor(short events);
  // Reads what the pipe holds (at least one byte, waiting if needed) into
  // `to`; 0 at end of file or on failure. Throws PipeInterrupted when woken.
  std::streamsize readSome(char* to, std::streamsize capacity);
  bool writeAll(const char* data, std::size_t size);
  bool flushPending();
  bool waitForWriter(int inotifyFd);
  bool hungUp() const;

  int fd_ = -1;
  bool isFifo_ = false;
  const char* path_ = nullptr;
  std::vector<int> wakeFds_;
  std::vector<char> in_;
  std::vector<char> out_;
  bool interrupted_ = false;
  int lastError_ = 0;
};

// An input stream on a pipe; open() and close() report success and leave the
// stream state to the caller.
class PipeInputStream : public std::istream {
 public:
  PipeInputStream() : std::istream(&buffer_) {}
  bool open(const char* path) { return buffer_.openForReading(path); }
  bool reopen() { return buffer_.reopenForReading(); }
  bool close() { return buffer_.close(); }
  bool is_open() const { return buffer_.isOpen(); }
  PipeBuffer& buffer() { return buffer_; }

 private:
  PipeBuffer buffer_;
};

class PipeOutputStream : public std::ostream {
 public:
  PipeOutputStream() : std::ostream(&buffer_) {}
  bool open(const char* path) { return buffer_.openForWriting(path); }
  bool close() {
    // Bytes still buffered go out first, as with a file stream.
    bool flushed = buffer_.pubsync() == 0;
    return buffer_.close() && flushed;
  }
  bool is_open() const { return buffer_.isOpen(); }
  PipeBuffer& buffer() { return buffer_; }

 private:
  PipeBuffer buffer_;
};

#endif  // DRAVIK_MESSAGING_PIPE_STREAM_H_
