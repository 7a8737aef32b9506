#include "bench/benchmark.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iostream>

#include "bench/frames.h"
#include "bench/proc_stats.h"
#include "messaging/binary_stream.h"
#include "store/calibration_store.h"
#include "store/store_layout.h"

namespace {

const char* currentPhase = "setup";

// Round trips that show the daemon answering once the tap has let go.
constexpr long kAfterTap = 100;

void onWatchdog(int) {
  const char head[] = "dravik_bench: timed out in phase ";
  (void)!write(2, head, sizeof head - 1);
  (void)!write(2, currentPhase, std::strlen(currentPhase));
  (void)!write(2, "\n", 1);
  _exit(3);
}

}  // namespace

void installWatchdog() { signal(SIGALRM, onWatchdog); }

void phase(const char* name, unsigned seconds) {
  currentPhase = name;
  alarm(seconds);
  std::cerr << "dravik_bench: " << name << std::endl;
}

void Benchmark::pin(int cpu, bool drainToo) {
  if (drainToo) {
    procstats::setAffinity(getpid(), cpu);
  } else {
    procstats::setOwnAffinity(cpu);
  }
  for (Server* server : all_) procstats::setAffinity(server->pid(), cpu);
}

void Benchmark::unhealthy(const std::string& why) {
  std::cerr << "dravik_bench: " << why << std::endl;
  healthy_ = false;
}

bool Benchmark::run(Measurements& m) {
  if (!servers_.open(o_)) return false;
  requests_ = requestFrames();
  block_ = calibrationFrame();
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
  for (int i = 0; i < o_.starts; ++i) {
    phase("start", 60);
    double ms = servers_.startDaemon(daemon_, {}, 20);
    if (ms < 0) return false;
    m.startMs.push_back(ms);
    if (i + 1 < o_.starts && !servers_.stopDaemon(daemon_)) {
      unhealthy("a daemon stopped before its first writer did not exit with status 1");
    }
  }
  if (!servers_.connectDaemon(daemon_, 20)) unhealthy("the daemon's dispatcher did not start");
  usleep(20000);
  m.dirtyAtStart = procstats::privateDirtyKiB(daemon_.pid());
  return true;
}

bool Benchmark::startEchoes() {
  phase("echo processes", 60);
  if (servers_.startEcho(raw_, "/tmp/bench-echo", false, {}) &&
      servers_.startEcho(logging_, "/tmp/bench-logecho", true, {})) {
    return true;
  }
  unhealthy("the echo processes did not start");
  return false;
}

// The daemon's dirty private pages once its working set is in place and
// after many more messages.
void Benchmark::measureMemory(Measurements& m) {
  phase("memory", 600);
  std::string first;
  std::string error;
  if (!daemon_.requests.write(requests_.data(), kRequestFrameSize, peer::Deadline::after(20), &error) ||
      daemon_.answers.next(&first, peer::Deadline::after(20), -1, &error) != peer::FrameReader::Event::frame ||
      !answerDecodes(first, 0)) {
    unhealthy("the daemon's first answer is not the channel 0 filter path " + error);
  }
  Run warm = pipelined(daemon_, requests_, kWarmMessages);
  m.dirtyWarm = procstats::privateDirtyKiB(daemon_.pid());
  Run many = pipelined(daemon_, requests_, o_.memoryMessages);
  m.dirtyAfter = procstats::privateDirtyKiB(daemon_.pid());
  m.daemonRequests += 1 + kWarmMessages + o_.memoryMessages;
  m.errors += warm.errors + many.errors;
}

