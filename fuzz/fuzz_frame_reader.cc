// Feeds arbitrary bytes through a pipe to the frame reader, as a peer on the
// mailbox would, and encodes every message it returns back into a frame
// buffer. Refused frames are a normal outcome; crashes, leaks and undefined
// behaviour are not.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <string>

#include "fuzz/fuzz_support.h"
#include "messaging/binary_fifo.h"
#include "messaging/memory_stream.h"

namespace {

// A few classes of each shape of argument, so that decoding runs past the
// header.
class EmptyCommand : public BinaryCommand {
 public:
  void Process() override {}
  int32_t getSelector() const override { return 13; }
};

class NumberAndNameCommand : public BinaryCommand {
 public:
  void Process() override {}
  int32_t getSelector() const override { return 100; }
  void fromStream(bistream& in) override {
    BinaryMessage::fromStream(in);
    in >> number >> name;
  }
  void toStream(bostream& out) const override {
    BinaryMessage::toStream(out);
    out << number << name;
  }
  int32_t number = 0;
  std::string name;
};

class BlockCommand : public BinaryCommand {
 public:
  void Process() override {}
  int32_t getSelector() const override { return 101; }
  void fromStream(bistream& in) override {
    BinaryMessage::fromStream(in);
    in >> block;
  }
  void toStream(bostream& out) const override {
    BinaryMessage::toStream(out);
    out << block;
  }
  byteArray block;
};

class ListCommand : public BinaryCommand {
 public:
  void Process() override {}
  int32_t getSelector() const override { return 102; }
  void fromStream(bistream& in) override {
    BinaryMessage::fromStream(in);
    in >> flag >> small >> list >> when;
  }
  void toStream(bostream& out) const override {
    BinaryMessage::toStream(out);
    out << flag << small << list << when;
  }
  bool flag = false;
  int16_t small = 0;
  integerArray list;
  Timestamp when;
};

const SelectorRegistration registerEmpty(13, newMessage<EmptyCommand>);
const SelectorRegistration registerNumberAndName(100, newMessage<NumberAndNameCommand>);
const SelectorRegistration registerBlock(101, newMessage<BlockCommand>);
const SelectorRegistration registerList(102, newMessage<ListCommand>);

// The whole input goes into the pipe before the reader starts, so the pipe
// is enlarged to hold it.
constexpr int kPipeCapacity = 1 << 20;

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::abort();
}

void writeAll(int fd, const uint8_t* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n <= 0) fail("write");
    data += n;
    size -= static_cast<size_t>(n);
  }
}

// One pipe and one reader for the whole run: opening a reader costs an
// inotify instance, whose release takes milliseconds. Each input comes from
// a writer that opens the pipe, writes and goes, so the reader meets end of
// file after it and reopens as the service does.
struct Mailbox {
  Mailbox() {
    char dir[] = "/tmp/dravik-fuzz.XXXXXX";
    if (mkdtemp(dir) == nullptr) fail("mkdtemp");
    path = std::string(dir) + "/mailbox";
    if (mkfifo(path.c_str(), 0600) != 0) fail("mkfifo");
    int first = ::open(path.c_str(), O_RDWR | O_CLOEXEC);  // a writer, so that open() does not wait
    if (first < 0 || fcntl(first, F_SETPIPE_SZ, kPipeCapacity) < kPipeCapacity) fail("F_SETPIPE_SZ");
    reader = new BinaryInputFifo(path.c_str());
    try {
      reader->open();
    } catch (const std::ios_base::failure&) {
      fail(path.c_str());
    }
    ::close(first);
    reader->stream.clear();
    if (!reader->stream.reopen()) fail("reopen");
  }

  std::string path;
  BinaryInputFifo* reader;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool silenced = silenceOutput();
  (void)silenced;
  static Mailbox* mailbox = new Mailbox;
  if (size > static_cast<size_t>(kPipeCapacity)) return 0;

  // A peer opens the mailbox, writes the input and goes: the reader reads
  // it, then sees end of file.
  int writer = ::open(mailbox->path.c_str(), O_WRONLY | O_CLOEXEC);
  if (writer < 0) fail("open writer");
  writeAll(writer, data, size);
  ::close(writer);

  BinaryInputFifo& fifo = *mailbox->reader;
  MemoryOutputBuffer encoded;
  for (;;) {
    BinaryMessage* message = fifo.getMessage();
    if (message == notGoodResult<BinaryMessage>()) break;
    if (message == nullptr) continue;
    encoded.reset();
    std::ostream target(&encoded);
    bostream out(target);
    message->toStream(out);
    delete message;
  }
  // Ready for the next peer, as a fresh reader would be.
  fifo.stream.clear();
  if (!fifo.stream.reopen()) fail("reopen");
  return 0;
}
