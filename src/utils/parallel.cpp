// Parallel loops; see parallel.h.
#include "utils/parallel.h"

#include <algorithm>
#include <thread>
#include <vector>

#include <opencv2/core/utility.hpp>
#ifndef ORBIVANE_TSAN
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>
#endif

namespace Utils {
namespace {

#ifdef ORBIVANE_TSAN
// Splits [0, count) into `parts` pieces, each on its own std::thread.
void onThreads(std::size_t count, std::size_t parts, const std::function<void(std::size_t, std::size_t)>& body) {
  parts = std::max<std::size_t>(1, std::min(parts, count));
  std::vector<std::thread> workers;
  for (std::size_t p = 0; p < parts; ++p) {
    const std::size_t begin = count * p / parts, end = count * (p + 1) / parts;
    workers.emplace_back([&body, begin, end] { body(begin, end); });
  }
  for (auto& worker : workers) worker.join();
}

// As many threads as OpenCV's loops may use (cv::setNumThreads).
std::size_t hostThreads() { return std::size_t(std::max(1, cv::getNumThreads())); }
#endif

}  // namespace

void parallelRows(int begin, int end, const std::function<void(int, int)>& body) {
  if (end <= begin) return;
#ifdef ORBIVANE_TSAN
  onThreads(std::size_t(end - begin), hostThreads(),
            [&](std::size_t from, std::size_t to) { body(begin + int(from), begin + int(to)); });
#else
  cv::parallel_for_(cv::Range(begin, end), [&body](const cv::Range& range) { body(range.start, range.end); });
#endif
}

void parallelItems(std::size_t count, std::size_t grain, int threads,
                   const std::function<void(std::size_t, std::size_t)>& body) {
  if (count == 0) return;
#ifdef ORBIVANE_TSAN
  const std::size_t parts = threads > 0 ? std::size_t(threads) : hostThreads();
  onThreads(count, std::min(parts, (count + grain - 1) / std::max<std::size_t>(1, grain)), body);
#else
  tbb::task_arena arena(threads > 0 ? threads : std::max(1, cv::getNumThreads()));
  arena.execute([&] {
    tbb::parallel_for(tbb::blocked_range<std::size_t>(0, count, std::max<std::size_t>(1, grain)),
                      [&body](const tbb::blocked_range<std::size_t>& range) { body(range.begin(), range.end()); });
  });
#endif
}

}  // namespace Utils
