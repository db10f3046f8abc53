// The coarse-to-fine maximum-sum rectangle search of automatic clipping.
#include "geometry_calibration/matrix_based/auto_clipping_rect_search.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>

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

// Four rows of the integral of a float map: row k reads `r[k]` and writes
// `o[k]`; `above` is the integral's row over the first. Each element is the
// running sum of its row so far (added left to right in double) plus the
// element above, which is cv::integral's rule; the four rows advance
// together so that their running sums, each a chain of dependent additions,
// overlap. (A function of its own, so its pointers stay in registers.)
__attribute__((noinline)) void fourRows(const float* const r[4], const double* above, double* const o[4], int cols) {
  const float *r0 = r[0], *r1 = r[1], *r2 = r[2], *r3 = r[3];
  double *o0 = o[0], *o1 = o[1], *o2 = o[2], *o3 = o[3];
  double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
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
}

}  // namespace

void integralOf(const cv::Mat& map, cv::Mat& integral) {
  if (map.type() != CV_32FC1 || map.dims != 2) {
    cv::integral(map, integral, CV_64F);
    return;
  }
  integral.create(map.rows + 1, map.cols + 1, CV_64F);
  std::fill_n(integral.ptr<double>(0), integral.cols, 0.0);
  int y = 0;
  for (; y + 4 <= map.rows; y += 4) {
    const float* const r[4] = {map.ptr<float>(y), map.ptr<float>(y + 1), map.ptr<float>(y + 2), map.ptr<float>(y + 3)};
    double* const o[4] = {integral.ptr<double>(y + 1) + 1, integral.ptr<double>(y + 2) + 1,
                          integral.ptr<double>(y + 3) + 1, integral.ptr<double>(y + 4) + 1};
    for (double* row : o) row[-1] = 0.0;
    fourRows(r, integral.ptr<double>(y) + 1, o, map.cols);
  }
  for (; y < map.rows; ++y) {
    const float* r = map.ptr<float>(y);
    const double* above = integral.ptr<double>(y) + 1;
    double* out = integral.ptr<double>(y + 1) + 1;
    out[-1] = 0.0;
    double s = 0.0;
    for (int x = 0; x < map.cols; ++x) {
      s += r[x];
      out[x] = above[x] + s;
    }
  }
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
