// Corner errors of found placements against the truth; see corner_error.h.
#include "synthetic/corner_error.h"

#include <algorithm>
#include <cmath>

#include "orbivane/geometry/surface_projection.h"

namespace Synthetic {

CornerError homographyCornerError(const cv::Matx33d& found, const cv::Matx33d& truth, cv::Size picture) {
  const double right = picture.width - 1.0, bottom = picture.height - 1.0;
  const cv::Vec3d corners[4] = {{0, 0, 1}, {right, 0, 1}, {right, bottom, 1}, {0, bottom, 1}};
  CornerError e;
  for (const auto& c : corners) {
    const cv::Vec3d a = found * c, b = truth * c;
    const double d = std::hypot(a[0] / a[2] - b[0] / b[2], a[1] / a[2] - b[1] / b[2]);
    e.mean += d / 4.0;
    e.max = std::max(e.max, d);
  }
  return e;
}

double cornerError(const cv::Matx33d& found, const cv::Matx33d& truth, cv::Size picture) {
  return homographyCornerError(found, truth, picture).mean;
}

CornerError cornerError(const Utils::Matrix4x4& found, const Utils::Matrix4x4& truth, cv::Size panorama) {
  const auto a = OrbivaneGeometry::moduleSurfaceQuad(found);
  const auto b = OrbivaneGeometry::moduleSurfaceQuad(truth);
  if (!a || !b) return CornerError{1e9, 1e9};
  CornerError e;
  for (int k = 0; k < 4; ++k) {
    const double d = std::hypot((a->corners[k].x - b->corners[k].x) * panorama.width,
                                (a->corners[k].y - b->corners[k].y) * panorama.height);
    e.mean += d / 4.0;
    e.max = std::max(e.max, d);
  }
  return e;
}

}  // namespace Synthetic
