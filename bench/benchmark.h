// One sitting of the whole-process benchmark: the daemon started and timed,
// then measured phase by phase against the two echo servers, the servers
// taking turns round by round so that a noisy stretch of the machine hits
// them all alike. Also the callgrind mode, one server under a wrapper.
#ifndef DRAVIK_BENCH_BENCHMARK_H_
#define DRAVIK_BENCH_BENCHMARK_H_

#include <cstdint>
#include <string>
#include <vector>

#include "bench/options.h"
#include "bench/servers.h"
#include "bench/timed_runs.h"

// Messages after which the daemon's working set is in place (its 64 KiB
// input buffer filled once by a pipelined run).
constexpr long kWarmMessages = 1000;

// Everything one sitting measures.
struct Measurements {
  std::vector<double> startMs;
  long dirtyAtStart = 0, dirtyWarm = 0, dirtyAfter = 0, dirtyAtEnd = 0;
  Run pinned[3], loose[3], streamed[3];  // raw echo, logging echo, dravik
  // The daemon's pinned ping-pong with `dravikctl monitor --pid` attached,
  // the tap's CPU over those runs, or why it was not measured.
  Run tapped;
  int64_t tapCpuNs = 0;
  std::string tapSkipped;
  Run blocks[2];                         // raw sink, dravik
  int64_t plainNs = 0, syncedNs = 0, storeNs = 0;  // plain writes without and with syncs; the store
  long storeOps = 0;
  Idle connected, alone;
  long daemonRequests = 0, daemonBlocks = 0, daemonLines = 0, echoLines = 0;
  long errors = 0;
  bool complete = false;  // every phase ran
};

class Benchmark {
 public:
  explicit Benchmark(const Options& options) : o_(options) {}

  // Runs every phase; false if the daemon misbehaved (never for a timing).
  bool run(Measurements& m);
  std::string daemonConsole() const { return daemon_.console(); }

 private:
  bool startDaemons(Measurements& m);
  bool startEchoes();
  void measureMemory(Measurements& m);
  void measurePingPong(Measurements& m);
  void measureTapped(Measurements& m, long count);
  void measurePipelined(Measurements& m);
  void measureCalibration(Measurements& m);
  void measureStore(Measurements& m);
  void measureIdle(Measurements& m);
  void stop(Measurements& m);
  // This thread (with `drainToo`, every thread of this process, the
  // /dev/log drain among them) and every thread of the three servers on
  // `cpu`, or on all CPUs when it is -1.
  void pin(int cpu, bool drainToo);
  void unhealthy(const std::string& why);

  const Options& o_;
  Servers servers_;
  bool healthy_ = true;
  std::string requests_, block_;
  Server raw_, logging_, daemon_;
  Server* all_[3] = {&raw_, &logging_, &daemon_};
};

// Callgrind mode (bench/callgrind.sh): `--requests` round trips, and
// `--blocks` calibration blocks, with the daemon or the logging echo behind
// `--wrapper`. The exit status says whether every answer matched.
int runCallgrindTarget(const Options& options);

// Names the phase that runs now and gives it `seconds` before the watchdog
// ends the program (the children die with it).
void phase(const char* name, unsigned seconds);
void installWatchdog();

#endif  // DRAVIK_BENCH_BENCHMARK_H_
