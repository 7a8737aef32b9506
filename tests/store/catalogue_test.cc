// The catalogue table and the daemon's own classes agree on every class's
// arguments: what a peer encodes from the table (dravikctl, the demo, the
// benchmark, the tests' peers), the daemon's class decodes to the same
// values; what the daemon's class encodes, a peer decodes to them. Each row
// pins the argument bytes, literally.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>

#include "messaging/binary_fifo.h"
#include "messaging/memory_stream.h"
#include "peer/frame_codec.h"
#include "store/service_messages.h"
#include "tests/support/capture.h"
#include "tests/support/wire.h"

namespace {

using catalogue::Flow;
using peer::Value;
using Values = std::vector<Value>;
// Arguments by name, in the daemon class's own order.
using Named = std::vector<std::pair<std::string, Value>>;

std::string shown(const Value& v) { return v.bytes.empty() ? std::to_string(v.number) : v.bytes; }
std::vector<std::string> shown(const Values& values) {
  std::vector<std::string> text;
  for (const Value& v : values) text.push_back(shown(v));
  return text;
}
std::vector<std::string> shown(const Named& named) {
  std::vector<std::string> text;
  for (const auto& [name, v] : named) text.push_back(name + "=" + shown(v));
  return text;
}

// The values in the order the table lays the entry's arguments out, taken
// by name: a table that names or orders them otherwise than the class
// encodes different bytes.
Values inTableOrder(const catalogue::Entry& entry, const Named& named) {
  Values values;
  for (const catalogue::Arg& arg : entry.args) {
    for (const auto& [name, v] : named) {
      if (name == arg.name) values.push_back(v);
    }
  }
  return values;
}

Values channelOf(const BinaryMessage& m) {
  return {dynamic_cast<const ChannelCommand&>(m).channel};
}

// A message of class M, filled in by `fill`.
template <class M, class Fill>
std::shared_ptr<BinaryMessage> made(Fill fill) {
  auto message = std::make_shared<M>();
  fill(*message);
  return message;
}

void setBlock(byteArray& block, const std::string& bytes) {
  block.assign(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

// A class that arrives: the peer's frame, decoded by the daemon's class.
struct InRow {
  const char* className;
  Named values;
  const char* argsHex;
  BinaryMessageFactory make;
  std::function<Values(const BinaryMessage&)> read;  // the daemon's members
  std::optional<Values> decodedAs = std::nullopt;     // when not the values sent
};

TEST(CatalogueTest, WhatAPeerEncodesTheDaemonsClassDecodes) {
  const InRow rows[] = {
      {"RestoreFactoryAllSettingsCommand", {}, "", newMessage<RestoreFactoryAllSettingsCommand>,
       [](const BinaryMessage&) { return Values{}; }},
      {"RestoreFactoryVirtualCameraSettingsCommand", {{"channel", -1}}, "FF FF FF FF",
       newMessage<RestoreFactoryVirtualCameraSettingsCommand>, channelOf},
      {"ResetCalibrationCommand", {{"channel", 7}}, "00 00 00 07", newMessage<ResetCalibrationCommand>, channelOf},
      {"RestoreFactoryFilterCommand", {{"channel", 2}}, "00 00 00 02", newMessage<RestoreFactoryFilterCommand>, channelOf},
      {"SetAnalyticsFilterDataCommand", {{"channel", 1}, {"fileName", "/f.xml"}}, "00 00 00 01 00 06 2F 66 2E 78 6D 6C",
       newMessage<SetAnalyticsFilterDataCommand>,
       [](const BinaryMessage& m) {
         auto& c = dynamic_cast<const SetAnalyticsFilterDataCommand&>(m);
         return Values{c.channel, c.fileName};
       }},
      {"SaveAnalyticsFilterDataCommand", {{"channel", 1}, {"status", -5}}, "00 00 00 01 FF FF FF FB", newMessage<SaveAnalyticsFilterDataCommand>,
       [](const BinaryMessage& m) {
         auto& c = dynamic_cast<const SaveAnalyticsFilterDataCommand&>(m);
         return Values{c.channel, c.status};
       }},
      {"GetAnalyticsFilterDataRequest", {{"channel", 3}}, "00 00 00 03", newMessage<GetAnalyticsFilterDataRequest>,
       [](const BinaryMessage& m) { return Values{dynamic_cast<const GetAnalyticsFilterDataRequest&>(m).channel}; }},
      {"CalibrationDataResponse", {{"calibrationData", std::string("\x0A\x0B\x0C")}}, "00 00 00 03 0A 0B 0C", newMessage<CalibrationDataResponse>,
       [](const BinaryMessage& m) {
         auto& c = dynamic_cast<const CalibrationDataResponse&>(m);
         return Values{std::string(c.calibrationData.data, c.calibrationData.length)};
       }},
      // Received, it decodes its header only: the arguments are not read.
      {"SetCalibrationDataNotification", {{"channel", 1}, {"calibrationData", "ab"}}, "00 00 00 01 00 00 00 02 61 62", newMessage<SetCalibrationDataNotification>,
       [](const BinaryMessage& m) {
         auto& c = dynamic_cast<const SetCalibrationDataNotification&>(m);
         return Values{c.channel, std::string(c.calibrationData.data, c.calibrationData.length)};
       },
       Values{0, ""}},
  };
  for (const InRow& row : rows) {
    const catalogue::Entry* entry = nullptr;
    for (const catalogue::Entry& e : catalogue::entries()) {
      if (row.className == std::string(e.name) && e.flow == Flow::in) entry = &e;
    }
    ASSERT_NE(entry, nullptr) << row.className;
    Values sent = inTableOrder(*entry, row.values);
    ASSERT_EQ(sent.size(), row.values.size()) << row.className << ": the table names other arguments";
    std::string frame = encodeFrame(peer::CatalogueMessage(*entry, sent));
    EXPECT_EQ(toHex(frame.substr(48)), toHex(bytesFromHex(row.argsHex))) << row.className;
    std::unique_ptr<BinaryMessage> message(row.make());
    MemoryInputBuffer payload(frame.data() + 4, frame.size() - 4);
    std::istream in(&payload);
    bistream decoder(in);
    message->fromStream(decoder);
    EXPECT_EQ(message->getSelector(), entry->selector) << row.className;
    Values inClassOrder;
    for (const auto& named : row.values) inClassOrder.push_back(named.second);
    EXPECT_EQ(shown(row.read(*message)), shown(row.decodedAs.value_or(inClassOrder))) << row.className;
  }
}

// A class that the daemon sends: its own encoding, decoded by a peer.
struct OutRow {
  const char* className;
  std::shared_ptr<BinaryMessage> message;
  const char* argsHex;
  Named values;  // in the class's own order
};

TEST(CatalogueTest, WhatTheDaemonsClassEncodesAPeerDecodes) {
  GetAnalyticsFilterDataRequest request;
  request.channel = 1;
  SyslogCapture syslog;  // the response logs where its path goes
  const OutRow rows[] = {
      {"GetCalibrationDataChangeNotification",
       made<GetCalibrationDataChangeNotification>([](auto& m) { m.channel = 0xFFFFFFFE; }), "FF FF FF FE",
       {{"channel", int64_t{0xFFFFFFFE}}}},
      {"SetCalibrationDataNotification", made<SetCalibrationDataNotification>([](auto& m) {
         m.recipient = kEngineEndpoint;
         m.channel = 2;
         setBlock(m.calibrationData, "xyz");
       }),
       "00 00 00 02 00 00 00 03 78 79 7A", {{"channel", 2}, {"calibrationData", "xyz"}}},
      {"ResetCalibrationNotification", made<ResetCalibrationNotification>([](auto& m) {
         m.recipient = kFilterEndpoint;
         m.channel = 3;
       }),
       "00 00 00 03", {{"channel", 3}}},
      {"RestoreFactoryFilterNotification", made<RestoreFactoryFilterNotification>([](auto& m) {
         m.recipient = kFilterEndpoint;
         m.channel = -2;
       }),
       "FF FF FF FE", {{"channel", -2}}},
      {"SetAnalyticsFilterDataNotification", made<SetAnalyticsFilterDataNotification>([](auto& m) {
         m.recipient = kFilterEndpoint;
         m.responseSelector = kSaveAnalyticsFilterDataSelector;
         m.channel = 1;
         m.fileName = "/a";
       }),
       "00 00 00 01 00 02 2F 61", {{"channel", 1}, {"fileName", "/a"}}},
      {"RestoreAnalyticsFilterNotification", made<RestoreAnalyticsFilterNotification>([](auto& m) {
         m.recipient = kEngineEndpoint;
         m.channel = 0;
         m.fileName = "/b";
       }),
       "00 00 00 00 00 02 2F 62", {{"channel", 0}, {"fileName", "/b"}}},
      {"GetAnalyticsFilterDataResponse", std::make_shared<BinaryResponse>(request),
       "00 33 2F 65 74 63 2F 73 79 73 63 6F 6E 66 69 67 2F 64 72 61 76 69 6B 2F 7A 65 6B 2F 74 62 65 2F 6D 65 74 61"
       "64 61 74 61 46 69 6C 74 65 72 43 48 31 2E 78 6D 6C",
       {{"path", "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH1.xml"}}},
  };
  for (const OutRow& row : rows) {
    std::string frame = encodeFrame(*row.message);
    EXPECT_EQ(toHex(frame.substr(48)), toHex(bytesFromHex(row.argsHex))) << row.className;
    peer::DecodedFrame decoded = peer::decodeFrame(frame, Flow::out);
    ASSERT_TRUE(decoded.decoded()) << row.className << ": " << decoded.error;
    EXPECT_EQ(std::string(decoded.entry->name), row.className);
    Named byName;
    for (const auto& [name, v] : row.values) {
      const Value* arg = decoded.arg(name);
      byName.emplace_back(name, arg != nullptr ? *arg : Value("<no such argument>"));
    }
    EXPECT_EQ(shown(byName), shown(row.values)) << row.className;
    EXPECT_EQ(decoded.args.size(), row.values.size()) << row.className;
    EXPECT_EQ(decoded.notes, std::vector<std::string>{}) << row.className;
  }
}

}  // namespace
