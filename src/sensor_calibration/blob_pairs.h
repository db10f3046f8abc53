// The pair rule of the resolution target: which two of three mark centres
// form the horizontal and which the vertical side.
#pragma once

#include <utility>
#include <vector>

#include <opencv2/core/types.hpp>

namespace SensorCalibration {

// The Euclidean length, truncated toward zero, of the pair whose coordinate
// (y for the horizontal side, x for the vertical side) differs least:
// (p0, p1) if strictly smaller than both others, else (p0, p2) if strictly
// smaller than both others, else (p1, p2). Both 0 unless there are three.
std::pair<int, int> markSpacings(const std::vector<cv::Point>& p);

}  // namespace SensorCalibration
