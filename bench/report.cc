#include "bench/report.h"

#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>
#include <vector>

#include "bench/frames.h"

namespace {

constexpr const char* kBegin = "<!-- dravik_bench: generated, do not edit by hand -->";
constexpr const char* kEnd = "<!-- dravik_bench: end -->";

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

std::string verdict(bool met) { return met ? " (met)" : " (missed)"; }

struct Row {
  std::string measure, raw, logging, daemon, vsRaw, vsLogging, target;
};

std::string markdown(const std::vector<Row>& rows) {
  std::ostringstream out;
  out << "| Measure | raw echo | logging echo | dravik | dravik / raw | dravik / logging | target |\n";
  out << "|---|---:|---:|---:|---:|---:|---|\n";
  for (const Row& r : rows) {
    out << "| " << r.measure << " | " << r.raw << " | " << r.logging << " | " << r.daemon << " | " << r.vsRaw << " | "
        << r.vsLogging << " | " << r.target << " |\n";
  }
  return out.str();
}

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

// Rate, latencies and server CPU of one ping-pong variant, for the three
// servers.
void addPingPongRows(std::vector<Row>& table, Run* runs, const std::string& label, bool isTarget) {
  double rate[3], p50[3], p99[3], cpu[3];
  for (int k = 0; k < 3; ++k) {
    rate[k] = runs[k].medianRoundRate();
    p50[k] = runs[k].percentileUs(0.50);
    p99[k] = runs[k].percentileUs(0.99);
    cpu[k] = runs[k].cpuUsPer();
  }
  std::string target = isTarget ? "≥ 0.70× logging" + verdict(rate[2] >= 0.7 * rate[1]) : "information";
  table.push_back({label + ": round trips/s", thousands(rate[0]), thousands(rate[1]), thousands(rate[2]),
                   ratio(rate[2], rate[0]), ratio(rate[2], rate[1]), target});
  table.push_back({label + ": p50 µs", fixed(p50[0], 1), fixed(p50[1], 1), fixed(p50[2], 1), ratio(p50[2], p50[0]),
                   ratio(p50[2], p50[1]), ""});
  table.push_back({label + ": p99 µs", fixed(p99[0], 1), fixed(p99[1], 1), fixed(p99[2], 1), ratio(p99[2], p99[0]),
                   ratio(p99[2], p99[1]), ""});
  table.push_back({label + ": server CPU µs per request", fixed(cpu[0], 2), fixed(cpu[1], 2), fixed(cpu[2], 2),
                   ratio(cpu[2], cpu[0]), ratio(cpu[2], cpu[1]), ""});
}

void addPipelinedRows(std::vector<Row>& table, const Run* runs) {
  double rate[3], cpu[3];
  for (int k = 0; k < 3; ++k) {
    rate[k] = runs[k].medianRoundRate();
    cpu[k] = runs[k].cpuUsPer();
  }
  table.push_back({"pipelined: messages/s", thousands(rate[0]), thousands(rate[1]), thousands(rate[2]),
                   ratio(rate[2], rate[0]), ratio(rate[2], rate[1]),
                   "≥ 0.70× logging" + verdict(rate[2] >= 0.7 * rate[1])});
  table.push_back({"pipelined: server CPU µs per message", fixed(cpu[0], 2), fixed(cpu[1], 2), fixed(cpu[2], 2),
                   ratio(cpu[2], cpu[0]), ratio(cpu[2], cpu[1]), ""});
}

void addCalibrationRows(std::vector<Row>& table, const Run& sink, const Run& daemon) {
  double raw = sink.medianRoundRate(), ours = daemon.medianRoundRate();
  table.push_back({"calibration, 65,488-byte blocks: blocks/s", thousands(raw), "", thousands(ours), ratio(ours, raw),
                   "", "≥ 0.50× raw" + verdict(ours >= 0.5 * raw)});
  table.push_back({"calibration: MB/s on the pipe", fixed(raw * kCalibrationFrameSize / 1e6, 0), "",
                   fixed(ours * kCalibrationFrameSize / 1e6, 0), ratio(ours, raw), "", ""});
  table.push_back({"calibration: server CPU µs per block", fixed(sink.cpuUsPer(), 1), "", fixed(daemon.cpuUsPer(), 1),
                   ratio(daemon.cpuUsPer(), sink.cpuUsPer()), "", ""});
  table.push_back({"calibration: server minor page faults per block", fixed(sink.faultsPer(), 1), "",
                   fixed(daemon.faultsPer(), 1), "", "", "information"});
}

// "daemon N" and "echo N" lines of bench/callgrind.sh.
void addCallgrindRow(std::vector<Row>& table, const std::string& results) {
  double daemonIr = 0, echoIr = 0;
  std::istringstream lines(fileText(results));
  for (std::string key; lines >> key;) {
    double value = 0;
    lines >> value;
    if (key == "daemon") daemonIr = value;
    if (key == "echo") echoIr = value;
  }
  if (daemonIr > 0 && echoIr > 0) {
    table.push_back({"user-space instructions per request (callgrind)", "", thousands(echoIr), thousands(daemonIr), "",
                     ratio(daemonIr, echoIr), "≤ 1.50× logging" + verdict(daemonIr <= 1.5 * echoIr)});
  }
}

}  // namespace

