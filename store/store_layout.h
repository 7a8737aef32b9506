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

// The store's file operations. They go through storeFileSystem()
// (store_file_system.h), and none of them waits on a named pipe or a device:
// only a regular file is a store file.

// unlink(); a missing file is no error and nothing is reported.
void RemoveStoreFile(const std::string& path);

enum class CalibrationWrite { written, openFailed, writeFailed };
// Writes the block as a new file (the caller has removed the old one; a file
// is made only where nothing stands). No temporary file: the store has room
// for nothing but its files. `written` means the block, the file and its
// directory entry are synced: a power cut from then on leaves the whole
// block. A failed sync is a failed write.
CalibrationWrite WriteCalibrationFile(const std::string& path, const byteArray& block);

enum class CalibrationRead { read, missing, tooLarge };
// Reads the whole file into `block`. `size` is the file's size whenever it
// opened. missing: no regular file at `path`. tooLarge: a block cannot hold
// it (more than a frame's 32-bit length carries) or its memory cannot be
// had; `block` is then empty.
CalibrationRead ReadCalibrationFile(const std::string& path, byteArray& block, uint64_t* size);

// True if a regular file at the path can be opened for reading.
bool FilterFileExists(const std::string& path);

// Moves a client's filter file into the store: syncs it (if it is a regular
// file; a failed sync does not hold the move back), renames it, then syncs
// the store directory. False if the rename failed; errno then tells why.
bool InstallFilterFile(const std::string& source, const std::string& destination);

#endif  // DRAVIK_STORE_STORE_LAYOUT_H_
