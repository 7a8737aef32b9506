// A descriptor that turns readable, and stays readable, once triggered.
// Blocked pipe reads and writes watch it beside their pipe, so that a stop can
// end them from another thread at any moment (see PipeBuffer::wakeOn).
#ifndef DRAVIK_MESSAGING_WAKE_UP_H_
#define DRAVIK_MESSAGING_WAKE_UP_H_

class WakeUp {
 public:
  WakeUp();
  ~WakeUp();
  WakeUp(const WakeUp&) = delete;
  WakeUp& operator=(const WakeUp&) = delete;

  // Async-signal-safe and idempotent.
  void trigger();
  // The descriptor to poll for POLLIN.
  int fd() const { return read_; }

 private:
  int read_ = -1;
  int write_ = -1;
};

#endif  // DRAVIK_MESSAGING_WAKE_UP_H_
