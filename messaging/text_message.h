// Line-based text messages over the named-pipe endpoints. Every message
// travels as one line:
//
//   "[" id " " milliseconds "] " selector arguments     id and time
//   "[" id "] " selector arguments                      id, no time (seconds 0)
//   selector arguments                                  neither (id -1, seconds 0)
//
// The selector is a name; a receiver turns a line back into an object through
// textSelectorRegistry(). The kinds mirror the binary family: Message,
// Command, Request (a command that is answered), Notification and Response
// (the notification that answers a request).
//
// The daemon itself does not speak text; other programs of the camera link
// this framework and set textNotificationFifo. It rides on the same
// endpoints as the binary transport (fifo.h): InputFifo::getMessage() is the
// stream check, one std::getline and parseTextLine(); when the stream is not
// good it returns notGoodResult<Message>() (never null, never a message,
// compared by value), as the binary reader does, but clears the stream's
// state, so that its caller can wait and read again once a writer is back.
#ifndef DRAVIK_MESSAGING_TEXT_MESSAGE_H_
#define DRAVIK_MESSAGING_TEXT_MESSAGE_H_

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <mutex>
#include <string>

#include "messaging/fifo.h"
#include "messaging/timestamp.h"

class Message {
 public:
  // Takes the next id from textLastId and the current time (now()).
  Message();
  virtual ~Message() = default;

  // What a received message does. The default writes the message's line and
  // an end of line to standard output.
  virtual void Process();
  // Sets id and timestamp from the text between "[" and "]" of a received
  // line: a signed decimal id, then an unsigned decimal millisecond count.
  // What is missing or unreadable stays "none" (id -1, seconds 0); an id
  // outside the signed 32-bit range is unreadable, and so is the time after
  // it. The time is read like every text timestamp (timestamp.h).
  virtual void parseHeader(const char* text);
  // The selector name put on the line.
  virtual const char* getSelector() const = 0;
  // Reads the message's arguments from the rest of a received line (leading
  // white space already skipped). The default reads nothing.
  virtual std::istream& fromStream(std::istream& in);
  // Writes the line without its end of line: the header and the selector.
  // A class with arguments calls this first, then writes them in the order
  // fromStream reads them; they must not contain a newline, since readers
  // split at newlines. A null selector writes nothing for it and sets the
  // bad bit of `out`: the header still goes out, and the receiver reports
  // the line as unrecognized.
  virtual std::ostream& toStream(std::ostream& out) const;

  int32_t id;            // -1: no id
  Timestamp timestamp;   // seconds 0: no time
};

class Command : public Message {};

// A command that is answered: Process() builds a Response for it and sends
// that response on textNotificationFifo.
class Request : public Command {
 public:
  void Process() override;
  // Writes the arguments of the answer; called while the response's line is
  // being written, so the request produces its answer at that moment.
  virtual void responseToStream(std::ostream& out) const = 0;
};

// A message that this process sends: Process() writes it on
// textNotificationFifo.
class Notification : public Message {
 public:
  void Process() override;
};

// The answer to a request: the request's id, the selector of the request
// followed by "Response", and the arguments of the request's
// responseToStream().
class Response : public Notification {
 public:
  // REQUIRES: `request` outlives the response. Takes a counter value like
  // every message, then carries the request's id.
  explicit Response(const Request& request);

  const char* getSelector() const override { return selector.c_str(); }
  std::ostream& toStream(std::ostream& out) const override;

  std::string selector;
  const Request* request;
};

// The last id handed out; messages are numbered from 1. Atomic, advanced
// with a relaxed fetch_add like the binary lastId, so that messages may be
// built on any thread; it costs nothing on one.
extern std::atomic<int32_t> textLastId;

// Where Notification::Process() and Request::Process() send (not owned).
// Null until the application sets it, before any message is processed;
// while null, such a message is dropped with the " Dropping: " report.
extern OutputFifo* textNotificationFifo;

// Builds a new message of one class; the caller owns it.
using MessageFactory = Message* (*)();

template <class M>
Message* newTextMessage() {
  return new M;
}

// Selector name to factory, created on first use so that static
// initialisers of any translation unit can register into it. Not locked:
// fill it before any line is read.
std::map<std::string, MessageFactory>& textSelectorRegistry();

// Adds the pair unless the name is registered already (the first stays).
void registerTextSelector(const char* name, MessageFactory factory);

// Builds the registered class for `name` and gives it `header` to parse.
// Null when the name is not registered.
Message* createTextMessage(const std::string& name, const std::string& header);

// Builds the message of one received line (without its end of line), as
// InputFifo::getMessage() does after reading it (and the fuzz target
// directly): null for an empty line or an unregistered selector (reported
// on standard error); a message older than 100 ms is reported on standard
// error and returned all the same. The delay is (now - sent) in
// milliseconds, truncated toward zero, in 64-bit arithmetic: 32 bits would
// wrap beyond about 24.8 days either way, where this reports the true
// delay. A line whose seconds are 0 (no header, an id alone, fewer than
// 1000 ms) carries no time and is never reported; a time in the future
// gives a negative delay and no report.
Message* parseTextLine(const std::string& line);

// Serialises every text send of the process (never the binary senders'):
// held from before the line is built until it has been flushed, across the
// endpoint's open() and the drop report. Never destroyed, so that a send
// during exit still finds it.
std::mutex& textSendMutex();

// Registers a class from a static initialiser:
//   static const TextSelectorRegistration reg("Ping", newTextMessage<Ping>);
struct TextSelectorRegistration {
  TextSelectorRegistration(const char* name, MessageFactory factory) { registerTextSelector(name, factory); }
};

#endif  // DRAVIK_MESSAGING_TEXT_MESSAGE_H_
