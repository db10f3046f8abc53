// The calibrators composed on one assembled rig: modules turned, scaled and
// keystoned, with their own exposure, vignetting and noise, seeing a scene
// made of opencv-doc photographs through known homographies.
#include "orbivane/geometry_calibration/calibration_pipeline.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include <limits>
#include <memory>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "synthetic/corner_error.h"
#include "synthetic/rig.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/geometry_calibration/matrix_based/match_to_target.h"
#include "orbivane/geometry_calibration/matrix_based/neighbour_neighbour.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/utils/wide_text.h"

namespace {

using GeometryCalibration::ModuleStatus;
using Synthetic::cornerError;
struct PipelineRig {
  Synthetic::Rig scene;
  CameraDescription::Orbivane camera;  // the misaligned modules and the target
  std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images;
};

PipelineRig makeRig(bool quick) {
  PipelineRig rig{Synthetic::makeRig(std::string(ORBIVANE_SAMPLE_DATA_DIR), quick), {}, {}};
  rig.camera = rig.scene.camera;
  CameraDescription::OrbivaneModule target(L"Target");
  target.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(Utils::Matrix4x4::identity()));
  const auto picture = Image::fromMat(rig.scene.picture);
  target.setImage(picture);
  rig.camera.addModule(target);
  rig.images = rig.scene.pictures;
  rig.images[L"Target"] = picture;
  return rig;
}

struct StepErrors {
  double mean = 0, worst = 0;
};
// Corner errors against the truth; after clipping, against the truth under
// the same crop, on the clipped panorama.
StepErrors errorsOf(const PipelineRig& rig, const CameraDescription::Orbivane& camera,
                const Utils::Matrix4x4& crop = Utils::Matrix4x4::identity()) {
  StepErrors e;
  const Utils::Size size = camera.panoramaSize();
  const cv::Size panorama = size.empty() ? rig.scene.panorama : cv::Size(size.width, size.height);
  for (const auto& name : rig.scene.names) {
    const auto c = cornerError(camera.findModule(name)->matrixGeometry()->matrix(), crop * rig.scene.truth.at(name),
                               panorama);
    e.mean += c.mean / rig.scene.names.size();
    e.worst = std::max(e.worst, c.max);
  }
  return e;
}

TEST(CalibrationComposition, MatchThenNeighbourOnATurnedRig) {
  const PipelineRig rig = makeRig(false);
  const std::list<std::wstring> names(rig.scene.names.begin(), rig.scene.names.end());
  GeometryCalibration::MatrixBased::MatchToTarget matcher(rig.camera, rig.images);
  const auto matched = matcher.calibrate(names, L"Target");
  const StepErrors afterMatch = errorsOf(rig, matched);
  for (const auto& [name, report] : matcher.moduleReports()) {
    EXPECT_EQ(report.status, ModuleStatus::aligned) << Utils::toUtf8(name) << ": " << report.reason;
  }
  GeometryCalibration::MatrixBased::NeighbourNeighbour stitcher(matched, rig.images, 4, 6, 1.0f);
  const auto stitched = stitcher.calibrate(names, L"M3");
  const StepErrors afterNeighbour = errorsOf(rig, stitched);
  std::printf("match %.3f / %.3f px, neighbour %.3f / %.3f px\n", afterMatch.mean, afterMatch.worst,
              afterNeighbour.mean, afterNeighbour.worst);
  for (const auto& pair : stitcher.pairReports()) {
    EXPECT_TRUE(pair.measured) << pair.reason;
    std::printf("pair %s-%s shift %.3f px corr %.3f\n", Utils::toUtf8(pair.first).c_str(),
                Utils::toUtf8(pair.second).c_str(), pair.shiftPx, pair.correlation);
  }
  EXPECT_LT(afterMatch.worst, 0.3);
  EXPECT_LT(afterNeighbour.mean, afterMatch.mean + 0.02);
  EXPECT_LT(afterNeighbour.worst, 0.3);
}

