// The sensor-shift calibration proper and the overlap calibration: overlap
// measurement on crops of a real photograph with known offsets, the surface
// to sensor pixel conversion, window moves with step rounding and limits,
// the closed loop on two simulated modules cropped from one photograph, the
// inspection picture, and failures.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "orbivane/image/image_conversion.h"
#include "orbivane/simulated/simulated_camera.h"
#include "orbivane/sensor_calibration/sensor_shifter.h"
#include "orbivane/utils/wide_text.h"
#include "synthetic/sample_data.h"
#include "synthetic/connections.h"

namespace {

using CameraDescription::OrbivaneModule;
using SensorCalibration::SensorShifter;
using testing::HasSubstr;

std::shared_ptr<Image::RGBImage> part(const cv::Mat& photo, cv::Rect r) { return Image::fromMat(photo(r).clone()); }

TEST(OverlapMeasurementTest, FindsKnownOverlapsOnCropsOfAPhotograph) {
  const cv::Mat photo = Synthetic::loadSample("building.jpg");  // 868 x 600
  const auto left = part(photo, {0, 0, 400, 500});
  struct Case {
    cv::Rect right;
    double overlap, y;
  };
  for (const Case& c : {Case{{310, 0, 400, 500}, 90.0, 0.0}, Case{{250, 7, 400, 480}, 150.0, 7.0},
                        Case{{360, 0, 380, 494}, 40.0, 0.0}}) {
    const auto m = SensorShifter::measureOverlap(left, part(photo, c.right));
    ASSERT_TRUE(m) << m.error();
    EXPECT_NEAR(m.value().overlap, c.overlap, 0.15) << c.right;
    EXPECT_NEAR(m.value().x, 400.0 - c.overlap, 0.15);
    EXPECT_NEAR(m.value().y, c.y, 0.15);
    EXPECT_GT(m.value().score, 0.95);
  }
  // An overlap wider than the searched half of the left picture is refused,
  // not cut short; a larger share finds it.
  const auto wide = SensorShifter::measureOverlap(left, part(photo, {150, 0, 400, 500}));
  ASSERT_FALSE(wide);
  EXPECT_THAT(wide.error(), HasSubstr("do not overlap by 200 px or less"));
  const auto found = SensorShifter::measureOverlap(left, part(photo, {150, 0, 400, 500}), 0.75);
  ASSERT_TRUE(found);
  EXPECT_NEAR(found.value().overlap, 250.0, 0.15);
  // Half a pixel, and another exposure (gain and offset) on the right.
  cv::Mat shifted;
  cv::warpAffine(photo, shifted, cv::Matx23d(1, 0, -0.5, 0, 1, 0), photo.size(), cv::INTER_CUBIC);
  cv::Mat darker = shifted(cv::Rect(300, 0, 400, 500)) * 0.6 + cv::Scalar::all(25);
  const auto half = SensorShifter::measureOverlap(left, Image::fromMat(darker));
  ASSERT_TRUE(half) << half.error();
  EXPECT_NEAR(half.value().overlap, 99.5, 0.2);
}

TEST(OverlapMeasurementTest, RefusesPicturesThatDoNotOverlapOrCannotBeMatched) {
  const cv::Mat photo = Synthetic::loadSample("building.jpg");
  const auto left = part(photo, {0, 0, 400, 500});
  const auto unrelated = SensorShifter::measureOverlap(left, Image::fromMat(Synthetic::loadSample("baboon.jpg")));
  ASSERT_FALSE(unrelated);
  EXPECT_THAT(unrelated.error(), HasSubstr("do not overlap"));
  const auto flat = SensorShifter::measureOverlap(left, Image::fromMat(cv::Mat(300, 300, CV_8UC3, cv::Scalar::all(80))));
  ASSERT_FALSE(flat);
  EXPECT_THAT(flat.error(), HasSubstr("no structure"));
  EXPECT_FALSE(SensorShifter::measureOverlap(left, nullptr));
  EXPECT_FALSE(SensorShifter::measureOverlap(left, Image::fromMat(cv::Mat(10, 10, CV_8UC3, cv::Scalar::all(9)))));
  EXPECT_FALSE(SensorShifter::measureOverlap(left, left, 0.0));
  EXPECT_FALSE(SensorShifter::measureOverlap(left, left, std::nan("")));
}

std::shared_ptr<OrbivaneModule> pictureModule(const Utils::Matrix4x4& matrix, int width, int height) {
  auto module = std::make_shared<OrbivaneModule>(L"scaled");
  module->setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(matrix));
  module->setImage(Image::fromMat(cv::Mat(height, width, CV_8UC3, cv::Scalar::all(0))));
  return module;
}

