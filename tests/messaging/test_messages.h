// Message classes and frame builders shared by the messaging tests. The
// classes register themselves (see test_messages.cc) in every test binary
// that links that file.
#ifndef DRAVIK_TESTS_MESSAGING_TEST_MESSAGES_H_
#define DRAVIK_TESTS_MESSAGING_TEST_MESSAGES_H_

#include <cstdint>
#include <string>

#include "messaging/binary_message.h"

constexpr int32_t kEmptySelector = 13;
constexpr int32_t kPairSelector = 900;
constexpr int32_t kBlockSelector = 901;
constexpr int32_t kEchoSelector = 902;
constexpr int32_t kEchoResponseSelector = 2045;
// Registered by nobody.
constexpr int32_t kUnknownSelector = 4242;

// A command without arguments.
class EmptyCommand : public BinaryCommand {
 public:
  void Process() override {}
  int32_t getSelector() const override { return kEmptySelector; }
};

// A command with a 32-bit number and a string: 10 argument bytes when the
// string has 4 characters.
class PairCommand : public BinaryCommand {
 public:
  void Process() override {}
  int32_t getSelector() const override { return kPairSelector; }
  void fromStream(bistream& in) override {
    BinaryMessage::fromStream(in);
    in >> number >> name;
  }
  void toStream(bostream& out) const override {
    BinaryMessage::toStream(out);
    out << number << name;
  }

  int32_t number = 0;
  std::string name;
};

// A notification carrying one block of bytes.
class BlockNotification : public BinaryNotification {
 public:
  int32_t getSelector() const override { return kBlockSelector; }
  void fromStream(bistream& in) override {
    BinaryMessage::fromStream(in);
    in >> block;
  }
  void toStream(bostream& out) const override {
    BinaryMessage::toStream(out);
    out << block;
  }

  byteArray block;
};

// A request answered with one 32-bit number.
class EchoRequest : public BinaryRequest {
 public:
  int32_t getSelector() const override { return kEchoSelector; }
  int32_t getResponseSelector() const override { return kEchoResponseSelector; }
  void responseToStream(bostream& out) const override { out << answer; }

  int32_t answer = 0x11223344;
};

// The 44 header bytes of a payload, encoded without the code under test.
// The defaults are those of the documented example frame.
struct WireHeader {
  int32_t version = 1;
  int32_t sender = 5;
  int32_t recipient = 13;
  int32_t id = 7;
  int32_t correlationId = 0;
  uint64_t milliseconds = 1234567890123ULL;
  int32_t selector = kEmptySelector;
  int32_t responseSelector = 0;
  int32_t flags = 0;
  uint32_t argsLength = 0;

  std::string bytes() const;
};

// The header with argsLength set to the size of `args`, then `args`.
std::string payloadOf(WireHeader header, const std::string& args = "");
// A frame: the payload's length as 32-bit big-endian, then the payload.
std::string frameOf(const std::string& payload);

#endif  // DRAVIK_TESTS_MESSAGING_TEST_MESSAGES_H_