// A module placed where M3 is, showing something else.
void addDecoy(PipelineRig& rig, const std::wstring& name, const cv::Mat& picture) {
  CameraDescription::OrbivaneModule decoy(name);
  decoy.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(rig.scene.misaligned.at(L"M3")));
  const auto image = Image::fromMat(picture);
  decoy.setImage(image);
  rig.camera.addModule(decoy);
  rig.images[name] = image;
}

// Decoys fail and keep their matrices bit for bit through matching and
// stitching; the good modules are aligned; the pipeline leaves the decoys out
// of the later steps; clipping crops what the good modules cover and moves
// every module with it; the whole camera ends within tolerance of the truth.
TEST(CalibrationPipeline, DecoysFailAndTheRigIsCalibrated) {
  PipelineRig rig = makeRig(false);
  const cv::Size size = rig.scene.modulePicture;
  cv::Mat noise(size, CV_8UC3);
  cv::RNG(5).fill(noise, cv::RNG::UNIFORM, 0, 256);
  cv::Mat photograph;
  cv::resize(cv::imread(std::string(ORBIVANE_SAMPLE_DATA_DIR) + "/baboon.jpg"), photograph, size);
  ASSERT_FALSE(photograph.empty());
  addDecoy(rig, L"Noise", noise);
  addDecoy(rig, L"Baboon", photograph);
  addDecoy(rig, L"Blank", cv::Mat(size, CV_8UC3, cv::Scalar(128, 128, 128)));

  GeometryCalibration::CalibrationPipeline pipeline(rig.camera, rig.images);
  GeometryCalibration::PipelineOptions options;
  options.target = L"Target";
  options.modules = {L"M1", L"M2", L"Noise", L"M3", L"Baboon", L"M4", L"M5", L"Blank"};
  std::vector<std::pair<int, int>> progress;
  std::vector<std::string> texts;
  pipeline.registerStatusCallback([&](int step, int total, std::string text, GeometryCalibration::AdvStepInfo) {
    progress.emplace_back(step, total);
    texts.push_back(text);
  });
  const auto result = pipeline.run(options);

  // One total over the three steps (a share of 8 each), never going back,
  // ending at the total; each step ends its share.
  ASSERT_FALSE(progress.empty());
  for (std::size_t k = 0; k < progress.size(); ++k) {
    EXPECT_EQ(progress[k].second, 24) << texts[k];
    if (k > 0) {
      EXPECT_GE(progress[k].first, progress[k - 1].first) << texts[k];
    }
  }
  EXPECT_EQ(progress.back().first, 24);
  for (const char* end : {"target matching: Finished", "neighbour stitching: Finished", "clipping: Finished"})
    EXPECT_NE(std::find(texts.begin(), texts.end(), end), texts.end()) << end;

  const auto verdicts = pipeline.verdicts();
  for (const std::wstring decoy : {L"Noise", L"Baboon", L"Blank"}) {
    EXPECT_EQ(verdicts.at(decoy).status, ModuleStatus::failed) << Utils::toUtf8(decoy);
    EXPECT_FALSE(verdicts.at(decoy).reason.empty());
    EXPECT_EQ(pipeline.steps()[1].camera.findModule(decoy)->matrixGeometry()->matrix(),
              rig.scene.misaligned.at(L"M3"))
        << Utils::toUtf8(decoy) << " moved";
    EXPECT_LT(cornerError(result.findModule(decoy)->matrixGeometry()->matrix(),
                          pipeline.steps()[2].clippingCrop * rig.scene.misaligned.at(L"M3"), rig.scene.panorama)
                  .max,
              1e-3)
        << Utils::toUtf8(decoy) << " moved other than by the crop";
  }
  for (const auto& name : rig.scene.names) {
    EXPECT_EQ(verdicts.at(name).status, ModuleStatus::aligned) << Utils::toUtf8(name) << ": " << verdicts.at(name).reason;
    EXPECT_LT(verdicts.at(name).residualPx, 1.0);
  }
  ASSERT_EQ(pipeline.steps().size(), 3u);
  const StepErrors stitched = errorsOf(rig, pipeline.steps()[1].camera);
  const StepErrors errors = errorsOf(rig, result, pipeline.steps()[2].clippingCrop);
  EXPECT_LT(stitched.worst, 0.3);
  EXPECT_LT(errors.worst, 0.3);
  EXPECT_NEAR(errors.mean, stitched.mean, 0.01) << "the crop keeps every module where it was";
  // The clipping is that of the five good modules (the target spans the
  // whole surface and would leave nothing to clip), and the panorama shrank
  // to the rectangle.
  const auto& clip = pipeline.steps()[2];
  ASSERT_EQ(clip.clipping.size(), 4u);
  EXPECT_GT(clip.clipping[0] + clip.clipping[1] + clip.clipping[2] + clip.clipping[3], 0.01f);
  EXPECT_LT(result.panoramaSize().width, rig.scene.panorama.width);
  EXPECT_LT(result.panoramaSize().height, rig.scene.panorama.height);
  // Three steps, each timed, each followed by a seam measurement of every
  // listed pair; the seams between good neighbours close to well under a pixel.
  EXPECT_EQ(pipeline.steps()[0].step, "match");
  EXPECT_EQ(pipeline.steps()[1].modules.at(L"Baboon").status, ModuleStatus::skipped);
  ASSERT_EQ(pipeline.steps().back().clipping.size(), 4u);
  double worstBefore = 0, worstAfter = 0;
  for (const auto& seam : pipeline.seamsBefore())
    if (seam.measured) worstBefore = std::max(worstBefore, seam.px);
  for (const auto& seam : pipeline.steps()[1].seams) {
    if (seam.first.size() == 2 && seam.second.size() == 2 && seam.first[0] == L'M' && seam.second[0] == L'M') {
      EXPECT_TRUE(seam.measured) << Utils::toUtf8(seam.first) << ": " << seam.reason;
      worstAfter = std::max(worstAfter, seam.px);
    }
  }
  EXPECT_GT(worstBefore, 3.0);
  EXPECT_LT(worstAfter, 0.3);
  // The seams before were measured while target matching ran: they are the
  // starting camera's, as a meter of their own measures them, to float
  // rounding (measured while the cores were shared, a 38.56 px seam came
  // out 3e-4 px off, from the same 180 matches; two meters of their own
  // agree to the last bit).
  const auto alone = GeometryCalibration::CalibrationPipeline::measureSeams(rig.camera, rig.images, options.modules);
  ASSERT_EQ(alone.size(), pipeline.seamsBefore().size());
  for (std::size_t k = 0; k < alone.size(); ++k) {
    const auto& during = pipeline.seamsBefore()[k];
    const std::string pair = Utils::toUtf8(alone[k].first) + " / " + Utils::toUtf8(alone[k].second);
    EXPECT_EQ(during.first, alone[k].first);
    EXPECT_EQ(during.second, alone[k].second);
    EXPECT_EQ(during.measured, alone[k].measured) << pair;
    EXPECT_NEAR(during.matches, alone[k].matches, 2) << pair;
    EXPECT_NEAR(during.px, alone[k].px, 0.05) << pair;
  }
}