std::string fileText(const std::string& path) {
  std::ifstream in(path);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

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

std::string report(const Options& o, Measurements& m) {
  std::vector<Row> table;
  addPingPongRows(table, m.pinned, "ping-pong pinned (CPU " + std::to_string(o.cpu) + ")", true);
  addPingPongRows(table, m.loose, "ping-pong unpinned", false);
  addPipelinedRows(table, m.streamed);
  addCalibrationRows(table, m.blocks[0], m.blocks[1]);

  double plain = m.plainNs > 0 ? static_cast<double>(m.storeOps) * 1e9 / static_cast<double>(m.plainNs) : 0;
  double store = m.storeNs > 0 ? static_cast<double>(m.storeOps) * 1e9 / static_cast<double>(m.storeNs) : 0;
  table.push_back({"store on tmpfs, 65,488-byte blocks/s (raw: plain unlink+open+write+close)", thousands(plain), "",
                   thousands(store), ratio(store, plain), "", "≥ 0.70× plain" + verdict(store >= 0.7 * plain)});

  std::string seconds = std::to_string(o.idleSeconds);
  for (const auto& [label, idle] : {std::pair<std::string, Idle>{"writer connected", m.connected},
                                    std::pair<std::string, Idle>{"no writer", m.alone}}) {
    table.push_back({"idle " + seconds + " s, " + label + ": CPU ms / context switches per s", "", "",
                     fixed(idle.cpuMs, 1) + " / " + fixed(idle.switchesPerSecond, 2), "", "",
                     "< 1 switch/s, no CPU" + verdict(idle.switchesPerSecond < 1 && idle.cpuMs < 10)});
  }
  table.push_back({"Private_Dirty KiB: after start / after " + thousands(static_cast<double>(kWarmMessages)) +
                       " messages / after " + thousands(static_cast<double>(o.memoryMessages)) + " more / at the end",
                   "", "",
                   std::to_string(m.dirtyAtStart) + " / " + std::to_string(m.dirtyWarm) + " / " +
                       std::to_string(m.dirtyAfter) + " / " + std::to_string(m.dirtyAtEnd),
                   "", "", "≤ 512, flat" + verdict(m.dirtyAfter <= 512 && m.dirtyAfter <= m.dirtyWarm + 8)});

  std::vector<double> starts = m.startMs;
  std::sort(starts.begin(), starts.end());
  double median = starts[starts.size() / 2];
  table.push_back({"start: exec to mailbox open, ms (median / max of " + std::to_string(starts.size()) + ")", "", "",
                   fixed(median, 2) + " / " + fixed(starts.back(), 2), "", "", "≤ 10 ms" + verdict(median <= 10)});
  if (!o.callgrindResults.empty()) addCallgrindRow(table, o.callgrindResults);

  auto n = [](long value) { return thousands(static_cast<double>(value)); };
  std::ostringstream section;
  section << "Machine: " << machine() << ". Date: " << today() << ".\n\n";
  section << "Command: `" << o.command << "`\n\n";
  section << "Sizes: ping-pong " << n(o.pingPong) << " pinned and " << n(o.unpinned)
          << " unpinned round trips, pipelined " << n(o.pipelined) << " messages, " << n(o.calibration)
          << " calibration blocks and " << n(m.storeOps) << " store writes per server, in " << o.rounds
          << " alternating rounds (rates: the median round; latencies and CPU: all rounds); idle " << o.idleSeconds
          << " s each.\n\n";
  section << markdown(table) << "\n";
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
