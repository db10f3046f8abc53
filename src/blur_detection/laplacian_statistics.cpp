// The Laplacian statistics of the blur score; see laplacian_statistics.h.
#include "blur_detection/laplacian_statistics.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include <opencv2/core/hal/intrin.hpp>
#include <opencv2/imgproc.hpp>

#include "utils/parallel.h"

namespace BlurDetection {
namespace {

int reflect101(int i, int n) {
  if (n == 1) return 0;
  if (i < 0) return -i;
  if (i >= n) return 2 * n - 2 - i;
  return i;
}

inline std::int32_t laplacianAt(const std::uint8_t* up, const std::uint8_t* mid, const std::uint8_t* down, int left,
                                int x, int right) {
  return 2 * (up[left] + up[right] + down[left] + down[right]) - 8 * mid[x];
}

// Adds one pixel's Laplacian (reflect-101 at the row's ends) and its square.
void addPixel(const std::uint8_t* up, const std::uint8_t* mid, const std::uint8_t* down, int x, int cols,
              std::int64_t& sum, std::int64_t& sumSquares) {
  const std::int32_t lap = laplacianAt(up, mid, down, reflect101(x - 1, cols), x, reflect101(x + 1, cols));
  sum += lap;
  sumSquares += static_cast<std::int64_t>(lap) * lap;
}

// Sums of the Laplacian and its square over the pixels [from, to) of one
// row, away from its ends (1 <= from, to <= cols - 1). A Laplacian lies in
// -2040 .. 2040, so eight of them fit 16-bit lanes and their squares are
// summed in pairs into 32-bit lanes (pmaddwd); a chunk of 256 pixels puts
// at most 66 squares into a lane, so even the four lanes' total stays below
// 2^31 (264 * 2040^2) before it is widened.
void interiorSums(const std::uint8_t* up, const std::uint8_t* mid, const std::uint8_t* down, int from, int to,
                  std::int64_t& sum, std::int64_t& sumSquares) {
  int x = from;
#if CV_SIMD128
  constexpr int kLanes = 8, kChunk = 256;  // pixels per widening
  const cv::v_int16x8 ones = cv::v_setall_s16(1);
  while (x + kLanes <= to) {
    const int end = std::min(to - kLanes, x + kChunk);
    cv::v_int32x4 s = cv::v_setzero_s32(), sq = cv::v_setzero_s32();
    for (; x <= end; x += kLanes) {
      const cv::v_uint16x8 corners = cv::v_load_expand(up + x - 1) + cv::v_load_expand(up + x + 1) +
                                     cv::v_load_expand(down + x - 1) + cv::v_load_expand(down + x + 1);
      const cv::v_int16x8 lap =
          cv::v_reinterpret_as_s16(corners << 1) - cv::v_reinterpret_as_s16(cv::v_load_expand(mid + x) << 3);
      s += cv::v_dotprod(lap, ones);
      sq += cv::v_dotprod(lap, lap);
    }
    sum += cv::v_reduce_sum(s);
    sumSquares += cv::v_reduce_sum(sq);
  }
#endif
  for (; x < to; ++x) {
    const std::int32_t lap = 2 * (up[x - 1] + up[x + 1] + down[x - 1] + down[x + 1]) - 8 * mid[x];
    sum += lap;
    sumSquares += static_cast<std::int64_t>(lap) * lap;
  }
}

}  // namespace

void bandMasks(int rows, int cols, Image::Turn turn, std::vector<std::uint8_t>& keepRow,
               std::vector<std::uint8_t>& keepColumn) {
  keepRow.assign(static_cast<std::size_t>(rows), 1);
  keepColumn.assign(static_cast<std::size_t>(cols), 1);
  const bool quarter = turn == Image::Turn::kQuarterClockwise || turn == Image::Turn::kQuarterCounterClockwise;
  const int turnedRows = quarter ? cols : rows;
  const float n = static_cast<float>(turnedRows);
  for (int i = 0; i < turnedRows; ++i) {
    const float fi = static_cast<float>(i);
    const bool out = (0.66f * n < fi && fi < 0.68f * n) || (0.49f * n < fi && fi < 0.51f * n);
    if (!out) continue;
    switch (turn) {
      case Image::Turn::kKeep:
        keepRow[static_cast<std::size_t>(i)] = 0;
        break;
      case Image::Turn::kHalf:
        keepRow[static_cast<std::size_t>(rows - 1 - i)] = 0;
        break;
      case Image::Turn::kQuarterClockwise:  // turned row r is column r
        keepColumn[static_cast<std::size_t>(i)] = 0;
        break;
      case Image::Turn::kQuarterCounterClockwise:  // turned row r is column cols - 1 - r
        keepColumn[static_cast<std::size_t>(cols - 1 - i)] = 0;
        break;
      case Image::Turn::kNone:
        break;
    }
  }
}

namespace {

// Sums of the kept Laplacians of rows [first, last); `row(y)` gives grey row
// y of the picture (only rows first - 1 .. last are asked for, reflected at
// the picture's border), `spans` the runs [begin, end) of kept columns.
template <typename RowOf>
void stripeSums(const RowOf& row, int first, int last, int rows, int cols, const std::vector<std::uint8_t>& keepRow,
                const std::vector<std::pair<int, int>>& spans, std::int64_t& sum, std::int64_t& sumSquares) {
  std::int64_t s = 0, sq = 0;  // locals: the caller's totals may alias anything
  for (int y = first; y < last; ++y) {
    if (!keepRow[static_cast<std::size_t>(y)]) continue;
    const std::uint8_t* up = row(reflect101(y - 1, rows));
    const std::uint8_t* mid = row(y);
    const std::uint8_t* down = row(reflect101(y + 1, rows));
    for (const auto& [begin, end] : spans) {
      // The row's two end pixels are reflected; the rest is interior.
      const int from = std::max(begin, 1), to = std::min(end, cols - 1);
      if (begin == 0) addPixel(up, mid, down, 0, cols, s, sq);
      if (from < to) interiorSums(up, mid, down, from, to, s, sq);
      if (end == cols && cols > 1) addPixel(up, mid, down, cols - 1, cols, s, sq);
    }
  }
  sum += s;
  sumSquares += sq;
}

// The closing arithmetic of cv::meanStdDev, so the figure matches it bit for bit.
LaplacianStatistics closing(std::int64_t sum, std::int64_t sumSquares, std::int64_t count) {
  LaplacianStatistics stats;
  stats.count = count;
  const double scale = count ? 1.0 / static_cast<double>(count) : 0.0;
  const double s = static_cast<double>(sum) * scale;
  const double sq = static_cast<double>(sumSquares) * scale;
  stats.mean = s;
  stats.stddev = std::sqrt(std::max(sq - s * s, 0.0));
  return stats;
}

// The runs [begin, end) of kept columns.
std::vector<std::pair<int, int>> keptSpans(const std::vector<std::uint8_t>& keep) {
  std::vector<std::pair<int, int>> spans;
  const int n = static_cast<int>(keep.size());
  for (int x = 0; x < n;) {
    if (!keep[std::size_t(x)]) {
      ++x;
      continue;
    }
    const int begin = x;
    while (x < n && keep[std::size_t(x)]) ++x;
    spans.emplace_back(begin, x);
  }
  return spans;
}

std::int64_t keptCount(const std::vector<std::uint8_t>& keepRow, const std::vector<std::pair<int, int>>& spans) {
  std::int64_t rows = 0, columns = 0;
  for (const std::uint8_t k : keepRow) rows += k;
  for (const auto& [begin, end] : spans) columns += end - begin;
  return rows * columns;
}

}  // namespace

LaplacianStatistics bgrLaplacianStatistics(const cv::Mat& bgr, const std::vector<std::uint8_t>& keepRow,
                                           const std::vector<std::uint8_t>& keepColumn) {
  CV_Assert(bgr.type() == CV_8UC3 && !bgr.empty());
  const int rows = bgr.rows, cols = bgr.cols;
  const std::vector<std::pair<int, int>> spans = keptSpans(keepColumn);
  // Stripes of rows whose grey version (with one row of margin on each
  // side) stays in the cache between conversion and sums.
  constexpr int kStripeRows = 32;
  const int stripes = (rows + kStripeRows - 1) / kStripeRows;
  std::vector<std::int64_t> sums(static_cast<std::size_t>(stripes)), squares(static_cast<std::size_t>(stripes));
  Utils::parallelRows(0, stripes, [&](int firstStripe, int lastStripe) {
    cv::Mat grey;
    for (int k = firstStripe; k < lastStripe; ++k) {
      const int first = k * kStripeRows, last = std::min(rows, first + kStripeRows);
      const int from = std::max(0, first - 1), to = std::min(rows, last + 1);
      cv::cvtColor(bgr.rowRange(from, to), grey, cv::COLOR_BGR2GRAY);
      // Rows outside [from, to) are only asked for as reflections, which
      // land inside it.
      const auto row = [&grey, from](int y) { return grey.ptr<std::uint8_t>(y - from); };
      stripeSums(row, first, last, rows, cols, keepRow, spans, sums[std::size_t(k)], squares[std::size_t(k)]);
    }
  });
  std::int64_t sum = 0, sumSquares = 0;
  for (int k = 0; k < stripes; ++k) {
    sum += sums[std::size_t(k)];
    sumSquares += squares[std::size_t(k)];
  }
  return closing(sum, sumSquares, keptCount(keepRow, spans));
}

}  // namespace BlurDetection