// Every way a module can be unusable ends in a named status, and nothing
// unusable is written.
TEST(CalibrationPipeline, BadModulesEndInNamedStatuses) {
  PipelineRig rig = makeRig(true);
  auto addModule = [&rig](const std::wstring& name, const Utils::Matrix4x4& matrix, const cv::Mat& picture) {
    CameraDescription::OrbivaneModule module(name);
    module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(matrix));
    if (!picture.empty()) {
      module.setImage(Image::fromMat(picture));
      rig.images[name] = module.image();
    }
    rig.camera.addModule(module);
  };
  const Utils::Matrix4x4 good = rig.scene.misaligned.at(L"M2");
  const cv::Mat picture = Image::toMat(rig.images.at(L"M2"));
  Utils::Matrix4x4 singular = good;
  for (int c = 0; c < 4; ++c) singular.set(1, c, 0.0f);
  Utils::Matrix4x4 mirrored = good;
  for (int r = 0; r < 4; ++r) mirrored.set(r, 0, -mirrored.get(r, 0));
  Utils::Matrix4x4 infinite = good;
  infinite.set(0, 3, std::numeric_limits<float>::infinity());
  const Utils::Matrix4x4 faraway = Utils::Matrix4x4::translation(2.0f, 0.0f) * good;
  addModule(L"Tiny", good, cv::Mat(1, 1, CV_8UC3, cv::Scalar(9, 9, 9)));
  addModule(L"NoPicture", good, cv::Mat());
  addModule(L"Singular", singular, picture);
  addModule(L"Mirrored", mirrored, picture);
  addModule(L"Infinite", infinite, picture);
  addModule(L"Outside", faraway, picture);

  GeometryCalibration::MatrixBased::MatchToTarget matcher(rig.camera, rig.images);
  const auto result = matcher.calibrate({L"Tiny", L"NoPicture", L"Singular", L"Mirrored", L"Infinite", L"Outside",
                                         L"Unknown", L"M2"},
                                        L"Target");
  const auto reports = matcher.moduleReports();
  ASSERT_EQ(reports.size(), 8u);
  const std::map<std::wstring, std::string> expected = {
      {L"Tiny", "picture too small"}, {L"NoPicture", "no picture"},      {L"Singular", "singular matrix"},
      {L"Mirrored", "mirrored matrix"}, {L"Infinite", "non-finite matrix"}, {L"Outside", "no overlap"},
      {L"Unknown", "no module of that name"}};
  for (const auto& [name, reason] : expected) {
    const auto& report = reports.at(name);
    EXPECT_NE(report.status, ModuleStatus::aligned) << Utils::toUtf8(name);
    EXPECT_NE(report.reason.find(reason), std::string::npos) << Utils::toUtf8(name) << ": " << report.reason;
    if (const auto module = result.findModule(name)) {
      EXPECT_EQ(module->matrixGeometry()->matrix(), rig.camera.findModule(name)->matrixGeometry()->matrix())
          << Utils::toUtf8(name);
    }
  }
  EXPECT_EQ(reports.at(L"Unknown").status, ModuleStatus::skipped);
  EXPECT_EQ(reports.at(L"M2").status, ModuleStatus::aligned) << reports.at(L"M2").reason;
}

