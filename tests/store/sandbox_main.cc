// The main of the test binaries that need the daemon's fixed paths
// (/etc/sysconfig/dravik/zek/..., /tmp/dravik.mailbox): it moves the process
// into a private mount namespace before GoogleTest or any test starts a
// thread. When that is not possible, the fixtures that need it skip their
// tests with the reason given here.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/support/sandbox.h"

int main(int argc, char** argv) {
  std::string whyNot;
  bool sandboxed = sandbox::enter(&whyNot);
  ::testing::InitGoogleTest(&argc, argv);
  if (!sandboxed) std::fprintf(stderr, "Tests that need the private store are skipped: %s\n", whyNot.c_str());
  return RUN_ALL_TESTS();
}
