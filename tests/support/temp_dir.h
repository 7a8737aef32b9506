// A private directory for one test, and the named pipes made in it.
#ifndef DRAVIK_TESTS_SUPPORT_TEMP_DIR_H_
#define DRAVIK_TESTS_SUPPORT_TEMP_DIR_H_

#include <gtest/gtest.h>

#include <string>

// Made with mkdtemp under $TMPDIR (or /tmp); removed with everything in it
// when destroyed.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // The path of `name` inside the directory; nothing is created.
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Makes a named pipe with mode 0666 at `path` and returns the path; fails the
// current test if it cannot.
std::string makeFifo(const std::string& path);

// Fixture for tests that need files of their own.
class TempDirTest : public ::testing::Test {
 protected:
  TempDir dir_;
};

#endif  // DRAVIK_TESTS_SUPPORT_TEMP_DIR_H_
