// What a host relies on in target matching: mode 1 returns every matrix as
// it was, mode 0 with grid leaves alone the grids it was not given and keeps
// its progress within the total, every module that reaches the estimator
// step gets its error and "Finished Module" report, mode 3 applies its correction on top of the previous matrix,
// the skip messages reach the logger, and the 1000-pair cap on HD pictures
// keeps pairs from the whole overlap.
#include <cfloat>
#include <cmath>
#include <list>
#include <map>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/feature_matcher.h"
#include "logging/logger_setup.h"
#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/region_based_geometry.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/geometry_calibration/matrix_based/match_to_target.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/utils/wide_text.h"
#include "support/captured_log.h"
#include "synthetic/sample_data.h"
#include "synthetic/target_scenes.h"
#include "support/matchers.h"

namespace {

using GeometryCalibration::AdvStepInfo;
using GeometryCalibration::MatrixBased::MatchToTarget;
using Images = std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>>;

// A target T spanning the surface and modules that see parts of the same
// photograph, each placed with a matrix a little off the truth.
struct ContractRig {
  CameraDescription::Orbivane camera;
  Images images;
  std::map<std::wstring, Utils::Matrix4x4> truth;
};

Utils::Matrix4x4 boxMatrix(double x0, double y0, double x1, double y1) {
  Utils::Matrix4x4 m;
  m.set(0, 0, float(x1 - x0));
  m.set(0, 3, float(x0));
  m.set(1, 1, float(y1 - y0));
  m.set(1, 3, float(y0));
  return m;
}

ContractRig makeRig() {
  ContractRig rig;
  cv::Mat scene = Synthetic::loadSample("building.jpg");
  cv::resize(scene, scene, cv::Size(640, 480), 0, 0, cv::INTER_AREA);
  auto add = [&rig](const std::wstring& name, const Utils::Matrix4x4& matrix, const cv::Mat& picture) {
    CameraDescription::OrbivaneModule module(name);
    module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(matrix));
    rig.camera.addModule(module);
    rig.images[name] = Image::fromMat(picture);
  };
  add(L"T", Utils::Matrix4x4::identity(), scene);
  const std::pair<const wchar_t*, cv::Rect> parts[] = {{L"A", {0, 0, 360, 300}}, {L"B", {280, 160, 360, 300}}};
  for (const auto& [name, part] : parts) {
    const Utils::Matrix4x4 truth =
        boxMatrix(part.x / 640.0, part.y / 480.0, (part.x + part.width) / 640.0, (part.y + part.height) / 480.0);
    rig.truth[name] = truth;
    add(name, Utils::Matrix4x4::translation(0.012f, -0.008f) * truth, scene(part).clone());
  }
  return rig;
}

TEST(MatchToTargetContract, ModeOneReturnsEveryMatrixBitForBit) {
  ContractRig rig = makeRig();
  // A matrix whose (3, 3) element is not 1 and whose depth row is not the
  // identity's, and the distortion-method flag set by a lens shader.
  Utils::Matrix4x4 odd = rig.camera.findModule(L"A")->matrixGeometry()->matrix();
  for (int c = 0; c < 4; ++c) odd.set(3, c, odd.get(3, c) * 2.0f);
  odd.set(2, 0, 0.25f);
  odd.set(2, 2, 3.0f);
  rig.camera.findModule(L"A")->matrixGeometry()->setMatrix(odd);
  OrbivaneGeometry::Shader lens("00060001", {{"i_ps_distortion_ext_method", "1"}});
  rig.camera.findModule(L"B")->setShaders({lens});
  MatchToTarget calibrator(rig.camera, rig.images);
  calibrator.setCalibrationMode(MatchToTarget::kKeepMatrix);
  const auto result = calibrator.calibrate({L"A", L"B", L"T"}, L"T");
  for (const auto& module : rig.camera.modules()) {
    EXPECT_EQ(result.findModule(module->name())->matrixGeometry()->matrix(), module->matrixGeometry()->matrix())
        << Utils::toUtf8(module->name());
  }
  EXPECT_EQ(calibrator.error().size(), 3u) << "mode 1 still measures every module";
}

