// Running paired benchmarks and judging their goals; see bench_support.h.
#include "bench_support.h"

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include <benchmark/benchmark.h>

namespace Bench {
namespace {

bool initialised = false;

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

void usage(const char* program, const std::vector<std::string>& ownFlags) {
  std::fprintf(stderr, "usage: %s [--check] [--smoke]", program);
  for (const std::string& flag : ownFlags) std::fprintf(stderr, " [%s]", flag.c_str());
  std::fprintf(stderr, " [--benchmark_...]\n");
}

// --check, --smoke and the program's own flags, which every benchmark takes.
bool takeShared(const std::string& arg, const std::vector<std::string>& ownFlags, Options& options) {
  if (arg == "--check") {
    options.check = true;
  } else if (arg == "--smoke") {
    options.smoke = true;
  } else if (std::find(ownFlags.begin(), ownFlags.end(), arg) != ownFlags.end()) {
    options.flags.insert(arg);
  } else {
    return false;
  }
  return true;
}

}  // namespace

Options parseOptions(int argc, char** argv, const std::vector<std::string>& ownFlags) {
  Options options;
  std::vector<std::string> forBenchmark;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (takeShared(arg, ownFlags, options)) continue;
    if (arg.rfind("--benchmark_", 0) == 0 || arg.rfind("--v=", 0) == 0) {
      forBenchmark.push_back(arg);
    } else if (arg == "--help" || arg == "-h") {
      usage(argv[0], ownFlags);
      forBenchmark.push_back("--help");
    } else {
      std::fprintf(stderr, "%s: unknown option '%s'\n", argv[0], arg.c_str());
      usage(argv[0], ownFlags);
      std::exit(2);
    }
  }
  if (options.smoke) forBenchmark.insert(forBenchmark.begin(), "--benchmark_min_time=0.01");

  // Google Benchmark keeps the program's name for its report: these outlive the call.
  static std::vector<std::string> storage;
  static std::vector<char*> arguments;
  storage = {argv[0]};
  storage.insert(storage.end(), forBenchmark.begin(), forBenchmark.end());
  arguments.clear();
  for (std::string& s : storage) arguments.push_back(s.data());
  arguments.push_back(nullptr);
  int count = static_cast<int>(storage.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) std::exit(2);
  initialised = true;
  return options;
}

Options parsePlainOptions(int argc, char** argv, const std::string& usage, std::size_t maxPositional,
                          const std::vector<std::string>& ownFlags) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (takeShared(arg, ownFlags, options)) continue;
    if (arg.rfind("-", 0) != 0 && options.positional.size() < maxPositional) {
      options.positional.push_back(arg);
    } else {
      std::fprintf(stderr, "usage: %s [--check] [--smoke] %s\n", argv[0], usage.c_str());
      std::exit(2);
    }
  }
  return options;
}

std::map<std::string, double> runAndCompare(const Options&, const std::vector<Pair>& pairs) {
  if (!initialised) {
    std::fprintf(stderr, "Bench::runAndCompare needs Bench::parseOptions first\n");
    std::exit(2);
  }
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

bool Goals::correctness(bool met, const char* text, ...) {
  va_list arguments;
  va_start(arguments, text);
  judge(met, false, text, arguments);
  va_end(arguments);
  return met;
}

bool Goals::speed(bool met, const char* text, ...) {
  va_list arguments;
  va_start(arguments, text);
  judge(met, true, text, arguments);
  va_end(arguments);
  return met;
}

void Goals::judge(bool met, bool speed, const char* text, va_list arguments) {
  std::printf("goal ");
  std::vprintf(text, arguments);
  if (speed && options_.smoke) {
    std::printf(": not judged (smoke run)\n");
    ++unjudged_;
  } else {
    std::printf(": %s\n", met ? "met" : "MISSED");
    ++judged_;
    if (!met) ++missed_;
  }
  std::fflush(stdout);
}

int Goals::finish() const {
  std::printf("%s (%d of %d goals met", missed_ == 0 ? "goals met" : "GOAL MISSED", judged_ - missed_, judged_);
  if (unjudged_ > 0) std::printf(", %d speed goal%s not judged in a smoke run", unjudged_, unjudged_ == 1 ? "" : "s");
  std::printf(")\n");
  std::fflush(stdout);
  return (options_.check || options_.smoke) && missed_ > 0 ? 1 : 0;
}

}  // namespace Bench
