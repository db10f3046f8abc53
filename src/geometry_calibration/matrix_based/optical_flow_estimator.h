// The optical-flow estimator of target matching (mode 2): dense optical flow
// (DIS, medium preset) from the target's work picture to the module's, sampled
// every 8 pixels where the module has content; samples whose flow is far from
// the median flow (more than 3 robust deviations plus one pixel, per
// component) are dropped as outliers; a RANSAC homography (1 pixel) of the
// rest is refined by direct alignment at full resolution.
#pragma once

#include <opencv2/core.hpp>

#include "geometry_calibration/matrix_based/match_to_target_estimate.h"

namespace GeometryCalibration {
namespace MatrixBased {

class OpticalFlowEstimator {
 public:
  static constexpr int kSampleStep = 8;  // pixels between flow samples

  explicit OpticalFlowEstimator(EstimatorContext context);

  EstimateResult estimate(const WorkPictures& pictures, const cv::Matx33f& homography);

  // Indices of the samples whose flow lies within the robust band around the
  // median flow (see above).
  static std::vector<std::size_t> inliers(const std::vector<cv::Point2f>& flow);

 private:
  EstimatorContext context_;
};

}  // namespace MatrixBased
}  // namespace GeometryCalibration
