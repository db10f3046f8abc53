// The library's parallel loops: every item once, and no more threads than
// the host allows (cv::setNumThreads, which Python's set_num_threads and
// cluster workers use to take their share of the cores).
#include "utils/parallel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include <opencv2/core/utility.hpp>

namespace {

// Threads seen running `count` items (each item busy for a moment, so that
// a loop allowed two threads uses them).
std::size_t threadsUsed(std::size_t count, int threads, std::vector<int>& visits) {
  std::mutex mutex;
  std::set<std::thread::id> seen;
  visits.assign(count, 0);
  Utils::parallelItems(count, 1, threads, [&](std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
      std::lock_guard<std::mutex> lock(mutex);
      ++visits[i];
      seen.insert(std::this_thread::get_id());
    }
  });
  return seen.size();
}

TEST(ParallelItems, EveryItemOnceWithinTheHostsThreadLimit) {
  const int before = cv::getNumThreads();
  std::vector<int> visits;
  cv::setNumThreads(1);
  EXPECT_EQ(threadsUsed(200, 0, visits), 1u) << "the host's limit of one thread";
  EXPECT_EQ(std::count(visits.begin(), visits.end(), 1), 200);
  cv::setNumThreads(before);
  // An explicit count wins over the host's setting.
  EXPECT_EQ(threadsUsed(200, 1, visits), 1u);
  EXPECT_EQ(std::count(visits.begin(), visits.end(), 1), 200);
  EXPECT_LE(threadsUsed(200, 2, visits), 2u);
  EXPECT_EQ(std::count(visits.begin(), visits.end(), 1), 200);
  EXPECT_EQ(threadsUsed(0, 0, visits), 0u);
}

TEST(ParallelRows, CoversTheRangeOnce) {
  std::vector<std::atomic<int>> rows(97);
  Utils::parallelRows(3, 97, [&](int first, int last) {
    for (int r = first; r < last; ++r) rows[std::size_t(r)].fetch_add(1);
  });
  for (int r = 0; r < 97; ++r) EXPECT_EQ(rows[std::size_t(r)].load(), r < 3 ? 0 : 1) << r;
}

}  // namespace
