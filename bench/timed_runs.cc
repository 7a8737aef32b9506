#include "bench/timed_runs.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <thread>

#include "bench/frames.h"
#include "bench/proc_stats.h"
#include "bench/servers.h"

namespace {

constexpr std::size_t kWriteBatch = 64;

// A stuck server is the watchdog's business (the phase alarm): the waits
// here have no deadline of their own.
bool send(Server& server, const char* data, std::size_t size) {
  std::string error;
  if (server.requests.write(data, size, peer::Deadline::never(), &error)) return true;
  std::cerr << "dravik_bench: " << server.name << ": " << error << std::endl;
  return false;
}

// Server CPU from /proc, in clock ticks: meaningful over a second or more.
int64_t cpuNs(const Server& server) { return static_cast<int64_t>(server.process->cpuSeconds() * 1e9); }

bool receive(Server& server, std::string* answer) {
  std::string error;
  if (server.answers.next(answer, peer::Deadline::never(), -1, &error) == peer::FrameReader::Event::frame) return true;
  std::cerr << "dravik_bench: " << server.name << ": no answer: " << (error.empty() ? "the pipe closed" : error)
            << std::endl;
  return false;
}

}  // namespace

int64_t nowNs() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

void Run::add(const Run& round) {
  if (round.count > 0 && round.ns > 0) roundRates.push_back(round.perSecond());
  count += round.count;
  ns += round.ns;
  cpuNs += round.cpuNs;
  faults += round.faults;
  errors += round.errors;
  latencyNs.insert(latencyNs.end(), round.latencyNs.begin(), round.latencyNs.end());
}

double Run::perSecond() const { return ns > 0 ? static_cast<double>(count) * 1e9 / static_cast<double>(ns) : 0; }

double Run::medianRoundRate() const {
  if (roundRates.empty()) return perSecond();
  std::vector<double> rates = roundRates;
  std::sort(rates.begin(), rates.end());
  std::size_t n = rates.size();
  return n % 2 == 1 ? rates[n / 2] : (rates[n / 2 - 1] + rates[n / 2]) / 2;
}

double Run::cpuUsPer() const { return count > 0 ? static_cast<double>(cpuNs) / 1e3 / static_cast<double>(count) : 0; }

double Run::faultsPer() const { return count > 0 ? static_cast<double>(faults) / static_cast<double>(count) : 0; }

double Run::percentileUs(double p) {
  if (latencyNs.empty()) return 0;
  std::size_t k = static_cast<std::size_t>(p * static_cast<double>(latencyNs.size() - 1));
  std::nth_element(latencyNs.begin(), latencyNs.begin() + static_cast<long>(k), latencyNs.end());
  return latencyNs[k] / 1e3;
}

Run pingPong(Server& server, const std::string& requests, long count, bool keepLatencies) {
  Run run;
  run.count = count;
  if (keepLatencies) run.latencyNs.reserve(static_cast<std::size_t>(count));
  std::string answer;
  int64_t cpu0 = cpuNs(server);
  int64_t start = nowNs();
  for (long i = 0; i < count; ++i) {
    const char* request = requestAt(requests, i);
    int64_t sent = nowNs();
    if (!send(server, request, kRequestFrameSize) || !receive(server, &answer)) {
      run.errors += count - i;
      break;
    }
    if (keepLatencies) run.latencyNs.push_back(static_cast<uint32_t>(nowNs() - sent));
    if (!answerMatches(answer, request)) ++run.errors;
  }
  run.ns = nowNs() - start;
  run.cpuNs = cpuNs(server) - cpu0;
  return run;
}

Run pipelined(Server& server, const std::string& requests, long count) {
  Run run;
  run.count = count;
  int64_t cpu0 = cpuNs(server);
  int64_t start = nowNs();
  std::thread writer([&] {
    for (long sent = 0; sent < count;) {
      long batch = std::min<long>(static_cast<long>(kWriteBatch), count - sent);
      if (!send(server, requestAt(requests, sent), static_cast<std::size_t>(batch) * kRequestFrameSize)) return;
      sent += batch;
    }
  });
  std::string answer;
  for (long received = 0; received < count; ++received) {
    if (!receive(server, &answer)) {
      run.errors += count - received;
      break;
    }
    if (!answerMatches(answer, requestAt(requests, received))) ++run.errors;
  }
  run.ns = nowNs() - start;
  writer.join();
  run.cpuNs = cpuNs(server) - cpu0;
  return run;
}

Run bulk(Server& server, const std::string& block, const std::string& requests, long count) {
  Run run;
  run.count = count;
  std::string answer;
  int64_t cpu0 = cpuNs(server);
  long long faults0 = procstats::minorFaults(server.pid());
  int64_t start = nowNs();
  for (long i = 0; i < count; ++i) {
    if (!send(server, block.data(), block.size())) {
      run.errors = count;
      return run;
    }
  }
  if (!send(server, requests.data(), kRequestFrameSize) || !receive(server, &answer) ||
      !answerMatches(answer, requests.data())) {
    ++run.errors;
  }
  run.ns = nowNs() - start;
  run.cpuNs = cpuNs(server) - cpu0;
  run.faults = procstats::minorFaults(server.pid()) - faults0;
  return run;
}

Idle idle(const Server& server, int seconds) {
  pid_t pid = server.pid();
  int64_t cpu0 = cpuNs(server);
  long long switches0 = procstats::contextSwitches(pid);
  int64_t start = nowNs();
  sleep(static_cast<unsigned>(seconds));
  double elapsed = static_cast<double>(nowNs() - start) / 1e9;
  Idle result;
  result.cpuMs = static_cast<double>(cpuNs(server) - cpu0) / 1e6;
  result.switchesPerSecond = static_cast<double>(procstats::contextSwitches(pid) - switches0) / elapsed;
  return result;
}
