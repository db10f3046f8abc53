// The Laplacian statistics of the blur score; see laplacian_statistics.h.
#include "blur_detection/laplacian_statistics.h"

#include <algorithm>
#include <cmath>

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

// Sums of the Laplacian and its square over one row. Squares are summed in
// 32-bit chunks of 128 pixels (128 * 4080^2 < 2^31) and then widened, which
// keeps the inner loop in 32-bit lanes.
void rowSums(const std::uint8_t* up, const std::uint8_t* mid, const std::uint8_t* down, int cols,
             const std::uint8_t* keepColumn, std::int64_t& sum, std::int64_t& sumSquares) {
  if (cols < 3) {  // every pixel touches the border
    for (int x = 0; x < cols; ++x) {
      const std::int32_t lap =
          laplacianAt(up, mid, down, reflect101(x - 1, cols), x, reflect101(x + 1, cols)) * (keepColumn ? keepColumn[x] : 1);
      sum += lap;
      sumSquares += static_cast<std::int64_t>(lap) * lap;
    }
    return;
  }
  // The two border pixels, reflected.
  for (int x : {0, cols - 1}) {
    const std::int32_t lap =
        laplacianAt(up, mid, down, reflect101(x - 1, cols), x, reflect101(x + 1, cols)) * (keepColumn ? keepColumn[x] : 1);
    sum += lap;
    sumSquares += static_cast<std::int64_t>(lap) * lap;
  }
  constexpr int kChunk = 128;
  for (int start = 1; start < cols - 1; start += kChunk) {
    const int end = std::min(cols - 1, start + kChunk);
    std::int32_t s = 0;
    std::int32_t sq = 0;
    if (keepColumn == nullptr) {
      for (int x = start; x < end; ++x) {
        const std::int32_t lap = 2 * (up[x - 1] + up[x + 1] + down[x - 1] + down[x + 1]) - 8 * mid[x];
        s += lap;
        sq += lap * lap;
      }
    } else {
      for (int x = start; x < end; ++x) {
        const std::int32_t lap = (2 * (up[x - 1] + up[x + 1] + down[x - 1] + down[x + 1]) - 8 * mid[x]) * keepColumn[x];
        s += lap;
        sq += lap * lap;
      }
    }
    sum += s;
    sumSquares += sq;
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

LaplacianStatistics laplacianStatistics(const cv::Mat& grey, const std::vector<std::uint8_t>& keepRow,
                                        const std::vector<std::uint8_t>& keepColumn) {
  CV_Assert(grey.type() == CV_8UC1 && !grey.empty());
  const int rows = grey.rows;
  const int cols = grey.cols;
  const bool allColumns = std::all_of(keepColumn.begin(), keepColumn.end(), [](std::uint8_t k) { return k != 0; });
  std::int64_t keptColumns = 0;
  for (std::uint8_t k : keepColumn) keptColumns += k;

  std::int64_t sum = 0;
  std::int64_t sumSquares = 0;
  std::int64_t count = 0;
  for (int y = 0; y < rows; ++y) {
    if (!keepRow[static_cast<std::size_t>(y)]) continue;
    rowSums(grey.ptr<std::uint8_t>(reflect101(y - 1, rows)), grey.ptr<std::uint8_t>(y),
            grey.ptr<std::uint8_t>(reflect101(y + 1, rows)), cols, allColumns ? nullptr : keepColumn.data(), sum,
            sumSquares);
    count += keptColumns;
  }

  // The closing arithmetic of cv::meanStdDev, so the figure matches it bit for bit.
  LaplacianStatistics stats;
  stats.count = count;
  const double scale = count ? 1.0 / static_cast<double>(count) : 0.0;
  const double s = static_cast<double>(sum) * scale;
  const double sq = static_cast<double>(sumSquares) * scale;
  stats.mean = s;
  stats.stddev = std::sqrt(std::max(sq - s * s, 0.0));
  return stats;
}

}  // namespace BlurDetection
