// The message model: header defaults and ids (on two threads at once too),
// the 44-byte layout, the registry, and what requests and notifications do
// when processed.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <sstream>
#include <thread>

#include "messaging/binary_fifo.h"
#include "messaging/binary_message.h"
#include "messaging/text_message.h"
#include "tests/support/capture.h"
#include "tests/support/wire.h"

namespace {

class Plain : public BinaryCommand {};

class Fixed : public BinaryCommand {
 public:
  int32_t getSelector() const override { return 13; }
};

class Echo : public BinaryRequest {
 public:
  int32_t getSelector() const override { return 13002; }
  int32_t getResponseSelector() const override { return 13003; }
  void responseToStream(bostream& out) const override { out << std::string("ok"); }
};

std::string encoded(const BinaryMessage& m) {
  std::ostringstream target;
  bostream out(target);
  m.toStream(out);
  return toHex(target.str());
}

TEST(MessageTest, NewMessageHasHeaderDefaultsAndTheNextId) {
  int32_t before = BinaryMessage::lastId.load();
  BinaryMessage::defaultSender = -1;
  Plain a;
  Fixed b;
  EXPECT_EQ(a.id, before + 1);
  EXPECT_EQ(b.id, before + 2);
  a.timestamp = Timestamp{};
  // version 1, sender -1 (no endpoint yet), recipient 0, id, correlation 0,
  // time 0, selector (the member), response selector, flags, argsLength 0.
  EXPECT_EQ(encoded(a), toHex(be32(1) + be32(-1) + be32(0) + be32(a.id) + be32(0) + be64(0) + be32(0) + be32(0) +
                              be32(0) + be32(0)));
  // A class's constant goes on the wire, not the member.
  b.timestamp = Timestamp{1234567890, 123456};
  b.sender = 5;
  b.recipient = 13;
  b.correlationId = 0x01020304;
  b.responseSelector = 77;
  b.flags = 0x10;
  b.argsLength = 9;
  EXPECT_EQ(encoded(b), toHex(be32(1) + be32(5) + be32(13) + be32(b.id) + be32(0x01020304) +
                              bytesFromHex("00 00 01 1F 71 FB 04 CB") + be32(13) + be32(77) + be32(0x10) + be32(9)));
}

class Line : public Message {
 public:
  const char* getSelector() const override { return "Line"; }
};

// Ids are taken in one step: two threads building messages at once never
// get the same id, and each sees its own ids increase. Rounds are added
// until the two threads' ids have interleaved often, so that a load and a
// store in place of that one step cannot go unseen.
TEST(MessageTest, IdsTakenOnTwoThreadsAtOnceAreDistinctAndIncreasing) {
  const std::pair<const char*, std::function<int32_t()>> kinds[] = {
      {"binary", [] { return Plain().id; }},
      {"text", [] { return Line().id; }},
  };
  for (const auto& kind : kinds) {
    constexpr int kPerRound = 20000;
    std::size_t interleavings = 0, duplicates = 0, decreases = 0;
    for (int round = 0; round < 200 && interleavings < 20000; ++round) {
      std::vector<int32_t> ids[2];
      std::atomic<int> ready{0};
      auto build = [&](int thread) {
        ids[thread].reserve(kPerRound);
        ready.fetch_add(1);
        while (ready.load() < 2) {
        }
        for (int i = 0; i < kPerRound; ++i) ids[thread].push_back(kind.second());
      };
      std::thread other(build, 1);
      build(0);
      other.join();
      std::vector<std::pair<int32_t, int>> all;
      for (int thread = 0; thread < 2; ++thread) {
        for (std::size_t i = 0; i < ids[thread].size(); ++i) {
          all.emplace_back(ids[thread][i], thread);
          if (i > 0 && ids[thread][i] <= ids[thread][i - 1]) ++decreases;
        }
      }
      std::sort(all.begin(), all.end());
      for (std::size_t i = 1; i < all.size(); ++i) {
        if (all[i].first == all[i - 1].first) ++duplicates;
        if (all[i].second != all[i - 1].second) ++interleavings;
      }
    }
    EXPECT_EQ(duplicates, 0u) << kind.first;
    EXPECT_EQ(decreases, 0u) << kind.first;
  }
}

TEST(MessageTest, HeaderIsDecodedInLayoutOrder) {
  std::istringstream source(bytesFromHex("00 00 00 02 00 00 00 05 00 00 00 0D 00 00 00 07 00 00 00 2A"
                                         "00 00 01 1F 71 FB 04 CB 00 00 00 0E 00 00 32 CB 80 00 00 01 00 00 00 03"));
  bistream in(source);
  Plain m;
  m.fromStream(in);
  EXPECT_EQ((std::vector<int32_t>{m.version, m.sender, m.recipient, m.id, m.correlationId, m.timestamp.seconds,
                                  m.timestamp.microseconds, m.selector, m.responseSelector, m.flags, m.argsLength}),
            (std::vector<int32_t>{2, 5, 13, 7, 42, 1234567890, 123000, 14, 13003, INT32_MIN + 1, 3}));
}

TEST(MessageTest, RegistryKeepsTheFirstFactoryAndBuildsNothingForAnUnknownSelector) {
  registerSelector(31001, newMessage<Fixed>);
  registerSelector(31001, newMessage<Plain>);
  std::istringstream source(frame(Header{31001}).substr(4));
  bistream in(source);
  std::unique_ptr<BinaryMessage> built(createMessage(31001, in));
  EXPECT_NE(dynamic_cast<Fixed*>(built.get()), nullptr);
  EXPECT_EQ(built->id, 1);  // the received id replaces the one it took
  int32_t before = BinaryMessage::lastId.load();
  EXPECT_EQ(createMessage(31002, in), nullptr);
  EXPECT_EQ(BinaryMessage::lastId.load(), before);
}

TEST(MessageTest, ResponseAnswersItsRequest) {
  BinaryMessage::defaultSender = 13;
  Echo request;
  request.sender = 11;
  request.id = 57;
  request.responseSelector = 2045;
  BinaryResponse response(request);
  EXPECT_EQ(response.recipient, 11);
  EXPECT_EQ(response.correlationId, 57);
  EXPECT_EQ(response.getSelector(), 2045);
  EXPECT_EQ(response.responseSelector, 0);
  EXPECT_EQ(response.sender, 13);
  EXPECT_EQ(response.id, BinaryMessage::lastId.load());  // a fresh id of its own
  response.timestamp = Timestamp{};
  EXPECT_EQ(encoded(response), toHex(be32(1) + be32(13) + be32(11) + be32(response.id) + be32(57) + be64(0) +
                                     be32(2045) + be32(0) + be32(0) + be32(0) + str("ok")));
}

TEST(MessageTest, CommandWithoutBehaviourOrNotificationWithoutOutputSaysSo) {
  ConsoleCapture console;
  Plain().Process();
  EXPECT_EQ(console.takeErr(), "<time> Error: BinaryMessage::Process() was not implemented by a message class\n");
  BinaryOutputFifo* output = BinaryMessage::notificationOutput;
  BinaryMessage::notificationOutput = nullptr;
  BinaryNotification dropped;
  dropped.Process();
  BinaryMessage::notificationOutput = output;
  EXPECT_EQ(console.takeErr(), "<time> Error: No notification output - dropping message: " + std::to_string(dropped.id) +
                                   "\n");
}

}  // namespace
