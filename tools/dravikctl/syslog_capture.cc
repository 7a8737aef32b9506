// syslog-capture (not in the usage): stands in for a syslog daemon where
// there is none, such as the private /dev of the demo's sandbox. It binds a
// datagram socket where syslog() sends its lines and prints each line as it
// arrives, with the sending process's id:
//
//   14:05:49.123 syslog info dravik[4711]: API: starting dispatcher
//
// It never replaces an existing socket: on a machine with a syslog daemon
// that would steal the machine's log.
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/dravikctl/commands.h"
#include "tools/dravikctl/endpoints.h"
#include "tools/dravikctl/frame_format.h"
#include "tools/dravikctl/stop_signals.h"

namespace dravikctl {
namespace {

const char* priorityName(int priority) {
  static const char* const names[] = {"emerg", "alert", "crit", "err ", "warning", "notice", "info", "debug"};
  return names[priority & 7];
}

// "<PRI>Mmm dd hh:mm:ss IDENT: MESSAGE" (IDENT[PID] with LOG_PID) as the
// priority, the identity and the message.
void parseDatagram(const std::string& datagram, int* priority, std::string* ident, std::string* message) {
  std::string rest = datagram;
  *priority = 6;
  if (!rest.empty() && rest[0] == '<') {
    std::size_t close = rest.find('>');
    if (close != std::string::npos) {
      *priority = std::atoi(rest.substr(1, close - 1).c_str());
      rest.erase(0, close + 1);
    }
  }
  if (rest.size() >= 16 && rest[3] == ' ' && rest[6] == ' ' && rest[9] == ':' && rest[12] == ':' && rest[15] == ' ') {
    rest.erase(0, 16);
  }
  std::size_t colon = rest.find(": ");
  if (colon == std::string::npos) {
    ident->clear();
    *message = rest;
    return;
  }
  *ident = rest.substr(0, colon);
  std::size_t bracket = ident->find('[');
  if (bracket != std::string::npos) ident->resize(bracket);
  *message = rest.substr(colon + 2);
}

// Control characters (the rename failure line ends with a newline) shown
// as escapes, so that one datagram stays one line.
std::string visible(const std::string& text) {
  std::string out;
  for (unsigned char c : text) {
    if (c == '\n') {
      out += "\\n";
    } else if (c < 0x20 || c == 0x7F) {
      char escaped[8];
      snprintf(escaped, sizeof escaped, "\\x%02x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

}  // namespace

int runSyslogCapture(const Options& o) {
  StopSignals stop;
  const std::string& path = o.socketPath;
  struct stat info;
  if (lstat(path.c_str(), &info) == 0) return fail(path + " exists already; syslog-capture binds only where nothing is");
  struct sockaddr_un address;
  std::memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return fail("socket path too long: " + path);
  std::memcpy(address.sun_path, path.c_str(), path.size());

  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return fail(std::string("socket: ") + std::strerror(errno));
  if (bind(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) != 0) {
    int error = errno;
    ::close(fd);
    return fail("cannot bind " + path + ": " + std::strerror(error));
  }
  chmod(path.c_str(), 0666);
  int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);

  Deadline end = o.duration > 0 ? Deadline::after(o.duration) : Deadline::never();
  long lines = 0;
  int status = kExitOk;
  for (;;) {
    struct pollfd fds[2] = {{fd, POLLIN, 0}, {stop.fd(), POLLIN, 0}};
    int ready = poll(fds, stop.fd() >= 0 ? 2 : 1, end.pollTimeout());
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) break;
    if (fds[0].revents != 0) {
      char buffer[8192];
      char control[CMSG_SPACE(sizeof(struct ucred))];
      struct iovec part = {buffer, sizeof buffer};
      struct msghdr header;
      std::memset(&header, 0, sizeof header);
      header.msg_iov = &part;
      header.msg_iovlen = 1;
      header.msg_control = control;
      header.msg_controllen = sizeof control;
      ssize_t n = recvmsg(fd, &header, 0);
      if (n < 0) continue;
      pid_t pid = 0;
      for (struct cmsghdr* c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS) {
          struct ucred credentials;
          std::memcpy(&credentials, CMSG_DATA(c), sizeof credentials);
          pid = credentials.pid;
        }
      }
      int priority;
      std::string ident, message;
      parseDatagram(std::string(buffer, static_cast<std::size_t>(n)), &priority, &ident, &message);
      std::string line = timeOfDay(wallClock()) + " syslog " + priorityName(priority) + " " + ident;
      if (pid != 0) line += "[" + std::to_string(pid) + "]";
      line += ": " + visible(message);
      if (!printLine(line)) {
        status = kExitFailure;
        break;
      }
      if (o.count > 0 && ++lines >= o.count) break;
      continue;
    }
    stop.take();
    break;
  }
  ::close(fd);
  unlink(path.c_str());
  return status;
}

}  // namespace dravikctl
