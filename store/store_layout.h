// Where the parameter store keeps its files, the channel numbering, and
// every file-system operation the store performs.
//
//   /etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH<n>.bin  raw calibration block
//   /etc/sysconfig/dravik/zek/tbe/metadataFilterCH<n>.xml      analytics filter document
//
// The directories belong to the installation; the service never creates them.
#ifndef DRAVIK_STORE_STORE_LAYOUT_H_
#define DRAVIK_STORE_STORE_LAYOUT_H_

#include <cstdint>
#include <string>

#include "messaging/binary_stream.h"

constexpr int32_t kChannelCount = 4;
constexpr const char* kCalibrationDirectory = "/etc/sysconfig/dravik/zek/cal/";
constexpr const char* kFilterDirectory = "/etc/sysconfig/dravik/zek/tbe/";

// True for channels 0 to 3. Otherwise logs at LOG_ERR
// " <operation>Out of Range Channel ch=<channel>" and returns false.
bool CheckChannel(const char* operation, int32_t channel);

// The store files of a channel; the channel is not checked.
std::string CalibrationFilePath(int32_t channel);
std::string FilterFilePath(int32_t channel);

// unlink(); a missing file is no error and nothing is reported.
void RemoveStoreFile(const std::string& path);

enum class CalibrationWrite { written, openFailed, writeFailed };
// Replaces the file with the block's bytes (the caller has removed the old
// file). No temporary file: the store has room for nothing but its files.
CalibrationWrite WriteCalibrationFile(const std::string& path, const byteArray& block);

enum class CalibrationRead { read, missing, tooLarge };
// Reads the whole file into `block`. `size` is the file's size whenever it
// opened. tooLarge: a block cannot hold it (4 GiB or more) or its memory
// cannot be had; `block` is then empty.
CalibrationRead ReadCalibrationFile(const std::string& path, byteArray& block, uint64_t* size);

// True if the filter file can be opened for reading.
bool FilterFileExists(const std::string& path);

// rename(); on failure errno tells why.
bool InstallFilterFile(const std::string& source, const std::string& destination);

#endif  // DRAVIK_STORE_STORE_LAYOUT_H_
