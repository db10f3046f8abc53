#include "bench_support.h"

#include <unistd.h>

#include <cstdio>

#include <benchmark/benchmark.h>

namespace Bench {
namespace {

// Prints the usual table and keeps the median real time of each benchmark.
class MedianReporter : public benchmark::ConsoleReporter {
 public:
  MedianReporter() : ConsoleReporter(isatty(fileno(stdout)) ? OO_ColorTabular : OO_Tabular) {}

  std::map<std::string, double> medians;  // name -> nanoseconds

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.aggregate_name == "median") {
        const std::string args = run.run_name.args.empty() ? "" : "/" + run.run_name.args;
        medians[run.run_name.function_name + args] = run.GetAdjustedRealTime() * timeUnitToNanoseconds(run.time_unit);
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

 private:
  static double timeUnitToNanoseconds(benchmark::TimeUnit unit) {
    switch (unit) {
      case benchmark::kSecond:
        return 1e9;
      case benchmark::kMillisecond:
        return 1e6;
      case benchmark::kMicrosecond:
        return 1e3;
      case benchmark::kNanosecond:
        return 1.0;
    }
    return 1.0;
  }
};

}  // namespace

std::map<std::string, double> runAndCompare(int argc, char** argv, const std::vector<Pair>& pairs) {
  benchmark::Initialize(&argc, argv);
  MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::map<std::string, double> ratios;
  for (const Pair& pair : pairs) {
    const auto r = reporter.medians.find(pair.reference);
    const auto o = reporter.medians.find(pair.ours);
    if (r == reporter.medians.end() || o == reporter.medians.end() || o->second <= 0) continue;
    const double ratio = r->second / o->second;
    ratios[pair.label] = ratio;
    std::printf("%s: reference median %.3f ms, ours %.3f ms, ratio %.1fx\n", pair.label.c_str(), r->second / 1e6,
                o->second / 1e6, ratio);
  }
  std::fflush(stdout);
  return ratios;
}

}  // namespace Bench
