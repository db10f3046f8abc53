// The stitched panorama: modules cut from a real photograph must put the
// photograph back together; a turned module must land where OpenCV's own
// perspective warp puts it; the lens shader must draw as the shading renderer
// draws; overlaps blend; bad modules are skipped with a reason.
#include "orbivane/rendering/panorama_renderer.h"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/shading/image_shading.h"
#include "support/matchers.h"
#include "synthetic/sample_data.h"

namespace {

using Testing::PictureNear;

CameraDescription::OrbivaneModule moduleOf(const std::wstring& name, const cv::Mat& picture, const cv::Matx33d& h) {
  CameraDescription::OrbivaneModule module(name);
  module.setGeometry(
      std::make_unique<OrbivaneGeometry::MatrixGeometry>(OrbivaneGeometry::matrixFromPlanarHomography(h)));
  if (!picture.empty()) module.setImage(Image::fromMat(picture));
  return module;
}

// Texture -> surface of a crop [x0, x0 + width) x [0, rows) of a panorama of `size`.
cv::Matx33d cropHomography(int x0, int width, cv::Size size) {
  return {double(width) / size.width, 0, double(x0) / size.width, 0, 1, 0, 0, 0, 1};
}

struct TwoModules {
  cv::Mat scene;
  CameraDescription::Orbivane camera;
  int overlapBegin = 212, overlapEnd = 300;  // panorama columns both modules show
};

TwoModules twoModules(double rightGain = 1.0) {
  TwoModules t;
  t.scene = Synthetic::loadSample("fruits.jpg");
  const cv::Size size = t.scene.size();
  const int width = 300;
  cv::Mat right = t.scene(cv::Rect(t.overlapBegin, 0, width, size.height)).clone();
  right.convertTo(right, -1, rightGain);
  t.camera.addModule(moduleOf(L"left", t.scene(cv::Rect(0, 0, width, size.height)).clone(),
                              cropHomography(0, width, size)));
  t.camera.addModule(moduleOf(L"right", right, cropHomography(t.overlapBegin, width, size)));
  t.camera.setPanoramaSize(Utils::Size{size.width, size.height});
  return t;
}

OrbivaneRendering::Panorama render(const CameraDescription::Orbivane& camera, OrbivaneRendering::PanoramaOptions options = {}) {
  auto result = OrbivaneRendering::renderPanorama(camera, options);
  EXPECT_TRUE(result) << (result ? "" : result.error());
  return result ? result.value() : OrbivaneRendering::Panorama{};
}

TEST(PanoramaRenderer, ModulesCutFromAPhotographPutItBackTogether) {
  const TwoModules t = twoModules();
  const OrbivaneRendering::Panorama p = render(t.camera);
  ASSERT_EQ(p.drawn.size(), 2u);
  EXPECT_TRUE(p.skipped.empty());
  // The camera's panorama size is the default size.
  EXPECT_EQ(p.picture.size(), t.scene.size());
  EXPECT_THAT(p.picture, PictureNear(t.scene, 1));
  // Coverage: two modules over the overlap, one elsewhere.
  EXPECT_EQ(p.coverage.at<std::uint8_t>(100, 250), 2);
  EXPECT_EQ(p.coverage.at<std::uint8_t>(100, 100), 1);
  EXPECT_EQ(p.coverage.at<std::uint8_t>(100, 400), 1);
}

TEST(PanoramaRenderer, TurnedModuleLandsWhereOpenCVsPerspectiveWarpPutsIt) {
  const cv::Mat picture = Synthetic::loadSample("building.jpg");
  const cv::Size panorama(1000, 700);
  // Texture -> surface: scaled into the panorama, turned by 7 degrees, with a keystone.
  const double a = 7.0 * CV_PI / 180.0;
  const cv::Matx33d h = cv::Matx33d(0.7 * std::cos(a), -0.7 * std::sin(a), 0.2, 0.7 * std::sin(a), 0.7 * std::cos(a),
                                    0.1, 0.08, 0.0, 1.0);
  CameraDescription::Orbivane camera;
  camera.addModule(moduleOf(L"turned", picture, h));
  OrbivaneRendering::PanoramaOptions options;
  options.size = Utils::Size{panorama.width, panorama.height};
  options.feather = 0.0;
  const OrbivaneRendering::Panorama p = render(camera, options);

  const cv::Matx33d pixelsToPanorama = cv::Matx33d(panorama.width, 0, 0, 0, panorama.height, 0, 0, 0, 1) * h *
                                       OrbivaneGeometry::pixelsToTexture(picture.cols, picture.rows);
  cv::Mat expected;
  cv::warpPerspective(picture, expected, cv::Mat(pixelsToPanorama), panorama, cv::INTER_LINEAR,
                      cv::BORDER_CONSTANT);
  // Compare away from the module's outline, where one pixel of coverage decides.
  cv::Mat inside;
  cv::warpPerspective(cv::Mat(picture.size(), CV_8UC1, cv::Scalar(255)), inside, cv::Mat(pixelsToPanorama), panorama,
                      cv::INTER_NEAREST);
  cv::erode(inside, inside, cv::Mat(), cv::Point(-1, -1), 2);
  ASSERT_GT(cv::countNonZero(inside), 200000);
  cv::Mat difference;
  cv::absdiff(p.picture, expected, difference);
  cv::cvtColor(difference, difference, cv::COLOR_BGR2GRAY);
  EXPECT_LT(cv::mean(difference, inside)[0], 0.6);
  double worst = 0;
  cv::minMaxLoc(difference, nullptr, &worst, nullptr, nullptr, inside);
  EXPECT_LE(worst, 8.0);
  // Outside the module the panorama is black.
  cv::Mat outside;
  cv::dilate(inside, outside, cv::Mat(), cv::Point(-1, -1), 6);
  cv::Mat grey;
  cv::cvtColor(p.picture, grey, cv::COLOR_BGR2GRAY);
  EXPECT_EQ(cv::countNonZero(grey & ~outside), 0);
}

TEST(PanoramaRenderer, LensShaderDrawsAsTheShadingRendererDraws) {
  const cv::Mat picture = Synthetic::loadSample("baboon.jpg");
  const OrbivaneGeometry::Shader lens(ImageSource::kLensDistortionShaderUid,
                                      {{"f_TCorrection_F", "0.300000"},
                                       {"f_TCorrection_H", "0.450000"},
                                       {"f_TCorrection_V", "0.550000"},
                                       {"f_ps_distortion_ext_xshift", "0.050000"},
                                       {"i_ps_distortion_ext_pwp", "2"}});
  CameraDescription::Orbivane camera;
  auto module = moduleOf(L"lens", picture, cv::Matx33d::eye());
  module.setShaders({OrbivaneGeometry::clipMatrixShader(Utils::Matrix4x4::identity()), lens});
  camera.addModule(module);
  OrbivaneRendering::PanoramaOptions options;
  options.size = Utils::Size{picture.cols, picture.rows};
  options.feather = 0.0;
  const OrbivaneRendering::Panorama p = render(camera, options);

  ImageSource::ImageShading shading;
  shading.SetShader({lens});
  const cv::Mat expected = Image::toMat(*shading.Apply(Image::fromMat(picture)));
  // Where the lens reads inside the picture both draw the same, up to the
  // level or two by which the renderer moves a channel so that its grey is
  // the picture's grey interpolated; the renderer also blends the half pixel
  // beyond the picture's edge with black, which the panorama leaves to the
  // next module.
  cv::Mat drawn;
  cv::cvtColor(p.picture, drawn, cv::COLOR_BGR2GRAY);
  drawn = drawn > 0;
  cv::erode(drawn, drawn, cv::Mat());
  ASSERT_GT(cv::countNonZero(drawn), picture.total() / 2);
  cv::Mat difference;
  cv::absdiff(p.picture, expected, difference);
  cv::Mat differenceGrey;
  cv::cvtColor(difference, differenceGrey, cv::COLOR_BGR2GRAY);
  double worstInside = 0;
  cv::minMaxLoc(differenceGrey, nullptr, &worstInside, nullptr, nullptr, drawn);
  EXPECT_LE(worstInside, 2.0);
  EXPECT_LT(cv::mean(differenceGrey, drawn)[0], 0.5);
  // And the lens really bends the picture.
  cv::absdiff(p.picture, picture, difference);
  EXPECT_GT(cv::mean(difference)[0], 10.0);
}

TEST(PanoramaRenderer, OverlapBlendsFromOneModuleToTheOther) {
  const TwoModules t = twoModules(0.5);  // the right module sees everything half as bright
  const OrbivaneRendering::Panorama p = render(t.camera);
  auto ratio = [&](int column) {
    cv::Mat a, b;
    t.scene.col(column).convertTo(a, CV_32F);
    p.picture.col(column).convertTo(b, CV_32F);
    return cv::sum(b)[0] / cv::sum(a)[0];
  };
  EXPECT_NEAR(ratio(100), 1.0, 0.01);
  EXPECT_NEAR(ratio(400), 0.5, 0.01);
  // Across the overlap the brightness falls steadily from the left module's to the right one's.
  double previous = ratio(t.overlapBegin);
  EXPECT_GT(previous, 0.9);
  for (int x = t.overlapBegin + 8; x < t.overlapEnd; x += 8) {
    const double now = ratio(x);
    EXPECT_LE(now, previous + 0.01) << "column " << x;
    previous = now;
  }
  EXPECT_LT(ratio(t.overlapEnd - 1), 0.6);
  EXPECT_NEAR(ratio((t.overlapBegin + t.overlapEnd) / 2), 0.75, 0.05);
}

TEST(PanoramaRenderer, OverlayDrawsTheSeamInsideTheOverlap) {
  const TwoModules t = twoModules();
  OrbivaneRendering::PanoramaOptions options;
  const OrbivaneRendering::Panorama plain = render(t.camera, options);
  options.overlay = true;
  const OrbivaneRendering::Panorama drawn = render(t.camera, options);
  cv::Mat white;
  cv::inRange(drawn.picture, cv::Scalar(255, 255, 255), cv::Scalar(255, 255, 255), white);
  cv::Mat wasWhite;
  cv::inRange(plain.picture, cv::Scalar(255, 255, 255), cv::Scalar(255, 255, 255), wasWhite);
  white &= ~wasWhite;
  // The seam runs from top to bottom within the overlap, and nowhere else.
  const int inOverlap = cv::countNonZero(white.colRange(t.overlapBegin, t.overlapEnd));
  EXPECT_GE(inOverlap, t.scene.rows - 40);  // a name label may hide part of it
  EXPECT_EQ(cv::countNonZero(white) - inOverlap, 0);
  // The outlines change the picture along the modules' edges.
  EXPECT_FALSE(cv::countNonZero(cv::Mat(drawn.picture != plain.picture).reshape(1)) == 0);
}

TEST(PanoramaRenderer, ModulesThatCannotBeDrawnAreSkippedWithAReason) {
  TwoModules t = twoModules();
  CameraDescription::Orbivane& camera = t.camera;
  camera.addModule(moduleOf(L"blind", cv::Mat(), cv::Matx33d::eye()));
  const double nan = std::numeric_limits<double>::quiet_NaN();
  camera.addModule(moduleOf(L"broken", t.scene, cv::Matx33d(nan, 0, 0, 0, 1, 0, 0, 0, 1)));
  camera.addModule(moduleOf(L"away", t.scene, cv::Matx33d(1, 0, 5, 0, 1, 5, 0, 0, 1)));
  CameraDescription::OrbivaneModule bare(L"bare");
  bare.setImage(Image::fromMat(t.scene));
  camera.addModule(bare);
  auto bad = moduleOf(L"badShader", t.scene, cv::Matx33d::eye());
  bad.setShaders({OrbivaneGeometry::Shader(OrbivaneGeometry::kClipMatrixShaderUid,
                                           {{"i_clipMatrix_enabled", "1"}, {"f_clipMatrix_m00", "abc"}})});
  camera.addModule(bad);

  const OrbivaneRendering::Panorama p = render(camera);
  EXPECT_EQ(p.drawn.size(), 2u);
  ASSERT_EQ(p.skipped.size(), 5u);
  EXPECT_NE(p.skipped[0].find("blind has no picture"), std::string::npos) << p.skipped[0];
  EXPECT_NE(p.skipped[1].find("broken"), std::string::npos) << p.skipped[1];
  EXPECT_NE(p.skipped[2].find("away lies outside the panorama"), std::string::npos) << p.skipped[2];
  EXPECT_NE(p.skipped[3].find("bare has no matrix geometry"), std::string::npos) << p.skipped[3];
  EXPECT_NE(p.skipped[4].find("badShader"), std::string::npos) << p.skipped[4];
  // The good modules are drawn as before.
  EXPECT_THAT(p.picture, PictureNear(t.scene, 1));
}

TEST(PanoramaRenderer, OptionsOutOfRangeAreRefused) {
  const TwoModules t = twoModules();
  OrbivaneRendering::PanoramaOptions options;
  options.feather = 0.7;
  auto result = OrbivaneRendering::renderPanorama(t.camera, options);
  ASSERT_FALSE(result);
  EXPECT_NE(result.error().find("feather"), std::string::npos);
  options.feather = std::numeric_limits<double>::quiet_NaN();
  EXPECT_FALSE(OrbivaneRendering::renderPanorama(t.camera, options));
  options.feather = 0.1;
  options.size = Utils::Size{20000, 100};
  result = OrbivaneRendering::renderPanorama(t.camera, options);
  ASSERT_FALSE(result);
  EXPECT_NE(result.error().find("20000x100"), std::string::npos);
  // An empty camera draws a black panorama of the default size and says nothing was drawn.
  const OrbivaneRendering::Panorama empty = render(CameraDescription::Orbivane());
  EXPECT_TRUE(empty.drawn.empty());
  EXPECT_EQ(empty.picture.cols, 1920);
  EXPECT_EQ(cv::countNonZero(empty.coverage), 0);
}

}  // namespace
