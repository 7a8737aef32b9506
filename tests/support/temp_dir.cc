#include "tests/support/temp_dir.h"

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

int removeEntry(const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); }

}  // namespace

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/dravik-test.XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  if (mkdtemp(name.data()) == nullptr) {
    ADD_FAILURE() << "mkdtemp " << pattern << ": " << std::strerror(errno);
    return;
  }
  path_ = name.data();
}

TempDir::~TempDir() {
  // Depth first, so that each directory is empty when its turn comes.
  if (!path_.empty()) nftw(path_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string makeFifo(const std::string& path) {
  if (mkfifo(path.c_str(), 0666) != 0) ADD_FAILURE() << "mkfifo " << path << ": " << std::strerror(errno);
  return path;
}
