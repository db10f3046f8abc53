// The geometry step: the calibrate pipeline (match to the target, stitch
// neighbours, clip) on the rig, measured against the truth after each step.
#include "demo_steps.h"

#include <algorithm>
#include <cmath>
#include <list>
#include <map>
#include <memory>

#include <opencv2/imgproc.hpp>

#include "command_line.h"
#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/geometry_calibration/calibration_pipeline.h"
#include "orbivane/geometry_calibration/matrix_based/auto_clipping.h"
#include "orbivane/geometry_calibration/matrix_based/match_to_target.h"
#include "orbivane/geometry_calibration/matrix_based/neighbour_neighbour.h"
#include "orbivane/rendering/panorama_renderer.h"
#include "orbivane/utils/wide_text.h"
#include "progress.h"
#include "synthetic/corner_error.h"

namespace Tool {
namespace Demo {

namespace {

// Corner errors of the five modules of `camera` against `truth`, on a
// panorama of `panorama` pixels.
struct RigError {
  double mean = 0.0, worst = 0.0;
  std::map<std::wstring, Synthetic::CornerError> modules;
};

RigError rigError(const Synthetic::Rig& s, const CameraDescription::Orbivane& camera,
                  const std::map<std::wstring, Utils::Matrix4x4>& truth, cv::Size panorama) {
  RigError e;
  for (const auto& name : s.names) {
    const auto module = camera.findModule(name);
    const Synthetic::CornerError c = module && module->matrixGeometry()
                              ? Synthetic::cornerError(module->matrixGeometry()->matrix(), truth.at(name), panorama)
                              : Synthetic::CornerError{1e9, 1e9};
    e.modules[name] = c;
    e.mean += c.mean / double(s.names.size());
    e.worst = std::max(e.worst, c.max);
  }
  return e;
}

const GeometryCalibration::StepReport* findStep(const GeometryCalibration::CalibrationPipeline& pipeline,
                                                const std::string& name) {
  for (const auto& step : pipeline.steps())
    if (step.step == name) return &step;
  return nullptr;
}

std::string worstSeam(const std::vector<GeometryCalibration::SeamResidual>& seams) {
  double worst = 0.0;
  int measured = 0;
  for (const auto& seam : seams) {
    if (!seam.measured) continue;
    ++measured;
    worst = std::max(worst, seam.px);
  }
  return measured == 0 ? "not measured" : number(worst, 3) + " px";
}

Section matchSection(const StepContext& c, const GeometryCalibration::StepReport& step) {
  const Synthetic::Rig& s = c.scene;
  Section section;
  section.id = "target-matching";
  section.title = "Target matching";
  section.seconds = step.seconds;
  section.what = "Step 1 of the calibration pipeline (the calibrate command: match, neighbour, clip on one camera). "
                 "Each module's picture is matched to a target picture of the whole scene (feature matching, mode 0, "
                 "with the full-resolution refinement). The camera starts as assembled: every module is shifted, "
                 "turned and scaled by a known amount. Errors are the distances of the modules' corners from where "
                 "the true matrices put them, in panorama pixels (mean / largest of the four corners); the seam "
                 "residual is the pipeline's own measurement on the overlaps.";
  section.table.push_back({"Module", "Misalignment as assembled", "Corner error before (px)",
                           "Corner error after (px)", "Verdict", "Residual (px)"});
  const RigError after = rigError(s, step.camera, s.truth, s.panorama);
  int aligned = 0;
  for (const auto& name : s.names) {
    const Synthetic::CornerError before = Synthetic::cornerError(s.misaligned.at(name), s.truth.at(name), s.panorama);
    const auto& report = step.modules.at(name);
    aligned += report.status == GeometryCalibration::ModuleStatus::aligned ? 1 : 0;
    section.table.push_back({Utils::toUtf8(name), s.misalignment.at(name), px(before), px(after.modules.at(name)),
                             GeometryCalibration::statusName(report.status), number(report.residualPx, 3)});
  }
  section.passed = after.worst <= kAlignmentTolerancePx && aligned == int(s.names.size());
  section.result = std::to_string(aligned) + " of " + std::to_string(s.names.size()) + " modules aligned, worst seam " +
                   worstSeam(step.seams);
  section.truthError = "corners " + number(after.mean, 2) + " px mean, " + number(after.worst, 2) + " px worst";
  return section;
}

Section neighbourSection(const StepContext& c, const GeometryCalibration::StepReport& matched,
                         const GeometryCalibration::StepReport& step) {
  const Synthetic::Rig& s = c.scene;
  Section section;
  section.id = "neighbour-stitching";
  section.title = "Neighbour stitching";
  section.seconds = step.seconds;
  section.what = "Step 2 of the pipeline, on the camera target matching left (turned, keystoned modules, each with "
                 "its own exposure): stitched pair by pair along the chain M1..M5 (pyramid translation alignment in "
                 "the overlaps, after resampling each pair through its two matrices), with the middle module M3 as "
                 "the reference. Stitching must keep the matched camera as good as it was or make it better.";
  section.table.push_back({"Module", "Corner error after matching (px)", "Corner error after stitching (px)", ""});
  const RigError before = rigError(s, matched.camera, s.truth, s.panorama);
  const RigError after = rigError(s, step.camera, s.truth, s.panorama);
  for (const auto& name : s.names) {
    section.table.push_back({Utils::toUtf8(name), px(before.modules.at(name)), px(after.modules.at(name)), ""});
  }
  section.table.push_back({"Pairs", "Correction (px)", "Correlation", "Status"});
  int measured = 0;
  for (const auto& pair : step.pairs) {
    measured += pair.measured ? 1 : 0;
    section.table.push_back({Utils::toUtf8(pair.first) + " - " + Utils::toUtf8(pair.second),
                             number(pair.shiftPx, 3), number(pair.correlation, 3),
                             pair.measured ? "measured" : "not measured: " + pair.reason});
  }
  section.passed = after.worst <= kAlignmentTolerancePx && after.mean <= before.mean + 0.02 &&
                   measured == int(step.pairs.size()) && !step.pairs.empty();
  section.result = std::to_string(measured) + " of " + std::to_string(step.pairs.size()) +
                   " pairs measured, worst seam " + worstSeam(step.seams);
  section.truthError = "corners " + number(after.mean, 2) + " px mean, " + number(after.worst, 2) +
                       " px worst (after matching " + number(before.mean, 2) + " px mean)";
  return section;
}

// The clipping the true camera would get, in the same mode.
std::vector<float> trueClipping(const CameraDescription::Orbivane& truth) {
  GeometryCalibration::MatrixBased::AutoClipping clipping(std::make_shared<CameraDescription::Orbivane>(truth));
  clipping.config(false, false, 0.5f);
  clipping.setNoHoles(true);
  if (!clipping.process()) throw CommandError("automatic clipping found no rectangle for the true camera");
  return clipping.offset();
}

Section clipSection(const StepContext& c, const GeometryCalibration::StepReport& stitched,
                    const GeometryCalibration::StepReport& step) {
  const Synthetic::Rig& s = c.scene;
  Section section;
  section.id = "clipping";
  section.title = "Automatic clipping";
  section.seconds = step.seconds;
  section.what = "Step 3 of the pipeline: the largest rectangle of the stitched camera's panorama that its modules "
                 "cover without holes (geometry mode, threshold 0.5), compared with the rectangle found for the true camera, and "
                 "applied to the camera: the crop is composed into every module's matrix, so the calibrated camera "
                 "draws the clipped panorama. Offsets are distances from the panorama's edges in pixels; the corner "
                 "errors after clipping compare with the true matrices clipped the same way.";
  if (step.clipping.size() != 4) {
    section.passed = false;
    section.result = "no rectangle";
    section.truthError = "-";
    return section;
  }
  const std::vector<float> truth = trueClipping(c.truth);
  section.table.push_back({"Edge", "Calibrated camera (px)", "True camera (px)", "Difference (px)"});
  const char* edges[] = {"left", "top", "right", "bottom"};
  double worst = 0.0;
  for (int i = 0; i < 4; ++i) {
    const double size = (i % 2 == 0) ? s.panorama.width : s.panorama.height;
    const double a = step.clipping[std::size_t(i)] * size, b = truth[std::size_t(i)] * size;
    worst = std::max(worst, std::fabs(a - b));
    section.table.push_back({edges[i], number(a, 1), number(b, 1), number(a - b, 1)});
  }
  // The true matrices under the same crop, on the clipped panorama.
  std::map<std::wstring, Utils::Matrix4x4> clippedTruth;
  for (const auto& name : s.names) clippedTruth[name] = step.clippingCrop * s.truth.at(name);
  const Utils::Size size = step.camera.panoramaSize();
  const RigError before = rigError(s, stitched.camera, s.truth, s.panorama);
  const RigError after = rigError(s, step.camera, clippedTruth, cv::Size(size.width, size.height));
  writePicture(step.clippingPicture, c.dir + "/clipping.png");

  section.passed = worst <= kClippingTolerancePx && after.worst <= before.worst + 0.01;
  section.result = std::to_string(size.width) + "x" + std::to_string(size.height) + " px panorama after clipping";
  section.truthError = "offsets within " + number(worst, 1) + " px; corners " + number(after.mean, 2) + " px mean, " +
                       number(after.worst, 2) + " px worst";
  return section;
}

}  // namespace

GeometryOutcome runGeometryPipeline(const StepContext& c) {
  const Synthetic::Rig& s = c.scene;
  CameraDescription::Orbivane camera(s.camera);
  CameraDescription::OrbivaneModule target(L"Target");
  target.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(Utils::Matrix4x4::identity()));
  const auto targetPicture = Image::fromMat(s.picture);
  target.setImage(targetPicture);
  camera.addModule(target);
  ImageMap images = s.pictures;
  images[L"Target"] = targetPicture;

