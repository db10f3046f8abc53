// One fused pass over a grey picture: 3x3 Laplacian (aperture 3: corners 2,
// centre -8, reflect-101 border) and the masked sums, in integers. The result
// equals OpenCV's Laplacian(CV_64F) / meanStdDev sequence exactly, because
// every intermediate value is an integer that the double sums of that
// sequence hold exactly. (The grey conversion itself is left to cvtColor:
// its vector code rounds differently from the textbook fixed-point formula.)
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

// `grey` must be CV_8UC1 and not empty.
LaplacianStatistics laplacianStatistics(const cv::Mat& grey, const std::vector<std::uint8_t>& keepRow,
                                        const std::vector<std::uint8_t>& keepColumn);

}  // namespace BlurDetection
