// Scoring and refinement shared by the target-matching estimators.
#include "geometry_calibration/matrix_based/match_to_target_estimate.h"

#include <cmath>
#include <limits>

#include <cmath>

#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/direct_alignment.h"

namespace GeometryCalibration {
namespace MatrixBased {

void WorkPictures::prepareGrey() {
  if (!module.empty()) cv::cvtColor(module, moduleGrey, cv::COLOR_BGR2GRAY);
  if (!target.empty()) cv::cvtColor(target, targetGrey, cv::COLOR_BGR2GRAY);
}

void collectSupport(const std::vector<std::pair<cv::Point2f, cv::Point2f>>& pairs, EstimateResult& result) {
  result.matchedFeatures = true;
  result.support.clear();
  result.supportDistances.clear();
  const cv::Matx33d h(result.homography);
  for (const auto& [from, to] : pairs) {
    const cv::Vec3d q = h * cv::Vec3d(from.x, from.y, 1.0);
    if (!(std::fabs(q[2]) > 1e-12)) continue;
    const double distance = std::hypot(q[0] / q[2] - to.x, q[1] / q[2] - to.y);
    if (distance <= kSupportDistance) {
      result.support.push_back(to);
      result.supportDistances.push_back(static_cast<float>(distance));
    }
  }
}

cv::Mat sharedPixels(const WorkPictures& pictures, const cv::Matx33d& h) {
  if (pictures.moduleGrey.empty() || pictures.targetGrey.empty() || !isUsableHomography(h)) return cv::Mat();
  const cv::Mat validity = pictures.moduleMask.empty()
                               ? cv::Mat(pictures.moduleGrey.size(), CV_8U, cv::Scalar(255))
                               : pictures.moduleMask;
  cv::Mat covered;
  cv::warpPerspective(validity, covered, cv::Mat(h), pictures.targetGrey.size(), cv::INTER_NEAREST,
                      cv::BORDER_CONSTANT);
  if (!pictures.targetMask.empty()) covered &= pictures.targetMask;
  // Away from the outline, where smoothing would mix in the black border.
  cv::erode(covered, covered, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(7, 7)));
  return covered;
}

double overlapCorrelation(const WorkPictures& pictures, const cv::Matx33d& h, int* overlap) {
  constexpr int kFewestShared = 400;
  constexpr double kSmoothing = 1.0;  // pixels, Gaussian sigma
  if (overlap != nullptr) *overlap = 0;
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const cv::Mat covered = sharedPixels(pictures, h);
  if (covered.empty()) return nan;
  const int shared = cv::countNonZero(covered);
  if (overlap != nullptr) *overlap = shared;
  if (shared < kFewestShared) return nan;
  cv::Mat warped;
  cv::warpPerspective(pictures.moduleGrey, warped, cv::Mat(h), pictures.targetGrey.size(), cv::INTER_LINEAR,
                      cv::BORDER_CONSTANT);
  cv::Mat a, b;
  cv::GaussianBlur(pictures.targetGrey, a, cv::Size(), kSmoothing);
  cv::GaussianBlur(warped, b, cv::Size(), kSmoothing);
  cv::Scalar meanA, deviationA, meanB, deviationB;
  cv::meanStdDev(a, meanA, deviationA, covered);
  cv::meanStdDev(b, meanB, deviationB, covered);
  if (!(deviationA[0] > 1.0) || !(deviationB[0] > 1.0)) return nan;  // flat: nothing to compare
  cv::Mat af, bf;
  a.convertTo(af, CV_32F, 1.0, -meanA[0]);
  b.convertTo(bf, CV_32F, 1.0, -meanB[0]);
  cv::Mat product;
  cv::multiply(af, bf, product);
  const double covariance = cv::mean(product, covered)[0];
  return covariance / (deviationA[0] * deviationB[0]);
}

cv::Mat contentMask(const cv::Mat& picture) {
  if (picture.empty()) return cv::Mat();
  cv::Mat shows;
  if (picture.channels() == 1) {
    shows = picture > 0;
  } else {
    std::vector<cv::Mat> channels;
    cv::split(picture, channels);
    cv::Mat brightest = channels[0].clone();
    for (std::size_t c = 1; c < channels.size(); ++c) cv::max(brightest, channels[c], brightest);
    shows = brightest > 0;
  }
  if (cv::countNonZero(shows) == shows.rows * shows.cols) return cv::Mat();
  cv::erode(shows, shows, cv::Mat(), cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
  return shows;
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

float overlapDifference(const WorkPictures& pictures, const cv::Matx33d& h) {
  const cv::Mat& module = pictures.moduleGrey;
  const cv::Mat& target = pictures.targetGrey;
  if (module.empty() || target.empty() || !isUsableHomography(h)) return kFailedError;
  cv::Mat warped, shown;
  cv::warpPerspective(module, warped, cv::Mat(h), target.size(), cv::INTER_LINEAR, cv::BORDER_CONSTANT);
  const cv::Mat ones = pictures.moduleMask.empty() ? cv::Mat(module.size(), CV_8U, cv::Scalar(255)) : pictures.moduleMask;
  cv::warpPerspective(ones, shown, cv::Mat(h), target.size(), cv::INTER_NEAREST, cv::BORDER_CONSTANT);
  if (!pictures.targetMask.empty()) shown &= pictures.targetMask;
  // Off the module's edge by a pixel: the border's interpolation with black.
  cv::erode(shown, shown, cv::Mat());
  if (cv::countNonZero(shown) < 0.01 * double(target.total())) return kFailedError;
  const double targetMean = cv::mean(target, shown)[0], moduleMean = cv::mean(warped, shown)[0];
  if (!(moduleMean > 1.0)) return kFailedError;
  cv::Mat scaled, difference;
  warped.convertTo(scaled, CV_32F, targetMean / moduleMean);
  target.convertTo(difference, CV_32F);
  cv::absdiff(difference, scaled, difference);
  const double error = cv::mean(difference, shown)[0];
  return std::isfinite(error) ? static_cast<float>(error) : kFailedError;
}

cv::Matx33d refineHomography(const WorkPictures& pictures, const cv::Matx33d& estimate, bool* improved, int levels) {
  if (improved) *improved = false;
  if (!isUsableHomography(estimate) || pictures.targetGrey.empty() || pictures.moduleGrey.empty()) return estimate;
  AlignmentOptions options;
  options.levels = levels;
  // Modules darken towards their corners; one gain would pull the result
  // towards the brighter middle.
  options.spatialGain = true;
  DirectAlignment alignment(options);
  alignment.setFixedMask(pictures.targetMask);
  // The alignment maps target pixels to module pixels: the inverse.
  const cv::Matx33d start = estimate.inv();
  AlignmentResult before;
  const AlignmentResult after =
      alignment.align(pictures.targetGrey, pictures.moduleGrey, pictures.moduleMask, start, cv::Rect(), &before);
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
