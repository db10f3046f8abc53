// Automatic clipping on small hand-made cameras whose coverage is known:
// configuration rules, both modes, the modules it leaves out, offsets, and
// the gaps of a camera with a known hole.
#include <array>
#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "camera/camera_coverage.h"
#include "orbivane/camera/orbivane.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/region_based_geometry.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/geometry_calibration/matrix_based/auto_clipping.h"
#include "orbivane/image/image_conversion.h"
#include "support/captured_log.h"
#include "support/clipping_cameras.h"
#include "synthetic/sample_data.h"

namespace {

using CameraDescription::Orbivane;
using CameraDescription::OrbivaneModule;
using ClippingCameras::cameraWithHole;
using ClippingCameras::quadMatrix;
using GeometryCalibration::MatrixBased::AutoClipping;

// The matrix that puts a module's unit square on the box x0..x1, y0..y1.
Utils::Matrix4x4 boxMatrix(float x0, float y0, float x1, float y1) {
  Utils::Matrix4x4 m;
  m.set(0, 0, x1 - x0);
  m.set(0, 3, x0);
  m.set(1, 1, y1 - y0);
  m.set(1, 3, y0);
  return m;
}

struct ModuleSpec {
  std::wstring name;
  Utils::Matrix4x4 matrix;
};

std::shared_ptr<Orbivane> cameraOf(const std::vector<ModuleSpec>& modules, Utils::Size panorama = {400, 200}) {
  auto camera = std::make_shared<Orbivane>();
  camera->setPanoramaSize(panorama);
  for (const ModuleSpec& entry : modules) {
    OrbivaneModule module(entry.name);
    module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(entry.matrix));
    camera->addModule(module);
  }
  return camera;
}

// Two modules side by side meeting at x = 0.5.
std::shared_ptr<Orbivane> halvesCamera() {
  return cameraOf({{L"left", boxMatrix(0, 0, 0.5f, 1)}, {L"right", boxMatrix(0.5f, 0, 1, 1)}});
}

// Runs value mode with a single value of 1.
bool runValueMode(AutoClipping& clipping, float weight = 1.0f, std::size_t iterations = 10000) {
  EXPECT_TRUE(clipping.config({1.0f}, 1, 1, weight, iterations));
  return clipping.process();
}

TEST(AutoClippingConfig, ValueModeNeedsMatchingCountsAndAnIterationLimit) {
  AutoClipping clipping(halvesCamera());
  EXPECT_FALSE(clipping.process()) << "nothing configured";
  EXPECT_FALSE(clipping.error().empty());

  EXPECT_FALSE(clipping.config({1, 2, 3}, 2, 2, 1.0f, 100));
  EXPECT_FALSE(clipping.process());
  EXPECT_FALSE(clipping.config({1, 2, 3, 4}, 2, 2, 1.0f, 0));
  EXPECT_FALSE(clipping.process());
  EXPECT_FALSE(clipping.config({1, 2}, 4294967295u, 2, 1.0f, 100)) << "a product that overflows 32 bits";

  EXPECT_TRUE(clipping.config({1, 2, 3, 4}, 2, 2, 1.0f, 100));
  EXPECT_TRUE(clipping.process());
  EXPECT_TRUE(clipping.isProcessed());
  // A failed config leaves no mode selected, even after a good one.
  EXPECT_FALSE(clipping.config({1, 2, 3}, 2, 2, 1.0f, 100));
  EXPECT_FALSE(clipping.process());
  EXPECT_FALSE(clipping.isProcessed());
  EXPECT_TRUE(clipping.offset().empty());
  EXPECT_TRUE(clipping.checkGap().empty());

  // The geometry config is always taken and replaces value mode.
  EXPECT_TRUE(clipping.config(false, false, 0.5f));
  EXPECT_TRUE(clipping.process());
}

