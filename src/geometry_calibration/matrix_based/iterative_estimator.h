// The iterative estimator of target matching (mode 3): repeated feature
// matching, each round on the module picture warped by the best homography so
// far, for at most the m2b limit of rounds; a round is kept only when it
// lowers the error, and the first round that does not ends the loop. The
// error is overlapDifference (mean grey difference over the module's
// footprint), on the scale mode 3's normalisation expects: 60 and more is a
// failure.
#pragma once

#include <cstdint>

#include "geometry_calibration/matrix_based/match_to_target_estimate.h"

namespace GeometryCalibration {
namespace MatrixBased {

class IterativeEstimator {
 public:
  IterativeEstimator(EstimatorContext context, std::uint64_t rounds, int maxFeatures = 10000);

  // `value` of the result: the rounds run.
  EstimateResult estimate(const WorkPictures& pictures, const cv::Matx33f& homography);

 private:
  EstimatorContext context_;
  std::uint64_t rounds_;
  int maxFeatures_;
};

}  // namespace MatrixBased
}  // namespace GeometryCalibration
