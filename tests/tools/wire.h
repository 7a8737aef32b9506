// Frames for the dravikctl tests, built by hand from the documented layout
// (length, 44-byte header, arguments) rather than by the code under test.
#ifndef DRAVIK_TESTS_TOOLS_WIRE_H_
#define DRAVIK_TESTS_TOOLS_WIRE_H_

#include <cstdint>
#include <string>

#include "tests/support/hex.h"

struct TestHeader {
  int32_t version = 1;
  int32_t sender = 13;
  int32_t recipient = 2;
  int32_t id = 7;
  int32_t correlationId = 0;
  int64_t timestamp = 1700000000123;
  int32_t selector = 0;
  int32_t responseSelector = 0;
  int32_t flags = 0;
};

// The header followed by `args`, with the payload length in front and
// argsLength set to the size of `args`.
inline std::string testFrame(const TestHeader& h, const std::string& args) {
  std::string payload = be32(static_cast<uint32_t>(h.version)) + be32(static_cast<uint32_t>(h.sender)) +
                        be32(static_cast<uint32_t>(h.recipient)) + be32(static_cast<uint32_t>(h.id)) +
                        be32(static_cast<uint32_t>(h.correlationId)) + be64(static_cast<uint64_t>(h.timestamp)) +
                        be32(static_cast<uint32_t>(h.selector)) + be32(static_cast<uint32_t>(h.responseSelector)) +
                        be32(static_cast<uint32_t>(h.flags)) + be32(static_cast<uint32_t>(args.size())) + args;
  return be32(static_cast<uint32_t>(payload.size())) + payload;
}

inline std::string int32Arg(int32_t value) { return be32(static_cast<uint32_t>(value)); }
inline std::string stringArg(const std::string& text) {
  return be16(static_cast<uint16_t>(text.size())) + text;
}
inline std::string blockArg(const std::string& bytes) { return be32(static_cast<uint32_t>(bytes.size())) + bytes; }

#endif  // DRAVIK_TESTS_TOOLS_WIRE_H_
