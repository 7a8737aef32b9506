// The transcript of a conversation, as monitor, decode and simulate print
// it: each row is a frame seen in one direction at one time, and the line it
// gives, with requests paired with their answers and the filters applied.
#include <gtest/gtest.h>

#include <string>

#include "conversation/transcript.h"
#include "tests/support/wire.h"

namespace {

using catalogue::Flow;
using conversation::Style;
using conversation::Transcript;

struct timespec at(long ms) { return {ms / 1000, (ms % 1000) * 1000000}; }

struct Row {
  const char* frame;
  Flow flow;
  long seenMs;
  std::string text;
  bool passesFilter;  // --direction out --channel 1
};

TEST(Transcript, LinesOfAConversation) {
  const Row rows[] = {
      {"00000030 00000001 00000064 0000000D 00000007 00000000 00000000000003E8 000032CA 000032CB 00000000 00000004"
       " 00000001",
       Flow::in, 1003,
       "00:00:01.003 in GetAnalyticsFilterDataRequest 100->13 id=7 corr=0 resp=13003 channel=1 stamp=00:00:01.000 "
       "age=3ms",
       false},
      {"00000030 00000001 0000000D 00000064 00000003 00000007 00000000000003E9 000032CB 00000000 00000000 00000004"
       " 0002 2F70",
       Flow::out, 1005,
       "00:00:01.005 out GetAnalyticsFilterDataResponse 13->100 id=3 corr=7 resp=0 path=\"/p\" stamp=00:00:01.001 "
       "age=4ms answers=7 after=2.0ms",
       true},  // the answer to a request about channel 1
      // A second answer to the same request: that one is closed, this is unpaired.
      {"00000030 00000001 0000000D 00000064 00000006 00000007 00000000000003E9 000032CB 00000000 00000000 00000004"
       " 0002 2F70",
       Flow::out, 1007,
       "00:00:01.007 out GetAnalyticsFilterDataResponse 13->100 id=6 corr=7 resp=0 path=\"/p\" stamp=00:00:01.001 "
       "age=6ms",
       false},
      {"00000034 00000001 0000000D 00000002 00000004 00000000 00000000000003E8 000032CC 000032CE 00000000 00000008"
       " 00000001 0002 2F66",
       Flow::out, 1010,
       "00:00:01.010 out SetAnalyticsFilterDataNotification 13->2 id=4 corr=0 resp=13006 channel=1 fileName=\"/f\" "
       "stamp=00:00:01.000 age=10ms",
       true},
      {"00000034 00000001 00000002 0000000D 00000009 00000000 00000000000003E8 000032CE 00000000 00000000 00000008"
       " 00000001 00000000",
       Flow::in, 1030,
       "00:00:01.030 in SaveAnalyticsFilterDataCommand 2->13 id=9 corr=0 resp=0 channel=1 status=0 "
       "stamp=00:00:01.000 age=30ms answers=4 after=20.0ms",
       false},
      // A 13002 that names no response selector is answered with selector 0.
      {"00000030 00000001 00000064 0000000D 00000008 00000000 00000000000003E8 000032CA 00000000 00000000 00000004"
       " 00000002",
       Flow::in, 1050,
       "00:00:01.050 in GetAnalyticsFilterDataRequest 100->13 id=8 corr=0 resp=0 channel=2 stamp=00:00:01.000 age=50ms",
       false},
      {"00000030 00000001 0000000D 00000064 00000005 00000008 00000000000003E8 00000000 00000000 00000000 00000004"
       " 0002 2F71",
       Flow::out, 1052,
       "00:00:01.052 out GetAnalyticsFilterDataResponse 13->100 id=5 corr=8 resp=0 path=\"/q\" stamp=00:00:01.000 "
       "age=52ms answers=8 after=2.0ms",
       false},
      // A name over the readers' limit: dravik acts on the frame with an empty one.
      {"00000032 00000001 00000064 0000000D 0000000A 00000000 00000000000003E8 000032CC 00000000 00000000 00000006"
       " 00000001 8000",
       Flow::in, 1060,
       "00:00:01.060 in SetAnalyticsFilterDataCommand 100->13 id=10 corr=0 resp=0 channel=1 fileName=\"\" [fileName: "
       "length 32768 is over the readers' limit of 32767: dravik reads it as empty] stamp=00:00:01.000 age=60ms",
       false},
      {"00000000", Flow::in, 1040, "00:00:01.040 in undecodable frame (invalid frame length 0): 00 00 00 00", false},
  };
  Style plain, json, filtered;
  json.json = true;
  filtered.filter.direction = Flow::out;
  filtered.filter.channel = 1;
  Transcript text(plain), objects(json), some(filtered);
  for (const Row& row : rows) {
    std::string frame = bytesFromHex(row.frame);
    EXPECT_EQ(text.frame(frame, row.flow, at(row.seenMs)), row.text);
    EXPECT_EQ(some.frame(frame, row.flow, at(row.seenMs)), row.passesFilter ? row.text : "") << row.text;
    std::string object = objects.frame(frame, row.flow, at(row.seenMs));
    if (row.seenMs == 1005) {
      EXPECT_EQ(object,
                "{\"time\":\"1970-01-01T00:00:01.005Z\",\"direction\":\"out\",\"class\":\"GetAnalyticsFilterDataResponse\","
                "\"sender\":13,\"recipient\":100,\"id\":3,\"correlationId\":7,\"responseSelector\":0,\"selector\":13003,"
                "\"flags\":0,\"version\":1,\"timestamp\":1001,\"argsLength\":4,\"stamp\":\"1970-01-01T00:00:01.001Z\","
                "\"ageMs\":4,\"args\":{\"path\":\"/p\"},\"answers\":{\"id\":7,\"class\":\"GetAnalyticsFilterDataRequest\","
                "\"afterMs\":2.000}}");
    }
  }
  // Without ages, when the frames' stamps are on another clock.
  Style noAge;
  noAge.noAge = true;
  EXPECT_EQ(Transcript(noAge).frame(bytesFromHex(rows[0].frame), Flow::in, at(1003)),
            "00:00:01.003 in GetAnalyticsFilterDataRequest 100->13 id=7 corr=0 resp=13003 channel=1 stamp=00:00:01.000");
  const std::string datagram = "<11>Jan  1 00:00:01 dravik: RestoreFactorySettings::Invalid Channel=7";
  EXPECT_EQ(text.log(datagram, at(1003)), "00:00:01.003 log err RestoreFactorySettings::Invalid Channel=7");
  EXPECT_EQ(objects.log(datagram, at(1003)),
            "{\"time\":\"1970-01-01T00:00:01.003Z\",\"log\":\"err\",\"message\":\"RestoreFactorySettings::Invalid "
            "Channel=7\"}");
}

}  // namespace
