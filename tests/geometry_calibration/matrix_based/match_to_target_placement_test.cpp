// Target matching where the start or the pictures are hard: a module placed
// a whole width from its true place, views with black uncovered wedges, a
// sky whose features all lie in one band, and pictures that show something
// else, on real photographs with known homographies.
#include <algorithm>
#include <cmath>
#include <iterator>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/match_to_target_state.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/geometry_calibration/matrix_based/match_to_target.h"
#include "synthetic/sample_data.h"
#include "synthetic/target_scenes.h"
#include "support/matchers.h"

namespace {

using GeometryCalibration::ModuleStatus;
using GeometryCalibration::MatrixBased::MatchToTarget;
using GeometryCalibration::MatrixBased::MatchToTargetState;
using namespace OrbivaneGeometry;

const cv::Size kView(1280, 720);

// The 1280x720 middle band of a 1280x960 real photograph, as a scene whose
// target is all of it.
Synthetic::Scene realView(const std::string& name) {
  Synthetic::Scene scene;
  scene.picture = Synthetic::loadRealPhoto(name)(cv::Rect(0, 120, 1280, 720)).clone();
  scene.target = scene.picture;
  return scene;
}

// A camera of target "T" (identity) and module "m" placed at `start`
// (module pixels -> target pixels).
Synthetic::PairCamera placedPair(const cv::Mat& target, const cv::Mat& module, const cv::Matx33d& start) {
  Synthetic::PairCamera pair = Synthetic::pairCamera(target, module);
  const cv::Matx33d placed =
      pixelsToTexture(target.cols, target.rows) * start * textureToPixels(module.cols, module.rows);
  pair.camera.findModule(L"m")->matrixGeometry()->setMatrix(matrixFromPlanarHomography(placed));
  return pair;
}

// The module's placement in `camera` as module pixels -> target pixels.
cv::Matx33d placementOf(const CameraDescription::Orbivane& camera, cv::Size target, cv::Size module) {
  const cv::Matx33d h = textureToPixels(target.width, target.height) *
                        planarHomography(camera.findModule(L"m")->matrixGeometry()->matrix()) *
                        pixelsToTexture(module.width, module.height);
  return h * (1.0 / h(2, 2));
}

// A module seeing a turned part of the scene at `origin` (target pixels of
// its upper-left corner), `scale` target pixels per module pixel.
cv::Matx33d turnedPart(cv::Point2d origin, double degrees, double scale) {
  const double a = degrees * CV_PI / 180.0, c = scale * std::cos(a), s = scale * std::sin(a);
  return cv::Matx33d(c, -s, origin.x, s, c, origin.y, 0, 0, 1);
}

TEST(MatchToTargetPlacement, FindsAModuleStartedAWholeWidthFromItsPlace) {
  const Synthetic::Scene scene = realView("P1060390.jpg");
  const cv::Size module(640, 480);
  Synthetic::ModuleTruth truth;
  truth.homography = turnedPart({110, 150}, 2.0, 0.875);
  const cv::Mat picture = Synthetic::renderModule(scene, truth, module, 0.9, 8.0, 2.0, 3);
  // Its whole width (560 target pixels) to the right of where it belongs.
  const cv::Matx33d start = cv::Matx33d(1, 0, 560, 0, 1, 0, 0, 0, 1) * truth.homography;
  const Synthetic::PairCamera pair = placedPair(scene.target, picture, start);
  MatchToTarget calibrator(pair.camera, pair.images);
  const auto result = calibrator.calibrate({L"m"}, L"T");
  EXPECT_EQ(calibrator.moduleReports()[L"m"].status, ModuleStatus::aligned) << calibrator.moduleReports()[L"m"].reason;
  EXPECT_THAT(placementOf(result, kView, module), Testing::HomographyNear(truth.homography, 0.1, module));
}

TEST(MatchToTargetPlacement, ViewsWithBlackWedgesReachATenthOfAPixel) {
  // Target and module are both turned views of the photograph; each shows
  // black where it looks past the photograph's edge.
  const cv::Mat photograph = realView("P1060388.jpg").picture;
  cv::RNG rng(31);
  const cv::Matx33d targetView = Synthetic::realisticMisalignment(rng, kView, kView, 3.0, 1.0, 0.04);
  const cv::Matx33d moduleView = Synthetic::realisticMisalignment(rng, kView, kView, 3.0, 1.0, 0.06);
  const cv::Mat target = Synthetic::renderViewWithWedges(photograph, targetView, kView, 1.0, 0.0, 1.0, 4);
  const cv::Mat module = Synthetic::renderViewWithWedges(photograph, moduleView, kView, 1.1, -10.0, 2.0, 5);
  ASSERT_GT(cv::countNonZero(module.reshape(1, 0) == 0), kView.area() / 50) << "the module shows no wedge";
  const cv::Matx33d truth = targetView.inv() * moduleView;
  const Synthetic::PairCamera pair = placedPair(target, module, cv::Matx33d::eye());
  MatchToTarget calibrator(pair.camera, pair.images);
  const auto result = calibrator.calibrate({L"m"}, L"T");
  EXPECT_THAT(placementOf(result, kView, kView), Testing::HomographyNear(truth * (1.0 / truth(2, 2)), 0.1, kView));
}

TEST(MatchToTargetPlacement, AClearAgreementIsAcceptedWhereverItsFeaturesLie) {
  // A module that sees grey sky above a band of roofs: its features all lie
  // in the band, yet the pictures agree closely once it is placed. The sky
  // is made plain (each row its mean colour) down to the roofs, below the
  // module's middle third.
  Synthetic::Scene scene = realView("P1060382.jpg");
  for (int y = 0; y < 540; ++y) {
    cv::Mat row = scene.target.row(y);
    row.setTo(cv::mean(row));
  }
  const cv::Size module(640, 480);
  Synthetic::ModuleTruth truth;
  truth.homography = turnedPart({400, 200}, 1.0, 1.0);
  const cv::Mat picture = Synthetic::renderModule(scene, truth, module, 1.0, 5.0, 2.0, 6);
  // About ten pixels off, by a translation (so the work scale is 1 and work
  // pixels are target pixels).
  const cv::Matx33d start(1, 0, 408, 0, 1, 194, 0, 0, 1);
  const Synthetic::PairCamera pair = placedPair(scene.target, picture, start);
  MatchToTarget self(pair.camera, pair.images);
  MatchToTargetState state(pair.camera, pair.images);
  const auto result = state.calibrate(self, {L"m"}, L"T");
  const auto& report = state.reports[L"m"];
  EXPECT_EQ(report.status, ModuleStatus::aligned) << report.reason;
  EXPECT_GE(report.correlation, 0.9);
  // Only the lowest 140 of its 480 rows hold texture: the far corners rest
  // on the homography's perspective terms, which those rows pin loosely.
  EXPECT_THAT(placementOf(result, kView, module), Testing::HomographyNear(truth.homography, 0.3, module));
  // The agreeing pairs (target pixels) cover fewer than 4 of the 3 x 3 cells
  // of the module's outline on the target.
  std::vector<cv::Point2f> outline;
  cv::perspectiveTransform(std::vector<cv::Point2f>{{0, 0}, {640, 0}, {640, 480}, {0, 480}}, outline,
                           cv::Matx33f(truth.homography));
  const cv::Rect box = cv::boundingRect(outline);
  bool cell[9] = {};
  for (const auto& p : state.results[L"m"].support) {
    const int column = std::clamp(int((p.x - box.x) * 3 / box.width), 0, 2);
    cell[std::clamp(int((p.y - box.y) * 3 / box.height), 0, 2) * 3 + column] = true;
  }
  EXPECT_LT(std::count(std::begin(cell), std::end(cell), true), 4);
}

TEST(MatchToTargetPlacement, NoiseAndAnUnrelatedPhotographStillFail) {
  // At half size: every search stage runs on these, the whole-picture ones too.
  cv::Mat target;
  cv::resize(realView("P1060390.jpg").target, target, kView / 2, 0, 0, cv::INTER_AREA);
  const cv::Size module(320, 240);
  cv::Mat noise(module, CV_8UC3);
  cv::RNG(8).fill(noise, cv::RNG::UNIFORM, 0, 256);
  cv::Mat unrelated;
  cv::resize(Synthetic::loadSample("baboon.jpg"), unrelated, module, 0, 0, cv::INTER_AREA);
  const cv::Matx33d start = turnedPart({150, 60}, 0.0, 1.0);
  for (const cv::Mat& picture : {noise, unrelated}) {
    const Synthetic::PairCamera pair = placedPair(target, picture, start);
    MatchToTarget calibrator(pair.camera, pair.images);
    const auto result = calibrator.calibrate({L"m"}, L"T");
    EXPECT_EQ(calibrator.moduleReports()[L"m"].status, ModuleStatus::failed);
    EXPECT_EQ(result.findModule(L"m")->matrixGeometry()->matrix(),
              pair.camera.findModule(L"m")->matrixGeometry()->matrix());
  }
}

}  // namespace
