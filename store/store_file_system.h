// The system calls through which the store touches its files. The daemon
// uses the real ones; a test puts in a file system of its own, for instance
// one that forgets everything not yet synced, to see what a power cut leaves.
//
// None of these calls waits on a named pipe or a device: only regular files
// are opened, and a file is created only where nothing stands.
#ifndef DRAVIK_STORE_STORE_FILE_SYSTEM_H_
#define DRAVIK_STORE_STORE_FILE_SYSTEM_H_

#include <sys/types.h>

#include <cstdint>
#include <string>

class StoreFileSystem {
 public:
  virtual ~StoreFileSystem() = default;

  // Opens the regular file at `path` (links followed) for reading. -1 when
  // there is none: nothing, or something that is not a regular file.
  virtual int openForReading(const std::string& path) = 0;
  // Creates a new file at `path` for writing (mode 0666 less the umask);
  // -1 with errno when anything stands there already or it cannot be made.
  virtual int create(const std::string& path) = 0;
  // The size of the open file; -1 on failure.
  virtual int64_t size(int fd) = 0;
  // As read(2) and write(2).
  virtual ssize_t read(int fd, char* to, std::size_t count) = 0;
  virtual ssize_t write(int fd, const char* from, std::size_t count) = 0;
  // Makes the file's content durable: 0, or -1 with errno.
  virtual int sync(int fd) = 0;
  // Makes the entries of `directory` durable (files made, removed, renamed).
  virtual int syncDirectory(const std::string& directory) = 0;
  virtual int close(int fd) = 0;
  // As unlink(2) and rename(2): 0, or -1 with errno.
  virtual int unlink(const std::string& path) = 0;
  virtual int rename(const std::string& from, const std::string& to) = 0;
};

// The file system the store uses now.
StoreFileSystem& storeFileSystem();
// Uses `files` from now on (null: the real one again) and returns the one
// used until now. Set before other threads run.
StoreFileSystem* useStoreFileSystem(StoreFileSystem* files);

#endif  // DRAVIK_STORE_STORE_FILE_SYSTEM_H_
