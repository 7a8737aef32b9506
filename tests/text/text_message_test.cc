// The text message framework: the line format, the registry, the reader's
// outcomes and reports, and the sender's locking and drops, over real named
// pipes in a temporary directory.
#include "messaging/text_message.h"

#include <chrono>
#include <cstdint>
#include <future>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "messaging/binary_fifo.h"
#include "tests/support/console_capture.h"
#include "tests/support/pipe_io.h"
#include "tests/support/temp_dir.h"

namespace {

// ---- Message classes of the tests ------------------------------------------

class Ping : public Command {
 public:
  const char* getSelector() const override { return "Ping"; }
};

// Carries the rest of its line as text.
class Note : public Notification {
 public:
  const char* getSelector() const override { return "Note"; }
  std::istream& fromStream(std::istream& in) override { return std::getline(in, text); }
  std::ostream& toStream(std::ostream& out) const override { return Message::toStream(out) << ' ' << text; }

  std::string text;
};

// Asks for the state of a channel; answered with "channel N ready".
class ChannelStateRequest : public Request {
 public:
  const char* getSelector() const override { return "ChannelState"; }
  std::istream& fromStream(std::istream& in) override { return in >> channel; }
  std::ostream& toStream(std::ostream& out) const override { return Message::toStream(out) << ' ' << channel; }
  void responseToStream(std::ostream& out) const override { out << "channel " << channel << " ready"; }

