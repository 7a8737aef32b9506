// dravik_bench: the daemon measured as a whole process against the raw-pipe
// limit, every figure and its baselines in the same run.
//
// It enters the private sandbox of the end-to-end tests (tmpfs /tmp and
// /etc/sysconfig, a private /dev whose /dev/log a thread drains), starts the
// real dravik, and plays its peers with frames that the messaging library
// encodes. The baselines are two processes of this program (raw_echo.h):
// the bare echo and the echo that logs one syslog() line per request.
//
//   dravik_bench [--smoke] [--output docs/performance.md] [sizes...]
//   dravik_bench --callgrind-target daemon|echo --requests N [--blocks M] --wrapper "valgrind ..."
//
// Timings are reported, never judged: the exit status says only whether the
// daemon answered correctly throughout.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/log_drain.h"
#include "bench/peer_messages.h"
#include "bench/proc_stats.h"
#include "bench/raw_echo.h"
#include "messaging/binary_stream.h"
#include "messaging/memory_stream.h"
#include "store/calibration_store.h"
#include "tests/support/sandbox.h"

#ifndef DRAVIK_DAEMON_PATH
#define DRAVIK_DAEMON_PATH "dravik"
#endif

namespace {

constexpr const char* kMailbox = "/tmp/dravik.mailbox";
constexpr const char* kNotificationPipe = "/tmp/comm.mailbox";
constexpr const char* kDaemonConsole = "/tmp/dravik.console";
// Distinct request frames, cycled; a multiple of the pipelined write batch.
constexpr std::size_t kDistinctRequests = 4096;
constexpr std::size_t kWriteBatch = 64;  // 64 x 52 bytes: one atomic pipe write
// Matches no calibration request (the daemon never sends one under -s 100000).
constexpr int32_t kUnmatchedCorrelationId = 999999;
// Messages after which the daemon's working set is in place (its 64 KiB
// input buffer filled once by a pipelined run).
constexpr long kWarmMessages = 1000;

struct Options {
  std::string daemon = DRAVIK_DAEMON_PATH;
  std::string output;
  std::string command;
  std::string callgrindResults;
  std::string microResults;
  long pingPong = 100000;
  long unpinned = 20000;
  long pipelined = 200000;
  long calibration = 3000;
  long store = 3000;
  long memoryMessages = 100000;
  int idleSeconds = 10;
  int starts = 5;
  int rounds = 3;
  int cpu = 0;
  // Callgrind mode.
  std::string callgrindTarget;
  long requests = 0;
  long blocks = 0;
  std::vector<std::string> wrapper;
};

int64_t nowNs() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

void fail(const std::string& what) {
  std::cerr << "dravik_bench: " << what << std::endl;
}

// ---------------------------------------------------------------------------
// Children and the watchdog: whatever hangs, the children die with us
// (PR_SET_PDEATHSIG covers a crash of this process).

constexpr int kMaxChildren = 16;  // the oldest slots hold daemons long stopped
pid_t children[kMaxChildren];
std::atomic<int> childCount{0};
const char* currentPhase = "setup";

void rememberChild(pid_t pid) { children[childCount.fetch_add(1) % kMaxChildren] = pid; }

void killChildren() {
  for (pid_t pid : children) {
    if (pid > 0) kill(pid, SIGKILL);
  }
}

void onWatchdog(int) {
  const char head[] = "dravik_bench: timed out in phase ";
  (void)!write(2, head, sizeof head - 1);
  (void)!write(2, currentPhase, std::strlen(currentPhase));
  (void)!write(2, "\n", 1);
  killChildren();
  _exit(3);
}

void phase(const char* name, unsigned seconds) {
  currentPhase = name;
  alarm(seconds);
  std::cerr << "dravik_bench: " << name << std::endl;
}

// ---------------------------------------------------------------------------
// Pipe I/O of the peers: plain system calls, so that the client's own cost
// is the same small constant for every server measured.

bool writeAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

bool readExactly(int fd, char* data, std::size_t size) {
  while (size > 0) {
    ssize_t n = ::read(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

// A reader that never waits in open() and blocks in read().
int openAnswerReader(const char* path) {
  int fd = ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd >= 0) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  return fd;
}

// Something that answers requests over a pair of FIFOs.
struct Server {
  std::string name;
  pid_t pid = -1;
  std::string inPath;
  int requests = -1;  // our write end of its input
  int answers = -1;   // our read end of its output
};

// Executables reached through descriptors opened before the sandbox hid
// anything: the daemon, and this program for its echo processes.
struct Executables {
  int daemon = -1;
  int self = -1;
  std::string daemonPath() const { return "/proc/self/fd/" + std::to_string(daemon); }
  std::string selfPath() const { return "/proc/self/fd/" + std::to_string(self); }
};

// The argument vector of `program` run with `args`, behind `wrapper` (a
// command such as valgrind) when there is one. Made before fork, so that the
// child only has to exec.
class CommandLine {
 public:
  CommandLine(const std::vector<std::string>& wrapper, const std::string& program, const std::string& name,
              const std::vector<std::string>& args)
      : wrapped_(!wrapper.empty()), program_(program), words_(wrapper) {
    // Unwrapped, argv[0] is `name`: it gives the process its syslog identity.
    words_.push_back(wrapped_ ? program : name);
    words_.insert(words_.end(), args.begin(), args.end());
    for (std::string& word : words_) argv_.push_back(&word[0]);
    argv_.push_back(nullptr);
  }

  [[noreturn]] void exec(const Executables& exe) {
    if (wrapped_) {
      // The wrapper opens the program through /proc/self/fd itself.
      fcntl(exe.daemon, F_SETFD, 0);
      fcntl(exe.self, F_SETFD, 0);
      execvp(argv_[0], argv_.data());
    } else {
      execv(program_.c_str(), argv_.data());
    }
    std::perror("exec");
    _exit(127);
  }

 private:
  bool wrapped_;
  std::string program_;
  std::vector<std::string> words_;
  std::vector<char*> argv_;
};

// The daemon's start, timed from the moment before exec to its open of the
// mailbox for reading (seen by inotify on /tmp).
struct Launch {
  pid_t pid = -1;
  double readyMs = -1;
};

Launch launchDaemon(const Executables& exe, const std::vector<std::string>& wrapper, int timeoutSeconds) {
  Launch launch;
  int watch = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (watch < 0 || inotify_add_watch(watch, "/tmp", IN_OPEN) < 0) {
    fail(std::string("inotify: ") + std::strerror(errno));
    return launch;
  }
  auto* execAt = static_cast<int64_t*>(
      mmap(nullptr, sizeof(int64_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  *execAt = 0;
  CommandLine command(wrapper, exe.daemonPath(), "dravik", {"-s", "100000"});
  pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int console = ::open(kDaemonConsole, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(null, 0);
    dup2(console, 1);
    dup2(console, 2);
    *execAt = nowNs();
    command.exec(exe);
  }
  rememberChild(pid);
  int64_t deadline = nowNs() + static_cast<int64_t>(timeoutSeconds) * 1000000000;
  alignas(inotify_event) char events[4096];
  while (launch.readyMs < 0) {
    pollfd p = {watch, POLLIN, 0};
    poll(&p, 1, 100);
    int64_t seen = nowNs();
    ssize_t n = read(watch, events, sizeof events);
    for (char* e = events; n > 0 && e < events + n;) {
      auto* event = reinterpret_cast<inotify_event*>(e);
      if ((event->mask & IN_OPEN) && event->len > 0 && std::strcmp(event->name, "dravik.mailbox") == 0) {
        launch.readyMs = static_cast<double>(seen - *execAt) / 1e6;
        break;
      }
      e += sizeof(inotify_event) + event->len;
    }
    int status;
    if (launch.readyMs < 0 && (waitpid(pid, &status, WNOHANG) == pid || seen > deadline)) {
      fail("the daemon did not open its mailbox; its console is in " + std::string(kDaemonConsole));
      kill(pid, SIGKILL);
      close(watch);
      munmap(execAt, sizeof(int64_t));
      return launch;
    }
  }
  close(watch);
  munmap(execAt, sizeof(int64_t));
  launch.pid = pid;
  return launch;
}

// SIGTERM, and the exit status the daemon gives a stop (1).
bool stopDaemon(pid_t pid) {
  kill(pid, SIGTERM);
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return false;
  return WIFEXITED(status) && WEXITSTATUS(status) == 1;
}

bool waitForLine(const LogDrain& drain, pid_t pid, const std::string& ending, int timeoutSeconds) {
  int64_t deadline = nowNs() + static_cast<int64_t>(timeoutSeconds) * 1000000000;
  while (nowNs() < deadline) {
    std::string line = drain.lastLineFrom(pid);
    if (line.size() >= ending.size() && line.compare(line.size() - ending.size(), ending.size(), ending) == 0) {
      return true;
    }
    usleep(1000);
  }
  return false;
}

pid_t launchEcho(const Executables& exe, const std::vector<std::string>& wrapper, bool log,
                 const std::string& in, const std::string& out) {
  CommandLine command(wrapper, exe.selfPath(), "dravik_bench", {"--serve", log ? "log-echo" : "echo", in, out});
  pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    command.exec(exe);
  }
  rememberChild(pid);
  return pid;
}

bool connectEcho(Server& server, const Executables& exe, const std::vector<std::string>& wrapper, bool log) {
  std::string out = server.inPath + ".out";
  mkfifo(server.inPath.c_str(), 0666);
  mkfifo(out.c_str(), 0666);
  server.answers = openAnswerReader(out.c_str());
  server.pid = launchEcho(exe, wrapper, log, server.inPath, out);
  // Meets the echo's own open for reading.
  server.requests = ::open(server.inPath.c_str(), O_WRONLY | O_CLOEXEC);
  return server.answers >= 0 && server.requests >= 0;
}

// ---------------------------------------------------------------------------
// The measured runs.

struct Run {
  long count = 0;
  int64_t ns = 0;
  int64_t cpuNs = 0;
  long long faults = 0;
  long errors = 0;
  std::vector<uint32_t> latencyNs;

  // Rates of the rounds added, for a median that one noisy round cannot move.
  std::vector<double> roundRates;

  void add(const Run& other) {
    if (other.count > 0 && other.ns > 0) roundRates.push_back(other.perSecond());
    count += other.count;
    ns += other.ns;
    cpuNs += other.cpuNs;
    faults += other.faults;
    errors += other.errors;
    latencyNs.insert(latencyNs.end(), other.latencyNs.begin(), other.latencyNs.end());
  }
  double perSecond() const { return ns > 0 ? static_cast<double>(count) * 1e9 / static_cast<double>(ns) : 0; }
  double medianRoundRate() const {
    if (roundRates.empty()) return perSecond();
    std::vector<double> rates = roundRates;
    std::sort(rates.begin(), rates.end());
    std::size_t n = rates.size();
    return n % 2 == 1 ? rates[n / 2] : (rates[n / 2 - 1] + rates[n / 2]) / 2;
  }
  double cpuUsPer() const { return count > 0 ? static_cast<double>(cpuNs) / 1e3 / static_cast<double>(count) : 0; }
  double faultsPer() const { return count > 0 ? static_cast<double>(faults) / static_cast<double>(count) : 0; }
  double percentileUs(double p) {
    if (latencyNs.empty()) return 0;
    std::size_t k = static_cast<std::size_t>(p * static_cast<double>(latencyNs.size() - 1));
    std::nth_element(latencyNs.begin(), latencyNs.begin() + static_cast<long>(k), latencyNs.end());
    return latencyNs[k] / 1e3;
  }
};

bool answerMatches(const char* answer, const char* request) {
  return loadBigEndian32(answer) == kAnswerFrameSize - 4 &&
         std::memcmp(answer + kFrameCorrelationIdOffset, request + kFrameIdOffset, 4) == 0;
}

// One request outstanding at a time.
Run pingPong(Server& server, const std::string& requests, long count, bool keepLatencies) {
  Run run;
  run.count = count;
  if (keepLatencies) run.latencyNs.reserve(static_cast<std::size_t>(count));
  char answer[kAnswerFrameSize];
  long long cpu0 = procstats::cpuNanoseconds(server.pid);
  int64_t start = nowNs();
  for (long i = 0; i < count; ++i) {
    const char* request = requests.data() + (static_cast<std::size_t>(i) % kDistinctRequests) * kRequestFrameSize;
    int64_t sent = nowNs();
    if (!writeAll(server.requests, request, kRequestFrameSize) ||
        !readExactly(server.answers, answer, kAnswerFrameSize)) {
      fail(server.name + ": pipe closed during ping-pong");
      run.errors += count - i;
      break;
    }
    if (keepLatencies) run.latencyNs.push_back(static_cast<uint32_t>(nowNs() - sent));
    if (!answerMatches(answer, request)) ++run.errors;
  }
  run.ns = nowNs() - start;
  run.cpuNs = procstats::cpuNanoseconds(server.pid) - cpu0;
  return run;
}

// A writer thread sends `count` requests in batches while this thread takes
// the answers.
Run pipelined(Server& server, const std::string& requests, long count) {
  Run run;
  run.count = count;
  long long cpu0 = procstats::cpuNanoseconds(server.pid);
  int64_t start = nowNs();
  std::thread writer([&] {
    for (long sent = 0; sent < count;) {
      std::size_t index = static_cast<std::size_t>(sent) % kDistinctRequests;
      long batch = std::min<long>(static_cast<long>(kWriteBatch), count - sent);
      if (!writeAll(server.requests, requests.data() + index * kRequestFrameSize,
                    static_cast<std::size_t>(batch) * kRequestFrameSize)) {
        return;
      }
      sent += batch;
    }
  });
  std::vector<char> buffer(65536 + kAnswerFrameSize);
  std::size_t have = 0;
  long received = 0;
  while (received < count) {
    ssize_t n = ::read(server.answers, buffer.data() + have, 65536);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      fail(server.name + ": pipe closed during the pipelined run");
      run.errors += count - received;
      break;
    }
    have += static_cast<std::size_t>(n);
    std::size_t pos = 0;
    for (; have - pos >= kAnswerFrameSize; pos += kAnswerFrameSize, ++received) {
      const char* request =
          requests.data() + (static_cast<std::size_t>(received) % kDistinctRequests) * kRequestFrameSize;
      if (!answerMatches(buffer.data() + pos, request)) ++run.errors;
    }
    std::memmove(buffer.data(), buffer.data() + pos, have - pos);
    have -= pos;
  }
  run.ns = nowNs() - start;
  writer.join();
  run.cpuNs = procstats::cpuNanoseconds(server.pid) - cpu0;
  return run;
}

// `count` calibration frames, then one request whose answer says that the
// server has taken them all.
Run bulk(Server& server, const std::string& block, const std::string& requests, long count) {
  Run run;
  run.count = count;
  char answer[kAnswerFrameSize];
  long long cpu0 = procstats::cpuNanoseconds(server.pid);
  long long faults0 = procstats::minorFaults(server.pid);
  int64_t start = nowNs();
  for (long i = 0; i < count; ++i) {
    if (!writeAll(server.requests, block.data(), block.size())) {
      run.errors = count;
      return run;
    }
  }
  if (!writeAll(server.requests, requests.data(), kRequestFrameSize) ||
      !readExactly(server.answers, answer, kAnswerFrameSize) || !answerMatches(answer, requests.data())) {
    ++run.errors;
  }
  run.ns = nowNs() - start;
  run.cpuNs = procstats::cpuNanoseconds(server.pid) - cpu0;
  run.faults = procstats::minorFaults(server.pid) - faults0;
  return run;
}

struct Idle {
  double cpuMs = 0;
  double switchesPerSecond = 0;
  long long switches = 0;
};

Idle idle(pid_t pid, int seconds) {
  long long cpu0 = procstats::cpuNanoseconds(pid);
  long long cs0 = procstats::contextSwitches(pid);
  int64_t start = nowNs();
  sleep(static_cast<unsigned>(seconds));
  double elapsed = static_cast<double>(nowNs() - start) / 1e9;
  Idle result;
  result.cpuMs = static_cast<double>(procstats::cpuNanoseconds(pid) - cpu0) / 1e6;
  result.switches = procstats::contextSwitches(pid) - cs0;
  result.switchesPerSecond = static_cast<double>(result.switches) / elapsed;
  return result;
}

// ---------------------------------------------------------------------------
// Frames, encoded by the library's own writer.

std::string requestFrames() {
  FrameRecorder recorder("/tmp/bench-requests.frames");
  BinaryMessage::defaultSender = 7;
  for (std::size_t i = 0; i < kDistinctRequests; ++i) {
    FilterPathRequest request;
    request.recipient = 13;
    request.responseSelector = 13003;
    request.channel = static_cast<int32_t>(i % 4);
    recorder.add(request);
  }
  return recorder.frames();
}

std::string calibrationFrame() {
  FrameRecorder recorder("/tmp/bench-calibration.frames");
  BinaryMessage::defaultSender = 11;
  CalibrationAnswer answer;
  answer.recipient = 13;
  answer.correlationId = kUnmatchedCorrelationId;
  std::string block(kCalibrationBlockSize, '\0');
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 7);
  answer.calibrationData.assign(block.data(), kCalibrationBlockSize);
  recorder.add(answer);
  return recorder.frames();
}

// The first answer of a run decoded with the library, as a peer would.
bool answerDecodes(const char* frame, int32_t channel) {
  MemoryInputBuffer buffer(frame + 4, kAnswerFrameSize - 4);
  std::istream in(&buffer);
  bistream decoder(in);
  FilterPathAnswer answer;
  answer.fromStream(decoder);
  char expected[64];
  std::snprintf(expected, sizeof expected, "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH%d.xml", channel);
  return in && answer.selector == 13003 && answer.path == expected;
}

// ---------------------------------------------------------------------------
// The report.

std::string fixed(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

std::string thousands(double value) {
  long long n = std::llround(value);
  std::string digits = std::to_string(n < 0 ? -n : n);
  std::string out;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
    out += digits[i];
  }
  return (n < 0 ? "-" : "") + out;
}

std::string ratio(double a, double b) { return b > 0 ? fixed(a / b, 2) + "×" : "–"; }

struct Row {
  std::string measure, raw, logging, daemon, vsRaw, vsLogging, target;
};

class Table {
 public:
  void add(Row row) { rows_.push_back(std::move(row)); }
  std::string markdown() const {
    std::ostringstream out;
    out << "| Measure | raw echo | logging echo | dravik | dravik / raw | dravik / logging | target |\n";
    out << "|---|---:|---:|---:|---:|---:|---|\n";
    for (const Row& r : rows_) {
      out << "| " << r.measure << " | " << r.raw << " | " << r.logging << " | " << r.daemon << " | " << r.vsRaw
          << " | " << r.vsLogging << " | " << r.target << " |\n";
    }
    return out.str();
  }

 private:
  std::vector<Row> rows_;
};

std::string verdict(bool met) { return met ? " (met)" : " (missed)"; }

std::string machine() {
  std::ifstream cpuinfo("/proc/cpuinfo");
  std::string line, model = "unknown";
  while (std::getline(cpuinfo, line)) {
    if (line.rfind("model name", 0) == 0) {
      model = line.substr(line.find(':') + 2);
      break;
    }
  }
  utsname u;
  uname(&u);
  std::ostringstream out;
  out << "nproc " << sysconf(_SC_NPROCESSORS_ONLN) << ", " << model << ", Linux " << u.release << " " << u.machine;
  return out.str();
}

std::string today() {
  time_t t = time(nullptr);
  tm utc;
  gmtime_r(&t, &utc);
  char text[64];
  strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", &utc);
  return text;
}

std::string fileText(const std::string& path) {
  std::ifstream in(path);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

constexpr const char* kBegin = "<!-- dravik_bench: generated, do not edit by hand -->";
constexpr const char* kEnd = "<!-- dravik_bench: end -->";

// Replaces the generated section of `path`, keeping everything around it.
bool writeReport(const std::string& path, const std::string& section) {
  std::string text = fileText(path);
  std::size_t begin = text.find(kBegin);
  std::size_t end = text.find(kEnd);
  std::string block = std::string(kBegin) + "\n" + section + kEnd;
  if (begin != std::string::npos && end != std::string::npos && end > begin) {
    text.replace(begin, end + std::strlen(kEnd) - begin, block);
  } else {
    if (text.empty()) text = "# Performance\n\n";
    text += "\n" + block + "\n";
  }
  std::ofstream out(path, std::ios::trunc);
  out << text;
  return static_cast<bool>(out);
}

// ---------------------------------------------------------------------------

constexpr const char* kUsage = R"(usage: dravik_bench [options]     (root: it uses a mount namespace)
  --smoke                 tiny sizes, for CI: a few seconds
  --output FILE           rewrite the generated section of FILE (docs/performance.md)
  --command TEXT          the command recorded in the report
  --daemon PATH           the dravik to measure (default: the one built beside)
  --ping-pong N           pinned round trips per server (100000)
  --unpinned N            unpinned round trips per server (20000)
  --pipelined N           pipelined messages per server (200000)
  --calibration N         65,488-byte blocks per server (3000)
  --store N               store writes, and plain writes (3000)
  --memory-messages N     messages between the two memory readings (100000)
  --idle-seconds S        each idle stretch (10)
  --starts K              daemon starts timed (5)
  --rounds R              alternating rounds the sizes are split into (3)
  --cpu C                 the CPU of the pinned runs (0)
  --callgrind-results F   "daemon N" and "echo N" lines from bench/callgrind.sh
  --micro-results F       dravik_microbench output to include
Callgrind mode (bench/callgrind.sh):
  --callgrind-target daemon|echo --requests N [--blocks M] --wrapper "valgrind ..."
)";

bool parseOptions(int argc, char* argv[], Options& o) {
  std::ostringstream command;
  for (int i = 0; i < argc; ++i) command << (i ? " " : "") << argv[i];
  o.command = command.str();
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) {
        fail("missing value after " + a);
        std::exit(2);
      }
      return argv[++i];
    };
    auto number = [&]() { return std::atol(value().c_str()); };
    if (a == "--help") {
      std::cout << kUsage;
      std::exit(0);
    } else if (a == "--smoke") {
      o.pingPong = 2000;
      o.unpinned = 500;
      o.pipelined = 5000;
      o.calibration = 50;
      o.store = 50;
      o.memoryMessages = 5000;
      o.idleSeconds = 1;
      o.starts = 2;
      o.rounds = 1;
    } else if (a == "--daemon") {
      o.daemon = value();
    } else if (a == "--output") {
      o.output = value();
    } else if (a == "--command") {
      o.command = value();
    } else if (a == "--callgrind-results") {
      o.callgrindResults = value();
    } else if (a == "--micro-results") {
      o.microResults = value();
    } else if (a == "--ping-pong") {
      o.pingPong = number();
    } else if (a == "--unpinned") {
      o.unpinned = number();
    } else if (a == "--pipelined") {
      o.pipelined = number();
    } else if (a == "--calibration") {
      o.calibration = number();
    } else if (a == "--store") {
      o.store = number();
    } else if (a == "--memory-messages") {
      o.memoryMessages = number();
    } else if (a == "--idle-seconds") {
      o.idleSeconds = static_cast<int>(number());
    } else if (a == "--starts") {
      o.starts = static_cast<int>(number());
    } else if (a == "--rounds") {
      o.rounds = static_cast<int>(number());
    } else if (a == "--cpu") {
      o.cpu = static_cast<int>(number());
    } else if (a == "--callgrind-target") {
      o.callgrindTarget = value();
    } else if (a == "--requests") {
      o.requests = number();
    } else if (a == "--blocks") {
      o.blocks = number();
    } else if (a == "--wrapper") {
      std::istringstream words(value());
      for (std::string w; words >> w;) o.wrapper.push_back(w);
    } else {
      fail("unknown option " + a);
      return false;
    }
  }
  o.rounds = std::max(o.rounds, 1);
  o.starts = std::max(o.starts, 1);
  return true;
}

