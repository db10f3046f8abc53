// Projection of module pictures onto the panorama surface.
#include "orbivane/geometry/surface_projection.h"

#include <cmath>

#include <opencv2/core.hpp>

namespace OrbivaneGeometry {

cv::Matx33d planarHomography(const Utils::Matrix4x4& m) {
  return cv::Matx33d(m.get(0, 0), m.get(0, 1), m.get(0, 3),  //
                     m.get(1, 0), m.get(1, 1), m.get(1, 3),  //
                     m.get(3, 0), m.get(3, 1), m.get(3, 3));
}

Utils::Matrix4x4 matrixFromPlanarHomography(const cv::Matx33d& h) {
  Utils::Matrix4x4 m;
  m.set(0, 0, static_cast<float>(h(0, 0)));
  m.set(0, 1, static_cast<float>(h(0, 1)));
  m.set(0, 3, static_cast<float>(h(0, 2)));
  m.set(1, 0, static_cast<float>(h(1, 0)));
  m.set(1, 1, static_cast<float>(h(1, 1)));
  m.set(1, 3, static_cast<float>(h(1, 2)));
  m.set(3, 0, static_cast<float>(h(2, 0)));
  m.set(3, 1, static_cast<float>(h(2, 1)));
  m.set(3, 3, static_cast<float>(h(2, 2)));
  return m;
}

Utils::Optional<Utils::SurfacePoint> projectToSurface(const Utils::Matrix4x4& m, float u, float v) {
  // (u, v, 0, 1): the third column never enters.
  const double x = double(m.get(0, 0)) * u + double(m.get(0, 1)) * v + m.get(0, 3);
  const double y = double(m.get(1, 0)) * u + double(m.get(1, 1)) * v + m.get(1, 3);
  const double w = double(m.get(3, 0)) * u + double(m.get(3, 1)) * v + m.get(3, 3);
  if (!(w > 0.0) || !std::isfinite(x) || !std::isfinite(y) || !std::isfinite(w)) return std::nullopt;
  return Utils::SurfacePoint{static_cast<float>(x / w), static_cast<float>(y / w)};
}

Utils::Optional<Utils::SurfacePoint> textureOfSurfacePoint(const Utils::Matrix4x4& m, float x, float y) {
  const cv::Matx33d h = planarHomography(m);
  const double det = cv::determinant(h);
  if (!std::isfinite(det) || std::fabs(det) < 1e-15) return std::nullopt;
  const cv::Vec3d t = h.inv() * cv::Vec3d(x, y, 1.0);
  if (t[2] == 0.0 || !std::isfinite(t[0] / t[2]) || !std::isfinite(t[1] / t[2])) return std::nullopt;
  return Utils::SurfacePoint{static_cast<float>(t[0] / t[2]), static_cast<float>(t[1] / t[2])};
}

Utils::Optional<Utils::SurfaceQuad> moduleSurfaceQuad(const Utils::Matrix4x4& m) {
  static const float kCorners[4][2] = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
  Utils::SurfaceQuad quad;
  for (int i = 0; i < 4; ++i) {
    const auto p = projectToSurface(m, kCorners[i][0], kCorners[i][1]);
    if (!p) return std::nullopt;
    quad.corners[static_cast<std::size_t>(i)] = *p;
  }
  return quad;
}

cv::Matx33d textureToPixels(int width, int height) {
  return cv::Matx33d(width, 0, 0, 0, height, 0, 0, 0, 1);
}

cv::Matx33d pixelsToTexture(int width, int height) {
  return cv::Matx33d(width > 0 ? 1.0 / width : 0.0, 0, 0, 0, height > 0 ? 1.0 / height : 0.0, 0, 0, 0, 1);
}

}  // namespace OrbivaneGeometry