// The run is interrupted as neighbour stitching starts: no module counts as
// calibrated, each says so, and the camera returned is whole.
TEST(CalibrationPipeline, AnInterruptedRunReportsItsModulesAborted) {
  const PipelineRig rig = makeRig(true);
  GeometryCalibration::CalibrationPipeline pipeline(rig.camera, rig.images);
  pipeline.registerStatusCallback([&pipeline](int, int, std::string text, GeometryCalibration::AdvStepInfo) {
    if (text.rfind("neighbour stitching", 0) == 0) pipeline.abort();
  });
  GeometryCalibration::PipelineOptions options;
  options.target = L"Target";
  options.steps = {"match", "neighbour", "clip"};
  const auto result = pipeline.run(options);
  EXPECT_TRUE(pipeline.aborted());
  EXPECT_LT(pipeline.steps().size(), 3u) << "clipping never started";
  const auto verdicts = pipeline.verdicts();
  for (const auto& name : rig.scene.names) {
    const auto& verdict = verdicts.at(name);
    EXPECT_EQ(verdict.status, ModuleStatus::aborted) << Utils::toUtf8(name) << ": " << verdict.reason;
    EXPECT_TRUE(result.findModule(name)->matrixGeometry()->matrix().isFinite());
  }
}

// Options that name the modules inconsistently are refused before any work.
TEST(CalibrationPipeline, TheReferenceAndTheTargetMustFitTheModules) {
  GeometryCalibration::PipelineOptions options;
  options.target = L"Target";
  options.steps = {"match", "neighbour"};
  options.modules = {L"Target", L"M1"};
  EXPECT_NE(options.validate().error().find("the target 'Target' is among the modules"), std::string::npos);
  options.modules = {L"M1", L"M2"};
  options.reference = L"M3";
  EXPECT_NE(options.validate().error().find("'M3' is not among the modules"), std::string::npos);
  options.reference = L"Target";
  EXPECT_NE(options.validate().error().find("is the target"), std::string::npos);
  options.reference = L"M2";
  EXPECT_TRUE(options.validate());
  // Each step's record is checked by its own rules, named by its step.
  GeometryCalibration::PipelineOptions records = options;
  records.match.m2b = 0;
  EXPECT_NE(records.validate().error().find("target matching: m2b must lie in 1..100"), std::string::npos);
  records = options;
  records.neighbour.levels = 99;
  EXPECT_NE(records.validate().error().find("neighbour stitching: levels must lie in 1..30"), std::string::npos);
  records = options;
  records.clip.valueMode = true;
  EXPECT_NE(records.validate().error().find("geometry mode"), std::string::npos);
  EXPECT_TRUE(options.clip.noHoles) << "the pipeline clips without holes unless told otherwise";
  const PipelineRig rig = makeRig(true);
  GeometryCalibration::CalibrationPipeline pipeline(rig.camera, rig.images);
  options.modules.clear();
  options.reference = L"Nowhere";
  EXPECT_THROW(pipeline.run(options), std::invalid_argument);
}

}  // namespace