TEST(AutoClippingConfig, ValuesGoRowByRow) {
  // A 3 x 2 map whose only positive value is row 0, column 2 (element 2):
  // the rectangle goes to the top right.
  AutoClipping clipping(halvesCamera());
  ASSERT_TRUE(clipping.config({-1, -1, 1, -1, -1, -1}, 3, 2, 1.0f, 10000));
  ASSERT_TRUE(clipping.process());
  const cv::Rect r = clipping.rectangle();
  EXPECT_GT(r.x, 200);
  EXPECT_LT(r.y + r.height, 100);
  EXPECT_GT(r.area(), 0);
}

TEST(AutoClippingConfig, BadCamerasAndValuesFailWithTheReason) {
  {
    AutoClipping clipping(nullptr);
    EXPECT_FALSE(runValueMode(clipping));
  }
  {
    AutoClipping clipping(std::make_shared<Orbivane>());
    EXPECT_FALSE(runValueMode(clipping));
    EXPECT_NE(clipping.error().find("no modules"), std::string::npos) << clipping.error();
    EXPECT_TRUE(clipping.config(false, false, 0.5f));
    EXPECT_FALSE(clipping.process());
  }
  {
    AutoClipping clipping(halvesCamera());
    EXPECT_TRUE(clipping.config({1, std::numeric_limits<float>::quiet_NaN()}, 2, 1, 1.0f, 100));
    EXPECT_FALSE(clipping.process());
    EXPECT_NE(clipping.error().find("NaN"), std::string::npos) << clipping.error();
    EXPECT_FALSE(runValueMode(clipping, std::numeric_limits<float>::quiet_NaN()));
    EXPECT_FALSE(runValueMode(clipping, -1.0f));
    EXPECT_FALSE(clipping.isProcessed());
    EXPECT_TRUE(clipping.inspectionPicture().empty());
  }
  {
    // An empty value map is accepted by config (0 values for 0 x 0) and
    // reported by the search.
    AutoClipping clipping(halvesCamera());
    EXPECT_TRUE(clipping.config({}, 0, 0, 1.0f, 100));
    testing::internal::CaptureStdout();
    EXPECT_FALSE(clipping.process());
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "AutoClipping::findMaxValueRect::Input Error: mat.empty() || minStep < 1 || startStep < minStep\n");
    EXPECT_FALSE(clipping.isProcessed());
  }
  {
    // Modules wholly outside the panorama cover nothing.
    AutoClipping clipping(cameraOf({{L"away", boxMatrix(2, 2, 3, 3)}}));
    EXPECT_FALSE(runValueMode(clipping));
    EXPECT_NE(clipping.error().find("do not cover"), std::string::npos) << clipping.error();
  }
}

TEST(AutoClippingValueMode, ModulesThatCannotBeUsedAreLeftOutWithALogLine) {
  Testing::CapturedLog log("AutoClipping");
  auto camera = cameraOf({{L"whole", boxMatrix(0, 0, 1, 1)},
                          {L"singular", Utils::Matrix4x4(std::array<float, 16>{})},
                          {L"nan", boxMatrix(0, 0, std::numeric_limits<float>::quiet_NaN(), 1)},
                          {L"horizon", quadMatrix({cv::Point2f(0, 0), cv::Point2f(1, 0), cv::Point2f(1, 1),
                                                   cv::Point2f(0, 1)})}});
  // Tilt the last module so that its far corners lie behind the horizon.
  Utils::Matrix4x4 tilted = boxMatrix(0, 0, 1, 1);
  tilted.set(3, 0, -2.0f);
  camera->modules()[3]->setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(tilted));
  // And one whose right edge lands almost on the horizon, far out.
  Utils::Matrix4x4 nearHorizon = boxMatrix(0, 0, 1, 1);
  nearHorizon.set(3, 0, -0.99999f);
  OrbivaneModule far(L"far");
  far.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(nearHorizon));
  camera->addModule(far);
  OrbivaneModule region(L"region");
  region.setGeometry(std::make_unique<OrbivaneGeometry::RegionBasedGeometry>());
  camera->addModule(region);
  camera->addModule(OrbivaneModule(L"bare"));

  AutoClipping clipping(camera);
  ASSERT_TRUE(runValueMode(clipping));
  EXPECT_EQ(clipping.rectangle(), cv::Rect(0, 0, 399, 199));
  const std::vector<std::string> expected = {
      "Module singular has a singular or non-finite matrix.. Skipping pmodule",
      "Module nan has a singular or non-finite matrix.. Skipping pmodule",
      "Module horizon does not project its picture onto the surface.. Skipping pmodule",
      "Module far does not project its picture onto the surface.. Skipping pmodule",
      "Module region has no Matrix Geometry.. Skipping pmodule",
      "Module bare has no Matrix Geometry.. Skipping pmodule"};
  EXPECT_EQ(clipping.skippedModules(), expected);
  for (const std::string& line : expected) EXPECT_NE(log.text().find(line), std::string::npos) << line;

  // Without the one good module nothing is left.
  camera->modules().erase(camera->modules().begin());
  EXPECT_FALSE(runValueMode(clipping));
  EXPECT_FALSE(clipping.isProcessed());
  EXPECT_NE(log.text().find("no module of the camera can be projected"), std::string::npos);
}

