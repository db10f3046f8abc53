// How far a found placement is from the truth, the one measure tests,
// benchmarks and the demo all quote: the mean (and worst) distance between
// where the two put a picture's four corners.
//
// Corners are pixel centres: (0, 0), (w-1, 0), (w-1, h-1), (0, h-1) of a
// w x h picture. Errors are in the pixels of the picture the homography maps
// into (the target picture), or of the panorama for module matrices.
#pragma once

#include <opencv2/core.hpp>

#include "orbivane/utils/matrix4x4.h"

namespace Synthetic {

struct CornerError {
  double mean = 0.0;  // pixels, over the four corners
  double max = 0.0;
};

// The corners of a `picture`-sized picture mapped by `found` and by `truth`
// (3x3 homographies from picture pixels to target pixels).
CornerError homographyCornerError(const cv::Matx33d& found, const cv::Matx33d& truth, cv::Size picture);
// The mean of the above, as most checks quote it.
double cornerError(const cv::Matx33d& found, const cv::Matx33d& truth, cv::Size picture);

// Where two module matrices put the module's unit-square corners on a
// panorama of `panorama` pixels. A matrix that does not project (singular,
// or a corner behind the surface) is 1e9 px away.
CornerError cornerError(const Utils::Matrix4x4& found, const Utils::Matrix4x4& truth, cv::Size panorama);

}  // namespace Synthetic
