#include "conversation/transcript.h"

#include "conversation/frame_printer.h"
#include "peer/syslog_record.h"

namespace conversation {

std::string Transcript::frame(const std::string& bytes, catalogue::Flow flow, const struct timespec& seen) {
  peer::DecodedFrame decoded = peer::decodeFrame(bytes, flow);
  FrameView view;
  view.seen = seen;
  view.direction = flow;
  view.answers = pairing_.observe(decoded, flow, seen);
  view.showAge = !style_.noAge;
  if (!style_.filter.matches(decoded, flow, view.answers ? view.answers->channel : -1)) return "";
  return style_.json ? frameJson(decoded, view, style_.hex) : frameLineText(decoded, view, style_.hex);
}

std::string Transcript::log(const std::string& datagram, const struct timespec& seen) const {
  SyslogRecord record;
  if (!parseSyslogDatagram(datagram, &record)) {
    record.priority = -1;
    record.message = datagram;
  }
  return style_.json ? logJson(record.priority, record.message, seen) : logText(record.priority, record.message, seen);
}

}  // namespace conversation
