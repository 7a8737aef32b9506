#include "messaging/binary_stream.h"

#include <cstring>
#include <iostream>

namespace {

// Big-endian conversion by shifts, so that it works the same on every byte
// order and never reads a wider type through a misaligned pointer.
template <class U>
void storeBigEndian(U value, char* out) {
  for (int i = static_cast<int>(sizeof(U)) - 1; i >= 0; --i) {
    out[i] = static_cast<char>(value & 0xFF);
    value = static_cast<U>(value >> 8);
  }
}

template <class U>
U loadBigEndian(const char* in) {
  U value = 0;
  for (std::size_t i = 0; i < sizeof(U); ++i) {
    value = static_cast<U>((value << 8) | static_cast<unsigned char>(in[i]));
  }
  return value;
}

template <class U, class T>
void encodeFixed(bostream& out, T value) {
  U bits;
  static_assert(sizeof bits == sizeof value, "width mismatch");
  std::memcpy(&bits, &value, sizeof bits);
  char bytes[sizeof(U)];
  storeBigEndian(bits, bytes);
  out.write(bytes, static_cast<int>(sizeof bytes));
}

void reportInvalidLength(const char* what, uint64_t length) {
  std::cerr << "Error: >> " << what << "[" << length << "]: invalid length!" << std::endl;
}

}  // namespace

void byteArray::release() {
  if (length != 0 && data != nullptr) delete[] data;
  data = nullptr;
  length = 0;
}

void byteArray::assign(const char* bytes, uint32_t count) {
  release();
  if (count == 0) return;
  data = new char[count];
  std::memcpy(data, bytes, count);
  length = count;
}

void integerArray::release() {
  if (count != 0 && data != nullptr) delete[] data;
  data = nullptr;
  count = 0;
}

void bostream::write(const char* bytes, int count) { target_.write(bytes, count); }

bostream& bostream::operator<<(const bool& value) {
  char byte = value ? static_cast<char>(0xFF) : 0;
  write(&byte, 1);
  return *this;
}
bostream& bostream::operator<<(const char& value) {
  write(&value, 1);
  return *this;
}
bostream& bostream::operator<<(const signed char& value) {
  write(reinterpret_cast<const char*>(&value), 1);
  return *this;
}
bostream& bostream::operator<<(const unsigned char& value) {
  write(reinterpret_cast<const char*>(&value), 1);
  return *this;
}
bostream& bostream::operator<<(const int16_t& value) {
  encodeFixed<uint16_t>(*this, value);
  return *this;
}
bostream& bostream::operator<<(const uint16_t& value) {
  encodeFixed<uint16_t>(*this, value);
  return *this;
}
bostream& bostream::operator<<(const int32_t& value) {
  encodeFixed<uint32_t>(*this, value);
  return *this;
}
bostream& bostream::operator<<(const uint32_t& value) {
  encodeFixed<uint32_t>(*this, value);
  return *this;
}
bostream& bostream::operator<<(const float& value) {
  encodeFixed<uint32_t>(*this, value);
  return *this;
}
bostream& bostream::operator<<(const int64_t& value) {
  encodeFixed<uint64_t>(*this, value);
  return *this;
}
bostream& bostream::operator<<(const uint64_t& value) {
  encodeFixed<uint64_t>(*this, value);
  return *this;
}

bostream& bostream::operator<<(const std::string& value) {
  // Only the low 16 bits of the length fit; the service never sends strings
  // of 32768 bytes or more, which the decoder would refuse anyway.
  *this << static_cast<uint16_t>(value.size());
  if (!value.empty()) write(value.data(), static_cast<int>(value.size()));
  return *this;
}

bostream& bostream::operator<<(const byteArray& value) {
  *this << value.length;
  // A block refused by the decoder keeps its length without data: only the
  // length can be written back, never bytes from a null pointer.
  if (value.length != 0 && value.data != nullptr) write(value.data, static_cast<int>(value.length));
  return *this;
}