TEST(AutoClippingValueMode, FullyCoveredPanoramaKeepsEverythingButTheLastColumnAndRow) {
  AutoClipping clipping(halvesCamera());
  EXPECT_FALSE(clipping.isProcessed());
  EXPECT_TRUE(clipping.offset().empty());
  ASSERT_TRUE(runValueMode(clipping));
  EXPECT_TRUE(clipping.isProcessed());
  EXPECT_EQ(clipping.coverageSize(), cv::Size(400, 200));
  EXPECT_EQ(clipping.rectangle(), cv::Rect(0, 0, 399, 199));
  const std::vector<float> offset = clipping.offset();
  ASSERT_EQ(offset.size(), 4u);
  EXPECT_FLOAT_EQ(offset[0], 0.0f);
  EXPECT_FLOAT_EQ(offset[1], 0.0f);
  EXPECT_FLOAT_EQ(offset[2], 1.0f / 400);
  EXPECT_FLOAT_EQ(offset[3], 1.0f / 200);
  EXPECT_TRUE(clipping.checkGap().empty()) << "the seam at x = 0.5 leaves no hole";

  // The coverage is one module everywhere, seam included.
  const cv::Mat coverage = clipping.coverage();
  double low = 0, high = 0;
  cv::minMaxLoc(coverage(cv::Rect(1, 1, 398, 198)), &low, &high);
  EXPECT_NEAR(low, 1.0, 0.02);
  EXPECT_NEAR(high, 1.0, 0.02);
}

TEST(AutoClippingValueMode, UncoveredStripIsCutOff) {
  // Modules reach x = 0.8 only: the right 20 % is a hole worth -weight.
  AutoClipping clipping(cameraOf({{L"a", boxMatrix(0, 0, 0.4f, 1)}, {L"b", boxMatrix(0.4f, 0, 0.8f, 1)}}));
  ASSERT_TRUE(runValueMode(clipping));
  const std::vector<float> offset = clipping.offset();
  EXPECT_NEAR(offset[0], 0.0f, 1e-6);
  EXPECT_NEAR(offset[1], 0.0f, 1e-6);
  EXPECT_NEAR(offset[2], 0.2f, 1.0f / 400 + 1e-6);
  EXPECT_NEAR(offset[3], 1.0f / 200, 1e-6);
  EXPECT_TRUE(clipping.checkGap().empty());

  // An iteration limit too small to get there finds nothing.
  EXPECT_FALSE(runValueMode(clipping, 1.0f, 3));
  EXPECT_FALSE(clipping.isProcessed());
  EXPECT_TRUE(clipping.offset().empty());
  EXPECT_NE(clipping.error().find("iteration limit"), std::string::npos) << clipping.error();
}

