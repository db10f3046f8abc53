// Plain OpenCV sequences that the library's fast paths must agree with.
#pragma once

#include <opencv2/core/mat.hpp>

namespace Synthetic {

// The blur score the obvious way: turn (cv::rotate), BGR to grey, Laplacian to
// 64-bit float (aperture 3), mask of the two row bands, meanStdDev, squared
// and truncated. `rotation` must be a multiple of 90.
int referenceBlur(const cv::Mat& bgr, int rotation);

}  // namespace Synthetic
