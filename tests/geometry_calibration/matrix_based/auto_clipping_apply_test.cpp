// Clipping without holes (the exact largest hole-free rectangle) and
// clipping applied to a camera: the clipped camera draws the crop of the
// panorama it came from, with every pixel covered.
#include <array>
#include <cmath>
#include <memory>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/auto_clipping_coverage.h"
#include "orbivane/camera/orbivane.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/geometry_calibration/matrix_based/auto_clipping.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/rendering/panorama_renderer.h"
#include "support/clipping_cameras.h"
#include "synthetic/sample_data.h"

namespace {

using CameraDescription::Orbivane;
using CameraDescription::OrbivaneModule;
using ClippingCameras::cameraWithHole;
using ClippingCameras::quadMatrix;
using GeometryCalibration::MatrixBased::AutoClipping;
namespace Coverage = GeometryCalibration::MatrixBased::AutoClippingCoverage;

// The largest all-set rectangle by trying every one (small masks only).
long bruteForceLargestArea(const cv::Mat& mask) {
  cv::Mat integral;
  cv::integral(mask / 255, integral, CV_32S);
  long best = 0;
  for (int y0 = 0; y0 < mask.rows; ++y0)
    for (int y1 = y0 + 1; y1 <= mask.rows; ++y1)
      for (int x0 = 0; x0 < mask.cols; ++x0)
        for (int x1 = x0 + 1; x1 <= mask.cols; ++x1) {
          const long area = long(x1 - x0) * (y1 - y0);
          const int set = integral.at<int>(y1, x1) - integral.at<int>(y0, x1) - integral.at<int>(y1, x0) +
                          integral.at<int>(y0, x0);
          if (set == area && area > best) best = area;
        }
  return best;
}

TEST(AutoClippingNoHoles, LargestHoleFreeRectangleIsTheLargest) {
  cv::RNG rng(7);
  for (int trial = 0; trial < 40; ++trial) {
    const cv::Size size(rng.uniform(1, 24), rng.uniform(1, 18));
    cv::Mat noise(size, CV_32F);
    rng.fill(noise, cv::RNG::UNIFORM, 0.0, 1.0);
    const double holes = rng.uniform(0.0, 0.4);
    cv::Mat mask = noise >= holes;
    const cv::Rect r = Coverage::largestHoleFreeRect(mask);
    EXPECT_EQ(long(r.area()), bruteForceLargestArea(mask)) << "trial " << trial;
    if (!r.empty()) {
      EXPECT_EQ(cv::countNonZero(mask(r)), r.area()) << "trial " << trial;
    }
  }
  // Nothing set: nothing found. All set: the whole mask.
  EXPECT_TRUE(Coverage::largestHoleFreeRect(cv::Mat::zeros(5, 7, CV_8U)).empty());
  EXPECT_EQ(Coverage::largestHoleFreeRect(cv::Mat(5, 7, CV_8U, cv::Scalar(255))), cv::Rect(0, 0, 7, 5));
  // Equal areas: the topmost, then the leftmost.
  cv::Mat two = cv::Mat::zeros(6, 6, CV_8U);
  two(cv::Rect(3, 0, 2, 2)).setTo(255);
  two(cv::Rect(0, 3, 2, 2)).setTo(255);
  EXPECT_EQ(Coverage::largestHoleFreeRect(two), cv::Rect(3, 0, 2, 2));
}

TEST(AutoClippingNoHoles, TheKnownHoleIsCutOutInsteadOfKept) {
  AutoClipping traded(cameraWithHole());
  ASSERT_TRUE(traded.config(false, false, 0.5f));
  ASSERT_TRUE(traded.process());
  ASSERT_EQ(traded.checkGap().size(), 5u) << "the default search keeps the small hole for a larger rectangle";

  AutoClipping clean(cameraWithHole());
  ASSERT_TRUE(clean.config(false, false, 0.5f));
  clean.setNoHoles(true);
  EXPECT_TRUE(clean.noHoles());
  ASSERT_TRUE(clean.process());
  EXPECT_TRUE(clean.checkGap().empty());
  // The hole starts at the panorama's middle row and column, so the top half
  // (or the left half) is all that is left whole: 400 x 100 or 200 x 200
  // elements.
  cv::Mat well;
  Coverage::wellCoveredMask(clean.coverage(), 0.5f, well);
  EXPECT_EQ(cv::countNonZero(well(clean.rectangle())), clean.rectangle().area());
  EXPECT_NEAR(clean.rectangle().area(), 400 * 100, 400 * 2);
  EXPECT_LT(clean.rectangle().area(), traded.rectangle().area());

  // With the panorama's aspect kept, the rectangle shrinks but stays hole-free.
  AutoClipping aspect(cameraWithHole());
  ASSERT_TRUE(aspect.config(false, true, 0.5f));
  aspect.setNoHoles(true);
  ASSERT_TRUE(aspect.process());
  EXPECT_TRUE(aspect.checkGap().empty());
  EXPECT_NEAR(double(aspect.rectangle().width) / aspect.rectangle().height, 2.0, 0.05);
}

// Three modules cut from a photograph, turned and keystoned a little, so the
// panorama has ragged edges to clip.
struct PhotoRig {
  Orbivane camera;
  cv::Size panorama{900, 300};
};

PhotoRig photoRig() {
  const cv::Mat photo = Synthetic::loadSample("building.jpg");
  PhotoRig rig;
  rig.camera.setPanoramaSize({rig.panorama.width, rig.panorama.height});
  cv::Mat scene;
  cv::resize(photo, scene, rig.panorama, 0, 0, cv::INTER_AREA);
  const std::vector<std::array<cv::Point2f, 4>> quads = {
      {cv::Point2f(0.01f, 0.03f), cv::Point2f(0.38f, 0.0f), cv::Point2f(0.39f, 0.97f), cv::Point2f(0.0f, 0.99f)},
      {cv::Point2f(0.32f, 0.02f), cv::Point2f(0.68f, 0.04f), cv::Point2f(0.69f, 0.98f), cv::Point2f(0.31f, 0.96f)},
      {cv::Point2f(0.62f, 0.01f), cv::Point2f(0.99f, 0.04f), cv::Point2f(0.98f, 1.0f), cv::Point2f(0.61f, 0.97f)}};
  const wchar_t* names[] = {L"L", L"C", L"R"};
  const cv::Size picture(320, 300);
  for (std::size_t i = 0; i < quads.size(); ++i) {
    const Utils::Matrix4x4 matrix = quadMatrix(quads[i]);
    // The picture shows the scene where the matrix puts it: picture pixel ->
    // texture -> surface -> scene pixel.
    const cv::Matx33d toScene = cv::Matx33d(rig.panorama.width, 0, 0, 0, rig.panorama.height, 0, 0, 0, 1) *
                                OrbivaneGeometry::planarHomography(matrix) *
                                OrbivaneGeometry::pixelsToTexture(picture.width, picture.height);
    cv::Mat view;
    cv::warpPerspective(scene, view, cv::Mat(toScene), picture, cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                        cv::BORDER_REFLECT);
    OrbivaneModule module(names[i]);
    module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(matrix));
    module.setImage(Image::fromMat(view));
    rig.camera.addModule(module);
  }
  return rig;
}

