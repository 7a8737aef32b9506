// The messages dravikctl sends to the service, in the wire forms that the
// service decodes. The service's own classes encode only what the service
// itself sends (its incoming request and calibration answer encode nothing
// after the header), so the tool carries encoders of its own, one per wire
// form, built on the same messaging kinds.
#ifndef DRAVIK_TOOLS_DRAVIKCTL_TOOL_MESSAGES_H_
#define DRAVIK_TOOLS_DRAVIKCTL_TOOL_MESSAGES_H_

#include <cstdint>
#include <string>

#include "messaging/binary_message.h"

namespace dravikctl {

// A command with no arguments after the header (selector 13).
class BareCommand : public BinaryCommand {
 public:
  explicit BareCommand(int32_t selectorValue) { selector = selectorValue; }
};

// A command whose only argument is a channel (selectors 14, 13001, 13005).
class ChannelOnlyCommand : public BinaryCommand {
 public:
  ChannelOnlyCommand(int32_t selectorValue, int32_t channelValue) : channel(channelValue) { selector = selectorValue; }
  void toStream(bostream& out) const override;
  int32_t channel;
};

// SetAnalyticsFilterDataCommand: channel, file name.
class FilterFileCommand : public BinaryCommand {
 public:
  FilterFileCommand(int32_t channelValue, std::string fileNameValue);
  int32_t getSelector() const override;
  void toStream(bostream& out) const override;
  int32_t channel;
  std::string fileName;
};

// SaveAnalyticsFilterDataCommand: channel, the engine's status.
class FilterStatusCommand : public BinaryCommand {
 public:
  FilterStatusCommand(int32_t channelValue, int32_t statusValue) : channel(channelValue), status(statusValue) {}
  int32_t getSelector() const override;
  void toStream(bostream& out) const override;
  int32_t channel;
  int32_t status;
};

// GetAnalyticsFilterDataRequest: channel. The response selector travels in
// the header; the tool never answers a request itself.
class FilterPathRequest : public BinaryRequest {
 public:
  explicit FilterPathRequest(int32_t channelValue) : channel(channelValue) {}
  int32_t getSelector() const override;
  int32_t getResponseSelector() const override { return responseSelector; }
  void responseToStream(bostream&) const override {}
  void toStream(bostream& out) const override;
  int32_t channel;
};

// CalibrationDataResponse: the calibration block, correlated with the
// request it answers through the header's correlationId.
class CalibrationBlockCommand : public BinaryCommand {
 public:
  explicit CalibrationBlockCommand(const std::string& block);
  int32_t getSelector() const override;
  void toStream(bostream& out) const override;
  byteArray calibrationData;
};

// The whole frame of `message` as BinaryOutputFifo::send writes it: the
// payload length, the header with argsLength filled in, the arguments.
std::string encodeFrame(const BinaryMessage& message);

// Message ids that differ between runs of the tool, so that an answer left
// in the notification pipe by an earlier run never matches a new request.
void seedMessageIds();

}  // namespace dravikctl

#endif  // DRAVIK_TOOLS_DRAVIKCTL_TOOL_MESSAGES_H_
