// The driver loop of target matching.
#include "geometry_calibration/matrix_based/match_to_target_state.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <exception>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/feature_matcher.h"
#include "geometry_calibration/matrix_based/grid_estimator.h"
#include "geometry_calibration/matrix_based/iterative_estimator.h"
#include "geometry_calibration/matrix_based/optical_flow_estimator.h"
#include "logging/logger_setup.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/utils/wide_text.h"

namespace GeometryCalibration {
namespace MatrixBased {
namespace {

constexpr float kGridAndFlowScale = 1.2f;
constexpr double kSmallestScale = 1.0 / 16.0, kLargestScale = 4.0;  // work scale kept within these
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

bool MatchToTargetState::acceptable(const EstimateResult& result, float best) {
  const cv::Matx33d h(result.homography);
  return result.error < best && result.error < FLT_MAX - 1.0f && finite(h) && cv::determinant(h) > 0.0;
}

void MatchToTargetState::normaliseErrors() {
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
  ++progressCurrent;
  callback(progressCurrent, progressTotal, text, std::move(info));
}

bool MatchToTargetState::calibrateModule(const std::wstring& name, const cv::Mat& targetPicture,
                                         const cv::Matx33d& targetPlanar) {
  auto module = camera.findModule(name);
  auto* geometry = module->matrixGeometry();
  const Utils::Matrix4x4 previous = geometry->matrix();

  // The module picture.
  const auto imageIt = images.find(name);
  const cv::Mat modulePicture = pictureOf(imageIt->second);
  if (modulePicture.empty() || modulePicture.cols < 2 || modulePicture.rows < 2) {
    logger->error("Module {} has no Image.. Skipping pmodule", narrow(name));
    return false;
  }
  if (targetPicture.empty()) {
    logger->error("Module {}: the target {} has no usable Image or Matrix.. Skipping pmodule", narrow(name),
                  narrow(target));
    return false;
  }
  const cv::Matx33d modulePlanar = OrbivaneGeometry::planarHomography(previous);
  if (!invertible(modulePlanar)) {
    logger->error("Module {} has a singular or non-finite Matrix.. Skipping pmodule", narrow(name));
    return false;
  }

  // The module's homography into the target's pixels, and the work scale.
  const cv::Matx33d pixelsT = OrbivaneGeometry::textureToPixels(targetPicture.cols, targetPicture.rows);
  const cv::Matx33d textureT = OrbivaneGeometry::pixelsToTexture(targetPicture.cols, targetPicture.rows);
  const cv::Matx33d textureM = OrbivaneGeometry::pixelsToTexture(modulePicture.cols, modulePicture.rows);
  const cv::Matx33d targetInverse = targetPlanar.inv();
  cv::Matx33d h0 = normalised(pixelsT * targetInverse * modulePlanar * textureM);
  if (!invertible(h0)) {
    logger->error("Module {} has a singular or non-finite Matrix.. Skipping pmodule", narrow(name));
    return false;
  }
  double s = workScale(h0(0, 0), h0(0, 1), h0(1, 0), h0(1, 1));
  if (!std::isfinite(s) || s <= 0.0) s = 1.0;
  s = std::clamp(s, kSmallestScale, kLargestScale);
  const int workWidth = std::clamp(cvRound(targetPicture.cols * s), 1, kLargestWorkSide);
  const int workHeight = std::clamp(cvRound(targetPicture.rows * s), 1, kLargestWorkSide);
  const double sx = double(workWidth) / targetPicture.cols, sy = double(workHeight) / targetPicture.rows;
  // Target pixels -> work pixels, as resize maps pixel centres.
  const cv::Matx33d scale(sx, 0, 0.5 * (sx - 1.0), 0, sy, 0.5 * (sy - 1.0), 0, 0, 1);

  // The pre-warp G: module pixels -> work pixels, from the picture's outline.
  const cv::Matx33d placement = scale * h0;
  std::vector<cv::Point2f> outline = {{0.f, 0.f},
                                      {float(modulePicture.cols), 0.f},
                                      {float(modulePicture.cols), float(modulePicture.rows)},
                                      {0.f, float(modulePicture.rows)}};
  std::vector<cv::Point2f> landed;
  cv::perspectiveTransform(outline, landed, cv::Matx33f(placement));
  if (distortionMethod) {
    for (auto& p : outline) p.x += static_cast<float>(kDistortionOffset);
  }
  cv::Matx33d prewarp = placement;
  if (distortionMethod) {
    const cv::Mat g = cv::getPerspectiveTransform(outline, landed);
    cv::Mat converted;
    g.convertTo(converted, CV_64F);
    prewarp = cv::Matx33d(converted.ptr<double>());
  }
  if (!invertible(prewarp) || !(cv::determinant(prewarp) > 0.0)) {
    logger->error("Module {} has a singular or mirrored placement on the target.. Skipping pmodule", narrow(name));
    return false;
  }

  WorkSystem system;
  system.backwardLeft = targetPlanar * textureT * scale.inv();
  system.backwardRight = prewarp * textureM.inv();
  system.forwardLeft = system.backwardLeft.inv();
  system.forwardRight = system.backwardRight.inv();
  workSystems[name] = system;

  // Working copies.
  WorkPictures pictures;
  if (workWidth == targetPicture.cols && workHeight == targetPicture.rows) {
    pictures.target = targetPicture;
  } else {
    cv::resize(targetPicture, pictures.target, cv::Size(workWidth, workHeight), 0, 0,
               s < 1.0 ? cv::INTER_AREA : cv::INTER_CUBIC);
  }
  cv::warpPerspective(modulePicture, pictures.module, cv::Mat(prewarp), pictures.target.size(), cv::INTER_LINEAR,
                      cv::BORDER_CONSTANT);
  cv::warpPerspective(cv::Mat(modulePicture.size(), CV_8U, cv::Scalar(255)), pictures.moduleMask, cv::Mat(prewarp),
                      pictures.target.size(), cv::INTER_NEAREST, cv::BORDER_CONSTANT);
  pictures.prepareGrey();
  workingCopies[name] = {Image::fromMat(pictures.module), Image::fromMat(pictures.target)};
  if (cv::countNonZero(pictures.moduleMask) < 16) {
    logger->error("Module {} does not overlap the target {}.. Skipping pmodule", narrow(name), narrow(target));
    return false;
  }

  // The estimator of the mode; the start is the current placement.
  const cv::Matx33f start = cv::Matx33f::eye();
  EstimatorContext context{logger, &abort};
  EstimateResult result;
  switch (mode) {
    case MatchToTarget::kFeatureMatching:
      if (!gridEnabled) {
        result = FeatureMatcher(context).estimate(pictures, start, 10000, 0.0f, 0.0f);
      } else {
        Utils::UVGrid& grid = grids[name];
        GridEstimator estimator(context, [this, &name] { report("Refining Grid of Module " + narrow(name)); });
        result = estimator.estimate(pictures, start, system.backwardRight, grid, gridDisplacements[name]);
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
      // No estimator: the current placement is measured and kept.
      result.homography = start;
      result.error = differenceError(pictures.module, pictures.target, cv::Matx33d(start));
      break;
  }
  results[name] = result;

  // Accept or reject.
  const float best = FLT_MAX;
  EstimateResult accepted;
  accepted.error = FLT_MAX;
  Utils::Matrix4x4 resultMatrix = previous;
  if (acceptable(result, best)) {
    const cv::Matx33d work(result.homography);
    if (mode == MatchToTarget::kIterative) {
      // A correction on the surface, applied on top of the previous matrix.
      const cv::Matx33d correction =
          normalised(system.backwardLeft * work * system.backwardRight * modulePlanar.inv());
      resultMatrix = withPlanar(Utils::Matrix4x4::identity(), correction);
    } else {
      resultMatrix = toResult(name, withPlanar(previous, work));
    }
    const Utils::Matrix4x4 candidate =
        mode == MatchToTarget::kIterative ? resultMatrix * previous : resultMatrix;
    const cv::Matx33d planar = OrbivaneGeometry::planarHomography(candidate);
    // Never a non-finite or mirrored matrix: the orientation must stay the previous one's.
    if (candidate.isFinite() && invertible(planar) &&
        (cv::determinant(planar) > 0.0) == (cv::determinant(modulePlanar) > 0.0)) {
      accepted = result;
    } else {
      logger->warn("Module {}: the estimate gives an unusable matrix; kept the previous one", narrow(name));
    }
  }
  errors[name] = accepted.error;

  // Write back.
  if (accepted.error < FLT_MAX - 1.0f) {
    if (mode == MatchToTarget::kIterative) {
      if (!grids.empty() && grids.count(name) != 0) geometry->setUVGrid(grids[name]);
      geometry->setMatrix(resultMatrix * previous);
    } else {
      geometry->setMatrix(resultMatrix);
      if (gridEnabled && !grids.empty() && grids.count(name) != 0) geometry->setUVGrid(grids[name]);
    }
  }
  return true;
}

CameraDescription::Orbivane MatchToTargetState::calibrate(MatchToTarget& self, const std::list<std::wstring>& modules,
                                                          const std::wstring& targetName) {
  target = targetName;
  errors.clear();
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

  for (const auto& name : modules) {
    if (abort.load()) return camera;
    auto module = camera.findModule(name);
    if (!module) {
      logger->error("Module {} does not exist.. Skipping pmodule", narrow(name));
      continue;
    }
    report("Calibrating Module " + narrow(name));
    if (module->matrixGeometry() == nullptr) {
      logger->error("Module {} has no Matrix Geometry.. Skipping pmodule", narrow(name));
      continue;
    }
    const auto imageIt = images.find(name);
    if (imageIt == images.end() || !imageIt->second) {
      logger->error("Module {} has no Image.. Skipping pmodule", narrow(name));
      continue;
    }
    calibrateModule(name, targetPicture, targetPlanar);
    if (callback) {
      callback(progressCurrent, progressTotal, "Finished Module " + narrow(name),
               AdvStepInfo(std::make_shared<const CameraDescription::Orbivane>(camera)));
    }
  }
  normaliseErrors();

  if (!abort.load() && m2nCountdown > 1 && mode == MatchToTarget::kIterative) {
    --m2nCountdown;
    return self.calibrate(std::list<std::wstring>(modules), target);
  }
  m2nCountdown = m2nLimit;
  return camera;
}

}  // namespace MatrixBased
}  // namespace GeometryCalibration