struct Setup {
  Executables exe;
  LogDrain drain;
};

bool prepare(const Options& o, Setup& s) {
  s.exe.daemon = ::open(o.daemon.c_str(), O_PATH | O_CLOEXEC);
  s.exe.self = ::open("/proc/self/exe", O_PATH | O_CLOEXEC);
  if (s.exe.daemon < 0) {
    fail("cannot find the daemon at " + o.daemon + " (--daemon PATH)");
    return false;
  }
  std::string why;
  if (!sandbox::enter(&why)) {
    fail("no private sandbox: " + why);
    return false;
  }
  if (!s.drain.start("/dev/log", &why)) {
    fail("no /dev/log drain: " + why);
    return false;
  }
  mkfifo(kMailbox, 0666);
  mkfifo(kNotificationPipe, 0666);
  return true;
}

// Instructions per request come from two runs under callgrind that differ
// only in the number of requests (bench/callgrind.sh).
int runCallgrindTarget(const Options& o) {
  Setup s;
  if (!prepare(o, s)) return 2;
  std::string requests = requestFrames();
  Server server;
  phase("callgrind: start", 600);
  bool isDaemon = o.callgrindTarget == "daemon";
  if (isDaemon) {
    server.name = "dravik";
    server.answers = openAnswerReader(kNotificationPipe);
    Launch launch = launchDaemon(s.exe, o.wrapper, 300);
    if (launch.pid < 0) return 2;
    server.pid = launch.pid;
    server.requests = ::open(kMailbox, O_WRONLY | O_CLOEXEC);
    if (!waitForLine(s.drain, server.pid, "API: starting dispatcher", 300)) fail("no dispatcher line");
  } else if (o.callgrindTarget == "echo") {
    server.name = "logging echo";
    server.inPath = "/tmp/bench-logecho";
    if (!connectEcho(server, s.exe, o.wrapper, true)) return 2;
  } else {
    fail("--callgrind-target is daemon or echo");
    return 2;
  }
  phase("callgrind: requests", 3600);
  Run run = pingPong(server, requests, o.requests, false);
  if (o.blocks > 0) run.add(bulk(server, calibrationFrame(), requests, o.blocks));
  phase("callgrind: stop", 600);
  int status = 0;
  if (isDaemon) {
    if (!stopDaemon(server.pid)) fail("the daemon did not stop with status 1");
  } else {
    close(server.requests);
    waitpid(server.pid, &status, 0);
  }
  alarm(0);
  std::cout << o.callgrindTarget << " requests " << o.requests << " errors " << run.errors << std::endl;
  return run.errors == 0 ? 0 : 1;
}

