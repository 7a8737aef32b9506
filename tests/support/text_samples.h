// Two text messages for the tests and the fuzzer of the text framework: a
// command without arguments and a notification that carries the rest of
// its line.
#ifndef DRAVIK_TESTS_SUPPORT_TEXT_SAMPLES_H_
#define DRAVIK_TESTS_SUPPORT_TEXT_SAMPLES_H_

#include <istream>
#include <ostream>
#include <string>

#include "messaging/text_message.h"

class Ping : public Command {
 public:
  const char* getSelector() const override { return "Ping"; }
};

class Note : public Notification {
 public:
  const char* getSelector() const override { return "Note"; }
  std::istream& fromStream(std::istream& in) override { return std::getline(in, text); }
  std::ostream& toStream(std::ostream& out) const override { return Message::toStream(out) << ' ' << text; }
  std::string text;
};

#endif  // DRAVIK_TESTS_SUPPORT_TEXT_SAMPLES_H_
