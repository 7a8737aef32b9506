// A private directory, removed with everything in it when destroyed.
#ifndef DRAVIK_HARNESS_TEMP_DIR_H_
#define DRAVIK_HARNESS_TEMP_DIR_H_

#include <string>

class TempDir {
 public:
  // Made with mkdtemp under `parent`, or else $TMPDIR (or /tmp); path() is
  // empty on failure.
  explicit TempDir(const std::string& parent = "");
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // The path of `name` inside the directory; nothing is created.
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

#endif  // DRAVIK_HARNESS_TEMP_DIR_H_
