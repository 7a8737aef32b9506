// dravik_bench: the daemon measured as a whole process against the raw-pipe
// limit, every figure and its baselines in the same run.
//
//   dravik_bench [--smoke] [--output docs/performance.md] [sizes...]
//   dravik_bench --callgrind-target daemon|echo --requests N [--blocks M] --wrapper "valgrind ..."
//   dravik_bench --serve echo|log-echo IN OUT      (a baseline server, started by the benchmark)
//
// Timings are reported, never judged: the exit status says only whether the
// daemon answered correctly throughout.
#include <signal.h>

#include <cstring>
#include <iostream>

#include "bench/benchmark.h"
#include "bench/options.h"
#include "bench/raw_echo.h"
#include "bench/report.h"

int main(int argc, char* argv[]) {
  if (argc == 5 && std::strcmp(argv[1], "--serve") == 0) {
    return serveRawEcho(argv[3], argv[4], std::strcmp(argv[2], "log-echo") == 0);
  }
  Options options;
  if (!parseOptions(argc, argv, &options)) return 2;
  signal(SIGPIPE, SIG_IGN);
  installWatchdog();
  if (!options.callgrindTarget.empty()) return runCallgrindTarget(options);

  Measurements m;
  Benchmark benchmark(options);
  bool healthy = benchmark.run(m);
  if (!m.complete) {
    std::cerr << "daemon console:\n" << benchmark.daemonConsole();
    return 2;
  }
  std::string section = report(options, m);
  std::cout << "\n" << section << std::flush;
  if (!options.output.empty() && !writeReport(options.output, section)) {
    std::cerr << "dravik_bench: cannot write " << options.output << std::endl;
    healthy = false;
  }
  if (!healthy) std::cerr << "daemon console:\n" << benchmark.daemonConsole();
  return healthy ? 0 : 1;
}
