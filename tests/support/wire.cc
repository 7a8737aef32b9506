#include "tests/support/wire.h"

#include <gtest/gtest.h>

namespace {

std::string bigEndian(uint64_t value, int width) {
  std::string bytes(static_cast<std::size_t>(width), '\0');
  for (int i = width - 1; i >= 0; --i, value >>= 8) bytes[static_cast<std::size_t>(i)] = static_cast<char>(value);
  return bytes;
}

// Hex pairs, "xx" kept as -1.
std::vector<int> parsePattern(const std::string& hex) {
  std::vector<int> bytes;
  std::string digits;
  for (char c : hex) {
    if (c == ' ' || c == ',' || c == '\n') continue;
    digits += c;
    if (digits.size() < 2) continue;
    if (digits == "xx") {
      bytes.push_back(-1);
    } else {
      std::size_t used = 0;
      int value = std::stoi(digits, &used, 16);
      if (used != 2) ADD_FAILURE() << "bad hex pair " << digits;
      bytes.push_back(value);
    }
    digits.clear();
  }
  if (!digits.empty()) ADD_FAILURE() << "odd hex digit in \"" << hex << "\"";
  return bytes;
}

}  // namespace

std::string bytesFromHex(const std::string& hex) {
  std::string bytes;
  for (int b : parsePattern(hex)) bytes.push_back(static_cast<char>(b));
  return bytes;
}

std::string toHex(const std::string& bytes) {
  static const char digits[] = "0123456789ABCDEF";
  std::string text;
  for (unsigned char c : bytes) {
    if (!text.empty()) text += ' ';
    text += digits[c >> 4];
    text += digits[c & 0xF];
  }
  return text;
}

std::string be16(uint16_t value) { return bigEndian(value, 2); }
std::string be32(uint32_t value) { return bigEndian(value, 4); }
std::string be64(uint64_t value) { return bigEndian(value, 8); }
int32_t be32At(const std::string& bytes, std::size_t offset) {
  uint32_t value = 0;
  for (std::size_t i = offset; i < offset + 4 && i < bytes.size(); ++i) value = value << 8 | static_cast<unsigned char>(bytes[i]);
  return static_cast<int32_t>(value);
}

std::string str(const std::string& text) { return be16(static_cast<uint16_t>(text.size())) + text; }
std::string block(const std::string& bytes) { return be32(static_cast<uint32_t>(bytes.size())) + bytes; }

std::string frame(const Header& h, const std::string& args) {
  int32_t argsLength = h.argsLength >= 0 ? h.argsLength : static_cast<int32_t>(args.size());
  std::string payload = be32(h.version) + be32(h.sender) + be32(h.recipient) + be32(h.id) + be32(h.correlationId) +
                        be64(h.milliseconds) + be32(h.selector) + be32(h.responseSelector) + be32(h.flags) +
                        be32(argsLength) + args;
  return be32(static_cast<uint32_t>(payload.size())) + payload;
}

std::vector<std::string> splitFrames(const std::string& bytes) {
  std::vector<std::string> frames;
  for (std::size_t at = 0; at + 4 <= bytes.size();) {
    std::size_t size = 4 + static_cast<uint32_t>(be32At(bytes, at));
    if (at + size > bytes.size()) break;
    frames.push_back(bytes.substr(at, size));
    at += size;
  }
  return frames;
}

std::string framePattern(int32_t selector, int32_t recipient, int32_t responseSelector, const std::string& args,
                         int32_t correlationId) {
  const std::string open4 = "xx xx xx xx";
  return toHex(be32(static_cast<uint32_t>(44 + args.size())) + be32(1) + be32(13) + be32(recipient)) + " " + open4 +
         " " + toHex(be32(correlationId)) + " " + open4 + " " + open4 + " " +
         toHex(be32(selector) + be32(responseSelector) + be32(0) + be32(static_cast<uint32_t>(args.size())) + args);
}

std::string matchFrame(const std::string& bytes, const std::string& pattern) {
  std::vector<int> expected = parsePattern(pattern);
  bool same = bytes.size() == expected.size();
  for (std::size_t i = 0; same && i < bytes.size(); ++i) {
    same = expected[i] < 0 || expected[i] == static_cast<unsigned char>(bytes[i]);
  }
  // The id (frame offset 16) is the service's own and must be positive.
  if (same && bytes.size() >= 20) same = static_cast<signed char>(bytes[16]) >= 0 && bytes.substr(16, 4) != be32(0);
  if (same) return "";
  return "got      " + toHex(bytes).substr(0, 300) + "\nexpected " + pattern.substr(0, 300);
}
