// The analytics filter store in process. Setting, saving, the get answer,
// the restore of stored filters and the reset go through the real daemon in
// the end-to-end tests (tests/e2e/messages_test.cc, schedule_test.cc); what
// the pipes cannot reach is checked here: the schedule only restores
// channels 0 to 3, so the restore's own channel check is called directly.
#include "store/analytics_filter_store.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/store/store_fixture.h"

namespace storetest {
namespace {

using AnalyticsFilterStoreTest = StoreTest;

TEST_F(AnalyticsFilterStoreTest, RestoreOfChannelFourIsRefused) {
  RestoreZekAnalyticsFilter(4);
  EXPECT_TRUE(sentFrames().empty());
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{error(" RestoreZekAnalyticsFilterOut of Range Channel ch=4")});
}

}  // namespace
}  // namespace storetest
