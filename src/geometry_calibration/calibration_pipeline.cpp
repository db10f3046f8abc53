// The whole geometry calibration of one camera (see calibration_pipeline.h).
#include "orbivane/geometry_calibration/calibration_pipeline.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <cmath>
#include <stdexcept>

#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include "logging/logger_setup.h"
#include "orbivane/geometry_calibration/calibrator_options.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/geometry_calibration/matrix_based/auto_clipping.h"
#include "orbivane/geometry_calibration/matrix_based/match_to_target.h"
#include "orbivane/geometry_calibration/matrix_based/neighbour_neighbour.h"
#include "orbivane/geometry_calibration/matrix_based/shader_brute_forcer.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/utils/wide_text.h"

namespace GeometryCalibration {
namespace {

using MatrixBased::AutoClipping;
using MatrixBased::MatchToTarget;
using MatrixBased::NeighbourNeighbour;
using MatrixBased::ShaderBruteForcer;

constexpr int kFewestSeamPixels = 400;  // panorama pixels an overlap needs to be measured
constexpr int kSeamBorder = 4;          // pixels kept clear of each picture's edge

std::string narrow(const std::wstring& text) { return Utils::toUtf8(text); }

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

ModuleReport verdictOf(ModuleStatus status, const std::string& reason) {
  ModuleReport r;
  r.status = status;
  r.reason = reason;
  return r;
}

bool usable(const cv::Matx33d& h) {
  for (int k = 0; k < 9; ++k)
    if (!std::isfinite(h.val[k])) return false;
  return std::fabs(cv::determinant(h)) > 1e-15;
}

// The picture of a module drawn over a surface raster: raster pixel p shows
// surface point origin + p / density.
void drawOnRaster(const cv::Mat& grey, const cv::Matx33d& planar, cv::Point2d origin, cv::Point2d density,
                  cv::Size raster, cv::Mat& out, cv::Mat& mask) {
  const cv::Matx33d rasterToSurface(1.0 / density.x, 0, origin.x, 0, 1.0 / density.y, origin.y, 0, 0, 1);
  const cv::Matx33d rasterToPixels =
      OrbivaneGeometry::textureToPixels(grey.cols, grey.rows) * planar.inv() * rasterToSurface;
  cv::warpPerspective(grey, out, cv::Mat(rasterToPixels), raster, cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                      cv::BORDER_CONSTANT);
  cv::Mat inside(grey.size(), CV_8U, cv::Scalar(0));
  inside(cv::Rect(kSeamBorder, kSeamBorder, std::max(0, grey.cols - 2 * kSeamBorder),
                  std::max(0, grey.rows - 2 * kSeamBorder)))
      .setTo(255);
  cv::warpPerspective(inside, mask, cv::Mat(rasterToPixels), raster, cv::INTER_NEAREST | cv::WARP_INVERSE_MAP,
                      cv::BORDER_CONSTANT);
}

SeamResidual measureSeam(const CameraDescription::Orbivane& camera, const CalibrationPipeline::Images& images,
                         const std::wstring& first, const std::wstring& second) {
  SeamResidual seam;
  seam.first = first;
  seam.second = second;
  auto fail = [&seam](const std::string& reason) {
    seam.reason = reason;
    return seam;
  };
  const auto a = camera.findModule(first), b = camera.findModule(second);
  if (!a || !b) return fail("module not in the camera");
  if (a->matrixGeometry() == nullptr || b->matrixGeometry() == nullptr) return fail("no matrix geometry");
  const auto ia = images.find(first), ib = images.find(second);
  if (ia == images.end() || ib == images.end() || !ia->second || !ib->second) return fail("no picture");
  cv::Mat greyA, greyB;
  try {
    cv::cvtColor(Image::toMat(ia->second), greyA, cv::COLOR_BGR2GRAY);
    cv::cvtColor(Image::toMat(ib->second), greyB, cv::COLOR_BGR2GRAY);
  } catch (const std::exception& e) {
    return fail(std::string("unreadable picture: ") + e.what());
  }
  if (greyA.cols < 16 || greyA.rows < 16 || greyB.cols < 16 || greyB.rows < 16) return fail("picture too small");
  const cv::Matx33d ha = OrbivaneGeometry::planarHomography(a->matrixGeometry()->matrix());
  const cv::Matx33d hb = OrbivaneGeometry::planarHomography(b->matrixGeometry()->matrix());
  const auto qa = OrbivaneGeometry::moduleSurfaceQuad(a->matrixGeometry()->matrix());
  const auto qb = OrbivaneGeometry::moduleSurfaceQuad(b->matrixGeometry()->matrix());
  if (!usable(ha) || !usable(hb) || !qa || !qb) return fail("singular or non-finite matrix");

  // The overlap of the two outlines on the surface, and the first module's
  // pixel density there.
  std::vector<cv::Point2f> pa, pb, shared;
  for (int k = 0; k < 4; ++k) {
    pa.emplace_back(qa->corners[k].x, qa->corners[k].y);
    pb.emplace_back(qb->corners[k].x, qb->corners[k].y);
  }
  if (cv::contourArea(pa, true) < 0) std::reverse(pa.begin(), pa.end());
  if (cv::contourArea(pb, true) < 0) std::reverse(pb.begin(), pb.end());
  if (cv::intersectConvexConvex(pa, pb, shared, true) <= 0.0f || shared.size() < 3) return fail("no overlap");
  float left = shared[0].x, right = shared[0].x, top = shared[0].y, bottom = shared[0].y;
  for (const auto& p : shared) {
    left = std::min(left, p.x);
    right = std::max(right, p.x);
    top = std::min(top, p.y);
    bottom = std::max(bottom, p.y);
  }
  const double widthA = std::max({pa[0].x, pa[1].x, pa[2].x, pa[3].x}) - std::min({pa[0].x, pa[1].x, pa[2].x, pa[3].x});
  const double heightA = std::max({pa[0].y, pa[1].y, pa[2].y, pa[3].y}) - std::min({pa[0].y, pa[1].y, pa[2].y, pa[3].y});
  const cv::Point2d density(greyA.cols / widthA, greyA.rows / heightA);
  const cv::Size raster(static_cast<int>(std::ceil((right - left) * density.x)),
                        static_cast<int>(std::ceil((bottom - top) * density.y)));
  if (raster.width < 16 || raster.height < 16 || double(raster.width) * raster.height > 64.0 * 1024 * 1024) return fail("no overlap");

  cv::Mat drawnA, maskA, drawnB, maskB;
  drawOnRaster(greyA, ha, cv::Point2d(left, top), density, raster, drawnA, maskA);
  drawOnRaster(greyB, hb, cv::Point2d(left, top), density, raster, drawnB, maskB);
  cv::Mat mask = maskA & maskB;
  cv::erode(mask, mask, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(5, 5)));
  seam.overlapPixels = cv::countNonZero(mask);
  if (seam.overlapPixels < kFewestSeamPixels) return fail("no overlap");
  cv::Scalar mean, deviation;
  cv::meanStdDev(drawnA, mean, deviation, mask);
  if (!(deviation[0] > 2.0)) return fail("no texture in the overlap");

