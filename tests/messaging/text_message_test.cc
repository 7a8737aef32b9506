// The text framework: lines written and read back as table rows, with a
// fixed clock for the delay report, then the endpoint outcomes and sends.
#include "messaging/text_message.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <thread>

#include "tests/support/capture.h"
#include "tests/support/pipes.h"
#include "tests/support/text_samples.h"
#include "harness/temp_dir.h"

namespace {

class State : public Request {
 public:
  const char* getSelector() const override { return "State"; }
  void responseToStream(std::ostream& out) const override { out << "ready"; }
};
class Nameless : public Command {
 public:
  const char* getSelector() const override { return nullptr; }
};
const TextSelectorRegistration registerPing("Ping", newTextMessage<Ping>);
const TextSelectorRegistration registerPingAgain("Ping", newTextMessage<Note>);
const TextSelectorRegistration registerNote("Note", newTextMessage<Note>);

// "Now" is 1700000000.500000 for every test.
Timestamp fixedNow() { return Timestamp{1700000000, 500000}; }

class TextMessageTest : public ::testing::Test {
 protected:
  void SetUp() override { setClock(fixedNow); }
  void TearDown() override {
    setClock(nullptr);
    textNotificationFifo = nullptr;
  }
  ConsoleCapture console_;
};

TEST_F(TextMessageTest, LinesShowIdAndTimeInBrackets) {
  struct Row {
    int32_t id;
    Timestamp time;
    std::string line;
  } rows[] = {
      {7, {1700000000, 123456}, "[7 1700000000123] Note hello"},
      {7, {0, 0}, "[7] Note hello"},
      {-1, {0, 0}, "Note hello"},
      {-1, {5, 0}, "[-1 5000] Note hello"},
  };
  for (const Row& row : rows) {
    Note note;
    note.id = row.id;
    note.timestamp = row.time;
    note.text = "hello";
    std::ostringstream out;
    note.toStream(out);
    EXPECT_EQ(out.str(), row.line);
  }
  Nameless nameless;
  nameless.timestamp = Timestamp{};
  std::ostringstream out;
  nameless.toStream(out);
  EXPECT_EQ(out.str(), "[" + std::to_string(nameless.id) + "] ");
  EXPECT_TRUE(out.bad());
}

TEST_F(TextMessageTest, LinesAreParsedWithTheirReports) {
  struct Row {
    std::string line;
    bool built;
    int32_t id;
    Timestamp time;
    std::string text;
    std::string err;
  } rows[] = {
      {"[7 1700000000123] Note  hi there", true, 7, {1700000000, 123000}, "hi there",
       "<time> Message delayed 377 ms: [7 1700000000123] Note  hi there\n"},
      {"[8 1700000000400] Note x", true, 8, {1700000000, 400000}, "x", ""},
      {"[8 1700000000399] Note x", true, 8, {1700000000, 399000}, "x",
       "<time> Message delayed 101 ms: [8 1700000000399] Note x\n"},
      {"[9 1700000999000] Note future", true, 9, {1700000999, 0}, "future", ""},
      {"[10 1000] Note long ago", true, 10, {1, 0}, "long ago",
       "<time> Message delayed 1699999999500 ms: [10 1000] Note long ago\n"},
      {"[11] Ping", true, 11, {0, 0}, "", ""},
      {"Ping", true, -1, {0, 0}, "", ""},
      {"[x 5] Ping", true, -1, {0, 0}, "", ""},
      {"[3000000000 5] Ping", true, -1, {0, 0}, "", ""},
      {"[4]XPing", true, 4, {0, 0}, "", ""},
      {"", false, 0, {0, 0}, "", ""},
      {"[1] Pong now", false, 0, {0, 0}, "", "<time> Unrecognized selector in line: [1] Pong now\n"},
  };
  for (const Row& row : rows) {
    std::unique_ptr<Message> m(parseTextLine(row.line));
    ASSERT_EQ(m != nullptr, row.built) << row.line;
    EXPECT_EQ(console_.takeErr(), row.err) << row.line;
    if (!m) continue;
    EXPECT_EQ(m->id, row.id) << row.line;
    EXPECT_EQ(m->timestamp, row.time) << row.line;
    // The first registration of "Ping" stays.
    if (auto* note = dynamic_cast<Note*>(m.get())) EXPECT_EQ(note->text, row.text) << row.line;
    else EXPECT_NE(dynamic_cast<Ping*>(m.get()), nullptr) << row.line;
  }
}

TEST_F(TextMessageTest, EndpointsReadLinesAndSendMessages) {
  TempDir dir;
  std::string path = makeFifo(dir.file("text"));
  OutputFifo out(path.c_str());
  InputFifo in(path.c_str());
  Fd writer = openFd(path, O_RDWR);
  in.open();
  out.open();
  EXPECT_EQ(console_.takeOut(), "Opened output FIFO\n");

  // A request is answered with its own id and the response's time.
  textNotificationFifo = &out;
  State request;
  request.id = 12;
  request.Process();
  Ping ping;
  ping.id = 13;
  ping.timestamp = Timestamp{};
  out.send(ping);
  writeAll(writer.get(), "\n");
  std::unique_ptr<Message> response(in.getMessage());
  EXPECT_EQ(console_.takeErr(), "<time> Unrecognized selector in line: [12 1700000000500] StateResponse ready\n");
  EXPECT_EQ(response, nullptr);
  std::unique_ptr<Message> back(in.getMessage());
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->id, 13);
  EXPECT_EQ(in.getMessage(), nullptr);  // the empty line, silently
  EXPECT_EQ(console_.takeErr(), "");

  // A command processed writes its line to standard output.
  ping.Process();
  EXPECT_EQ(console_.takeOut(), "[13] Ping\n");

  // A stream that is not good drops the line; so does a missing endpoint.
  out.stream.setstate(std::ios::badbit);
  out.send(ping);
  textNotificationFifo = nullptr;
  Note note;
  note.timestamp = Timestamp{};
  note.text = "lost";
  note.Process();
  EXPECT_EQ(console_.takeErr(), "<time> Dropping: [13] Ping\n<time> Dropping: [" + std::to_string(note.id) +
                                    "] Note lost\n");

  // The last writer gone: null, then the not-good outcome with the state cleared.
  writer.reset();
  out.close();
  EXPECT_EQ(in.getMessage(), nullptr);
  EXPECT_EQ(in.getMessage(), notGoodResult<Message>());
  EXPECT_TRUE(in.stream.good());
}

TEST_F(TextMessageTest, SendersOnTwoThreadsNeverInterleaveLines) {
  TempDir dir;
  std::string path = makeFifo(dir.file("text"));
  OutputFifo a(path.c_str()), b(path.c_str());
  Fd reader = openFd(path, O_RDONLY | O_NONBLOCK);
  a.open();
  b.open();
  console_.takeOut();
  auto sendMany = [](OutputFifo* fifo, char fill) {
    Note note;
    note.timestamp = Timestamp{};
    note.text = std::string(10000, fill);  // more than one atomic pipe write
    for (int i = 0; i < 50; ++i) fifo->send(note);
  };
  std::thread ta(sendMany, &a, 'a');
  std::thread tb(sendMany, &b, 'b');
  std::string text;
  while (std::count(text.begin(), text.end(), '\n') < 100) {
    text += readExactly(reader.get(), 1);
    text += readAvailable(reader.get());
  }
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::string body = line.substr(line.find(' ') + 6);
    ASSERT_TRUE(body == std::string(10000, 'a') || body == std::string(10000, 'b')) << "a line is mixed";
  }
  ta.join();
  tb.join();
}

}  // namespace
