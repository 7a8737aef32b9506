// dravik_bench's command line: the sizes of every run, where the report
// goes, and the callgrind mode that bench/callgrind.sh drives.
#ifndef DRAVIK_BENCH_OPTIONS_H_
#define DRAVIK_BENCH_OPTIONS_H_

#include <string>
#include <vector>

#ifndef DRAVIK_DAEMON_PATH
#define DRAVIK_DAEMON_PATH "dravik"
#endif
#ifndef DRAVIKCTL_PATH
#define DRAVIKCTL_PATH "dravikctl"
#endif

struct Options {
  std::string daemon = DRAVIK_DAEMON_PATH;
  std::string dravikctl = DRAVIKCTL_PATH;
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
  long idleSeconds = 10;
  long starts = 5;
  long rounds = 3;
  long cpu = 0;
  // Callgrind mode: one server under `wrapper`, `requests` round trips.
  std::string callgrindTarget;
  long requests = 0;
  long blocks = 0;
  std::vector<std::string> wrapper;
};

// Reads the command line; exits on --help. False after a one-line report of
// a bad option.
bool parseOptions(int argc, char* argv[], Options* options);

#endif  // DRAVIK_BENCH_OPTIONS_H_
