// Fisheye centring: the circle search on rendered lens pictures, the console
// texts, apply's snapping and range refusal, every device failure, and the
// closed loop on the simulated camera.
#include "orbivane/sensor_calibration/fisheye_calibration.h"
#include "orbivane/sensor_calibration/sensor_shifter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "orbivane/camera/orbivane.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/session/quarn_session.h"
#include "orbivane/simulated/simulated_camera.h"
#include "simulated/scene_renderer.h"
#include "sensor_calibration/fisheye_center_finder.h"
#include "support/captured_log.h"
#include "support/matchers.h"
#include "synthetic/connections.h"

namespace {

using CameraDescription::OrbivaneModule;
using SensorCalibration::FisheyeCalibration;
using testing::HasSubstr;

std::shared_ptr<Image::RGBImage> lens(cv::Size size, cv::Point2d centre, double radius) {
  return Image::fromMat(Quarn::renderLensCircle(size, centre, radius, 0.4, 1.0, 2.0, 3));
}

// A module on an in-memory fisheye camera (sensor 1600 x 1200, circle of
// radius 430 at `centre`, window 1200 x 900 at (0, 0)).
OrbivaneModule fisheyeModule(const std::string& name, cv::Point2d centre, int xStep, int yStep,
                             const Quarn::SimulatedFaults& faults = {}, int xMin = 0, int xMax = 0) {
  auto camera = Quarn::SimulatedCamera::open("memory:fisheye-" + name).value();
  Quarn::SimulatedModule m;
  m.id = name;
  m.scene.width = 1600;
  m.scene.height = 1200;
  m.scene.centreX = centre.x;
  m.scene.centreY = centre.y;
  m.scene.radius = 400;
  m.window.width = 1200;
  m.window.height = 900;
  m.window.xStep = xStep;
  m.window.yStep = yStep;
  m.window.xMin = xMin;
  m.window.xMax = xMax;
  m.faults = faults;
  EXPECT_TRUE(camera->addModule(m));
  OrbivaneModule module(std::wstring(name.begin(), name.end()));
  const Quarn::QuarnConnection c = Synthetic::simulatedConnection("memory:fisheye-" + name, name);
  module.setConnection(c);
  return module;
}

std::pair<int, int> windowOf(const std::string& name) {
  const auto w = Quarn::SimulatedCamera::open("memory:fisheye-" + name).value()->module(name).value().window;
  return {w.x, w.y};
}

TEST(FisheyeCenterFinderTest, FindsRenderedCirclesAndCountsPixels) {
  for (const cv::Point2d truth : {cv::Point2d(320.4, 250.7), cv::Point2d(290.0, 231.3), cv::Point2d(351.8, 240.5)}) {
    const cv::Mat picture = Quarn::renderLensCircle({640, 480}, truth, 225.0, 0.4, 1.5, 3.0, 11);
    SensorCalibration::FisheyeCenterFinder finder(picture);
    finder.setThreshold(97);
    finder.run();
    EXPECT_NEAR(finder.centreXf(), truth.x, 0.5);
    EXPECT_NEAR(finder.centreYf(), truth.y, 0.5);
    EXPECT_NEAR(finder.radiusf(), 225.0, 4.0);
    EXPECT_EQ(finder.blackPixels() + finder.whitePixels(), 640L * 480L);
  }
  // No white pixel: ratio 0 and no circle.
  SensorCalibration::FisheyeCenterFinder dark(cv::Mat(120, 160, CV_8UC3, cv::Scalar::all(5)));
  dark.setThreshold(97);
  dark.run();
  EXPECT_EQ(dark.measuredRatio(), 0.0);
  EXPECT_EQ(dark.whitePixels(), 0);
  EXPECT_EQ(dark.radius(), -1);
  // Initial settings of a 480 x 640 picture.
  SensorCalibration::FisheyeCenterFinder fresh(cv::Mat(480, 640, CV_8UC3));
  EXPECT_EQ(fresh.centreX(), 320);
  EXPECT_EQ(fresh.centreY(), 240);
  EXPECT_EQ(fresh.radius(), 240);
  EXPECT_DOUBLE_EQ(fresh.expectedArea(), 240.0 * 240.0 * 3.14);
}

TEST(FisheyeCalibrationTest, ReportsDrawsAndRefusesImplausibleCircles) {
  OrbivaneModule module(L"m");
  testing::internal::CaptureStderr();
  FisheyeCalibration byDefault(module);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "In this case the threshold is unchanged, it is set to 97!\n");
  EXPECT_EQ(byDefault.threshold(), 97);

