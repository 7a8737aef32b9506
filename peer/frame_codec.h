// Catalogue messages as a peer of the service sends and reads them: a frame
// is built from a catalogue entry and argument values with the messaging
// library's own encoders and framing, and a frame read from either pipe is
// decoded into its header and the arguments of the class it carries, or
// into the reason why it cannot be.
//
//   peer::CatalogueMessage save("SaveAnalyticsFilterDataCommand", {1, 0});
//   save.sender = kFilterEndpoint;
//   std::string frame = encodeFrame(save);
#ifndef DRAVIK_PEER_FRAME_CODEC_H_
#define DRAVIK_PEER_FRAME_CODEC_H_

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "messaging/binary_message.h"
#include "store/catalogue.h"

namespace peer {

// The endpoint number that a tool signs with when it plays no endpoint of
// the camera.
constexpr int32_t kToolEndpoint = 100;

// One argument: a number (int32, uint32) or bytes (string, block).
struct Value {
  Value(int64_t n) : number(n) {}  // NOLINT: a table of values reads better without casts
  Value(int n) : number(n) {}      // NOLINT
  Value(std::string b) : bytes(std::move(b)) {}  // NOLINT
  Value(const char* b) : bytes(b) {}             // NOLINT
  int64_t number = 0;
  std::string bytes;
};

// A message of a catalogue class, addressed to the service (recipient 13,
// the entry's response selector), with the id a new message takes.
class CatalogueMessage : public BinaryMessage {
 public:
  // REQUIRES: `className` names an entry, `values` match its arguments.
  CatalogueMessage(const std::string& className, std::vector<Value> values);
  CatalogueMessage(const catalogue::Entry& entry, std::vector<Value> values);

  int32_t getSelector() const override { return entry.selector; }
  void toStream(bostream& out) const override;

  const catalogue::Entry& entry;
  std::vector<Value> values;
};

// The header as it stands in a frame; the timestamp is the raw millisecond
// count.
struct FrameHeader {
  int32_t version = 0;
  int32_t sender = 0;
  int32_t recipient = 0;
  int32_t id = 0;
  int32_t correlationId = 0;
  int64_t timestamp = 0;
  int32_t selector = 0;
  int32_t responseSelector = 0;
  int32_t flags = 0;
  int32_t argsLength = 0;
};

struct DecodedFrame {
  std::string raw;         // the whole frame, length prefix included
  bool hasHeader = false;  // the 44 header bytes were there
  FrameHeader header;
  const catalogue::Entry* entry = nullptr;  // null when undecodable
  std::vector<Value> args;                  // in the entry's order
  std::string error;                        // why it is undecodable
  std::vector<std::string> notes;           // oddities of a decoded frame

  bool decoded() const { return entry != nullptr; }
  // The argument called `name`, or null.
  const Value* arg(const std::string& name) const;
};

// "int32", "uint32", "string" or "block": an argument's type as the tools
// name it (list, the dissector).
const char* typeName(catalogue::ArgType type);

// `frame` as read from a pipe: the 4-byte length and the payload, or fewer
// bytes when the pipe ended inside it, or only the 4 bytes of a length that
// no reader accepts. `flow` is the pipe's: in for the service's mailbox, out
// for its notification pipe. A response to a request that chose its own
// response selector (any frame out with a correlation id and exactly one
// string argument) decodes as GetAnalyticsFilterDataResponse.
DecodedFrame decodeFrame(const std::string& frame, catalogue::Flow flow);

// Message ids that differ between runs of a tool, so that an answer left in
// the notification pipe by an earlier run never matches a new request.
void seedMessageIds();

}  // namespace peer

#endif  // DRAVIK_PEER_FRAME_CODEC_H_
