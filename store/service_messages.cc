#include "store/service_messages.h"

#include "messaging/system_log.h"
#include "store/analytics_filter_store.h"
#include "store/calibration_store.h"

void ChannelCommand::fromStream(bistream& in) {
  BinaryCommand::fromStream(in);
  in >> channel;
}

void ChannelCommand::toStream(bostream& out) const {
  BinaryCommand::toStream(out);
  out << channel;
}

void ResetCalibrationCommand::Process() { ResetChannelCalibration(channel); }

void RestoreFactoryFilterCommand::Process() { ResetChannelFilter(channel); }

void SetAnalyticsFilterDataCommand::Process() { SetAnalyticsFilterData(channel, fileName); }

void SetAnalyticsFilterDataCommand::fromStream(bistream& in) {
  BinaryCommand::fromStream(in);
  in >> channel >> fileName;
}

void SetAnalyticsFilterDataCommand::toStream(bostream& out) const {
  BinaryCommand::toStream(out);
  out << channel << fileName;
}

void SaveAnalyticsFilterDataCommand::Process() { SaveAnalyticsFilterFile(channel, status); }

void SaveAnalyticsFilterDataCommand::fromStream(bistream& in) {
  BinaryCommand::fromStream(in);
  in >> channel >> status;
}

void SaveAnalyticsFilterDataCommand::toStream(bostream& out) const {
  BinaryCommand::toStream(out);
  out << channel << status;
}

void GetAnalyticsFilterDataRequest::fromStream(bistream& in) {
  BinaryRequest::fromStream(in);
  in >> channel;
}

void GetAnalyticsFilterDataRequest::responseToStream(bostream& out) const {
  out << GetAnalyticsFilterData(channel);
}

void CalibrationDataResponse::fromStream(bistream& in) {
  BinaryCommand::fromStream(in);
  in >> calibrationData;
}

void GetCalibrationDataChangeNotification::toStream(bostream& out) const {
  BinaryNotification::toStream(out);
  LogLine(LOG_INFO) << "GetCalibrationDataChangeNotification::toStream channel=" << channel;
  out << channel;
}

void SetCalibrationDataNotification::toStream(bostream& out) const {
  BinaryNotification::toStream(out);
  LogLine(LOG_INFO) << "toStream channel=" << channel << " length=" << calibrationData.length;
  out << channel << calibrationData;
}

void ResetCalibrationNotification::toStream(bostream& out) const {
  BinaryNotification::toStream(out);
  LogLine(LOG_INFO) << "ResetCalibrationNotification::toStream channel=" << channel;
  out << channel;
}

void RestoreFactoryFilterNotification::toStream(bostream& out) const {
  BinaryNotification::toStream(out);
  LogLine(LOG_INFO) << "RestoreFactoryFilterNotification::toStream channel=" << channel;
  out << channel;
}

void FilterPathNotification::toStream(bostream& out) const {
  BinaryNotification::toStream(out);
  out << channel << fileName;
}