TEST(AutoClippingApply, TheClippedCameraDrawsTheCropOfItsPanorama) {
  const PhotoRig rig = photoRig();
  AutoClipping clipping(std::make_shared<Orbivane>(rig.camera));
  ASSERT_TRUE(clipping.config(false, false, 1.0f));
  clipping.setNoHoles(true);
  ASSERT_TRUE(clipping.process());
  const cv::Rect rect = clipping.rectangle();
  auto clipped = clipping.clippedCamera();
  ASSERT_TRUE(clipped) << clipped.error();
  EXPECT_EQ(clipped.value().panoramaSize(), (Utils::Size{rect.width, rect.height}));

  OrbivaneRendering::PanoramaOptions options;
  options.feather = 0.0;
  const auto whole = OrbivaneRendering::renderPanorama(rig.camera, options);
  const auto cut = OrbivaneRendering::renderPanorama(clipped.value(), options);
  ASSERT_TRUE(whole && cut);
  ASSERT_EQ(cut.value().picture.size(), rect.size());
  // Every pixel of the clipped panorama is covered by a module.
  EXPECT_EQ(cv::countNonZero(cut.value().coverage), rect.area());

  // Clipped pixel (X, Y) shows the centre of coverage element (x + X, y + Y),
  // half a pixel right and down of the whole panorama's pixel there.
  cv::Mat expected;
  const cv::Mat shift = (cv::Mat_<double>(2, 3) << 1, 0, -(rect.x + 0.5), 0, 1, -(rect.y + 0.5));
  cv::warpAffine(whole.value().picture, expected, shift, rect.size(), cv::INTER_LINEAR);
  cv::Mat difference;
  cv::absdiff(cut.value().picture, expected, difference);
  // Inside (away from the seams, where the hard edges of the two renderings
  // fall half a pixel apart) the two agree to a few grey levels.
  const cv::Rect inner(4, 4, rect.width - 8, rect.height - 8);
  EXPECT_LT(cv::mean(difference(inner))[0], 6.0);

  // The modules keep their places relative to each other: the crop is the
  // same affine map for all of them.
  const auto crop = AutoClipping::clippingMatrix(clipping.viewerOffset());
  ASSERT_TRUE(crop);
  for (const auto& module : rig.camera.modules()) {
    const auto before = OrbivaneGeometry::moduleSurfaceQuad(module->matrixGeometry()->matrix());
    const auto after = OrbivaneGeometry::moduleSurfaceQuad(
        clipped.value().findModule(module->name())->matrixGeometry()->matrix());
    ASSERT_TRUE(before && after);
    const auto offset = clipping.viewerOffset();
    for (int k = 0; k < 4; ++k) {
      const double x = (before->corners[k].x - offset[0]) / (1.0 - offset[0] - offset[2]);
      const double y = (before->corners[k].y - offset[1]) / (1.0 - offset[1] - offset[3]);
      EXPECT_NEAR(after->corners[k].x, x, 1e-5);
      EXPECT_NEAR(after->corners[k].y, y, 1e-5);
    }
  }
}

