// Which frames of a conversation are shown: every condition given must hold.
#ifndef DRAVIK_CONVERSATION_FRAME_FILTER_H_
#define DRAVIK_CONVERSATION_FRAME_FILTER_H_

#include <cstdint>
#include <optional>
#include <vector>

#include "peer/frame_codec.h"
#include "store/catalogue.h"

namespace conversation {

struct FrameFilter {
  std::vector<int32_t> selectors;  // any of them; empty: any selector
  std::optional<int32_t> channel;  // the frame's channel argument
  std::optional<int32_t> endpoint;  // sender or recipient
  std::optional<catalogue::Flow> direction;

  // A frame without a header matches only when no condition is set on its
  // header or arguments. An answer without a channel of its own (2045, a
  // path) is about the channel of the request it answers, `answeredChannel`
  // (-1: none).
  bool matches(const peer::DecodedFrame& frame, catalogue::Flow flow, int64_t answeredChannel = -1) const;
};

}  // namespace conversation

#endif  // DRAVIK_CONVERSATION_FRAME_FILTER_H_
