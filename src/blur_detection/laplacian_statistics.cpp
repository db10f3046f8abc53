#include "blur_detection/laplacian_statistics.h"

#include <algorithm>
#include <cmath>

namespace BlurDetection {
namespace {

// OpenCV's fixed-point BGR to grey: (B*1868 + G*9617 + R*4899 + 2^13) >> 14.
void greyRow(const std::uint8_t* bgr, int cols, std::int16_t* out) {
  for (int x = 0; x < cols; ++x) {
    const int b = bgr[3 * x], g = bgr[3 * x + 1], r = bgr[3 * x + 2];
    out[x] = static_cast<std::int16_t>((b * 1868 + g * 9617 + r * 4899 + (1 << 13)) >> 14);
  }
}

// A grey row with one reflected pixel on each side (reflect-101).
void paddedGreyRow(const cv::Mat& bgr, int y, std::int16_t* padded) {
  const int cols = bgr.cols;
  greyRow(bgr.ptr<std::uint8_t>(y), cols, padded + 1);
  padded[0] = padded[cols > 1 ? 2 : 1];
  padded[cols + 1] = padded[cols > 1 ? cols - 1 : 1];
}

int reflect101(int i, int n) {
  if (n == 1) return 0;
  if (i < 0) return -i;
  if (i >= n) return 2 * n - 2 - i;
  return i;
}

// Sums of the Laplacian and its square over a row. Squares are summed in
// 32-bit chunks of 128 pixels (128 * 4080^2 < 2^31) and then widened.
void rowSums(const std::int16_t* up, const std::int16_t* mid, const std::int16_t* down, int cols,
             const std::uint8_t* keepColumn, std::int64_t& sum, std::int64_t& sumSquares) {
  constexpr int kChunk = 128;
  for (int start = 0; start < cols; start += kChunk) {
    const int end = std::min(cols, start + kChunk);
    std::int32_t s = 0;
    std::int32_t sq = 0;
    if (keepColumn == nullptr) {
      for (int x = start; x < end; ++x) {
        const std::int32_t lap = 2 * (up[x] + up[x + 2] + down[x] + down[x + 2]) - 8 * mid[x + 1];
        s += lap;
        sq += lap * lap;
      }
    } else {
      for (int x = start; x < end; ++x) {
        const std::int32_t lap = (2 * (up[x] + up[x + 2] + down[x] + down[x + 2]) - 8 * mid[x + 1]) * keepColumn[x];
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

LaplacianStatistics laplacianStatistics(const cv::Mat& bgr, const std::vector<std::uint8_t>& keepRow,
                                        const std::vector<std::uint8_t>& keepColumn) {
  CV_Assert(bgr.type() == CV_8UC3 && !bgr.empty());
  const int rows = bgr.rows;
  const int cols = bgr.cols;
  const bool allColumns = std::all_of(keepColumn.begin(), keepColumn.end(), [](std::uint8_t k) { return k != 0; });
  std::int64_t keptColumns = 0;
  for (std::uint8_t k : keepColumn) keptColumns += k;

  // Three padded grey rows, cycled: row y - 1, y and y + 1 (reflected at the edges).
  const std::size_t width = static_cast<std::size_t>(cols) + 2;
  std::vector<std::int16_t> buffer(3 * width);
  std::int16_t* lines[3] = {buffer.data(), buffer.data() + width, buffer.data() + 2 * width};
  int lineRow[3] = {-1, -1, -1};
  auto line = [&](int y) -> const std::int16_t* {
    const int r = reflect101(y, rows);
    for (int k = 0; k < 3; ++k) {
      if (lineRow[k] == r) return lines[k];
    }
    // Replace the line holding the row furthest from r.
    int victim = 0;
    for (int k = 1; k < 3; ++k) {
      if (lineRow[k] < lineRow[victim]) victim = k;
    }
    paddedGreyRow(bgr, r, lines[victim]);
    lineRow[victim] = r;
    return lines[victim];
  };

  std::int64_t sum = 0;
  std::int64_t sumSquares = 0;
  std::int64_t count = 0;
  for (int y = 0; y < rows; ++y) {
    if (!keepRow[static_cast<std::size_t>(y)]) continue;
    const std::int16_t* up = line(y - 1);
    const std::int16_t* mid = line(y);
    const std::int16_t* down = line(y + 1);
    rowSums(up, mid, down, cols, allColumns ? nullptr : keepColumn.data(), sum, sumSquares);
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