TEST(SensorShiftConversionTest, SurfaceUnitsBecomeSensorPixelsThroughTheMatrix) {
  auto module = pictureModule(Utils::Matrix4x4::identity(), 200, 100);
  auto shift = SensorShifter::cvtToPixelSensorShift(module, 0.1, -0.05);
  ASSERT_TRUE(shift) << shift.error();
  EXPECT_NEAR(shift.value().x, 20.0, 1e-3);
  EXPECT_NEAR(shift.value().y, -5.0, 1e-3);
  // A module spanning half the surface's width and a quarter of its height:
  // a surface unit holds twice (four times) the pixels.
  Utils::Matrix4x4 m;
  m.set(0, 0, 0.5f);
  m.set(1, 1, 0.25f);
  m.set(0, 3, 0.3f);
  shift = SensorShifter::cvtToPixelSensorShift(pictureModule(m, 200, 100), 0.1, 0.05);
  ASSERT_TRUE(shift);
  EXPECT_NEAR(shift.value().x, 40.0, 1e-3);
  EXPECT_NEAR(shift.value().y, 20.0, 1e-3);

  Utils::Matrix4x4 singular;
  singular.set(0, 0, 0.0f);
  EXPECT_FALSE(SensorShifter::cvtToPixelSensorShift(pictureModule(singular, 200, 100), 0.1, 0.0));
  EXPECT_FALSE(SensorShifter::cvtToPixelSensorShift(module, std::nan(""), 0.0));
  EXPECT_FALSE(SensorShifter::cvtToPixelSensorShift(std::make_shared<OrbivaneModule>(L"bare"), 0.1, 0.0));
  auto noPicture = pictureModule(Utils::Matrix4x4::identity(), 200, 100);
  noPicture->setImage(nullptr);
  EXPECT_FALSE(SensorShifter::cvtToPixelSensorShift(noPicture, 0.1, 0.0));
  EXPECT_FALSE(SensorShifter::cvtToPixelSensorShift(nullptr, 0.1, 0.0));
}

// Two modules on one in-memory camera, both cropped from building.jpg: frames
// of 520 x 600 at columns 0 and 300, windows 400 x 450 (x in [-60, 60]). At
// windows (xA, xB) the pictures overlap by 100 + xA - xB columns.
struct OverlapPair {
  std::shared_ptr<OrbivaneModule> left, right;
  std::string address;
};

OverlapPair cameraPair(const std::string& name, int step, const Quarn::SimulatedFaults& rightFaults = {},
                const std::string& rightPicture = "building.jpg") {
  OverlapPair p;
  p.address = "memory:overlap-" + name;
  auto camera = Quarn::SimulatedCamera::open(p.address).value();
  for (const auto& [id, crop] : {std::make_pair(std::string("A"), 0), std::make_pair(std::string("B"), 300)}) {
    Quarn::SimulatedModule m;
    m.id = id;
    m.scene.kind = "image";
    m.scene.imagePath = Synthetic::samplePath(id == "A" ? "building.jpg" : rightPicture);
    if (rightPicture == "building.jpg") {
      m.scene.cropX = crop;
      m.scene.cropWidth = 520;
    }
    m.window.width = 400;
    m.window.height = 450;
    m.window.xStep = m.window.yStep = step;
    if (id == "B") m.faults = rightFaults;
    EXPECT_TRUE(camera->addModule(m));
    auto module = std::make_shared<OrbivaneModule>(Utils::fromUtf8(name + id));
    const Quarn::QuarnConnection c = Synthetic::simulatedConnection(p.address, id);
    module->setConnection(c);
    (id == "A" ? p.left : p.right) = module;
  }
  return p;
}

std::pair<int, int> windowsOf(const OverlapPair& p) {
  auto camera = Quarn::SimulatedCamera::open(p.address).value();
  return {camera->module("A").value().window.x, camera->module("B").value().window.x};
}

SensorShifter::OverlapOptions wanting(double pixels) {
  SensorShifter::OverlapOptions o;
  o.wantedPixels = pixels;
  return o;
}

