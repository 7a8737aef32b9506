// One line of the system log as glibc's syslog() sends it to /dev/log:
//   "<PRI>Mmm dd hh:mm:ss IDENT: MESSAGE" (IDENT[PID] with LOG_PID).
// dravikctl reads such datagrams off the daemon's sendto() calls; the
// harness's SyslogReader collects them from a socket of its own.
#ifndef DRAVIK_PEER_SYSLOG_RECORD_H_
#define DRAVIK_PEER_SYSLOG_RECORD_H_

#include <sys/types.h>

#include <chrono>
#include <string>
#include <utility>

// A line as (priority, text), e.g. {LOG_ERR, "getMessage::..."}.
using SyslogLine = std::pair<int, std::string>;

struct SyslogRecord {
  pid_t pid = 0;        // the sender, from its credentials
  int priority = 0;     // PRI & 7; -1 when the datagram is not in that format
  std::string ident;    // the tag before ": "
  std::string message;  // everything after ": ", as sent (a trailing newline too)
  std::chrono::system_clock::time_point received;
};

// Splits a datagram into its parts. False when it is not in the format above.
bool parseSyslogDatagram(const std::string& datagram, SyslogRecord* record);

#endif  // DRAVIK_PEER_SYSLOG_RECORD_H_
