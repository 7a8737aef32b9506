#include "tests/support/store_files.h"

#include <ftw.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

namespace {

int removeEntry(const char* path, const struct stat*, int, struct FTW* where) {
  if (where->level > 0) remove(path);
  return 0;
}

}  // namespace

std::string calibrationPath(int channel) {
  return "/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH" + std::to_string(channel) + ".bin";
}

std::string filterPath(int channel) {
  return "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH" + std::to_string(channel) + ".xml";
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  file.close();
  if (!file) ADD_FAILURE() << "cannot write " << path;
}

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

bool fileExists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

void emptyDirectory(const char* dir) { nftw(dir, removeEntry, 16, FTW_DEPTH | FTW_PHYS); }

bool resetStoreAndPipes() {
  // A file system that a test mounted over a store directory goes first.
  for (const char* dir : {"/etc/sysconfig/dravik/zek/cal", "/etc/sysconfig/dravik/zek/tbe"}) umount2(dir, MNT_DETACH);
  emptyDirectory("/tmp");
  emptyDirectory("/etc/sysconfig");
  for (const char* dir : {"/etc/sysconfig/dravik", "/etc/sysconfig/dravik/zek", "/etc/sysconfig/dravik/zek/cal",
                          "/etc/sysconfig/dravik/zek/tbe"}) {
    if (mkdir(dir, 0755) != 0) return false;
  }
  return true;
}