// Everything one run measures.
struct Measurements {
  std::vector<double> startMs;
  long dirtyAtStart = 0, dirtyWarm = 0, dirtyAfter = 0, dirtyAtEnd = 0;
  Run pinned[3], loose[3], streamed[3];  // raw echo, logging echo, dravik
  Run blocks[2];                         // raw sink, dravik
  int64_t plainNs = 0, storeNs = 0;
  long storeOps = 0;
  Idle connected, alone;
  long daemonRequests = 0, daemonBlocks = 0, daemonLines = 0, echoLines = 0;
  long errors = 0;
  bool complete = false;  // every phase ran
};

class Benchmark {
 public:
  explicit Benchmark(const Options& o) : o_(o) {}

  // Runs every phase; false if the daemon misbehaved (never for a timing).
  bool run(Measurements& m);

 private:
  bool startDaemons(Measurements& m);
  bool startEchoes();
  void measureMemory(Measurements& m);
  void measurePingPong(Measurements& m);
  void measurePipelined(Measurements& m);
  void measureCalibration(Measurements& m);
  void measureStore(Measurements& m);
  void measureIdle(Measurements& m);
  void stop(Measurements& m);
  void unhealthy(const std::string& why) {
    fail(why);
    healthy_ = false;
  }

  const Options& o_;
  Setup setup_;
  bool healthy_ = true;
  std::string requests_, block_;
  Server raw_, logging_, daemon_;
  Server* servers_[3] = {&raw_, &logging_, &daemon_};
};

