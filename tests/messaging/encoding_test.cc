// Values of the wire format: each row encodes a value and pins its bytes,
// or decodes bytes and pins the value, what was consumed and the report.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "messaging/binary_stream.h"
#include "tests/support/capture.h"
#include "tests/support/wire.h"

namespace {

struct EncodeRow {
  const char* name;
  std::function<void(bostream&)> encode;
  std::string hex;
};

TEST(EncodingTest, ValuesAreWrittenBigEndianWithLengthPrefixes) {
  integerArray pair;
  pair.count = 2;
  pair.data = new int32_t[2]{1, -1};
  integerArray tooLong;
  tooLong.count = 16385;
  tooLong.data = new int32_t[16385]();
  byteArray ab;
  ab.assign("\xAB\xCD", 2);
  const EncodeRow rows[] = {
      {"true", [](bostream& o) { o << true; }, "FF"},
      {"false", [](bostream& o) { o << false; }, "00"},
      {"char", [](bostream& o) { o << 'A'; }, "41"},
      {"int16", [](bostream& o) { o << int16_t{0x1234}; }, "12 34"},
      {"uint16", [](bostream& o) { o << uint16_t{0xFFFE}; }, "FF FE"},
      {"int32 -2", [](bostream& o) { o << int32_t{-2}; }, "FF FF FF FE"},
      {"uint32", [](bostream& o) { o << uint32_t{0x01020304}; }, "01 02 03 04"},
      {"float 1.0", [](bostream& o) { o << 1.0f; }, "3F 80 00 00"},
      {"int64", [](bostream& o) { o << int64_t{0x0102030405060708}; }, "01 02 03 04 05 06 07 08"},
      {"uint64", [](bostream& o) { o << uint64_t{0xF0E0D0C0B0A09080}; }, "F0 E0 D0 C0 B0 A0 90 80"},
      {"string", [](bostream& o) { o << std::string("get"); }, "00 03 67 65 74"},
      {"empty string", [](bostream& o) { o << std::string(); }, "00 00"},
      {"byteArray", [&](bostream& o) { o << ab; }, "00 00 00 02 AB CD"},
      {"empty byteArray", [](bostream& o) { o << byteArray(); }, "00 00 00 00"},
      {"integerArray", [&](bostream& o) { o << pair; }, "00 00 00 02 00 00 00 01 FF FF FF FF"},
      {"integerArray of 16385 is not written", [&](bostream& o) { o << tooLong; }, ""},
      {"timestamp 1 s 999999 us", [](bostream& o) { o << Timestamp{1, 999999}; }, "00 00 00 00 00 00 07 CF"},
      {"timestamp zero", [](bostream& o) { o << Timestamp{}; }, "00 00 00 00 00 00 00 00"},
  };
  for (const EncodeRow& row : rows) {
    std::ostringstream target;
    bostream out(target);
    row.encode(out);
    EXPECT_EQ(toHex(target.str()), toHex(bytesFromHex(row.hex))) << row.name;
  }
}

TEST(EncodingTest, LargestIntegerArrayGoesBothWays) {
  integerArray big;
  big.count = 16384;
  big.data = new int32_t[16384];
  for (int32_t i = 0; i < 16384; ++i) big.data[i] = i * 7919 - 50000;
  std::stringstream wire;
  bostream(wire) << big;
  EXPECT_EQ(wire.str().size(), 4u + 4u * 16384);
  integerArray back;
  bistream(wire) >> back;
  ASSERT_EQ(back.count, 16384u);
  EXPECT_TRUE(std::equal(back.data, back.data + 16384, big.data));
}

// Decodes a value from the row's bytes and describes it.
struct DecodeRow {
  const char* name;
  std::string hex;
  std::function<std::string(bistream&)> decode;
  std::string value;
  std::size_t consumed;
  std::string err;
};

template <class T>
std::function<std::string(bistream&)> number() {
  return [](bistream& in) {
    T v{};
    in >> v;
    std::ostringstream text;
    text << +v;
    return text.str();
  };
}

std::string describe(const byteArray& b) {
  return std::to_string(b.length) + (b.data == nullptr ? " null" : " " + toHex(std::string(b.data, b.length)));
}

TEST(EncodingTest, DecodersReadBackAndRefuseOversizedLengths) {
  auto asString = [](bistream& in) {
    std::string s = "keep";
    in >> s;
    return s.size() > 8 ? std::to_string(s.size()) + " bytes" : s;
  };
  auto asBlock = [](bistream& in) {
    byteArray b;
    in >> b;
    return describe(b);
  };
  auto asInts = [](bistream& in) {
    integerArray a;
    in >> a;
    return std::to_string(a.count) + (a.data == nullptr ? " null" : " " + std::to_string(a.data[0]));
  };
  auto asTime = [](bistream& in) {
    Timestamp t{5, 5};
    in >> t;
    return std::to_string(t.seconds) + "/" + std::to_string(t.microseconds);
  };
  const std::string big = std::string(32767, 'x');
  const DecodeRow rows[] = {
      {"bool 01", "01", number<bool>(), "1", 1, ""},
      {"bool 80", "80", number<bool>(), "1", 1, ""},
      {"bool 00", "00", number<bool>(), "0", 1, ""},
      {"int32", "FF FF FF FE", number<int32_t>(), "-2", 4, ""},
      {"uint64", "01 02 03 04 05 06 07 08", number<uint64_t>(), "72623859790382856", 8, ""},
      {"short read keeps the target", "01 02", number<int32_t>(), "0", 2, ""},
      {"empty string keeps the target", "00 00 41", asString, "keep", 2, ""},
      {"string", "00 02 68 69 41", asString, "hi", 4, ""},
      {"string of 32767", toHex(be16(32767) + big), asString, "32767 bytes", 32769, ""},
      {"string of 32768", "80 00 41 41", asString, "keep", 2, "Error: >> string[32768]: invalid length!\n"},
      {"empty byteArray", "00 00 00 00 41", asBlock, "0 null", 4, ""},
      {"byteArray", "00 00 00 02 AB CD 41", asBlock, "2 AB CD", 6, ""},
      {"byteArray of 65537", "00 01 00 01 41 41", asBlock, "65537 null", 4,
       "Error: >> byteArray[65537]: invalid length!\n"},
      {"integerArray", "00 00 00 01 FF FF FF FB", asInts, "1 -5", 8, ""},
      {"integerArray of 16385", "00 00 40 01 41", asInts, "16385 null", 4,
       "Error: >> integerArray[16385]: invalid length!\n"},
      {"timestamp", "00 00 00 00 00 00 07 CF", asTime, "1/999000", 8, ""},
      {"timestamp 2^31 s", "00 00 01 F3 FF FF FC 18", asTime, "2147483647/0", 8, ""},
  };
  for (const DecodeRow& row : rows) {
    ConsoleCapture console;
    std::istringstream source(bytesFromHex(row.hex));
    bistream in(source);
    EXPECT_EQ(row.decode(in), row.value) << row.name;
    source.clear();
    EXPECT_EQ(static_cast<std::size_t>(source.tellg()), row.consumed) << row.name;
    EXPECT_EQ(console.takeErr(), row.err) << row.name;
  }
}

TEST(EncodingTest, LargestByteArrayIsAccepted) {
  std::istringstream source(be32(65536) + std::string(65536, '\x5A'));
  byteArray b;
  bistream(source) >> b;
  ASSERT_EQ(b.length, 65536u);
  EXPECT_EQ(std::string(b.data, b.length), std::string(65536, '\x5A'));
}

}  // namespace
