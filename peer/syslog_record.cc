#include "peer/syslog_record.h"

bool parseSyslogDatagram(const std::string& datagram, SyslogRecord* record) {
  // "<PRI>" then the 16 characters "Mmm dd hh:mm:ss " that glibc writes
  // with "%h %e %T ".
  if (datagram.size() < 3 || datagram[0] != '<') return false;
  std::size_t close = datagram.find('>');
  if (close == std::string::npos || close == 1) return false;
  int pri = 0;
  for (std::size_t i = 1; i < close; ++i) {
    if (datagram[i] < '0' || datagram[i] > '9') return false;
    pri = pri * 10 + (datagram[i] - '0');
  }
  std::size_t identStart = close + 1 + 16;
  if (datagram.size() < identStart || datagram[identStart - 1] != ' ' || datagram[close + 4] != ' ') return false;
  std::size_t colon = datagram.find(": ", identStart);
  if (colon == std::string::npos) return false;
  record->priority = pri & 7;
  record->ident = datagram.substr(identStart, colon - identStart);
  std::size_t bracket = record->ident.find('[');
  if (bracket != std::string::npos) record->ident.resize(bracket);
  record->message = datagram.substr(colon + 2);
  return true;
}
