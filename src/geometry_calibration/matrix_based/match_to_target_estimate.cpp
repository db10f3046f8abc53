// Scoring and refinement shared by the target-matching estimators.
#include "geometry_calibration/matrix_based/match_to_target_estimate.h"

#include <cmath>

#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/direct_alignment.h"

namespace GeometryCalibration {
namespace MatrixBased {

void WorkPictures::prepareGrey() {
  if (!module.empty()) cv::cvtColor(module, moduleGrey, cv::COLOR_BGR2GRAY);
  if (!target.empty()) cv::cvtColor(target, targetGrey, cv::COLOR_BGR2GRAY);
}

bool isUsableHomography(const cv::Matx33d& h) {
  for (int k = 0; k < 9; ++k)
    if (!std::isfinite(h.val[k])) return false;
  return std::fabs(cv::determinant(h)) > 1e-12;
}

float differenceError(const cv::Mat& module, const cv::Mat& target, const cv::Matx33d& h) {
  if (module.empty() || target.empty() || !isUsableHomography(h)) return kFailedError;
  cv::Mat warped, difference, grey, binary;
  cv::warpPerspective(module, warped, cv::Mat(h), target.size(), cv::INTER_LINEAR, cv::BORDER_CONSTANT);
  cv::subtract(target, warped, difference);
  if (difference.channels() == 3) {
    cv::cvtColor(difference, grey, cv::COLOR_BGR2GRAY);
  } else {
    grey = difference;
  }
  cv::threshold(grey, binary, 1.0, 255.0, cv::THRESH_BINARY);
  cv::Scalar mean, deviation;
  cv::meanStdDev(binary, mean, deviation);
  const double error = mean[0] / 255.0 * 100.0;
  return std::isfinite(error) ? static_cast<float>(error) : kFailedError;
}

cv::Matx33d refineHomography(const WorkPictures& pictures, const cv::Matx33d& estimate, bool* improved, int levels) {
  if (improved) *improved = false;
  if (!isUsableHomography(estimate) || pictures.targetGrey.empty() || pictures.moduleGrey.empty()) return estimate;
  AlignmentOptions options;
  options.levels = levels;
  DirectAlignment alignment(options);
  // The alignment maps target pixels to module pixels: the inverse.
  const cv::Matx33d start = estimate.inv();
  const AlignmentResult before =
      alignment.evaluate(pictures.targetGrey, pictures.moduleGrey, pictures.moduleMask, start);
  const AlignmentResult after = alignment.align(pictures.targetGrey, pictures.moduleGrey, pictures.moduleMask, start);
  if (!after.ok) return estimate;
  // A result that covers much less of the target than the start did is not
  // trusted even when its residual is lower.
  const bool covers = !before.ok || after.validPixels >= 0.7 * before.validPixels;
  if (covers && (!before.ok || after.meanSquaredResidual < before.meanSquaredResidual)) {
    const cv::Matx33d refined = after.warp.inv();
    if (isUsableHomography(refined) && cv::determinant(refined) > 0.0) {
      if (improved) *improved = true;
      return refined * (1.0 / refined(2, 2));
    }
  }
  return estimate;
}

}  // namespace MatrixBased
}  // namespace GeometryCalibration
