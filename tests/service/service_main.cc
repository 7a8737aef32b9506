// Entry of the test binaries that need the service's fixed paths: they move
// into a private sandbox (see harness/sandbox.h) before any thread
// starts. Where no sandbox can be made the tests fail with the reason.
#include <gtest/gtest.h>

#include <cstdio>

#include "harness/sandbox.h"

// A test limits a child's address space to see an allocation fail: the
// sanitizers' allocators then return null, as the system's does, instead
// of ending the process with a report.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

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
