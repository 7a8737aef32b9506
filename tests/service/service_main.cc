// Entry of the test binaries that need the service's fixed paths: they move
// into a private sandbox (see harness/sandbox.h) before any thread
// starts. Where no sandbox can be made the tests fail with the reason.
#include <gtest/gtest.h>

#include <cstdio>

#include "harness/sandbox.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (::testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();
  std::string why;
  if (!sandbox::enter(&why)) {
    std::fprintf(stderr, "no private sandbox for the service's fixed paths: %s\n", why.c_str());
    return 1;
  }
  return RUN_ALL_TESTS();
}
