// The wire format written out by hand: an oracle that shares no code with
// the product's encoders, so that tests state bytes the way they are
// documented ("00 00 00 2C, 00 00 00 01") and a fault in the product cannot
// hide behind the same fault in the check.
#ifndef DRAVIK_TESTS_SUPPORT_WIRE_H_
#define DRAVIK_TESTS_SUPPORT_WIRE_H_

#include <cstdint>
#include <string>
#include <vector>

// The bytes of `hex`: pairs of hex digits; blanks, commas and line breaks
// between pairs are ignored. Fails the current test on anything else.
std::string bytesFromHex(const std::string& hex);
// Uppercase pairs separated by one blank: "00 00 00 2C".
std::string toHex(const std::string& bytes);

std::string be16(uint16_t value);
std::string be32(uint32_t value);
std::string be64(uint64_t value);
// The 32-bit value at `offset` of `bytes`.
int32_t be32At(const std::string& bytes, std::size_t offset);
// A string argument (16-bit length, bytes) and a block (32-bit length, bytes).
std::string str(const std::string& text);
std::string block(const std::string& bytes);

// A header as a peer fills it in. argsLength -1: the length of the
// arguments that follow.
struct Header {
  int32_t selector = 0;
  int32_t sender = 11;
  int32_t recipient = 13;
  int32_t id = 1;
  int32_t correlationId = 0;
  int32_t responseSelector = 0;
  int64_t milliseconds = 0;
  int32_t flags = 0;
  int32_t version = 1;
  int32_t argsLength = -1;
};

// A whole frame: the 4-byte length, the 44-byte header, the arguments.
std::string frame(const Header& header, const std::string& args = "");

// Cuts bytes read from a pipe into frames by their length prefixes, with no
// limit on a frame's length; what is left of a frame cut short is dropped.
std::vector<std::string> splitFrames(const std::string& bytes);

// What the service sends, with its id and timestamp left open: the hex of
// the frame with "xx" for each byte of those two fields (the id must be
// positive; matchFrame checks that).
std::string framePattern(int32_t selector, int32_t recipient, int32_t responseSelector, const std::string& args,
                         int32_t correlationId = 0);
// Empty when `bytes` match `pattern` (hex, "xx" matching any byte), else a
// description of the difference.
std::string matchFrame(const std::string& bytes, const std::string& pattern);

#endif  // DRAVIK_TESTS_SUPPORT_WIRE_H_