  int32_t channel = -1;
};

class Nameless : public Command {
 public:
  const char* getSelector() const override { return nullptr; }
};

const TextSelectorRegistration registerPing("Ping", newTextMessage<Ping>);
const TextSelectorRegistration registerNote("Note", newTextMessage<Note>);
const TextSelectorRegistration registerChannelState("ChannelState", newTextMessage<ChannelStateRequest>);

// ---- Fixture plumbing -------------------------------------------------------

const Timestamp kSent{1700000000, 123456};  // written as 1700000000123 ms

Timestamp fixedNow;
Timestamp fixedClock() { return fixedNow; }

Timestamp at(int32_t seconds, int32_t microseconds) { return Timestamp{seconds, microseconds}; }

// Installs a fixed clock for the life of the object.
class FixedClock {
 public:
  explicit FixedClock(Timestamp t) {
    fixedNow = t;
    setClock(fixedClock);
  }
  ~FixedClock() { setClock(nullptr); }
  void set(Timestamp t) { fixedNow = t; }
};

std::string lineOf(const Message& message) {
  std::ostringstream out;
  message.toStream(out);
  return out.str();
}

// ---- The line format, the registry and the kinds ----------------------------

class TextMessageTest : public ::testing::Test {
 protected:
  FixedClock clock{kSent};
};

TEST_F(TextMessageTest, NewMessageTakesNextIdAndCurrentTime) {
  int32_t last = textLastId.load();
  Ping first;
  Ping second;
  EXPECT_EQ(last + 1, first.id);
  EXPECT_EQ(last + 2, second.id);
  EXPECT_EQ(kSent, first.timestamp);
}

TEST_F(TextMessageTest, IdAndTimeAreWrittenInBracketsBeforeSelector) {
  Ping ping;
  ping.id = 7;
  ping.timestamp = kSent;
  EXPECT_EQ("[7 1700000000123] Ping", lineOf(ping));
}

TEST_F(TextMessageTest, ZeroSecondsWritesIdAlone) {
  Ping ping;
  ping.id = 7;
  ping.timestamp = Timestamp();
  EXPECT_EQ("[7] Ping", lineOf(ping));
  ping.timestamp = at(0, 500000);  // seconds 0 mean no time, whatever the microseconds
  EXPECT_EQ("[7] Ping", lineOf(ping));
}

TEST_F(TextMessageTest, NoIdAndZeroSecondsWritesSelectorAlone) {
  Ping ping;
  ping.id = -1;
  ping.timestamp = Timestamp();
  EXPECT_EQ("Ping", lineOf(ping));
}

TEST_F(TextMessageTest, TimeIsWrittenEvenWithoutId) {
  Ping ping;
  ping.id = -1;
  ping.timestamp = kSent;
  EXPECT_EQ("[-1 1700000000123] Ping", lineOf(ping));
}

TEST_F(TextMessageTest, ArgumentsFollowSelectorAfterOneBlank) {
  Note note;
  note.id = 3;
  note.timestamp = Timestamp();
  note.text = "two words";
  EXPECT_EQ("[3] Note two words", lineOf(note));
}

TEST_F(TextMessageTest, NullSelectorWritesHeaderOnlyAndMarksStreamBad) {
  Nameless nameless;
  nameless.id = 7;
  nameless.timestamp = Timestamp();
  std::ostringstream out;
  nameless.toStream(out);
  EXPECT_EQ("[7] ", out.str());
  EXPECT_TRUE(out.bad());
}

TEST_F(TextMessageTest, ParseHeaderReadsIdAndMillisecondTime) {
  Ping ping;
  ping.parseHeader("7 1700000000123");
  EXPECT_EQ(7, ping.id);
  EXPECT_EQ(at(1700000000, 123000), ping.timestamp);
}

TEST_F(TextMessageTest, ParseHeaderWithIdOnlyLeavesTimeZero) {
  Ping ping;
  ping.parseHeader("7");
  EXPECT_EQ(7, ping.id);
  EXPECT_EQ(Timestamp(), ping.timestamp);
}

TEST_F(TextMessageTest, ParseHeaderResetsWhatIsMissingOrUnreadable) {
  struct Case {
    const char* header;
    int32_t id;
  } cases[] = {
      {"", -1},
      {"abc 1700000000123", -1},
      {"99999999999 1700000000123", -1},  // id out of range
      {"-3 soon", -3},
  };
  for (const Case& c : cases) {
    Ping ping;  // starts with an id and the current time
    ping.parseHeader(c.header);
    EXPECT_EQ(c.id, ping.id) << c.header;
    EXPECT_EQ(Timestamp(), ping.timestamp) << c.header;
  }
}

TEST_F(TextMessageTest, ResponseCarriesRequestIdSelectorAndAnswer) {
  ChannelStateRequest request;
  request.id = 12;
  request.channel = 2;
  clock.set(at(1700000005, 250999));
  int32_t last = textLastId.load();

  Response response(request);

  EXPECT_EQ(last + 1, textLastId.load());  // built like any message
  EXPECT_EQ(12, response.id);
  EXPECT_STREQ("ChannelStateResponse", response.getSelector());
  EXPECT_EQ(&request, response.request);
  EXPECT_EQ("[12 1700000005250] ChannelStateResponse channel 2 ready", lineOf(response));
}

TEST_F(TextMessageTest, CommandProcessWritesItsLineToStandardOutput) {
  Ping ping;
  ping.id = 7;
  ping.timestamp = Timestamp();
  ConsoleCapture console;
  ping.Process();
  EXPECT_EQ("[7] Ping\n", console.out());
  EXPECT_EQ("", console.err());
}

TEST_F(TextMessageTest, CreateTextMessageBuildsRegisteredClassAndParsesHeader) {
  std::unique_ptr<Message> message(createTextMessage("Ping", "7 1700000000123"));
  ASSERT_NE(nullptr, dynamic_cast<Ping*>(message.get()));
  EXPECT_EQ(7, message->id);
  EXPECT_EQ(at(1700000000, 123000), message->timestamp);
}

TEST_F(TextMessageTest, CreateTextMessageOfUnknownNameIsNull) {
  EXPECT_EQ(nullptr, createTextMessage("Unknown", "7"));
}

TEST_F(TextMessageTest, SecondRegistrationOfNameChangesNothing) {
  registerTextSelector("Twice", newTextMessage<Ping>);
  std::size_t size = textSelectorRegistry().size();
  registerTextSelector("Twice", newTextMessage<Note>);
  EXPECT_EQ(size, textSelectorRegistry().size());
  std::unique_ptr<Message> message(createTextMessage("Twice", ""));
  EXPECT_NE(nullptr, dynamic_cast<Ping*>(message.get()));
}

// ---- Reading lines from a pipe -------------------------------------------------

// An InputFifo on a temporary pipe, fed raw bytes through a descriptor that
// the test holds open for writing.
class TextReaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(writer_.valid());
    input_.open();  // a writer exists: returns at once
    ASSERT_TRUE(input_.stream.is_open());
  }

  void write(const std::string& bytes) { writePipe(writer_.get(), bytes); }
  void closeWriter() { writer_.reset(); }
  // One getMessage() that must not be the not-good outcome.
  std::unique_ptr<Message> read() {
    Message* message = input_.getMessage();
    EXPECT_NE(notGoodResult<Message>(), message);
    if (message == notGoodResult<Message>()) return nullptr;
    return std::unique_ptr<Message>(message);
  }

  FixedClock clock{at(1700000000, 123000)};
  TempDir dir_;
  const std::string path_ = makeFifo(dir_.file("pipe"));
  UniqueFd writer_ = openPipeWriter(path_);  // never waits for a reader
  InputFifo input_{path_.c_str()};
  ConsoleCapture console_;
};

