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

std::string atLeast(double share, const std::string& of, double value, double baseline) {
  return "≥ " + fixed(share, 2) + "× " + of + verdict(value >= share * baseline);
}

// Measure, raw echo, logging echo, dravik, dravik / raw, dravik / logging,
// target.
using Row = std::vector<std::string>;

// A figure of the servers, a baseline left out when negative, with dravik's
// ratio to each baseline present; `decimals` -1 writes thousands.
Row compared(const std::string& measure, double raw, double logging, double daemon, int decimals,
             const std::string& target = "") {
  auto shown = [&](double v) { return v < 0 ? "" : decimals < 0 ? thousands(v) : fixed(v, decimals); };
  std::string vsRaw = raw < 0 ? "" : ratio(daemon, raw), vsLogging = logging < 0 ? "" : ratio(daemon, logging);
  return {measure, shown(raw), shown(logging), shown(daemon), vsRaw, vsLogging, target};
}

Row alone(const std::string& measure, const std::string& value, const std::string& target) {
  return {measure, "", "", value, "", "", target};
}

std::string markdown(const std::vector<Row>& rows) {
  std::string out = "| Measure | raw echo | logging echo | dravik | dravik / raw | dravik / logging | target |\n";
  out += "|---|---:|---:|---:|---:|---:|---|\n";
  for (const Row& row : rows) {
    for (const std::string& cell : row) out += "| " + cell + " ";
    out += "|\n";
  }
  return out;
}

std::string machine() {
  std::ifstream cpuinfo("/proc/cpuinfo");
  std::string line;
  while (std::getline(cpuinfo, line) && line.rfind("model name", 0) != 0) {
  }
  std::string model = line.rfind("model name", 0) == 0 ? line.substr(line.find(':') + 2) : "unknown";
  utsname u;
  uname(&u);
  return "nproc " + std::to_string(sysconf(_SC_NPROCESSORS_ONLN)) + ", " + model + ", Linux " + u.release + " " +
         u.machine;
}

std::string today() {
  time_t t = time(nullptr);
  tm utc;
  gmtime_r(&t, &utc);
  char text[64];
  strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", &utc);
  return text;
}

// Rate, latencies and server CPU of one ping-pong variant.
void addPingPongRows(std::vector<Row>& table, Run* runs, const std::string& label, bool isTarget) {
  double rate[3], p50[3], p99[3], cpu[3];
  for (int k = 0; k < 3; ++k) {
    rate[k] = runs[k].medianRoundRate();
    p50[k] = runs[k].percentileUs(0.50);
    p99[k] = runs[k].percentileUs(0.99);
    cpu[k] = runs[k].cpuUsPer();
  }
  table.push_back(compared(label + ": round trips/s", rate[0], rate[1], rate[2], -1,
                           isTarget ? atLeast(0.7, "logging", rate[2], rate[1]) : "information"));
  table.push_back(compared(label + ": p50 µs", p50[0], p50[1], p50[2], 1));
  table.push_back(compared(label + ": p99 µs", p99[0], p99[1], p99[2], 1));
  table.push_back(compared(label + ": server CPU µs per request", cpu[0], cpu[1], cpu[2], 2));
}

// The daemon's pinned ping-pong with the tap attached, beside the untapped
// daemon of the same rounds. No verdict: the camera exchanges a few
// messages an hour, so no rate of its peers asks for one.
void addTapRows(std::vector<Row>& table, Measurements& m, const std::string& label) {
  std::string measure = label + ", dravik tapped";
  if (!m.tapSkipped.empty()) {
    std::string why = m.tapSkipped;
    for (std::size_t at = 0; (at = why.find('|', at)) != std::string::npos; at += 2) why.insert(at, "\\");
    table.push_back(alone(measure + ": round trips/s", "not measured", "information: " + why));
    return;
  }
  double tapped = m.tapped.medianRoundRate(), untapped = m.pinned[2].medianRoundRate();
  table.push_back(alone(measure + " (`dravikctl monitor --pid`, same CPU): round trips/s", thousands(tapped),
                        ratio(tapped, untapped) + " untapped (information)"));
  table.push_back(alone(measure + ": p50 / p99 µs",
                        fixed(m.tapped.percentileUs(0.50), 1) + " / " + fixed(m.tapped.percentileUs(0.99), 1), ""));
  double perRequest = m.tapped.count > 0 ? static_cast<double>(m.tapped.count) : 1;
  table.push_back(alone(measure + ": CPU µs per request, daemon / tap",
                        fixed(m.tapped.cpuUsPer(), 2) + " / " + fixed(static_cast<double>(m.tapCpuNs) / 1e3 / perRequest, 2),
                        ""));
}

void addPipelinedRows(std::vector<Row>& table, const Run* runs) {
  double rate[3], cpu[3];
  for (int k = 0; k < 3; ++k) {
    rate[k] = runs[k].medianRoundRate();
    cpu[k] = runs[k].cpuUsPer();
  }
  table.push_back(compared("pipelined: messages/s", rate[0], rate[1], rate[2], -1,
                           atLeast(0.7, "logging", rate[2], rate[1])));
  table.push_back(compared("pipelined: server CPU µs per message", cpu[0], cpu[1], cpu[2], 2));
}

