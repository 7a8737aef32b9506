// Raw access to a named pipe from a test: the peer end that the code under
// test talks to, written and read with plain system calls.
#ifndef DRAVIK_TESTS_SUPPORT_PIPE_IO_H_
#define DRAVIK_TESTS_SUPPORT_PIPE_IO_H_

#include <cstddef>
#include <string>

// Owns a file descriptor and closes it when destroyed or reset.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release();
  void reset();

 private:
  int fd_ = -1;
};

// A writer that holds the pipe without waiting for a reader: opened for
// reading and writing, blocking writes. Fails the current test on error.
UniqueFd openPipeWriter(const std::string& path);
// A reader opened without waiting for a writer; its reads block (use
// readPipe) or not (use readAvailable).
UniqueFd openPipeReader(const std::string& path);

// Writes all of `bytes`, waiting while the pipe is full.
void writePipe(int fd, const std::string& bytes);
// Reads exactly `count` bytes, waiting for them; fails the current test and
// returns what it has if they do not come within a generous guard time.
std::string readPipe(int fd, std::size_t count);
// Whatever the pipe holds now, without waiting.
std::string readAvailable(int fd);
// The number of bytes waiting in the pipe (FIONREAD).
std::size_t pendingBytes(int fd);

#endif  // DRAVIK_TESTS_SUPPORT_PIPE_IO_H_