TEST_F(TextReaderTest, HeaderGivesIdAndTimeToMillisecond) {
  write("[7 1700000000123] Ping\n");
  std::unique_ptr<Message> message = read();
  ASSERT_NE(nullptr, dynamic_cast<Ping*>(message.get()));
  EXPECT_EQ(7, message->id);
  EXPECT_EQ(at(1700000000, 123000), message->timestamp);
  EXPECT_EQ("", console_.err());
}

TEST_F(TextReaderTest, HeaderWithIdOnlyGivesZeroTime) {
  write("[7] Ping\n");
  std::unique_ptr<Message> message = read();
  ASSERT_NE(nullptr, message);
  EXPECT_EQ(7, message->id);
  EXPECT_EQ(Timestamp(), message->timestamp);
}

TEST_F(TextReaderTest, BareSelectorHasNoIdNorTimeAndIsNotReportedAsDelayed) {
  clock.set(at(2000000000, 0));  // a line without time has no age
  write("Ping\n");
  std::unique_ptr<Message> message = read();
  ASSERT_NE(nullptr, dynamic_cast<Ping*>(message.get()));
  EXPECT_EQ(-1, message->id);
  EXPECT_EQ(Timestamp(), message->timestamp);
  EXPECT_EQ("", console_.err());
}

TEST_F(TextReaderTest, UnreadableHeaderStillBuildsMessage) {
  write("[later] Ping\n");
  std::unique_ptr<Message> message = read();
  ASSERT_NE(nullptr, message);
  EXPECT_EQ(-1, message->id);
  EXPECT_EQ(Timestamp(), message->timestamp);
}

TEST_F(TextReaderTest, OneCharacterAfterClosingBracketIsSkipped) {
  write("[7]xPing\n");
  std::unique_ptr<Message> message = read();
  ASSERT_NE(nullptr, dynamic_cast<Ping*>(message.get()));
  EXPECT_EQ(7, message->id);
}

TEST_F(TextReaderTest, ArgumentsAreReadAfterSelectorWithBlanksSkipped) {
  write("[3] ChannelState   2\n[4 1700000000123] Note   two words \n");
  std::unique_ptr<Message> first = read();
  auto* request = dynamic_cast<ChannelStateRequest*>(first.get());
  ASSERT_NE(nullptr, request);
  EXPECT_EQ(2, request->channel);
  std::unique_ptr<Message> second = read();
  auto* note = dynamic_cast<Note*>(second.get());
  ASSERT_NE(nullptr, note);
  EXPECT_EQ("two words ", note->text);
}

TEST_F(TextReaderTest, EmptyLineIsNullAndSilent) {
  write("\n[5] Ping\n");
  EXPECT_EQ(nullptr, read());
  std::unique_ptr<Message> next = read();
  ASSERT_NE(nullptr, next);
  EXPECT_EQ(5, next->id);
  EXPECT_EQ("", console_.out());
  EXPECT_EQ("", console_.err());
}

TEST_F(TextReaderTest, UnknownSelectorIsReportedWithWholeLineAndNull) {
  write("[3 1700000000123] Nope 1 2\n[5] Ping\n");
  EXPECT_EQ(nullptr, read());
  EXPECT_EQ("<time> Unrecognized selector in line: [3 1700000000123] Nope 1 2\n", maskLogTime(console_.err()));
  std::unique_ptr<Message> next = read();
  ASSERT_NE(nullptr, next);
  EXPECT_EQ(5, next->id);
  EXPECT_EQ("", console_.out());
}

TEST_F(TextReaderTest, EndOfFileIsNullThenNotGoodWithStateCleared) {
  closeWriter();
  EXPECT_EQ(nullptr, input_.getMessage());
  EXPECT_FALSE(input_.stream.good());

  EXPECT_EQ(notGoodResult<Message>(), input_.getMessage());
  EXPECT_TRUE(input_.stream.good());
  EXPECT_EQ("", console_.err());
}

TEST_F(TextReaderTest, UnterminatedLastLineIsDeliveredBeforeNotGood) {
  write("[9] Ping");
  closeWriter();
  std::unique_ptr<Message> message = read();
  ASSERT_NE(nullptr, message);
  EXPECT_EQ(9, message->id);
  EXPECT_EQ(notGoodResult<Message>(), input_.getMessage());
  EXPECT_TRUE(input_.stream.good());
}

TEST_F(TextReaderTest, StreamNotGoodOnEntryReadsNothing) {
  write("[5] Ping\n");
  input_.stream.setstate(std::ios::failbit);
  EXPECT_EQ(notGoodResult<Message>(), input_.getMessage());
  std::unique_ptr<Message> waiting = read();
  ASSERT_NE(nullptr, waiting);
  EXPECT_EQ(5, waiting->id);
}

