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
  --dravikctl PATH        the dravikctl whose tap is measured (default: the one built beside)
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

}  // namespace

bool parseOptions(int argc, char* argv[], Options* o) {
  std::ostringstream command;
  for (int i = 0; i < argc; ++i) command << (i ? " " : "") << argv[i];
  o->command = command.str();
  const std::pair<const char*, std::string*> texts[] = {
      {"--daemon", &o->daemon},   {"--dravikctl", &o->dravikctl}, {"--output", &o->output},
      {"--command", &o->command}, {"--callgrind-results", &o->callgrindResults},
      {"--micro-results", &o->microResults}, {"--callgrind-target", &o->callgrindTarget},
  };
  const std::pair<const char*, long*> numbers[] = {
      {"--ping-pong", &o->pingPong},     {"--unpinned", &o->unpinned},
      {"--pipelined", &o->pipelined},    {"--calibration", &o->calibration},
      {"--store", &o->store},            {"--memory-messages", &o->memoryMessages},
      {"--idle-seconds", &o->idleSeconds}, {"--starts", &o->starts},
      {"--rounds", &o->rounds},          {"--cpu", &o->cpu},
      {"--requests", &o->requests},      {"--blocks", &o->blocks},
  };
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help") {
      std::cout << kUsage;
      std::exit(0);
    }
    if (a == "--smoke") {
      o->pingPong = 2000, o->unpinned = 500, o->pipelined = 5000, o->calibration = 50, o->store = 50;
      o->memoryMessages = 5000, o->idleSeconds = 1, o->starts = 2, o->rounds = 1;
      continue;
    }
    bool known = i + 1 < argc;
    if (known && a == "--wrapper") {
      std::istringstream words(argv[++i]);
      for (std::string w; words >> w;) o->wrapper.push_back(w);
      continue;
    }
    auto text = std::find_if(std::begin(texts), std::end(texts), [&](const auto& t) { return a == t.first; });
    auto number = std::find_if(std::begin(numbers), std::end(numbers), [&](const auto& n) { return a == n.first; });
    if (known && text != std::end(texts)) {
      *text->second = argv[++i];
    } else if (known && number != std::end(numbers)) {
      *number->second = std::atol(argv[++i]);
    } else {
      std::cerr << "dravik_bench: unknown option or missing value: " << a << "\n";
      return false;
    }
  }
  o->starts = std::max(o->starts, 1L);
  o->rounds = std::max(o->rounds, 1L);
  return true;
}