TEST(AutoClippingValueMode, GroundMaskVetoesTheBottomHalf) {
  // One column of four values, top to bottom: sky worth 1, ground worth -1.
  // Stretched over 200 rows the values cross zero at row 99.5.
  AutoClipping clipping(halvesCamera());
  ASSERT_TRUE(clipping.config({1, 1, -1, -1}, 1, 4, 1.0f, 10000));
  ASSERT_TRUE(clipping.process());
  const std::vector<float> offset = clipping.offset();
  EXPECT_NEAR(offset[1], 0.0f, 1e-6);
  EXPECT_NEAR(offset[3], 0.5f, 2.0f / 200);
  EXPECT_NEAR(offset[0], 0.0f, 1e-6);
  EXPECT_NEAR(offset[2], 1.0f / 400, 1e-6);
}

TEST(AutoClippingValueMode, WeightTradesAHoleAtTheEdgeAgainstArea) {
  // The right module's top-left corner is pulled in to (0.56, 0): a wedge
  // between the two modules, 6 % of the width at the top, none at the bottom.
  const auto wedge = cameraOf({{L"left", boxMatrix(0, 0, 0.5f, 1)},
                               {L"right", quadMatrix({cv::Point2f(0.56f, 0), cv::Point2f(1, 0), cv::Point2f(1, 1),
                                                      cv::Point2f(0.5f, 1)})}});
  // A light weight keeps the whole panorama and reports the wedge...
  AutoClipping light(wedge);
  ASSERT_TRUE(runValueMode(light, 1.0f));
  EXPECT_EQ(light.rectangle(), cv::Rect(0, 0, 399, 199));
  ASSERT_EQ(light.checkGap().size(), 5u) << "one hole";
  EXPECT_NEAR(light.checkGap()[4], 0.03 * 400 * 200, 0.1 * 0.03 * 400 * 200);

  // ...a heavy one gives up the rows the wedge reaches into.
  AutoClipping heavy(wedge);
  ASSERT_TRUE(runValueMode(heavy, 100.0f));
  // Only the wedge's tip is left, where a row holds a couple of hole elements
  // against some 400 covered ones.
  ASSERT_EQ(heavy.checkGap().size(), 5u);
  EXPECT_LT(heavy.checkGap()[4], light.checkGap()[4] / 20);
  EXPECT_LT(heavy.rectangle().area(), light.rectangle().area());
  EXPECT_GT(heavy.rectangle().area(), 0.1 * 400 * 200);
}

TEST(AutoClippingValueMode, HoleAwayFromTheEdgesStaysInsideAndIsReported) {
  // The search moves edges by at most 16 elements at a time: a hole that no
  // such move reaches stays inside the rectangle whatever it costs, and
  // checkGap is how the host learns of it.
  AutoClipping heavy(cameraWithHole());
  ASSERT_TRUE(runValueMode(heavy, 100.0f));
  EXPECT_EQ(heavy.rectangle(), cv::Rect(0, 0, 399, 199));
  EXPECT_EQ(heavy.checkGap().size(), 5u);
}

TEST(AutoClippingValueMode, GapsAndOffsetsOfACameraWithAKnownHole) {
  AutoClipping clipping(cameraWithHole());
  ASSERT_TRUE(clipping.config(false, false, 0.5f));
  ASSERT_TRUE(clipping.process());
  // The hole is 2 % of the panorama and lies on no edge: leaving it out would
  // cost half the panorama, so the rectangle keeps everything.
  EXPECT_EQ(clipping.rectangle(), cv::Rect(0, 0, 399, 199));
  const std::vector<float> offset = clipping.offset();
  EXPECT_NEAR(offset[0], 0.0f, 1e-6);
  EXPECT_NEAR(offset[1], 0.0f, 1e-6);
  EXPECT_NEAR(offset[2], 1.0f / 400, 1e-6);
  EXPECT_NEAR(offset[3], 1.0f / 200, 1e-6);

  const std::vector<int> gaps = clipping.checkGap();
  ASSERT_EQ(gaps.size(), 5u) << "exactly one hole";
  // Its box starts at the corner where the four modules meet, (200, 100).
  EXPECT_NEAR(gaps[0], 200, 1);
  EXPECT_NEAR(gaps[1], 100, 1);
  // It reaches most of the way along both seams (its tips thin out below an element).
  EXPECT_GT(gaps[2], 100);
  EXPECT_LE(gaps[0] + gaps[2], 400);
  EXPECT_GT(gaps[3], 50);
  EXPECT_LE(gaps[1] + gaps[3], 200);
  // 2 % of 400 x 200 elements.
  EXPECT_NEAR(gaps[4], 1600, 0.2 * 1600);

  // The inspection picture: the rectangle in green, the hole in red.
  const cv::Mat picture = clipping.inspectionPicture();
  ASSERT_EQ(picture.size(), cv::Size(400, 200));
  ASSERT_EQ(picture.type(), CV_8UC3);
  EXPECT_EQ(picture.at<cv::Vec3b>(0, 50), cv::Vec3b(0, 255, 0));
  EXPECT_EQ(picture.at<cv::Vec3b>(100, 0), cv::Vec3b(0, 255, 0));
  const cv::Vec3b hole = picture.at<cv::Vec3b>(102, 203);
  EXPECT_GT(hole[2], 2 * hole[1]);
  const cv::Vec3b covered = picture.at<cv::Vec3b>(50, 100);
  EXPECT_EQ(covered[0], covered[2]) << "grey where covered";
  EXPECT_GT(covered[0], 60);
  EXPECT_STREQ(AutoClipping::inspectionPictureName_, "imgBackgrdRect");
}