TEST(MatchToTargetContract, ModeThreeAppliesItsCorrectionOnTopOfThePreviousMatrix) {
  const ContractRig rig = makeRig();
  MatchToTarget calibrator(rig.camera, rig.images);
  calibrator.setCalibrationMode(MatchToTarget::kIterative);
  const auto result = calibrator.calibrate({L"A", L"B"}, L"T");
  for (const auto& name : {L"A", L"B"}) {
    // The start is 7.7 px (x) and 3.8 px (y) off; composed on top of it the
    // correction lands on the truth, put in its place it would not.
    const auto found = OrbivaneGeometry::moduleSurfaceQuad(result.findModule(name)->matrixGeometry()->matrix());
    const auto truth = OrbivaneGeometry::moduleSurfaceQuad(rig.truth.at(name));
    ASSERT_TRUE(found && truth);
    for (int k = 0; k < 4; ++k) {
      EXPECT_NEAR(found->corners[k].x * 640, truth->corners[k].x * 640, 0.3) << Utils::toUtf8(name);
      EXPECT_NEAR(found->corners[k].y * 480, truth->corners[k].y * 480, 0.3) << Utils::toUtf8(name);
    }
  }
}

TEST(MatchToTargetContract, GridModeKeepsTheGridsItWasNotGivenAndItsProgressWithinTheTotal) {
  ContractRig rig = makeRig();
  // B has a UV grid of its own; only A gets one from initGrid.
  Utils::UVGrid own(3, 2);
  rig.camera.findModule(L"B")->matrixGeometry()->setUVGrid(own);
  MatchToTarget calibrator(rig.camera, rig.images);
  calibrator.setGridEnabled(true);
  calibrator.initGrid(2, 2, L"A");
  int worst = 0, total = -1;
  std::vector<std::string> texts;
  calibrator.registerStatusCallback([&](int step, int all, std::string text, AdvStepInfo) {
    EXPECT_LE(step, all) << text;
    worst = std::max(worst, step);
    total = all;
    texts.push_back(text);
  });
  const auto result = calibrator.calibrate({L"A", L"B"}, L"T");
  EXPECT_EQ(total, 2 * 2 * 4) << "only A's grid counts";
  EXPECT_EQ(worst, total);
  const auto& grid = result.findModule(L"B")->matrixGeometry()->uvGrid();
  ASSERT_TRUE(grid.has_value()) << "B's own grid was wiped";
  EXPECT_EQ(grid->columns(), own.columns());
  EXPECT_EQ(grid->rows(), own.rows());
  EXPECT_EQ(grid->points(), own.points());
  EXPECT_TRUE(result.findModule(L"A")->matrixGeometry()->uvGrid().has_value());
}

TEST(MatchToTargetContract, AModuleThatCannotBeMatchedFailsWithItsFinishedReport) {
  ContractRig rig = makeRig();
  rig.images[L"B"] = Image::fromMat(cv::Mat(1, 1, CV_8UC3, cv::Scalar(5, 5, 5)));  // cannot be matched
  MatchToTarget calibrator(rig.camera, rig.images);
  std::vector<std::string> texts;
  std::vector<int> steps;
  int total = 0;
  calibrator.registerStatusCallback([&](int step, int all, std::string text, AdvStepInfo) {
    texts.push_back(text);
    steps.push_back(step);
    total = all;
  });
  calibrator.calibrate({L"A", L"B"}, L"T");
  EXPECT_EQ(texts, (std::vector<std::string>{"Calibrating Module A", "Finished Module A", "Calibrating Module B",
                                             "Finished Module B"}));
  // Mode 0 counts two steps a module, and a run that reaches every module ends at its total.
  EXPECT_EQ(steps, (std::vector<int>{1, 2, 3, 4}));
  EXPECT_EQ(total, 4);
  EXPECT_FLOAT_EQ(calibrator.error(L"B"), 10.0f);
  const auto report = calibrator.moduleReports().at(L"B");
  EXPECT_EQ(report.status, GeometryCalibration::ModuleStatus::failed);
  EXPECT_NE(report.reason.find("under 2x2"), std::string::npos) << report.reason;
}

