// Built as a binary of its own: the numbering of messages and the default
// sender can only be seen before anything else in the process builds a
// message or sets the sender.
#include <gtest/gtest.h>

#include "messaging/binary_message.h"
#include "tests/messaging/test_messages.h"

namespace {

TEST(FirstMessageTest, NumberingStartsAtOneAndSenderIsMinusOne) {
  ASSERT_EQ(BinaryMessage::lastId.load(), 0);
  EmptyCommand first;
  PairCommand second;
  BinaryMessage third;
  EXPECT_EQ(first.id, 1);
  EXPECT_EQ(second.id, 2);
  EXPECT_EQ(third.id, 3);
  EXPECT_EQ(first.sender, -1);
}

}  // namespace