TEST(OverlapCalibrationTest, MovesTheRightWindowUntilTheOverlapIsTheWantedOne) {
  OverlapPair p = cameraPair("plain", 2);
  auto result = SensorShifter::overlapCalibration(p.left, p.right, wanting(70.0));
  ASSERT_TRUE(result) << result.error();
  EXPECT_NEAR(result.value().before.overlap, 100.0, 0.2);
  EXPECT_NEAR(result.value().after.overlap, 70.0, 0.2);
  EXPECT_TRUE(result.value().reached);
  EXPECT_EQ(result.value().moves, 1);
  EXPECT_EQ(windowsOf(p), std::make_pair(0, 30));
  EXPECT_EQ(result.value().rightWindow.x, 30);
  EXPECT_EQ(SensorShifter::lastChangedSensorInfo(p.right->name()).x, 30);
  EXPECT_EQ(SensorShifter::lastChangedSensorInfo(p.left->name()).x, 0);
  // The modules' pictures are the last captures: 400 x 450.
  ASSERT_TRUE(p.right->image());
  EXPECT_EQ(p.right->image()->width(), 400);

  // The linkage's share of the picture width: 0.3 x 400 = 120 px, through
  // matrices of equal scale (each module half the surface wide).
  Utils::Matrix4x4 leftMatrix, rightMatrix;
  leftMatrix.set(0, 0, 0.5f);
  rightMatrix.set(0, 0, 0.5f);
  rightMatrix.set(0, 3, 0.4f);
  p.left->setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(leftMatrix));
  p.right->setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(rightMatrix));
  p.left->setLinkage(std::make_unique<CameraDescription::OrbivaneLinkage>(L"", p.right->name(), 0.3f));
  result = SensorShifter::overlapCalibration(p.left, p.right, SensorShifter::OverlapOptions{});
  ASSERT_TRUE(result) << result.error();
  EXPECT_NEAR(result.value().wanted, 120.0, 1e-3);
  EXPECT_NEAR(result.value().after.overlap, 120.0, 0.2);
  EXPECT_EQ(windowsOf(p), std::make_pair(0, -20));
}

TEST(OverlapCalibrationTest, RoundsToTheStepAndSharesWhatTheLimitsRefuse) {
  // Step 4: a surplus of 29 px moves by 28, one pixel off but within a step.
  OverlapPair stepped = cameraPair("stepped", 4);
  auto result = SensorShifter::overlapCalibration(stepped.left, stepped.right, wanting(71.0));
  ASSERT_TRUE(result) << result.error();
  EXPECT_EQ(windowsOf(stepped), std::make_pair(0, 28));
  EXPECT_NEAR(result.value().after.overlap, 72.0, 0.2);
  EXPECT_TRUE(result.value().reached);

  // 250 px wanted: the right window stops at -60, the left one moves right
  // to its limit 60, and the overlap ends at 220 px, not reached. (The
  // search must then cover more than half the left picture.)
  OverlapPair wide = cameraPair("wide", 2);
  SensorShifter::OverlapOptions options = wanting(250.0);
  options.searchShare = 0.75;
  result = SensorShifter::overlapCalibration(wide.left, wide.right, options);
  ASSERT_TRUE(result) << result.error();
  EXPECT_EQ(windowsOf(wide), std::make_pair(60, -60));
  EXPECT_NEAR(result.value().after.overlap, 220.0, 0.2);
  EXPECT_FALSE(result.value().reached);
  EXPECT_EQ(result.value().leftWindow.x, 60);

  // Nothing to do: no move.
  OverlapPair done = cameraPair("done", 2);
  result = SensorShifter::overlapCalibration(done.left, done.right, wanting(100.0));
  ASSERT_TRUE(result) << result.error();
  EXPECT_EQ(result.value().moves, 0);
  EXPECT_TRUE(result.value().reached);
}

TEST(OverlapCalibrationTest, FailuresLeaveTheWindowsAndSaySo) {
  Quarn::SimulatedFaults refusing;
  refusing.writeFailing = true;
  OverlapPair p = cameraPair("refusing", 2, refusing);
  testing::internal::CaptureStderr();
  auto result = SensorShifter::overlapCalibration(p.left, p.right, wanting(70.0));
  const std::string err = testing::internal::GetCapturedStderr();
  ASSERT_FALSE(result);
  EXPECT_THAT(result.error(), HasSubstr("Cannot write SensorShift of module refusingB"));
  EXPECT_THAT(err, HasSubstr("!!!Error "));
  EXPECT_EQ(windowsOf(p), std::make_pair(0, 0));

  OverlapPair apart = cameraPair("apart", 2, {}, "fruits.jpg");  // another scene altogether
  result = SensorShifter::overlapCalibration(apart.left, apart.right, wanting(70.0));
  ASSERT_FALSE(result);
  EXPECT_THAT(result.error(), HasSubstr("do not overlap"));
  EXPECT_EQ(windowsOf(apart), std::make_pair(0, 0));

  OverlapPair p2 = cameraPair("nowanted", 2);
  result = SensorShifter::overlapCalibration(p2.left, p2.right, SensorShifter::OverlapOptions{});
  ASSERT_FALSE(result);
  EXPECT_THAT(result.error(), HasSubstr("No wanted overlap"));
  EXPECT_FALSE(SensorShifter::overlapCalibration(p2.left, p2.left, wanting(70.0)));
  EXPECT_FALSE(SensorShifter::overlapCalibration(p2.left, nullptr, wanting(70.0)));
  EXPECT_FALSE(SensorShifter::overlapCalibration(p2.left, p2.right, wanting(5000.0)));
  auto unconnected = std::make_shared<OrbivaneModule>(L"loose");
  result = SensorShifter::overlapCalibration(p2.left, unconnected, wanting(70.0));
  ASSERT_FALSE(result);
  EXPECT_THAT(result.error(), HasSubstr("Module loose has no Quarn Connection Info!"));
}