// Every listed module of the camera that has a matrix geometry and a picture
// goes through the driver: an error entry (the largest float, 10 after mode
// 0's normalisation), its "Finished Module " report and a reason, whatever
// keeps it from the estimator. Only missing modules and those without
// matrix geometry or picture are left without an error entry.
TEST(MatchToTargetContract, EveryFailurePathGivesAnErrorEntryAndItsFinishedReport) {
  ContractRig rig = makeRig();
  auto add = [&rig](const std::wstring& name, const Utils::Matrix4x4& matrix, const cv::Mat& picture) {
    CameraDescription::OrbivaneModule module(name);
    module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(matrix));
    rig.camera.addModule(module);
    rig.images[name] = Image::fromMat(picture);
  };
  const cv::Mat part = Image::toMat(rig.images.at(L"A"));
  Utils::Matrix4x4 singular = rig.truth.at(L"A");
  singular.set(0, 0, 0.0f);
  Utils::Matrix4x4 mirrored = rig.truth.at(L"A");
  mirrored.set(0, 0, -mirrored.get(0, 0));
  Utils::Matrix4x4 notFinite = rig.truth.at(L"A");
  notFinite.set(1, 3, NAN);
  add(L"tiny", rig.truth.at(L"A"), cv::Mat(1, 1, CV_8UC3, cv::Scalar(5, 5, 5)));
  add(L"unreadable", rig.truth.at(L"A"), cv::Mat(0, 0, CV_8UC3));
  add(L"singular", singular, part);
  add(L"mirrored", mirrored, part);
  add(L"nan", notFinite, part);
  add(L"elsewhere", Utils::Matrix4x4::translation(5.0f, 5.0f) * rig.truth.at(L"A"), part);
  CameraDescription::OrbivaneModule region(L"region");
  region.setGeometry(std::make_unique<OrbivaneGeometry::RegionBasedGeometry>());
  rig.camera.addModule(region);
  rig.images[L"region"] = rig.images.at(L"A");

  const std::list<std::wstring> failing = {L"tiny", L"unreadable", L"singular", L"mirrored", L"nan", L"elsewhere"};
  std::list<std::wstring> listed = failing;
  listed.push_back(L"A");
  listed.push_back(L"region");
  listed.push_back(L"ghost");
  MatchToTarget calibrator(rig.camera, rig.images);
  std::map<std::string, int> finished;
  calibrator.registerStatusCallback([&](int, int, std::string text, AdvStepInfo) {
    if (text.rfind("Finished Module ", 0) == 0) ++finished[text.substr(16)];
  });
  const auto result = calibrator.calibrate(listed, L"T");
  const auto reports = calibrator.moduleReports();
  for (const auto& name : failing) {
    const std::string text = Utils::toUtf8(name);
    ASSERT_EQ(calibrator.error().count(name), 1u) << text;
    EXPECT_FLOAT_EQ(calibrator.error(name), 10.0f) << text;
    EXPECT_EQ(finished[text], 1) << text;
    EXPECT_EQ(reports.at(name).status, GeometryCalibration::ModuleStatus::failed) << text;
    EXPECT_FALSE(reports.at(name).reason.empty()) << text;
    EXPECT_EQ(reports.at(name).error, 10.0f) << text;
    const auto kept = result.findModule(name)->matrixGeometry()->matrix();
    const auto given = rig.camera.findModule(name)->matrixGeometry()->matrix();
    for (int r = 0; r < 4; ++r)
      for (int c = 0; c < 4; ++c) {
        if (std::isnan(given.get(r, c))) {
          EXPECT_TRUE(std::isnan(kept.get(r, c))) << text;
        } else {
          EXPECT_EQ(kept.get(r, c), given.get(r, c)) << text;
        }
      }
  }
  EXPECT_EQ(finished["A"], 1);
  EXPECT_EQ(reports.at(L"A").status, GeometryCalibration::ModuleStatus::aligned) << reports.at(L"A").reason;
  EXPECT_LT(calibrator.error(L"A"), 10.0f);
  for (const auto* name : {L"region", L"ghost"}) {
    EXPECT_EQ(calibrator.error().count(name), 0u);
    EXPECT_EQ(finished.count(Utils::toUtf8(name)), 0u);
  }
  EXPECT_EQ(calibrator.error().size(), failing.size() + 1);

  // No usable target: every module with geometry and picture fails the same way.
  Images noTargetPicture = rig.images;
  noTargetPicture[L"T"] = Image::fromMat(cv::Mat(1, 1, CV_8UC3, cv::Scalar(5, 5, 5)));
  MatchToTarget blind(rig.camera, noTargetPicture);
  int blindFinished = 0;
  blind.registerStatusCallback([&](int, int, std::string text, AdvStepInfo) {
    blindFinished += text.rfind("Finished Module ", 0) == 0 ? 1 : 0;
  });
  blind.calibrate({L"A", L"B"}, L"T");
  EXPECT_EQ(blindFinished, 2);
  EXPECT_FLOAT_EQ(blind.error(L"A"), 10.0f);
  EXPECT_FLOAT_EQ(blind.error(L"B"), 10.0f);
  EXPECT_EQ(blind.moduleReports().at(L"B").status, GeometryCalibration::ModuleStatus::failed);
}

