// The id counter of text messages, in a process where no message was built
// before.
#include "gtest/gtest.h"
#include "messaging/text_message.h"

namespace {

class Ping : public Command {
 public:
  const char* getSelector() const override { return "Ping"; }
};

TEST(TextFirstMessageTest, FirstMessageOfProcessHasIdOne) {
  EXPECT_EQ(0, textLastId.load());
  Ping first;
  Ping second;
  EXPECT_EQ(1, first.id);
  EXPECT_EQ(2, second.id);
  EXPECT_EQ(2, textLastId.load());
}

}  // namespace
