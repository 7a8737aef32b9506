// What the two halves of a pipe stream share: a non-blocking descriptor on a
// named pipe, and waits in poll() that "wake" descriptors (a WakeUp, a
// signalfd) can end from another thread. A std::fstream cannot be woken while
// it waits in read() or write(); the pipe streams can, and otherwise behave as
// file streams (state bits, exception masks and flushing are those of
// std::istream and std::ostream).
//
// Only a named pipe is opened: a symlink (an open never follows one) or any
// other kind of file at the path is refused as a pipe that cannot be opened.
#ifndef DRAVIK_MESSAGING_PIPE_BUFFER_H_
#define DRAVIK_MESSAGING_PIPE_BUFFER_H_

#include <exception>
#include <streambuf>
#include <string>
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
  PipeBuffer() = default;
  // Closes the descriptor without flushing: a destructor that runs at process
  // exit must not wait on a full pipe. Writers flush every message themselves.
  ~PipeBuffer() override;
  PipeBuffer(const PipeBuffer&) = delete;
  PipeBuffer& operator=(const PipeBuffer&) = delete;

  virtual bool close();
  bool isOpen() const { return fd_ >= 0; }
  int descriptor() const { return fd_; }

  // Descriptors whose readability ends every wait of this buffer. Set before
  // the stream is shared between threads.
  void wakeOn(std::vector<int> fds) { wakeFds_ = std::move(fds); }
  bool interrupted() const { return interrupted_; }
  // Why the last open, read or write failed: the system's text for its errno,
  // or "not a named pipe".
  std::string failure() const;

 protected:
  static constexpr int kNotAPipe = -1;
  enum class Wait { ready, woken, watched, failed };
  // Opens `path` with `flags` (plus non-blocking, close-on-exec and
  // no-follow) and checks that it is a named pipe. -1 on failure.
  int openPipe(const char* path, int flags);
  // Waits until the pipe shows `events` (ready), a wake descriptor is
  // readable (woken), or `watchFd` is readable (watched).
  Wait waitFor(short events, int watchFd = -1);

  int fd_ = -1;
  const char* path_ = nullptr;
  bool interrupted_ = false;
  int lastError_ = 0;  // errno, or kNotAPipe

 private:
  std::vector<int> wakeFds_;
};

#endif  // DRAVIK_MESSAGING_PIPE_BUFFER_H_
