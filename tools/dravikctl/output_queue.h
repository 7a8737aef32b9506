// Output that never holds up the tap: lines and capture blocks are written
// to their descriptor by a thread of their own, so that a slow or paused
// reader (a pager, a full disk) delays the printing and never the traced
// service, which waits for the tap at every system call.
#ifndef DRAVIK_TOOLS_DRAVIKCTL_OUTPUT_QUEUE_H_
#define DRAVIK_TOOLS_DRAVIKCTL_OUTPUT_QUEUE_H_

#include <cstddef>
#include <memory>
#include <string>

namespace dravikctl {

class OutputQueue {
 public:
  // Writes to `fd`, which stays open and owned by the caller. At most
  // `limit` bytes wait at a time.
  OutputQueue(int fd, std::size_t limit);
  // Writes what is queued, waiting at most two seconds for a stalled
  // reader; past that the rest is lost.
  ~OutputQueue();
  OutputQueue(const OutputQueue&) = delete;
  OutputQueue& operator=(const OutputQueue&) = delete;

  // Queues `bytes`. False once the output has failed, or when the reader is
  // so far behind that `limit` would be passed (the output then counts as
  // failed).
  bool push(std::string bytes);
  // Readable once the output has failed.
  int failedFd() const;
  // Why it failed ("the output was closed", ...); empty while it works.
  std::string failure() const;
  // True when it failed because its reader went away.
  bool readerGone() const;

 private:
  struct State;
  // Shared with the writing thread, which may outlive the queue while it
  // is blocked on a reader that never reads.
  std::shared_ptr<State> state_;
};

}  // namespace dravikctl

#endif  // DRAVIK_TOOLS_DRAVIKCTL_OUTPUT_QUEUE_H_
