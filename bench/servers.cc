#include "bench/servers.h"

#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <iostream>

#include "bench/options.h"
#include "tools/harness/sandbox.h"

namespace {

constexpr const char* kMailbox = "/tmp/dravik.mailbox";
constexpr const char* kNotificationPipe = "/tmp/comm.mailbox";
constexpr auto kStopTimeout = std::chrono::seconds(60);

bool fail(const std::string& what) {
  std::cerr << "dravik_bench: " << what << std::endl;
  return false;
}

bool connectWriter(peer::MailboxWriter& writer, const std::string& path) {
  std::string error;
  return writer.open(path, &error) || fail(error);
}

double noStart(const std::string& what) {
  fail(what);
  return -1;
}

bool exitedWith(const std::optional<int>& status, int code) {
  return status && WIFEXITED(*status) && WEXITSTATUS(*status) == code;
}

}  // namespace

std::string Server::console() const { return process ? process->out() + process->err() : ""; }

bool Servers::open(const Options& options) {
  daemonExe_ = openExecutable(options.daemon);
  selfExe_ = openExecutable("/proc/self/exe");
  if (daemonExe_ < 0) return fail("cannot find the daemon at " + options.daemon + " (--daemon PATH)");
  std::string why;
  if (!sandbox::enter(&why)) return fail("no private sandbox: " + why);
  if (!log_.open("/dev/log", &why)) return fail("no syslog reader at /dev/log: " + why);
  mkfifo(kMailbox, 0666);
  mkfifo(kNotificationPipe, 0666);
  return true;
}

double Servers::start(Server& server, int exe, const std::string& name, const std::vector<std::string>& args,
                      const std::vector<std::string>& wrapper, const std::string& input, int timeoutSeconds) {
  std::string directory = input.substr(0, input.rfind('/'));
  std::string file = input.substr(directory.size() + 1);
  int watch = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (watch < 0 || inotify_add_watch(watch, directory.c_str(), IN_OPEN) < 0) {
    return noStart(std::string("inotify: ") + std::strerror(errno));
  }
  server.process = std::make_unique<ChildProcess>();
  ChildOptions options;
  options.wrapper = wrapper;
  std::string why;
  if (!server.process->start(exe, name, args, options, &why)) {
    close(watch);
    return noStart("cannot start the " + server.name + ": " + why);
  }
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
  alignas(inotify_event) char events[4096];
  for (;;) {
    pollfd p = {watch, POLLIN, 0};
    poll(&p, 1, 100);
    auto seen = std::chrono::steady_clock::now();
    ssize_t n = read(watch, events, sizeof events);
    for (char* e = events; n > 0 && e < events + n;) {
      auto* event = reinterpret_cast<inotify_event*>(e);
      if ((event->mask & IN_OPEN) && event->len > 0 && file == event->name) {
        close(watch);
        auto exec = server.process->execTime();
        return exec ? std::chrono::duration<double, std::milli>(seen - *exec).count() : -1;
      }
      e += sizeof(inotify_event) + event->len;
    }
    if (server.process->poll() || seen > deadline) {
      close(watch);
      return noStart("the " + server.name + " did not open " + input + "; its console:\n" + server.console());
    }
  }
}

double Servers::startDaemon(Server& daemon, const std::vector<std::string>& wrapper, int timeoutSeconds) {
  daemon.name = "dravik";
  std::string why;
  if (!daemon.answers.open(kNotificationPipe, &why)) return noStart(why);
  return start(daemon, daemonExe_, "dravik", {"-s", "100000"}, wrapper, kMailbox, timeoutSeconds);
}

bool Servers::connectDaemon(Server& daemon, int timeoutSeconds) {
  if (!connectWriter(daemon.requests, kMailbox)) return false;
  auto started = [](const std::vector<SyslogLine>& lines) {
    for (const SyslogLine& line : lines) {
      if (line.second == "API: starting dispatcher") return true;
    }
    return false;
  };
  if (log_.waitFor(daemon.pid(), started, std::chrono::seconds(timeoutSeconds))) return true;
  return fail("the daemon never logged \"API: starting dispatcher\"");
}

bool Servers::stopDaemon(Server& daemon) {
  daemon.process->signal(SIGTERM);
  return exitedWith(daemon.process->wait(kStopTimeout), 1);
}

bool Servers::startEcho(Server& echo, const std::string& inPath, bool log, const std::vector<std::string>& wrapper) {
  echo.name = log ? "logging echo" : "raw echo";
  std::string outPath = inPath + ".out";
  mkfifo(inPath.c_str(), 0666);
  mkfifo(outPath.c_str(), 0666);
  std::string why;
  if (!echo.answers.open(outPath, &why)) return fail(why);
  std::vector<std::string> args = {"--serve", log ? "log-echo" : "echo", inPath, outPath};
  return start(echo, selfExe_, "dravik_bench", args, wrapper, inPath, 300) >= 0 && connectWriter(echo.requests, inPath);
}

bool Servers::stopEcho(Server& echo) {
  echo.requests.close();
  return exitedWith(echo.process->wait(kStopTimeout), 0);
}
