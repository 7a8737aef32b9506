// Signals taken as a descriptor instead of by a handler: from construction
// on they are blocked in the calling thread (and in every thread it starts
// afterwards) and make the descriptor readable, so that waits in poll() end
// on them and no work ever runs inside an asynchronous signal handler.
#ifndef DRAVIK_MESSAGING_SIGNAL_DESCRIPTOR_H_
#define DRAVIK_MESSAGING_SIGNAL_DESCRIPTOR_H_

#include <initializer_list>

class SignalDescriptor {
 public:
  // Call before other threads start, so that none of them can take the
  // signals by their default action. Without a signalfd the signals are
  // unblocked again (their default action at least ends the process) and
  // fd() is -1.
  explicit SignalDescriptor(std::initializer_list<int> signals);
  ~SignalDescriptor();
  SignalDescriptor(const SignalDescriptor&) = delete;
  SignalDescriptor& operator=(const SignalDescriptor&) = delete;

  // Readable while one of the signals is pending for the polling thread or
  // for the whole process.
  int fd() const { return fd_; }
  // Takes one pending signal and returns its number; 0 if none is pending.
  // `toThread`, if given, tells whether it was sent to the calling thread
  // alone (tgkill, pthread_kill) rather than to the process.
  int take(bool* toThread = nullptr);

 private:
  int fd_ = -1;
};

#endif  // DRAVIK_MESSAGING_SIGNAL_DESCRIPTOR_H_
