#include "store/store_layout.h"

#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <fstream>
#include <new>

#include "messaging/frame_format.h"
#include "messaging/system_log.h"

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

void RemoveStoreFile(const std::string& path) { (void)unlink(path.c_str()); }

CalibrationWrite WriteCalibrationFile(const std::string& path, const byteArray& block) {
  std::ofstream file(path, std::ios::out | std::ios::binary);
  if (!file.is_open()) return CalibrationWrite::openFailed;
  file.write(block.data, static_cast<std::streamsize>(block.length));
  // Flushed before the state is judged, so that a full file system shows up
  // here and not silently at close.
  file.flush();
  CalibrationWrite result = file.good() ? CalibrationWrite::written : CalibrationWrite::writeFailed;
  file.close();
  return result;
}

CalibrationRead ReadCalibrationFile(const std::string& path, byteArray& block, uint64_t* size) {
  std::ifstream file(path, std::ios::in | std::ios::binary | std::ios::ate);
  if (!file.is_open()) return CalibrationRead::missing;
  std::streamoff end = file.tellg();
  *size = end > 0 ? static_cast<uint64_t>(end) : 0;
  file.seekg(0);
  block.release();
  if (*size == 0) return CalibrationRead::read;
  // A stray huge file must not end the process: a block that no frame's
  // 32-bit length can carry, or that cannot be allocated, is too large.
  constexpr uint64_t kLargestBlock = UINT32_MAX - kHeaderSize - 2 * sizeof(uint32_t);
  char* data = *size <= kLargestBlock ? new (std::nothrow) char[*size] : nullptr;
  if (data == nullptr) return CalibrationRead::tooLarge;
  block.data = data;
  block.length = static_cast<uint32_t>(*size);
  file.read(block.data, static_cast<std::streamsize>(*size));
  return CalibrationRead::read;
}

bool FilterFileExists(const std::string& path) {
  std::ifstream file(path, std::ios::in | std::ios::binary | std::ios::ate);
  return file.is_open();
}

bool InstallFilterFile(const std::string& source, const std::string& destination) {
  return rename(source.c_str(), destination.c_str()) == 0;
}