TEST_F(TextReaderTest, HundredMillisecondsOldIsDeliveredSilently) {
  clock.set(at(1700000000, 223999));  // 100.999 ms: the microseconds are truncated
  write("[7 1700000000123] Ping\n");
  std::unique_ptr<Message> message = read();
  ASSERT_NE(nullptr, message);
  EXPECT_EQ("", console_.err());
}

TEST_F(TextReaderTest, HundredAndOneMillisecondsOldIsReportedAndDelivered) {
  clock.set(at(1700000000, 224000));
  write("[7 1700000000123] Ping\n");
  std::unique_ptr<Message> message = read();
  ASSERT_NE(nullptr, message);
  EXPECT_EQ(7, message->id);
  EXPECT_EQ("<time> Message delayed 101 ms: [7 1700000000123] Ping\n", maskLogTime(console_.err()));
}

TEST_F(TextReaderTest, DelayBeyondThirtyTwoBitsIsReportedExactly) {
  clock.set(at(2147483647, 999999));
  write("[7 1000] Ping\n");  // one second after the epoch
  std::unique_ptr<Message> message = read();
  ASSERT_NE(nullptr, message);
  EXPECT_EQ("<time> Message delayed 2147483646999 ms: [7 1000] Ping\n", maskLogTime(console_.err()));
}

TEST_F(TextReaderTest, MessageFromTheFutureIsSilent) {
  write("[7 1700000060000] Ping\n");
  std::unique_ptr<Message> message = read();
  ASSERT_NE(nullptr, message);
  EXPECT_EQ("", console_.err());
}

// ---- Sending lines to a pipe ---------------------------------------------------

// An OutputFifo on a temporary pipe, drained through a descriptor that the
// test holds open for reading.
class TextSenderTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(reader_.valid()); }
  void TearDown() override { textNotificationFifo = nullptr; }

  // Everything the pipe holds now.
  std::string drain() { return readAvailable(reader_.get()); }

  FixedClock clock{kSent};
  TempDir dir_;
  const std::string path_ = makeFifo(dir_.file("pipe"));
  UniqueFd reader_ = openPipeReader(path_);
  OutputFifo output_{path_.c_str()};
  ConsoleCapture console_;
};

TEST_F(TextSenderTest, SendWritesOneLineWithNewline) {
  Ping ping;
  ping.id = 7;
  output_.send(ping);
  EXPECT_EQ("[7 1700000000123] Ping\n", drain());
  EXPECT_EQ("Opened output FIFO\n", console_.out());
  EXPECT_EQ("", console_.err());
}

TEST_F(TextSenderTest, StreamNotGoodDropsLineWithReport) {
  output_.open();
  output_.stream.setstate(std::ios::badbit);
  Ping ping;
  ping.id = 7;
  ping.timestamp = Timestamp();
  output_.send(ping);
  EXPECT_EQ("", drain());
  EXPECT_EQ("<time> Dropping: [7] Ping\n", maskLogTime(console_.err()));
}

TEST_F(TextSenderTest, MissingPipeLosesLineAfterFailedOpen) {
  std::string missing = dir_.file("missing");
  OutputFifo nowhere(missing.c_str());
  Ping ping;
  nowhere.send(ping);  // open fails and leaves the stream good; the write marks it bad
  EXPECT_TRUE(nowhere.stream.bad());
  EXPECT_EQ("Attempt to open output FIFO failed (no reader yet)\n", console_.out());
  EXPECT_EQ("", console_.err());
}

TEST_F(TextSenderTest, NotificationProcessSendsItselfOnNotificationFifo) {
  textNotificationFifo = &output_;
  Note note;
  note.id = 5;
  note.text = "hello";
  note.Process();
  EXPECT_EQ("[5 1700000000123] Note hello\n", drain());
}

TEST_F(TextSenderTest, NotificationWithoutNotificationFifoIsDropped) {
  Note note;
  note.id = 5;
  note.timestamp = Timestamp();
  note.text = "hello";
  note.Process();
  EXPECT_EQ("", drain());
  EXPECT_EQ("<time> Dropping: [5] Note hello\n", maskLogTime(console_.err()));
}

TEST_F(TextSenderTest, RequestProcessSendsResponseWithRequestIdAndAnswer) {
  textNotificationFifo = &output_;
  ChannelStateRequest request;
  request.id = 12;
  request.timestamp = Timestamp();
  request.channel = 2;
  clock.set(at(1700000001, 5000));  // the response's creation time
  request.Process();
  EXPECT_EQ("[12 1700000001005] ChannelStateResponse channel 2 ready\n", drain());
}

