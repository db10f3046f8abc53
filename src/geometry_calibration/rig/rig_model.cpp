// The camera model of a rig module (see rig_model.h).
#include "geometry_calibration/rig/rig_model.h"

#include <cmath>
#include <limits>

namespace GeometryCalibration {
namespace Rig {

cv::Point2d ModuleModel::undistort(cv::Point2d observed) const {
  const cv::Point2d c = centre();
  const cv::Point2d d = observed - c;
  const double r2 = (d.x * d.x + d.y * d.y) / (halfDiagonal() * halfDiagonal());
  return c + d * (1.0 + k1 * r2 + k2 * r2 * r2);
}

namespace {

// The smallest radius (half diagonals) at which the slope of
// r (1 + k1 r^2 + k2 r^4) falls to kLeastSlope: a smaller root x = r^2 of
// 5 k2 x^2 + 3 k1 x + (1 - kLeastSlope) = 0; infinity when there is none.
constexpr double kLeastSlope = 0.2;
double reach(double k1, double k2) {
  const double a = 5.0 * k2, b = 3.0 * k1, c = 1.0 - kLeastSlope;
  double x = std::numeric_limits<double>::infinity();
  if (std::fabs(a) < 1e-15) {
    if (b < 0.0) x = -c / b;
  } else {
    const double d = b * b - 4.0 * a * c;
    if (d >= 0.0) {
      for (const double root : {(-b - std::sqrt(d)) / (2.0 * a), (-b + std::sqrt(d)) / (2.0 * a)})
        if (root > 0.0) x = std::min(x, root);
    }
  }
  return std::sqrt(x);
}

}  // namespace

cv::Point2d ModuleModel::distort(cv::Point2d ideal) const {
  const cv::Point2d c = centre();
  const cv::Point2d d = ideal - c;
  const double scale = halfDiagonal();
  const double target = std::hypot(d.x, d.y) / scale;  // ideal radius, half diagonals
  if (target < 1e-12) return ideal;
  const auto radial = [this](double r) { return r * (1.0 + k1 * r * r + k2 * r * r * r * r); };
  // Beyond where the model stops growing, it is continued as a straight line,
  // so points far outside the picture stay far outside.
  const double limit = reach(k1, k2);
  if (std::isfinite(limit) && target >= radial(limit)) {
    return c + d * ((limit + (target - radial(limit)) / kLeastSlope) / target);
  }
  // Solve r (1 + k1 r^2 + k2 r^4) = target for r, from r = target.
  double r = std::isfinite(limit) ? std::min(target, limit) : target;
  for (int i = 0; i < 50; ++i) {
    const double r2 = r * r;
    const double value = radial(r) - target;
    const double slope = 1.0 + 3.0 * k1 * r2 + 5.0 * k2 * r2 * r2;
    double next = r - value / slope;
    if (!(next > 0.0)) next = 0.5 * r;
    if (std::isfinite(limit) && next > limit) next = 0.5 * (r + limit);
    const bool done = std::fabs(next - r) < 1e-13;
    r = next;
    if (done) break;
  }
  return c + d * (r / target);
}

cv::Vec3d ModuleModel::ray(cv::Point2d observed) const {
  const cv::Point2d ideal = undistort(observed) - centre();
  const cv::Vec3d camera(ideal.x / focal, ideal.y / focal, 1.0);
  return cv::normalize(rotation * camera);
}

bool ModuleModel::project(const cv::Vec3d& worldRay, cv::Point2d& observed) const {
  const cv::Vec3d camera = rotation.t() * worldRay;
  if (!(camera[2] > 1e-9)) return false;
  const cv::Point2d ideal(centre().x + focal * camera[0] / camera[2], centre().y + focal * camera[1] / camera[2]);
  observed = distort(ideal);
  return std::isfinite(observed.x) && std::isfinite(observed.y);
}

cv::Matx33d ModuleModel::intrinsics() const {
  const cv::Point2d c = centre();
  return cv::Matx33d(focal, 0, c.x, 0, focal, c.y, 0, 0, 1);
}

bool ModuleModel::monotonic(double k1, double k2, double radius) {
  for (int i = 0; i <= 100; ++i) {
    const double r = radius * i / 100.0, r2 = r * r;
    if (!(1.0 + 3.0 * k1 * r2 + 5.0 * k2 * r2 * r2 > 0.05)) return false;
  }
  return true;
}

}  // namespace Rig
}  // namespace GeometryCalibration
