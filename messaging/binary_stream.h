// The binary value encoding of the wire format: fixed-width big-endian
// values, length-prefixed strings and blocks, and millisecond timestamps.
//
//   bool             1 byte, 0xFF for true (any non-zero byte reads as true)
//   8-bit char       1 byte
//   16/32/64-bit     2/4/8 bytes, big-endian, two's complement
//   float            the IEEE 754 bit pattern as a 32-bit value
//   string           uint16 length n (decoder accepts up to 32767), n bytes
//   byteArray        uint32 length n (decoder accepts up to 65536), n bytes
//   integerArray     uint32 count n (up to 16384), n 32-bit values
//   Timestamp        uint64 milliseconds since the epoch
//
// A refused length or count is reported by one line on standard error; the
// stream is not marked failed and only the prefix has been consumed. A short
// read is left to the stream's state (or its exceptions) for the owner to see;
// the target then keeps its previous value.
#ifndef DRAVIK_MESSAGING_BINARY_STREAM_H_
#define DRAVIK_MESSAGING_BINARY_STREAM_H_

#include <cstdint>
#include <iosfwd>
#include <string>

#include "messaging/timestamp.h"

// The largest string, block and integer array that the decoders accept.
constexpr uint32_t kMaxStringLength = 0x7FFF;
constexpr uint32_t kMaxByteArrayLength = 0x10000;
constexpr uint32_t kMaxIntegerArrayCount = 16384;

// A block of bytes with its length. Owns `data` (allocated by the decoder or
// by the owner with new[]); releases it when destroyed.
struct byteArray {
  uint32_t length = 0;
  char* data = nullptr;

  byteArray() = default;
  ~byteArray() { release(); }
  byteArray(const byteArray&) = delete;
  byteArray& operator=(const byteArray&) = delete;

  // Drops the block: length 0, data null.
  void release();
  // Replaces the content with a copy of `count` bytes.
  void assign(const char* bytes, uint32_t count);
};

// An array of 32-bit integers with its count. Owns `data` like byteArray.
struct integerArray {
  uint32_t count = 0;
  int32_t* data = nullptr;

  integerArray() = default;
  ~integerArray() { release(); }
  integerArray(const integerArray&) = delete;
  integerArray& operator=(const integerArray&) = delete;

  void release();
};

// Encodes values onto a standard output stream, which it does not own.
class bostream {
 public:
  explicit bostream(std::ostream& target) : target_(target) {}
  virtual ~bostream() = default;

  // Every encoder emits its bytes through this one call, so a derived class
  // can redirect the whole output.
  virtual void write(const char* bytes, int count);

  bostream& operator<<(const bool& value);
  bostream& operator<<(const char& value);
  bostream& operator<<(const signed char& value);
  bostream& operator<<(const unsigned char& value);
  bostream& operator<<(const int16_t& value);
  bostream& operator<<(const uint16_t& value);
  bostream& operator<<(const int32_t& value);
  bostream& operator<<(const uint32_t& value);
  bostream& operator<<(const float& value);
  bostream& operator<<(const int64_t& value);
  bostream& operator<<(const uint64_t& value);
  bostream& operator<<(const std::string& value);
  bostream& operator<<(const byteArray& value);
  bostream& operator<<(const integerArray& value);
  bostream& operator<<(const Timestamp& value);

 private:
  std::ostream& target_;
};

// Decodes values from a standard input stream, which it does not own.
class bistream {
 public:
  explicit bistream(std::istream& source) : source_(source) {}
  virtual ~bistream() = default;

  bistream& operator>>(bool& value);
  bistream& operator>>(char& value);
  bistream& operator>>(signed char& value);
  bistream& operator>>(unsigned char& value);
  bistream& operator>>(int16_t& value);
  bistream& operator>>(uint16_t& value);
  bistream& operator>>(int32_t& value);
  bistream& operator>>(uint32_t& value);
  bistream& operator>>(float& value);
  bistream& operator>>(int64_t& value);
  bistream& operator>>(uint64_t& value);
  bistream& operator>>(std::string& value);
  bistream& operator>>(byteArray& value);
  bistream& operator>>(integerArray& value);
  bistream& operator>>(Timestamp& value);

  std::istream& source() { return source_; }

 private:
  // Reads exactly `count` bytes; false on a short read.
  bool readExactly(char* bytes, std::size_t count);
  template <class U, class T>
  bistream& decodeFixed(T& value);

  std::istream& source_;
};

#endif  // DRAVIK_MESSAGING_BINARY_STREAM_H_
