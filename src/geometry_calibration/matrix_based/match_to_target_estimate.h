// What the estimators of target matching share: the pictures they work on,
// the result record they return to the driver, the difference error by which
// results are scored, and the sub-pixel refinement by direct alignment.
//
// All estimators work in the work system of a module: the target's picture
// scaled by the work scale, and the module's picture warped onto it by the
// module's current placement (so the current placement is the identity).
// Homographies map module work pixels to target work pixels.
#pragma once

#include <atomic>
#include <cfloat>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>
#include <spdlog/logger.h>

namespace GeometryCalibration {
namespace MatrixBased {

// The largest finite float: the error of a failed estimate, never accepted.
constexpr float kFailedError = FLT_MAX;

struct EstimateResult {
  cv::Matx33f homography = cv::Matx33f::eye();  // module work pixels -> target work pixels
  // Feature matcher: feature pairs the homography was estimated from;
  // optical flow: flow samples kept; grid estimator: grid points moved;
  // iterative estimator: matching rounds run. 0 for a failed estimate.
  std::int32_t value = 0;
  float error = kFailedError;  // percent of target pixels that differ (see differenceError), or kFailedError
  // Feature estimators only: the target work pixels of the feature pairs that
  // agree with `homography` (within kSupportDistance) and their distances.
  bool matchedFeatures = false;
  std::vector<cv::Point2f> support;
  std::vector<float> supportDistances;
};

// Work pixels within which a feature pair agrees with a homography.
constexpr float kSupportDistance = 3.0f;
// What the pictures must show for an estimate to count as supported: this
// many feature pairs that agree with it, and this normalised
// cross-correlation over the overlap after it (see overlapCorrelation).
constexpr int kLeastSupport = 12;
constexpr double kLeastCorrelation = 0.5;

// The pictures of one module in its work system. `module` and `target` are
// BGR 8-bit of the same size; `moduleMask` marks where the warped module
// picture has content (non-zero), `targetMask` where the target's picture
// has (empty: everywhere). A picture shows nothing where it is black in
// every channel (an uncovered corner of a view, the border of a fisheye
// circle, a panorama's empty part): such pixels are left out of every cost.
struct WorkPictures {
  cv::Mat module, target, moduleMask, targetMask;
  cv::Mat moduleGrey, targetGrey;  // filled by prepareGrey()
  cv::Mat targetBrighter;          // targetGrey > 1, filled by prepareGrey() (see differenceError)
  int targetBrighterCount = 0;     // its non-zero pixels
  void prepareGrey();
  void prepareModuleGrey();
  void prepareTargetGrey();
};

// Context every estimator receives from the driver.
struct EstimatorContext {
  std::shared_ptr<spdlog::logger> logger;
  const std::atomic<bool>* abort = nullptr;  // the calibrator's abort flag (may be null)
  bool aborted() const { return abort != nullptr && abort->load(); }
};

// The share of differing pixels after warping: the module picture is warped
// with `h` onto the target's frame (linear interpolation, black border), the
// warped picture is subtracted from the target (saturating), the difference
// turned grey and thresholded at 1 grey level, and the error is the mean of
// the binary picture as a percentage (0: nowhere is the target brighter than
// the warped module by more than one level; 100: everywhere). kFailedError
// for empty pictures or a non-finite homography.
float differenceError(const cv::Mat& module, const cv::Mat& target, const cv::Matx33d& h);
// The same number for the pictures of a module (module, target and
// targetGrey at one size), warping only the part of the target the module
// is drawn on.
float differenceError(const WorkPictures& pictures, const cv::Matx33d& h);

// The error of the iterative mode: the mean absolute grey difference (grey
// levels, 0..255) between the target and the module placed by `h`, over the
// target pixels the module shows (both masks), after the module's mean grey
// there is scaled to the target's. Unlike differenceError it does not grow
// with the target area the module does not cover: a module placed exactly
// scores the pictures' noise and lens differences (a few levels), one a few
// pixels off some tens. kFailedError when they share under 1 % of the
// target's pixels. Needs prepareGrey().
float overlapDifference(const WorkPictures& pictures, const cv::Matx33d& h);

// Refines `estimate` (module work -> target work pixels) at the pictures' full
// resolution by direct alignment (homography with gain and offset) and
// returns the better of the estimate and the refined homography, judged by
// the mean squared residual after gain and offset; `improved` tells which.
cv::Matx33d refineHomography(const WorkPictures& pictures, const cv::Matx33d& estimate, bool* improved = nullptr,
                             int levels = 3);

bool isUsableHomography(const cv::Matx33d& h);

// The part of the target (work pixels) on which `h` draws the module
// picture's content (the box of moduleMask, or the whole picture), widened
// by `margin` pixels and cut to the target; the whole target when part of
// the content's box is sent to infinity; empty when it is drawn off the
// target or the module shows nothing.
cv::Rect footprintOnTarget(const WorkPictures& pictures, const cv::Matx33d& h, int margin);

// 255 where a BGR picture shows something (not black in every channel), a
// pixel in from what it does not; empty when it shows something everywhere.
cv::Mat contentMask(const cv::Mat& picture);

// Fills `support` and `supportDistances` of `result` from `pairs` (module
// work pixel, target work pixel) under `result.homography`.
void collectSupport(const std::vector<std::pair<cv::Point2f, cv::Point2f>>& pairs, EstimateResult& result);

// The target work pixels that both pictures show once the module's is
// warped by `h` (module work -> target work pixels), a few pixels in from
// every outline (255; empty for an unusable homography or a module drawn
// off the target), over `box`: the part of the target the module is drawn
// on (no pixel outside it is shown by both).
cv::Mat sharedPixels(const WorkPictures& pictures, const cv::Matx33d& h, cv::Rect& box);

// Normalised cross-correlation of the target's grey picture and the module's
// grey picture warped by `h` (module work -> target work pixels), over the
// pixels both cover (both lightly smoothed, so sensor noise weighs little).
// NaN when they share fewer than 400 pixels or one of them is flat there;
// `overlap` receives the number of shared pixels.
double overlapCorrelation(const WorkPictures& pictures, const cv::Matx33d& h, int* overlap = nullptr);

}  // namespace MatrixBased
}  // namespace GeometryCalibration