TEST(SensorShiftCalibrationTest, MovesTheWindowBySurfaceUnitsToTheNearestStep) {
  OverlapPair p = cameraPair("surface", 4);
  p.right->setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(Utils::Matrix4x4::identity()));
  p.right->setImage(Image::fromMat(cv::Mat(450, 400, CV_8UC3, cv::Scalar::all(0))));
  // 0.0575 of the surface is 23 px: the nearest step of 4 is 24.
  auto moved = SensorShifter::sensorshiftCalibration(p.right, 0.0575, -0.02);
  ASSERT_TRUE(moved) << moved.error();
  EXPECT_EQ(moved.value().x, 24);
  EXPECT_EQ(moved.value().y, -8);  // -9 px: nearest step -8
  EXPECT_EQ(windowsOf(p).second, 24);
  EXPECT_EQ(SensorShifter::lastChangedSensorInfo(p.right->name()).x, 24);
  // Beyond the limits: clamped to 60.
  moved = SensorShifter::sensorshiftCalibration(p.right, 1.0, 0.0);
  ASSERT_TRUE(moved);
  EXPECT_EQ(moved.value().x, 60);

  // Moved behind the store's back, then taken in by updateSettings.
  ASSERT_TRUE(Quarn::SimulatedCamera::open(p.address).value()->moveWindow("B", -40, 0));
  EXPECT_EQ(SensorShifter::lastChangedSensorInfo(p.right->name()).x, 60);
  EXPECT_TRUE(SensorShifter::updateSettings(p.right));
  EXPECT_EQ(SensorShifter::lastChangedSensorInfo(p.right->name()).x, -40);
  EXPECT_FALSE(SensorShifter::updateSettings(std::make_shared<OrbivaneModule>(L"loose")));

  EXPECT_FALSE(SensorShifter::sensorshiftCalibration(p.left, 0.1, 0.0));  // no geometry
}

TEST(OverlapImageTest, ShowsBothStripsAndTheOverlapLaidTogether) {
  OverlapPair p = cameraPair("picture", 2);
  ASSERT_TRUE(SensorShifter::overlapCalibration(p.left, p.right, wanting(80.0)));
  const auto shown = SensorShifter::overlapImg(p.left, p.right, 80.0);
  ASSERT_TRUE(shown);
  const cv::Mat picture = Image::toMat(shown);
  const auto m = SensorShifter::measureOverlap(p.left->image(), p.right->image());
  ASSERT_TRUE(m);
  EXPECT_NEAR(m.value().overlap, 80.0, 0.2);
  const int strip = static_cast<int>(std::ceil(m.value().overlap)) + 40;
  // Two strips of overlap + 40 px and a 6 px gap; a 50 px header and two rows of pictures.
  EXPECT_EQ(picture.cols, 2 * strip + 6);
  EXPECT_EQ(picture.rows, 50 + 2 * 450 + 6);
  // Laid together, the left picture (red) and the right one (cyan) agree.
  const int x = (picture.cols - (strip - 40)) / 2;
  std::vector<cv::Mat> channels;
  cv::split(picture(cv::Rect(x + 2, 50 + 450 + 6 + 10, 76, 430)), channels);
  cv::Mat misfit;
  cv::absdiff(channels[2], channels[1], misfit);
  EXPECT_LT(cv::mean(misfit)[0], 4.0);
  // Left strip: the left picture's last columns.
  const cv::Mat left = Image::toMat(p.left->image());
  cv::Mat greyStrip, greyExpected;
  cv::cvtColor(picture(cv::Rect(0, 50, 30, 450)), greyStrip, cv::COLOR_BGR2GRAY);
  cv::cvtColor(left(cv::Rect(400 - strip, 0, 30, 450)), greyExpected, cv::COLOR_BGR2GRAY);
  EXPECT_LT(cv::norm(greyStrip, greyExpected, cv::NORM_L1) / (30.0 * 450.0), 1.0);

  auto lonely = std::make_shared<OrbivaneModule>(L"lonely");
  EXPECT_EQ(SensorShifter::overlapImg(p.left, lonely), nullptr);
  lonely->setImage(Image::fromMat(Synthetic::loadSample("baboon.jpg")));
  EXPECT_EQ(SensorShifter::overlapImg(p.left, lonely), nullptr);
}

}  // namespace
