// Set up by the test binary's main() before it enters the sandbox.
#ifndef DRAVIK_TESTS_TOOLS_DRAVIKCTL_E2E_TEST_H_
#define DRAVIK_TESTS_TOOLS_DRAVIKCTL_E2E_TEST_H_

#include <string>

// O_PATH descriptors of the two executables; negative if they could not be
// opened.
int dravikDescriptor();
int dravikctlDescriptor();
// Empty when the tests run in a private mount namespace; the reason otherwise.
const std::string& sandboxUnavailableReason();

#endif  // DRAVIK_TESTS_TOOLS_DRAVIKCTL_E2E_TEST_H_
