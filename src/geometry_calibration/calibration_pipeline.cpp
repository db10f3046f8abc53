// The whole geometry calibration of one camera (see calibration_pipeline.h).
#include "orbivane/geometry_calibration/calibration_pipeline.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <limits>
#include <set>
#include <cmath>
#include <cstdio>
#include <stdexcept>

#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include "camera/camera_coverage.h"
#include "geometry/coverage.h"
#include "geometry_calibration/matrix_based/neighbour_neighbour_access.h"
#include "geometry_calibration/seam_measurement.h"
#include "logging/logger_setup.h"
#include "orbivane/geometry_calibration/calibrator_options.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/geometry_calibration/matrix_based/auto_clipping.h"
#include "orbivane/geometry_calibration/matrix_based/match_to_target.h"
#include "orbivane/geometry_calibration/matrix_based/neighbour_neighbour.h"
#include "orbivane/geometry_calibration/matrix_based/shader_brute_forcer.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/utils/wide_text.h"
#include "utils/parallel.h"

namespace GeometryCalibration {
namespace {

using MatrixBased::AutoClipping;
using MatrixBased::MatchToTarget;
using MatrixBased::NeighbourNeighbour;
using MatrixBased::ShaderBruteForcer;

// A step leaves the seams worse when their mean median grows by more than
// this share and kSeamSlackPx, or a seam it found measurable no longer is
// (seams of modules the step failed aside).
constexpr double kSeamWorseShare = 0.05;
constexpr double kSeamSlackPx = 0.05;
// A seam whose median is at most this (picture pixels) lines its two
// modules up: the width below which a seam does not show, as the command
// line judges a run.
constexpr double kLinedUpSeamPx = 1.0;

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

// The modules as the panorama draws them: with the pictures of `images`.
CameraDescription::Orbivane withPictures(const CameraDescription::Orbivane& camera,
                                         const CalibrationPipeline::Images& images) {
  CameraDescription::Orbivane drawn = camera;
  for (auto& module : drawn.modules()) {
    if (!module) continue;
    const auto it = images.find(module->name());
    if (it != images.end() && it->second) module->setImage(it->second);
  }
  return drawn;
}

// Mean of the medians of the pairs measured in both lists, and how many
// pairs measured in `before` are not in `after`; pairs with a module of
// `leftOut` (the step failed it: it stays where it was and drops out, and a
// decoy's seam is features matched by chance) are not compared.
struct SeamComparison {
  double before = 0.0, after = 0.0;
  int compared = 0, lost = 0;
};

SeamComparison compareSeams(const std::vector<SeamResidual>& before, const std::vector<SeamResidual>& after,
                            const std::set<std::wstring>& leftOut = {}) {
  SeamComparison c;
  for (const auto& b : before) {
    if (!b.measured || leftOut.count(b.first) != 0 || leftOut.count(b.second) != 0) continue;
    const auto a = std::find_if(after.begin(), after.end(), [&b](const SeamResidual& s) {
      return s.first == b.first && s.second == b.second;
    });
    if (a == after.end() || !a->measured) {
      ++c.lost;
      continue;
    }
    c.before += b.px;
    c.after += a->px;
    ++c.compared;
  }
  if (c.compared > 0) {
    c.before /= c.compared;
    c.after /= c.compared;
  }
  return c;
}

}  // namespace

SeamSummary summariseSeams(const std::vector<SeamResidual>& seams) {
  SeamSummary summary;
  std::vector<float> all;
  for (const auto& s : seams) {
    if (!s.measured) {
      ++summary.notMeasured;
      continue;
    }
    ++summary.measured;
    summary.worstPx = std::max(summary.worstPx, s.px);
    summary.worstExposureEv = std::max(summary.worstExposureEv, s.exposureEv);
    all.insert(all.end(), s.distances.begin(), s.distances.end());
  }
  summary.matches = int(all.size());
  if (!all.empty()) {
    std::sort(all.begin(), all.end());
    summary.medianPx = all[all.size() / 2];
    summary.p90Px = all[std::min(all.size() - 1, std::size_t(0.9 * double(all.size())))];
  }
  return summary;
}

Utils::ReturnState<bool, std::string> PipelineOptions::validate() const {
  static const std::vector<std::string> known = {"match", "neighbour", "clip", "shader"};
  if (steps.empty()) return Utils::failure(std::string("no steps to run"));
  for (const auto& s : steps) {
    if (std::find(known.begin(), known.end(), s) == known.end())
      return Utils::failure("unknown step '" + s + "' (steps: match, neighbour, clip, shader)");
    if (std::count(steps.begin(), steps.end(), s) > 1) return Utils::failure("step '" + s + "' is listed twice");
  }
  const bool needsTarget = std::find(steps.begin(), steps.end(), "match") != steps.end() ||
                           std::find(steps.begin(), steps.end(), "shader") != steps.end();
  if (needsTarget && target.empty()) return Utils::failure(std::string("the match and shader steps need a target module"));
  const auto listed = [this](const std::wstring& name) {
    return std::find(modules.begin(), modules.end(), name) != modules.end();
  };
  if (!target.empty() && listed(target)) {
    return Utils::failure("the target '" + Utils::toUtf8(target) + "' is among the modules to calibrate; it stays where it is");
  }
  if (!reference.empty() && reference == target) {
    return Utils::failure("the reference '" + Utils::toUtf8(reference) + "' is the target; the reference is one of the modules");
  }
  if (!reference.empty() && !modules.empty() && !listed(reference)) {
    return Utils::failure("the reference '" + Utils::toUtf8(reference) + "' is not among the modules to calibrate");
  }
  if (const auto valid = match.validate(); !valid) return Utils::failure("target matching: " + valid.error());
  if (const auto valid = neighbour.validate(); !valid) return Utils::failure("neighbour stitching: " + valid.error());
  if (clip.valueMode) return Utils::failure("clipping: the clip step clips by coverage (geometry mode), not by values");
  if (const auto valid = clip.validate(); !valid) return Utils::failure("clipping: " + valid.error());
  return true;
}

CalibrationPipeline::CalibrationPipeline(const CameraDescription::Orbivane& camera, Images images)
    : camera_(camera), images_(std::move(images)) {}

void CalibrationPipeline::registerStatusCallback(StatusCallback callback) { callback_ = std::move(callback); }

void CalibrationPipeline::abort() {
  abort_.store(true);
  if (auto* match = runningMatch_.load()) match->abort();
}

namespace {

// The seam of every pair of the listed modules that overlap, measured with
// `meter` (which keeps the drawings of modules that did not move).
std::vector<SeamResidual> measureWith(SeamMeter& meter, const CameraDescription::Orbivane& drawn,
                                      const std::list<std::wstring>& modules) {
  std::vector<const CameraDescription::OrbivaneModule*> listed;
  for (const auto& name : modules) {
    const auto module = drawn.findModule(name);
    if (module) listed.push_back(module.get());
  }
  meter.prepare(listed);
  std::vector<std::pair<std::size_t, std::size_t>> pairs;
  for (std::size_t i = 0; i < listed.size(); ++i)
    for (std::size_t j = i + 1; j < listed.size(); ++j) pairs.emplace_back(i, j);
  std::vector<SeamMeasure> measured(pairs.size());
  Utils::parallelRows(0, int(pairs.size()), [&](int first, int last) {
    for (int k = first; k < last; ++k) {
      measured[std::size_t(k)] = meter.measure(*listed[pairs[std::size_t(k)].first], *listed[pairs[std::size_t(k)].second]);
    }
  });
  std::vector<SeamResidual> seams;
  for (std::size_t k = 0; k < pairs.size(); ++k) {
    {
      const std::size_t i = pairs[k].first, j = pairs[k].second;
      const SeamMeasure& m = measured[k];
      if (!m.measured && m.reason == "no overlap") continue;  // not neighbours
      SeamResidual seam;
      seam.first = listed[i]->name();
      seam.second = listed[j]->name();
      seam.measured = m.measured;
      seam.reason = m.reason;
      seam.matches = m.matches;
      seam.px = m.medianPx;
      seam.p90Px = m.p90Px;
      seam.dx = m.shift.x;
      seam.dy = m.shift.y;
      seam.exposureEv = m.exposureEv;
      seam.overlapPixels = m.overlapPixels;
      seam.distances = m.distances;
      seams.push_back(seam);
    }
  }
  return seams;
}

cv::Size drawingSize(const CameraDescription::Orbivane& camera) { return seamDrawingSize(camera); }

}  // namespace

std::vector<SeamResidual> CalibrationPipeline::measureSeams(const CameraDescription::Orbivane& camera,
                                                            const Images& images,
                                                            const std::list<std::wstring>& modules) {
  const CameraDescription::Orbivane drawn = withPictures(camera, images);
  SeamMeter meter(drawingSize(drawn));
  return measureWith(meter, drawn, modules);
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
      if (report.status == ModuleStatus::kept) {
        // Left as it came by this step, which is no failure: noted, still aligned.
        if (verdict.reason.empty()) verdict.reason = step.step + ": kept: " + report.reason;
        continue;
      }
      verdict = report;
      verdict.reason = step.step + ": " + report.reason;
    }
  }
  // An interrupted run finished no module: what is not failed is aborted.
  if (abort_.load()) {
    const std::string during = steps_.empty() ? std::string("before the first step") : "in or after step " + steps_.back().step;
    for (auto& [name, verdict] : out) {
      if (verdict.status == ModuleStatus::aligned || verdict.status == ModuleStatus::kept) {
        verdict = verdictOf(ModuleStatus::aborted, "the run was interrupted " + during);
      }
    }
  }
  return out;
}

