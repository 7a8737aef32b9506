// Entry of the dravikctl end-to-end tests. The daemon uses fixed paths under
// /tmp and /etc/sysconfig and logs to /dev/log, so the test process moves into
// a private mount namespace first (tests/support/sandbox.h). Both executables
// are opened before that, because the sandbox may cover the directory they
// were built in.
#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/sandbox.h"
#include "tests/tools/dravikctl_e2e_test.h"

namespace {
int dravikFd = -1;
int dravikctlFd = -1;
std::string sandboxProblem = "not set up";
}  // namespace

int dravikDescriptor() { return dravikFd; }
int dravikctlDescriptor() { return dravikctlFd; }
const std::string& sandboxUnavailableReason() { return sandboxProblem; }

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (::testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();

  dravikFd = open(DRAVIK_BINARY, O_PATH | O_CLOEXEC);
  dravikctlFd = open(DRAVIKCTL_BINARY, O_PATH | O_CLOEXEC);
  if (dravikFd < 0 || dravikctlFd < 0) {
    sandboxProblem = std::string("cannot open the executables: ") + std::strerror(errno);
  } else {
    std::string why;
    sandboxProblem = sandbox::enter(&why) ? "" : "no private mount namespace: " + why;
  }
  return RUN_ALL_TESTS();
}
