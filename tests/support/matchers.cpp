#include "support/matchers.h"

namespace Testing {

double cornerError(const cv::Matx33d& found, const cv::Matx33d& truth, int width, int height) {
  const cv::Vec3d corners[4] = {{0, 0, 1}, {double(width), 0, 1}, {double(width), double(height), 1},
                                {0, double(height), 1}};
  double sum = 0;
  for (const auto& c : corners) {
    const cv::Vec3d a = found * c;
    const cv::Vec3d b = truth * c;
    sum += std::hypot(a[0] / a[2] - b[0] / b[2], a[1] / a[2] - b[1] / b[2]);
  }
  return sum / 4.0;
}

}  // namespace Testing