  // Translation that lays the second module's drawing onto the first's.
  cv::Mat floatA, floatB;
  drawnA.convertTo(floatA, CV_32F);
  drawnB.convertTo(floatB, CV_32F);
  cv::Mat warp = cv::Mat::eye(2, 3, CV_32F);
  try {
    cv::findTransformECC(floatA, floatB, warp, cv::MOTION_TRANSLATION,
                         cv::TermCriteria(cv::TermCriteria::COUNT + cv::TermCriteria::EPS, 100, 1e-5), mask, 3);
  } catch (const cv::Exception&) {
    return fail("the overlap's pictures could not be aligned");
  }
  seam.dx = warp.at<float>(0, 2);
  seam.dy = warp.at<float>(1, 2);
  if (!std::isfinite(seam.dx) || !std::isfinite(seam.dy)) return fail("the overlap's pictures could not be aligned");
  seam.px = std::hypot(seam.dx, seam.dy);
  seam.measured = true;
  return seam;
}

}  // namespace

std::string PipelineOptions::validate() const {
  static const std::vector<std::string> known = {"match", "neighbour", "clip", "shader"};
  if (steps.empty()) return "no steps to run";
  for (const auto& s : steps) {
    if (std::find(known.begin(), known.end(), s) == known.end())
      return "unknown step '" + s + "' (steps: match, neighbour, clip, shader)";
    if (std::count(steps.begin(), steps.end(), s) > 1) return "step '" + s + "' is listed twice";
  }
  const bool needsTarget = std::find(steps.begin(), steps.end(), "match") != steps.end() ||
                           std::find(steps.begin(), steps.end(), "shader") != steps.end();
  if (needsTarget && target.empty()) return "the match and shader steps need a target module";
  if (matchMode < 0 || matchMode > 3) return "the match mode is 0, 1, 2 or 3, not " + std::to_string(matchMode);
  if (const auto valid = NeighbourOptions{levels, iterations, step}.validate(); !valid) {
    return "neighbour stitching: " + valid.error();
  }
  ClippingOptions clip;
  clip.requireOverlap = requireOverlap;
  clip.keepAspect = keepAspect;
  clip.threshold = clipThreshold;
  clip.noHoles = clipNoHoles;
  if (const auto valid = clip.validate(); !valid) return "clipping: " + valid.error();
  return std::string();
}

