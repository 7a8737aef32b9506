// Decodes whole frames into the header and the arguments of the catalogue
// class that they carry, for printing. It is independent of the selector
// registry: a selector that several classes share (13001, 13004, 13005) is
// named by the direction of the pipe the frame was read from and by its
// recipient, and a frame that cannot be decoded says why instead of
// disappearing.
#ifndef DRAVIK_TOOLS_DRAVIKCTL_FRAME_DECODER_H_
#define DRAVIK_TOOLS_DRAVIKCTL_FRAME_DECODER_H_

#include <cstdint>
#include <string>
#include <vector>

namespace dravikctl {

// toService: frames on the service's mailbox (commands, requests, answers).
// fromService: frames on the notification pipe (notifications, responses).
enum class Direction { toService, fromService };

struct FrameHeader {
  int32_t version = 0;
  int32_t sender = 0;
  int32_t recipient = 0;
  int32_t id = 0;
  int32_t correlationId = 0;
  int64_t timestamp = 0;  // milliseconds since the epoch, as sent
  int32_t selector = 0;
  int32_t responseSelector = 0;
  int32_t flags = 0;
  int32_t argsLength = 0;
};

struct Argument {
  enum class Kind { integer, text, bytes };
  std::string name;
  Kind kind = Kind::integer;
  int64_t number = 0;   // integer (signed or unsigned 32-bit value)
  std::string value;    // text or bytes
};

struct DecodedFrame {
  std::string raw;         // the whole frame, length prefix included
  bool hasHeader = false;  // the header could be read
  FrameHeader header;
  std::string className;   // empty when the frame is undecodable
  std::vector<Argument> arguments;
  std::string error;       // why the frame is undecodable; empty otherwise
  std::vector<std::string> notes;  // oddities of a decoded frame

  bool decoded() const { return error.empty(); }
  // The argument called `name`, or null.
  const Argument* argument(const std::string& name) const;
};

// `frame` is one frame as read from a pipe: the 4-byte length and the
// payload, or fewer bytes when the pipe ended inside it, or only the 4 bytes
// of a length that no reader accepts.
DecodedFrame decodeFrame(const std::string& frame, Direction direction);

// The name of the class that a frame with these values carries, or empty
// when the catalogue has none.
std::string catalogueClassName(int32_t selector, Direction direction, int32_t recipient, int32_t responseSelector);

// The one string argument of a response (GetAnalyticsFilterData's answer),
// whatever response selector the requester chose. False if the arguments are
// not exactly one string.
bool responseText(const DecodedFrame& frame, std::string* text);

}  // namespace dravikctl

#endif  // DRAVIK_TOOLS_DRAVIKCTL_FRAME_DECODER_H_
