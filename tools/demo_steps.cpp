// The demo's calibration steps; see demo_steps.h.
#include "demo_steps.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <list>
#include <memory>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "command_line.h"
#include "orbivane/blur_detection/estimate_blur.h"
#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/geometry_calibration/calibration_pipeline.h"
#include "orbivane/geometry_calibration/matrix_based/auto_clipping.h"
#include "orbivane/geometry_calibration/matrix_based/match_to_target.h"
#include "orbivane/geometry_calibration/matrix_based/neighbour_neighbour.h"
#include "orbivane/geometry_calibration/matrix_based/shader_brute_forcer.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/shading/image_shading.h"
#include "orbivane/rendering/panorama_renderer.h"
#include "orbivane/simulated/simulated_camera.h"
#include "orbivane/sensor_calibration/fisheye_calibration.h"
#include "orbivane/sensor_calibration/resolution_calibration.h"
#include "orbivane/utils/wide_text.h"
#include "progress.h"
#include "synthetic/corner_error.h"
#include "synthetic/reference_pipelines.h"

namespace Tool {
namespace Demo {

using ImageMap = std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>>;

std::string number(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

void writePicture(const cv::Mat& picture, const std::string& path) {
  auto saved = Image::saveMat(picture, path);
  if (!saved) throw CommandError(saved.error());
}

namespace {

// Tolerances the demo holds each calibrator to.
constexpr double kAlignmentTolerancePx = 1.0;   // module corners against the truth
constexpr double kClippingTolerancePx = 2.0;    // clipping offsets against those of the true camera
constexpr double kResolutionTolerance = 0.01;   // relative
constexpr double kFisheyeTolerancePx = 1.5;     // circle centre against the window's middle (window step 1)

std::string px(const Synthetic::CornerError& e) { return number(e.mean, 2) + " / " + number(e.max, 2); }

std::list<std::wstring> moduleList(const Synthetic::Rig& s) { return {s.names.begin(), s.names.end()}; }


OrbivaneGeometry::Shader lensShader(const std::map<std::string, float>& values) {
  std::map<std::string, std::string> texts{{"i_ps_distortion_ext_pwp", "2"}, {"i_ps_distortion_ext_method", "0"}};
  for (const auto& v : values) {
    char text[64];
    std::snprintf(text, sizeof text, "%f", double(v.second));
    texts[v.first] = text;
  }
  return OrbivaneGeometry::Shader(ImageSource::kLensDistortionShaderUid, texts);
}

cv::Mat renderThrough(const std::shared_ptr<Image::UniversalImageInterface>& picture,
                      const std::map<std::string, float>& values) {
  ImageSource::ImageShading shading;
  shading.SetShader({lensShader(values)});
  return Image::toMat(*shading.Apply(picture, Utils::Size{picture->width(), picture->height()}));
}

}  // namespace

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

Section runShaderSearch(const StepContext& c) {
  using GeometryCalibration::MatrixBased::ShaderBruteForcer;
  const std::wstring moduleName = L"lens";
  // A module of 720x540 pixels looking at graf1.png (so the renderings, a
  // quarter of that, have detail enough for the edge comparison in both sizes).
  cv::Mat photo = cv::imread(c.data + "/graf1.png", cv::IMREAD_COLOR);
  if (photo.empty()) throw CommandError("cannot read the sample photograph '" + c.data + "/graf1.png'");
  cv::resize(photo, photo, cv::Size(720, 540), 0, 0, cv::INTER_AREA);
  const auto picture = Image::fromMat(photo);
  writePicture(photo, c.dir + "/pictures/lens.png");

  // The true lens: a grid point (values exactly as the walk makes them).
  const std::map<std::string, std::size_t> truthIndex = {{"f_TCorrection_F", 4},
                                                         {"f_TCorrection_H", 4},
                                                         {"f_TCorrection_V", 8},
                                                         {"f_ps_distortion_ext_xshift", 7},
                                                         {"f_ps_distortion_ext_yshift", 5}};
  std::map<std::string, float> truth;
  ShaderBruteForcer::ParameterList list = ShaderBruteForcer::defaultParameterList();
  for (auto& entry : list) {
    const auto values = ShaderBruteForcer::parameterValues(entry.first, entry.second);
    const std::size_t index = std::min(truthIndex.at(entry.first), values.size() - 1);
    truth[entry.first] = values[index];
    if (c.quick) {
      // A slice around the truth: two values either side (one for the correction weights).
      const std::size_t reach = entry.first.find("shift") != std::string::npos ? 2 : 1;
      const std::size_t low = index >= reach ? index - reach : 0;
      entry.second.min = values[low];
      entry.second.max = values[std::min(values.size() - 1, index + reach)] + 0.5f * entry.second.step;
    }
  }
  const cv::Mat reference = renderThrough(picture, truth);
  writePicture(reference, c.dir + "/shader-reference.png");

  CameraDescription::Orbivane camera;
  CameraDescription::OrbivaneModule module(moduleName);
  auto geometry = std::make_unique<OrbivaneGeometry::MatrixGeometry>(Utils::Matrix4x4::identity());
  geometry->setShaderId(ImageSource::kLensDistortionShaderUid);
  module.setGeometry(std::move(geometry));
  module.setShaders({OrbivaneGeometry::clipMatrixShader(Utils::Matrix4x4::identity()), lensShader({})});
  module.setImage(picture);
  camera.addModule(module);
  ImageMap images{{moduleName, picture}, {L"reference", Image::fromMat(reference)}};

  ShaderBruteForcer forcer(camera, images, list);
  Progress progress("shader search");
  forcer.registerStatusCallback(progress.callback());
  const Stopwatch watch;
  const auto cameras = forcer.searchForBestParameters(moduleName, L"reference");
  Section section;
  section.seconds = watch.seconds();
  progress.finish();
  if (forcer.results().empty()) throw CommandError("the shader search kept no result");

  const auto& best = forcer.results().front();
  const cv::Mat found = renderThrough(picture, best.parameters);
  writePicture(found, c.dir + "/shader-found.png");
  cv::Mat difference;
  cv::absdiff(found, reference, difference);
  const double meanDifference = cv::mean(difference)[0];

  int truthRank = -1, rank = 1;
  for (const auto& r : forcer.results()) {
    bool same = true;
    for (const auto& t : truth) same = same && std::fabs(r.parameters.at(t.first) - t.second) < 1e-5f;
    if (same) {
      truthRank = rank;
      break;
    }
    ++rank;
  }
  section.id = "shader-search";
  section.title = "Shader parameter search";
  section.what = std::string("A module's picture (graf1.png) seen through a lens with known distortion parameters gives the "
                             "reference view. The search renders the picture through the distortion shader for ") +
                 (c.quick ? "a slice of the grid around the truth" : "every point of the full grid") + " (" +
                 std::to_string(forcer.evaluationCount()) +
                 " evaluations) and keeps the ten parameter sets whose edge images match the reference best.";
  section.table.push_back({"Parameter", "True value", "Found", "Difference"});
  double worst = 0.0;
  for (const auto& t : truth) {
    const float f = best.parameters.at(t.first);
    worst = std::max(worst, double(std::fabs(f - t.second)));
    section.table.push_back({t.first, number(t.second, 3), number(f, 3), number(f - t.second, 3)});
  }
  section.table.push_back({"edge error of the best", "", number(best.error, 3), ""});
  section.table.push_back({"picture difference to the reference (grey levels)", "", number(meanDifference, 2), ""});
  section.figures.push_back({"pictures/lens.png", "The module's picture"});
  section.figures.push_back({"shader-reference.png", "Reference: the picture through the true lens parameters"});
  section.figures.push_back({"shader-found.png", "The picture through the parameters found"});
  section.passed = truthRank == 1;
  section.result = truthRank > 0 ? "true parameters ranked " + std::to_string(truthRank) + " of " +
                                       std::to_string(forcer.results().size())
                                 : "true parameters not among the best";
  section.truthError = "largest parameter difference " + number(worst, 3);
  return section;
}

Section runBlurScores(const StepContext& c) {
  const Synthetic::Rig& s = c.scene;
  Section section;
  section.id = "blur";
  section.title = "Blur scores";
  section.what = "The Laplacian-variance blur score of every module picture (larger is sharper), checked against the "
                 "plain OpenCV sequence (grey, Laplacian, masked variance), and of M3's picture defocused by a "
                 "Gaussian of sigma 1.5 px.";
  section.table.push_back({"Picture", "Blur score", "OpenCV sequence", "Same"});
  Progress progress("blur scores");
  bool allSame = true;
  int sharp = 0, soft = 0;
  double seconds = 0.0;
  int step = 0;
  std::vector<std::pair<std::string, cv::Mat>> pictures;
  for (const auto& name : s.names) pictures.emplace_back(Utils::toUtf8(name), Image::toMat(*s.pictures.at(name)));
  cv::Mat defocused;
  cv::GaussianBlur(Image::toMat(*s.pictures.at(L"M3")), defocused, cv::Size(0, 0), 1.5);
  pictures.emplace_back("M3 defocused", defocused);
  writePicture(defocused, c.dir + "/pictures/M3-defocused.png");
  for (const auto& p : pictures) {
    progress.update(++step, int(pictures.size()), p.first);
    const Stopwatch watch;
    const int ours = BlurDetection::estimateBlur(Image::fromMat(p.second), 0);
    seconds += watch.seconds();
    const int plain = Synthetic::referenceBlur(p.second, 0);
    allSame = allSame && ours == plain;
    if (p.first == "M3") sharp = ours;
    if (p.first == "M3 defocused") soft = ours;
    section.table.push_back({p.first, std::to_string(ours), std::to_string(plain), ours == plain ? "yes" : "NO"});
  }
  progress.finish();
  section.seconds = seconds;
  section.figures.push_back({"pictures/M3-defocused.png", "M3 defocused (sigma 1.5 px)"});
  section.passed = allSame && soft < sharp;
  section.result = "M3 " + std::to_string(sharp) + ", defocused " + std::to_string(soft);
  section.truthError = allSame ? "equal to OpenCV on all " + std::to_string(pictures.size()) + " pictures"
                               : "differs from OpenCV";
  return section;
}

namespace {

Quarn::QuarnConnection simulatedConnection(const std::string& address, const std::string& device) {
  Quarn::QuarnConnection connection;
  connection.backend = "simulated";
  connection.address = address;
  connection.device = device;
  return connection;
}

// Top-left pixel of a simulated module's window on its sensor frame.
cv::Point windowCorner(const Quarn::SimulatedModule& m, cv::Size frame) {
  return {(frame.width - m.window.width) / 2 + m.window.x, (frame.height - m.window.height) / 2 + m.window.y};
}

}  // namespace

Section runFisheyeCentring(const StepContext& c) {
  const std::string address = "memory:orbivane-demo-fisheye";
  auto opened = Quarn::SimulatedCamera::open(address);
  if (!opened) throw CommandError(opened.error());
  auto simulated = opened.value();
  Quarn::SimulatedModule m;
  m.id = "fisheye";
  m.scene.kind = "fisheye";
  const double scale = c.quick ? 0.5 : 1.0;
  m.scene.width = int(1600 * scale);
  m.scene.height = int(1200 * scale);
  m.scene.centreX = m.scene.width / 2.0 + 57.4 * scale;
  m.scene.centreY = m.scene.height / 2.0 - 38.2 * scale;
  m.scene.radius = 400 * scale;
  auto added = simulated->addModule(m);
  if (!added) throw CommandError(added.error());
  const cv::Size frame(m.scene.width, m.scene.height);

  CameraDescription::OrbivaneModule module(L"fisheye");
  module.setFisheye(true);
  module.setConnection(simulatedConnection(address, m.id));

  Progress progress("fisheye centring");
  progress.update(1, 3, "finding the lens circle");
  const Stopwatch watch;
  auto before = simulated->capture(m.id);
  if (!before) throw CommandError(before.error());
  const Quarn::SimulatedModule startState = simulated->module(m.id).value();
  SensorCalibration::FisheyeCalibration calibration(module, 97);
  const auto first = calibration.calculateCalibration(Image::fromMat(before.value()));
  if (first.radius < 0) throw CommandError("fisheye centring found no lens circle");
  progress.update(2, 3, "moving the sensor window");
  const auto applied = calibration.apply(0, 0);
  if (!applied) throw CommandError("fisheye centring could not move the window: " + applied.error());
  progress.update(3, 3, "checking");
  auto after = simulated->capture(m.id);
  if (!after) throw CommandError(after.error());
  const auto second = calibration.calculateCalibration(Image::fromMat(after.value()));
  Section section;
  section.seconds = watch.seconds();
  progress.finish();
  const Quarn::SimulatedModule endState = simulated->module(m.id).value();

  writePicture(Image::toMat(*first.image), c.dir + "/fisheye-before.png");
  if (second.image) writePicture(Image::toMat(*second.image), c.dir + "/fisheye-after.png");
  // Where the circle truly is in each window, and where the window's middle is.
  const cv::Point2d centre(m.scene.centreX, m.scene.centreY);
  const cv::Point2d truthBefore = centre - cv::Point2d(windowCorner(startState, frame));
  const cv::Point2d truthAfter = centre - cv::Point2d(windowCorner(endState, frame));
  const cv::Point2d middle(endState.window.width / 2, endState.window.height / 2);
  const cv::Point2d residual = truthAfter - middle;

  section.id = "fisheye";
  section.title = "Fisheye centring";
  section.what = "A simulated fisheye module whose lens circle sits off the middle of its sensor window. The "
                 "calibrator finds the circle, moves the sensor window through the session library, and the module "
                 "is captured again (closed loop).";
  section.table.push_back({"", "Found (px)", "True (px)", "Window position"});
  section.table.push_back({"before", number(first.x, 2) + ", " + number(first.y, 2),
                           number(truthBefore.x, 2) + ", " + number(truthBefore.y, 2),
                           std::to_string(startState.window.x) + ", " + std::to_string(startState.window.y)});
  section.table.push_back({"after", number(second.x, 2) + ", " + number(second.y, 2),
                           number(truthAfter.x, 2) + ", " + number(truthAfter.y, 2),
                           std::to_string(endState.window.x) + ", " + std::to_string(endState.window.y)});
  section.table.push_back({"window middle", "", number(middle.x, 1) + ", " + number(middle.y, 1), ""});
  section.table.push_back({"radius", number(second.radius, 2), number(m.scene.radius, 2), ""});
  section.figures.push_back({"fisheye-before.png", "Before: the circle found in the first capture"});
  section.figures.push_back({"fisheye-after.png", "After moving the window: the circle found again"});
  section.passed = std::fabs(residual.x) <= kFisheyeTolerancePx && std::fabs(residual.y) <= kFisheyeTolerancePx;
  section.result = "window moved by " + std::to_string(endState.window.x - startState.window.x) + ", " +
                   std::to_string(endState.window.y - startState.window.y) + " px";
  section.truthError = "circle " + number(std::hypot(residual.x, residual.y), 2) + " px from the middle";
  return section;
}

Section runResolution(const StepContext& c) {
  const std::string address = "memory:orbivane-demo-target";
  auto opened = Quarn::SimulatedCamera::open(address);
  if (!opened) throw CommandError(opened.error());
  auto simulated = opened.value();
  const double scale = c.quick ? 0.5 : 1.0;
  Quarn::SimulatedModule m;
  m.id = "target";
  m.scene.kind = "target";
  m.scene.width = int(1600 * scale);
  m.scene.height = int(1200 * scale);
  m.scene.cornerX = 320 * scale;
  m.scene.cornerY = 260 * scale;
  m.scene.spacingX = 900 * scale;
  m.scene.spacingY = 600 * scale;
  m.scene.markRadius = 28 * scale;
  auto added = simulated->addModule(m);
  if (!added) throw CommandError(added.error());
  // The target's sides: 0.9 m by 0.6 m, so the truth is 1 mm (quick: 2 mm) per pixel.
  const double realX = 0.9, realY = 0.6;
  const double truthMm = realX * 1000.0 / m.scene.spacingX;

  CameraDescription::OrbivaneModule module(L"target");
  module.setConnection(simulatedConnection(address, m.id));
  Progress progress("resolution");
  progress.update(1, 1, "measuring the three-circle target");
  const Stopwatch watch;
  auto picture = simulated->capture(m.id);
  if (!picture) throw CommandError(picture.error());
  SensorCalibration::ResolutionCalibration calibration(module, float(realX), float(realY),
                                                       int(200 * scale * scale));
  const auto annotated = calibration.calculateCalibration(Image::fromMat(picture.value()));
  Section section;
  section.seconds = watch.seconds();
  progress.finish();
  if (annotated) writePicture(Image::toMat(*annotated), c.dir + "/resolution.png");

  const double mmX = calibration.metresPerPixelX() * 1000.0, mmY = calibration.metresPerPixelY() * 1000.0;
  const double worst = std::max(std::fabs(mmX - truthMm), std::fabs(mmY - truthMm)) / truthMm;
  section.id = "resolution";
  section.title = "Resolution";
  section.what = "A simulated module looks at a target of three round marks at the corners of a right angle, 0.9 m "
                 "by 0.6 m. The calibrator finds the marks, measures the two sides in pixels and divides.";
  section.table.push_back({"", "Measured", "True"});
  section.table.push_back({"marks found", std::to_string(calibration.circleCount()), "3"});
  section.table.push_back({"horizontal side (px)", std::to_string(calibration.horizontalSpacing()),
                           number(m.scene.spacingX, 0)});
  section.table.push_back({"vertical side (px)", std::to_string(calibration.verticalSpacing()),
                           number(m.scene.spacingY, 0)});
  section.table.push_back({"mm per pixel, x", number(mmX, 4), number(truthMm, 4)});
  section.table.push_back({"mm per pixel, y", number(mmY, 4), number(truthMm, 4)});
  if (annotated) section.figures.push_back({"resolution.png", "The marks found and the measurement"});
  section.passed = calibration.circleCount() == 3 && worst <= kResolutionTolerance;
  section.result = number(1000.0 / mmX, 1) + " px/m";
  section.truthError = number(worst * 100.0, 2) + " % off";
  return section;
}

}  // namespace Demo
}  // namespace Tool
