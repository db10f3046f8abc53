// Grid refinement: a global homography, then a local shift at every grid point.
#include "geometry_calibration/matrix_based/grid_estimator.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/direct_alignment.h"
#include "geometry_calibration/matrix_based/feature_matcher.h"

namespace GeometryCalibration {
namespace MatrixBased {
namespace {

constexpr int kSmallestPatch = 24;      // pixels
constexpr double kGrowth = 1.5;         // patch growth per retry
constexpr double kMostRotation = 3.0;   // degrees
constexpr double kMostError = 0.5;      // 1 - correlation
constexpr double kRadToDeg = 57.29577951308232;

}  // namespace

GridEstimator::GridEstimator(EstimatorContext context, std::function<void()> step)
    : context_(std::move(context)), step_(std::move(step)) {}

bool GridEstimator::measure(const cv::Mat& targetGrey, const cv::Mat& aligned, const cv::Mat& alignedMask,
                            cv::Point2d at, int patch, cv::Point2f& shift) {
  const cv::Rect whole(0, 0, targetGrey.cols, targetGrey.rows);
  AlignmentOptions options;
  options.motion = AlignmentMotion::kAffine;
  options.levels = 2;
  options.iterations = 20;
  DirectAlignment alignment(options);
  double size = std::max<double>(kSmallestPatch, patch);
  for (int attempt = 0; attempt < kTries; ++attempt, size *= kGrowth) {
    const int s = static_cast<int>(std::min<double>(size, std::min(targetGrey.cols, targetGrey.rows)));
    const cv::Rect fixedRect = cv::Rect(cvRound(at.x - s / 2.0), cvRound(at.y - s / 2.0), s, s) & whole;
    if (fixedRect.width < kSmallestPatch / 2 || fixedRect.height < kSmallestPatch / 2) break;
    const int margin = s / 4 + 4;
    const cv::Rect movingRect =
        cv::Rect(fixedRect.x - margin, fixedRect.y - margin, fixedRect.width + 2 * margin,
                 fixedRect.height + 2 * margin) &
        whole;
    const cv::Matx33d start(1, 0, fixedRect.x - movingRect.x, 0, 1, fixedRect.y - movingRect.y, 0, 0, 1);
    const AlignmentResult r =
        alignment.align(targetGrey(fixedRect), aligned(movingRect), alignedMask(movingRect), start);
    double distance = HUGE_VAL, rotation = 0.0, error = 1.0;
    cv::Point2d d(0, 0);
    if (r.ok) {
      const cv::Vec3d c(at.x - fixedRect.x, at.y - fixedRect.y, 1.0);
      const cv::Vec3d m = r.warp * c;
      d = cv::Point2d(m[0] / m[2] + movingRect.x - at.x, m[1] / m[2] + movingRect.y - at.y);
      distance = std::hypot(d.x, d.y);
      rotation = std::atan2(r.warp(1, 0) - r.warp(0, 1), r.warp(0, 0) + r.warp(1, 1)) * kRadToDeg;
      error = 1.0 - r.correlation;
    }
    const bool good = std::isfinite(distance) && distance <= 0.25 * s && std::fabs(rotation) <= kMostRotation &&
                      error <= kMostError;
    if (good) {
      context_.logger->debug("break on try {}", attempt);
      shift = cv::Point2f(static_cast<float>(d.x), static_cast<float>(d.y));
      return true;
    }
    if (attempt + 1 < kTries) {
      context_.logger->debug("diff or error to big: {} {}{}", distance, error, " retry with bigger scale");
      continue;
    }
    if (!(distance <= 0.25 * s)) {
      context_.logger->debug("Skip for dist: \t{}", distance);
    } else if (!(std::fabs(rotation) <= kMostRotation)) {
      context_.logger->debug("Skip for rot: \t{}", rotation);
    } else {
      context_.logger->debug("Skip for err: \t{}", error);
    }
  }
  return false;
}

EstimateResult GridEstimator::estimate(const WorkPictures& pictures, const cv::Matx33f& homography,
                                       const cv::Matx33d& textureToWork, Utils::UVGrid& grid,
                                       std::vector<cv::Point2f>& displacements) {
  const int columns = grid.columns(), rows = grid.rows();
  const int steps = grid.empty() ? 0 : 4 * columns * rows;
  // Slot 0 of the module's steps is the driver's "Calibrating Module" report.
  int taken = 0;
  auto takeStep = [&] {
    if (taken >= steps) return;
    if (taken > 0) step_();
    ++taken;
  };
  auto finishSteps = [&] {
    while (taken < steps) takeStep();
  };

  FeatureMatcher matcher(context_);
  EstimateResult global = matcher.estimate(pictures, homography, kFeatures, 0.0f, 0.0f);
  displacements.assign(grid.empty() ? 0 : std::size_t(columns + 1) * std::size_t(rows + 1), cv::Point2f(0, 0));
  if (!(global.error < kFailedError) || grid.empty() || context_.aborted()) {
    finishSteps();
    return global;
  }
  const cv::Matx33d h(global.homography);
  cv::Mat aligned, alignedMask;
  cv::warpPerspective(pictures.moduleGrey, aligned, cv::Mat(h), pictures.targetGrey.size());
  const cv::Mat ones = pictures.moduleMask.empty() ? cv::Mat(pictures.moduleGrey.size(), CV_8U, cv::Scalar(255))
                                                   : pictures.moduleMask;
  cv::warpPerspective(ones, alignedMask, cv::Mat(h), pictures.targetGrey.size(), cv::INTER_NEAREST);

  // Where each grid point lands on the target (work pixels).
  const cv::Matx33d toTarget = h * textureToWork;
  const cv::Matx33d back = toTarget.inv();
  auto landing = [&](int i, int j) {
    const cv::Vec3d p = toTarget * cv::Vec3d(double(i) / columns, double(j) / rows, 1.0);
    return cv::Point2d(p[0] / p[2], p[1] / p[2]);
  };
  // The patch: the size of a cell on the target.
  const cv::Point2d extent = landing(columns, rows) - landing(0, 0);
  const int patch = static_cast<int>(std::max(std::fabs(extent.x) / columns, std::fabs(extent.y) / rows));

  std::vector<int> state(displacements.size(), 0);  // 0 not measured, 1 measured, 2 skipped
  int moved = 0;
  double distanceSum = 0.0;
  for (int cj = 0; cj < rows; ++cj) {
    for (int ci = 0; ci < columns; ++ci) {
      const int corners[4][2] = {{ci, cj}, {ci + 1, cj}, {ci + 1, cj + 1}, {ci, cj + 1}};
      for (const auto& corner : corners) {
        if (context_.aborted()) {
          finishSteps();
          return global;
        }
        const std::size_t index = std::size_t(corner[1]) * std::size_t(columns + 1) + std::size_t(corner[0]);
        if (state[index] == 0) {
          const cv::Point2d at = landing(corner[0], corner[1]);
          cv::Point2f shift;
          const bool inside = at.x >= 0 && at.y >= 0 && at.x <= pictures.targetGrey.cols - 1 &&
                              at.y <= pictures.targetGrey.rows - 1;
          if (inside && measure(pictures.targetGrey, aligned, alignedMask, at, patch, shift)) {
            state[index] = 1;
            displacements[index] = shift;
            distanceSum += std::hypot(shift.x, shift.y);
            const cv::Vec3d t = back * cv::Vec3d(at.x + shift.x, at.y + shift.y, 1.0);
            if (std::isfinite(t[0] / t[2]) && std::isfinite(t[1] / t[2])) {
              grid.setPoint(corner[0], corner[1],
                            Utils::UVGrid::UVPoint{static_cast<float>(t[0] / t[2]), static_cast<float>(t[1] / t[2])});
              ++moved;
            }
          } else {
            state[index] = 2;
          }
        }
        takeStep();
      }
    }
  }
  context_.logger->info("Mean diff distance: {}", moved > 0 ? distanceSum / moved : 0.0);
  global.value = moved;
  return global;
}

}  // namespace MatrixBased
}  // namespace GeometryCalibration
