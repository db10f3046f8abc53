// The grid estimator of target matching (mode 0 with the grid enabled): a
// homography for the whole module, then a UV grid that carries what a
// homography cannot hold (lens distortion, parallax), as a smooth field of
// displacements.
//
// 1. The module's homography by the feature matcher with 3000 features (and
//    its refinement).
// 2. The displacement field: on a lattice of points over the target (about
//    two points per grid cell a side, 12 to 32 work pixels apart) a square
//    patch of the target is aligned, by translation, to the module picture
//    warped by that homography (Lucas-Kanade on both pictures lightly
//    smoothed and normalised to zero mean and unit spread over the patch, so
//    gain and offset do not matter; a coarse pass at half resolution first).
//    A measurement is taken when its shift is at most a quarter of the patch
//    and its correlation at least 0.5; otherwise it is retried with a patch
//    1.5 times bigger, up to three tries. Each measurement carries its
//    information: the patch's gradient structure over its residual, so an
//    edge constrains only across itself and a flat patch hardly at all.
// 3. The grid: the displacement of every grid point, fitted to the
//    measurements through the grid's own bilinear interpolation, weighted
//    by their information, with a penalty on the field's second differences
//    along rows and columns. Cells without texture therefore follow their
//    neighbours, and points beyond the target continue the field smoothly.
//    The fit is one sparse (banded) linear system.
// 4. The grid is kept only when the field explains the measurements clearly
//    better than no field does (a rigid module keeps its regular grid, so
//    the grid never makes it worse) and no cell folds over (otherwise the
//    penalty is raised and the fit repeated; a grid that still folds stays
//    regular). Each grid point then names the texture coordinate that the
//    target shows at its place.
//
// Progress: four steps per grid cell, spread over the measurements; the
// first step of a module is the driver's "Calibrating Module" report.
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

  // One measured point of the displacement field (target work pixels).
  struct Measurement {
    cv::Point2d at;              // where on the target
    cv::Point2d shift;           // the target's content at `at` is at `at + shift` on the warped module
    cv::Matx22d information;     // inverse covariance of `shift` (1 / pixel^2)
  };

  // `step` is called once per progress step after the first.
  GridEstimator(EstimatorContext context, std::function<void()> step);

  // `textureToWork` takes the module's texture coordinates to its work
  // pixels (the pre-warp). `grid` is refined in place (left as it is when
  // empty); `displacements` receives each grid point's fitted shift in
  // target work pixels (0 when the grid stays regular). `value` of the
  // result: the number of grid points moved.
  EstimateResult estimate(const WorkPictures& pictures, const cv::Matx33f& homography,
                          const cv::Matx33d& textureToWork, Utils::UVGrid& grid,
                          std::vector<cv::Point2f>& displacements);

  // The measurements of the last estimate, and whether its field was kept.
  const std::vector<Measurement>& measurements() const { return measurements_; }
  bool fieldKept() const { return fieldKept_; }

 private:
  EstimatorContext context_;
  std::function<void()> step_;
  std::vector<Measurement> measurements_;
  bool fieldKept_ = false;
};

}  // namespace MatrixBased
}  // namespace GeometryCalibration