namespace {

std::vector<double> matricesOf(const CameraDescription::Orbivane& camera) {
  std::vector<double> values;
  for (const auto& module : camera.modules()) {
    if (module->matrixGeometry() == nullptr) continue;
    for (int r = 0; r < 4; ++r)
      for (int c = 0; c < 4; ++c) values.push_back(module->matrixGeometry()->matrix()(r, c));
  }
  return values;
}

// Target matching and neighbour stitching check their settings when they
// start (automatic clipping does in process()), as the command line and
// Python do: out of range, nothing moves and every module or pair says which
// setting, instead of a run on values nobody can mean.
TEST(CalibrationPipeline, EachCalibratorRefusesSettingsOutOfRangeWhenItStarts) {
  const PipelineRig rig = makeRig(true);
  const std::list<std::wstring> modules(rig.scene.names.begin(), rig.scene.names.end());
  const auto reasonOf = [](const GeometryCalibration::MatrixBased::MatchToTarget& matcher, const std::wstring& name) {
    return matcher.moduleReports().at(name).reason;
  };
  {
    GeometryCalibration::MatrixBased::MatchToTarget matcher(rig.camera, rig.images);
    matcher.setCalibrationMode(GeometryCalibration::MatrixBased::MatchToTarget::kIterative);
    matcher.setM2bMaxIteration(0);
    const auto result = matcher.calibrate(modules, L"Target");
    EXPECT_EQ(matricesOf(result), matricesOf(rig.camera));
    for (const auto& name : modules) {
      EXPECT_EQ(matcher.moduleReports().at(name).status, ModuleStatus::failed);
      EXPECT_NE(reasonOf(matcher, name).find("m2b must lie in 1..100, not 0"), std::string::npos) << reasonOf(matcher, name);
      EXPECT_EQ(matcher.error(name), std::numeric_limits<float>::max());
    }
  }
  {
    GeometryCalibration::MatrixBased::MatchToTarget matcher(rig.camera, rig.images);
    matcher.allowScale(std::numeric_limits<float>::quiet_NaN());
    matcher.calibrate(modules, L"Target");
    EXPECT_NE(reasonOf(matcher, modules.front()).find("allowed scale"), std::string::npos);
    matcher.allowScale(0.0f);
    matcher.setGridEnabled(true);
    matcher.initGrid(100, 2, modules.front());
    matcher.calibrate(modules, L"Target");
    EXPECT_NE(reasonOf(matcher, modules.front()).find("1..64 columns and rows, not 100x2"), std::string::npos)
        << reasonOf(matcher, modules.front());
  }
  {
    GeometryCalibration::MatrixBased::NeighbourNeighbour stitcher(rig.camera, rig.images, 0, 6, 1.0f);
    const auto result = stitcher.calibrate(modules, modules.front());
    EXPECT_EQ(matricesOf(result), matricesOf(rig.camera));
    ASSERT_EQ(stitcher.pairReports().size(), modules.size() - 1);
    for (const auto& pair : stitcher.pairReports()) {
      EXPECT_FALSE(pair.measured);
      EXPECT_NE(pair.reason.find("levels must lie in 1..30, not 0"), std::string::npos) << pair.reason;
    }
  }
}

}  // namespace

