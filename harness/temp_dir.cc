#include "harness/temp_dir.h"

#include <ftw.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {
int removeEntry(const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); }
}  // namespace

TempDir::TempDir(const std::string& parent) {
  const char* tmpdir = std::getenv("TMPDIR");
  std::string base = !parent.empty() ? parent : tmpdir != nullptr && *tmpdir != '\0' ? tmpdir : "/tmp";
  std::string pattern = base + "/dravik.XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  if (mkdtemp(name.data()) != nullptr) path_ = name.data();
}

TempDir::~TempDir() {
  // Depth first, so that each directory is empty when its turn comes.
  if (!path_.empty()) nftw(path_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}
