// The driver loop of target matching.
#include "geometry_calibration/matrix_based/match_to_target_state.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <exception>
#include <iterator>
#include <limits>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/feature_matcher.h"
#include "geometry_calibration/matrix_based/grid_estimator.h"
#include "geometry_calibration/matrix_based/iterative_estimator.h"
#include "geometry_calibration/matrix_based/optical_flow_estimator.h"
#include "logging/logger_setup.h"
#include "orbivane/geometry_calibration/calibrator_options.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/rendering/module_drawing.h"
#include "orbivane/utils/wide_text.h"

namespace GeometryCalibration {
namespace MatrixBased {
namespace {

constexpr float kGridAndFlowScale = 1.2f;
// What an estimate must show to be accepted (see match_to_target.h), besides
// kLeastSupport agreeing feature pairs and kLeastCorrelation.
constexpr int kLeastSpreadCells = 4;           // of the overlap's 3 x 3 cells holding an agreeing pair
constexpr double kClearCorrelation = 0.9;      // over kClearOverlapShare: supported wherever the pairs lie
constexpr double kClearOverlapShare = 0.25;    // of the module picture's content shared with the target's
constexpr double kSmallestOverlapShare = 0.1;  // share of the module's picture on the target
constexpr double kLeastTexture = 2.0;          // grey levels of standard deviation; below: a blank picture
constexpr double kDistortionOffset = 0.5;  // pixels the outline moves in x under the external distortion method
constexpr int kLargestWorkSide = 8192;

std::string narrow(const std::wstring& text) { return Utils::toUtf8(text); }

bool finite(const cv::Matx33d& h) {
  for (int k = 0; k < 9; ++k)
    if (!std::isfinite(h.val[k])) return false;
  return true;
}

// A usable placement: finite and clearly invertible.
bool invertible(const cv::Matx33d& h) {
  if (!finite(h)) return false;
  const double scale = cv::norm(h, cv::NORM_INF);
  return scale > 0.0 && std::fabs(cv::determinant(h)) > 1e-12 * scale * scale * scale;
}

// `matrix` with its planar part (rows and columns 0, 1, 3) replaced by `h`.
Utils::Matrix4x4 withPlanar(Utils::Matrix4x4 matrix, const cv::Matx33d& h) {
  const int index[3] = {0, 1, 3};
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) matrix.set(index[r], index[c], static_cast<float>(h(r, c)));
  return matrix;
}

cv::Matx33d normalised(const cv::Matx33d& h) {
  return std::fabs(h(2, 2)) > 1e-12 ? h * (1.0 / h(2, 2)) : h;
}

cv::Mat pictureOf(const std::shared_ptr<Image::UniversalImageInterface>& image) {
  if (!image) return cv::Mat();
  try {
    return Image::toMat(image);
  } catch (const std::exception&) {
    return cv::Mat();
  }
}

// Why an estimator gave no result, in words.
std::string describeFailure(const EstimateResult& result) {
  if (result.matchedFeatures || result.value == 0) return "too few features could be matched";
  if (!(result.error < FLT_MAX - 1.0f)) return "the estimator found nothing";
  return "mirrored or non-finite estimate";
}

// How the pictures agree after an estimate: the correlation over their
// overlap and the share of the module picture's content in that overlap.
struct Agreement {
  double correlation = std::numeric_limits<double>::quiet_NaN();
  double sharedShare = 0.0;
  cv::Rect overlap;  // target work pixels
  bool clear() const { return correlation >= kClearCorrelation && sharedShare >= kClearOverlapShare; }
};

Agreement agreementAfter(const WorkPictures& pictures, const cv::Matx33d& h) {
  Agreement agreement;
  agreement.correlation = overlapCorrelation(pictures, h);
  cv::Rect box;
  const cv::Mat shared = sharedPixels(pictures, h, box);
  if (shared.empty()) return agreement;
  const int content = pictures.moduleMask.empty() ? pictures.moduleGrey.rows * pictures.moduleGrey.cols
                                                  : cv::countNonZero(pictures.moduleMask);
  agreement.sharedShare = content > 0 ? double(cv::countNonZero(shared)) / content : 0.0;
  agreement.overlap = cv::boundingRect(shared) + box.tl();
  return agreement;
}

// Whether the feature pairs support an estimate: enough of them agree with
// it, and they are spread over the overlap after it (at least
// kLeastSpreadCells of its 3 x 3 cells hold one), unless the pictures
// clearly agree after the estimate, which settles where it is whatever
// part of the overlap the features came from (a sky or a wall holds few).
// Empty when they do, or when the estimator matched no features; fills the
// verdict's pair count.
std::string supportProblem(const EstimateResult& result, const Agreement& agreement, ModuleReport& verdict) {
  if (!result.matchedFeatures) return std::string();
  verdict.supportingPairs = static_cast<int>(result.support.size());
  if (verdict.supportingPairs < kLeastSupport) {
    return "only " + std::to_string(verdict.supportingPairs) + " feature pairs agree with the estimate";
  }
  if (agreement.clear()) return std::string();
  const cv::Rect box = agreement.overlap;
  if (box.empty()) return "no overlap with the target";
  bool cell[9] = {};
  for (const auto& p : result.support) {
    const int cx = std::clamp(static_cast<int>((p.x - box.x) * 3.0 / box.width), 0, 2);
    const int cy = std::clamp(static_cast<int>((p.y - box.y) * 3.0 / box.height), 0, 2);
    cell[cy * 3 + cx] = true;
  }
  const int cells = static_cast<int>(std::count(std::begin(cell), std::end(cell), true));
  if (cells < kLeastSpreadCells) {
    return "the agreeing feature pairs cover only " + std::to_string(cells) + " of 9 cells of the overlap";
  }
  return std::string();
}

// The largest movement of the module picture's corners on the target's
// picture between two placements, in target pixels.
double largestCornerMove(const cv::Matx33d& before, const cv::Matx33d& after, const cv::Matx33d& targetPlanar,
                         cv::Size module, cv::Size targetSize) {
  const cv::Matx33d toTarget = OrbivaneGeometry::textureToPixels(targetSize.width, targetSize.height) *
                               targetPlanar.inv();
  const cv::Matx33d fromModule = OrbivaneGeometry::pixelsToTexture(module.width, module.height);
  double largest = 0.0;
  for (const cv::Point2d corner : {cv::Point2d(0, 0), cv::Point2d(module.width, 0),
                                   cv::Point2d(module.width, module.height), cv::Point2d(0, module.height)}) {
    const cv::Vec3d a = toTarget * before * fromModule * cv::Vec3d(corner.x, corner.y, 1.0);
    const cv::Vec3d b = toTarget * after * fromModule * cv::Vec3d(corner.x, corner.y, 1.0);
    largest = std::max(largest, std::hypot(a[0] / a[2] - b[0] / b[2], a[1] / a[2] - b[1] / b[2]));
  }
  return largest;
}

}  // namespace

MatchToTargetState::MatchToTargetState(const CameraDescription::Orbivane& cameraIn, Images imagesIn)
    : camera(cameraIn),
      images(std::move(imagesIn)),
      logger(Utils::calibratorLogger("MatrixBasedMatchToBackground")),
      distortionMethod(distortionMethodFlag(cameraIn)) {}

bool MatchToTargetState::distortionMethodFlag(const CameraDescription::Orbivane& cam) {
  for (const auto& module : cam.modules()) {
    if (!module) continue;
    for (const auto& shader : module->shaders()) {
      const std::string* value = shader.parameter("i_ps_distortion_ext_method");
      if (value == nullptr) continue;
      try {
        if (std::stoi(*value) != 0) return true;
      } catch (const std::exception&) {
      }
    }
  }
  return false;
}

void MatchToTargetState::setUpProgress(const std::list<std::wstring>& names) {
  const auto n = static_cast<std::int64_t>(names.size());
  switch (mode) {
    case MatchToTarget::kOpticalFlow:
      progressCurrent = 0;
      progressTotal = static_cast<std::int32_t>(static_cast<std::int64_t>(m2nLimit) * n);
      break;
    case MatchToTarget::kFeatureMatching:
      progressCurrent = 0;
      if (!gridEnabled) {
        progressTotal = static_cast<std::int32_t>(2 * n);
      } else {
        progressTotal = 0;
        for (const auto& [module, grid] : grids) {
          if (std::find(names.begin(), names.end(), module) != names.end())
            progressTotal += grid.columns() * grid.rows() * 4;
        }
      }
      break;
    default:  // modes 1 and 3
      progressTotal = static_cast<std::int32_t>(static_cast<std::int64_t>(m2nLimit) * n);
      progressCurrent = static_cast<std::int32_t>(static_cast<std::int64_t>(m2nLimit - m2nCountdown) * n);
      break;
  }
}

float MatchToTargetState::workScale(double a, double b, double c, double d) {
  double s = 1.0 / ((std::fabs(a) + std::fabs(b) + std::fabs(c) + std::fabs(d)) * 0.5);
  if (mode == MatchToTarget::kOpticalFlow || (mode == MatchToTarget::kFeatureMatching && gridEnabled))
    allowedScale = kGridAndFlowScale;
  if (allowedScale > 0.0f) {
    s = allowedScale;
  } else if (allowedScale < 0.0f) {
    s = 1.0;
  }
  return static_cast<float>(s);
}

double MatchToTargetState::heldWorkScale(double s, cv::Size target) {
  if (target.width < 1 || target.height < 1) return std::numeric_limits<double>::quiet_NaN();
  const double largest = double(kLargestWorkSide) / std::max(target.width, target.height);
  const double smallest = 2.0 / std::min(target.width, target.height);
  if (smallest > largest) return std::numeric_limits<double>::quiet_NaN();
  return std::clamp(s, smallest, largest);
}

bool MatchToTargetState::acceptable(const EstimateResult& result, float best) {
  const cv::Matx33d h(result.homography);
  return result.error < best && result.error < FLT_MAX - 1.0f && finite(h) && cv::determinant(h) > 0.0;
}

void MatchToTargetState::normaliseErrors(std::map<std::wstring, float>& errors, Mode mode) {
  if (errors.empty()) return;
  std::vector<float> sorted;
  for (const auto& entry : errors) sorted.push_back(entry.second);
  std::sort(sorted.begin(), sorted.end());
  const float smallest = sorted.front();
  if (mode == MatchToTarget::kFeatureMatching) {
    const float base = std::max(30.0f, smallest);
    for (auto& entry : errors) {
      const float e = entry.second;
      entry.second = e < 100.0f ? std::max(0.0f, (e - 1.3f * base) / (0.5f * base)) : 10.0f;
    }
  } else if (mode == MatchToTarget::kIterative) {
    const float base = std::max(20.0f, smallest);
    for (auto& entry : errors) {
      const float e = entry.second;
      entry.second = e < 60.0f ? std::max(0.0f, (e - 1.2f * base) / (0.2f * base)) : 10.0f;
    }
  }
}

Utils::Matrix4x4 MatchToTargetState::toWorkSystem(const std::wstring& module, const Utils::Matrix4x4& matrix) const {
  const auto it = workSystems.find(module);
  if (it == workSystems.end()) return withPlanar(matrix, cv::Matx33d::eye());
  const cv::Matx33d h = it->second.forwardLeft * OrbivaneGeometry::planarHomography(matrix) * it->second.forwardRight;
  return withPlanar(matrix, normalised(h));
}

Utils::Matrix4x4 MatchToTargetState::toResult(const std::wstring& module, const Utils::Matrix4x4& matrix) const {
  const auto it = workSystems.find(module);
  if (it == workSystems.end()) return withPlanar(matrix, cv::Matx33d::eye());
  const cv::Matx33d h =
      it->second.backwardLeft * OrbivaneGeometry::planarHomography(matrix) * it->second.backwardRight;
  return withPlanar(matrix, normalised(h));
}

void MatchToTargetState::report(const std::string& text, AdvStepInfo info) {
  if (!callback) return;
  // The total follows the Part's rule per mode; a module it does not count
  // (mode 0 with grid: a listed module without a grid) keeps the bar at its
  // end instead of running past it.
  progressCurrent = std::min(progressCurrent + 1, std::max(progressTotal, 0));
  callback(progressCurrent, progressTotal, text, std::move(info));
}

void MatchToTargetState::calibrateModule(const std::wstring& name, const cv::Mat& targetPicture,
                                         const cv::Matx33d& targetPlanar) {
  ModuleReport& verdict = reports[name];
  verdict = ModuleReport();
  verdict.status = ModuleStatus::failed;
  Placement placed;
  if (!placeOnTarget(name, targetPicture, targetPlanar, placed, verdict)) return;
  WorkPictures pictures;
  if (!prepareWorkPictures(name, targetPicture, placed, pictures, verdict)) return;
  const EstimateResult result = runEstimator(name, pictures, placed);
  results[name] = result;
  const Judgement judged = judge(name, result, pictures, placed, verdict);
  writeBack(name, result, judged, targetPicture, targetPlanar, placed, verdict);
}

bool MatchToTargetState::placeOnTarget(const std::wstring& name, const cv::Mat& targetPicture,
                                       const cv::Matx33d& targetPlanar, Placement& placed, ModuleReport& verdict) {
  if (!usableModule(name, targetPicture, placed, verdict)) return false;
  // The module's homography into the target's pixels, and the work scale.
  const cv::Mat& modulePicture = placed.modulePicture;
  const cv::Matx33d pixelsT = OrbivaneGeometry::textureToPixels(targetPicture.cols, targetPicture.rows);
  const cv::Matx33d textureT = OrbivaneGeometry::pixelsToTexture(targetPicture.cols, targetPicture.rows);
  const cv::Matx33d textureM = OrbivaneGeometry::pixelsToTexture(modulePicture.cols, modulePicture.rows);
  const cv::Matx33d h0 = normalised(pixelsT * targetPlanar.inv() * placed.modulePlanar * textureM);
  if (!invertible(h0)) {
    logger->error("Module {} has a singular or non-finite Matrix; the module failed", narrow(name));
    verdict.reason = "no usable placement on the target (singular, or far outside it)";
    return false;
  }
  if (!chooseWorkSize(name, h0, targetPicture.size(), placed, verdict)) return false;
  // Target pixels -> work pixels, as resize maps pixel centres.
  const double sx = placed.sx, sy = double(placed.workSize.height) / targetPicture.rows;
  const cv::Matx33d scale(sx, 0, 0.5 * (sx - 1.0), 0, sy, 0.5 * (sy - 1.0), 0, 0, 1);
  if (!choosePrewarp(name, scale * h0, placed, verdict)) return false;

  WorkSystem& system = placed.system;
  system.backwardLeft = targetPlanar * textureT * scale.inv();
  system.backwardRight = placed.prewarp * textureM.inv();
  system.forwardLeft = system.backwardLeft.inv();
  system.forwardRight = system.backwardRight.inv();
  workSystems[name] = system;
  return true;
}

bool MatchToTargetState::usableModule(const std::wstring& name, const cv::Mat& targetPicture, Placement& placed,
                                      ModuleReport& verdict) {
  const auto module = camera.findModule(name);
  placed.previous = module->matrixGeometry()->matrix();
  placed.modulePicture = pictureOf(images.find(name)->second);
  placed.drawn = OrbivaneRendering::drawnBeyondMatrix(*module);
  const cv::Mat& modulePicture = placed.modulePicture;
  if (modulePicture.empty() || modulePicture.cols < 2 || modulePicture.rows < 2) {
    logger->error("Module {} has no usable Image; the module failed", narrow(name));
    verdict.reason = modulePicture.empty() ? "no usable picture" : "picture too small (under 2x2 pixels)";
    return false;
  }
  if (targetPicture.empty()) {
    logger->error("Module {}: the target {} has no usable Image or Matrix; the module failed", narrow(name),
                  narrow(target));
    verdict.reason = "the target " + narrow(target) + " has no usable picture or matrix";
    return false;
  }
  placed.modulePlanar = OrbivaneGeometry::planarHomography(placed.previous);
  if (!invertible(placed.modulePlanar)) {
    logger->error("Module {} has a singular or non-finite Matrix; the module failed", narrow(name));
    verdict.reason = placed.previous.isFinite() ? "singular matrix" : "non-finite matrix";
    return false;
  }
  if (!(cv::determinant(placed.modulePlanar) > 0.0)) {
    logger->error("Module {} has a mirrored Matrix; the module failed", narrow(name));
    verdict.reason = "mirrored matrix";
    return false;
  }
  return true;
}

bool MatchToTargetState::chooseWorkSize(const std::wstring& name, const cv::Matx33d& h0, cv::Size targetSize,
                                        Placement& placed, ModuleReport& verdict) {
  double s = workScale(h0(0, 0), h0(0, 1), h0(1, 0), h0(1, 1));
  if (!std::isfinite(s) || !(s > 0.0)) {
    logger->error("Module {}: no usable work scale ({}); the module failed", narrow(name), s);
    verdict.reason = "no usable work scale";
    return false;
  }
  // The work picture is held to what can be allocated (kLargestWorkSide a
  // side) and to at least 2 pixels a side; the run says once when it holds it.
  const double held = heldWorkScale(s, targetSize);
  if (!std::isfinite(held)) {
    logger->error("Module {}: the target's {}x{} picture has no usable work size; the module failed", narrow(name),
                  targetSize.width, targetSize.height);
    verdict.reason = "the target's picture has no usable work size";
    return false;
  }
  if (held != s) {
    if (!workScaleHeldLogged) {
      logger->warn("Work scale {} gives a {:.0f}x{:.0f} work picture; working at {} instead", s, targetSize.width * s,
                   targetSize.height * s, held);
      workScaleHeldLogged = true;
    }
    s = held;
  }
  placed.scale = s;
  placed.workSize = cv::Size(std::max(1, cvRound(targetSize.width * s)), std::max(1, cvRound(targetSize.height * s)));
  placed.sx = double(placed.workSize.width) / targetSize.width;
  return true;
}

bool MatchToTargetState::choosePrewarp(const std::wstring& name, const cv::Matx33d& placement, Placement& placed,
                                       ModuleReport& verdict) {
  // The pre-warp G: module pixels -> work pixels, from the picture's outline.
  // A module the viewer draws through a UV grid or a lens shader is drawn so
  // onto the target's work frame instead: its working copy is what the
  // viewer shows, and the estimate is a correction on top of all of it.
  const cv::Mat& modulePicture = placed.modulePicture;
  std::vector<cv::Point2f> outline = {{0.f, 0.f},
                                      {float(modulePicture.cols), 0.f},
                                      {float(modulePicture.cols), float(modulePicture.rows)},
                                      {0.f, float(modulePicture.rows)}};
  cv::perspectiveTransform(outline, placed.landed, cv::Matx33f(placement));
  placed.prewarp = placement;
  if (distortionMethod && !placed.drawn) {
    for (auto& p : outline) p.x += static_cast<float>(kDistortionOffset);
    const cv::Mat g = cv::getPerspectiveTransform(outline, placed.landed);
    cv::Mat converted;
    g.convertTo(converted, CV_64F);
    placed.prewarp = cv::Matx33d(converted.ptr<double>());
  }
  if (!invertible(placed.prewarp) || !(cv::determinant(placed.prewarp) > 0.0)) {
    logger->error("Module {} has a singular or mirrored placement on the target; the module failed", narrow(name));
    verdict.reason = "singular or mirrored placement on the target";
    return false;
  }
  return true;
}

namespace {

// The frame's pixels a picture of `size` warped by `h` can reach (its
// corners' box, two pixels wider for the interpolation); the whole frame
// when a corner falls behind the horizon.
cv::Rect landingBox(const cv::Matx33d& h, cv::Size size, cv::Size frame) {
  const cv::Rect whole(cv::Point(), frame);
  std::vector<cv::Point2d> corners;
  for (const cv::Point2d c : {cv::Point2d(0, 0), cv::Point2d(size.width, 0), cv::Point2d(size.width, size.height),
                              cv::Point2d(0, size.height)}) {
    const cv::Vec3d q = h * cv::Vec3d(c.x, c.y, 1.0);
    if (!(q[2] > 1e-9)) return whole;
    corners.emplace_back(q[0] / q[2], q[1] / q[2]);
  }
  double left = 1e300, top = 1e300, right = -1e300, bottom = -1e300;
  for (const auto& c : corners) {
    left = std::min(left, c.x), right = std::max(right, c.x), top = std::min(top, c.y), bottom = std::max(bottom, c.y);
  }
  if (!(right >= 0.0 && bottom >= 0.0 && left <= frame.width && top <= frame.height)) return cv::Rect();
  const double x0 = std::max(0.0, std::floor(left) - 2.0), y0 = std::max(0.0, std::floor(top) - 2.0);
  const double x1 = std::min(double(frame.width), std::ceil(right) + 2.0);
  const double y1 = std::min(double(frame.height), std::ceil(bottom) + 2.0);
  return cv::Rect(int(x0), int(y0), int(x1 - x0), int(y1 - y0)) & whole;
}

}  // namespace

bool MatchToTargetState::prepareWorkPictures(const std::wstring& name, const cv::Mat& targetPicture,
                                             const Placement& placed, WorkPictures& pictures, ModuleReport& verdict) {
  // Working copies; pixels a picture shows nothing at (black in every
  // channel) are marked as such in its mask.
  targetAtWorkSize(targetPicture, placed, pictures);
  const auto imageIt = images.find(name);
  if (placed.drawn) {
    CameraDescription::OrbivaneModule shown(*camera.findModule(name));
    shown.setImage(imageIt->second);
    const cv::Matx33d onFrame =
        OrbivaneGeometry::pixelsToTexture(placed.workSize.width, placed.workSize.height) * placed.system.backwardRight;
    auto drawing = OrbivaneRendering::drawModuleOnFrame(shown, onFrame, pictures.target.size());
    if (!drawing) {
      logger->error("Module {} cannot be drawn on the target: {}; the module failed", narrow(name), drawing.error());
      verdict.reason = "cannot be drawn on the target: " + drawing.error();
      return false;
    }
    drawing.value().colour.convertTo(pictures.module, CV_8UC3);
    pictures.moduleMask = drawing.value().inside;
    const cv::Mat shows = contentMask(pictures.module);
    if (!shows.empty()) pictures.moduleMask &= shows;
  } else {
    // Warped where it lands only (the rest of the frame shows nothing of it).
    const cv::Size frame = pictures.target.size();
    const cv::Rect lands = landingBox(placed.prewarp, placed.modulePicture.size(), frame);
    const cv::Mat intoBox = cv::Mat(cv::Matx33d(1, 0, -lands.x, 0, 1, -lands.y, 0, 0, 1) * placed.prewarp);
    pictures.module = cv::Mat::zeros(frame, placed.modulePicture.type());
    pictures.moduleMask = cv::Mat::zeros(frame, CV_8U);
    cv::Mat shows = contentMask(placed.modulePicture);
    if (shows.empty()) shows = cv::Mat(placed.modulePicture.size(), CV_8U, cv::Scalar(255));
    if (!lands.empty()) {
      cv::Mat moduleBox = pictures.module(lands), maskBox = pictures.moduleMask(lands);
      cv::warpPerspective(placed.modulePicture, moduleBox, intoBox, lands.size(), cv::INTER_LINEAR,
                          cv::BORDER_CONSTANT);
      cv::warpPerspective(shows, maskBox, intoBox, lands.size(), cv::INTER_NEAREST, cv::BORDER_CONSTANT);
    }
  }
  pictures.prepareModuleGrey();
  workingCopies[name] = {pictures.module, pictures.target};

  // How much of the module's picture lands on the target's, and whether it
  // shows anything to match.
  const double outlineArea = std::fabs(cv::contourArea(placed.landed));
  const int covered = cv::countNonZero(pictures.moduleMask);
  verdict.overlapShare = outlineArea > 0.0 ? std::min(1.0, covered / outlineArea) : 0.0;
  if (covered < 16) {
    logger->error("Module {} does not overlap the target {}; the module failed", narrow(name), narrow(target));
    verdict.reason = "no overlap with the target";
    return false;
  }
  if (verdict.overlapShare < kSmallestOverlapShare) {
    logger->error("Module {}: only {:.1f} % of its picture lies on the target {}; nothing to match", narrow(name),
                  100.0 * verdict.overlapShare, narrow(target));
    char text[96];
    std::snprintf(text, sizeof text, "only %.1f %% of its picture overlaps the target", 100.0 * verdict.overlapShare);
    verdict.reason = text;
    errors[name] = FLT_MAX;  // as an estimate that failed: the module went through the driver
    return false;
  }
  cv::Scalar mean, deviation;
  cv::meanStdDev(pictures.moduleGrey, mean, deviation, pictures.moduleMask);
  if (!(deviation[0] >= kLeastTexture)) {
    logger->error("Module {} shows a blank picture; nothing to match", narrow(name));
    verdict.reason = "blank picture (no texture)";
    errors[name] = FLT_MAX;
    return false;
  }
  return true;
}

void MatchToTargetState::targetAtWorkSize(const cv::Mat& targetPicture, const Placement& placed,
                                          WorkPictures& pictures) {
  const int interpolation = placed.scale < 1.0 ? cv::INTER_AREA : cv::INTER_CUBIC;
  TargetAtWork& made = targetAtWork;
  if (made.source.data != targetPicture.data || made.source.size() != targetPicture.size() ||
      made.size != placed.workSize || made.interpolation != interpolation) {
    made = TargetAtWork();
    made.source = targetPicture;
    made.size = placed.workSize;
    made.interpolation = interpolation;
    WorkPictures& p = made.pictures;
    if (placed.workSize == targetPicture.size()) {
      p.target = targetPicture;
    } else {
      cv::resize(targetPicture, p.target, placed.workSize, 0, 0, interpolation);
    }
    p.targetMask = contentMask(p.target);
    p.prepareTargetGrey();
  }
  pictures.target = made.pictures.target;
  pictures.targetMask = made.pictures.targetMask;
  pictures.targetGrey = made.pictures.targetGrey;
  pictures.targetBrighter = made.pictures.targetBrighter;
  pictures.targetBrighterCount = made.pictures.targetBrighterCount;
}

EstimateResult MatchToTargetState::runEstimator(const std::wstring& name, const WorkPictures& pictures,
                                                const Placement& placed) {
  // The estimator of the mode; the start is the current placement.
  const cv::Matx33f start = cv::Matx33f::eye();
  EstimatorContext context{logger, &abort};
  EstimateResult result;
  switch (mode) {
    case MatchToTarget::kFeatureMatching:
      if (!gridEnabled) {
        result = FeatureMatcher(context).estimate(pictures, start, 10000, 0.0f, 0.0f);
      } else {
        // A listed module without a grid of its own from initGrid is matched
        // with an empty one, which the estimator leaves as it is; its own UV
        // grid stays untouched.
        Utils::UVGrid none;
        const auto own = grids.find(name);
        Utils::UVGrid& grid = own != grids.end() ? own->second : none;
        GridEstimator estimator(context, [this, &name] { report("Refining Grid of Module " + narrow(name)); });
        result = estimator.estimate(pictures, start, placed.system.backwardRight, grid, gridDisplacements[name]);
      }
      break;
    case MatchToTarget::kOpticalFlow:
      result = OpticalFlowEstimator(context).estimate(pictures, start);
      break;
    case MatchToTarget::kIterative:
      result = IterativeEstimator(context, m2bLimit).estimate(pictures, start);
      break;
    case MatchToTarget::kKeepMatrix:
    default:
      // No estimator: nothing is estimated, so there is no error either
      // (the result stays at the largest float); the placement is only
      // checked against the pictures.
      result.homography = start;
      break;
  }
  return result;
}

MatchToTargetState::Judgement MatchToTargetState::judge(const std::wstring& name, const EstimateResult& result,
                                                        const WorkPictures& pictures, const Placement& placed,
                                                        ModuleReport& verdict) {
  // The Part's rule first (better than the best error so far, finite, not
  // mirrored), then whether the pictures support the estimate: feature
  // pairs spread over the overlap, and the photometric agreement over the
  // overlap compared with that of the starting placement.
  Judgement judged;
  judged.resultMatrix = placed.previous;
  verdict.startCorrelation = overlapCorrelation(pictures, cv::Matx33d::eye());
  if (mode == MatchToTarget::kKeepMatrix) {
    judged.rejection = "mode 1 runs no estimator";
    return judged;
  }
  if (!acceptable(result, FLT_MAX)) {
    judged.rejection = "no estimate could be made (" + describeFailure(result) + ")";
    return judged;
  }
  const cv::Matx33d work(result.homography);
  Utils::Matrix4x4 candidate;
  if (mode == MatchToTarget::kIterative) {
    // A correction on the surface, applied on top of the previous matrix.
    const cv::Matx33d correction =
        normalised(placed.system.backwardLeft * work * placed.system.backwardRight * placed.modulePlanar.inv());
    judged.resultMatrix = withPlanar(Utils::Matrix4x4::identity(), correction);
    candidate = judged.resultMatrix * placed.previous;
  } else {
    judged.resultMatrix = toResult(name, withPlanar(placed.previous, work));
    candidate = judged.resultMatrix;
  }
  const cv::Matx33d planar = OrbivaneGeometry::planarHomography(candidate);
  if (!candidate.isFinite() || !invertible(planar) || !(cv::determinant(planar) > 0.0)) {
    logger->warn("Module {}: the estimate gives an unusable matrix; kept the previous one", narrow(name));
    judged.rejection = "the estimate gives a singular, mirrored or non-finite matrix";
    return judged;
  }
  const Agreement agreement = agreementAfter(pictures, work);
  judged.rejection = supportProblem(result, agreement, verdict);
  verdict.correlation = agreement.correlation;
  if (!judged.rejection.empty()) return judged;
  if (!(verdict.correlation >= kLeastCorrelation)) {
    char text[128];
    std::snprintf(text, sizeof text, "the pictures do not agree after the estimate (correlation %.2f)",
                  verdict.correlation);
    judged.rejection = text;
  } else if (std::isfinite(verdict.startCorrelation) && verdict.correlation < verdict.startCorrelation) {
    judged.rejection = "the estimate is worse than the starting placement";
  } else {
    judged.estimated = true;
  }
  return judged;
}

void MatchToTargetState::writeBack(const std::wstring& name, const EstimateResult& result, const Judgement& judged,
                                   const cv::Mat& targetPicture, const cv::Matx33d& targetPlanar,
                                   const Placement& placed, ModuleReport& verdict) {
  auto* geometry = camera.findModule(name)->matrixGeometry();
  if (judged.estimated) {
    errors[name] = result.error;
    verdict.status = ModuleStatus::aligned;
    verdict.reason.clear();
    if (mode == MatchToTarget::kIterative) {
      if (!grids.empty() && grids.count(name) != 0) geometry->setUVGrid(grids[name]);
      geometry->setMatrix(judged.resultMatrix * placed.previous);
    } else {
      geometry->setMatrix(judged.resultMatrix);
      if (gridEnabled && !grids.empty() && grids.count(name) != 0) geometry->setUVGrid(grids[name]);
    }
    verdict.movedPx = largestCornerMove(placed.modulePlanar, OrbivaneGeometry::planarHomography(geometry->matrix()),
                                        targetPlanar, placed.modulePicture.size(), targetPicture.size());
    if (result.matchedFeatures && !result.supportDistances.empty()) {
      std::vector<float> distances = result.supportDistances;
      std::nth_element(distances.begin(), distances.begin() + distances.size() / 2, distances.end());
      verdict.residualPx = distances[distances.size() / 2] / placed.sx;
    }
    return;
  }
  errors[name] = FLT_MAX;
  if (verdict.startCorrelation >= kLeastCorrelation) {
    // The starting placement is the better one and the pictures support it:
    // the module stays exactly where it is. No estimate was accepted, so its
    // error is that of a rejected result; the report says it was kept.
    verdict.status = ModuleStatus::kept;
    verdict.correlation = verdict.startCorrelation;
    verdict.reason = "kept in place: " + judged.rejection;
    return;
  }
  std::string rejection = judged.rejection;
  if (mode == MatchToTarget::kKeepMatrix) {
    char text[128];
    std::snprintf(text, sizeof text, "the placement is not supported by the pictures (correlation %.2f)",
                  verdict.startCorrelation);
    rejection = text;
  }
  verdict.status = ModuleStatus::failed;
  verdict.reason = rejection;
  logger->warn("Module {} failed: {}; kept its matrix", narrow(name), rejection);
}

std::string MatchToTargetState::optionsProblem(const std::list<std::wstring>& modules) const {
  MatchOptions settings;
  settings.mode = static_cast<int>(mode);
  settings.m2b = m2bLimit;
  settings.m2n = m2nLimit;
  settings.allowScale = allowedScale;
  if (const auto valid = settings.validate(); !valid) return valid.error();
  if (mode == MatchToTarget::kFeatureMatching && gridEnabled) {
    for (const auto& name : modules) {
      const auto found = grids.find(name);
      if (found == grids.end()) continue;
      const Utils::UVGrid& grid = found->second;
      settings.gridColumns = grid.columns();
      settings.gridRows = grid.rows();
      if (const auto valid = settings.validate(); !valid) return "the grid of " + narrow(name) + ": " + valid.error();
    }
  }
  return std::string();
}

CameraDescription::Orbivane MatchToTargetState::refuseOptions(const std::list<std::wstring>& modules,
                                                              const std::string& problem) {
  logger->error("Target matching: options out of range: {}; no module is matched", problem);
  reports.clear();
  for (const auto& name : modules) {
    ModuleReport& verdict = reports[name];
    verdict.status = ModuleStatus::failed;
    verdict.reason = "options out of range: " + problem;
    verdict.error = FLT_MAX;
    errors[name] = FLT_MAX;
  }
  m2nCountdown = m2nLimit;
  return camera;
}

CameraDescription::Orbivane MatchToTargetState::calibrate(MatchToTarget& self, const std::list<std::wstring>& modules,
                                                          const std::wstring& targetName) {
  target = targetName;
  errors.clear();
  workScaleHeldLogged = false;
  if (const std::string problem = optionsProblem(modules); !problem.empty()) return refuseOptions(modules, problem);
  setUpProgress(modules);

  // The target's picture and matrix, looked up once for the run.
  cv::Mat targetPicture;
  cv::Matx33d targetPlanar = cv::Matx33d::eye();
  {
    const auto targetModule = camera.findModule(target);
    const auto imageIt = images.find(target);
    if (!targetModule) {
      logger->error("Module {} does not exist.. Skipping pmodule", narrow(target));
    } else if (targetModule->matrixGeometry() == nullptr) {
      logger->error("Module {} has no Matrix Geometry.. Skipping pmodule", narrow(target));
    } else if (imageIt == images.end() || !imageIt->second) {
      logger->error("Module {} has no Image.. Skipping pmodule", narrow(target));
    } else {
      targetPlanar = OrbivaneGeometry::planarHomography(targetModule->matrixGeometry()->matrix());
      targetPicture = pictureOf(imageIt->second);
      if (targetPicture.cols < 2 || targetPicture.rows < 2) {
        logger->error("Module {} has no Image.. Skipping pmodule", narrow(target));
        targetPicture.release();
      } else if (!invertible(targetPlanar)) {
        logger->error("Module {} has a singular or non-finite Matrix.. Skipping pmodule", narrow(target));
        targetPicture.release();
      }
    }
  }
  workSystems.clear();

  reports.clear();
  auto skip = [this](const std::wstring& name, ModuleStatus status, const std::string& reason) {
    ModuleReport& verdict = reports[name];
    verdict = ModuleReport();
    verdict.status = status;
    verdict.reason = reason;
  };
  for (const auto& name : modules) {
    if (abort.load()) {
      for (const auto& rest : modules)
        if (reports.count(rest) == 0) skip(rest, ModuleStatus::aborted, "interrupted before this module");
      return camera;
    }
    auto module = camera.findModule(name);
    if (!module) {
      logger->error("Module {} does not exist.. Skipping pmodule", narrow(name));
      skip(name, ModuleStatus::skipped, "no module of that name in the camera");
      continue;
    }
    report("Calibrating Module " + narrow(name));
    if (module->matrixGeometry() == nullptr) {
      logger->error("Module {} has no Matrix Geometry.. Skipping pmodule", narrow(name));
      skip(name, ModuleStatus::failed, "no matrix geometry");
      continue;
    }
    const auto imageIt = images.find(name);
    if (imageIt == images.end() || !imageIt->second) {
      logger->error("Module {} has no Image.. Skipping pmodule", narrow(name));
      skip(name, ModuleStatus::failed, "no picture");
      continue;
    }
    // A module the interrupt came to in the middle is put back as it was:
    // what its estimators returned when stopped says nothing about it.
    const auto before = module->geometry()->clone();
    calibrateModule(name, targetPicture, targetPlanar);
    if (abort.load()) {
      camera.findModule(name)->setGeometry(before->clone());
      errors[name] = FLT_MAX;
      skip(name, ModuleStatus::aborted, "interrupted while this module was calibrated");
    }
    // A module that failed before its estimator could run has the error of
    // a rejected result (its report says why).
    errors.emplace(name, FLT_MAX);
    if (callback) {
      // Mode 0 without grid counts two steps a module (its total is 2 x n):
      // the start and the finish, so that a run that completes ends at its total.
      if (mode == MatchToTarget::kFeatureMatching && !gridEnabled)
        progressCurrent = std::min(progressCurrent + 1, std::max(progressTotal, 0));
      callback(progressCurrent, progressTotal, "Finished Module " + narrow(name),
               AdvStepInfo(std::make_shared<const CameraDescription::Orbivane>(camera)));
    }
  }
  normaliseErrors(errors, mode);
  for (auto& [name, verdict] : reports) {
    const auto it = errors.find(name);
    verdict.error = it == errors.end() ? FLT_MAX : it->second;
  }

  if (!abort.load() && m2nCountdown > 1 && mode == MatchToTarget::kIterative) {
    --m2nCountdown;
    return self.calibrate(std::list<std::wstring>(modules), target);
  }
  m2nCountdown = m2nLimit;
  return camera;
}

}  // namespace MatrixBased
}  // namespace GeometryCalibration
