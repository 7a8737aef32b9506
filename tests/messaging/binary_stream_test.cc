// The binary value encoding: exact bytes of every value type, and the limits
// of the length-prefixed decoders with their reports and the bytes they use.
#include "messaging/binary_stream.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <sstream>
#include <string>

#include "tests/support/console_capture.h"
#include "tests/support/hex.h"

namespace {

class EncodeTest : public ::testing::Test {
 protected:
  std::string encoded() const { return toHex(target_.str()); }

  std::ostringstream target_;
  bostream out_{target_};
};

TEST_F(EncodeTest, BoolIsFFOrZero) {
  out_ << true << false;
  EXPECT_EQ(encoded(), "FF 00");
}

TEST_F(EncodeTest, CharactersAreWrittenUnchanged) {
  char plain = 'g';
  signed char negative = -1;
  unsigned char high = 0xAB;
  out_ << plain << negative << high;
  EXPECT_EQ(encoded(), "67 FF AB");
}

TEST_F(EncodeTest, SixteenBitValuesAreBigEndian) {
  out_ << uint16_t{0x1234} << int16_t{-2};
  EXPECT_EQ(encoded(), "12 34 FF FE");
}

TEST_F(EncodeTest, ThirtyTwoBitValuesAreBigEndian) {
  out_ << uint32_t{0x01020304} << int32_t{-2};
  EXPECT_EQ(encoded(), "01 02 03 04 FF FF FF FE");
}

TEST_F(EncodeTest, SixtyFourBitValuesAreBigEndianOverAllEightBytes) {
  out_ << uint64_t{0x0102030405060708ULL} << int64_t{-2};
  EXPECT_EQ(encoded(), "01 02 03 04 05 06 07 08 FF FF FF FF FF FF FF FE");
}

TEST_F(EncodeTest, FloatIsItsBitPatternBigEndian) {
  out_ << 1.0f << -2.5f;
  EXPECT_EQ(encoded(), "3F 80 00 00 C0 20 00 00");
}

TEST_F(EncodeTest, StringIsSixteenBitLengthThenBytesWithoutTerminator) {
  out_ << std::string("get");
  EXPECT_EQ(encoded(), "00 03 67 65 74");
}

TEST_F(EncodeTest, EmptyStringIsTwoZeroBytes) {
  out_ << std::string();
  EXPECT_EQ(encoded(), "00 00");
}

TEST_F(EncodeTest, ByteArrayIsThirtyTwoBitLengthThenBytes) {
  byteArray block;
  block.assign("\xAB\xCD", 2);
  out_ << block;
  EXPECT_EQ(encoded(), "00 00 00 02 AB CD");
}

TEST_F(EncodeTest, EmptyByteArrayIsItsLengthOnly) {
  byteArray block;
  out_ << block;
  EXPECT_EQ(encoded(), "00 00 00 00");
}

TEST_F(EncodeTest, RefusedByteArrayEncodesItsLengthOnly) {
  std::istringstream source(be32(65537) + "abcd");
  bistream in(source);
  byteArray block;
  ConsoleCapture console;
  in >> block;
  ASSERT_EQ(block.data, nullptr);
  out_ << block;
  EXPECT_EQ(encoded(), "00 01 00 01");
}

TEST_F(EncodeTest, IntegerArrayIsCountThenBigEndianElements) {
  integerArray numbers;
  numbers.count = 2;
  numbers.data = new int32_t[2]{0x01020304, -2};
  out_ << numbers;
  EXPECT_EQ(encoded(), "00 00 00 02 01 02 03 04 FF FF FF FE");
}

TEST_F(EncodeTest, IntegerArrayAboveLimitWritesNothing) {
  integerArray numbers;
  numbers.count = kMaxIntegerArrayCount + 1;
  numbers.data = new int32_t[numbers.count]();
  ConsoleCapture console;
  out_ << numbers;
  EXPECT_EQ(target_.str().size(), 0u);
  EXPECT_EQ(console.err(), "");
}

TEST_F(EncodeTest, TimestampIsMillisecondsTruncated) {
  Timestamp t;
  t.seconds = 1;
  t.microseconds = 999999;
  out_ << t;
  EXPECT_EQ(encoded(), "00 00 00 00 00 00 07 CF");
}

TEST_F(EncodeTest, ZeroTimestampIsEightZeroBytes) {
  out_ << Timestamp{};
  EXPECT_EQ(encoded(), "00 00 00 00 00 00 00 00");
}

TEST_F(EncodeTest, ValuesChainInOrder) {
  out_ << true << uint16_t{1} << std::string("a") << int32_t{2};
  EXPECT_EQ(encoded(), "FF 00 01 00 01 61 00 00 00 02");
}

// Every encoder goes through write(), so a derived stream sees every byte.
class CollectingStream : public bostream {
 public:
  explicit CollectingStream(std::ostream& unused) : bostream(unused) {}
  void write(const char* bytes, int count) override { collected.append(bytes, static_cast<std::size_t>(count)); }
  std::string collected;
};

TEST(BostreamWriteTest, DerivedWriteReceivesEveryByte) {
  std::ostringstream target;
  CollectingStream out(target);
  byteArray block;
  block.assign("\x01\x02", 2);
  integerArray numbers;
  numbers.count = 1;
  numbers.data = new int32_t[1]{7};
  out << true << 'x' << uint16_t{0x1234} << int32_t{-1} << 0.5f << uint64_t{1} << std::string("ab") << block
      << numbers << Timestamp{};
  EXPECT_EQ(target.str(), "");
  EXPECT_EQ(toHex(out.collected), canonicalHex("FF 78 12 34 FF FF FF FF 3F 00 00 00 00 00 00 00 00 00 00 01"
                                               " 00 02 61 62 00 00 00 02 01 02 00 00 00 01 00 00 00 07"
                                               " 00 00 00 00 00 00 00 00"));
}

class DecodeTest : public ::testing::Test {
 protected:
  // Decodes from the bytes of `hex`.
  bistream& from(const std::string& hex) { return fromBytes(bytesFromHex(hex)); }
  bistream& fromBytes(const std::string& bytes) {
    source_.str(bytes);
    source_.clear();
    return in_;
  }
  std::streamoff consumed() { return source_.tellg(); }

