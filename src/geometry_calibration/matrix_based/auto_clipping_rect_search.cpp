// The coarse-to-fine maximum-sum rectangle search of automatic clipping.
#include "geometry_calibration/matrix_based/auto_clipping_rect_search.h"

#include <algorithm>
#include <cstdlib>
#include <atomic>
#include <iostream>
#include <memory>
#include <thread>
#include <vector>

#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>


namespace GeometryCalibration {
namespace MatrixBased {
namespace AutoClippingSearch {
namespace {

constexpr int kInvalid = -1;

// The three candidates (edge - s, edge, edge + s) of the upper-left edge of a
// pair (top or left). `opposite` is the bottom or right edge, `last` the last
// index of the map along that axis. A moved candidate is invalid when it
// leaves the map or reaches or crosses the opposite edge moved the other way.
// (Wide arithmetic: a start step may be as large as an int goes.)
void lowEdgeCandidates(long long edge, long long opposite, long long step, long long last, int out[3]) {
  const long long minus = edge - step;
  const long long plus = edge + step;
  out[0] = (minus < 0 || minus > last || minus >= opposite + step) ? kInvalid : int(minus);
  out[1] = int(edge);
  out[2] = (plus < 0 || plus > last || plus >= opposite - step) ? kInvalid : int(plus);
}

// The same for the lower-right edge of a pair (bottom or right); `opposite`
// is the top or left edge.
void highEdgeCandidates(long long edge, long long opposite, long long step, long long last, int out[3]) {
  const long long minus = edge - step;
  const long long plus = edge + step;
  out[0] = (minus < 0 || minus > last || minus <= opposite + step) ? kInvalid : int(minus);
  out[1] = int(edge);
  out[2] = (plus < 0 || plus > last || plus <= opposite - step) ? kInvalid : int(plus);
}

// The rectangle of four edges: the plain differences of inclusive indices.
cv::Rect rectOfEdges(int top, int bottom, int left, int right) {
  return cv::Rect(std::min(left, right), std::min(top, bottom), std::abs(right - left), std::abs(bottom - top));
}

bool integralTakes(int depth) {
  return depth == CV_8U || depth == CV_16U || depth == CV_16S || depth == CV_32F || depth == CV_64F;
}

// Four rows of the integral of a float map over columns [0, cols) of the
// pointers given: row k reads `r[k]` and writes `o[k]`; `above` is the
// integral's row over the first. Each element is the running sum of its row
// so far (added left to right in double, starting from `sums[k]`, the
// running sum left of these columns) plus the element above, which is
// cv::integral's rule; `sums` returns the running sums at the last column.
// The four rows advance together so that their running sums, each a chain
// of dependent additions, overlap. (A function of its own, so its pointers
// stay in registers.)
__attribute__((noinline)) void fourRows(const float* const r[4], const double* above, double* const o[4], int cols,
                                        double sums[4]) {
  const float *r0 = r[0], *r1 = r[1], *r2 = r[2], *r3 = r[3];
  double *o0 = o[0], *o1 = o[1], *o2 = o[2], *o3 = o[3];
  double s0 = sums[0], s1 = sums[1], s2 = sums[2], s3 = sums[3];
  for (int x = 0; x < cols; ++x) {
    s0 += r0[x];
    s1 += r1[x];
    s2 += r2[x];
    s3 += r3[x];
    const double v0 = above[x] + s0;
    const double v1 = v0 + s1;
    const double v2 = v1 + s2;
    o0[x] = v0;
    o1[x] = v1;
    o2[x] = v2;
    o3[x] = v2 + s3;
  }
  sums[0] = s0;
  sums[1] = s1;
  sums[2] = s2;
  sums[3] = s3;
}

// Columns [first, last) of the integral's rows 1 .. map.rows, the running
// sums left of `first` read from `left` (row by row; nullptr: the strip
// starts at column 0) and those at `last` - 1 handed on in `right` (nullptr:
// the last strip). A strip waits for the rows its left neighbour has done;
// `done` counts them per strip.
void integralStrip(const cv::Mat& map, cv::Mat& integral, int first, int last, const std::atomic<int>* leftDone,
                   const double* left, std::atomic<int>* ownDone, double* right) {
  const int cols = last - first;
  int y = 0;
  const auto waitFor = [leftDone](int rows) {
    if (leftDone == nullptr) return;
    while (leftDone->load(std::memory_order_acquire) < rows) std::this_thread::yield();
  };
  for (; y + 4 <= map.rows; y += 4) {
    const float* const r[4] = {map.ptr<float>(y) + first, map.ptr<float>(y + 1) + first,
                               map.ptr<float>(y + 2) + first, map.ptr<float>(y + 3) + first};
    double* const o[4] = {integral.ptr<double>(y + 1) + 1 + first, integral.ptr<double>(y + 2) + 1 + first,
                          integral.ptr<double>(y + 3) + 1 + first, integral.ptr<double>(y + 4) + 1 + first};
    if (first == 0)
      for (double* row : o) row[-1] = 0.0;
    waitFor(y + 4);
    double sums[4] = {0.0, 0.0, 0.0, 0.0};
    if (left != nullptr)
      for (int k = 0; k < 4; ++k) sums[k] = left[y + k];
    fourRows(r, integral.ptr<double>(y) + 1 + first, o, cols, sums);
    if (right != nullptr)
      for (int k = 0; k < 4; ++k) right[y + k] = sums[k];
    if (ownDone != nullptr) ownDone->store(y + 4, std::memory_order_release);
  }
  for (; y < map.rows; ++y) {
    const float* r = map.ptr<float>(y) + first;
    const double* above = integral.ptr<double>(y) + 1 + first;
    double* out = integral.ptr<double>(y + 1) + 1 + first;
    if (first == 0) out[-1] = 0.0;
    waitFor(y + 1);
    double s = left != nullptr ? left[y] : 0.0;
    for (int x = 0; x < cols; ++x) {
      s += r[x];
      out[x] = above[x] + s;
    }
    if (right != nullptr) right[y] = s;
    if (ownDone != nullptr) ownDone->store(y + 1, std::memory_order_release);
  }
}

// Maps smaller than this (elements) are summed on one thread: threads cost
// more than they save.
constexpr double kParallelElements = 1 << 20;
constexpr int kMostStrips = 4;

}  // namespace

void integralOf(const cv::Mat& map, cv::Mat& integral) {
  if (map.type() != CV_32FC1 || map.dims != 2) {
    cv::integral(map, integral, CV_64F);
    return;
  }
  integral.create(map.rows + 1, map.cols + 1, CV_64F);
  std::fill_n(integral.ptr<double>(0), integral.cols, 0.0);
  // Column strips, each on its own thread, a few rows behind its left
  // neighbour: every running sum continues from where the strip to its left
  // ended it, so every element is the same double as on one thread.
  const int threads = std::max(1, cv::getNumThreads());  // the host's share of the cores
  int strips = double(map.rows) * map.cols < kParallelElements ? 1 : std::min({threads, kMostStrips, map.cols / 64});
  strips = std::max(strips, 1);
  if (strips == 1) {
    integralStrip(map, integral, 0, map.cols, nullptr, nullptr, nullptr, nullptr);
    return;
  }
  std::vector<double> edges(std::size_t(map.rows) * std::size_t(strips - 1));
  std::unique_ptr<std::atomic<int>[]> done(new std::atomic<int>[std::size_t(strips)]);
  for (int k = 0; k < strips; ++k) done[std::size_t(k)].store(0);
  const auto run = [&](int k) {
    const int first = int(std::int64_t(map.cols) * k / strips), last = int(std::int64_t(map.cols) * (k + 1) / strips);
    integralStrip(map, integral, first, last, k == 0 ? nullptr : &done[std::size_t(k - 1)],
                  k == 0 ? nullptr : edges.data() + std::size_t(k - 1) * std::size_t(map.rows),
                  k == strips - 1 ? nullptr : &done[std::size_t(k)],
                  k == strips - 1 ? nullptr : edges.data() + std::size_t(k) * std::size_t(map.rows));
  };
  std::vector<std::thread> helpers;
  for (int k = 1; k < strips; ++k) helpers.emplace_back(run, k);
  run(0);
  for (auto& t : helpers) t.join();
}

Utils::Optional<cv::Rect> findMaxValueRect(const cv::Mat& mat, int minStep, int startStep, std::size_t maxIterations,
                                           cv::Mat& integral) {
  if (mat.empty() || minStep < 1 || startStep < minStep) {
    std::cout << "AutoClipping::findMaxValueRect::Input Error: "
              << "mat.empty() || minStep < 1 || startStep < minStep" << std::endl;
    return std::nullopt;
  }
  if (mat.channels() != 1 || mat.dims != 2) {
    std::cout << "AutoClipping::findMaxValueRect::Input Error: "
              << "the value map must be two-dimensional with one channel" << std::endl;
    return std::nullopt;
  }
  if (integralTakes(mat.depth())) {
    integralOf(mat, integral);
  } else {
    cv::Mat wide;
    mat.convertTo(wide, CV_64F);
    cv::integral(wide, integral, CV_64F);
  }

  const int lastRow = mat.rows - 1;
  const int lastCol = mat.cols - 1;
  int top = 0;
  int bottom = lastRow;
  int left = 0;
  int right = lastCol;
  int step = startStep;
  std::size_t iteration = 1;

  while (true) {
    int tops[3], bottoms[3], lefts[3], rights[3];
    lowEdgeCandidates(top, bottom, step, lastRow, tops);
    highEdgeCandidates(bottom, top, step, lastRow, bottoms);
    lowEdgeCandidates(left, right, step, lastCol, lefts);
    highEdgeCandidates(right, left, step, lastCol, rights);

    bool found = false;
    double bestSum = 0.0;
    int best[4] = {0, 0, 0, 0};
    for (int t : tops) {
      if (t == kInvalid) continue;
      for (int b : bottoms) {
        if (b == kInvalid) continue;
        for (int l : lefts) {
          if (l == kInvalid) continue;
          for (int r : rights) {
            if (r == kInvalid) continue;
            const double sum = rectangleSum(integral, rectOfEdges(t, b, l, r));
            if (!found || sum > bestSum) {
              found = true;
              bestSum = sum;
              best[0] = t;
              best[1] = b;
              best[2] = l;
              best[3] = r;
            }
          }
        }
      }
    }
    if (!found) return std::nullopt;

    if (best[0] == top && best[1] == bottom && best[2] == left && best[3] == right) {
      step /= 2;
      if (step < minStep) return rectOfEdges(top, bottom, left, right);
    } else {
      top = best[0];
      bottom = best[1];
      left = best[2];
      right = best[3];
    }

    ++iteration;
    if (iteration >= maxIterations) return std::nullopt;
  }
}

Utils::Optional<cv::Rect> findMaxValueRect(const cv::Mat& mat, int minStep, int startStep, std::size_t maxIterations) {
  cv::Mat integral;
  return findMaxValueRect(mat, minStep, startStep, maxIterations, integral);
}

}  // namespace AutoClippingSearch
}  // namespace MatrixBased
}  // namespace GeometryCalibration
