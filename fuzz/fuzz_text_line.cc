// Runs the text line parser over arbitrary input, one line per newline as
// InputFifo::getMessage() reads them. Every message built is written back as
// a line, parsed again and written again: both lines must be the same. Then
// the message is processed, so that each kind's Process() runs too (a
// request answers through a Response; with no notification endpoint the
// sends end in the drop report).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <istream>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>

#include "fuzz/fuzz_support.h"
#include "messaging/text_message.h"
#include "tests/support/text_samples.h"

namespace {

class Status : public Request {
 public:
  const char* getSelector() const override { return "Status"; }
  std::istream& fromStream(std::istream& in) override { return in >> channel; }
  std::ostream& toStream(std::ostream& out) const override { return Message::toStream(out) << ' ' << channel; }
  void responseToStream(std::ostream& out) const override { out << "channel " << channel; }

  int32_t channel = -1;
};

Timestamp fixedClock() { return Timestamp{1700000000, 500000}; }

bool setUp() {
  silenceOutput();
  registerTextSelector("Ping", newTextMessage<Ping>);
  registerTextSelector("Note", newTextMessage<Note>);
  registerTextSelector("Status", newTextMessage<Status>);
  setClock(fixedClock);
  return true;
}

std::string lineOf(const Message& message) {
  std::ostringstream out;
  message.toStream(out);
  return out.str();
}

void parseLine(const std::string& line) {
  std::unique_ptr<Message> message(parseTextLine(line));
  if (!message) return;

  // A time before the epoch is written as the unsigned form of a negative
  // count and does not read back as the same seconds; every other header does.
  if (message->timestamp.seconds >= 0) {
    std::string written = lineOf(*message);
    std::unique_ptr<Message> again(parseTextLine(written));
    if (!again || lineOf(*again) != written) abort();
  }
  message->Process();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool ready = setUp();
  (void)ready;
  std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
  std::string line;
  while (std::getline(input, line)) parseLine(line);
  return 0;
}
