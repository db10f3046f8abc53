// Target matching end to end: known homographies on real photographs are
// recovered, the corrected matrices obey the geometry convention, and bad
// input is skipped without harm.
#include "orbivane/geometry_calibration/matrix_based/match_to_target.h"

#include <atomic>
#include <cfloat>
#include <cmath>
#include <thread>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/region_based_geometry.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/utils/wide_text.h"
#include "synthetic/target_scenes.h"
#include "support/matchers.h"

namespace {

using GeometryCalibration::AdvStepInfo;
using GeometryCalibration::ModuleStatus;
using GeometryCalibration::MatrixBased::MatchToTarget;
using Images = std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>>;

struct Rig {
  CameraDescription::Orbivane camera;
  Images images;
  std::map<std::wstring, Synthetic::ModuleTruth> truths;
  std::map<std::wstring, cv::Size> sizes;
  cv::Size targetSize;
};

void addModule(Rig& rig, const std::wstring& name, const Utils::Matrix4x4& matrix, const cv::Mat& picture) {
  CameraDescription::OrbivaneModule module(name);
  module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(matrix));
  rig.camera.addModule(module);
  if (!picture.empty()) rig.images[name] = Image::fromMat(picture);
  rig.sizes[name] = picture.size();
}

// A target "T" with `targetMatrix` and modules whose matrices place them
// where the target is; their pictures see the scene through `truths`.
Rig makeRig(const std::string& sample, cv::Size targetSize, const Utils::Matrix4x4& targetMatrix,
            const std::vector<std::pair<std::wstring, std::pair<cv::Size, Synthetic::ModuleTruth>>>& modules) {
  Rig rig;
  const Synthetic::Scene scene = Synthetic::makeScene(sample, targetSize);
  rig.targetSize = targetSize;
  addModule(rig, L"T", targetMatrix, scene.target);
  std::uint64_t seed = 7;
  for (const auto& [name, placement] : modules) {
    const cv::Mat picture = Synthetic::renderModule(scene, placement.second, placement.first, 0.85, 12.0, 2.0, seed++);
    addModule(rig, name, targetMatrix, picture);
    rig.truths[name] = placement.second;
  }
  return rig;
}

// The module -> target pixel homography the camera's matrices give.
cv::Matx33d foundHomography(const CameraDescription::Orbivane& camera, const std::wstring& module,
                            cv::Size moduleSize, const std::wstring& target, cv::Size targetSize) {
  using namespace OrbivaneGeometry;
  const cv::Matx33d mt = planarHomography(camera.findModule(target)->matrixGeometry()->matrix());
  const cv::Matx33d mm = planarHomography(camera.findModule(module)->matrixGeometry()->matrix());
  const cv::Matx33d h = textureToPixels(targetSize.width, targetSize.height) * mt.inv() * mm *
                        pixelsToTexture(moduleSize.width, moduleSize.height);
  return h * (1.0 / h(2, 2));
}

// Modules "a" and "b" of `size` placed on the target "T" (a photograph of
// that size) with realistic misalignments drawn from `seed`.
Rig twoMisalignedModules(const char* photograph, std::uint64_t seed, cv::Size size) {
  cv::RNG rng(seed);
  std::vector<std::pair<std::wstring, std::pair<cv::Size, Synthetic::ModuleTruth>>> modules;
  for (const wchar_t* name : {L"a", L"b"}) {
    Synthetic::ModuleTruth truth;
    truth.homography = Synthetic::realisticMisalignment(rng, size, size);
    modules.push_back({name, {size, truth}});
  }
  return makeRig(photograph, size, Utils::Matrix4x4::identity(), modules);
}

TEST(MatchToTargetEndToEnd, RecoversKnownHomographiesToAFractionOfAPixel) {
  const cv::Size size(320, 240);
  Rig rig = twoMisalignedModules("fruits.jpg", 11, size);
  MatchToTarget calibrator(rig.camera, rig.images);
  const auto result = calibrator.calibrate({L"a", L"b"}, L"T");
  for (const auto& [name, truth] : rig.truths) {
    const double before = Synthetic::cornerError(truth.homography, cv::Matx33d::eye(), size);
    const double after =
        Synthetic::cornerError(truth.homography, foundHomography(result, name, size, L"T", size), size);
    EXPECT_GT(before, 3.0);
    EXPECT_LT(after, 0.1) << "module " << std::string(name.begin(), name.end());
    EXPECT_LT(calibrator.error(name), 10.0f);
  }
  // The caller's camera is untouched.
  EXPECT_EQ(rig.camera.findModule(L"a")->matrixGeometry()->matrix(), Utils::Matrix4x4::identity());
}