namespace {

// A module set down beside the others (as camera init puts a picture it
// could not place) overlaps none of them: neighbour stitching cannot tie it
// in, so it fails with that reason, and the clip leaves no room for it.
TEST(CalibrationPipeline, AModuleNoSeamTiesInFailsAndTheClipLeavesItOut) {
  PipelineRig rig = makeRig(true);
  const std::wstring last = rig.scene.names.back();
  CameraDescription::OrbivaneModule aside(L"Aside");
  aside.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(
      Utils::Matrix4x4::translation(3.0f, 0.0f) * rig.scene.misaligned.at(last)));
  aside.setImage(rig.images.at(last));
  rig.camera.addModule(aside);
  rig.images[L"Aside"] = rig.images.at(last);

  GeometryCalibration::CalibrationPipeline pipeline(rig.camera, rig.images);
  GeometryCalibration::PipelineOptions options;
  options.target = L"Target";
  options.steps = {"neighbour", "clip"};
  const auto result = pipeline.run(options);
  const auto verdicts = pipeline.verdicts();
  EXPECT_EQ(verdicts.at(L"Aside").status, ModuleStatus::failed);
  EXPECT_NE(verdicts.at(L"Aside").reason.find("overlaps no other module"), std::string::npos)
      << verdicts.at(L"Aside").reason;
  for (const auto& name : rig.scene.names) {
    EXPECT_NE(verdicts.at(name).status, ModuleStatus::failed) << Utils::toUtf8(name) << ": " << verdicts.at(name).reason;
  }
  // The clip is the rectangle of the placed modules alone: the module aside
  // lies wholly outside it.
  ASSERT_EQ(pipeline.steps().size(), 2u);
  const auto& clipped = pipeline.steps().back();
  EXPECT_EQ(clipped.modules.at(L"Aside").status, ModuleStatus::skipped);
  const Utils::Size size = result.panoramaSize();
  const cv::Matx33d planar = OrbivaneGeometry::planarHomography(result.findModule(L"Aside")->matrixGeometry()->matrix());
  std::vector<cv::Point2d> corner = {{0.0, 0.0}}, landed;
  cv::perspectiveTransform(corner, landed, planar);
  EXPECT_GT(landed[0].x, 1.0) << "the module aside starts right of the clipped panorama (" << size.width << " wide)";
}

}  // namespace