CalibrationPipeline::CalibrationPipeline(const CameraDescription::Orbivane& camera, Images images)
    : camera_(camera), images_(std::move(images)) {}

void CalibrationPipeline::registerStatusCallback(StatusCallback callback) { callback_ = std::move(callback); }

void CalibrationPipeline::abort() {
  abort_.store(true);
  if (auto* match = runningMatch_.load()) match->abort();
}

std::vector<SeamResidual> CalibrationPipeline::measureSeams(const CameraDescription::Orbivane& camera,
                                                            const Images& images,
                                                            const std::list<std::wstring>& chain) {
  std::vector<SeamResidual> seams;
  for (auto it = chain.begin(); it != chain.end() && std::next(it) != chain.end(); ++it) {
    seams.push_back(measureSeam(camera, images, *it, *std::next(it)));
  }
  return seams;
}

std::map<std::wstring, ModuleReport> CalibrationPipeline::verdicts() const {
  std::map<std::wstring, ModuleReport> out;
  for (const auto& name : listed_) out[name] = verdictOf(ModuleStatus::aligned, std::string());
  for (const auto& step : steps_) {
    for (const auto& [name, report] : step.modules) {
      auto& verdict = out[name];
      if (verdict.status != ModuleStatus::aligned) continue;  // the first step that did not align it decides
      if (report.status == ModuleStatus::aligned) {
        if (step.step == "match") verdict = report;  // target matching's measurements are the ones kept
        continue;
      }
      verdict = report;
      verdict.reason = step.step + ": " + report.reason;
    }
  }
  return out;
}