  std::istringstream source_;
  bistream in_{source_};
  ConsoleCapture console_;
};

TEST_F(DecodeTest, AnyNonZeroByteIsTrue) {
  bool a = false, b = false, c = false, d = true;
  from("01 80 FF 00") >> a >> b >> c >> d;
  EXPECT_TRUE(a);
  EXPECT_TRUE(b);
  EXPECT_TRUE(c);
  EXPECT_FALSE(d);
}

TEST_F(DecodeTest, CharactersAreReadUnchanged) {
  char plain = 0;
  signed char negative = 0;
  unsigned char high = 0;
  from("67 FF AB") >> plain >> negative >> high;
  EXPECT_EQ(plain, 'g');
  EXPECT_EQ(negative, -1);
  EXPECT_EQ(high, 0xAB);
}

TEST_F(DecodeTest, FixedWidthValuesAreBigEndian) {
  uint16_t u16 = 0;
  int16_t s16 = 0;
  uint32_t u32 = 0;
  int32_t s32 = 0;
  uint64_t u64 = 0;
  int64_t s64 = 0;
  float f = 0;
  from("12 34 FF FE 01 02 03 04 FF FF FF FE 01 02 03 04 05 06 07 08 FF FF FF FF FF FF FF FE C0 20 00 00") >> u16 >>
      s16 >> u32 >> s32 >> u64 >> s64 >> f;
  EXPECT_EQ(u16, 0x1234);
  EXPECT_EQ(s16, -2);
  EXPECT_EQ(u32, 0x01020304u);
  EXPECT_EQ(s32, -2);
  EXPECT_EQ(u64, 0x0102030405060708ULL);
  EXPECT_EQ(s64, -2);
  EXPECT_EQ(f, -2.5f);
  EXPECT_EQ(consumed(), 32);
}

TEST_F(DecodeTest, StringReplacesTarget) {
  std::string text = "previous";
  from("00 03 67 65 74") >> text;
  EXPECT_EQ(text, "get");
  EXPECT_EQ(consumed(), 5);
}

TEST_F(DecodeTest, EmptyStringConsumesTwoBytesAndLeavesTargetUnchanged) {
  std::string text = "kept";
  from("00 00 41") >> text;
  EXPECT_EQ(text, "kept");
  EXPECT_EQ(consumed(), 2);
  EXPECT_TRUE(source_.good());
}

TEST_F(DecodeTest, LongestStringIsAccepted) {
  std::string body(0x7FFF, 'z');
  std::string text;
  fromBytes(be16(0x7FFF) + body) >> text;
  EXPECT_EQ(text, body);
  EXPECT_EQ(consumed(), 2 + 0x7FFF);
  EXPECT_EQ(console_.err(), "");
}

TEST_F(DecodeTest, OverlongStringIsRefusedAfterItsPrefix) {
  std::string text = "kept";
  fromBytes(be16(0x8000) + "abc") >> text;
  EXPECT_EQ(text, "kept");
  EXPECT_EQ(consumed(), 2);
  EXPECT_TRUE(source_.good());
  EXPECT_EQ(console_.err(), "Error: >> string[32768]: invalid length!\n");
  EXPECT_EQ(console_.out(), "");
}

TEST_F(DecodeTest, ByteArrayReadsItsBlock) {
  byteArray block;
  from("00 00 00 02 AB CD EF") >> block;
  ASSERT_EQ(block.length, 2u);
  ASSERT_NE(block.data, nullptr);
  EXPECT_EQ(toHex(block.data, block.length), "AB CD");
  EXPECT_EQ(consumed(), 6);
}

TEST_F(DecodeTest, EmptyByteArrayHasNoBlock) {
  byteArray block;
  block.assign("x", 1);
  from("00 00 00 00 FF") >> block;
  EXPECT_EQ(block.length, 0u);
  EXPECT_EQ(block.data, nullptr);
  EXPECT_EQ(consumed(), 4);
}

TEST_F(DecodeTest, LargestByteArrayIsAccepted) {
  std::string body(65536, '\0');
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 7);
  byteArray block;
  fromBytes(be32(65536) + body) >> block;
  ASSERT_EQ(block.length, 65536u);
  ASSERT_NE(block.data, nullptr);
  EXPECT_EQ(std::memcmp(block.data, body.data(), body.size()), 0);
  EXPECT_EQ(consumed(), 4 + 65536);
  EXPECT_EQ(console_.err(), "");
}

