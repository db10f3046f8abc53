// Resolution: the pair rules, measurement on rendered targets, the console
// texts, and apply's checks.
#include "orbivane/sensor_calibration/resolution_calibration.h"

#include <cmath>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "orbivane/camera/orbivane.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/simulated/simulated_camera.h"
#include "simulated/scene_renderer.h"
#include "support/captured_log.h"
#include "sensor_calibration/blob_pairs.h"
#include "synthetic/connections.h"

namespace {

using CameraDescription::OrbivaneModule;
using SensorCalibration::ResolutionCalibration;
using testing::HasSubstr;

TEST(ResolutionPairRuleTest, PicksThePairsOfLeastDifference) {
  EXPECT_EQ(SensorCalibration::markSpacings({{100, 100}, {400, 102}, {101, 500}}), std::make_pair(300, 400));
  // Detection order does not matter for a clear target.
  EXPECT_EQ(SensorCalibration::markSpacings({{101, 500}, {100, 100}, {400, 102}}), std::make_pair(300, 400));
  EXPECT_EQ(SensorCalibration::markSpacings({{0, 0}, {30, 0}, {0, 40}}), std::make_pair(30, 40));
  // Equal differences fall through to the pair (p1, p2).
  EXPECT_EQ(SensorCalibration::markSpacings({{0, 0}, {10, 0}, {30, 0}}).first, 20);
  EXPECT_EQ(SensorCalibration::markSpacings({{0, 0}, {0, 10}, {0, 30}}).second, 20);
  EXPECT_EQ(SensorCalibration::markSpacings({{0, 0}, {3, 4}}), std::make_pair(0, 0));
}

TEST(ResolutionCalibrationTest, MeasuresARenderedTargetAndPrintsTheTexts) {
  const double rotation = 2.0;
  const cv::Mat target =
      Quarn::renderThreeCircleTarget({1600, 1200}, {300, 300}, 1000, 600, 30, rotation, 1.0, 2.0, 5);
  ResolutionCalibration calibration(OrbivaneModule(L"m"), 0.5f, 0.3f, 500);
  testing::internal::CaptureStdout();
  const auto annotated = calibration.calculateCalibration(Image::fromMat(target));
  const std::string out = testing::internal::GetCapturedStdout();
  ASSERT_NE(annotated, nullptr);
  EXPECT_EQ(calibration.circleCount(), 3);
  EXPECT_NEAR(calibration.horizontalSpacing(), 1000, 1);
  EXPECT_NEAR(calibration.verticalSpacing(), 600, 1);
  EXPECT_NEAR(calibration.metresPerPixelX(), 0.5 / 1000, 0.5 / 1000 * 0.002);
  EXPECT_THAT(out, HasSubstr("Circles 3\n"));
  EXPECT_THAT(out, HasSubstr("xyReal sizes: 0.5\t0.3\n"));
  EXPECT_THAT(out, HasSubstr("xyPixel sizes: " + std::to_string(calibration.horizontalSpacing()) + "\t" +
                             std::to_string(calibration.verticalSpacing()) + "\n"));
  EXPECT_GT(cv::norm(Image::toMat(annotated), target, cv::NORM_L1), 0.0);  // annotations drawn
}

TEST(ResolutionCalibrationTest, WrongMarkCountsGiveInfiniteResolutionAndTheErrorText) {
  // Two marks: the third lies off the picture.
  const cv::Mat target = Quarn::renderThreeCircleTarget({800, 600}, {100, 500}, 500, 800, 25, 0.0, 1.0, 1.0, 2);
  ResolutionCalibration calibration(OrbivaneModule(L"m"), 0.5f, 0.3f, 300);
  testing::internal::CaptureStdout();
  const auto annotated = calibration.calculateCalibration(Image::fromMat(target));
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_THAT(out, HasSubstr("Circles 2\n"));
  EXPECT_THAT(out, HasSubstr("xyPixel sizes: 0\t0\n"));
  EXPECT_TRUE(std::isinf(calibration.metresPerPixelX()));
  EXPECT_TRUE(std::isinf(calibration.metresPerPixelY()));
  ASSERT_NE(annotated, nullptr);
  // The error text crosses the middle of the picture.
  const cv::Mat a = Image::toMat(annotated);
  EXPECT_GT(cv::norm(a.row(300), target.row(300), cv::NORM_L1), 0.0);
  EXPECT_EQ(calibration.calculateCalibration(nullptr), nullptr);
}

// A simulated camera whose module "front" sees a three-mark target.
struct TargetCamera {
  std::shared_ptr<Quarn::SimulatedCamera> camera;
  Quarn::SimulatedModule module;
  OrbivaneModule described{L"front"};
};

TargetCamera targetCamera(const std::string& address) {
  TargetCamera t;
  t.camera = Quarn::SimulatedCamera::open(address).value();
  t.module.id = "front";
  t.module.scene.kind = "target";
  t.module.scene.width = 1600;
  t.module.scene.height = 1200;
  t.module.scene.cornerX = 500;
  t.module.scene.cornerY = 300;
  t.module.window.width = 1200;
  t.module.window.height = 900;
  EXPECT_TRUE(t.camera->addModule(t.module));
  const Quarn::QuarnConnection c = Synthetic::simulatedConnection(address, "front");
  t.described.setConnection(c);
  return t;
}

TEST(ResolutionCalibrationTest, AnInfiniteResolutionIsRefusedByApplyItself) {
  // The module reaches its camera, so apply gets as far as the result check.
  const TargetCamera t = targetCamera("memory:resolution-infinite");
  const cv::Mat twoMarks = Quarn::renderThreeCircleTarget({800, 600}, {100, 500}, 500, 800, 25, 0.0, 1.0, 1.0, 2);
  const Testing::CapturedLog log("ResolutionCalibration");  // the calibrator takes its logger when made
  ResolutionCalibration calibration(t.described, 0.5f, 0.3f, 300);
  testing::internal::CaptureStdout();
  calibration.calculateCalibration(Image::fromMat(twoMarks));
  testing::internal::GetCapturedStdout();
  ASSERT_TRUE(std::isinf(calibration.metresPerPixelX()));
  EXPECT_FALSE(calibration.apply());
  EXPECT_FALSE(calibration.applied());
  EXPECT_THAT(log.text(), HasSubstr("The measured resolution is not usable"));
  EXPECT_THAT(log.text(), testing::Not(HasSubstr("Quarn Connection")));
}

TEST(ResolutionCalibrationTest, UpdateOrbivaneTakesTheModuleOfTheSameName) {
  const TargetCamera t = targetCamera("memory:resolution-update");
  const auto picture = Image::fromMat(t.camera->capture("front").value());
  const Testing::CapturedLog log("ResolutionCalibration");
  ResolutionCalibration calibration(OrbivaneModule(L"front"), 0.8f, 0.4f, 500);  // no connection yet
  testing::internal::CaptureStdout();
  calibration.calculateCalibration(picture);
  testing::internal::GetCapturedStdout();
  ASSERT_EQ(calibration.circleCount(), 3);
  EXPECT_FALSE(calibration.apply());

  // A camera without the module: the old copy stays, and the log says so.
  CameraDescription::Orbivane other;
  other.addModule(OrbivaneModule(L"rear"));
  calibration.updateOrbivane(other);
  EXPECT_THAT(log.text(), HasSubstr("front is not in the new camera description"));
  EXPECT_FALSE(calibration.apply());
  // The camera with the connected module: apply now reaches the sensor.
  CameraDescription::Orbivane connected;
  connected.addModule(OrbivaneModule(L"rear"));
  connected.addModule(t.described);
  calibration.updateOrbivane(connected);
  EXPECT_TRUE(calibration.apply());
  EXPECT_TRUE(calibration.applied());
}

TEST(ResolutionCalibrationTest, ApplyNeedsResultsConnectionAndSensor) {
  auto camera = Quarn::SimulatedCamera::open("memory:resolution").value();
  Quarn::SimulatedModule m;
  m.id = "front";
  m.scene.kind = "target";
  m.scene.width = 1600;
  m.scene.height = 1200;
  m.scene.cornerX = 500;
  m.scene.cornerY = 300;
  m.window.width = 1200;
  m.window.height = 900;
  ASSERT_TRUE(camera->addModule(m));
  OrbivaneModule module(L"front");
  const Quarn::QuarnConnection c = Synthetic::simulatedConnection("memory:resolution", "front");
  module.setConnection(c);
  const auto picture = Image::fromMat(camera->capture("front").value());

  ResolutionCalibration calibration(module, 0.8f, 0.4f, 500);
  EXPECT_FALSE(calibration.apply());  // no results yet
  testing::internal::CaptureStdout();
  calibration.calculateCalibration(picture);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(calibration.circleCount(), 3);
  EXPECT_TRUE(calibration.apply());
  EXPECT_TRUE(calibration.applied());
  EXPECT_TRUE(calibration.restore());
  EXPECT_FALSE(calibration.applied());

  ResolutionCalibration unconnected(OrbivaneModule(L"x"), 0.8f, 0.4f, 500);
  testing::internal::CaptureStdout();
  unconnected.calculateCalibration(picture);
  testing::internal::GetCapturedStdout();
  EXPECT_FALSE(unconnected.apply());

  m.faults.sensorInfoFailing = true;
  ASSERT_TRUE(camera->setModule(m));
  EXPECT_FALSE(calibration.apply());
  m.faults = {};
  m.faults.connectRefused = true;
  ASSERT_TRUE(camera->setModule(m));
  EXPECT_FALSE(calibration.apply());
}

}  // namespace
