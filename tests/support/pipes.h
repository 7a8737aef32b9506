// Raw ends of named pipes, for tests that play the peer of the code under
// test with plain system calls, and where the thread at the other end waits.
#ifndef DRAVIK_TESTS_SUPPORT_PIPES_H_
#define DRAVIK_TESTS_SUPPORT_PIPES_H_

#include <sys/types.h>

#include <string>

// Closes the descriptor when it goes.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(Fd&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  Fd& operator=(Fd&& other) noexcept;
  int get() const { return fd_; }
  void reset(int fd = -1);

 private:
  int fd_;
};

// mkfifo with mode 0666; fails the current test if it cannot.
std::string makeFifo(const std::string& path);
// open() with O_CLOEXEC added; fails the current test if it cannot.
Fd openFd(const std::string& path, int flags);
// Writes all of `bytes`, waiting while the pipe is full.
void writeAll(int fd, const std::string& bytes);
// What the pipe holds now, without waiting.
std::string readAvailable(int fd);
// Exactly `count` bytes, waiting for them (a generous guard fails the test).
std::string readExactly(int fd, std::size_t count);

// Waits until thread `tid` of process `pid` sleeps in poll() and has gone
// to sleep more than `since` times (its voluntary context switches, from
// /proc): after a stimulus, pass the count returned before it to know the
// thread has handled it and waits again. Returns the count, or -1 when a
// generous guard ran out.
long waitUntilPolling(pid_t pid, pid_t tid, long since = -1);

#endif  // DRAVIK_TESTS_SUPPORT_PIPES_H_