  const auto picture = lens({640, 480}, {300.3, 260.6}, 225.0);
  const auto found = byDefault.calculateCalibration(picture);
  EXPECT_NEAR(found.x, 300.3, 0.5);
  EXPECT_NEAR(found.y, 260.6, 0.5);
  EXPECT_NEAR(found.radius, 225.0, 4.0);
  const cv::Mat drawn = Image::toMat(found.image);
  EXPECT_EQ(drawn.at<cv::Vec3b>(260, 300 + 225), cv::Vec3b(0, 255, 0));  // the circle in green

  // A threshold of 300 works as 255: nothing is white and no circle drawn.
  FisheyeCalibration tooHigh(module, 300);
  testing::internal::CaptureStderr();
  const auto none = tooHigh.calculateCalibration(picture);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Circle can't drawn, possible wrong circle parameters. Check the lens cover!\n");
  EXPECT_EQ(none.x, -1.0f);
  EXPECT_EQ(none.radius, -1.0f);

  // A circle wider than two thirds of the picture is not drawn.
  FisheyeCalibration narrow(module, 97);
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  const auto wide = narrow.calculateCalibration(lens({300, 600}, {150, 300}, 240.0));
  testing::internal::GetCapturedStdout();
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("Check the lens cover!"));
  EXPECT_EQ(wide.radius, -1.0f);
  testing::internal::CaptureStderr();
  EXPECT_EQ(narrow.calculateCalibration(nullptr).x, -1.0f);
  testing::internal::GetCapturedStderr();
}

TEST(FisheyeCalibrationTest, ApplySnapsTowardPlusInfinity) {
  // Circle 7 px right of the middle of a 400 x 300 picture: new x = 7 -> 8.
  auto module = fisheyeModule("snap", {800, 600}, 4, 2);
  FisheyeCalibration calibration(module, 97);
  calibration.calculateCalibration(lens({400, 300}, {207, 150}, 130));
  testing::internal::CaptureStdout();
  ASSERT_TRUE(calibration.apply(0, 0));
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              HasSubstr("XShift: 8\t YShift: 0\t XMin: -200\t XMax: 200\t YMin: -150\t YMax: 150\n"));
  EXPECT_EQ(windowOf("snap"), std::make_pair(8, 0));
  ASSERT_TRUE(calibration.restore());
  EXPECT_EQ(windowOf("snap"), std::make_pair(0, 0));

  // 7 px left: -7 -> -4; the caller's correction of (-1, 3) is added first.
  calibration.calculateCalibration(lens({400, 300}, {193, 150}, 130));
  testing::internal::CaptureStdout();
  ASSERT_TRUE(calibration.apply(0, 0));
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(windowOf("snap"), std::make_pair(-4, 0));
  ASSERT_TRUE(calibration.restore());
  calibration.calculateCalibration(lens({400, 300}, {208, 150}, 130));
  testing::internal::CaptureStdout();
  ASSERT_TRUE(calibration.apply(-1, 3));  // 8 - 1 = 7 -> 8; 3 -> 4
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(windowOf("snap"), std::make_pair(8, 4));
  ASSERT_TRUE(calibration.restore());
  EXPECT_TRUE(calibration.restore());  // nothing left to undo
}

