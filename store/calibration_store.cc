#include "store/calibration_store.h"

#include <new>
#include <stdexcept>

#include "messaging/system_log.h"
#include "store/service_messages.h"

CalibrationRequest calibrationRequests[kChannelCount];

void SendZekCalibrationRequest(int32_t channel) {
  if (!CheckChannel("SendZekCalibrationRequest", channel)) return;
  LogLine(LOG_INFO) << "Sending Zek Calibration Request for ch=" << channel;
  GetCalibrationDataChangeNotification request;
  request.recipient = kEngineEndpoint;
  request.responseSelector = kCalibrationDataResponseSelector;
  request.channel = static_cast<uint32_t>(channel);
  // The entry is complete before the request leaves, so the answer always
  // finds it.
  CalibrationRequest& entry = calibrationRequests[channel];
  entry.channel.store(channel, std::memory_order_relaxed);
  entry.requestId.store(request.id, std::memory_order_release);
  request.Process();
}

void CalibrationDataResponse::Process() {
  LogLine(LOG_INFO) << "Process Received Message with correlationID " << correlationId << " ArgsSize=" << argsLength;
  for (CalibrationRequest& entry : calibrationRequests) {
    int32_t requestId = entry.requestId.load(std::memory_order_acquire);
    // An entry never used holds 0, the correlation id of every message that
    // is not an answer: it must not match.
    if (requestId != 0 && requestId == correlationId) {
      UpdateCalibrationData(entry.channel.load(std::memory_order_relaxed), calibrationData);
    }
  }
}

void UpdateCalibrationData(int32_t channel, const byteArray& calibration) {
  std::string path = CalibrationFilePath(channel);
  if (calibration.length != 0 && calibration.data == nullptr) {
    // The decoder refused this block's length: nothing trustworthy arrived,
    // so the stored calibration stays as it was.
    LogLine(LOG_ERR) << "UpdateCalibrationData:Received Invalid Calibration Size " << calibration.length;
    return;
  }
  RemoveStoreFile(path);
  if (calibration.length == 0) {
    LogLine(LOG_INFO) << "UpdateCalibrationData:Received Invalid Calibration Size " << calibration.length;
    return;
  }
  LogLine(LOG_INFO) << "UpdateCalibrationData:Updating " << path;
  switch (WriteCalibrationFile(path, calibration)) {
    case CalibrationWrite::openFailed:
      LogLine(LOG_ERR) << "UpdateCalibrationData:File open failed for File::" << path;
      break;
    case CalibrationWrite::writeFailed:
      LogLine(LOG_ERR) << "UpdateCalibrationData:Data Write failed";
      break;
    case CalibrationWrite::written:
      LogLine(LOG_INFO) << "UpdateCalibrationData:Updated " << path;
      break;
  }
}

namespace {

void ReportTooLarge(const std::string& path, uint64_t size) {
  LogLine(LOG_ERR) << "RestoreZekCalibrationData: File " << path << " of " << size << " bytes is too large to restore";
}

}  // namespace

void RestoreZekCalibrationData(int32_t channel) {
  if (!CheckChannel("RestoreZekCalibrationData", channel)) return;
  LogLine(LOG_INFO) << "Restoring Zek Calibration for ch=" << channel;
  SetCalibrationDataNotification notification;
  notification.channel = channel;
  std::string path = CalibrationFilePath(channel);
  uint64_t size = 0;
  CalibrationRead read = ReadCalibrationFile(path, notification.calibrationData, &size);
  if (read != CalibrationRead::missing) {
    notification.fileFound = true;
    LogLine(LOG_INFO) << "SetCalibrationDataNotification File: " << path << " Has data size=" << size;
  }
  if (read == CalibrationRead::tooLarge) {
    ReportTooLarge(path, size);
  } else if (notification.fileFound) {
    notification.recipient = kEngineEndpoint;
    notification.responseSelector = kCalibrationDataResponseSelector;
    try {
      notification.Process();
    } catch (const std::bad_alloc&) {
      // A block that could be read but whose frame cannot be built (a
      // 32-bit address space): nothing was written, the schedule goes on.
      ReportTooLarge(path, size);
    } catch (const std::length_error&) {
      ReportTooLarge(path, size);
    }
  } else {
    LogLine(LOG_INFO) << "RestoreZekCalibrationData ZEK Calibration File CH " << channel
                      << " does not exist. Restore not required";
  }
}

void ResetChannelCalibration(int32_t channel) {
  RemoveStoreFile(CalibrationFilePath(channel));
  ResetCalibrationNotification notification;
  notification.recipient = kFilterEndpoint;
  notification.channel = channel;
  notification.Process();
}
