// Requests and their answers, matched across the two directions: a frame
// that names a response selector is a request; a frame of that selector in
// the other direction answers it when its correlation id is the request's
// id (2044 and 2046 by 2045, 13002 by 13003 or the selector it chose), or,
// for 13006, which carries no correlation id, when it names the channel of
// the oldest open 13004.
#ifndef DRAVIK_CONVERSATION_PAIRING_H_
#define DRAVIK_CONVERSATION_PAIRING_H_

#include <time.h>

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "peer/frame_codec.h"
#include "store/catalogue.h"

namespace conversation {

// What an answer answers.
struct Answered {
  int32_t requestId = 0;
  std::string requestClass;  // empty when the request was undecodable
  double afterMs = 0;        // from the request's capture to the answer's
  int64_t channel = -1;      // the request's channel; -1: none
};

// Requests that are never answered (no engine on the camera) must not pile
// up for ever: at most this many stay open per answer selector.
constexpr std::size_t kOpenRequestLimit = 1024;

class Pairing {
 public:
  // Takes the next frame in capture order. Returns the request that `frame`
  // answers, if it answers an open one (which is then closed).
  std::optional<Answered> observe(const peer::DecodedFrame& frame, catalogue::Flow flow, const struct timespec& seen);

 private:
  struct Open {
    int32_t id;
    int64_t channel;  // -1: none
    std::string className;
    struct timespec seen;
  };
  // Open requests by the direction their answer takes and its selector,
  // oldest first.
  std::map<std::pair<catalogue::Flow, int32_t>, std::deque<Open>> open_;
};

}  // namespace conversation

#endif  // DRAVIK_CONVERSATION_PAIRING_H_
