#include "tools/dravikctl/report.h"

#include <cstdio>

namespace dravikctl {

int fail(const std::string& message) {
  fprintf(stderr, "dravikctl: %s\n", message.c_str());
  fflush(stderr);
  return kExitFailure;
}

int usageError(const std::string& message) {
  fprintf(stderr, "dravikctl: %s\nTry 'dravikctl --help' for more information.\n", message.c_str());
  fflush(stderr);
  return kExitUsage;
}

void warn(const std::string& message) {
  fprintf(stderr, "dravikctl: warning: %s\n", message.c_str());
  fflush(stderr);
}

bool printLine(const std::string& line) { return printText(line + "\n"); }

bool printText(const std::string& text) {
  return fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0;
}

}  // namespace dravikctl
