// The frames that the benchmark's peers send, built from the catalogue by
// the library's own frame builder (encodeFrame), and the checks of the
// answers that come back. Sizes include the 4-byte length.
#ifndef DRAVIK_BENCH_FRAMES_H_
#define DRAVIK_BENCH_FRAMES_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "messaging/frame_format.h"

// GetAnalyticsFilterDataRequest: the header and the channel.
constexpr std::size_t kRequestFrameSize = kFrameLengthSize + kHeaderSize + 4;  // 52
// Its answer: the header and the 51-character filter path with its length.
constexpr std::size_t kAnswerFrameSize = kFrameLengthSize + kHeaderSize + 2 + 51;  // 101
// CalibrationDataResponse with the largest block that fits a frame
// (kLargestCalibrationBlock).
constexpr std::size_t kCalibrationFrameSize = kMaxFrameSize;

// Distinct request frames, cycled; a multiple of the pipelined write batch.
constexpr std::size_t kDistinctRequests = 4096;

// kDistinctRequests GetAnalyticsFilterDataRequest frames from a client
// endpoint, for channels 0 to 3 in turn, each with its own id.
std::string requestFrames();
// The `i`th request of those frames, cyclically.
inline const char* requestAt(const std::string& frames, long i) {
  return frames.data() + (static_cast<std::size_t>(i) % kDistinctRequests) * kRequestFrameSize;
}

// One CalibrationDataResponse from the engine whose correlation id matches
// no request (the daemon under -s 100000 never sends one): it is read,
// decoded and logged, and nothing is stored.
std::string calibrationFrame();

// The answer the daemon sends to a request for `channel`'s filter path, from
// the service endpoint; recipient, id and correlation id are the caller's.
std::string answerFrame(int32_t channel);

// The answer is one frame of the answer's size that correlates with `request`.
bool answerMatches(const std::string& answer, const char* request);
// The answer decodes as a peer decodes it, carrying `channel`'s filter path.
bool answerDecodes(const std::string& answer, int32_t channel);

#endif  // DRAVIK_BENCH_FRAMES_H_
