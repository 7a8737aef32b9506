#include "bench/frames.h"

#include <cstring>

#include "messaging/binary_fifo.h"
#include "store/store_layout.h"
#include "peer/frame_codec.h"

namespace {

// Any endpoint but the camera's own.
constexpr int32_t kClientEndpoint = 7;
constexpr int32_t kUnmatchedCorrelationId = 999999;

}  // namespace

std::string requestFrames() {
  std::string frames;
  for (std::size_t i = 0; i < kDistinctRequests; ++i) {
    peer::CatalogueMessage request("GetAnalyticsFilterDataRequest", {static_cast<int>(i % kChannelCount)});
    request.sender = kClientEndpoint;
    frames += encodeFrame(request);
  }
  return frames;
}

std::string calibrationFrame() {
  std::string block(kLargestCalibrationBlock, '\0');
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 7);
  peer::CatalogueMessage answer("CalibrationDataResponse", {block});
  answer.sender = kEngineEndpoint;
  answer.correlationId = kUnmatchedCorrelationId;
  return encodeFrame(answer);
}

std::string answerFrame(int32_t channel) {
  peer::CatalogueMessage answer("GetAnalyticsFilterDataResponse", {FilterFilePath(channel)});
  answer.sender = kServiceEndpoint;
  return encodeFrame(answer);
}

bool answerMatches(const std::string& answer, const char* request) {
  return answer.size() == kAnswerFrameSize &&
         std::memcmp(answer.data() + kFrameLengthSize + kCorrelationIdOffset, request + kFrameLengthSize + kIdOffset,
                     4) == 0;
}

bool answerDecodes(const std::string& answer, int32_t channel) {
  peer::DecodedFrame decoded = peer::decodeFrame(answer, catalogue::Flow::out);
  const peer::Value* path = decoded.arg("path");
  return decoded.header.selector == kGetAnalyticsFilterDataResponseSelector && path != nullptr &&
         path->bytes == FilterFilePath(channel);
}