TEST(MatchToTargetEndToEnd, DifferentPictureSizesAndAPlacedTargetLandOnTheSameSurfacePoints) {
  // The target sits elsewhere on the surface (scaled and moved); the module
  // picture has another size than the target's. After calibration a module
  // pixel and the target pixel that shows the same scene point project onto
  // the same surface point.
  cv::RNG rng(5);
  const cv::Size targetSize(320, 240), moduleSize(400, 300);
  Synthetic::ModuleTruth truth;
  truth.homography = Synthetic::realisticMisalignment(rng, moduleSize, targetSize);
  Utils::Matrix4x4 placed = Utils::Matrix4x4::identity();
  placed.set(0, 0, 0.5f);
  placed.set(1, 1, 0.4f);
  placed.set(0, 3, 0.3f);
  placed.set(1, 3, 0.1f);
  Rig rig = makeRig("building.jpg", targetSize, placed, {{L"m", {moduleSize, truth}}});
  MatchToTarget calibrator(rig.camera, rig.images);
  const auto result = calibrator.calibrate({L"m"}, L"T");
  const auto targetMatrix = result.findModule(L"T")->matrixGeometry()->matrix();
  const auto moduleMatrix = result.findModule(L"m")->matrixGeometry()->matrix();
  double worst = 0.0;
  for (const cv::Point2d p : {cv::Point2d(40, 30), cv::Point2d(200, 150), cv::Point2d(360, 270), cv::Point2d(390, 10)}) {
    const cv::Point2d t = truth.map(p);
    const auto a = OrbivaneGeometry::projectToSurface(moduleMatrix, float(p.x / moduleSize.width),
                                                      float(p.y / moduleSize.height));
    const auto b = OrbivaneGeometry::projectToSurface(targetMatrix, float(t.x / targetSize.width),
                                                      float(t.y / targetSize.height));
    ASSERT_TRUE(a && b);
    // In target pixels: surface units x target pixels per surface unit.
    worst = std::max(worst, std::hypot((a->x - b->x) / 0.5 * targetSize.width, (a->y - b->y) / 0.4 * targetSize.height));
  }
  EXPECT_LT(worst, 0.15);
  EXPECT_GT(cv::determinant(OrbivaneGeometry::planarHomography(moduleMatrix)), 0.0);
}

TEST(MatchToTargetEndToEnd, OpticalFlowAndIterativeModesAreAsAccurate) {
  cv::RNG rng(23);
  const cv::Size size(320, 240);
  Synthetic::ModuleTruth truth;
  truth.homography = Synthetic::realisticMisalignment(rng, size, size, 2.0, 2.0, 0.05);
  Rig rig = makeRig("home.jpg", size, Utils::Matrix4x4::identity(), {{L"m", {size, truth}}});
  for (const auto mode : {MatchToTarget::kOpticalFlow, MatchToTarget::kIterative}) {
    MatchToTarget calibrator(rig.camera, rig.images);
    calibrator.setCalibrationMode(mode);
    calibrator.setM2bMaxIteration(2);
    const auto result = calibrator.calibrate({L"m"}, L"T");
    const double after =
        Synthetic::cornerError(truth.homography, foundHomography(result, L"m", size, L"T", size), size);
    EXPECT_LT(after, 0.1) << "mode " << int(mode);
    EXPECT_EQ(calibrator.error().count(L"m"), 1u);
  }
}

// Mode 3 on a module that shows a third of the target: its error measures the
// module's own footprint, so a well placed module is as good as the best
// (0), not failed (10) for the target area it does not cover.
TEST(MatchToTargetEndToEnd, IterativeModeJudgesAModuleByItsOwnFootprint) {
  const cv::Size targetSize(320, 240), moduleSize(100, 240);
  Synthetic::ModuleTruth truth;
  truth.homography = cv::Matx33d(1, 0, 102.5, 0, 1, 1.5, 0, 0, 1);  // placed 2.5 px and 1.5 px off
  Utils::Matrix4x4 third = Utils::Matrix4x4::identity();
  Rig rig = makeRig("home.jpg", targetSize, third, {{L"m", {moduleSize, truth}}});
  third.set(0, 0, 100.0f / 320.0f);
  third.set(0, 3, 100.0f / 320.0f);
  rig.camera.findModule(L"m")->setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(third));
  MatchToTarget calibrator(rig.camera, rig.images);
  calibrator.setCalibrationMode(MatchToTarget::kIterative);
  calibrator.setM2nMaxIteration(1);
  const auto result = calibrator.calibrate({L"m"}, L"T");
  EXPECT_EQ(calibrator.moduleReports().at(L"m").status, ModuleStatus::aligned);
  EXPECT_EQ(calibrator.error().at(L"m"), 0.0f);
  EXPECT_LT(Synthetic::cornerError(truth.homography, foundHomography(result, L"m", moduleSize, L"T", targetSize),
                                   moduleSize),
            0.1);
}

