#include "tests/support/hex.h"

#include <gtest/gtest.h>

#include <cctype>

namespace {

int digitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::string bigEndian(uint64_t value, int width) {
  std::string bytes(static_cast<std::size_t>(width), '\0');
  for (int i = width - 1; i >= 0; --i) {
    bytes[static_cast<std::size_t>(i)] = static_cast<char>(value & 0xFF);
    value >>= 8;
  }
  return bytes;
}

}  // namespace

std::string bytesFromHex(const std::string& hex) {
  std::string bytes;
  int high = -1;
  for (char c : hex) {
    if (c == ' ' || c == ',' || c == '\n' || c == '\t') {
      if (high >= 0) ADD_FAILURE() << "odd hex digit in \"" << hex << "\"";
      high = -1;
      continue;
    }
    int value = digitValue(c);
    if (value < 0) {
      ADD_FAILURE() << "not a hex digit '" << c << "' in \"" << hex << "\"";
      return bytes;
    }
    if (high < 0) {
      high = value;
    } else {
      bytes.push_back(static_cast<char>(high << 4 | value));
      high = -1;
    }
  }
  if (high >= 0) ADD_FAILURE() << "odd hex digit in \"" << hex << "\"";
  return bytes;
}

std::vector<uint8_t> hexBytes(const std::string& hex) {
  std::string bytes = bytesFromHex(hex);
  return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

std::string toHex(const void* data, std::size_t size) {
  static const char digits[] = "0123456789ABCDEF";
  const unsigned char* bytes = static_cast<const unsigned char*>(data);
  std::string text;
  text.reserve(size * 3);
  for (std::size_t i = 0; i < size; ++i) {
    if (i != 0) text.push_back(' ');
    text.push_back(digits[bytes[i] >> 4]);
    text.push_back(digits[bytes[i] & 0xF]);
  }
  return text;
}

std::string toHex(const std::string& bytes) { return toHex(bytes.data(), bytes.size()); }
std::string toHex(const std::vector<uint8_t>& bytes) { return toHex(bytes.data(), bytes.size()); }

std::string canonicalHex(const std::string& hex) { return toHex(bytesFromHex(hex)); }

std::string be16(uint16_t value) { return bigEndian(value, 2); }
std::string be32(uint32_t value) { return bigEndian(value, 4); }
std::string be64(uint64_t value) { return bigEndian(value, 8); }
