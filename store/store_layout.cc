#include "store/store_layout.h"

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <new>

#include "messaging/frame_format.h"
#include "messaging/system_log.h"
#include "store/store_file_system.h"

namespace {

// directory + name + channel in decimal + extension, as the formats
// "%szekCalibrationDataCH%d.bin" and "%smetadataFilterCH%d.xml" give it.
std::string storePath(const char* directory, const char* name, int32_t channel, const char* extension) {
  char digits[12];
  std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, channel);
  std::string path;
  path.reserve(64);
  path.append(directory).append(name).append(digits, end.ptr).append(extension);
  return path;
}

}  // namespace

bool CheckChannel(const char* operation, int32_t channel) {
  if (channel >= 0 && channel < kChannelCount) return true;
  LogLine(LOG_ERR) << " " << operation << "Out of Range Channel ch=" << channel;
  return false;
}

std::string CalibrationFilePath(int32_t channel) {
  return storePath(kCalibrationDirectory, "zekCalibrationDataCH", channel, ".bin");
}

std::string FilterFilePath(int32_t channel) {
  return storePath(kFilterDirectory, "metadataFilterCH", channel, ".xml");
}

void RemoveStoreFile(const std::string& path) { (void)storeFileSystem().unlink(path); }

namespace {

std::string directoryOf(const std::string& path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

bool writeAll(StoreFileSystem& files, int fd, const char* data, std::size_t size) {
  while (size > 0) {
    ssize_t n = files.write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

CalibrationWrite WriteCalibrationFile(const std::string& path, const byteArray& block) {
  StoreFileSystem& files = storeFileSystem();
  int fd = files.create(path);
  if (fd < 0) return CalibrationWrite::openFailed;
  // The block, then the file, then the directory that names it are on the
  // storage before the outcome is judged: once "Updated" is logged, a power
  // cut leaves the whole block.
  bool ok = writeAll(files, fd, block.data, block.length);
  ok = files.sync(fd) == 0 && ok;
  ok = files.syncDirectory(directoryOf(path)) == 0 && ok;
  files.close(fd);
  return ok ? CalibrationWrite::written : CalibrationWrite::writeFailed;
}

CalibrationRead ReadCalibrationFile(const std::string& path, byteArray& block, uint64_t* size) {
  StoreFileSystem& files = storeFileSystem();
  block.release();
  int fd = files.openForReading(path);
  if (fd < 0) return CalibrationRead::missing;
  int64_t end = files.size(fd);
  *size = end > 0 ? static_cast<uint64_t>(end) : 0;
  CalibrationRead result = CalibrationRead::read;
  // A stray huge file must not end the process: a block that no frame's
  // 32-bit length can carry, or that cannot be allocated, is too large.
  constexpr uint64_t kLargestBlock = UINT32_MAX - kHeaderSize - 2 * sizeof(uint32_t);
  char* data = *size > 0 && *size <= kLargestBlock ? new (std::nothrow) char[*size] : nullptr;
  if (*size > 0 && data == nullptr) {
    result = CalibrationRead::tooLarge;
  } else if (data != nullptr) {
    // One pass; a file that shrank meanwhile leaves zeros, never memory
    // that was not read.
    std::size_t got = 0;
    while (got < *size) {
      ssize_t n = files.read(fd, data + got, static_cast<std::size_t>(*size - got));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += static_cast<std::size_t>(n);
    }
    std::memset(data + got, 0, static_cast<std::size_t>(*size - got));
    block.data = data;
    block.length = static_cast<uint32_t>(*size);
  }
  files.close(fd);
  return result;
}

bool FilterFileExists(const std::string& path) {
  StoreFileSystem& files = storeFileSystem();
  int fd = files.openForReading(path);
  if (fd < 0) return false;
  files.close(fd);
  return true;
}

bool InstallFilterFile(const std::string& source, const std::string& destination) {
  StoreFileSystem& files = storeFileSystem();
  // The client's document reaches the storage before it takes the store
  // file's name; one that cannot be synced (or is no regular file) is moved
  // all the same.
  int fd = files.openForReading(source);
  if (fd >= 0) {
    (void)files.sync(fd);
    files.close(fd);
  }
  if (files.rename(source, destination) != 0) return false;
  int error = errno;
  (void)files.syncDirectory(directoryOf(destination));
  errno = error;
  return true;
}