  GeometryCalibration::PipelineOptions options;
  options.target = L"Target";
  options.modules = moduleList(s);
  options.steps = {"match", "neighbour", "clip"};
  GeometryCalibration::CalibrationPipeline pipeline(camera, images);
  Progress progress("calibration pipeline");
  pipeline.registerStatusCallback(progress.callback());
  CameraDescription::Orbivane result = pipeline.run(options);
  progress.finish();

  const auto* match = findStep(pipeline, "match");
  const auto* neighbour = findStep(pipeline, "neighbour");
  const auto* clip = findStep(pipeline, "clip");
  if (match == nullptr || neighbour == nullptr || clip == nullptr) {
    throw CommandError("the calibration pipeline stopped before its last step");
  }
  GeometryOutcome out;
  out.sections.push_back(matchSection(c, *match));
  out.sections.push_back(neighbourSection(c, *match, *neighbour));
  out.sections.push_back(clipSection(c, *neighbour, *clip));
  out.stitched = neighbour->camera;
  // The camera the user gets: the five modules, clipped, without the target.
  auto& modules = result.modules();
  modules.erase(std::remove_if(modules.begin(), modules.end(),
                               [](const auto& m) { return !m || m->name() == L"Target"; }),
                modules.end());
  out.camera = std::move(result);
  auto& stitchedModules = out.stitched.modules();
  stitchedModules.erase(std::remove_if(stitchedModules.begin(), stitchedModules.end(),
                                       [](const auto& m) { return !m || m->name() == L"Target"; }),
                        stitchedModules.end());
  return out;
}

}  // namespace Demo
}  // namespace Tool
