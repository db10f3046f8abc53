// Repeated matching until the error stops improving.
#include "geometry_calibration/matrix_based/iterative_estimator.h"

#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/feature_matcher.h"

namespace GeometryCalibration {
namespace MatrixBased {

IterativeEstimator::IterativeEstimator(EstimatorContext context, std::uint64_t rounds, int maxFeatures)
    : context_(std::move(context)), rounds_(rounds), maxFeatures_(maxFeatures) {}

EstimateResult IterativeEstimator::estimate(const WorkPictures& pictures, const cv::Matx33f& homography) {
  EstimateResult best;
  best.homography = homography;
  best.error = overlapDifference(pictures, cv::Matx33d(homography));
  bool improved = false;
  FeatureMatcher matcher(context_);
  std::int32_t rounds = 0;
  for (std::uint64_t round = 0; round < rounds_; ++round) {
    if (context_.aborted()) break;
    context_.logger->info("Calibrating ...");
    ++rounds;
    // This round's module picture: warped by the best homography so far.
    WorkPictures current;
    current.target = pictures.target;
    current.targetGrey = pictures.targetGrey;
    const cv::Mat h(cv::Matx33d(best.homography));
    cv::warpPerspective(pictures.module, current.module, h, pictures.target.size());
    const cv::Mat ones = pictures.moduleMask.empty() ? cv::Mat(pictures.module.size(), CV_8U, cv::Scalar(255))
                                                     : pictures.moduleMask;
    cv::warpPerspective(ones, current.moduleMask, h, pictures.target.size(), cv::INTER_NEAREST);
    cv::cvtColor(current.module, current.moduleGrey, cv::COLOR_BGR2GRAY);
    const EstimateResult step = matcher.estimate(current, cv::Matx33f::eye(), maxFeatures_, 0.0f, 0.0f);
    if (!(step.error < kFailedError)) break;
    cv::Matx33d candidate = cv::Matx33d(step.homography) * cv::Matx33d(best.homography);
    if (!isUsableHomography(candidate) || !(cv::determinant(candidate) > 0.0)) break;
    candidate *= 1.0 / candidate(2, 2);
    // The round's correction is measured on a resampled picture; a last
    // refinement against the original module picture removes that loss.
    candidate = refineHomography(pictures, candidate, nullptr, 1);
    const float error = overlapDifference(pictures, candidate);
    // The first round replaces the start; later rounds must lower the error.
    if (improved && !(error < best.error)) break;
    best.homography = cv::Matx33f(candidate);
    best.error = error;
    improved = true;
  }
  if (!improved) {
    EstimateResult failed;
    failed.homography = homography;
    failed.value = rounds;
    return failed;
  }
  best.value = rounds;
  return best;
}

}  // namespace MatrixBased
}  // namespace GeometryCalibration
