#include "tools/dravikctl/output_queue.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

#include "messaging/wake_up.h"

namespace dravikctl {

struct OutputQueue::State {
  // REQUIRES: `mutex` held.
  void fail(const std::string& why) {
    if (failure.empty()) failure = why;
    failed.trigger();
    changed.notify_all();
  }

  void run() {
    for (;;) {
      std::string bytes;
      {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return !queue.empty() || stopping || !failure.empty(); });
        if (!failure.empty() || queue.empty()) return;
        bytes = std::move(queue.front());
        queue.pop_front();
        queued -= bytes.size();
        busy = true;
      }
      std::size_t done = 0;
      int error = 0;
      while (done < bytes.size() && error == 0) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n > 0) done += static_cast<std::size_t>(n);
        if (n < 0 && errno != EINTR) error = errno;
      }
      std::lock_guard<std::mutex> lock(mutex);
      busy = false;
      if (error != 0) {
        readerGone = error == EPIPE;
        fail(readerGone ? "the output was closed" : std::string("cannot write the output: ") + std::strerror(error));
        return;
      }
      changed.notify_all();
    }
  }

  int fd = -1;
  std::size_t limit = 0;
  WakeUp failed;
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<std::string> queue;
  std::size_t queued = 0;
  bool busy = false;
  bool stopping = false;
  bool readerGone = false;
  std::string failure;
};

OutputQueue::OutputQueue(int fd, std::size_t limit) : state_(std::make_shared<State>()) {
  state_->fd = fd;
  state_->limit = limit;
  std::shared_ptr<State> state = state_;
  std::thread([state] { state->run(); }).detach();
}

OutputQueue::~OutputQueue() {
  std::unique_lock<std::mutex> lock(state_->mutex);
  state_->stopping = true;
  state_->changed.notify_all();
  state_->changed.wait_for(lock, std::chrono::seconds(2), [&] {
    return (state_->queue.empty() && !state_->busy) || !state_->failure.empty();
  });
}

bool OutputQueue::push(std::string bytes) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  if (!state_->failure.empty()) return false;
  if (state_->queued + bytes.size() > state_->limit) {
    state_->fail("the output is not being read fast enough");
    return false;
  }
  state_->queued += bytes.size();
  state_->queue.push_back(std::move(bytes));
  state_->changed.notify_all();
  return true;
}

int OutputQueue::failedFd() const { return state_->failed.fd(); }

std::string OutputQueue::failure() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->failure;
}

bool OutputQueue::readerGone() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->readerGone;
}

}  // namespace dravikctl