bool Benchmark::run(Measurements& m) {
  if (!prepare(o_, setup_)) return false;
  phase("encoding frames", 120);
  requests_ = requestFrames();
  block_ = calibrationFrame();
  if (requests_.size() != kDistinctRequests * kRequestFrameSize || block_.size() != kCalibrationFrameSize) {
    fail("the library framed " + std::to_string(requests_.size()) + " and " + std::to_string(block_.size()) +
         " bytes, not the expected sizes");
    return false;
  }
  if (!startDaemons(m) || !startEchoes()) return false;
  measureMemory(m);
  measurePingPong(m);
  measurePipelined(m);
  measureCalibration(m);
  measureStore(m);
  measureIdle(m);
  stop(m);
  m.complete = true;
  return healthy_;
}

// Fresh daemons timed from exec to the open of the mailbox; the last one
// stays for the rest of the run.
bool Benchmark::startDaemons(Measurements& m) {
  daemon_.name = "dravik";
  daemon_.answers = openAnswerReader(kNotificationPipe);
  for (int i = 0; i < o_.starts; ++i) {
    phase("start", 60);
    Launch launch = launchDaemon(setup_.exe, {}, 20);
    if (launch.pid < 0) return false;
    m.startMs.push_back(launch.readyMs);
    if (i + 1 < o_.starts) {
      if (!stopDaemon(launch.pid)) unhealthy("a daemon stopped before its first writer did not exit with status 1");
    } else {
      daemon_.pid = launch.pid;
    }
  }
  daemon_.requests = ::open(kMailbox, O_WRONLY | O_CLOEXEC);
  if (!waitForLine(setup_.drain, daemon_.pid, "API: starting dispatcher", 20)) {
    unhealthy("the daemon never logged \"API: starting dispatcher\"");
  }
  usleep(20000);
  m.dirtyAtStart = procstats::privateDirtyKiB(daemon_.pid);
  return true;
}

