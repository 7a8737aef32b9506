// The lines of one conversation with the service, as dravikctl's monitor,
// decode and simulate print them: each frame in text or JSON (see
// frame_printer.h), left out when the filter says so, an answer paired with
// its request; and the service's syslog lines among them.
//
//   conversation::Transcript transcript(style);
//   std::string line = transcript.frame(bytes, catalogue::Flow::out, wallClock());
//   if (!line.empty()) ...print it...
#ifndef DRAVIK_CONVERSATION_TRANSCRIPT_H_
#define DRAVIK_CONVERSATION_TRANSCRIPT_H_

#include <time.h>

#include <string>
#include <utility>

#include "conversation/frame_filter.h"
#include "conversation/pairing.h"
#include "store/catalogue.h"

namespace conversation {

// How a transcript shows the frames.
struct Style {
  bool json = false;   // one JSON object per line instead of text
  bool hex = false;    // the whole frame's bytes on its line too
  bool noAge = false;  // no age: the frames' stamps are on another clock
  FrameFilter filter;  // which frames are shown at all
};

class Transcript {
 public:
  explicit Transcript(Style style) : style_(std::move(style)) {}
  // The line for a frame seen at `seen`, or empty when the filter leaves it
  // out. Every frame counts for the pairing, shown or not.
  std::string frame(const std::string& bytes, catalogue::Flow flow, const struct timespec& seen);
  // The line for a datagram the service sent to the system log.
  std::string log(const std::string& datagram, const struct timespec& seen) const;

 private:
  Style style_;
  Pairing pairing_;
};

}  // namespace conversation

#endif  // DRAVIK_CONVERSATION_TRANSCRIPT_H_
