#include "conversation/frame_filter.h"

#include <algorithm>

namespace conversation {

bool FrameFilter::matches(const peer::DecodedFrame& frame, catalogue::Flow flow, int64_t answeredChannel) const {
  if (direction && *direction != flow) return false;
  if (!frame.hasHeader) return selectors.empty() && !channel && !endpoint;
  const peer::FrameHeader& h = frame.header;
  if (!selectors.empty() && std::find(selectors.begin(), selectors.end(), h.selector) == selectors.end()) return false;
  if (endpoint && h.sender != *endpoint && h.recipient != *endpoint) return false;
  if (channel) {
    const peer::Value* value = frame.arg("channel");
    if (value != nullptr ? value->number != *channel : answeredChannel < 0 || answeredChannel != *channel) return false;
  }
  return true;
}

}  // namespace conversation
