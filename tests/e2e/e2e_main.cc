// Entry of the end-to-end tests. The daemon uses fixed paths under /tmp and
// /etc/sysconfig and logs to /dev/log, so the whole test process moves into a
// private mount namespace first (see tests/support/sandbox.h); the daemon's
// executable is opened before that, because the sandbox may cover the
// directory it was built in.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "tests/e2e/daemon_test.h"
#include "tests/support/sandbox.h"

namespace {
int binaryFd = -1;
std::string unavailable = "not set up";
}  // namespace

int dravikBinaryDescriptor() { return binaryFd; }
const std::string& e2eUnavailableReason() { return unavailable; }

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (::testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();

  binaryFd = open(DRAVIK_BINARY, O_PATH | O_CLOEXEC);
  if (binaryFd < 0) {
    unavailable = std::string("cannot open ") + DRAVIK_BINARY + ": " + std::strerror(errno);
  } else {
    std::string why;
    unavailable = sandbox::enter(&why) ? "" : "no private mount namespace: " + why;
  }
  return RUN_ALL_TESTS();
}