TEST(FisheyeCalibrationTest, ApplyRefusesAndReportsEveryFailure) {
  const auto picture = lens({400, 300}, {207, 150}, 130);
  {  // one step beyond the maximum 4: refused, not clamped
    auto module = fisheyeModule("range", {800, 600}, 4, 2, {}, -8, 4);
    FisheyeCalibration calibration(module, 97);
    calibration.calculateCalibration(picture);
    testing::internal::CaptureStdout();
    const auto r = calibration.apply(0, 0);
    testing::internal::GetCapturedStdout();
    ASSERT_FALSE(r);
    EXPECT_THAT(r.error(), testing::StartsWith("Sensor Shift Values out of Range!  x: 8 [-8 - 4]"));
    EXPECT_EQ(windowOf("range"), std::make_pair(0, 0));
    EXPECT_TRUE(calibration.restore());
  }
  {
    FisheyeCalibration calibration(OrbivaneModule(L"unconnected"), 97);
    calibration.calculateCalibration(picture);
    EXPECT_EQ(calibration.apply(0, 0).error(), "Module has no Quarn Connection Info! Can't apply Calibration");
  }
  {
    Quarn::SimulatedFaults f;
    f.connectRefused = true;
    FisheyeCalibration calibration(fisheyeModule("refused", {800, 600}, 2, 2, f), 97);
    calibration.calculateCalibration(picture);
    EXPECT_EQ(calibration.apply(0, 0).error(), "Cant connect to Module! Enable Quarn logs for more Information.");
  }
  {
    Quarn::SimulatedFaults f;
    f.sensorInfoFailing = true;
    FisheyeCalibration calibration(fisheyeModule("noinfo", {800, 600}, 2, 2, f), 97);
    calibration.calculateCalibration(picture);
    EXPECT_THAT(calibration.apply(0, 0).error(), testing::StartsWith("Cant get Camera Sensor Info! Error: "));
  }
  {
    Quarn::SimulatedFaults f;
    f.sensorInfoEmpty = true;
    FisheyeCalibration calibration(fisheyeModule("emptyinfo", {800, 600}, 2, 2, f), 97);
    calibration.calculateCalibration(picture);
    EXPECT_THAT(calibration.apply(0, 0).error(), testing::StartsWith("Cant get Camera Sensor Info! Error: "));
  }
  {
    FisheyeCalibration calibration(fisheyeModule("novalues", {800, 600}, 2, 2), 97);
    EXPECT_EQ(calibration.apply(0, 0).error(), "No Calibration Values!");
    // A calculation that found no circle leaves its -1 values, which apply
    // uses: x = 0 - (1200 / 2 - (-1)) = -601, snapped to -600, below the minimum.
    testing::internal::CaptureStderr();
    const auto none = calibration.calculateCalibration(Image::fromMat(cv::Mat(900, 1200, CV_8UC3, cv::Scalar::all(0))));
    testing::internal::GetCapturedStderr();
    ASSERT_EQ(none.radius, -1.0f);
    testing::internal::CaptureStdout();
    const auto r = calibration.apply(0, 0);
    testing::internal::GetCapturedStdout();
    EXPECT_THAT(r.error(), testing::StartsWith("Sensor Shift Values out of Range!  x: -600 ["));
    EXPECT_EQ(windowOf("novalues"), std::make_pair(0, 0));
  }
  for (const bool timeout : {false, true}) {
    Quarn::SimulatedFaults f;
    f.writeFailing = !timeout;
    f.writeTimeout = timeout;
    f.writeTimeoutMs = 300;
    const std::string name = timeout ? "writetimeout" : "writefails";
    FisheyeCalibration calibration(fisheyeModule(name, {800, 600}, 2, 2, f), 97);
    calibration.calculateCalibration(picture);
    Quarn::QuarnSession::setDefaultOptions(Quarn::SessionOptions{std::chrono::milliseconds(60)});
    testing::internal::CaptureStdout();
    const auto r = calibration.apply(0, 0);
    testing::internal::GetCapturedStdout();
    Quarn::QuarnSession::setDefaultOptions(Quarn::SessionOptions{});
    EXPECT_FALSE(r) << name;
    EXPECT_EQ(windowOf(name), std::make_pair(0, 0)) << name;
    EXPECT_TRUE(calibration.restore()) << name;  // nothing was moved
  }
}

