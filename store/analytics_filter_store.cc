#include "store/analytics_filter_store.h"

#include <cassert>

#include "messaging/system_log.h"
#include "store/service_messages.h"

std::string pendingFilterFiles[kChannelCount];

namespace {
const SelectorRegistration registerGet(kGetAnalyticsFilterDataSelector, newMessage<GetAnalyticsFilterDataRequest>);
const SelectorRegistration registerSet(kSetAnalyticsFilterDataSelector, newMessage<SetAnalyticsFilterDataCommand>);
}  // namespace

void SetAnalyticsFilterData(int32_t channel, const std::string& fileName) {
  if (!CheckChannel("SetAnalyticsFilterData", channel)) return;
  LogLine(LOG_INFO) << "Set AnalyticsFilterData for input " << channel;
  SendAnalyticsFilterDataNotification(channel, fileName);
  LogLine(LOG_INFO) << "SetAnalyticsFilter ch=" << channel << " name=" << fileName;
}

void SendAnalyticsFilterDataNotification(int32_t channel, const std::string& fileName) {
  assert(channel >= 0 && channel < kChannelCount);  // SetAnalyticsFilterData checked it
  SetAnalyticsFilterDataNotification notification;
  notification.channel = channel;
  notification.fileName = fileName;
  notification.recipient = kFilterEndpoint;
  pendingFilterFiles[channel] = fileName;
  notification.responseSelector = kSaveAnalyticsFilterDataSelector;
  notification.Process();
  LogLine(LOG_INFO) << "Sending SendAnalyticsFilterDataNotification for ch=" << channel;
}

void SaveAnalyticsFilterFile(int32_t channel, int32_t status) {
  if (!CheckChannel("SaveAnalyticsFilterFile", channel)) return;
  const std::string& pending = pendingFilterFiles[channel];
  if (status != 0) {
    LogLine(LOG_ERR) << "SaveAnalyticsFilterFile Error. Failed ZEK SetAnalyticsFilter with status " << status
                     << " for file::" << pending;
    return;
  }
  std::string destination = FilterFilePath(channel);
  LogLine(LOG_INFO) << "Saving Analytics Filter To file for ch=" << channel << " FileName:: " << pending;
  if (!InstallFilterFile(pending, destination)) {
    systemlog::format(LOG_ERR, "%s: Error renaming %s to %s: %m\n", "SaveAnalyticsFilterFile", pending.c_str(),
                      destination.c_str());
  }
}

const std::string& GetAnalyticsFilterData(int32_t channel) {
  static std::string result;
  result = FilterFilePath(channel);
  LogLine(LOG_INFO) << "Sending get CH=" << channel << " " << result;
  return result;
}

void RestoreZekAnalyticsFilter(int32_t channel) {
  if (!CheckChannel("RestoreZekAnalyticsFilter", channel)) return;
  LogLine(LOG_INFO) << "RestoreZekAnalyticsFilter:: for ch=" << channel;
  RestoreAnalyticsFilterNotification notification;
  notification.channel = channel;
  std::string path = FilterFilePath(channel);
  if (FilterFileExists(path)) {
    notification.fileFound = true;
    notification.fileName = path;
  }
  if (notification.fileFound) {
    notification.recipient = kEngineEndpoint;
    notification.Process();
  } else {
    LogLine(LOG_INFO) << "RestoreZekAnalyticsFilter ZEK Analytics File for CH=" << channel
                      << " does not exist. Restore not performed";
  }
}

void ResetChannelFilter(int32_t channel) {
  RemoveStoreFile(FilterFilePath(channel));
  RestoreFactoryFilterNotification notification;
  notification.recipient = kFilterEndpoint;
  notification.channel = channel;
  notification.Process();
}
