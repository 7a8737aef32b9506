// The report of one sitting: a markdown table of every figure beside its
// baselines, the ratios and each target's verdict, then the sizes, the line
// counts and the micro-benchmarks' output. It replaces the generated
// section of docs/performance.md and leaves the rest of the file alone.
#ifndef DRAVIK_BENCH_REPORT_H_
#define DRAVIK_BENCH_REPORT_H_

#include <string>

#include "bench/benchmark.h"
#include "bench/options.h"

std::string report(const Options& options, Measurements& m);

// Replaces the generated section of `path` (appends one if it has none).
bool writeReport(const std::string& path, const std::string& section);

std::string fileText(const std::string& path);

#endif  // DRAVIK_BENCH_REPORT_H_
