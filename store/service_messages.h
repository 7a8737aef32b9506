// The fourteen message classes the service speaks. Incoming classes run a
// store or factory-reset handler in Process(); outgoing classes are built,
// filled and sent by the handlers.
//
//   class                                        selector  dir  arguments
//   RestoreFactoryAllSettingsCommand                   13  in   -
//   RestoreFactoryVirtualCameraSettingsCommand         14  in   channel
//   ResetCalibrationCommand                         13001  in   channel
//   RestoreFactoryFilterCommand                     13005  in   channel
//   SetAnalyticsFilterDataCommand                   13004  in   channel, fileName
//   SaveAnalyticsFilterDataCommand                  13006  in   channel, status
//   GetAnalyticsFilterDataRequest                   13002  in   channel (answered with 13003: path)
//   CalibrationDataResponse                          2045  in   calibrationData
//   GetCalibrationDataChangeNotification             2044  out  channel (unsigned)
//   SetCalibrationDataNotification                   2046  out  channel, calibrationData (also in)
//   ResetCalibrationNotification                    13001  out  channel
//   RestoreFactoryFilterNotification                13005  out  channel
//   SetAnalyticsFilterDataNotification              13004  out  channel, fileName
//   RestoreAnalyticsFilterNotification              13004  out  channel, fileName
#ifndef DRAVIK_STORE_SERVICE_MESSAGES_H_
#define DRAVIK_STORE_SERVICE_MESSAGES_H_

#include <cstdint>
#include <string>

#include "messaging/binary_message.h"

// Endpoint numbers.
constexpr int32_t kServiceEndpoint = 13;
constexpr int32_t kEngineEndpoint = 11;
constexpr int32_t kFilterEndpoint = 2;

// Selectors.
constexpr int32_t kRestoreFactoryAllSettingsSelector = 13;
constexpr int32_t kRestoreFactoryVirtualCameraSettingsSelector = 14;
constexpr int32_t kGetCalibrationDataChangeSelector = 2044;
constexpr int32_t kCalibrationDataResponseSelector = 2045;
constexpr int32_t kSetCalibrationDataSelector = 2046;
constexpr int32_t kResetCalibrationSelector = 13001;
constexpr int32_t kGetAnalyticsFilterDataSelector = 13002;
constexpr int32_t kGetAnalyticsFilterDataResponseSelector = 13003;
constexpr int32_t kSetAnalyticsFilterDataSelector = 13004;
constexpr int32_t kRestoreFactoryFilterSelector = 13005;
constexpr int32_t kSaveAnalyticsFilterDataSelector = 13006;

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
