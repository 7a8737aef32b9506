#include "messaging/wake_up.h"

#include <fcntl.h>
#include <unistd.h>

WakeUp::WakeUp() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
    read_ = fds[0];
    write_ = fds[1];
  }
}

WakeUp::~WakeUp() {
  if (read_ >= 0) ::close(read_);
  if (write_ >= 0) ::close(write_);
}

void WakeUp::trigger() {
  // One byte that nobody drains keeps the read end readable for good; a full
  // pipe (EAGAIN) is just as readable.
  char byte = 1;
  if (write_ >= 0) (void)!::write(write_, &byte, 1);
}

