#include "messaging/text_message.h"

#include <iostream>
#include <memory>
#include <sstream>

#include "messaging/console_line.h"

namespace {

// A message older than this on arrival is reported (and still delivered).
constexpr int64_t kMaxSilentDelayMs = 100;

// Writes the line on `fifo`, or reports it as dropped when the endpoint is
// missing or its stream is not good. The caller holds textSendMutex().
void sendLine(OutputFifo* fifo, const std::string& line) {
  if (fifo != nullptr) fifo->open();
  if (fifo == nullptr || !fifo->stream.good()) {
    ConsoleLine(std::cerr) << " Dropping: " << line;
    return;
  }
  fifo->stream << line << std::endl;
  fifo->stream.flush();
}

void sendMessage(OutputFifo* fifo, const Message& message) {
  std::lock_guard<std::mutex> lock(textSendMutex());
  std::ostringstream line;
  message.toStream(line);
  sendLine(fifo, line.str());
}

}  // namespace

std::atomic<int32_t> textLastId{0};
OutputFifo* textNotificationFifo = nullptr;

Message::Message() : id(textLastId.fetch_add(1, std::memory_order_relaxed) + 1), timestamp(now()) {}

void Message::Process() { toStream(std::cout) << std::endl; }

void Message::parseHeader(const char* text) {
  id = -1;
  timestamp = Timestamp();
  if (text == nullptr) return;
  std::istringstream in(text);
  int32_t value;
  // An id out of range fails the read like a missing one, and so does the
  // time after it.
  if (!(in >> value)) return;
  id = value;
  in >> timestamp;
}

std::istream& Message::fromStream(std::istream& in) { return in; }

std::ostream& Message::toStream(std::ostream& out) const {
  if (timestamp.seconds != 0) {
    out << '[' << id << ' ' << timestamp << "] ";
  } else if (id != -1) {
    out << '[' << id << "] ";
  }
  const char* selector = getSelector();
  if (selector == nullptr) {
    out.setstate(std::ios::badbit);
  } else {
    out << selector;
  }
  return out;
}

void Request::Process() {
  Response response(*this);
  response.Process();
}

void Notification::Process() { sendMessage(textNotificationFifo, *this); }

Response::Response(const Request& request) : request(&request) {
  id = request.id;
  const char* name = request.getSelector();
  selector = name != nullptr ? name : "";
  selector += "Response";
}

std::ostream& Response::toStream(std::ostream& out) const {
  Message::toStream(out) << ' ';
  request->responseToStream(out);
  return out;
}

std::map<std::string, MessageFactory>& textSelectorRegistry() {
  static std::map<std::string, MessageFactory> registry;
  return registry;
}

void registerTextSelector(const char* name, MessageFactory factory) {
  textSelectorRegistry().emplace(name, factory);  // keeps an earlier entry
}

Message* createTextMessage(const std::string& name, const std::string& header) {
  auto& registry = textSelectorRegistry();
  auto entry = registry.find(name);
  if (entry == registry.end()) return nullptr;
  Message* message = entry->second();
  message->parseHeader(header.c_str());
  return message;
}

std::mutex& textSendMutex() {
  static std::mutex* mutex = new std::mutex;  // outlives every sender, even at exit
  return *mutex;
}

Message* parseTextLine(const std::string& line) {
  if (line.empty()) return nullptr;

  std::istringstream in(line);
  std::string header;
  if (in.peek() == '[') {
    in.get();
    std::getline(in, header, ']');
    in.get();  // the blank after "]"
  }
  std::string name;
  in >> name;

  std::unique_ptr<Message> message(createTextMessage(name, header));
  if (!message) {
    ConsoleLine(std::cerr) << " Unrecognized selector in line: " << line;
    return nullptr;
  }
  in >> std::ws;
  message->fromStream(in);

  // A line without a time (seconds 0) has no age to report. 64-bit: the
  // difference of two 32-bit second counts, in milliseconds, needs 43 bits.
  if (message->timestamp.seconds != 0) {
    Timestamp current = now();
    int64_t delay = (static_cast<int64_t>(current.seconds) - message->timestamp.seconds) * 1000 +
                    (static_cast<int64_t>(current.microseconds) - message->timestamp.microseconds) / 1000;
    if (delay > kMaxSilentDelayMs) {
      ConsoleLine(std::cerr) << " Message delayed " << delay << " ms: " << line;
    }
  }
  return message.release();
}

void OutputFifo::send(const Message& message) { sendMessage(this, message); }

Message* InputFifo::getMessage() {
  if (!stream.good()) {
    // Cleared so that the caller can wait and read again (a new writer may
    // come); the binary reader leaves the state set instead.
    stream.clear();
    return notGoodResult<Message>();
  }
  std::string line;
  std::getline(stream, line);  // a failed read leaves the line empty
  return parseTextLine(line);
}
