// Captures: the exact bytes of a file of one frame in each direction, read
// back; and the files that are refused, with the reason.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "conversation/pcapng.h"
#include "tests/support/wire.h"

namespace {

using catalogue::Flow;

// With the application ("dravikctl") and the interface's name ("dravik").
const char* const kSectionAndInterface =
    "0A0D0D0A 30000000 4D3C2B1A 0100 0000 FFFFFFFF FFFFFFFF 0400 0900 64726176696B63746C 000000 00000000 30000000"
    " 01000000 24000000 9300 0000 00000000 0200 0600 64726176696B 0000 00000000 24000000";

TEST(Pcapng, WritesAndReadsBothDirections) {
  struct timespec seen = {1, 2003000};  // 1.002003 s: 1002003 µs = 0x000F4A13
  std::string file = pcapng::fileHeader() + pcapng::packetBlock(bytesFromHex("0000000000"), Flow::in, seen) +
                     pcapng::packetBlock(bytesFromHex("00000000"), Flow::out, seen);
  EXPECT_EQ(toHex(file), toHex(bytesFromHex(std::string(kSectionAndInterface) +
                                      " 06000000 34000000 00000000 00000000 134A0F00 05000000 05000000"
                                      " 00000000 00000000 0200 0400 01000000 0000 0000 34000000"
                                      " 06000000 30000000 00000000 00000000 134A0F00 04000000 04000000"
                                      " 00000000 0200 0400 02000000 0000 0000 30000000")));
  std::vector<pcapng::Packet> packets;
  std::string error;
  ASSERT_TRUE(pcapng::readCapture(file, &packets, &error)) << error;
  ASSERT_EQ(packets.size(), 2u);
  EXPECT_EQ(toHex(packets[0].data), "00 00 00 00 00");
  EXPECT_EQ(packets[0].direction, Flow::in);
  EXPECT_EQ(packets[1].direction, Flow::out);
  EXPECT_EQ(packets[1].seen.tv_sec, 1);
  EXPECT_EQ(packets[1].seen.tv_nsec, 2003000);
}

TEST(Pcapng, RefusesWhatIsNoCaptureOfFrames) {
  const struct {
    std::string hex;
    std::string error;
  } rows[] = {
      {"", "empty file, not a pcapng capture"},
      {"01000000 0C000000 0C000000", "not a pcapng file (block at byte 0)"},
      {"0A0D0D0A 1C000000 01020304 0100 0000 FFFFFFFF FFFFFFFF 1C000000", "no pcapng byte order magic (block at byte 0)"},
      {"0A0D0D0A 1C000000 4D3C2B1A 0100 0000 FFFFFFFF FFFFFFFF 1C000000 01000000 14000000 0100 0000 00000000 14000000",
       "interface of link type 1, not 147 (dravik frames) (block at byte 28)"},
      {std::string(kSectionAndInterface) + " 06000000 FF000000 00000000", "block of invalid length 255 (block at byte 84)"},
  };
  for (const auto& row : rows) {
    std::vector<pcapng::Packet> packets;
    std::string error;
    EXPECT_FALSE(pcapng::readCapture(bytesFromHex(row.hex), &packets, &error)) << row.error;
    EXPECT_EQ(error, row.error);
  }
}

}  // namespace
