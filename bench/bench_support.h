// Running a benchmark program whose benchmarks come in pairs (reference and
// ours) and printing the ratio of their medians; the options every such
// program takes, and its goals with their verdicts.
#pragma once

#include <cstdarg>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Bench {

// The options of a benchmark program:
//   --check  exit with 1 when a goal is missed;
//   --smoke  the least work that still runs the program end to end (Google
//            Benchmark's minimum time cut to 0.01 s; each program may also
//            cut its own work: fewer pictures, runs or windows). It checks
//            the correctness goals as --check does, but not the speed goals:
//            timings this short mean nothing, so they are printed and left
//            unjudged.
// plus the program's own flags, and Google Benchmark's --benchmark_* options.
struct Options {
  bool check = false;
  bool smoke = false;
  std::set<std::string> flags;  // the program's own flags that were given
  std::vector<std::string> positional;  // plain arguments (parsePlainOptions only)

  bool has(const std::string& flag) const { return flags.count(flag) > 0; }
};

// Reads the options and hands the --benchmark_* ones to Google Benchmark
// (under --smoke with --benchmark_min_time=0.01 first, so that one given
// later still wins). An unknown option prints a usage line and exits with 2.
// `ownFlags` are the program's own flags (e.g. "--no-full-grid").
Options parseOptions(int argc, char** argv, const std::vector<std::string>& ownFlags = {});

// The same options for a program that does not run Google Benchmark: --check,
// --smoke, its own flags and up to `maxPositional` plain arguments. Anything
// else prints "usage: PROGRAM [--check] [--smoke] <usage>" and exits with 2.
Options parsePlainOptions(int argc, char** argv, const std::string& usage, std::size_t maxPositional = 0,
                          const std::vector<std::string>& ownFlags = {});

// Runs every registered benchmark (each should ask for repetitions so that a
// median exists), prints Google Benchmark's table, then one line per pair:
//   "<label>: reference median X ms, ours Y ms, ratio X/Y = Zx"
// Returns the ratios by label. `pairs` holds (label, reference name, our name),
// names without the "/repeats" suffixes. parseOptions must have run.
struct Pair {
  std::string label;
  std::string reference;
  std::string ours;
};
std::map<std::string, double> runAndCompare(const Options& options, const std::vector<Pair>& pairs);

// The goals of one program. Each goal prints one line with what was measured
// and its verdict:
//   "goal <text>: met" or "goal <text>: MISSED"
// and a speed goal in a smoke run "goal <text>: not judged (smoke run)".
// A speed goal compares medians measured in the same process (a ratio),
// never absolute times.
class Goals {
 public:
  explicit Goals(const Options& options) : options_(options) {}

  // `text` is printf-formatted; returns `met`.
  bool correctness(bool met, const char* text, ...) __attribute__((format(printf, 3, 4)));
  bool speed(bool met, const char* text, ...) __attribute__((format(printf, 3, 4)));

  // Whether every judged goal was met.
  bool met() const { return missed_ == 0; }

  // Prints the summary line and returns the exit status: 1 when a judged
  // goal was missed under --check or --smoke, else 0.
  int finish() const;

 private:
  // Prints the goal's line and counts it; a speed goal in a smoke run is not judged.
  void judge(bool met, bool speed, const char* text, va_list arguments);

  Options options_;
  int judged_ = 0, missed_ = 0, unjudged_ = 0;
};

}  // namespace Bench