TEST(AutoClippingGeometryMode, OverlapIsRequiredOnlyWhenAskedFor) {
  // Two modules overlapping on 0.4..0.6.
  const auto camera = cameraOf({{L"left", boxMatrix(0, 0, 0.6f, 1)}, {L"right", boxMatrix(0.4f, 0, 1, 1)}});
  AutoClipping clipping(camera);
  ASSERT_TRUE(clipping.config(false, false, 0.5f));
  ASSERT_TRUE(clipping.process());
  EXPECT_EQ(clipping.rectangle(), cv::Rect(0, 0, 399, 199));

  ASSERT_TRUE(clipping.config(true, false, 0.5f));
  ASSERT_TRUE(clipping.process());
  const std::vector<float> offset = clipping.offset();
  EXPECT_NEAR(offset[0], 0.4f, 1.5f / 400);
  EXPECT_NEAR(offset[2], 0.4f, 1.5f / 400);
  EXPECT_NEAR(offset[1], 0.0f, 1e-6);
  EXPECT_TRUE(clipping.checkGap().empty()) << "every element of the rectangle is seen twice";

  // Modules that only meet have no overlap at all.
  AutoClipping touching(halvesCamera());
  ASSERT_TRUE(touching.config(true, false, 0.5f));
  EXPECT_FALSE(touching.process());
  EXPECT_NE(touching.error().find("two modules"), std::string::npos) << touching.error();
}

TEST(AutoClippingGeometryMode, KeepAspectCutsTheRectangleToThePanoramasShape) {
  // One module on the left half of a 2:1 panorama.
  const auto camera = cameraOf({{L"half", boxMatrix(0, 0, 0.5f, 1)}});
  AutoClipping free(camera);
  ASSERT_TRUE(free.config(false, false, 0.5f));
  ASSERT_TRUE(free.process());
  EXPECT_NEAR(free.rectangle().width, 200, 1);
  EXPECT_EQ(free.rectangle().height, 199);

  AutoClipping kept(camera);
  ASSERT_TRUE(kept.config(false, true, 0.5f));
  ASSERT_TRUE(kept.process());
  const cv::Rect r = kept.rectangle();
  EXPECT_NEAR(double(r.width) / r.height, 2.0, 0.02);
  EXPECT_NEAR(r.width, free.rectangle().width, 1) << "as wide as the free rectangle";
  EXPECT_TRUE((r & free.rectangle()) == r) << "inside the free rectangle";
  EXPECT_TRUE(kept.checkGap().empty());
}

TEST(AutoClippingGeometryMode, ThresholdMustLieInZeroToOne) {
  AutoClipping clipping(halvesCamera());
  for (float threshold : {0.0f, -0.5f, 1.5f, std::numeric_limits<float>::quiet_NaN()}) {
    EXPECT_TRUE(clipping.config(false, false, threshold));
    EXPECT_FALSE(clipping.process()) << threshold;
    EXPECT_NE(clipping.error().find("threshold"), std::string::npos);
  }
  EXPECT_TRUE(clipping.config(false, false, 1.0f));
  EXPECT_TRUE(clipping.process());
}

