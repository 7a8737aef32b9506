#include "store/catalogue.h"

namespace catalogue {

const std::vector<Entry>& entries() {
  static const Arg channel{"channel", ArgType::int32};
  static const std::vector<Entry> table = {
      {"RestoreFactoryAllSettingsCommand", kRestoreFactoryAllSettingsSelector, Flow::in, kServiceEndpoint, 0, {}},
      {"RestoreFactoryVirtualCameraSettingsCommand", kRestoreFactoryVirtualCameraSettingsSelector, Flow::in,
       kServiceEndpoint, 0, {channel}},
      {"ResetCalibrationCommand", kResetCalibrationSelector, Flow::in, kServiceEndpoint, 0, {channel}},
      {"RestoreFactoryFilterCommand", kRestoreFactoryFilterSelector, Flow::in, kServiceEndpoint, 0, {channel}},
      {"SetAnalyticsFilterDataCommand", kSetAnalyticsFilterDataSelector, Flow::in, kServiceEndpoint, 0,
       {channel, {"fileName", ArgType::string}}},
      {"SaveAnalyticsFilterDataCommand", kSaveAnalyticsFilterDataSelector, Flow::in, kServiceEndpoint, 0,
       {channel, {"status", ArgType::int32}}},
      {"GetAnalyticsFilterDataRequest", kGetAnalyticsFilterDataSelector, Flow::in, kServiceEndpoint,
       kGetAnalyticsFilterDataResponseSelector, {channel}},
      {"CalibrationDataResponse", kCalibrationDataResponseSelector, Flow::in, kServiceEndpoint, 0,
       {{"calibrationData", ArgType::bytes}}},
      {"SetCalibrationDataNotification", kSetCalibrationDataSelector, Flow::in, kServiceEndpoint, 0,
       {channel, {"calibrationData", ArgType::bytes}}},
      {"GetCalibrationDataChangeNotification", kGetCalibrationDataChangeSelector, Flow::out, kEngineEndpoint,
       kCalibrationDataResponseSelector, {{"channel", ArgType::uint32}}},
      {"SetCalibrationDataNotification", kSetCalibrationDataSelector, Flow::out, kEngineEndpoint,
       kCalibrationDataResponseSelector, {channel, {"calibrationData", ArgType::bytes}}},
      {"ResetCalibrationNotification", kResetCalibrationSelector, Flow::out, kFilterEndpoint, 0, {channel}},
      {"RestoreFactoryFilterNotification", kRestoreFactoryFilterSelector, Flow::out, kFilterEndpoint, 0, {channel}},
      {"SetAnalyticsFilterDataNotification", kSetAnalyticsFilterDataSelector, Flow::out, kFilterEndpoint,
       kSaveAnalyticsFilterDataSelector, {channel, {"fileName", ArgType::string}}},
      {"RestoreAnalyticsFilterNotification", kSetAnalyticsFilterDataSelector, Flow::out, kEngineEndpoint, 0,
       {channel, {"fileName", ArgType::string}}},
      {"GetAnalyticsFilterDataResponse", kGetAnalyticsFilterDataResponseSelector, Flow::out, -1, 0,
       {{"path", ArgType::string}}},
  };
  return table;
}

const Entry* byName(const std::string& name) {
  for (const Entry& entry : entries()) {
    if (name == entry.name) return &entry;
  }
  return nullptr;
}

const Entry* classify(int32_t selector, Flow flow, int32_t recipient, int32_t responseSelector) {
  const Entry* candidate = nullptr;
  int candidates = 0;
  for (const Entry& entry : entries()) {
    if (entry.selector != selector || entry.flow != flow) continue;
    if (entry.recipient == recipient) return &entry;
    candidate = &entry;
    ++candidates;
  }
  if (candidates <= 1) return candidate;
  // The two filter notifications to an endpoint other than 2 and 11: the
  // one that wants endpoint 2's verdict asks for it.
  for (const Entry& entry : entries()) {
    if (entry.selector == selector && entry.flow == flow && entry.responseSelector == responseSelector) return &entry;
  }
  return candidate;
}

}  // namespace catalogue
