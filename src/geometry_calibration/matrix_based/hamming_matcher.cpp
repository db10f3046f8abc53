// Cross-checked Hamming matching; see hamming_matcher.h.
#include "geometry_calibration/matrix_based/hamming_matcher.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>

#include <opencv2/features2d.hpp>

#include "utils/parallel.h"

namespace GeometryCalibration {
namespace MatrixBased {
namespace {

using Word = std::uint64_t;

// Query rows a block takes; each block keeps its own nearest query per
// train row, merged in block order afterwards, so the result does not
// depend on how many threads ran the blocks.
constexpr int kBlockRows = 512;
// Fewer descriptor pairs than this are matched on the calling thread.
constexpr double kParallelPairs = 2e6;

// The nearest rows found so far: for each query row its nearest train row
// and distance; for each train row, per block, the nearest query row packed
// as distance << 32 | row, so that the smaller packed value is the nearer
// row and, at equal distance, the lower one.
struct Nearest {
  std::vector<std::uint32_t> queryDistance;
  std::vector<int> queryTrain;
  std::vector<std::uint64_t> trainPacked;  // blocks x train rows
};

std::uint64_t packed(std::uint32_t distance, int row) { return std::uint64_t(distance) << 32 | std::uint32_t(row); }

// Words of each row of `descriptors`, one row after another.
std::vector<Word> wordsOf(const cv::Mat& descriptors) {
  const int words = descriptors.cols / int(sizeof(Word));
  std::vector<Word> out(std::size_t(descriptors.rows) * std::size_t(words));
  for (int r = 0; r < descriptors.rows; ++r)
    std::memcpy(out.data() + std::size_t(r) * std::size_t(words), descriptors.ptr(r), std::size_t(descriptors.cols));
  return out;
}

// What a search over query rows reads and writes.
struct Rows {
  const Word* query;
  const Word* train;
  int trainRows, words;
  std::uint32_t* queryDistance;  // per query row
  int* queryTrain;               // per query row
  std::uint64_t* trainPacked;    // per train row, this block's
};

template <int W>
inline __attribute__((always_inline)) std::uint32_t hamming(const Word* a, const Word* b, int words) {
  const int w = W > 0 ? W : words;
  std::uint32_t d = 0;
  for (int k = 0; k < w; ++k) d += std::uint32_t(__builtin_popcountll(a[k] ^ b[k]));
  return d;
}

// Query rows [begin, end) against every train row, four query rows at a
// time so that each train row is read once per four. W: words per row (0:
// `r.words`, for widths without their own instance).
template <int W>
inline __attribute__((always_inline)) void searchBody(const Rows& r, int begin, int end) {
  const std::size_t w = std::size_t(W > 0 ? W : r.words);
  int q = begin;
  for (; q + 4 <= end; q += 4) {
    const Word* a = r.query + std::size_t(q) * w;
    std::uint32_t best[4] = {~0u, ~0u, ~0u, ~0u};
    int bestRow[4] = {-1, -1, -1, -1};
    for (int t = 0; t < r.trainRows; ++t) {
      const Word* b = r.train + std::size_t(t) * w;
      std::uint64_t nearest = std::numeric_limits<std::uint64_t>::max();
      for (int i = 0; i < 4; ++i) {
        const std::uint32_t d = hamming<W>(a + std::size_t(i) * w, b, r.words);
        if (d < best[i]) best[i] = d, bestRow[i] = t;
        nearest = std::min(nearest, packed(d, q + i));
      }
      if (nearest < r.trainPacked[t]) r.trainPacked[t] = nearest;
    }
    for (int i = 0; i < 4; ++i) r.queryDistance[q + i] = best[i], r.queryTrain[q + i] = bestRow[i];
  }
  for (; q < end; ++q) {
    const Word* a = r.query + std::size_t(q) * w;
    std::uint32_t best = ~0u;
    int bestRow = -1;
    for (int t = 0; t < r.trainRows; ++t) {
      const std::uint32_t d = hamming<W>(a, r.train + std::size_t(t) * w, r.words);
      if (d < best) best = d, bestRow = t;
      r.trainPacked[t] = std::min(r.trainPacked[t], packed(d, q));
    }
    r.queryDistance[q] = best, r.queryTrain[q] = bestRow;
  }
}

template <int W>
void searchRows(const Rows& r, int begin, int end) {
  searchBody<W>(r, begin, end);
}

#if defined(__x86_64__)
// The same with the processor's population-count instruction.
template <int W>
__attribute__((target("popcnt"))) void searchRowsPopcnt(const Rows& r, int begin, int end) {
  searchBody<W>(r, begin, end);
}
#endif

using Search = void (*)(const Rows&, int, int);

template <int W>
Search searchFor() {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("popcnt")) return &searchRowsPopcnt<W>;
#endif
  return &searchRows<W>;
}

Search searchFor(int words) {
  switch (words) {
    case 4: return searchFor<4>();  // ORB: 32 bytes
    case 8: return searchFor<8>();  // BRISK: 64 bytes
    default: return searchFor<0>();
  }
}

}  // namespace

void crossCheckedHamming(const cv::Mat& query, const cv::Mat& train, std::vector<cv::DMatch>& matches) {
  matches.clear();
  if (query.empty() || train.empty()) return;
  if (query.type() != CV_8UC1 || train.type() != CV_8UC1 || query.cols != train.cols ||
      query.cols % int(sizeof(Word)) != 0) {
    cv::BFMatcher(cv::NORM_HAMMING, true).match(query, train, matches);
    return;
  }
  const int words = query.cols / int(sizeof(Word));
  const std::vector<Word> q = wordsOf(query), t = wordsOf(train);
  const int queryRows = query.rows, trainRows = train.rows;
  const int blocks = (queryRows + kBlockRows - 1) / kBlockRows;
  Nearest nearest;
  nearest.queryDistance.assign(std::size_t(queryRows), 0);
  nearest.queryTrain.assign(std::size_t(queryRows), -1);
  nearest.trainPacked.assign(std::size_t(blocks) * std::size_t(trainRows), std::numeric_limits<std::uint64_t>::max());
  const Search search = searchFor(words);
  auto runBlocks = [&](int from, int to) {
    for (int b = from; b < to; ++b) {
      const Rows rows{q.data(),
                      t.data(),
                      trainRows,
                      words,
                      nearest.queryDistance.data(),
                      nearest.queryTrain.data(),
                      nearest.trainPacked.data() + std::size_t(b) * std::size_t(trainRows)};
      search(rows, b * kBlockRows, std::min(queryRows, (b + 1) * kBlockRows));
    }
  };
  if (double(queryRows) * trainRows < kParallelPairs || blocks == 1) {
    runBlocks(0, blocks);
  } else {
    Utils::parallelRows(0, blocks, runBlocks);
  }
  // The nearest query row of each train row over all blocks.
  std::vector<std::uint64_t> trainNearest(nearest.trainPacked.begin(), nearest.trainPacked.begin() + trainRows);
  for (int b = 1; b < blocks; ++b) {
    const std::uint64_t* row = nearest.trainPacked.data() + std::size_t(b) * std::size_t(trainRows);
    for (int j = 0; j < trainRows; ++j) trainNearest[std::size_t(j)] = std::min(trainNearest[std::size_t(j)], row[j]);
  }
  for (int i = 0; i < queryRows; ++i) {
    const int j = nearest.queryTrain[std::size_t(i)];
    if (j < 0 || int(trainNearest[std::size_t(j)] & 0xffffffffu) != i) continue;
    matches.emplace_back(i, j, float(nearest.queryDistance[std::size_t(i)]));
  }
}

}  // namespace MatrixBased
}  // namespace GeometryCalibration
