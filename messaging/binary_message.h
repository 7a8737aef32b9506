// The binary message: a fixed 44-byte header followed by the arguments of
// its class (layout in frame_format.h). One class per message type derives
// from one of four kinds.
#ifndef DRAVIK_MESSAGING_BINARY_MESSAGE_H_
#define DRAVIK_MESSAGING_BINARY_MESSAGE_H_

#include <atomic>
#include <cstdint>
#include <map>

#include "messaging/binary_stream.h"
#include "messaging/frame_format.h"
#include "messaging/timestamp.h"

class BinaryOutputFifo;

class BinaryMessage {
 public:
  // version 1, sender defaultSender, a new id from lastId, the current time,
  // everything else 0.
  BinaryMessage();
  virtual ~BinaryMessage() = default;

  // Performs the message. The default writes an error line on standard
  // error: classes of a kind without behaviour of their own must override it.
  virtual void Process();
  // The selector put on the wire: the member here, a constant in every
  // concrete class.
  virtual int32_t getSelector() const { return selector; }
  // Decodes the header; a class with arguments decodes them after it.
  virtual void fromStream(bistream& in);
  // Encodes the header; a class with arguments encodes them after it, in
  // the order fromStream reads them.
  virtual void toStream(bostream& out) const;

  int32_t version;
  int32_t sender;
  int32_t recipient;
  int32_t id;
  int32_t correlationId;
  Timestamp timestamp;
  int32_t selector;
  int32_t responseSelector;
  int32_t flags;
  int32_t argsLength;

  // Sender identity stamped into every message built afterwards (-1 until
  // the application sets its endpoint number).
  static int32_t defaultSender;
  // The last id handed out; messages are numbered from 1, from any thread.
  static std::atomic<int32_t> lastId;
  // Where notifications and responses leave the process (not owned).
  static BinaryOutputFifo* notificationOutput;
};

class BinaryCommand : public BinaryMessage {};

// A command that is answered. Its Process() builds the response and sends it;
// the answer's arguments are produced by responseToStream while the response
// is being encoded.
class BinaryRequest : public BinaryCommand {
 public:
  void Process() override;
  virtual int32_t getResponseSelector() const = 0;
  virtual void responseToStream(bostream& out) const = 0;
};

// A message that the process sends: Process() writes it to notificationOutput.
class BinaryNotification : public BinaryMessage {
 public:
  void Process() override;
};

// The answer to a request: addressed to the request's sender, correlated with
// its id, carrying its response selector.
class BinaryResponse : public BinaryNotification {
 public:
  // REQUIRES: `request` outlives the response.
  explicit BinaryResponse(const BinaryRequest& request);
  void toStream(bostream& out) const override;

  const BinaryRequest* request;
};

// Builds a new default-constructed message of one class; the caller owns it.
using BinaryMessageFactory = BinaryMessage* (*)();

template <class M>
BinaryMessage* newMessage() {
  return new M;
}

// The map from selector to factory, created on first use so that static
// initialisers of any translation unit can register into it.
std::map<int32_t, BinaryMessageFactory>& selectorRegistry();

// Adds the pair unless the selector is registered already (the first stays).
void registerSelector(int32_t selector, BinaryMessageFactory factory);

bool isRegistered(int32_t selector);

// Builds the registered class for `selector` and decodes the whole payload
// from `in` (standing at its first byte) into it. Null, building nothing,
// when the selector is not registered.
BinaryMessage* createMessage(int32_t selector, bistream& in);

// Registers a class from a static initialiser:
//   static const SelectorRegistration reg(13, newMessage<MyCommand>);
struct SelectorRegistration {
  SelectorRegistration(int32_t selector, BinaryMessageFactory factory) { registerSelector(selector, factory); }
};

#endif  // DRAVIK_MESSAGING_BINARY_MESSAGE_H_
