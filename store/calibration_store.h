// The calibration store: asks the engine for each channel's calibration,
// stores the answers, gives the stored blocks back at start-up and resets
// them on request.
#ifndef DRAVIK_STORE_CALIBRATION_STORE_H_
#define DRAVIK_STORE_CALIBRATION_STORE_H_

#include <atomic>
#include <cstdint>

#include "messaging/binary_stream.h"
#include "store/store_layout.h"

// The last calibration request of one channel. Written by the main thread,
// read by the dispatcher: the fields are atomics, and requestId is stored
// last with release order, so an answer never sees a half-written entry.
// A requestId of 0 has never been used (ids start at 1) and matches nothing.
struct CalibrationRequest {
  std::atomic<int32_t> requestId{0};
  std::atomic<int32_t> channel{0};
};

extern CalibrationRequest calibrationRequests[kChannelCount];

// Records a request id for the channel and sends GetCalibrationDataChangeNotification
// to the engine. Main thread.
void SendZekCalibrationRequest(int32_t channel);

// Replaces the channel's calibration file with the block. Dispatcher thread.
void UpdateCalibrationData(int32_t channel, const byteArray& calibration);

// Sends the channel's stored block to the engine, if there is one. Main thread.
void RestoreZekCalibrationData(int32_t channel);

// Removes the channel's calibration file and announces it to endpoint 2.
// The channel is not checked. Dispatcher thread.
void ResetChannelCalibration(int32_t channel);

#endif  // DRAVIK_STORE_CALIBRATION_STORE_H_