namespace {

// What every step works with. `forward(prefix)` gives a status callback that
// scales the step's own progress into its span of the run's one total.
struct StepContext {
  CameraDescription::Orbivane& camera;
  const CalibrationPipeline::Images& images;
  const PipelineOptions& options;
  const std::list<std::wstring>& active;  // modules still in the running
  std::function<StatusCallback(const std::string&)> forward;
  const std::atomic<bool>& abort;
  std::shared_ptr<spdlog::logger> logger;
};

void matchStep(StepContext& c, std::atomic<MatchToTarget*>& running, StepReport& step) {
  MatchToTarget matcher(c.camera, c.images);
  const MatchOptions& settings = c.options.match;
  applyMatchOptions(matcher, settings, c.active);
  matcher.registerStatusCallback(c.forward("target matching"));
  running.store(&matcher);
  if (c.abort.load()) matcher.abort();
  c.camera = matcher.calibrate(c.active, c.options.target);
  running.store(nullptr);
  for (const auto& [name, report] : matcher.moduleReports()) step.modules[name] = report;
}

void neighbourStep(StepContext& c, const std::shared_ptr<SeamMeter>& meter, StepReport& step) {
  // Only modules that are in the camera with a picture can be stitched.
  std::list<std::wstring> chain;
  for (const auto& name : c.active) {
    const auto module = c.camera.findModule(name);
    const auto image = c.images.find(name);
    if (!module) {
      step.modules[name] = verdictOf(ModuleStatus::skipped, "no module of that name in the camera");
    } else if (image == c.images.end() || !image->second) {
      step.modules[name] = verdictOf(ModuleStatus::failed, "no picture");
    } else {
      chain.push_back(name);
    }
  }
  std::wstring reference = c.options.reference;
  if (reference.empty() && !chain.empty()) reference = *std::next(chain.begin(), long(chain.size() / 2));
  const NeighbourOptions& settings = c.options.neighbour;
  NeighbourNeighbour stitcher(c.camera, c.images, settings.levels, settings.iterations, settings.step);
  MatrixBased::NeighbourNeighbourAccess::shareMeter(stitcher, meter);
  stitcher.registerStatusCallback(c.forward("neighbour stitching"));
  c.camera = stitcher.calibrate(chain, reference);
  step.pairs = stitcher.pairReports();
  if (!chain.empty()) step.modules[chain.front()] = verdictOf(ModuleStatus::aligned, std::string());
  // A pair that was not measured moves nothing: its second module keeps
  // its place beside the first.
  for (const auto& pair : step.pairs) {
    ModuleReport r = verdictOf(pair.measured ? ModuleStatus::aligned : ModuleStatus::kept,
                               pair.measured ? std::string() : "seam with " + narrow(pair.first) + " not measured: " + pair.reason);
    r.correlation = pair.correlation;
    r.residualPx = std::numeric_limits<double>::quiet_NaN();
    r.movedPx = pair.shiftPx;
    step.modules[pair.second] = r;
  }
}

void clipStep(StepContext& c, StepReport& step) {
  // The rectangle the calibrated modules cover (the target and modules
  // that failed are not part of the panorama shown), applied to every
  // module of the camera so they keep their places relative to it.
  auto covering = std::make_shared<CameraDescription::Orbivane>(c.camera);
  auto& modules = covering->modules();
  const auto& active = c.active;
  modules.erase(std::remove_if(modules.begin(), modules.end(),
                               [&active](const std::shared_ptr<CameraDescription::OrbivaneModule>& m) {
                                 return !m || std::find(active.begin(), active.end(), m->name()) == active.end();
                               }),
                modules.end());
  AutoClipping clipping(covering);
  const ClippingOptions& settings = c.options.clip;
  clipping.config(settings.requireOverlap, settings.keepAspect, settings.threshold);
  clipping.setNoHoles(settings.noHoles);
  if (modules.empty() || !clipping.process()) {
    const std::string why = modules.empty() ? "no module left to clip" : clipping.error();
    c.logger->warn("Clipping found no rectangle: {}", why);
    for (const auto& name : active) step.modules[name] = verdictOf(ModuleStatus::failed, "no clipping rectangle: " + why);
    return;
  }
  step.clipping = clipping.offset();
  step.clippingPicture = clipping.inspectionPicture();
  step.clippingCrop = *AutoClipping::clippingMatrix(clipping.viewerOffset());
  const Utils::Size own = c.camera.panoramaSize();
  const cv::Size raster = clipping.coverageSize();
  c.camera = AutoClipping::applyClipping(c.camera, clipping.viewerOffset(),
                                         own.empty() ? Utils::Size{raster.width, raster.height} : own);
  for (const auto& name : active) step.modules[name] = verdictOf(ModuleStatus::aligned, std::string());
}

void shaderStep(StepContext& c, StepReport& step) {
  int index = 0;
  for (const auto& name : c.active) {
    if (c.abort.load()) break;
    ++index;
    const auto module = c.camera.findModule(name);
    if (!module || module->matrixGeometry() == nullptr || module->matrixGeometry()->shaderId().empty()) {
      step.modules[name] = verdictOf(ModuleStatus::skipped, "no lens shader to search");
      continue;
    }
    c.forward("shader search")(index, int(c.active.size()), "Searching Module " + narrow(name), AdvStepInfo());
    try {
      ShaderBruteForcer search(c.camera, c.images);
      auto best = search.searchForBestParameters(name, c.options.target);
      if (best.empty()) {
        step.modules[name] = verdictOf(ModuleStatus::failed, "no parameter set gave a usable rendering");
        continue;
      }
      const auto found = best.front().findModule(name);
      c.camera.findModule(name)->setShaders(found->shaders());
      step.modules[name] = verdictOf(ModuleStatus::aligned, std::string());
    } catch (const std::exception& e) {
      step.modules[name] = verdictOf(ModuleStatus::failed, e.what());
    }
  }
}

// The seams after a step that moved modules, against `seams` as the earlier
// steps left them: a step that left them worse is undone (the camera put
// back to `before`, its aligned modules kept where they were).
void undoIfWorse(StepContext& c, const CameraDescription::Orbivane& before, const std::vector<SeamResidual>& seams,
                 StepReport& step) {
  std::set<std::wstring> failed;
  for (const auto& [name, report] : step.modules)
    if (report.status == ModuleStatus::failed) failed.insert(name);
  const SeamComparison compared = compareSeams(seams, step.seams, failed);
  if (compared.lost == 0 && compared.after <= compared.before * (1.0 + kSeamWorseShare) + kSeamSlackPx) return;
  char text[200];
  std::snprintf(text, sizeof text,
                "the step left the seams worse (mean %.2f px before, %.2f px after, %d seam(s) lost); undone",
                compared.before, compared.after, compared.lost);
  c.logger->warn("Step {}: {}", step.step, text);
  c.camera = before;
  step.seams = seams;
  step.undone = text;
  for (auto& [name, report] : step.modules) {
    if (report.status == ModuleStatus::aligned) report = verdictOf(ModuleStatus::kept, text);
  }
}

// After target matching: a module the target could not place, but whose
// seams with modules the step did not fail are measured and all line up,
// is shown in place by its neighbours; the target only could not confirm
// it (a picture near the pole of an equirectangular target, a module the
// target does not show). It keeps its matrix and stays in the later steps,
// and its report says both. A module so kept confirms its own neighbours
// in turn (a row of modules the target does not show, tied to one it
// placed). A decoy has no measured seam (its features match no
// neighbour's), and a misplaced module no seam that lines up.
void keepIfNeighboursConfirm(StepReport& step) {
  std::set<std::wstring> failed;
  for (const auto& [name, report] : step.modules)
    if (report.status == ModuleStatus::failed) failed.insert(name);
  for (bool kept = true; kept;) {
    kept = false;
    for (auto it = failed.begin(); it != failed.end();) {
      const std::wstring name = *it;
      std::string with;
      double widest = 0.0;
      bool linedUp = true;
      for (const auto& seam : step.seams) {
        if (!seam.measured || (seam.first != name && seam.second != name)) continue;
        const std::wstring& other = seam.first == name ? seam.second : seam.first;
        if (failed.count(other) != 0) continue;
        with += (with.empty() ? "" : ", ") + narrow(other);
        widest = std::max(widest, seam.px);
        linedUp = linedUp && seam.px <= kLinedUpSeamPx;
      }
      if (with.empty() || !linedUp) {
        ++it;
        continue;
      }
      ModuleReport& report = step.modules[name];
      char widestText[32];
      std::snprintf(widestText, sizeof widestText, "%.2f", widest);
      report.status = ModuleStatus::kept;
      report.reason = "the target could not place it (" + report.reason + "), its seams with " + with +
                      " line up (" + widestText + " px at most); left where it was";
      it = failed.erase(it);
      kept = true;
    }
  }
}

// After neighbour stitching: a module that no measured seam ties to another
// (and that target matching did not place, `matched`) is nowhere shown to
// line up, whatever the step left it as; it fails and drops out of the
// later steps, so that the clip does not keep room for it.
void failUntied(const std::set<std::wstring>& matched, std::size_t listed, StepReport& step) {
  if (listed < 2) return;
  for (auto& [name, report] : step.modules) {
    if ((report.status != ModuleStatus::aligned && report.status != ModuleStatus::kept) || matched.count(name) != 0) {
      continue;
    }
    bool tied = false;
    std::string why = "its picture overlaps no other module, so nothing places it";
    for (const auto& seam : step.seams) {
      if (seam.first != name && seam.second != name) continue;
      if (seam.measured) {
        tied = true;
        break;
      }
      why = "no seam with another module could be measured (" + narrow(seam.first) + " / " + narrow(seam.second) +
            ": " + seam.reason + ")";
    }
    if (!tied) report = verdictOf(ModuleStatus::failed, why);
  }
}

}  // namespace

