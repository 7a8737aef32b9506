// How a frame or a line of the service's log is printed (dravikctl, the
// demo): one text line for people, or one JSON object per line for scripts.
//
//   14:05:49.123 out SetAnalyticsFilterDataNotification 13->2 id=7 corr=0 resp=13006 channel=1 fileName="/x/f.xml" stamp=14:05:49.120 age=3ms
//   14:05:49.140 in SaveAnalyticsFilterDataCommand 2->13 id=9 corr=0 resp=0 channel=1 status=0 stamp=14:05:49.139 age=1ms answers=7 after=17.0ms
//   14:05:49.150 in undecodable frame (invalid frame length 0): 00 00 00 00
//   14:05:49.151 log err RestoreFactorySettings::Invalid Channel=7
//
// The first time is when the frame was seen, in UTC; in is a frame into the
// service, out one that it sent. corr is the correlation id, resp the
// response selector, stamp the frame's own timestamp and age how old the
// frame was when seen; answers names the request that the frame answers.
#ifndef DRAVIK_CONVERSATION_FRAME_PRINTER_H_
#define DRAVIK_CONVERSATION_FRAME_PRINTER_H_

#include <time.h>

#include <optional>
#include <string>

#include "conversation/pairing.h"
#include "peer/frame_codec.h"
#include "store/catalogue.h"

namespace conversation {

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

// Where and when a frame was seen.
struct FrameView {
  struct timespec seen = {0, 0};
  catalogue::Flow direction = catalogue::Flow::out;
  std::optional<Answered> answers;
  bool showAge = true;  // false when the frame's stamp is on another clock
};

// The frame's part of the line above: class, header, arguments, notes.
// `withHex` appends the whole frame; an undecodable frame always shows its
// bytes.
std::string frameText(const peer::DecodedFrame& frame, bool withHex);
// The whole line above.
std::string frameLineText(const peer::DecodedFrame& frame, const FrameView& view, bool withHex);

// One JSON object: time, direction, class (null when undecodable), error,
// the header fields, stamp and ageMs, args, notes, answers, and frame with
// `withHex` or when undecodable.
std::string frameJson(const peer::DecodedFrame& frame, const FrameView& view, bool withHex);

// "err", "info", ... for a syslog priority (0 to 7).
const char* priorityName(int priority);
// A log line as above, or as {"time":...,"log":"err","message":...}. A
// trailing newline of the message is left out.
std::string logText(int priority, const std::string& message, const struct timespec& seen);
std::string logJson(int priority, const std::string& message, const struct timespec& seen);

}  // namespace conversation

#endif  // DRAVIK_CONVERSATION_FRAME_PRINTER_H_
