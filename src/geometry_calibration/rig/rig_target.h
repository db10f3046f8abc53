// A rig registered to a picture of the whole scene (a target): SIFT features
// of the target matched to the modules' features, then either
//  - an equirectangular target (twice as wide as high: the whole sphere):
//    the rotation that takes the rig's rays onto the target's (RANSAC on
//    two matches at a time, then least squares on all that agree), so that
//    the panorama becomes the target's own frame and the target module spans
//    it exactly; or
//  - any other target: the homography from the rig's panorama to the
//    target's picture (RANSAC), which places the target module on the rig's
//    panorama.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/stitching/detail/matchers.hpp>

#include "geometry_calibration/rig/rig_model.h"
#include "geometry_calibration/rig/rig_surface.h"

namespace GeometryCalibration {
namespace Rig {

struct TargetFit {
  bool ok = false;
  std::string reason;  // why not, when not
  bool equirectangular = false;
  cv::Matx33d rotation = cv::Matx33d::eye();    // equirectangular: rig world -> target world
  cv::Matx33d homography = cv::Matx33d::eye();  // otherwise: rig panorama unit square -> target texture
  int matches = 0;                              // agreeing feature matches
  double medianPx = 0.0;                        // their distance from the fit, target pixels
};

// Whether a picture of `size` is an equirectangular picture of the whole
// sphere (twice as wide as high, within one percent).
bool isEquirectangular(cv::Size size);

// `features[k]` are the features of module `models[k]`'s picture (its own
// pixels). For the homography `surface` must be framed already.
TargetFit registerToTarget(const std::vector<ModuleModel>& models,
                           const std::vector<cv::detail::ImageFeatures>& features, const cv::Mat& target,
                           const Surface* surface);

}  // namespace Rig
}  // namespace GeometryCalibration
