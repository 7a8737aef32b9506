// Files of the daemon's store as tests see them: the store paths, reading
// and writing whole files, and a clean slate between tests (inside the
// sandbox, where /tmp and /etc/sysconfig are private).
#ifndef DRAVIK_TESTS_SUPPORT_STORE_FILES_H_
#define DRAVIK_TESTS_SUPPORT_STORE_FILES_H_

#include <optional>
#include <string>

// The store files of a channel, spelled out independently of the daemon.
std::string calibrationPath(int channel);
std::string filterPath(int channel);

// Writes `content` as the whole file; a failure fails the current test.
void writeFile(const std::string& path, const std::string& content);
// The whole file, or nothing if it cannot be opened.
std::optional<std::string> readFile(const std::string& path);
// True if anything, a dangling link included, has this name.
bool fileExists(const std::string& path);

// Empties `dir` (keeping it) without following symbolic links.
void emptyDirectory(const char* dir);
// Empties /tmp and /etc/sysconfig and makes the two store directories again.
// False if a directory cannot be made.
bool resetStoreAndPipes();

#endif  // DRAVIK_TESTS_SUPPORT_STORE_FILES_H_