TEST_F(TextSenderTest, TextSendDoesNotTakeBinarySendMutex) {
  Ping ping;
  ping.id = 7;
  std::unique_lock<std::mutex> binarySend(BinaryOutputFifo::sendMutex());
  auto sent = std::async(std::launch::async, [&] { output_.send(ping); });
  // Returns at once unless the text sender waits for the binary lock.
  bool finished = sent.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
  binarySend.unlock();
  sent.wait();
  EXPECT_TRUE(finished);
  EXPECT_EQ("[7 1700000000123] Ping\n", drain());
}

// ---- Both ends -----------------------------------------------------------------

class TextPipeTest : public ::testing::Test {
 protected:
  // Reads lines until every writer has closed the pipe and keeps the text of
  // each Note; anything else read is kept as a description.
  std::vector<std::string> readNotes(InputFifo& input) {
    std::vector<std::string> texts;
    for (;;) {
      Message* result = input.getMessage();
      if (result == nullptr && input.stream.eof()) break;
      if (result == notGoodResult<Message>()) {
        texts.push_back("not good");
        continue;
      }
      std::unique_ptr<Message> message(result);
      auto* note = dynamic_cast<Note*>(message.get());
      texts.push_back(note != nullptr ? note->text : message ? "not a note" : "null");
    }
    return texts;
  }

  // Each text must be one letter repeated kLength times; counts the letters.
  void expectWholeLines(const std::vector<std::string>& texts, int perWriter) {
    int a = 0, b = 0;
    for (const std::string& text : texts) {
      if (text == std::string(kLength, 'a')) {
        ++a;
      } else if (text == std::string(kLength, 'b')) {
        ++b;
      } else {
        ADD_FAILURE() << "mixed line of " << text.size() << " bytes: " << text.substr(0, 80);
      }
    }
    EXPECT_EQ(perWriter, a);
    EXPECT_EQ(perWriter, b);
  }

  // Longer than the pipe's atomic write and than the stream's buffer, so
  // that one line leaves in several writes.
  static constexpr std::size_t kLength = 3 * 4096 + 17;
  static constexpr int kLines = 200;

  FixedClock clock{kSent};
  TempDir dir_;
  const std::string path_ = makeFifo(dir_.file("pipe"));
  ConsoleCapture console_;
};

TEST_F(TextPipeTest, SentLineReadsBackWithMillisecondTime) {
  OutputFifo output(path_.c_str());
  InputFifo input(path_.c_str());
  output.open();
  input.open();
  Note note;
  note.id = 7;
  note.timestamp = kSent;
  note.text = "calibrated";
  output.send(note);
  std::unique_ptr<Message> message(input.getMessage());
  auto* received = dynamic_cast<Note*>(message.get());
  ASSERT_NE(nullptr, received);
  EXPECT_EQ(7, received->id);
  EXPECT_EQ(at(1700000000, 123000), received->timestamp);
  EXPECT_EQ("calibrated", received->text);
}

TEST_F(TextPipeTest, TwoThreadsOnOneEndpointNeverInterleaveLines) {
  OutputFifo output(path_.c_str());
  InputFifo input(path_.c_str());
  output.open();
  input.open();
  auto reader = std::async(std::launch::async, [&] { return readNotes(input); });
  auto writer = [&](char letter) {
    Note note;
    note.text.assign(kLength, letter);
    for (int i = 0; i < kLines; ++i) output.send(note);
  };
  std::thread a(writer, 'a');
  std::thread b(writer, 'b');
  a.join();
  b.join();
  output.close();  // the reader stops at end of file
  expectWholeLines(reader.get(), kLines);
  EXPECT_EQ("", console_.err());
}

TEST_F(TextPipeTest, TwoEndpointsOnOnePipeNeverInterleaveLines) {
  OutputFifo outputA(path_.c_str());
  OutputFifo outputB(path_.c_str());
  InputFifo input(path_.c_str());
  outputA.open();
  outputB.open();
  input.open();
  auto reader = std::async(std::launch::async, [&] { return readNotes(input); });
  auto writer = [&](OutputFifo* output, char letter) {
    Note note;
    note.text.assign(kLength, letter);
    for (int i = 0; i < kLines; ++i) output->send(note);
  };
  std::thread a(writer, &outputA, 'a');
  std::thread b(writer, &outputB, 'b');
  a.join();
  b.join();
  outputA.close();
  outputB.close();
  expectWholeLines(reader.get(), kLines);
  EXPECT_EQ("", console_.err());
}

}  // namespace