void CalibrationPipeline::listModules(const PipelineOptions& options) {
  // The modules to calibrate, each once.
  listed_.clear();
  if (options.modules.empty()) {
    for (const auto& module : camera_.modules())
      if (module && module->name() != options.target) listed_.push_back(module->name());
  } else {
    for (const auto& name : options.modules)
      if (std::find(listed_.begin(), listed_.end(), name) == listed_.end()) listed_.push_back(name);
  }
  if (!options.reference.empty() && !camera_.findModule(options.reference)) {
    throw std::invalid_argument("the reference '" + Utils::toUtf8(options.reference) + "' is no module of the camera");
  }
}

CameraDescription::Orbivane CalibrationPipeline::run(const PipelineOptions& options) {
  if (const auto valid = options.validate(); !valid) throw std::invalid_argument(valid.error());
  auto logger = Utils::calibratorLogger("CalibrationPipeline");
  steps_.clear();
  listModules(options);
  // One meter for the run's seams: a module a step does not move is not drawn again.
  const CameraDescription::Orbivane drawnBefore = withPictures(camera_, images_);
  auto meter = std::make_shared<SeamMeter>(drawingSize(drawnBefore));
  // The seams as they were are measured while the first step works, unless
  // that step measures with the meter itself (neighbour stitching): target
  // matching, clipping and the shader search work on their own copies of
  // the camera, and the two share the machine's cores better than either
  // alone. They are awaited before the step's result is judged.
  std::vector<SeamResidual> seams;  // as the last step left them
  std::future<std::vector<SeamResidual>> measuringBefore =
      std::async(std::launch::async, [&] { return measureWith(*meter, drawnBefore, listed_); });
  const auto awaitSeamsBefore = [&] {
    if (!measuringBefore.valid()) return;
    seamsBefore_ = measuringBefore.get();
    seams = seamsBefore_;
  };

  std::list<std::wstring> active = listed_;  // modules still in the running
  // One progress bar for the whole run: each step has a span of `span`
  // units, into which its calibrator's own steps are scaled, and ends with a
  // report at the end of its span; a run whose steps all complete ends at
  // the total.
  const int span = std::max(1, int(listed_.size()));
  const int total = span * int(options.steps.size());
  int offset = 0;
  auto forward = [this, span, total, &offset](const std::string& prefix) -> StatusCallback {
    return [this, prefix, span, total, &offset](int step, int all, std::string text, AdvStepInfo info) {
      if (!callback_) return;
      const long long within = all > 0 ? std::clamp<long long>(static_cast<long long>(step) * span / all, 0, span) : 0;
      callback_(offset + static_cast<int>(within), total, prefix + ": " + text, std::move(info));
    };
  };
  const std::map<std::string, std::string> stepTexts = {
      {"match", "target matching"}, {"neighbour", "neighbour stitching"}, {"clip", "clipping"}, {"shader", "shader search"}};
  StepContext context{camera_, images_, options, active, forward, abort_, logger};
  if (options.steps.empty() || options.steps.front() == "neighbour") {
    // Drawing every module and finding its features takes a while: said
    // before it is waited for.
    if (callback_) callback_(0, total, "Measuring Seams", AdvStepInfo());
    awaitSeamsBefore();
  }
  std::set<std::wstring> matched;  // modules target matching placed

  for (const auto& stepName : options.steps) {
    if (abort_.load()) break;
    StepReport step;
    step.step = stepName;
    const auto start = std::chrono::steady_clock::now();
    const CameraDescription::Orbivane before = camera_;
    for (const auto& name : listed_) {
      if (std::find(active.begin(), active.end(), name) == active.end())
        step.modules[name] = verdictOf(ModuleStatus::skipped, "failed an earlier step");
    }
    if (stepName == "match") matchStep(context, runningMatch_, step);
    if (stepName == "neighbour") neighbourStep(context, meter, step);
    if (stepName == "clip") clipStep(context, step);
    if (stepName == "shader") shaderStep(context, step);
    awaitSeamsBefore();
    // The seams after a step that moves modules (clipping moves them all
    // alike, so their seams stay as they were).
    step.seams = seams;
    if (stepName != "clip") {
      // Seams are drawn at the size the camera now asks for (target
      // matching rescales modules, and then redraws them all anyway), so
      // that neighbour stitching, which draws at that size, finds them drawn.
      const cv::Size size = drawingSize(withPictures(camera_, images_));
      // The drawings as the camera was before the step, kept for an undo
      // (the meter keeps one drawing a module: the step's would replace them).
      const auto meterBefore = std::make_shared<SeamMeter>(meter->panorama(), *meter);
      if (size != meter->panorama()) meter = std::make_shared<SeamMeter>(size, *meter);
      if (callback_ && !abort_.load()) callback_(offset + span, total, stepTexts.at(stepName) + ": Measuring Seams", AdvStepInfo());
      step.seams = measureWith(*meter, withPictures(camera_, images_), listed_);
      undoIfWorse(context, before, seams, step);
      if (!step.undone.empty()) meter = meterBefore;
      seams = step.seams;
    }
    if (stepName == "match") {
      keepIfNeighboursConfirm(step);
      for (const auto& [name, report] : step.modules)
        if (report.status == ModuleStatus::aligned) matched.insert(name);
    }
    if (stepName == "neighbour") failUntied(matched, listed_.size(), step);
    // Modules that did not come through drop out of the later steps.
    for (const auto& [name, report] : step.modules) {
      if (report.status != ModuleStatus::aligned && report.status != ModuleStatus::kept) active.remove(name);
    }
    step.seconds = secondsSince(start);
    step.camera = camera_;
    offset += span;
    if (callback_ && !abort_.load()) {
      callback_(offset, total, stepTexts.at(stepName) + ": Finished",
                AdvStepInfo(std::make_shared<const CameraDescription::Orbivane>(camera_)));
    }
    logger->info("Step {} took {:.2f} s", stepName, step.seconds);
    steps_.push_back(std::move(step));
  }
  awaitSeamsBefore();  // a run interrupted before its first step
  return camera_;
}

}  // namespace GeometryCalibration