TEST(AutoClippingGeometryMode, NoThresholdLetsAnUncoveredElementCount) {
  // One module on the left half: however small the threshold, the right
  // half, which no module covers, stays outside and no gap is hidden.
  const auto camera = cameraOf({{L"half", boxMatrix(0, 0, 0.5f, 1)}});
  for (float threshold : {0.5f, 1e-3f, 1e-9f}) {
    AutoClipping clipping(camera);
    ASSERT_TRUE(clipping.config(false, false, threshold));
    ASSERT_TRUE(clipping.process()) << threshold;
    EXPECT_NEAR(clipping.rectangle().width, 200, 1) << threshold;
    EXPECT_NEAR(clipping.offset()[2], 0.5f, 1.5f / 400) << threshold;
  }
}

TEST(AutoClippingGeometryMode, GeometryModeReportsTheKnownHole) {
  AutoClipping clipping(cameraWithHole());
  ASSERT_TRUE(clipping.config(false, false, 0.5f));
  ASSERT_TRUE(clipping.process());
  EXPECT_EQ(clipping.checkGap().size(), 5u);
}

TEST(AutoClippingGeometryMode, AMissingSeamCutsThePanoramaToItsLargerSide) {
  // A gap from x = 0.5 to 0.6 over the whole height: no rectangle that
  // spans it is well covered, so the larger side (the left half) is kept.
  const auto camera = cameraOf({{L"left", boxMatrix(0, 0, 0.5f, 1)}, {L"right", boxMatrix(0.6f, 0, 1, 1)}});
  AutoClipping clipping(camera);
  ASSERT_TRUE(clipping.config(false, false, 0.5f));
  ASSERT_TRUE(clipping.process());
  const cv::Rect r = clipping.rectangle();
  EXPECT_EQ(r.x, 0);
  EXPECT_EQ(r.y, 0);
  EXPECT_EQ(r.height, 199);
  EXPECT_NEAR(r.width, 200, 1);
  EXPECT_TRUE(clipping.checkGap().empty());
  EXPECT_NEAR(clipping.offset()[2], 0.5f, 1.5f / 400);
}

TEST(AutoClippingRaster, WithoutPanoramaSizeThePicturesGiveTheAspect) {
  const cv::Mat fruits = Synthetic::loadSample("fruits.jpg");
  auto camera = halvesCamera();
  camera->setPanoramaSize({});
  AutoClipping without(camera);
  ASSERT_TRUE(runValueMode(without));
  EXPECT_EQ(without.coverageSize(), cv::Size(1920, 1080)) << "no pictures: 16:9";

  // Two pictures side by side, each spanning half the width and all the height.
  for (const auto& module : camera->modules()) module->setImage(Image::fromMat(fruits));
  AutoClipping with(camera);
  ASSERT_TRUE(runValueMode(with));
  const int height = static_cast<int>(std::lround(1920.0 * fruits.rows / (2.0 * fruits.cols)));
  EXPECT_EQ(with.coverageSize(), cv::Size(1920, height));
  EXPECT_EQ(with.rectangle(), cv::Rect(0, 0, 1919, height - 1));

  // A panorama size, when set, is the raster; huge ones are rastered
  // smaller, keeping the aspect.
  namespace Coverage = OrbivaneGeometry::Coverage;
  std::vector<std::string> skipped;
  const auto footprints = CameraDescription::cameraFootprints(*camera, skipped);
  EXPECT_EQ(Coverage::rasterSize({640, 360}, footprints), cv::Size(640, 360));
  EXPECT_EQ(Coverage::rasterSize({20000, 5000}, footprints), cv::Size(8192, 2048));
  EXPECT_EQ(Coverage::rasterSize({3, 100000}, footprints), cv::Size(1, 8192));
}

}  // namespace