namespace {

// The rig's target module shows `picture` instead of the scene.
void showOnTarget(PipelineRig& rig, const cv::Mat& picture) {
  const auto image = Image::fromMat(picture);
  rig.camera.findModule(L"Target")->setImage(image);
  rig.images[L"Target"] = image;
}

// Target matching, then the clip, on the rig's modules.
std::unique_ptr<GeometryCalibration::CalibrationPipeline> matchThenClip(const PipelineRig& rig) {
  auto pipeline = std::make_unique<GeometryCalibration::CalibrationPipeline>(rig.camera, rig.images);
  GeometryCalibration::PipelineOptions options;
  options.target = L"Target";
  options.steps = {"match", "clip"};
  pipeline->run(options);
  return pipeline;
}

// The rig placed as it truly is, with the target blacked out where its
// first `hidden` modules land (the target does not show them), and the
// first module moved `offPx` panorama pixels to the left.
PipelineRig rigTheTargetHidesPartOf(int hidden, float offPx) {
  PipelineRig rig = makeRig(true);
  const std::wstring first = rig.scene.names.front();
  auto placed = rig.scene.truth;
  placed[first] = Utils::Matrix4x4::translation(-offPx / float(rig.scene.panorama.width), 0.0f) * placed[first];
  rig.camera = Synthetic::withMatrices(rig.camera, placed);
  cv::Mat target = rig.scene.picture.clone();
  for (int k = 0; k < hidden; ++k) {
    const cv::Matx33d planar = OrbivaneGeometry::planarHomography(rig.scene.truth.at(rig.scene.names[std::size_t(k)]));
    std::vector<cv::Point2d> corners = {{0, 0}, {1, 0}, {1, 1}, {0, 1}}, landed;
    cv::perspectiveTransform(corners, landed, planar);
    std::vector<cv::Point> outline;
    for (const auto& p : landed)
      outline.emplace_back(int(std::lround(p.x * rig.scene.panorama.width)),
                           int(std::lround(p.y * rig.scene.panorama.height)));
    cv::fillConvexPoly(target, outline, cv::Scalar::all(0));
  }
  showOnTarget(rig, target);
  return rig;
}

}  // namespace

// A module the target does not show cannot be matched to it; where its
// neighbour shows it in place (their seam lines up) it is left where it is
// and stays in the later steps, so the clip keeps its pictures. Two such
// modules in a row: the one beside a placed module confirms the other
// (which is looked at first).
// Moved 6 px off, the module's seam says so, and it fails as before.
TEST(CalibrationPipeline, AModuleTheTargetCannotPlaceIsKeptWhereItsNeighboursShowItInPlace) {
  struct Case {
    int hidden;
    float offPx;
  };
  for (const Case c : {Case{1, 0.0f}, Case{2, 0.0f}, Case{1, 6.0f}}) {
    SCOPED_TRACE(testing::Message() << c.hidden << " hidden, " << c.offPx << " px off");
    const PipelineRig rig = rigTheTargetHidesPartOf(c.hidden, c.offPx);
    const auto& names = rig.scene.names;
    const auto run = matchThenClip(rig);
    const GeometryCalibration::CalibrationPipeline& pipeline = *run;
    ASSERT_EQ(pipeline.steps().size(), 2u);
    const auto verdicts = pipeline.verdicts();
    for (std::size_t i = 0; i < names.size(); ++i) {
      const std::wstring& name = names[i];
      const auto& matched = pipeline.steps()[0].modules.at(name);
      if (i >= std::size_t(c.hidden)) {
        EXPECT_EQ(verdicts.at(name).status, ModuleStatus::aligned) << Utils::toUtf8(name);
      } else if (c.offPx == 0.0f) {
        EXPECT_EQ(matched.status, ModuleStatus::kept) << Utils::toUtf8(name) << ": " << matched.reason;
        EXPECT_EQ(matched.reason.rfind("the target could not place it (", 0), 0u) << matched.reason;
        EXPECT_NE(matched.reason.find("its seams with " + Utils::toUtf8(names[i + 1])), std::string::npos)
            << matched.reason;
        EXPECT_EQ(verdicts.at(name).status, ModuleStatus::aligned) << verdicts.at(name).reason;
        EXPECT_EQ(pipeline.steps()[1].modules.at(name).status, ModuleStatus::aligned);
        EXPECT_EQ(pipeline.steps()[0].camera.findModule(name)->matrixGeometry()->matrix(), rig.scene.truth.at(name));
      } else {
        EXPECT_EQ(matched.status, ModuleStatus::failed) << matched.reason;
        EXPECT_EQ(verdicts.at(name).status, ModuleStatus::failed) << verdicts.at(name).reason;
        EXPECT_EQ(pipeline.steps()[1].modules.at(name).status, ModuleStatus::skipped);
      }
    }
    // The clip reaches into the first module's part of the panorama (past
    // the middle of the second, where it would begin without it) exactly
    // when the first module was kept.
    const cv::Matx33d crop = OrbivaneGeometry::planarHomography(pipeline.steps()[1].clippingCrop);
    const cv::Matx33d second = OrbivaneGeometry::planarHomography(rig.scene.truth.at(names[1]));
    std::vector<cv::Point2d> middle = {{0.5, 0.5}}, landed;
    cv::perspectiveTransform(middle, landed, crop * second);
    EXPECT_EQ(landed[0].x > 0.2, c.offPx == 0.0f) << "the second module's middle at " << landed[0].x;
  }
}

