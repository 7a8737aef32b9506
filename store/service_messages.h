// The fourteen message classes the service speaks (catalogue.h lists them
// with their arguments and holds their selectors). Incoming classes run a
// store or factory-reset handler in Process(); outgoing classes are built,
// filled and sent by the handlers. Their encoders and decoders are in
// service_messages.cc; the line above each class says where the rest of it
// is: where its selector is registered for the mailbox's reader, and where
// its work is done or it is sent.
#ifndef DRAVIK_STORE_SERVICE_MESSAGES_H_
#define DRAVIK_STORE_SERVICE_MESSAGES_H_

#include <cstdint>
#include <string>

#include "messaging/binary_message.h"
#include "store/catalogue.h"

// A message whose only argument is a signed 32-bit channel.
class ChannelCommand : public BinaryCommand {
 public:
  void fromStream(bistream& in) override;
  void toStream(bostream& out) const override;
  int32_t channel = 0;
};

// Registered in service/service_api.cc; Process() is in service/factory_reset.cc.
class RestoreFactoryAllSettingsCommand : public BinaryCommand {
 public:
  void Process() override;
  int32_t getSelector() const override { return kRestoreFactoryAllSettingsSelector; }
};

// Registered in service/service_api.cc; Process() is in service/factory_reset.cc.
class RestoreFactoryVirtualCameraSettingsCommand : public ChannelCommand {
 public:
  void Process() override;
  int32_t getSelector() const override { return kRestoreFactoryVirtualCameraSettingsSelector; }
};

// Registered in service/service_api.cc; Process() runs ResetChannelCalibration (calibration_store.cc).
class ResetCalibrationCommand : public ChannelCommand {
 public:
  void Process() override;
  int32_t getSelector() const override { return kResetCalibrationSelector; }
};

// Registered in service/service_api.cc; Process() runs ResetChannelFilter (analytics_filter_store.cc).
class RestoreFactoryFilterCommand : public ChannelCommand {
 public:
  void Process() override;
  int32_t getSelector() const override { return kRestoreFactoryFilterSelector; }
};

// Registered in analytics_filter_store.cc; Process() runs SetAnalyticsFilterData there.
class SetAnalyticsFilterDataCommand : public BinaryCommand {
 public:
  void Process() override;
  int32_t getSelector() const override { return kSetAnalyticsFilterDataSelector; }
  void fromStream(bistream& in) override;
  void toStream(bostream& out) const override;
  int32_t channel = 0;
  std::string fileName;
};

// Registered in service/service_api.cc; Process() runs SaveAnalyticsFilterFile (analytics_filter_store.cc).
class SaveAnalyticsFilterDataCommand : public BinaryCommand {
 public:
  void Process() override;
  int32_t getSelector() const override { return kSaveAnalyticsFilterDataSelector; }
  void fromStream(bistream& in) override;
  void toStream(bostream& out) const override;
  int32_t channel = 0;
  int32_t status = 0;  // the engine's result; 0 is success
};

// Answered with the path of the channel's filter file; the answer is
// computed while the response is encoded.
// Registered in analytics_filter_store.cc; the answer is GetAnalyticsFilterData's, there.
class GetAnalyticsFilterDataRequest : public BinaryRequest {
 public:
  int32_t getSelector() const override { return kGetAnalyticsFilterDataSelector; }
  void fromStream(bistream& in) override;
  int32_t getResponseSelector() const override { return kGetAnalyticsFilterDataResponseSelector; }
  void responseToStream(bostream& out) const override;
  int32_t channel = 0;
};

// The engine's answer to a calibration request; correlationId names the
// request. Process() stores the block.
// Registered in service/service_api.cc; Process() is in calibration_store.cc.
class CalibrationDataResponse : public BinaryCommand {
 public:
  void Process() override;
  int32_t getSelector() const override { return kCalibrationDataResponseSelector; }
  void fromStream(bistream& in) override;
  byteArray calibrationData;
};

// Sent by SendZekCalibrationRequest (calibration_store.cc).
class GetCalibrationDataChangeNotification : public BinaryNotification {
 public:
  int32_t getSelector() const override { return kGetCalibrationDataChangeSelector; }
  void toStream(bostream& out) const override;
  uint32_t channel = 0;
};

// Sent at start-up with a stored block. Also accepted on the mailbox, where
// only its header is decoded and it is sent straight on.
// Sent by RestoreZekCalibrationData (calibration_store.cc); registered in service/service_api.cc.
class SetCalibrationDataNotification : public BinaryNotification {
 public:
  int32_t getSelector() const override { return kSetCalibrationDataSelector; }
  void toStream(bostream& out) const override;
  int32_t channel = 0;
  byteArray calibrationData;
  bool fileFound = false;  // not on the wire
};

// Sent by ResetChannelCalibration (calibration_store.cc).
class ResetCalibrationNotification : public BinaryNotification {
 public:
  int32_t getSelector() const override { return kResetCalibrationSelector; }
  void toStream(bostream& out) const override;
  int32_t channel = 0;
};

// Sent by ResetChannelFilter (analytics_filter_store.cc).
class RestoreFactoryFilterNotification : public BinaryNotification {
 public:
  int32_t getSelector() const override { return kRestoreFactoryFilterSelector; }
  void toStream(bostream& out) const override;
  int32_t channel = 0;
};

// The two filter notifications share selector 13004 and one wire form.
class FilterPathNotification : public BinaryNotification {
 public:
  int32_t getSelector() const override { return kSetAnalyticsFilterDataSelector; }
  void toStream(bostream& out) const override;
  int32_t channel = 0;
  std::string fileName;
};

// Sent by SendAnalyticsFilterDataNotification (analytics_filter_store.cc).
class SetAnalyticsFilterDataNotification : public FilterPathNotification {};

// Sent by RestoreZekAnalyticsFilter (analytics_filter_store.cc).
class RestoreAnalyticsFilterNotification : public FilterPathNotification {
 public:
  bool fileFound = false;  // not on the wire
};

#endif  // DRAVIK_STORE_SERVICE_MESSAGES_H_
