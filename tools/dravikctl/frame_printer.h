// How dravikctl prints a frame: one text line for people, or one JSON object
// per line for scripts.
//
//   14:05:49.123 SetAnalyticsFilterDataNotification 13->2 id=7 corr=0 resp=13006 channel=1 fileName="/x/f.xml"
//   14:05:49.130 undecodable frame (invalid frame length 0): 00 00 00 00
//
// The time is the moment the frame was read, in UTC. corr is the correlation
// id, resp the response selector.
#ifndef DRAVIK_TOOLS_DRAVIKCTL_FRAME_PRINTER_H_
#define DRAVIK_TOOLS_DRAVIKCTL_FRAME_PRINTER_H_

#include <time.h>

#include <string>

#include "tools/peer/frame_codec.h"

namespace dravikctl {

// "14:05:49.123" (UTC).
std::string timeOfDay(const struct timespec& t);
// "2026-11-16T14:05:49.123Z".
std::string isoTime(const struct timespec& t);
struct timespec wallClock();

// Lowercase hexadecimal pairs, separated by blanks or not.
std::string hexString(const std::string& bytes, bool spaced);
// A JSON string literal (quotes included). Bytes that do not form UTF-8 are
// written as \u00XX escapes of their values.
std::string jsonQuote(const std::string& text);
// A C-style quoted string: printable ASCII as is, other bytes escaped.
std::string textQuote(const std::string& text);

// The line of the comment above, without the time. `withHex` appends the
// whole frame; an undecodable frame always shows its bytes.
std::string frameText(const peer::DecodedFrame& frame, bool withHex);

// One JSON object: time, event (omitted when empty), class (null when
// undecodable), error, the header fields, args, and frame with `withHex` or
// when undecodable.
std::string frameJson(const peer::DecodedFrame& frame, bool withHex, const std::string& time, const std::string& event);

}  // namespace dravikctl

#endif  // DRAVIK_TOOLS_DRAVIKCTL_FRAME_PRINTER_H_
