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
#include "bench/proc_stats.h"
#include "harness/sandbox.h"
#include "store/service_paths.h"

namespace {

constexpr auto kStopTimeout = std::chrono::seconds(60);
constexpr auto kTapTimeout = std::chrono::seconds(20);
constexpr const char* kTapping = "dravikctl: tapping";

bool fail(const std::string& what) {
  std::cerr << "dravik_bench: " << what << std::endl;
  return false;
}

bool connectWriter(peer::MailboxWriter& writer, const std::string& path) {
  std::string why;
  return writer.open(path, &why) || fail(why);
}

double noStart(const std::string& what) {
  fail(what);
  return -1;
}

bool exitedWith(const std::optional<int>& status, int code) {
  return status && WIFEXITED(*status) && WEXITSTATUS(*status) == code;
}

// What a child said on standard error, on one line.
std::string said(const ChildProcess& child) {
  std::string text = child.err();
  while (!text.empty() && text.back() == '\n') text.pop_back();
  for (char& c : text) {
    if (c == '\n') c = ' ';
  }
  return text;
}

}  // namespace

std::string Server::console() const { return process ? process->out() + process->err() : ""; }

bool Servers::open(const Options& options) {
  daemonExe_ = openExecutable(options.daemon);
  selfExe_ = openExecutable("/proc/self/exe");
  // Without it the tap's cost is reported as not measured.
  dravikctlPath_ = options.dravikctl;
  dravikctlExe_ = openExecutable(options.dravikctl);
  if (daemonExe_ < 0) return fail("cannot find the daemon at " + options.daemon + " (--daemon PATH)");
  std::string why;
  if (!sandbox::enter(&why)) return fail("no private sandbox: " + why);
  if (!log_.open("/dev/log", &why)) return fail("no syslog reader at /dev/log: " + why);
  mkfifo(kCommandFifoPath, 0666);
  mkfifo(kNotificationFifoPath, 0666);
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
  if (!daemon.answers.open(kNotificationFifoPath, &why)) return noStart(why);
  return start(daemon, daemonExe_, "dravik", {"-s", "100000"}, wrapper, kCommandFifoPath, timeoutSeconds);
}

bool Servers::connectDaemon(Server& daemon, int timeoutSeconds) {
  if (!connectWriter(daemon.requests, kCommandFifoPath)) return false;
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

std::unique_ptr<ChildProcess> Servers::startTap(const Server& daemon, std::string* whyNot) {
  if (dravikctlExe_ < 0) {
    *whyNot = "no dravikctl at " + dravikctlPath_ + " (--dravikctl PATH)";
    return nullptr;
  }
  auto tap = std::make_unique<ChildProcess>();
  ChildOptions options;
  options.discardOut = true;
  std::string why;
  if (!tap->start(dravikctlExe_, "dravikctl", {"monitor", "--pid", std::to_string(daemon.pid())}, options, &why)) {
    *whyNot = "cannot start dravikctl: " + why;
    return nullptr;
  }
  auto deadline = std::chrono::steady_clock::now() + kTapTimeout;
  while (!tap->waitForErr(kTapping, std::chrono::milliseconds(100))) {
    if (tap->poll()) {
      tap->wait(kStopTimeout);  // has ended: collects the last of what it said
      *whyNot = said(*tap).empty() ? "dravikctl monitor " + describeWaitStatus(*tap->status()) : said(*tap);
      return nullptr;
    }
    if (std::chrono::steady_clock::now() > deadline) {
      *whyNot = "dravikctl monitor did not attach within 20 s";
      return nullptr;  // killed: the kernel lets go of whatever it traced
    }
  }
  return tap;
}

bool Servers::stopTap(std::unique_ptr<ChildProcess> tap, const Server& daemon, std::string* whyNot) {
  tap->signal(SIGINT);
  std::optional<int> status = tap->wait(kStopTimeout);
  if (!exitedWith(status, 0)) {
    *whyNot = "dravikctl monitor did not end with status 0 on SIGINT (" +
           (status ? describeWaitStatus(*status) : std::string("killed after 60 s")) + "): " + said(*tap);
    return false;
  }
  if (procstats::traced(daemon.pid())) {
    *whyNot = "a thread of the daemon is still traced after dravikctl monitor ended";
    return false;
  }
  return true;
}
