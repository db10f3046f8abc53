// The driver's rules of target matching: progress totals and step numbers,
// the work scale, the accept-or-reject rule, the error normalisation, the
// mode-3 recursion with its countdown, and the work-system transforms.
#include <cfloat>
#include <cmath>
#include <functional>
#include <list>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/match_to_target_state.h"
#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry_calibration/matrix_based/match_to_target.h"
#include "orbivane/image/image_conversion.h"
#include "synthetic/sample_data.h"

namespace {

using GeometryCalibration::AdvStepInfo;
using GeometryCalibration::MatrixBased::EstimateResult;
using GeometryCalibration::MatrixBased::MatchToTarget;
using GeometryCalibration::MatrixBased::MatchToTargetState;

CameraDescription::Orbivane camera(const std::vector<std::wstring>& names) {
  CameraDescription::Orbivane cam;
  for (const auto& name : names) {
    CameraDescription::OrbivaneModule module(name);
    module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(Utils::Matrix4x4::identity()));
    cam.addModule(module);
  }
  return cam;
}

// The total a run reports to the status callback.
int progressTotal(MatchToTarget& calibrator, const std::list<std::wstring>& names) {
  int total = -1;
  calibrator.registerStatusCallback([&total](int, int all, std::string, AdvStepInfo) {
    if (total < 0) total = all;
  });
  calibrator.calibrate(names, L"T");
  return total;
}

TEST(MatchToTargetRules, ProgressTotalsFollowTheMode) {
  // Modules without pictures: each reports its start and is skipped.
  const auto cam = camera({L"a", L"b", L"c", L"T"});
  const std::list<std::wstring> names = {L"a", L"b", L"c"};
  MatchToTarget features(cam, {});
  EXPECT_EQ(progressTotal(features, names), 6);  // mode 0: 2 x n
  MatchToTarget grids(cam, {});
  grids.setGridEnabled(true);
  grids.initGrid(4, 3, L"a");
  grids.initGrid(2, 2, L"T");  // not listed: does not count
  EXPECT_EQ(progressTotal(grids, names), 48);  // columns x rows x 4 per listed module's grid
  MatchToTarget flow(cam, {});
  flow.setCalibrationMode(MatchToTarget::kOpticalFlow);
  flow.setM2nMaxIteration(4);
  EXPECT_EQ(progressTotal(flow, names), 12);  // m2n x n
}

// The size of the target's working copy after a run on a module drawn at
// half the target's scale (the target and the module 200x100 pixels).
cv::Size workSize(const std::function<void(MatchToTarget&)>& configure) {
  cv::Mat picture;
  cv::resize(Synthetic::loadSample("fruits.jpg"), picture, cv::Size(200, 100), 0, 0, cv::INTER_AREA);
  auto cam = camera({L"a", L"T"});
  Utils::Matrix4x4 half = Utils::Matrix4x4::identity();
  half.set(0, 0, 0.5f);
  half.set(1, 1, 0.5f);
  cam.findModule(L"a")->matrixGeometry()->setMatrix(half);
  MatchToTarget calibrator(cam, {{L"T", Image::fromMat(picture)}, {L"a", Image::fromMat(picture)}});
  configure(calibrator);
  calibrator.calibrate({L"a"}, L"T");
  const auto copies = calibrator.imgsWorkingCopy(L"a");
  return copies.size() == 2 ? cv::Size(copies[1]->width(), copies[1]->height()) : cv::Size();
}

TEST(MatchToTargetRules, WorkScale) {
  // A module drawn at half scale is worked on at twice the target's size ...
  EXPECT_EQ(workSize([](MatchToTarget&) {}), cv::Size(400, 200));
  // ... unless the caller fixes the scale (a negative one means 1) ...
  EXPECT_EQ(workSize([](MatchToTarget& m) { m.allowScale(-1.0f); }), cv::Size(200, 100));
  EXPECT_EQ(workSize([](MatchToTarget& m) { m.allowScale(0.7f); }), cv::Size(140, 70));
  // ... but optical flow, and feature matching with a grid, work at 1.2
  // whatever the caller gave.
  EXPECT_EQ(workSize([](MatchToTarget& m) {
              m.allowScale(-1.0f);
              m.setCalibrationMode(MatchToTarget::kOpticalFlow);
            }),
            cv::Size(240, 120));
  EXPECT_EQ(workSize([](MatchToTarget& m) {
              m.allowScale(-1.0f);
              m.setGridEnabled(true);
              m.initGrid(2, 2, L"a");
            }),
            cv::Size(240, 120));
}