// One request outstanding, first with every process on one CPU, then
// unpinned; the servers take turns round by round. The daemon with a tap
// attached, for the tap's cost, is one more turn of the pinned rounds.
void Benchmark::measurePingPong(Measurements& m) {
  phase("ping-pong", 600);
  for (Server* server : all_) m.errors += pingPong(*server, requests_, 2000, false).errors;
  pin(o_.cpu, false);
  for (int r = 0; r < o_.rounds; ++r) {
    for (int k = 0; k < 3; ++k) m.pinned[k].add(pingPong(*all_[k], requests_, o_.pingPong / o_.rounds, true));
    measureTapped(m, o_.pingPong / o_.rounds);
  }
  if (m.tapped.count > 0) {
    // Untraced (stopTap saw to it) and still answering.
    m.daemonRequests += kAfterTap;
    if (pingPong(daemon_, requests_, kAfterTap, false).errors != 0) unhealthy("wrong answers after the tap let go");
  }
  pin(-1, false);
  for (int r = 0; r < o_.rounds; ++r) {
    for (int k = 0; k < 3; ++k) m.loose[k].add(pingPong(*all_[k], requests_, o_.unpinned / o_.rounds, true));
  }
  m.daemonRequests += 2000 + m.pinned[2].count + m.loose[2].count + m.tapped.count;
  for (int k = 0; k < 3; ++k) m.errors += m.pinned[k].errors + m.loose[k].errors;
}

// The fourth turn of a pinned round: the daemon with the tap attached
// afresh (on the same CPU), let go after the run. Where it cannot attach,
// the reason stands in the report instead of the figure.
void Benchmark::measureTapped(Measurements& m, long count) {
  if (!m.tapSkipped.empty()) return;
  std::string why;
  std::unique_ptr<ChildProcess> tap = servers_.startTap(daemon_, &why);
  if (!tap) {
    m.tapSkipped = why;
    return;
  }
  procstats::setAffinity(tap->pid(), o_.cpu);
  double tapCpu = tap->cpuSeconds();
  Run run = pingPong(daemon_, requests_, count, true);
  m.tapCpuNs += static_cast<int64_t>((tap->cpuSeconds() - tapCpu) * 1e9);
  m.tapped.add(run);
  m.errors += run.errors;
  if (!servers_.stopTap(std::move(tap), daemon_, &why)) unhealthy(why);
}

void Benchmark::measurePipelined(Measurements& m) {
  phase("pipelined", 600);
  for (int r = 0; r < o_.rounds; ++r) {
    for (int k = 0; k < 3; ++k) m.streamed[k].add(pipelined(*all_[k], requests_, o_.pipelined / o_.rounds));
  }
  m.daemonRequests += m.streamed[2].count;
  for (int k = 0; k < 3; ++k) m.errors += m.streamed[k].errors;
}

// Everything on one CPU, the /dev/log drain too. Unpinned, the raw sink
// drains the pipe on the second core beside the writer, so that its rate is
// the writer's, while the daemon's lines wake the drain across cores; how
// much either gains from the second core depends on whoever else uses it.
// On one core a block costs the same writer plus the server and what its
// lines cost, whichever server it is.
void Benchmark::measureCalibration(Measurements& m) {
  phase("calibration", 600);
  pin(o_.cpu, true);
  for (int r = 0; r < o_.rounds; ++r) {
    m.blocks[0].add(bulk(raw_, block_, requests_, o_.calibration / o_.rounds));
    m.blocks[1].add(bulk(daemon_, block_, requests_, o_.calibration / o_.rounds));
  }
  pin(-1, true);
  m.daemonBlocks += m.blocks[1].count;
  m.daemonRequests += o_.rounds;  // one closing request per run
  m.errors += m.blocks[0].errors + m.blocks[1].errors;
  m.dirtyAtEnd = procstats::privateDirtyKiB(daemon_.pid());
}