// A target that disagrees with the scene (its right part 8 px lower than
// the rest) pulls the modules it shows there away from their neighbours:
// target matching leaves the seams worse, and the step is undone. The
// camera is put back bit for bit, every module the step placed is kept
// with the reason, the step's seams are those before it, and the next step
// goes on from there.
TEST(CalibrationPipeline, AStepThatLeavesTheSeamsWorseIsUndone) {
  PipelineRig rig = makeRig(true);
  rig.camera = Synthetic::withMatrices(rig.camera, rig.scene.truth);
  const cv::Mat& scene = rig.scene.picture;
  cv::Mat target = scene.clone();
  const int from = scene.cols / 2;
  scene(cv::Rect(from, 0, scene.cols - from, scene.rows - 8)).copyTo(target(cv::Rect(from, 8, scene.cols - from, scene.rows - 8)));
  showOnTarget(rig, target);

  const auto run = matchThenClip(rig);
  const GeometryCalibration::CalibrationPipeline& pipeline = *run;
  ASSERT_EQ(pipeline.steps().size(), 2u);
  const auto& matched = pipeline.steps()[0];
  EXPECT_NE(matched.undone.find("the step left the seams worse"), std::string::npos) << matched.undone;
  int putBack = 0;
  for (const auto& name : rig.scene.names) {
    EXPECT_EQ(matched.camera.findModule(name)->matrixGeometry()->matrix(), rig.scene.truth.at(name))
        << Utils::toUtf8(name);
    // Left where they were by the matcher itself ("kept in place"), or
    // placed by it and put back with the undo.
    const auto& report = matched.modules.at(name);
    EXPECT_EQ(report.status, ModuleStatus::kept) << Utils::toUtf8(name) << ": " << report.reason;
    putBack += report.reason == matched.undone ? 1 : 0;
    EXPECT_EQ(pipeline.verdicts().at(name).status, ModuleStatus::aligned) << Utils::toUtf8(name);
    EXPECT_EQ(pipeline.steps()[1].modules.at(name).status, ModuleStatus::aligned) << Utils::toUtf8(name);
  }
  EXPECT_GE(putBack, 2) << "the modules the lowered part of the target shows";
  const auto& before = pipeline.seamsBefore();
  ASSERT_EQ(matched.seams.size(), before.size());
  for (std::size_t k = 0; k < before.size(); ++k) {
    EXPECT_TRUE(matched.seams[k].first == before[k].first && matched.seams[k].second == before[k].second);
    EXPECT_EQ(matched.seams[k].px, before[k].px);
    EXPECT_LT(before[k].px, 0.3) << "the rig placed true";
  }
}