bool Benchmark::startEchoes() {
  phase("echo processes", 60);
  raw_.name = "raw echo";
  raw_.inPath = "/tmp/bench-echo";
  logging_.name = "logging echo";
  logging_.inPath = "/tmp/bench-logecho";
  if (!connectEcho(raw_, setup_.exe, {}, false) || !connectEcho(logging_, setup_.exe, {}, true)) {
    fail("the echo processes did not start");
    return false;
  }
  return true;
}

// The daemon's dirty private pages once its working set is in place (its
// 64 KiB input buffer filled by a pipelined run) and after many more
// messages.
void Benchmark::measureMemory(Measurements& m) {
  phase("memory", 600);
  char first[kAnswerFrameSize];
  if (!writeAll(daemon_.requests, requests_.data(), kRequestFrameSize) ||
      !readExactly(daemon_.answers, first, kAnswerFrameSize) || !answerDecodes(first, 0)) {
    unhealthy("the daemon's first answer is not the channel 0 filter path");
  }
  Run warm = pipelined(daemon_, requests_, kWarmMessages);
  m.dirtyWarm = procstats::privateDirtyKiB(daemon_.pid);
  Run many = pipelined(daemon_, requests_, o_.memoryMessages);
  m.dirtyAfter = procstats::privateDirtyKiB(daemon_.pid);
  m.daemonRequests += 1 + kWarmMessages + o_.memoryMessages;
  m.errors += warm.errors + many.errors;
}

