// Scoring and refinement shared by the target-matching estimators.
#include "geometry_calibration/matrix_based/match_to_target_estimate.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/direct_alignment.h"

namespace GeometryCalibration {
namespace MatrixBased {

namespace {

// Pixels around the module's content the refinement keeps.
constexpr int kRefineMargin = 32;
// Pixels around where the module is drawn that the overlap and the
// difference error look at: the warp's interpolation reaches a pixel past
// the content's box, whose mask is a pixel in from the content.
constexpr int kOutlineMargin = 8;

cv::Matx33d translation(double x, double y) { return cv::Matx33d(1, 0, x, 0, 1, y, 0, 0, 1); }

cv::Rect widened(const cv::Rect& r, int margin) {
  return cv::Rect(r.x - margin, r.y - margin, r.width + 2 * margin, r.height + 2 * margin);
}

// The box of the module picture's content (work pixels).
cv::Rect contentBox(const WorkPictures& pictures) {
  const cv::Size size = pictures.moduleGrey.empty() ? pictures.module.size() : pictures.moduleGrey.size();
  return pictures.moduleMask.empty() ? cv::Rect(cv::Point(), size) : cv::boundingRect(pictures.moduleMask);
}

}  // namespace

void WorkPictures::prepareGrey() {
  prepareModuleGrey();
  prepareTargetGrey();
}

void WorkPictures::prepareModuleGrey() {
  if (!module.empty()) cv::cvtColor(module, moduleGrey, cv::COLOR_BGR2GRAY);
}

void WorkPictures::prepareTargetGrey() {
  if (!target.empty()) cv::cvtColor(target, targetGrey, cv::COLOR_BGR2GRAY);
  targetBrighter = targetGrey.empty() ? cv::Mat() : cv::Mat(targetGrey > 1);
  targetBrighterCount = targetBrighter.empty() ? 0 : cv::countNonZero(targetBrighter);
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

cv::Mat sharedPixels(const WorkPictures& pictures, const cv::Matx33d& h, cv::Rect& box) {
  box = cv::Rect();
  if (pictures.moduleGrey.empty() || pictures.targetGrey.empty() || !isUsableHomography(h)) return cv::Mat();
  // Only where the module is drawn: every other pixel is outside its outline.
  box = footprintOnTarget(pictures, h, kOutlineMargin);
  if (box.empty()) return cv::Mat(0, 0, CV_8U);
  const cv::Mat validity = pictures.moduleMask.empty()
                               ? cv::Mat(pictures.moduleGrey.size(), CV_8U, cv::Scalar(255))
                               : pictures.moduleMask;
  cv::Mat covered;
  cv::warpPerspective(validity, covered, cv::Mat(translation(-box.x, -box.y) * h), box.size(), cv::INTER_NEAREST,
                      cv::BORDER_CONSTANT);
  if (!pictures.targetMask.empty()) covered &= pictures.targetMask(box);
  // Away from the outline, where smoothing would mix in the black border.
  cv::erode(covered, covered, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(7, 7)));
  return covered;
}

double overlapCorrelation(const WorkPictures& pictures, const cv::Matx33d& h, int* overlap) {
  constexpr int kFewestShared = 400;
  constexpr double kSmoothing = 1.0;  // pixels, Gaussian sigma
  if (overlap != nullptr) *overlap = 0;
  const double nan = std::numeric_limits<double>::quiet_NaN();
  cv::Rect box;
  const cv::Mat covered = sharedPixels(pictures, h, box);
  if (covered.empty()) return nan;
  const int shared = cv::countNonZero(covered);
  if (overlap != nullptr) *overlap = shared;
  if (shared < kFewestShared) return nan;
  cv::Mat warped;
  cv::warpPerspective(pictures.moduleGrey, warped, cv::Mat(translation(-box.x, -box.y) * h), box.size(),
                      cv::INTER_LINEAR, cv::BORDER_CONSTANT);
  cv::Mat a, b;
  cv::GaussianBlur(pictures.targetGrey(box), a, cv::Size(), kSmoothing);
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

float differenceError(const WorkPictures& pictures, const cv::Matx33d& h) {
  const cv::Mat& module = pictures.module;
  const cv::Mat& target = pictures.target;
  if (module.empty() || target.empty() || !isUsableHomography(h)) return kFailedError;
  const cv::Mat& brighter = pictures.targetBrighter;
  if (target.channels() != 3 || module.size() != target.size() || brighter.size() != target.size())
    return differenceError(module, target, h);
  // Where the module is not drawn the warped picture is black, and the
  // difference is the target itself: those target pixels differ where
  // their grey exceeds 1, which is counted once per target. Only the part
  // the module is drawn on is warped and compared.
  const cv::Rect box = footprintOnTarget(pictures, h, kOutlineMargin);
  int differing = pictures.targetBrighterCount - (box.empty() ? 0 : cv::countNonZero(brighter(box)));
  if (!box.empty()) {
    cv::Mat warped, difference, grey;
    cv::warpPerspective(module, warped, cv::Mat(translation(-box.x, -box.y) * h), box.size(), cv::INTER_LINEAR,
                        cv::BORDER_CONSTANT);
    cv::subtract(target(box), warped, difference);
    cv::cvtColor(difference, grey, cv::COLOR_BGR2GRAY);
    differing += cv::countNonZero(grey > 1);
  }
  const double error = double(differing) * 255.0 * (1.0 / double(target.total())) / 255.0 * 100.0;
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

cv::Rect footprintOnTarget(const WorkPictures& pictures, const cv::Matx33d& h, int margin) {
  const cv::Size target = pictures.targetGrey.empty() ? pictures.target.size() : pictures.targetGrey.size();
  const cv::Rect whole(0, 0, target.width, target.height);
  const cv::Rect content = contentBox(pictures);
  if (content.empty() || !isUsableHomography(h)) return cv::Rect();
  // The content box's outer edges (pixel centres on integers).
  const double x0 = content.x - 0.5, y0 = content.y - 0.5;
  const double x1 = content.x + content.width - 0.5, y1 = content.y + content.height - 0.5;
  double left = std::numeric_limits<double>::max(), top = left, right = -left, bottom = -left;
  for (const cv::Point2d& corner : {cv::Point2d(x0, y0), cv::Point2d(x1, y0), cv::Point2d(x1, y1), cv::Point2d(x0, y1)}) {
    const cv::Vec3d q = h * cv::Vec3d(corner.x, corner.y, 1.0);
    if (!(q[2] > 1e-9)) return whole;  // part of the outline goes to infinity
    left = std::min(left, q[0] / q[2]), right = std::max(right, q[0] / q[2]);
    top = std::min(top, q[1] / q[2]), bottom = std::max(bottom, q[1] / q[2]);
  }
  constexpr double kFar = 1e7;  // pixels; beyond any picture
  if (!(right > -kFar && left < kFar && bottom > -kFar && top < kFar)) return cv::Rect();
  const int x = int(std::floor(std::max(left, -kFar))) - margin, y = int(std::floor(std::max(top, -kFar))) - margin;
  const int r = int(std::ceil(std::min(right, kFar))) + margin + 1, b = int(std::ceil(std::min(bottom, kFar))) + margin + 1;
  return cv::Rect(x, y, r - x, b - y) & whole;
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
  // Only the module's content and the part of the target it is drawn on
  // (with a margin wider than the smoothing of the coarsest level and the
  // moves of a refinement) take part: on a wide target that is a fraction
  // of its pixels. Both pictures are cut to those parts, the homography
  // moved with them.
  const cv::Rect moving = widened(contentBox(pictures), kRefineMargin) & cv::Rect(cv::Point(), pictures.moduleGrey.size());
  const cv::Rect fixed = footprintOnTarget(pictures, estimate, kRefineMargin);
  if (moving.empty() || fixed.empty()) return estimate;
  auto cut = [](const cv::Mat& picture, const cv::Rect& box) { return picture.empty() ? picture : picture(box); };
  alignment.setFixedMask(cut(pictures.targetMask, fixed));
  // The alignment maps target pixels to module pixels: the inverse.
  const cv::Matx33d start = translation(-moving.x, -moving.y) * estimate.inv() * translation(fixed.x, fixed.y);
  AlignmentResult before;
  AlignmentResult after = alignment.align(cut(pictures.targetGrey, fixed), cut(pictures.moduleGrey, moving),
                                          cut(pictures.moduleMask, moving), start, cv::Rect(), &before);
  if (!after.ok) return estimate;
  after.warp = translation(moving.x, moving.y) * after.warp * translation(-fixed.x, -fixed.y);
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
