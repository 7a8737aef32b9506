// One end of a named pipe: its path and a stream on it. The binary
// endpoints derive from these and replace open(); the text framework reads
// and writes through them directly.
#ifndef DRAVIK_MESSAGING_FIFO_H_
#define DRAVIK_MESSAGING_FIFO_H_

#include <cstdint>

#include "messaging/pipe_input.h"
#include "messaging/pipe_output.h"

class Message;

// The reader result that says the endpoint's stream was not good on entry
// and nothing was read: the pointer with all bits set. Distinct from null
// (nothing usable read) and from every real message.
template <class M>
M* notGoodResult() {
  return reinterpret_cast<M*>(~std::uintptr_t{0});
}

class Fifo {
 public:
  // Stores the path, which must outlive the endpoint; touches nothing on disk.
  explicit Fifo(const char* path) : path(path) {}
  virtual ~Fifo() = default;
  Fifo(const Fifo&) = delete;
  Fifo& operator=(const Fifo&) = delete;

  virtual void open() = 0;
  virtual void close() = 0;

  // Makes the named pipe with mode 0666 (less the umask). An existing file of
  // that name is no error; any other failure writes "Failed to create FIFO"
  // to standard error and nothing else.
  void create();

  const char* const path;
};

class InputFifo : public Fifo {
 public:
  explicit InputFifo(const char* path) : Fifo(path) {}

  // Opens the pipe for reading; waits until some process has it open for
  // writing (or a wake descriptor of the stream ends the wait). On success
  // the stream state is cleared, on failure the fail bit is set.
  void open() override;
  void close() override;

  // Reads one text line and builds its message (text framework): a new
  // message owned by the caller, null when nothing usable was read, or
  // notGoodResult() when the stream was not good on entry (its state is
  // then cleared).
  Message* getMessage();

  PipeInputStream stream;
};

class OutputFifo : public Fifo {
 public:
  explicit OutputFifo(const char* path) : Fifo(path) {}

  // Opens the pipe for reading and writing: never waits for a reader. A
  // failure leaves the stream closed with its state cleared.
  void open() override;
  void close() override;

  // Writes one text message as one line (text framework).
  void send(const Message& message);

  PipeOutputStream stream;

 protected:
  enum class Opening { wasOpen, opened, failed };
  // The open both output endpoints share: a stream that fails to open is
  // left closed with its state cleared, so that the next write fails and
  // marks it bad. The caller reports the outcome in its own words.
  Opening openStream();
};

#endif  // DRAVIK_MESSAGING_FIFO_H_