// One request outstanding, first with every process on one CPU, then
// unpinned; the servers take turns round by round.
void Benchmark::measurePingPong(Measurements& m) {
  phase("ping-pong", 600);
  for (Server* server : servers_) m.errors += pingPong(*server, requests_, 2000, false).errors;
  procstats::setOwnAffinity(o_.cpu);
  for (Server* server : servers_) procstats::setAffinity(server->pid, o_.cpu);
  for (int r = 0; r < o_.rounds; ++r) {
    for (int k = 0; k < 3; ++k) m.pinned[k].add(pingPong(*servers_[k], requests_, o_.pingPong / o_.rounds, true));
  }
  procstats::setOwnAffinity(-1);
  for (Server* server : servers_) procstats::setAffinity(server->pid, -1);
  for (int r = 0; r < o_.rounds; ++r) {
    for (int k = 0; k < 3; ++k) m.loose[k].add(pingPong(*servers_[k], requests_, o_.unpinned / o_.rounds, true));
  }
  m.daemonRequests += 2000 + m.pinned[2].count + m.loose[2].count;
  for (int k = 0; k < 3; ++k) m.errors += m.pinned[k].errors + m.loose[k].errors;
}

void Benchmark::measurePipelined(Measurements& m) {
  phase("pipelined", 600);
  for (int r = 0; r < o_.rounds; ++r) {
    for (int k = 0; k < 3; ++k) m.streamed[k].add(pipelined(*servers_[k], requests_, o_.pipelined / o_.rounds));
  }
  m.daemonRequests += m.streamed[2].count;
  for (int k = 0; k < 3; ++k) m.errors += m.streamed[k].errors;
}

void Benchmark::measureCalibration(Measurements& m) {
  phase("calibration", 600);
  for (int r = 0; r < o_.rounds; ++r) {
    m.blocks[0].add(bulk(raw_, block_, requests_, o_.calibration / o_.rounds));
    m.blocks[1].add(bulk(daemon_, block_, requests_, o_.calibration / o_.rounds));
  }
  m.daemonBlocks += m.blocks[1].count;
  m.daemonRequests += o_.rounds;  // one closing request per run
  m.errors += m.blocks[0].errors + m.blocks[1].errors;
  m.dirtyAtEnd = procstats::privateDirtyKiB(daemon_.pid);
}

