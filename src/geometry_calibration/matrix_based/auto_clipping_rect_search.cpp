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

}  // namespace

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
    cv::integral(mat, integral, CV_64F);
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
