// One fused pass over a BGR picture: 3x3 Laplacian (aperture 3: corners 2,
// centre -8, reflect-101 border) and the masked sums, in integers. The result
// equals OpenCV's Laplacian(CV_64F) / meanStdDev sequence exactly, because
// every intermediate value is an integer that the double sums of that
// sequence hold exactly. (The grey conversion itself is left to cvtColor:
// its vector code rounds differently from the textbook fixed-point formula;
// the BGR pass converts stripes of rows that stay in the cache, so the
// picture is read once and no whole grey picture is written.)
#pragma once

#include <cstdint>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "orbivane/image/image_conversion.h"

namespace BlurDetection {

struct LaplacianStatistics {
  double mean = 0.0;
  double stddev = 0.0;
  std::int64_t count = 0;  // pixels that entered the statistics
};

// Which rows and columns of `bgr` enter, given the turn the picture would get:
// the bands are rows of the turned picture, so a quarter turn leaves out
// columns of the untouched one. The Laplacian kernel and the border rule are
// symmetric under every turn and flip, so turning is never needed.
void bandMasks(int rows, int cols, Image::Turn turn, std::vector<std::uint8_t>& keepRow,
               std::vector<std::uint8_t>& keepColumn);

// The statistics of cvtColor(bgr, COLOR_BGR2GRAY), in stripes of rows on
// the library's parallel loop. `bgr` must be CV_8UC3 and not empty.
LaplacianStatistics bgrLaplacianStatistics(const cv::Mat& bgr, const std::vector<std::uint8_t>& keepRow,
                                           const std::vector<std::uint8_t>& keepColumn);

}  // namespace BlurDetection
