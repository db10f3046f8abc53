// The camera model of a rig module: a pinhole camera turned by a rotation,
// with radial lens distortion, as the bundle adjustment fits it.
//
// Pixel coordinates follow OpenCV (pixel (0, 0) centred on (0, 0)); the
// optical centre is the picture's texture centre (w / 2, h / 2), where the
// lens shader has its centre too. A picture pixel `observed` has the ideal
// (distortion-free) position
//     ideal = c + (observed - c) (1 + k1 r^2 + k2 r^4),   r = |observed - c| / d
// with d the half diagonal, and looks along the world ray
//     R * ((ideal - c) / f, 1)
// (R takes camera to world coordinates, as cv::detail::CameraParams::R does:
// x right, y down, z forward).
#pragma once

#include <opencv2/core.hpp>

namespace GeometryCalibration {
namespace Rig {

struct ModuleModel {
  cv::Size picture;
  cv::Matx33d rotation = cv::Matx33d::eye();  // camera -> world
  double focal = 1.0;                         // pixels
  double k1 = 0.0, k2 = 0.0;

  cv::Point2d centre() const { return {0.5 * picture.width, 0.5 * picture.height}; }
  double halfDiagonal() const { return 0.5 * std::hypot(double(picture.width), double(picture.height)); }

  // Observed picture pixel -> ideal pixel, and back (Newton on the radius;
  // the model is kept monotonic over the range it is used in).
  cv::Point2d undistort(cv::Point2d observed) const;
  cv::Point2d distort(cv::Point2d ideal) const;

  // Observed pixel -> unit world ray, and world ray -> observed pixel (false
  // when the ray points behind the camera).
  cv::Vec3d ray(cv::Point2d observed) const;
  bool project(const cv::Vec3d& worldRay, cv::Point2d& observed) const;

  // The camera matrix K of the ideal picture.
  cv::Matx33d intrinsics() const;

  // Whether r (1 + k1 r^2 + k2 r^4) grows with r up to `radius` half diagonals.
  static bool monotonic(double k1, double k2, double radius);
};

}  // namespace Rig
}  // namespace GeometryCalibration
