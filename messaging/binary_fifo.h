// Binary messages over named pipes, one frame each (frame_format.h). The
// writer fills in L and the header's argsLength (L - 44) after encoding.
#ifndef DRAVIK_MESSAGING_BINARY_FIFO_H_
#define DRAVIK_MESSAGING_BINARY_FIFO_H_

#include <mutex>
#include <string>

#include "messaging/binary_message.h"
#include "messaging/fifo.h"
#include "messaging/memory_stream.h"

class BinaryInputFifo : public InputFifo {
 public:
  explicit BinaryInputFifo(const char* path) : InputFifo(path) {}

  // Opens the pipe for reading, in binary mode, waiting for a writer. From
  // here on every failure of the stream raises std::ios_base::failure; a
  // failed open raises it to the caller.
  void open() override;

  // Reads one frame and builds its message. Returns a new message owned by
  // the caller; null when a frame was refused (bad length, version or
  // selector, or a payload shorter than its header and arguments) or reading
  // failed; notGoodResult() when the stream was not good on entry. Blocks
  // while a writer holds the pipe open and no complete frame is there; a
  // wake descriptor of the stream ends that wait with PipeInterrupted.
  //
  // Whether the "Fifo is unhappy" warning is written depends on one flag for
  // the whole process, not per endpoint: it is cleared by every not-good
  // outcome and set again by a call that finds its stream good, whichever
  // endpoint the calls were made on.
  BinaryMessage* getMessage();
};

class BinaryOutputFifo : public OutputFifo {
 public:
  explicit BinaryOutputFifo(const char* path) : OutputFifo(path) {}

  // Opens the pipe for reading and writing, in binary mode. Never raises; a
  // failure is reported on standard error and the state cleared.
  void open() override;

  // Frames and writes one message in one write, or drops it with a report
  // when the stream is not good. Serialised across all binary senders of the
  // process, so that frames never interleave.
  void send(const BinaryMessage& message);

  // The lock every send holds; never destroyed.
  static std::mutex& sendMutex();
};

// Encodes `message` as one frame into `frame` (emptied first): the length L,
// the header with argsLength set to L - 44, then the arguments. This is what
// send() writes, and how every peer builds the frames it sends. A message
// whose toStream writes less than a whole header has no argsLength field:
// nothing is written over its bytes, and L still counts what it wrote.
void encodeFrame(const BinaryMessage& message, MemoryOutputBuffer& frame);
std::string encodeFrame(const BinaryMessage& message);

#endif  // DRAVIK_MESSAGING_BINARY_FIFO_H_
