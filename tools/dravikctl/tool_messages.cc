#include "tools/dravikctl/tool_messages.h"

#include <time.h>
#include <unistd.h>

#include <sstream>

#include "store/service_messages.h"

namespace dravikctl {

void ChannelOnlyCommand::toStream(bostream& out) const {
  BinaryCommand::toStream(out);
  out << channel;
}

FilterFileCommand::FilterFileCommand(int32_t channelValue, std::string fileNameValue)
    : channel(channelValue), fileName(std::move(fileNameValue)) {}

int32_t FilterFileCommand::getSelector() const { return kSetAnalyticsFilterDataSelector; }

void FilterFileCommand::toStream(bostream& out) const {
  BinaryCommand::toStream(out);
  out << channel << fileName;
}

int32_t FilterStatusCommand::getSelector() const { return kSaveAnalyticsFilterDataSelector; }

void FilterStatusCommand::toStream(bostream& out) const {
  BinaryCommand::toStream(out);
  out << channel << status;
}

int32_t FilterPathRequest::getSelector() const { return kGetAnalyticsFilterDataSelector; }

void FilterPathRequest::toStream(bostream& out) const {
  BinaryRequest::toStream(out);
  out << channel;
}

CalibrationBlockCommand::CalibrationBlockCommand(const std::string& block) {
  calibrationData.assign(block.data(), static_cast<uint32_t>(block.size()));
}

int32_t CalibrationBlockCommand::getSelector() const { return kCalibrationDataResponseSelector; }

void CalibrationBlockCommand::toStream(bostream& out) const {
  BinaryCommand::toStream(out);
  out << calibrationData;
}

std::string encodeFrame(const BinaryMessage& message) {
  std::ostringstream frame;
  bostream out(frame);
  out << uint32_t{0};  // payload length, patched below
  message.toStream(out);
  std::string bytes = frame.str();
  uint32_t length = static_cast<uint32_t>(bytes.size() - 4);
  uint32_t argsLength = length >= kHeaderSize ? length - kHeaderSize : 0;
  for (int i = 0; i < 4; ++i) {
    bytes[i] = static_cast<char>(length >> (24 - 8 * i));
    if (bytes.size() >= 4 + kHeaderSize) bytes[4 + kArgsLengthOffset + i] = static_cast<char>(argsLength >> (24 - 8 * i));
  }
  return bytes;
}

void seedMessageIds() {
  struct timespec t;
  clock_gettime(CLOCK_REALTIME, &t);
  uint32_t seed = static_cast<uint32_t>(t.tv_sec) * 1000u + static_cast<uint32_t>(t.tv_nsec / 1000000);
  seed ^= static_cast<uint32_t>(getpid()) << 16;
  // Positive and far from overflow: a run sends only a few messages.
  BinaryMessage::lastId = static_cast<int32_t>((seed & 0x3FFFFFFF) + 1000);
}

}  // namespace dravikctl