// In this process: UpdateCalibrationData (with its log lines) against a
// plain unlink, open, write and close of the same bytes in the same
// directory.
void Benchmark::measureStore(Measurements& m) {
  phase("store", 600);
  byteArray calibration;
  calibration.assign(block_.data() + 4 + kHeaderSize + 4, kCalibrationBlockSize);
  const std::string plainPath = "/etc/sysconfig/dravik/zek/cal/plain.bin";
  long perRound = std::max(1L, o_.store / o_.rounds);
  for (int r = 0; r < o_.rounds; ++r) {
    int64_t t0 = nowNs();
    for (long i = 0; i < perRound; ++i) {
      unlink(plainPath.c_str());
      int fd = ::open(plainPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      if (fd < 0 || !writeAll(fd, calibration.data, calibration.length)) unhealthy("plain write failed");
      if (fd >= 0) close(fd);
    }
    int64_t t1 = nowNs();
    for (long i = 0; i < perRound; ++i) UpdateCalibrationData(0, calibration);
    int64_t t2 = nowNs();
    m.plainNs += t1 - t0;
    m.storeNs += t2 - t1;
  }
  m.storeOps = perRound * o_.rounds;
  struct stat stored;
  if (stat("/etc/sysconfig/dravik/zek/cal/zekCalibrationDataCH0.bin", &stored) != 0 ||
      stored.st_size != static_cast<off_t>(kCalibrationBlockSize)) {
    unhealthy("UpdateCalibrationData did not leave a file of the block's size");
  }
}

// A connected silent writer, then no writer at all; then a writer again,
// which must be answered.
void Benchmark::measureIdle(Measurements& m) {
  phase("idle", static_cast<unsigned>(2 * o_.idleSeconds + 60));
  m.connected = idle(daemon_.pid, o_.idleSeconds);
  close(daemon_.requests);
  usleep(200000);  // the daemon sees end of file, logs once and reopens
  m.alone = idle(daemon_.pid, o_.idleSeconds);
  daemon_.requests = ::open(kMailbox, O_WRONLY | O_CLOEXEC);
  if (pingPong(daemon_, requests_, 1, false).errors != 0) unhealthy("no answer after the writer came back");
  m.daemonRequests += 1;
}

void Benchmark::stop(Measurements& m) {
  phase("stop", 60);
  // A line leaves before its answer, but the drain may not have taken it yet.
  for (int i = 0; i < 1000 && setup_.drain.linesFrom(daemon_.pid) < m.daemonRequests + m.daemonBlocks; ++i) {
    usleep(1000);
  }
  m.daemonLines = setup_.drain.linesFrom(daemon_.pid);
  m.echoLines = setup_.drain.linesFrom(logging_.pid);
  if (!stopDaemon(daemon_.pid)) unhealthy("the daemon did not stop with exit status 1");
  close(raw_.requests);
  close(logging_.requests);
  int status;
  waitpid(raw_.pid, &status, 0);
  waitpid(logging_.pid, &status, 0);
  alarm(0);
  if (m.errors != 0) unhealthy(std::to_string(m.errors) + " answers were missing or did not match their requests");
  // One line per request and per block, besides the start and stop lines.
  if (m.daemonLines < m.daemonRequests + m.daemonBlocks) {
    unhealthy("the daemon logged " + std::to_string(m.daemonLines) + " lines for " +
              std::to_string(m.daemonRequests) + " requests and " + std::to_string(m.daemonBlocks) + " blocks");
  }
}

void addPingPongRows(Table& table, Run* runs, const std::string& label, bool isTarget) {
  double rate[3], p50[3], p99[3], cpu[3];
  for (int k = 0; k < 3; ++k) {
    rate[k] = runs[k].medianRoundRate();
    p50[k] = runs[k].percentileUs(0.50);
    p99[k] = runs[k].percentileUs(0.99);
    cpu[k] = runs[k].cpuUsPer();
  }
  std::string target = isTarget ? "≥ 0.70× logging" + verdict(rate[2] >= 0.7 * rate[1]) : "information";
  table.add({label + ": round trips/s", thousands(rate[0]), thousands(rate[1]), thousands(rate[2]),
             ratio(rate[2], rate[0]), ratio(rate[2], rate[1]), target});
  table.add({label + ": p50 µs", fixed(p50[0], 1), fixed(p50[1], 1), fixed(p50[2], 1), ratio(p50[2], p50[0]),
             ratio(p50[2], p50[1]), ""});
  table.add({label + ": p99 µs", fixed(p99[0], 1), fixed(p99[1], 1), fixed(p99[2], 1), ratio(p99[2], p99[0]),
             ratio(p99[2], p99[1]), ""});
  table.add({label + ": server CPU µs per request", fixed(cpu[0], 2), fixed(cpu[1], 2), fixed(cpu[2], 2),
             ratio(cpu[2], cpu[0]), ratio(cpu[2], cpu[1]), ""});
}

std::string report(const Options& o, Measurements& m) {
  Table table;
  addPingPongRows(table, m.pinned, "ping-pong pinned (CPU " + std::to_string(o.cpu) + ")", true);
  addPingPongRows(table, m.loose, "ping-pong unpinned", false);

  double rate[3], cpu[3];
  for (int k = 0; k < 3; ++k) {
    rate[k] = m.streamed[k].medianRoundRate();
    cpu[k] = m.streamed[k].cpuUsPer();
  }
  table.add({"pipelined: messages/s", thousands(rate[0]), thousands(rate[1]), thousands(rate[2]),
             ratio(rate[2], rate[0]), ratio(rate[2], rate[1]), "≥ 0.70× logging" + verdict(rate[2] >= 0.7 * rate[1])});
  table.add({"pipelined: server CPU µs per message", fixed(cpu[0], 2), fixed(cpu[1], 2), fixed(cpu[2], 2),
             ratio(cpu[2], cpu[0]), ratio(cpu[2], cpu[1]), ""});

  const Run& sink = m.blocks[0];
  const Run& daemon = m.blocks[1];
  double blocksRaw = sink.medianRoundRate(), blocksDaemon = daemon.medianRoundRate();
  table.add({"calibration, 65,488-byte blocks: blocks/s", thousands(blocksRaw), "", thousands(blocksDaemon),
             ratio(blocksDaemon, blocksRaw), "", "≥ 0.50× raw" + verdict(blocksDaemon >= 0.5 * blocksRaw)});
  table.add({"calibration: MB/s on the pipe", fixed(blocksRaw * kCalibrationFrameSize / 1e6, 0), "",
             fixed(blocksDaemon * kCalibrationFrameSize / 1e6, 0), ratio(blocksDaemon, blocksRaw), "", ""});
  table.add({"calibration: server CPU µs per block", fixed(sink.cpuUsPer(), 1), "", fixed(daemon.cpuUsPer(), 1),
             ratio(daemon.cpuUsPer(), sink.cpuUsPer()), "", ""});
  table.add({"calibration: server minor page faults per block", fixed(sink.faultsPer(), 1), "",
             fixed(daemon.faultsPer(), 1), "", "", "information"});

  double plain = m.plainNs > 0 ? static_cast<double>(m.storeOps) * 1e9 / static_cast<double>(m.plainNs) : 0;
  double store = m.storeNs > 0 ? static_cast<double>(m.storeOps) * 1e9 / static_cast<double>(m.storeNs) : 0;
  table.add({"store on tmpfs, 65,488-byte blocks/s (raw: plain unlink+open+write+close)", thousands(plain), "",
             thousands(store), ratio(store, plain), "", "≥ 0.70× plain" + verdict(store >= 0.7 * plain)});

  std::string seconds = std::to_string(o.idleSeconds);
  for (const auto& [label, idle] : {std::pair<std::string, Idle>{"writer connected", m.connected},
                                    std::pair<std::string, Idle>{"no writer", m.alone}}) {
    table.add({"idle " + seconds + " s, " + label + ": CPU ms / context switches per s", "", "",
               fixed(idle.cpuMs, 1) + " / " + fixed(idle.switchesPerSecond, 2), "", "",
               "< 1 switch/s, no CPU" + verdict(idle.switchesPerSecond < 1 && idle.cpuMs < 10)});
  }
  table.add({"Private_Dirty KiB: after start / after " + thousands(static_cast<double>(kWarmMessages)) +
                 " messages / after " + thousands(static_cast<double>(o.memoryMessages)) + " more / at the end",
             "", "",
             std::to_string(m.dirtyAtStart) + " / " + std::to_string(m.dirtyWarm) + " / " +
                 std::to_string(m.dirtyAfter) + " / " + std::to_string(m.dirtyAtEnd),
             "", "", "≤ 512, flat" + verdict(m.dirtyAfter <= 512 && m.dirtyAfter <= m.dirtyWarm + 8)});

  std::vector<double> starts = m.startMs;
  std::sort(starts.begin(), starts.end());
  double median = starts[starts.size() / 2];
  table.add({"start: exec to mailbox open, ms (median / max of " + std::to_string(starts.size()) + ")", "", "",
             fixed(median, 2) + " / " + fixed(starts.back(), 2), "", "", "≤ 10 ms" + verdict(median <= 10)});

  if (!o.callgrindResults.empty()) {
    double daemonIr = 0, echoIr = 0;
    std::istringstream lines(fileText(o.callgrindResults));
    for (std::string key; lines >> key;) {
      double value = 0;
      lines >> value;
      if (key == "daemon") daemonIr = value;
      if (key == "echo") echoIr = value;
    }
    if (daemonIr > 0 && echoIr > 0) {
      table.add({"user-space instructions per request (callgrind)", "", thousands(echoIr), thousands(daemonIr), "",
                 ratio(daemonIr, echoIr), "≤ 1.50× logging" + verdict(daemonIr <= 1.5 * echoIr)});
    }
  }

  auto n = [](long value) { return thousands(static_cast<double>(value)); };
  std::ostringstream section;
  section << "Machine: " << machine() << ". Date: " << today() << ".\n\n";
  section << "Command: `" << o.command << "`\n\n";
  section << "Sizes: ping-pong " << n(o.pingPong) << " pinned and " << n(o.unpinned)
          << " unpinned round trips, pipelined " << n(o.pipelined) << " messages, " << n(o.calibration)
          << " calibration blocks and " << n(m.storeOps) << " store writes per server, in " << o.rounds
          << " alternating rounds (rates: the median round; latencies and CPU: all rounds); idle "
          << o.idleSeconds << " s each.\n\n";
  section << table.markdown() << "\n";
  section << "The daemon logged " << n(m.daemonLines) << " syslog lines for " << n(m.daemonRequests)
          << " requests and " << n(m.daemonBlocks) << " blocks; the logging echo " << n(m.echoLines)
          << ". Every answer matched its request: " << (m.errors == 0 ? "yes" : "NO") << ". Start samples, ms:";
  for (double ms : m.startMs) section << " " << fixed(ms, 2);
  section << ".\n";
  if (!o.microResults.empty()) {
    section << "\nMicro-benchmarks (`dravik_microbench`):\n\n```\n" << fileText(o.microResults) << "```\n";
  }
  return section.str();
}

int runBenchmark(const Options& o) {
  Measurements m;
  Benchmark benchmark(o);
  bool healthy = benchmark.run(m);
  if (!m.complete) {
    std::cerr << "daemon console:\n" << fileText(kDaemonConsole);
    return 2;
  }
  std::string section = report(o, m);
  std::cout << "\n" << section << std::flush;
  if (!o.output.empty() && !writeReport(o.output, section)) {
    fail("cannot write " + o.output);
    healthy = false;
  }
  if (!healthy) std::cerr << "daemon console:\n" << fileText(kDaemonConsole);
  return healthy ? 0 : 1;
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc == 5 && std::strcmp(argv[1], "--serve") == 0) {
    return serveRawEcho(argv[3], argv[4], std::strcmp(argv[2], "log-echo") == 0);
  }
  Options options;
  if (!parseOptions(argc, argv, options)) return 2;
  signal(SIGPIPE, SIG_IGN);
  signal(SIGALRM, onWatchdog);
  if (!options.callgrindTarget.empty()) return runCallgrindTarget(options);
  return runBenchmark(options);
}