CameraDescription::Orbivane CalibrationPipeline::run(const PipelineOptions& options) {
  const std::string problem = options.validate();
  if (!problem.empty()) throw std::invalid_argument(problem);
  auto logger = Utils::calibratorLogger("CalibrationPipeline");
  steps_.clear();

  // The modules to calibrate, each once.
  listed_.clear();
  if (options.modules.empty()) {
    for (const auto& module : camera_.modules())
      if (module && module->name() != options.target) listed_.push_back(module->name());
  } else {
    for (const auto& name : options.modules)
      if (std::find(listed_.begin(), listed_.end(), name) == listed_.end()) listed_.push_back(name);
  }
  seamsBefore_ = measureSeams(camera_, images_, listed_);

  std::list<std::wstring> active = listed_;  // modules still in the running
  auto forward = [this](const std::string& prefix) {
    return [this, prefix](int step, int total, std::string text, AdvStepInfo info) {
      if (callback_) callback_(step, total, prefix + ": " + text, std::move(info));
    };
  };

  for (const auto& stepName : options.steps) {
    if (abort_.load()) break;
    StepReport step;
    step.step = stepName;
    const auto start = std::chrono::steady_clock::now();
    for (const auto& name : listed_) {
      if (std::find(active.begin(), active.end(), name) == active.end())
        step.modules[name] = verdictOf(ModuleStatus::skipped, "failed an earlier step");
    }

    if (stepName == "match") {
      MatchToTarget matcher(camera_, images_);
      matcher.setCalibrationMode(static_cast<MatchToTarget::CalibrateMode>(options.matchMode));
      matcher.registerStatusCallback(forward("target matching"));
      runningMatch_.store(&matcher);
      if (abort_.load()) matcher.abort();
      camera_ = matcher.calibrate(active, options.target);
      runningMatch_.store(nullptr);
      for (const auto& [name, report] : matcher.moduleReports()) step.modules[name] = report;
    } else if (stepName == "neighbour") {
      // Only modules that are in the camera with a picture can be stitched.
      std::list<std::wstring> chain;
      for (const auto& name : active) {
        const auto module = camera_.findModule(name);
        const auto image = images_.find(name);
        if (!module) {
          step.modules[name] = verdictOf(ModuleStatus::skipped, "no module of that name in the camera");
        } else if (image == images_.end() || !image->second) {
          step.modules[name] = verdictOf(ModuleStatus::failed, "no picture");
        } else {
          chain.push_back(name);
        }
      }
      std::wstring reference = options.reference;
      if (reference.empty() && !chain.empty()) reference = *std::next(chain.begin(), long(chain.size() / 2));
      NeighbourNeighbour stitcher(camera_, images_, options.levels, options.iterations, options.step);
      stitcher.registerStatusCallback(forward("neighbour stitching"));
      camera_ = stitcher.calibrate(chain, reference);
      step.pairs = stitcher.pairReports();
      if (!chain.empty()) step.modules[chain.front()] = verdictOf(ModuleStatus::aligned, std::string());
      for (const auto& pair : step.pairs) {
        ModuleReport r = verdictOf(pair.measured ? ModuleStatus::aligned : ModuleStatus::failed,
                                   pair.measured ? std::string() : "seam with " + narrow(pair.first) + ": " + pair.reason);
        r.correlation = pair.correlation;
        r.residualPx = std::numeric_limits<double>::quiet_NaN();
        r.movedPx = pair.shiftPx;
        step.modules[pair.second] = r;
      }
    } else if (stepName == "clip") {
      // The rectangle the calibrated modules cover (the target and modules
      // that failed are not part of the panorama shown), applied to every
      // module of the camera so they keep their places relative to it.
      auto covering = std::make_shared<CameraDescription::Orbivane>(camera_);
      auto& modules = covering->modules();
      modules.erase(std::remove_if(modules.begin(), modules.end(),
                                   [&active](const std::shared_ptr<CameraDescription::OrbivaneModule>& m) {
                                     return !m || std::find(active.begin(), active.end(), m->name()) == active.end();
                                   }),
                    modules.end());
      AutoClipping clipping(covering);
      clipping.config(options.requireOverlap, options.keepAspect, options.clipThreshold);
      clipping.setNoHoles(options.clipNoHoles);
      if (!modules.empty() && clipping.process()) {
        step.clipping = clipping.offset();
        step.clippingPicture = clipping.inspectionPicture();
        step.clippingCrop = *AutoClipping::clippingMatrix(clipping.viewerOffset());
        const Utils::Size own = camera_.panoramaSize();
        const cv::Size raster = clipping.coverageSize();
        camera_ = AutoClipping::applyClipping(camera_, clipping.viewerOffset(),
                                              own.empty() ? Utils::Size{raster.width, raster.height} : own);
        for (const auto& name : active) step.modules[name] = verdictOf(ModuleStatus::aligned, std::string());
      } else {
        const std::string why = modules.empty() ? "no module left to clip" : clipping.error();
        logger->warn("Clipping found no rectangle: {}", why);
        for (const auto& name : active)
          step.modules[name] = verdictOf(ModuleStatus::failed, "no clipping rectangle: " + why);
      }
    } else if (stepName == "shader") {
      int index = 0;
      for (const auto& name : active) {
        if (abort_.load()) break;
        ++index;
        const auto module = camera_.findModule(name);
        if (!module || module->matrixGeometry() == nullptr || module->matrixGeometry()->shaderId().empty()) {
          step.modules[name] = verdictOf(ModuleStatus::skipped, "no lens shader to search");
          continue;
        }
        if (callback_) callback_(index, int(active.size()), "shader search: Searching Module " + narrow(name), AdvStepInfo());
        try {
          ShaderBruteForcer search(camera_, images_);
          auto best = search.searchForBestParameters(name, options.target);
          if (best.empty()) {
            step.modules[name] = verdictOf(ModuleStatus::failed, "no parameter set gave a usable rendering");
            continue;
          }
          const auto found = best.front().findModule(name);
          camera_.findModule(name)->setShaders(found->shaders());
          step.modules[name] = verdictOf(ModuleStatus::aligned, std::string());
        } catch (const std::exception& e) {
          step.modules[name] = verdictOf(ModuleStatus::failed, e.what());
        }
      }
    }

    // Modules that did not come through drop out of the later steps.
    for (const auto& [name, report] : step.modules) {
      if (report.status != ModuleStatus::aligned) active.remove(name);
    }
    step.seconds = secondsSince(start);
    step.seams = measureSeams(camera_, images_, listed_);
    step.camera = camera_;
    logger->info("Step {} took {:.2f} s", stepName, step.seconds);
    steps_.push_back(std::move(step));
  }
  return camera_;
}

}  // namespace GeometryCalibration
