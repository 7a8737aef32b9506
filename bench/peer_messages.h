// The daemon's peers, as the benchmarks play them: the classes the engine
// and the clients encode, and the answer they decode. The daemon's own
// classes decode these selectors but encode only their headers, so the
// peers need their own.
#ifndef DRAVIK_BENCH_PEER_MESSAGES_H_
#define DRAVIK_BENCH_PEER_MESSAGES_H_

#include <cstdint>
#include <string>

#include "messaging/binary_fifo.h"
#include "messaging/binary_message.h"

// Byte sizes on the pipe, length prefix included.
constexpr std::size_t kRequestFrameSize = 4 + 44 + 4;       // 52
constexpr std::size_t kAnswerFrameSize = 4 + 44 + 2 + 51;   // 101
constexpr uint32_t kCalibrationBlockSize = 65488;           // payload 65536
constexpr std::size_t kCalibrationFrameSize = 4 + 44 + 4 + kCalibrationBlockSize;

// Frame offsets of header fields (payload offset + 4).
constexpr std::size_t kFrameSenderOffset = 8;
constexpr std::size_t kFrameRecipientOffset = 12;
constexpr std::size_t kFrameIdOffset = 16;
constexpr std::size_t kFrameCorrelationIdOffset = 20;
constexpr std::size_t kFrameSelectorOffset = 32;

// GetAnalyticsFilterDataRequest as a client sends it: selector 13002, the
// channel as its one argument.
class FilterPathRequest : public BinaryRequest {
 public:
  int32_t getSelector() const override { return 13002; }
  int32_t getResponseSelector() const override { return 13003; }
  void toStream(bostream& out) const override;
  void responseToStream(bostream&) const override {}
  int32_t channel = 0;
};

// The daemon's answer to it: selector 13003, the filter path as a string.
class FilterPathAnswer : public BinaryMessage {
 public:
  int32_t getSelector() const override { return 13003; }
  void fromStream(bistream& in) override;
  std::string path;
};

// CalibrationDataResponse as the engine sends it: selector 2045, one block.
class CalibrationAnswer : public BinaryCommand {
 public:
  int32_t getSelector() const override { return 2045; }
  void toStream(bostream& out) const override;
  byteArray calibrationData;
};

// Frames messages with the library's own writer (BinaryOutputFifo::send)
// into a scratch file and hands back the bytes, so that every frame the
// benchmarks write is exactly what the transport produces.
class FrameRecorder {
 public:
  // REQUIRES: `scratchPath` is writable (a tmpfs file in the sandbox).
  explicit FrameRecorder(std::string scratchPath);
  void add(const BinaryMessage& message);
  // All frames added so far, one after another.
  std::string frames() const;

 private:
  std::string path_;
  BinaryOutputFifo writer_;  // on path_, kept open so that frames append
};

// Big-endian 32-bit value at `p`.
uint32_t loadBigEndian32(const char* p);
void storeBigEndian32(uint32_t value, char* p);

#endif  // DRAVIK_BENCH_PEER_MESSAGES_H_
