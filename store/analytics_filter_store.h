// The analytics filter store: forwards a new filter to endpoint 2, moves it
// into the store once the engine has accepted it, answers where a channel's
// filter is, gives the stored filters back at start-up and resets them.
// The documents are never read: only names and files move.
#ifndef DRAVIK_STORE_ANALYTICS_FILTER_STORE_H_
#define DRAVIK_STORE_ANALYTICS_FILTER_STORE_H_

#include <cstdint>
#include <string>

#include "store/store_layout.h"

// The file name last forwarded for each channel. Dispatcher thread only.
extern std::string pendingFilterFiles[kChannelCount];

// Forwards the file name to endpoint 2 and remembers it for the channel.
// A channel outside 0 to 3 is refused: it has no entry to remember it in.
void SetAnalyticsFilterData(int32_t channel, const std::string& fileName);
// The forwarding itself, unchecked: the channel indexes pendingFilterFiles.
// REQUIRES: 0 <= channel < kChannelCount.
void SendAnalyticsFilterDataNotification(int32_t channel, const std::string& fileName);

// On status 0 moves the pending file of the channel into the store.
void SaveAnalyticsFilterFile(int32_t channel, int32_t status);

// The path of the channel's filter file, in one process-wide string that the
// next call overwrites. Logs the answer. Runs inside the send lock: sends nothing.
const std::string& GetAnalyticsFilterData(int32_t channel);

// Sends the path of the channel's stored filter to the engine, if there is one.
void RestoreZekAnalyticsFilter(int32_t channel);

// Removes the channel's filter file and announces it to endpoint 2.
// The channel is not checked.
void ResetChannelFilter(int32_t channel);

#endif  // DRAVIK_STORE_ANALYTICS_FILTER_STORE_H_
