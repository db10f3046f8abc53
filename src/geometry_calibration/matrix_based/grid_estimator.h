// The grid estimator of target matching (mode 0 with the grid enabled).
//
// First the module's homography is found by the feature matcher with 3000
// features (and its refinement). Then each point of the module's UV grid is
// measured against the target: a square patch of the target around where
// the point lands (a grid cell's size, at least 24 pixels) is aligned by
// direct alignment (affine with gain and offset) to the module picture
// warped by that homography. A measurement is taken when its shift is at most
// a quarter of the patch, its rotation at most 3 degrees and its correlation
// at least 0.5; otherwise it is retried with a patch 1.5 times bigger, up to
// three tries, and a point that never passes keeps its place. The shift of
// each measured point moves the point's texture coordinate to where the
// target's content at that place is in the module's picture.
//
// Progress: four steps per grid cell, one per corner (corners shared by
// cells are measured once); the first step of a module is the driver's
// "Calibrating Module" report.
#pragma once

#include <functional>
#include <vector>

#include <opencv2/core.hpp>

#include "geometry_calibration/matrix_based/match_to_target_estimate.h"
#include "orbivane/utils/uv_grid.h"

namespace GeometryCalibration {
namespace MatrixBased {

class GridEstimator {
 public:
  static constexpr int kFeatures = 3000;
  static constexpr int kTries = 3;

  // `step` is called once per progress step after the first.
  GridEstimator(EstimatorContext context, std::function<void()> step);

  // `textureToWork` takes the module's texture coordinates to its work
  // pixels (the pre-warp). `grid` is refined in place (left as it is when
  // empty); `displacements` receives each grid point's measured shift in
  // target work pixels (0 for points that were skipped). `value` of the
  // result: the number of grid points moved.
  EstimateResult estimate(const WorkPictures& pictures, const cv::Matx33f& homography,
                          const cv::Matx33d& textureToWork, Utils::UVGrid& grid,
                          std::vector<cv::Point2f>& displacements);

 private:
  // The shift at work pixel `at` of the target, or false when the point is skipped.
  bool measure(const cv::Mat& targetGrey, const cv::Mat& aligned, const cv::Mat& alignedMask, cv::Point2d at,
               int patch, cv::Point2f& shift);

  EstimatorContext context_;
  std::function<void()> step_;
};

}  // namespace MatrixBased
}  // namespace GeometryCalibration
