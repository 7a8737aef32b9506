// The fourteen message classes the service speaks (catalogue.h lists them
// with their arguments). Incoming classes run a store or factory-reset
// handler in Process(); outgoing classes are built, filled and sent by the
// handlers.
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

class RestoreFactoryAllSettingsCommand : public BinaryCommand {
 public:
  void Process() override;
  int32_t getSelector() const override { return kRestoreFactoryAllSettingsSelector; }
};

class RestoreFactoryVirtualCameraSettingsCommand : public ChannelCommand {
 public:
  void Process() override;
  int32_t getSelector() const override { return kRestoreFactoryVirtualCameraSettingsSelector; }
};

class ResetCalibrationCommand : public ChannelCommand {
 public:
  void Process() override;
  int32_t getSelector() const override { return kResetCalibrationSelector; }
};

class RestoreFactoryFilterCommand : public ChannelCommand {
 public:
  void Process() override;
  int32_t getSelector() const override { return kRestoreFactoryFilterSelector; }
};

class SetAnalyticsFilterDataCommand : public BinaryCommand {
 public:
  void Process() override;
  int32_t getSelector() const override { return kSetAnalyticsFilterDataSelector; }
  void fromStream(bistream& in) override;
  void toStream(bostream& out) const override;
  int32_t channel = 0;
  std::string fileName;
};

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
class GetAnalyticsFilterDataRequest : public BinaryRequest {
 public:
  int32_t getSelector() const override { return kGetAnalyticsFilterDataSelector; }
  void fromStream(bistream& in) override;
  int32_t getResponseSelector() const override { return kGetAnalyticsFilterDataResponseSelector; }
  void responseToStream(bostream& out) const override;
  int32_t channel = 0;
};

// The engine's answer to a calibration request; correlationId names the
// request. Process() stores the block (calibration store).
class CalibrationDataResponse : public BinaryCommand {
 public:
  void Process() override;
  int32_t getSelector() const override { return kCalibrationDataResponseSelector; }
  void fromStream(bistream& in) override;
  byteArray calibrationData;
};

class GetCalibrationDataChangeNotification : public BinaryNotification {
 public:
  int32_t getSelector() const override { return kGetCalibrationDataChangeSelector; }
  void toStream(bostream& out) const override;
  uint32_t channel = 0;
};

// Sent at start-up with a stored block. Also accepted on the mailbox, where
// only its header is decoded and it is sent straight on.
class SetCalibrationDataNotification : public BinaryNotification {
 public:
  int32_t getSelector() const override { return kSetCalibrationDataSelector; }
  void toStream(bostream& out) const override;
  int32_t channel = 0;
  byteArray calibrationData;
  bool fileFound = false;  // not on the wire
};

class ResetCalibrationNotification : public BinaryNotification {
 public:
  int32_t getSelector() const override { return kResetCalibrationSelector; }
  void toStream(bostream& out) const override;
  int32_t channel = 0;
};

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

class SetAnalyticsFilterDataNotification : public FilterPathNotification {};

class RestoreAnalyticsFilterNotification : public FilterPathNotification {
 public:
  bool fileFound = false;  // not on the wire
};

#endif  // DRAVIK_STORE_SERVICE_MESSAGES_H_
