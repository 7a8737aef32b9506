// What the two halves of a pipe stream share: a non-blocking descriptor on a
// named pipe, and waits in poll() that "wake" descriptors (a WakeUp, a
// signalfd) can end from another thread. A std::fstream cannot be woken while
// it waits in read() or write(); the pipe streams can, and otherwise behave as
// file streams (state bits, exception masks and flushing are those of
// std::istream and std::ostream).
//
// Only a named pipe is opened (typed_open.h): a link to one is followed where
// it can be trusted; a regular file, a device or anything else at the path
// is refused as a pipe that cannot be opened, and is never opened itself.
#ifndef DRAVIK_MESSAGING_PIPE_BUFFER_H_
#define DRAVIK_MESSAGING_PIPE_BUFFER_H_

#include <exception>
#include <streambuf>
#include <string>
#include <vector>

#include "messaging/typed_open.h"

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
  // Closes the descriptor (the writing half flushes first, as a file
  // stream's destructor does).
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
  // "not a named pipe", or the refusal of an untrusted link.
  std::string failure() const;

 protected:
  enum class Wait { ready, woken, watched, failed };
  // Opens the named pipe at `path` with `flags` (plus non-blocking and
  // close-on-exec). -1 on failure, with the reason kept for failure().
  int openPipe(const char* path, int flags);
  // Waits until the pipe shows `events` (ready), a wake descriptor is
  // readable (woken), or `watchFd` is readable (watched).
  Wait waitFor(short events, int watchFd = -1);

  // Records a failure of the system for failure().
  void failed(int error) {
    lastError_ = error;
    refusal_ = OpenRefusal::system;
  }

  int fd_ = -1;
  const char* path_ = nullptr;
  bool interrupted_ = false;
  int lastError_ = 0;  // errno of the last failure
  OpenRefusal refusal_ = OpenRefusal::none;

 private:
  std::vector<int> wakeFds_;
};

#endif  // DRAVIK_MESSAGING_PIPE_BUFFER_H_