TEST(AutoClippingApply, NothingToApplyIsRefused) {
  const PhotoRig rig = photoRig();
  AutoClipping clipping(std::make_shared<Orbivane>(rig.camera));
  EXPECT_FALSE(clipping.clippedCamera()) << "before any process()";
  for (const std::vector<float>& bad : std::vector<std::vector<float>>{
           {}, {0.1f, 0.1f, 0.1f}, {0.5f, 0.f, 0.5f, 0.f}, {0.f, 0.6f, 0.f, 0.6f}, {NAN, 0.f, 0.f, 0.f}}) {
    EXPECT_FALSE(AutoClipping::clippingMatrix(bad));
    EXPECT_THROW(AutoClipping::applyClipping(rig.camera, bad, {900, 300}), std::invalid_argument);
  }
  EXPECT_THROW(AutoClipping::applyClipping(rig.camera, {0.1f, 0.1f, 0.1f, 0.1f}, {}), std::invalid_argument);
  // The identity crop changes nothing.
  const Orbivane same = AutoClipping::applyClipping(rig.camera, {0.f, 0.f, 0.f, 0.f}, {900, 300});
  for (const auto& module : rig.camera.modules()) {
    EXPECT_EQ(same.findModule(module->name())->matrixGeometry()->matrix(), module->matrixGeometry()->matrix());
  }
}

}  // namespace

namespace {

// Clipping the clipped camera again keeps it as it is: same panorama size,
// same matrices, every time (the search leaves the map's last column and row
// out, which must not cost the panorama a pixel per run).
TEST(AutoClippingApply, AClippedCameraClipsToItself) {
  const PhotoRig rig = photoRig();
  Orbivane camera = rig.camera;
  std::vector<Utils::Size> sizes;
  for (int run = 0; run < 3; ++run) {
    AutoClipping clipping(std::make_shared<Orbivane>(camera));
    ASSERT_TRUE(clipping.config(false, false, 1.0f));
    clipping.setNoHoles(true);
    ASSERT_TRUE(clipping.process());
    auto clipped = clipping.clippedCamera();
    ASSERT_TRUE(clipped) << clipped.error();
    if (run > 0) {
      EXPECT_EQ(clipped.value().panoramaSize(), camera.panoramaSize()) << "run " << run;
      for (const auto& module : camera.modules()) {
        const auto again = clipped.value().findModule(module->name())->matrixGeometry()->matrix();
        for (int r = 0; r < 4; ++r)
          for (int c = 0; c < 4; ++c)
            EXPECT_NEAR(again.get(r, c), module->matrixGeometry()->matrix().get(r, c), 1e-6) << "run " << run;
      }
    }
    camera = clipped.value();
  }
}

}  // namespace
