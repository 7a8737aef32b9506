// The layout of a frame on the pipes. Reader, writer, tools, benchmarks and
// tests all take it from here.
//
//   frame   payload  size  field
//    0      -        4     L: payload bytes that follow, 1 to 65536
//    4       0       4     version (1)
//    8       4       4     sender
//   12       8       4     recipient
//   16      12       4     id
//   20      16       4     correlationId
//   24      20       8     timestamp: milliseconds since the epoch
//   32      28       4     selector
//   36      32       4     responseSelector
//   40      36       4     flags
//   44      40       4     argsLength: L - 44
//   48      44       n     arguments of the message's class
//
// Every field is big-endian. Frames follow each other with nothing between
// them; there is no marker to resynchronise on. A frame is a byteArray.
#ifndef DRAVIK_MESSAGING_FRAME_FORMAT_H_
#define DRAVIK_MESSAGING_FRAME_FORMAT_H_

#include <cstddef>
#include <cstdint>

constexpr int32_t kMessageVersion = 1;

// Bytes of the length prefix, and the largest payload a reader accepts
// ("maxlen").
constexpr uint32_t kFrameLengthSize = 4;
constexpr uint32_t kMaxPayloadLength = 65536;

// Whether a reader takes a frame whose length prefix says `length`. A
// refused length comes alone: the reader takes the bytes after it as the
// next length, since nothing marks where the next frame begins.
constexpr bool isAcceptedPayloadLength(uint32_t length) { return length >= 1 && length <= kMaxPayloadLength; }

// Offsets in the payload.
constexpr std::size_t kVersionOffset = 0;
constexpr std::size_t kSenderOffset = 4;
constexpr std::size_t kRecipientOffset = 8;
constexpr std::size_t kIdOffset = 12;
constexpr std::size_t kCorrelationIdOffset = 16;
constexpr std::size_t kTimestampOffset = 20;
constexpr std::size_t kSelectorOffset = 28;
constexpr std::size_t kResponseSelectorOffset = 32;
constexpr std::size_t kFlagsOffset = 36;
constexpr std::size_t kArgsLengthOffset = 40;
constexpr uint32_t kHeaderSize = 44;

// The largest frame; a reader that takes this much at once can hold a whole
// frame, or many small ones.
constexpr std::size_t kMaxFrameSize = kFrameLengthSize + kMaxPayloadLength;

// The largest block that a frame carries as its only argument (a
// calibration block): the payload less the header and the block's own
// 4-byte length.
constexpr uint32_t kLargestCalibrationBlock = kMaxPayloadLength - kHeaderSize - 4;
static_assert(kLargestCalibrationBlock == 65488, "the figure that dravikctl's man page and the benchmark quote");

#endif  // DRAVIK_MESSAGING_FRAME_FORMAT_H_
