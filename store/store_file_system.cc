#include "store/store_file_system.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "messaging/typed_open.h"

namespace {

class SystemFiles : public StoreFileSystem {
 public:
  int openForReading(const std::string& path) override {
    OpenRefusal refusal;
    return openTyped(path.c_str(), O_RDONLY, S_IFREG, &refusal);
  }
  int create(const std::string& path) override {
    // O_EXCL: the caller has just removed the old file, so whatever stands
    // here now (a pipe, a device, a link) was put there by someone else.
    return ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666);
  }
  int64_t size(int fd) override {
    struct stat info;
    return fstat(fd, &info) == 0 ? static_cast<int64_t>(info.st_size) : -1;
  }
  ssize_t read(int fd, char* to, std::size_t count) override { return ::read(fd, to, count); }
  ssize_t write(int fd, const char* from, std::size_t count) override { return ::write(fd, from, count); }
  int sync(int fd) override { return ::fsync(fd); }
  int syncDirectory(const std::string& directory) override {
    int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return -1;
    int result = ::fsync(fd);
    int error = errno;
    ::close(fd);
    errno = error;
    return result;
  }
  int close(int fd) override { return ::close(fd); }
  int unlink(const std::string& path) override { return ::unlink(path.c_str()); }
  int rename(const std::string& from, const std::string& to) override { return ::rename(from.c_str(), to.c_str()); }
};

SystemFiles systemFiles;
StoreFileSystem* current = &systemFiles;

}  // namespace

StoreFileSystem& storeFileSystem() { return *current; }

StoreFileSystem* useStoreFileSystem(StoreFileSystem* files) {
  StoreFileSystem* previous = current;
  current = files != nullptr ? files : &systemFiles;
  return previous;
}