TEST(FisheyeCalibrationTest, ClosedLoopCentresTheCircleAndRestoreGoesBack) {
  const std::string name = "loop";
  auto module = fisheyeModule(name, {873.4, 588.6}, 2, 2);
  auto camera = Quarn::SimulatedCamera::open("memory:fisheye-loop").value();
  const cv::Mat before = camera->capture(name).value();

  FisheyeCalibration calibration(module, 97);
  testing::internal::CaptureStdout();  // the circle is smaller than the picture height: quality warning
  const auto first = calibration.calculateCalibration(Image::fromMat(before));
  EXPECT_NEAR(first.x, 873.4 - 200, 0.5);  // window left edge at (1600 - 1200) / 2
  EXPECT_NEAR(first.y, 588.6 - 150, 0.5);
  ASSERT_TRUE(calibration.apply(0, 0));
  const auto after = calibration.calculateCalibration(Image::fromMat(camera->capture(name).value()));
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              HasSubstr("WARNING fisheyecenter: Check manually the centering quality, if necessary change the "
                        "threshold value!!!\n\t Black pixels: "));
  EXPECT_LE(std::abs(after.x - 600.0f), 2.0f);  // within a step of the middle
  EXPECT_LE(std::abs(after.y - 450.0f), 2.0f);
  EXPECT_NE(windowOf(name), std::make_pair(0, 0));
  // The process-wide store follows the window apply wrote, and restore.
  const auto stored = [] {
    const auto info = SensorCalibration::SensorShifter::lastChangedSensorInfo(L"loop");
    return std::make_pair(info.x, info.y);
  };
  EXPECT_EQ(stored(), windowOf(name));
  EXPECT_EQ(SensorCalibration::SensorShifter::lastChangedSensorInfo(L"loop").moduleName, L"loop");

  ASSERT_TRUE(calibration.restore());
  EXPECT_EQ(windowOf(name), std::make_pair(0, 0));
  EXPECT_EQ(stored(), std::make_pair(0, 0));
  EXPECT_THAT(camera->capture(name).value(), Testing::PictureNear(before, 0));
}

// The host hands on a camera whose module gained its connection (or moved
// to another camera): the calibrator takes the module of its own name from
// it; a camera without that name leaves the calibrator's module as it was.
TEST(FisheyeCalibrationTest, UpdateOrbivaneTakesTheModuleOfTheSameName) {
  const Testing::CapturedLog log("FisheyeCalibration");  // the calibrator takes its logger when made
  FisheyeCalibration calibration(OrbivaneModule(L"update"), 97);
  calibration.calculateCalibration(lens({400, 300}, {207, 150}, 130));
  testing::internal::CaptureStdout();
  EXPECT_FALSE(calibration.apply(0, 0)) << "no connection yet";
  CameraDescription::Orbivane other;
  other.addModule(OrbivaneModule(L"elsewhere"));
  calibration.updateOrbivane(other);
  EXPECT_THAT(log.text(), HasSubstr("update is not in the new camera description"));
  EXPECT_FALSE(calibration.apply(0, 0));
  CameraDescription::Orbivane camera;
  camera.addModule(OrbivaneModule(L"elsewhere"));
  camera.addModule(fisheyeModule("update", {800, 600}, 4, 2));
  calibration.updateOrbivane(camera);
  EXPECT_TRUE(calibration.apply(0, 0));
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(windowOf("update"), std::make_pair(8, 0));
  // A later camera that no longer connects the module does not strand the
  // window: restore still goes back where apply moved it.
  CameraDescription::Orbivane unplugged;
  unplugged.addModule(OrbivaneModule(L"update"));
  calibration.updateOrbivane(unplugged);
  EXPECT_TRUE(calibration.restore());
  EXPECT_EQ(windowOf("update"), std::make_pair(0, 0));
}

}  // namespace