// A work scale outside what a work picture can take is held, said once a
// run, and the modules still go through the driver.
TEST(MatchToTargetContract, AnUnusableWorkScaleIsHeldAndSaidOnce) {
  const Testing::CapturedLog log("MatrixBasedMatchToBackground");
  const ContractRig rig = makeRig();
  MatchToTarget calibrator(rig.camera, rig.images);
  calibrator.allowScale(0.001f);  // a 0.6 x 0.5 px work picture: held at 2 px
  calibrator.calibrate({L"A", L"B"}, L"T");
  const std::string text = log.text();
  const std::string said = "working at";
  const auto first = text.find(said);
  ASSERT_NE(first, std::string::npos) << text;
  EXPECT_EQ(text.find(said, first + 1), std::string::npos) << text;
  EXPECT_EQ(text.find("Skipping pmodule"), std::string::npos) << text;
  EXPECT_EQ(calibrator.error().size(), 2u);
}

// A rejected estimate over a placement the pictures support leaves the
// module where it is, reported "kept", with the error of a rejected result:
// the largest float, 10 after normalisation; it does not count as aligned.
TEST(MatchToTargetContract, AModuleKeptInPlaceHasTheErrorOfARejectedResult) {
  // A smooth picture: well textured for the correlation, no corners for features.
  cv::Mat smooth(240, 320, CV_8UC3);
  for (int y = 0; y < smooth.rows; ++y)
    for (int x = 0; x < smooth.cols; ++x)
      smooth.at<cv::Vec3b>(y, x) = cv::Vec3b(cv::saturate_cast<uchar>(40 + 0.5 * x), cv::saturate_cast<uchar>(30 + 0.6 * y),
                                             cv::saturate_cast<uchar>(100 + 40 * std::sin(x * 0.02 + y * 0.015)));
  CameraDescription::Orbivane camera;
  Images images;
  for (const auto* name : {L"T", L"m"}) {
    CameraDescription::OrbivaneModule module(name);
    module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(Utils::Matrix4x4::identity()));
    camera.addModule(module);
    images[name] = Image::fromMat(smooth);
  }
  MatchToTarget calibrator(camera, images);
  const auto result = calibrator.calibrate({L"m"}, L"T");
  const auto report = calibrator.moduleReports().at(L"m");
  EXPECT_EQ(report.status, GeometryCalibration::ModuleStatus::kept) << report.reason;
  EXPECT_EQ(report.reason.rfind("kept in place: ", 0), 0u) << report.reason;
  EXPECT_GE(report.correlation, 0.5);
  EXPECT_FLOAT_EQ(calibrator.error(L"m"), 10.0f);
  EXPECT_EQ(result.findModule(L"m")->matrixGeometry()->matrix(), Utils::Matrix4x4::identity());
  // Mode 1 measures nothing and leaves errors as they are: the largest float itself.
  MatchToTarget flow(camera, images);
  flow.setCalibrationMode(MatchToTarget::kKeepMatrix);
  flow.calibrate({L"m"}, L"T");
  EXPECT_EQ(flow.error(L"m"), FLT_MAX);
  EXPECT_EQ(flow.moduleReports().at(L"m").status, GeometryCalibration::ModuleStatus::kept);
}

