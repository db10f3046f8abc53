// The pair rule of the resolution target.
#include "sensor_calibration/blob_pairs.h"

#include <cmath>
#include <cstdlib>

namespace SensorCalibration {

std::pair<int, int> markSpacings(const std::vector<cv::Point>& p) {
  if (p.size() != 3) return {0, 0};
  const auto length = [](const cv::Point& a, const cv::Point& b) {
    return static_cast<int>(std::trunc(std::sqrt(double(a.x - b.x) * (a.x - b.x) + double(a.y - b.y) * (a.y - b.y))));
  };
  const auto pick = [&](int d01, int d12, int d02) {
    if (d01 < d12 && d01 < d02) return length(p[0], p[1]);
    if (d02 < d12 && d02 < d01) return length(p[0], p[2]);
    return length(p[1], p[2]);
  };
  const int horizontal =
      pick(std::abs(p[0].y - p[1].y), std::abs(p[1].y - p[2].y), std::abs(p[0].y - p[2].y));
  const int vertical = pick(std::abs(p[0].x - p[1].x), std::abs(p[1].x - p[2].x), std::abs(p[0].x - p[2].x));
  return {horizontal, vertical};
}

}  // namespace SensorCalibration
