#include "service/factory_reset.h"

#include "messaging/system_log.h"
#include "store/analytics_filter_store.h"
#include "store/calibration_store.h"
#include "store/service_messages.h"

void RestoreFactoryAllSettings() {
  LogLine(LOG_INFO) << " RestoreFactoryAllSettings" << " Received";
  for (int32_t channel = 0; channel < kChannelCount; ++channel) {
    ResetChannelFilter(channel);
    ResetChannelCalibration(channel);
  }
}

void RestoreFactorySettings(int32_t channel) {
  LogLine(LOG_INFO) << " RestoreFactorySettings" << " ch=" << channel;
  if (channel >= 0 && channel < kChannelCount) {
    ResetChannelFilter(channel);
    ResetChannelCalibration(channel);
  } else {
    LogLine(LOG_ERR) << "RestoreFactorySettings" << "::Invalid Channel=" << channel;
  }
}

void RestoreFactoryAllSettingsCommand::Process() { RestoreFactoryAllSettings(); }

void RestoreFactoryVirtualCameraSettingsCommand::Process() { RestoreFactorySettings(channel); }