TEST_F(DecodeTest, OversizedByteArrayKeepsLengthWithoutBlock) {
  byteArray block;
  fromBytes(be32(65537) + "abcd") >> block;
  EXPECT_EQ(block.length, 65537u);
  EXPECT_EQ(block.data, nullptr);
  EXPECT_EQ(consumed(), 4);
  EXPECT_TRUE(source_.good());
  EXPECT_EQ(console_.err(), "Error: >> byteArray[65537]: invalid length!\n");
}

TEST_F(DecodeTest, IntegerArrayReadsItsElements) {
  integerArray numbers;
  from("00 00 00 02 01 02 03 04 FF FF FF FE") >> numbers;
  ASSERT_EQ(numbers.count, 2u);
  ASSERT_NE(numbers.data, nullptr);
  EXPECT_EQ(numbers.data[0], 0x01020304);
  EXPECT_EQ(numbers.data[1], -2);
  EXPECT_EQ(consumed(), 12);
}

TEST_F(DecodeTest, EmptyIntegerArrayConsumesItsCountOnly) {
  integerArray numbers;
  from("00 00 00 00 FF") >> numbers;
  EXPECT_EQ(numbers.count, 0u);
  EXPECT_EQ(numbers.data, nullptr);
  EXPECT_EQ(consumed(), 4);
}

TEST_F(DecodeTest, LargestIntegerArrayRoundTrips) {
  integerArray sent;
  sent.count = kMaxIntegerArrayCount;
  sent.data = new int32_t[sent.count];
  for (uint32_t i = 0; i < sent.count; ++i) sent.data[i] = static_cast<int32_t>(i * 2654435761u);
  std::ostringstream target;
  bostream out(target);
  out << sent;
  ASSERT_EQ(target.str().size(), 4u + 4u * kMaxIntegerArrayCount);
  EXPECT_EQ(toHex(target.str().substr(0, 4)), "00 00 40 00");

  integerArray received;
  fromBytes(target.str()) >> received;
  ASSERT_EQ(received.count, kMaxIntegerArrayCount);
  ASSERT_NE(received.data, nullptr);
  EXPECT_EQ(std::memcmp(received.data, sent.data, 4u * kMaxIntegerArrayCount), 0);
  EXPECT_EQ(console_.err(), "");
}

TEST_F(DecodeTest, OversizedIntegerArrayKeepsCountWithoutElements) {
  integerArray numbers;
  fromBytes(be32(16385) + be32(1)) >> numbers;
  EXPECT_EQ(numbers.count, 16385u);
  EXPECT_EQ(numbers.data, nullptr);
  EXPECT_EQ(consumed(), 4);
  EXPECT_TRUE(source_.good());
  EXPECT_EQ(console_.err(), "Error: >> integerArray[16385]: invalid length!\n");
}

TEST_F(DecodeTest, TimestampLosesSubMillisecondPrecision) {
  Timestamp t;
  from("00 00 00 00 00 00 07 CF") >> t;
  EXPECT_EQ(t.seconds, 1);
  EXPECT_EQ(t.microseconds, 999000);
}

TEST_F(DecodeTest, ShortReadMarksSourceFailed) {
  int32_t value = 0;
  from("01 02") >> value;
  EXPECT_TRUE(source_.fail());
  EXPECT_TRUE(source_.eof());
}

TEST_F(DecodeTest, ShortReadRaisesWhereSourceHasExceptions) {
  source_.exceptions(std::ios::failbit | std::ios::badbit);
  std::string text;
  EXPECT_THROW(from("00 05 61 62") >> text, std::ios_base::failure);
}

}  // namespace