TEST(MatchToTargetRules, TheWorkPictureIsHeldToWhatCanBeAllocated) {
  // A scale of 3 on a 4K target would give 11520 px: held to 8192 a side.
  const double held = MatchToTargetState::heldWorkScale(3.0, cv::Size(3840, 2160));
  EXPECT_DOUBLE_EQ(held, 8192.0 / 3840.0);
  EXPECT_LE(cvRound(3840 * held), 8192);
  EXPECT_DOUBLE_EQ(MatchToTargetState::heldWorkScale(1.5, cv::Size(3840, 2160)), 1.5);  // within: unchanged
  // Held from below at 2 pixels on the shorter side.
  EXPECT_DOUBLE_EQ(MatchToTargetState::heldWorkScale(0.001, cv::Size(320, 240)), 2.0 / 240.0);
  // A picture no scale can bring within both bounds.
  EXPECT_TRUE(std::isnan(MatchToTargetState::heldWorkScale(1.0, cv::Size(20000, 1))));
}

TEST(MatchToTargetRules, AcceptOnlyBetterFiniteUnmirroredResults) {
  EstimateResult r;
  r.error = 12.0f;
  EXPECT_TRUE(MatchToTargetState::acceptable(r, FLT_MAX));
  EXPECT_FALSE(MatchToTargetState::acceptable(r, 12.0f));  // not smaller than the best
  r.error = FLT_MAX;
  EXPECT_FALSE(MatchToTargetState::acceptable(r, FLT_MAX));
  r.error = 5.0f;
  r.homography = cv::Matx33f(-1, 0, 0, 0, 1, 0, 0, 0, 1);  // mirrored
  EXPECT_FALSE(MatchToTargetState::acceptable(r, FLT_MAX));
  r.homography = cv::Matx33f(0, 0, 0, 0, 0, 0, 0, 0, 1);  // singular
  EXPECT_FALSE(MatchToTargetState::acceptable(r, FLT_MAX));
}

TEST(MatchToTargetRules, ErrorNormalisation) {
  using Errors = std::map<std::wstring, float>;
  Errors errors = {{L"a", 25.0f}, {L"b", 40.0f}, {L"c", 120.0f}};
  MatchToTargetState::normaliseErrors(errors, MatchToTarget::kFeatureMatching);
  EXPECT_FLOAT_EQ(errors[L"a"], 0.0f);
  EXPECT_NEAR(errors[L"b"], 1.0f / 15.0f, 1e-6);
  EXPECT_FLOAT_EQ(errors[L"c"], 10.0f);
  // Base is the smallest error when above 30.
  errors = {{L"a", 50.0f}, {L"b", 80.0f}};
  MatchToTargetState::normaliseErrors(errors, MatchToTarget::kFeatureMatching);
  EXPECT_FLOAT_EQ(errors[L"a"], 0.0f);
  EXPECT_NEAR(errors[L"b"], (80.0f - 65.0f) / 25.0f, 1e-6);
  errors = {{L"a", 10.0f}, {L"b", 30.0f}, {L"c", 60.0f}};
  MatchToTargetState::normaliseErrors(errors, MatchToTarget::kIterative);
  EXPECT_FLOAT_EQ(errors[L"a"], 0.0f);
  EXPECT_NEAR(errors[L"b"], (30.0f - 24.0f) / 4.0f, 1e-6);
  EXPECT_FLOAT_EQ(errors[L"c"], 10.0f);
  errors = {{L"a", 77.0f}};
  MatchToTargetState::normaliseErrors(errors, MatchToTarget::kOpticalFlow);  // left as the estimator gave them
  EXPECT_FLOAT_EQ(errors[L"a"], 77.0f);
}

TEST(MatchToTargetRules, ModeThreeRecursesWithACountdownAndOneProgressBar) {
  // Mode 3 on an empty list still recurses: m2n = 3 runs, one bar of 3 x n.
  MatchToTarget calibrator(camera({L"T"}), {});
  calibrator.setCalibrationMode(MatchToTarget::kIterative);
  calibrator.setM2nMaxIteration(3);
  EXPECT_EQ(calibrator.m2nMaxIteration(), 3u);
  EXPECT_EQ(calibrator.calibrate({}, L"T").modules().size(), 1u);
  EXPECT_TRUE(calibrator.error().empty());

  // Two modules without pictures: each run reports "Calibrating Module" once
  // per module, the step numbers go on across the runs.
  MatchToTarget two(camera({L"a", L"b", L"T"}), {});
  two.setCalibrationMode(MatchToTarget::kIterative);
  two.setM2nMaxIteration(4);
  std::vector<int> steps;
  std::vector<int> totals;
  two.registerStatusCallback([&](int step, int total, std::string text, AdvStepInfo) {
    if (text.rfind("Calibrating Module ", 0) == 0) steps.push_back(step);
    totals.push_back(total);
  });
  two.calibrate({L"a", L"b"}, L"T");
  EXPECT_EQ(steps, (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8}));
  for (const int t : totals) EXPECT_EQ(t, 8);
  // The countdown was reset: the next call runs four times again.
  steps.clear();
  two.calibrate({L"a", L"b"}, L"T");
  EXPECT_EQ(steps.size(), 8u);
}