// In this process: UpdateCalibrationData (with its log lines and its syncs)
// against a plain unlink, open, write and close of the same bytes in the
// same directory, and the same plain write with an fsync of the file and of
// the directory: what the syncs cost.
void Benchmark::measureStore(Measurements& m) {
  phase("store", 600);
  byteArray calibration;
  calibration.assign(block_.data() + kFrameLengthSize + kHeaderSize + 4, kLargestCalibrationBlock);
  const std::string plainPath = std::string(kCalibrationDirectory) + "plain.bin";
  auto plainWrite = [&](bool synced) {
    unlink(plainPath.c_str());
    int fd = ::open(plainPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || ::write(fd, calibration.data, calibration.length) != static_cast<ssize_t>(calibration.length)) {
      unhealthy("plain write failed");
    }
    if (synced) {
      int dir = ::open(kCalibrationDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      if (fsync(fd) != 0 || dir < 0 || fsync(dir) != 0) unhealthy("plain sync failed");
      if (dir >= 0) close(dir);
    }
    if (fd >= 0) close(fd);
  };
  long perRound = std::max(1L, o_.store / o_.rounds);
  for (int r = 0; r < o_.rounds; ++r) {
    int64_t t0 = nowNs();
    for (long i = 0; i < perRound; ++i) plainWrite(false);
    int64_t t1 = nowNs();
    for (long i = 0; i < perRound; ++i) plainWrite(true);
    int64_t t2 = nowNs();
    for (long i = 0; i < perRound; ++i) UpdateCalibrationData(0, calibration);
    int64_t t3 = nowNs();
    m.plainNs += t1 - t0;
    m.syncedNs += t2 - t1;
    m.storeNs += t3 - t2;
  }
  m.storeOps = perRound * o_.rounds;
  struct stat stored;
  if (stat(CalibrationFilePath(0).c_str(), &stored) != 0 ||
      stored.st_size != static_cast<off_t>(kLargestCalibrationBlock)) {
    unhealthy("UpdateCalibrationData did not leave a file of the block's size");
  }
}

// A connected silent writer, then no writer at all; then a writer again,
// which must be answered.
void Benchmark::measureIdle(Measurements& m) {
  phase("idle", static_cast<unsigned>(2 * o_.idleSeconds + 60));
  m.connected = idle(daemon_, static_cast<int>(o_.idleSeconds));
  daemon_.requests.close();
  usleep(200000);  // the daemon sees end of file, logs once and reopens
  m.alone = idle(daemon_, static_cast<int>(o_.idleSeconds));
  if (!servers_.connectDaemon(daemon_, 20) || pingPong(daemon_, requests_, 1, false).errors != 0) {
    unhealthy("no answer after the writer came back");
  }
  m.daemonRequests += 1;
}

void Benchmark::stop(Measurements& m) {
  phase("stop", 60);
  // A line leaves before its answer, but the reader may not have taken it yet.
  servers_.log().flush(std::chrono::seconds(10));
  m.daemonLines = static_cast<long>(servers_.log().count(daemon_.pid()));
  m.echoLines = static_cast<long>(servers_.log().count(logging_.pid()));
  if (!servers_.stopDaemon(daemon_)) unhealthy("the daemon did not stop with exit status 1");
  if (!servers_.stopEcho(raw_) || !servers_.stopEcho(logging_)) unhealthy("an echo server did not end cleanly");
  alarm(0);
  if (m.errors != 0) unhealthy(std::to_string(m.errors) + " answers were missing or did not match their requests");
  // One line per request and per block, besides the start and stop lines.
  if (m.daemonLines < m.daemonRequests + m.daemonBlocks) {
    unhealthy("the daemon logged " + std::to_string(m.daemonLines) + " lines for " +
              std::to_string(m.daemonRequests) + " requests and " + std::to_string(m.daemonBlocks) + " blocks");
  }
}

int runCallgrindTarget(const Options& o) {
  Servers servers;
  if (!servers.open(o)) return 2;
  std::string requests = requestFrames();
  Server server;
  phase("callgrind: start", 600);
  bool isDaemon = o.callgrindTarget == "daemon";
  if (isDaemon) {
    if (servers.startDaemon(server, o.wrapper, 300) < 0 || !servers.connectDaemon(server, 300)) return 2;
  } else if (o.callgrindTarget == "echo") {
    if (!servers.startEcho(server, "/tmp/bench-logecho", true, o.wrapper)) return 2;
  } else {
    std::cerr << "dravik_bench: --callgrind-target is daemon or echo" << std::endl;
    return 2;
  }
  phase("callgrind: requests", 3600);
  Run run = pingPong(server, requests, o.requests, false);
  if (o.blocks > 0) run.add(bulk(server, calibrationFrame(), requests, o.blocks));
  phase("callgrind: stop", 600);
  bool stopped = isDaemon ? servers.stopDaemon(server) : servers.stopEcho(server);
  if (!stopped) std::cerr << "dravik_bench: " << server.name << " did not stop cleanly" << std::endl;
  alarm(0);
  std::cout << o.callgrindTarget << " requests " << o.requests << " errors " << run.errors << std::endl;
  return run.errors == 0 ? 0 : 1;
}
