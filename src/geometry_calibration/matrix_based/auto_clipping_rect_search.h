// The coarse-to-fine search for the axis-aligned rectangle of greatest value
// sum in a value map, the core of automatic clipping.
//
// Rectangles are in the map's element coordinates: x, y is the top-left
// element, width and height count elements. Every rectangle sum costs O(1):
// the search builds one 64-bit float integral image of the map per call.
#pragma once

#include <cstddef>

#include <opencv2/core/mat.hpp>
#include <opencv2/core/types.hpp>

#include "orbivane/utils/optional.h"

namespace GeometryCalibration {
namespace MatrixBased {
namespace AutoClippingSearch {

// The search. `mat` is a one-channel map of any depth cv::integral takes
// (8-bit unsigned, 16-bit, 32- or 64-bit float). The search starts from the
// whole map and tries, at step s (from `startStep`), every combination of
// moving each edge by -s, 0 or +s (top outermost, then bottom, left, right);
// it keeps the first combination of strictly greatest sum, moves there, and
// halves s whenever staying put is best, ending once s drops below
// `minStep`. Edges are inclusive element indices, but width and height are
// their plain differences, so the rectangle never takes in its right column
// and bottom row (a 1x1 map gives a rectangle of width and height 0).
//
// The iteration count starts at 1 and is counted up after every iteration
// that does not end the search; when it reaches `maxIterations` the search
// gives up and returns nothing.
//
// An empty map, `minStep` below 1 or `startStep` below `minStep` prints
// "AutoClipping::findMaxValueRect::Input Error: mat.empty() || minStep < 1 ||
// startStep < minStep" on standard output and returns nothing; so does a map
// of more than one channel, with its own text.
//
// `integral` is the workspace for the integral image; passing the same one
// to repeated searches of maps of one size saves allocating it each time.
Utils::Optional<cv::Rect> findMaxValueRect(const cv::Mat& mat, int minStep, int startStep, std::size_t maxIterations,
                                           cv::Mat& integral);
Utils::Optional<cv::Rect> findMaxValueRect(const cv::Mat& mat, int minStep, int startStep, std::size_t maxIterations);

// cv::integral(map, integral, CV_64F), value for value: each row's running
// sum is added in the same order, so every element is the same double. A
// 32-bit float map (what clipping searches) is summed four rows at a time,
// whose running sums are independent (twice as fast), and from a million
// elements on in column strips on the host's threads (cv::getNumThreads, at
// most 4), each strip a few rows behind its left neighbour and continuing
// its running sums; any other depth goes to cv::integral.
void integralOf(const cv::Mat& map, cv::Mat& integral);

// The sum of the elements of `rect` from an integral image (CV_64F,
// (rows + 1) x (cols + 1)) as cv::integral makes it. `rect` must lie inside
// the map.
inline double rectangleSum(const cv::Mat& integral, const cv::Rect& rect) {
  const double* top = integral.ptr<double>(rect.y);
  const double* bottom = integral.ptr<double>(rect.y + rect.height);
  const int x0 = rect.x;
  const int x1 = rect.x + rect.width;
  return bottom[x1] - bottom[x0] - top[x1] + top[x0];
}

}  // namespace AutoClippingSearch
}  // namespace MatrixBased
}  // namespace GeometryCalibration