TEST(MatchToTargetRules, KeepModeReportsEachModuleBeforeAndAfterWithinTheTotal) {
  cv::Mat picture = Synthetic::loadSample("fruits.jpg");
  cv::resize(picture, picture, cv::Size(320, 240), 0, 0, cv::INTER_AREA);
  std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images = {
      {L"T", Image::fromMat(picture)}, {L"a", Image::fromMat(picture)}};
  MatchToTarget calibrator(camera({L"a", L"T"}), images);
  calibrator.setCalibrationMode(MatchToTarget::kKeepMatrix);
  std::vector<std::pair<int, std::string>> reports;
  int total = 0;
  calibrator.registerStatusCallback([&](int step, int all, std::string text, AdvStepInfo info) {
    reports.emplace_back(step, text);
    total = all;
    if (text.rfind("Finished", 0) == 0) {
      EXPECT_TRUE(info.camera() != nullptr);
    }
  });
  calibrator.calibrate({L"a", L"ghost"}, L"T");
  ASSERT_EQ(reports.size(), 2u);  // the missing module reports nothing
  EXPECT_EQ(reports[0], std::make_pair(1, std::string("Calibrating Module a")));
  EXPECT_EQ(reports[1], std::make_pair(1, std::string("Finished Module a")));
  EXPECT_EQ(total, 2);  // mode 1: m2n x n = 1 x 2
  // Mode 1 runs no estimator: nothing is accepted, so the error is the
  // largest float; the identical picture supports the placement, which the
  // report says by "kept".
  EXPECT_EQ(calibrator.error(L"a"), FLT_MAX);
  EXPECT_EQ(calibrator.moduleReports().at(L"a").status, GeometryCalibration::ModuleStatus::kept);
  EXPECT_EQ(calibrator.imgsWorkingCopy(L"a").size(), 2u);
}

TEST(MatchToTargetRules, WorkSystemTransformsAreInverse) {
  cv::Mat picture = Synthetic::loadSample("fruits.jpg");
  cv::Mat small;
  cv::resize(picture, small, cv::Size(200, 150), 0, 0, cv::INTER_AREA);
  auto cam = camera({L"a", L"T"});
  Utils::Matrix4x4 m = Utils::Matrix4x4::identity();
  m.set(0, 0, 0.9f);
  m.set(0, 3, 0.05f);
  cam.findModule(L"a")->matrixGeometry()->setMatrix(m);
  MatchToTarget calibrator(cam, {{L"T", Image::fromMat(picture)}, {L"a", Image::fromMat(small)}});
  calibrator.setCalibrationMode(MatchToTarget::kKeepMatrix);
  calibrator.calibrate({L"a"}, L"T");
  const auto work = calibrator.transformToWorkSystem(L"a", m);
  // The current placement is the identity in the work system ...
  for (int r : {0, 1, 3})
    for (int c : {0, 1, 3}) EXPECT_NEAR(work.get(r, c), r == c ? 1.0f : 0.0f, 1e-5) << r << c;
  // ... and the backward transform gives the matrix back.
  const auto back = calibrator.transformToResulte(L"a", work);
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) EXPECT_NEAR(back.get(r, c), m.get(r, c), 1e-5);
}

TEST(MatchToTargetRules, SettersGridsAndFinalMatrix) {
  MatchToTarget calibrator(camera({L"a"}), {});
  EXPECT_EQ(calibrator.calibrationMode(), MatchToTarget::kFeatureMatching);
  EXPECT_EQ(calibrator.m2bMaxIteration(), 5u);
  EXPECT_EQ(calibrator.m2nMaxIteration(), 1u);
  calibrator.setM2bMaxIteration(9);
  EXPECT_EQ(calibrator.m2bMaxIteration(), 9u);
  EXPECT_TRUE(calibrator.getGrid(L"a").empty());
  calibrator.initGrid(3, 2, L"a");
  EXPECT_EQ(calibrator.getGrid(L"a").columns(), 3);
  EXPECT_TRUE(calibrator.getGrid(L"a").isRegular());
  EXPECT_FLOAT_EQ(calibrator.error(L"nobody"), FLT_MAX);

  auto cam = camera({L"a"});
  Utils::Matrix4x4 clip = Utils::Matrix4x4::identity();
  clip.set(0, 3, 0.25f);
  cam.findModule(L"a")->shaders().push_back(OrbivaneGeometry::clipMatrixShader(clip));
  const auto fin = MatchToTarget::calculateFinMatrix(cam, L"a");
  EXPECT_FLOAT_EQ(fin.get(0, 3), 0.25f);
  EXPECT_EQ(MatchToTarget::calculateFinMatrix(cam, L"missing"), Utils::Matrix4x4::identity());
}

TEST(MatchToTargetRules, DistortionMethodFlagComesFromTheShaders) {
  auto cam = camera({L"a"});
  EXPECT_FALSE(MatchToTargetState::distortionMethodFlag(cam));
  cam.findModule(L"a")->shaders().push_back(
      OrbivaneGeometry::Shader("00010002", {{"i_ps_distortion_ext_method", "1"}}));
  EXPECT_TRUE(MatchToTargetState::distortionMethodFlag(cam));
}

}  // namespace