TEST(MatchToTargetContract, SkippedModulesAreLoggedWithTheirMessages) {
  const Testing::CapturedLog log("MatrixBasedMatchToBackground");
  ContractRig rig = makeRig();
  CameraDescription::OrbivaneModule region(L"R");
  region.setGeometry(std::make_unique<OrbivaneGeometry::RegionBasedGeometry>());
  rig.camera.addModule(region);
  CameraDescription::OrbivaneModule blind(L"P");
  blind.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(Utils::Matrix4x4::identity()));
  rig.camera.addModule(blind);
  MatchToTarget calibrator(rig.camera, rig.images);
  calibrator.calibrate({L"ghost", L"R", L"P"}, L"T");
  const std::string text = log.text();
  EXPECT_NE(text.find("Module ghost does not exist.. Skipping pmodule"), std::string::npos) << text;
  EXPECT_NE(text.find("Module R has no Matrix Geometry.. Skipping pmodule"), std::string::npos) << text;
  EXPECT_NE(text.find("Module P has no Image.. Skipping pmodule"), std::string::npos) << text;
  EXPECT_TRUE(calibrator.error().empty()) << "skipped modules have no error entry";
}

// HD pictures give far more than 1000 cross-checked pairs: the cap keeps
// 1000 (750 after the best three quarters), taken from every part of the
// overlap, not from one band.
TEST(MatchToTargetContract, ThePairCapOnHdPicturesKeepsTheWholeOverlap) {
  const Synthetic::Scene scene = Synthetic::makeScene("aloeL.jpg", cv::Size(1920, 1080));
  Synthetic::ModuleTruth truth;
  cv::RNG rng(12);
  truth.homography = Synthetic::realisticMisalignment(rng, cv::Size(1920, 1080), cv::Size(1920, 1080), 1.0, 1.0, 0.02);
  GeometryCalibration::MatrixBased::WorkPictures pictures;
  pictures.module = Synthetic::renderModule(scene, truth, cv::Size(1920, 1080), 1.0, 0.0, 1.0, 5);
  pictures.target = scene.target;
  pictures.prepareGrey();
  GeometryCalibration::MatrixBased::FeatureMatcher matcher(
      {Utils::calibratorLogger("MatrixBasedMatchToBackground"), nullptr});
  const auto r = matcher.estimate(pictures, cv::Matx33f::eye(), 10000, 0.0f, 0.0f);
  ASSERT_LT(r.error, FLT_MAX);
  const auto& pairs = matcher.lastPairs();
  ASSERT_EQ(pairs.size(), 750u) << "the cap of 1000 was not reached";
  // Every cell of a 3 x 3 division of the picture holds pairs.
  int cells[3][3] = {};
  for (const auto& p : pairs) ++cells[std::min(2, int(p.targetY * 3 / 1080))][std::min(2, int(p.targetX * 3 / 1920))];
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 3; ++x) EXPECT_GT(cells[y][x], 20) << "cell " << x << ", " << y;
  EXPECT_THAT(cv::Matx33d(r.homography), Testing::HomographyNear(truth.homography, 0.1, cv::Size(1920, 1080)));
}

}  // namespace