void addCalibrationRows(std::vector<Row>& table, const Run& sink, const Run& daemon, long cpu) {
  double raw = sink.medianRoundRate(), ours = daemon.medianRoundRate();
  table.push_back(compared("calibration pinned (CPU " + std::to_string(cpu) + "), 65,488-byte blocks: blocks/s", raw,
                           -1, ours, -1, atLeast(0.5, "raw", ours, raw)));
  table.push_back(compared("calibration: MB/s on the pipe", raw * kCalibrationFrameSize / 1e6, -1,
                           ours * kCalibrationFrameSize / 1e6, 0));
  table.push_back(compared("calibration: server CPU µs per block", sink.cpuUsPer(), -1, daemon.cpuUsPer(), 1));
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
    table.push_back(compared("user-space instructions per request (callgrind)", -1, echoIr, daemonIr, -1,
                             "≤ 1.50× logging" + verdict(daemonIr <= 1.5 * echoIr)));
  }
}

// The store against plain writes, and what the syncs of a block cost.
void addStoreRows(std::vector<Row>& table, const Measurements& m) {
  auto perSecond = [&](int64_t ns) { return ns > 0 ? static_cast<double>(m.storeOps) * 1e9 / static_cast<double>(ns) : 0; };
  double plain = perSecond(m.plainNs), store = perSecond(m.storeNs);
  table.push_back(compared("store on tmpfs, 65,488-byte blocks/s (raw: plain unlink+open+write+close)", plain, -1,
                           store, -1, atLeast(0.7, "plain", store, plain)));
  auto perBlockUs = [&](int64_t ns) { return m.storeOps > 0 ? static_cast<double>(ns) / 1000.0 / m.storeOps : 0; };
  table.push_back(alone("store on tmpfs: µs per block, plain / plain with fsync of file and directory / dravik",
                        fixed(perBlockUs(m.plainNs), 1) + " / " + fixed(perBlockUs(m.syncedNs), 1) + " / " +
                            fixed(perBlockUs(m.storeNs), 1),
                        "information"));
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
  std::string pinned = "ping-pong pinned (CPU " + std::to_string(o.cpu) + ")";
  addPingPongRows(table, m.pinned, pinned, true);
  addTapRows(table, m, pinned);
  addPingPongRows(table, m.loose, "ping-pong unpinned", false);
  addPipelinedRows(table, m.streamed);
  addCalibrationRows(table, m.blocks[0], m.blocks[1], o.cpu);
  addStoreRows(table, m);
  for (const auto& [label, idle] : {std::make_pair("writer connected", m.connected), std::make_pair("no writer", m.alone)}) {
    table.push_back(alone("idle " + std::to_string(o.idleSeconds) + " s, " + label + ": CPU ms / context switches per s",
                          fixed(idle.cpuMs, 1) + " / " + fixed(idle.switchesPerSecond, 2),
                          "< 1 switch/s, no CPU" + verdict(idle.switchesPerSecond < 1 && idle.cpuMs < 10)));
  }
  auto n = [](long value) { return thousands(static_cast<double>(value)); };
  table.push_back(alone("Private_Dirty KiB: after start / after " + n(kWarmMessages) + " messages / after " +
                            n(o.memoryMessages) + " more / at the end",
                        std::to_string(m.dirtyAtStart) + " / " + std::to_string(m.dirtyWarm) + " / " +
                            std::to_string(m.dirtyAfter) + " / " + std::to_string(m.dirtyAtEnd),
                        "≤ 512, flat" + verdict(m.dirtyAfter <= 512 && m.dirtyAfter <= m.dirtyWarm + 8)));
  std::vector<double> starts = m.startMs;
  std::sort(starts.begin(), starts.end());
  double median = starts[starts.size() / 2];
  table.push_back(alone("start: exec to mailbox open, ms (median / max of " + std::to_string(starts.size()) + ")",
                        fixed(median, 2) + " / " + fixed(starts.back(), 2), "≤ 10 ms" + verdict(median <= 10)));
  if (!o.callgrindResults.empty()) addCallgrindRow(table, o.callgrindResults);

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
  if (m.tapSkipped.empty()) {
    double added = m.tapped.percentileUs(0.50) - m.pinned[2].percentileUs(0.50);
    section << "\nThe tap (`dravikctl monitor --pid N`, started afresh in each pinned round with its printout to "
               "/dev/null, stopped with SIGINT, the daemon then found untraced and answering): the daemon's "
               "ping-pong at "
            << ratio(m.tapped.medianRoundRate(), m.pinned[2].medianRoundRate()) << " its untapped rate, "
            << fixed(added, 1) << " µs more per round trip at the median.\n";
  } else {
    section << "\nThe tap's cost was not measured: " << m.tapSkipped << "\n";
  }
  if (!o.microResults.empty()) {
    section << "\nMicro-benchmarks (`dravik_microbench`):\n\n```\n" << fileText(o.microResults) << "```\n";
  }
  return section.str();
}