bostream& bostream::operator<<(const integerArray& value) {
  // An array the decoder would refuse is not written at all.
  if (value.count > kMaxIntegerArrayCount) return *this;
  *this << value.count;
  for (uint32_t i = 0; i < value.count; ++i) *this << value.data[i];
  return *this;
}

bostream& bostream::operator<<(const Timestamp& value) {
  return *this << toMilliseconds(value);
}

bool bistream::readExactly(char* bytes, std::size_t count) {
  source_.read(bytes, static_cast<std::streamsize>(count));
  return static_cast<std::size_t>(source_.gcount()) == count;
}

template <class U, class T>
bistream& bistream::decodeFixed(T& value) {
  char bytes[sizeof(U)];
  if (readExactly(bytes, sizeof bytes)) {  // a short read leaves the target as it was
    U bits = loadBigEndian<U>(bytes);
    std::memcpy(&value, &bits, sizeof bits);
  }
  return *this;
}

bistream& bistream::operator>>(int16_t& value) { return decodeFixed<uint16_t>(value); }
bistream& bistream::operator>>(uint16_t& value) { return decodeFixed<uint16_t>(value); }
bistream& bistream::operator>>(int32_t& value) { return decodeFixed<uint32_t>(value); }
bistream& bistream::operator>>(uint32_t& value) { return decodeFixed<uint32_t>(value); }
bistream& bistream::operator>>(float& value) { return decodeFixed<uint32_t>(value); }
bistream& bistream::operator>>(int64_t& value) { return decodeFixed<uint64_t>(value); }
bistream& bistream::operator>>(uint64_t& value) { return decodeFixed<uint64_t>(value); }

bistream& bistream::operator>>(bool& value) {
  char byte = 0;
  if (readExactly(&byte, 1)) value = byte != 0;
  return *this;
}
bistream& bistream::operator>>(char& value) {
  char byte = 0;
  if (readExactly(&byte, 1)) value = byte;
  return *this;
}
bistream& bistream::operator>>(signed char& value) {
  char byte = 0;
  if (readExactly(&byte, 1)) value = static_cast<signed char>(byte);
  return *this;
}
bistream& bistream::operator>>(unsigned char& value) {
  char byte = 0;
  if (readExactly(&byte, 1)) value = static_cast<unsigned char>(byte);
  return *this;
}

bistream& bistream::operator>>(std::string& value) {
  uint16_t length = 0;
  *this >> length;
  if (length == 0) return *this;  // nothing more; the target keeps its content
  if (length > kMaxStringLength) {
    reportInvalidLength("string", length);
    return *this;
  }
  std::string text(length, '\0');
  if (readExactly(&text[0], length)) value.swap(text);
  return *this;
}

bistream& bistream::operator>>(byteArray& value) {
  value.release();
  uint32_t length = 0;
  *this >> length;
  value.length = length;
  if (length == 0) return *this;
  if (length > kMaxByteArrayLength) {
    // The refused length stays in `length` with no data, so that the owner
    // can report it; it must never be written out as a block.
    reportInvalidLength("byteArray", length);
    return *this;
  }
  value.data = new char[length];
  source_.read(value.data, length);
  std::size_t got = static_cast<std::size_t>(source_.gcount());
  if (got < length) std::memset(value.data + got, 0, length - got);
  return *this;
}

bistream& bistream::operator>>(integerArray& value) {
  value.release();
  uint32_t count = 0;
  *this >> count;
  value.count = count;
  if (count == 0) return *this;
  if (count > kMaxIntegerArrayCount) {
    reportInvalidLength("integerArray", count);
    return *this;
  }
  value.data = new int32_t[count]();
  for (uint32_t i = 0; i < count; ++i) *this >> value.data[i];
  return *this;
}

bistream& bistream::operator>>(Timestamp& value) {
  char bytes[8];
  if (readExactly(bytes, sizeof bytes)) value = fromMilliseconds(loadBigEndian<uint64_t>(bytes));
  return *this;
}