TEST(MatchToTargetEndToEnd, GridModeMovesTheGridTowardsANonRigidWarp) {
  cv::RNG rng(3);
  const cv::Size size(320, 240);
  Synthetic::ModuleTruth truth;
  truth.homography = Synthetic::realisticMisalignment(rng, size, size, 1.0, 1.0, 0.03);
  truth.amplitude = 2.0;
  truth.period = 500.0;
  Rig rig = makeRig("baboon.jpg", size, Utils::Matrix4x4::identity(), {{L"m", {size, truth}}});
  MatchToTarget calibrator(rig.camera, rig.images);
  calibrator.setGridEnabled(true);
  calibrator.initGrid(4, 3, L"m");
  std::vector<int> steps;
  int total = 0;
  calibrator.registerStatusCallback([&](int step, int all, std::string, AdvStepInfo) {
    steps.push_back(step);
    total = all;
  });
  const auto result = calibrator.calibrate({L"m"}, L"T");
  EXPECT_EQ(total, 4 * 3 * 4);
  ASSERT_FALSE(steps.empty());
  EXPECT_EQ(steps.back(), total);
  const auto* geometry = result.findModule(L"m")->matrixGeometry();
  ASSERT_TRUE(geometry->uvGrid().has_value());
  const Utils::UVGrid grid = *geometry->uvGrid();
  EXPECT_FALSE(grid.isRegular(1e-4f));
  // Error over the grid points: where the corrected module draws the module
  // pixel it names, against where the truth puts it.
  const cv::Matx33d found = foundHomography(result, L"m", size, L"T", size);
  const cv::Matx33d pixels = OrbivaneGeometry::textureToPixels(size.width, size.height);
  double withGrid = 0.0, withoutGrid = 0.0;
  int n = 0;
  for (int j = 1; j < grid.rows(); ++j)
    for (int i = 1; i < grid.columns(); ++i) {
      const cv::Point2d q(double(i) / grid.columns() * size.width, double(j) / grid.rows() * size.height);
      const auto uv = grid.point(i, j);
      const cv::Point2d named(uv.u * size.width, uv.v * size.height);
      const cv::Vec3d drawn = found * cv::Vec3d(q.x, q.y, 1.0);
      const cv::Point2d at(drawn[0] / drawn[2], drawn[1] / drawn[2]);
      withGrid += cv::norm(truth.map(named) - at);
      withoutGrid += cv::norm(truth.map(q) - at);
      ++n;
    }
  (void)pixels;
  EXPECT_LT(withGrid / n, 0.6 * withoutGrid / n);
  EXPECT_EQ(calibrator.getGrid(L"m"), grid);
}

TEST(MatchToTargetBadInput, SkipsWithoutHarm) {
  const cv::Size size(320, 240);
  const Synthetic::Scene scene = Synthetic::makeScene("fruits.jpg", size);
  Rig rig;
  addModule(rig, L"T", Utils::Matrix4x4::identity(), scene.target);
  addModule(rig, L"blank", Utils::Matrix4x4::identity(), cv::Mat(size, CV_8UC3, cv::Scalar(90, 90, 90)));
  addModule(rig, L"nopicture", Utils::Matrix4x4::identity(), cv::Mat());
  addModule(rig, L"empty", Utils::Matrix4x4::identity(), cv::Mat());
  rig.images[L"empty"] = Image::fromMat(cv::Mat(0, 0, CV_8UC3));
  Utils::Matrix4x4 singular = Utils::Matrix4x4::identity();
  singular.set(0, 0, 0.0f);
  addModule(rig, L"singular", singular, scene.target);
  Utils::Matrix4x4 notFinite = Utils::Matrix4x4::identity();
  notFinite.set(0, 3, NAN);
  addModule(rig, L"nan", notFinite, scene.target);
  {
    CameraDescription::OrbivaneModule region(L"region");
    region.setGeometry(std::make_unique<OrbivaneGeometry::RegionBasedGeometry>());
    rig.camera.addModule(region);
    rig.images[L"region"] = Image::fromMat(scene.target);
  }
  MatchToTarget calibrator(rig.camera, rig.images);
  const auto result =
      calibrator.calibrate({L"missing", L"blank", L"nopicture", L"empty", L"singular", L"nan", L"region", L"T"}, L"T");
  for (const auto& module : result.modules()) {
    if (const auto* g = module->matrixGeometry()) {
      if (module->name() == L"singular" || module->name() == L"nan") continue;
      EXPECT_TRUE(g->matrix().isFinite());
      EXPECT_GT(g->matrix().determinant(), 0.0);
    }
  }
  EXPECT_EQ(result.findModule(L"singular")->matrixGeometry()->matrix(), singular);
  EXPECT_EQ(result.findModule(L"blank")->matrixGeometry()->matrix(), Utils::Matrix4x4::identity());
  EXPECT_EQ(calibrator.error().count(L"missing"), 0u);
  EXPECT_EQ(calibrator.error().count(L"nopicture"), 0u);
  EXPECT_EQ(calibrator.error().count(L"region"), 0u);
  // Failed modules after normalisation, whether the estimator ran or not.
  for (const auto* name : {L"blank", L"empty", L"singular", L"nan"})
    EXPECT_FLOAT_EQ(calibrator.error(name), 10.0f) << Utils::toUtf8(name);
  // The target matched to itself stays where it is.
  const auto self = result.findModule(L"T")->matrixGeometry()->matrix();
  EXPECT_THAT(foundHomography(result, L"T", size, L"T", size), Testing::HomographyNear(cv::Matx33d::eye(), 0.05, size));
  EXPECT_TRUE(self.isFinite());

  // No usable target: every module is skipped, nothing changes.
  MatchToTarget noTarget(rig.camera, rig.images);
  const auto unchanged = noTarget.calibrate({L"blank", L"T"}, L"nopicture");
  EXPECT_EQ(unchanged.findModule(L"T")->matrixGeometry()->matrix(), Utils::Matrix4x4::identity());
  // An empty list returns the stored description with no errors.
  EXPECT_TRUE(noTarget.calibrate({}, L"T").modules().size() == rig.camera.modules().size());
  EXPECT_TRUE(noTarget.error().empty());
}

