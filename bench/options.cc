#include "bench/options.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <sstream>

namespace {

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

void smoke(Options* o) {
  o->pingPong = 2000;
  o->unpinned = 500;
  o->pipelined = 5000;
  o->calibration = 50;
  o->store = 50;
  o->memoryMessages = 5000;
  o->idleSeconds = 1;
  o->starts = 2;
  o->rounds = 1;
}

}  // namespace

bool parseOptions(int argc, char* argv[], Options* o) {
  std::ostringstream command;
  for (int i = 0; i < argc; ++i) command << (i ? " " : "") << argv[i];
  o->command = command.str();
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help") {
      std::cout << kUsage;
      std::exit(0);
    }
    if (a == "--smoke") {
      smoke(o);
      continue;
    }
    if (i + 1 >= argc) {
      std::cerr << "dravik_bench: unknown option or missing value: " << a << "\n";
      return false;
    }
    std::string value = argv[++i];
    long number = std::atol(value.c_str());
    if (a == "--daemon") {
      o->daemon = value;
    } else if (a == "--output") {
      o->output = value;
    } else if (a == "--command") {
      o->command = value;
    } else if (a == "--callgrind-results") {
      o->callgrindResults = value;
    } else if (a == "--micro-results") {
      o->microResults = value;
    } else if (a == "--callgrind-target") {
      o->callgrindTarget = value;
    } else if (a == "--wrapper") {
      std::istringstream words(value);
      for (std::string w; words >> w;) o->wrapper.push_back(w);
    } else if (a == "--ping-pong") {
      o->pingPong = number;
    } else if (a == "--unpinned") {
      o->unpinned = number;
    } else if (a == "--pipelined") {
      o->pipelined = number;
    } else if (a == "--calibration") {
      o->calibration = number;
    } else if (a == "--store") {
      o->store = number;
    } else if (a == "--memory-messages") {
      o->memoryMessages = number;
    } else if (a == "--requests") {
      o->requests = number;
    } else if (a == "--blocks") {
      o->blocks = number;
    } else if (a == "--idle-seconds") {
      o->idleSeconds = static_cast<int>(number);
    } else if (a == "--starts") {
      o->starts = std::max(1, static_cast<int>(number));
    } else if (a == "--rounds") {
      o->rounds = std::max(1, static_cast<int>(number));
    } else if (a == "--cpu") {
      o->cpu = static_cast<int>(number);
    } else {
      std::cerr << "dravik_bench: unknown option " << a << "\n";
      return false;
    }
  }
  return true;
}
