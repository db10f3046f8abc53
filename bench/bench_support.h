// Running a benchmark program whose benchmarks come in pairs (reference and
// ours) and printing the ratio of their medians.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Bench {

// Runs every registered benchmark (each should ask for repetitions so that a
// median exists), prints Google Benchmark's table, then one line per pair:
//   "<label>: reference median X ms, ours Y ms, ratio X/Y = Zx"
// Returns the ratios by label. `pairs` holds (label, reference name, our name),
// names without the "/repeats" suffixes.
struct Pair {
  std::string label;
  std::string reference;
  std::string ours;
};
std::map<std::string, double> runAndCompare(int argc, char** argv, const std::vector<Pair>& pairs);

}  // namespace Bench