// The interrupt comes while a module is being matched: that module is put
// back as it came and reported aborted, with the error of a failure; what
// its stopped estimators returned is not taken for a result.
TEST(MatchToTargetAbort, TheModuleBeingMatchedIsPutBackAndReportedAborted) {
  const cv::Size size(320, 240);
  Rig rig = twoMisalignedModules("graf1.png", 23, size);
  MatchToTarget calibrator(rig.camera, rig.images);
  calibrator.registerStatusCallback([&](int, int, std::string text, AdvStepInfo) {
    if (text == "Calibrating Module b") calibrator.abort();
  });
  const auto result = calibrator.calibrate({L"a", L"b"}, L"T");
  EXPECT_EQ(calibrator.moduleReports().at(L"a").status, ModuleStatus::aligned);
  EXPECT_EQ(calibrator.moduleReports().at(L"b").status, ModuleStatus::aborted);
  EXPECT_EQ(calibrator.moduleReports().at(L"b").reason, "interrupted while this module was calibrated");
  EXPECT_EQ(result.findModule(L"b")->matrixGeometry()->matrix(), Utils::Matrix4x4::identity());
  EXPECT_GE(calibrator.error().at(L"b"), 10.0f) << "the failure mark";
}

TEST(MatchToTargetAbort, FromAnotherThreadReturnsThePartlyUpdatedCamera) {
  cv::RNG rng(19);
  const cv::Size size(320, 240);
  std::vector<std::pair<std::wstring, std::pair<cv::Size, Synthetic::ModuleTruth>>> modules;
  for (const wchar_t* name : {L"a", L"b", L"c"}) {
    Synthetic::ModuleTruth truth;
    truth.homography = Synthetic::realisticMisalignment(rng, size, size);
    modules.push_back({name, {size, truth}});
  }
  Rig rig = makeRig("graf1.png", size, Utils::Matrix4x4::identity(), modules);
  MatchToTarget calibrator(rig.camera, rig.images);
  std::atomic<bool> firstDone{false}, stopped{false};
  calibrator.registerStatusCallback([&](int, int, std::string text, AdvStepInfo info) {
    if (text == "Finished Module a") {
      EXPECT_TRUE(info.camera() != nullptr);
      firstDone = true;
      while (!stopped) std::this_thread::yield();  // the abort has certainly happened now
    }
  });
  std::thread stopper([&] {
    while (!firstDone) std::this_thread::yield();
    calibrator.abort();
    stopped = true;
  });
  const auto result = calibrator.calibrate({L"a", L"b", L"c"}, L"T");
  stopper.join();
  EXPECT_NE(result.findModule(L"a")->matrixGeometry()->matrix(), Utils::Matrix4x4::identity());
  EXPECT_EQ(result.findModule(L"c")->matrixGeometry()->matrix(), Utils::Matrix4x4::identity());
  EXPECT_EQ(calibrator.moduleReports().at(L"a").status, ModuleStatus::aligned);
  EXPECT_EQ(calibrator.moduleReports().at(L"c").status, ModuleStatus::aborted);
  EXPECT_FALSE(calibrator.error().count(L"c")) << "never reached, no error";
  // Once aborted, later runs return at the first module.
  const auto again = calibrator.calibrate({L"c"}, L"T");
  EXPECT_EQ(again.findModule(L"c")->matrixGeometry()->matrix(), Utils::Matrix4x4::identity());
}

}  // namespace
