// One module drawn alone: a large drawing is computed in stripes of rows on
// the machine's cores, and must be the drawing a row at a time would give
// (small tiles of it are drawn on the calling thread); the coverage alone is
// the drawing's coverage, without the colours.
#include "orbivane/rendering/module_drawing.h"

#include <cmath>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/shading/image_shading.h"
#include "orbivane/utils/uv_grid.h"
#include "synthetic/sample_data.h"

namespace {

// A turned, keystoned module with a bent UV grid and a lens shader, drawn
// over much of a 1400 x 1000 panorama (about 760,000 pixels).
CameraDescription::OrbivaneModule bentModule() {
  const cv::Mat picture = Synthetic::loadSample("baboon.jpg");
  const cv::Matx33d h(0.62, 0.08, 0.12, -0.05, 0.70, 0.14, 0.06, -0.04, 1.0);
  CameraDescription::OrbivaneModule module(L"bent");
  auto geometry =
      std::make_unique<OrbivaneGeometry::MatrixGeometry>(OrbivaneGeometry::matrixFromPlanarHomography(h));
  Utils::UVGrid grid(6, 5);
  for (int j = 0; j <= 5; ++j)
    for (int i = 0; i <= 6; ++i) {
      const float u = float(i) / 6, v = float(j) / 5;
      grid.setPoint(i, j, {u + 0.03f * std::sin(3.0f * v), v + 0.02f * std::cos(4.0f * u)});
    }
  geometry->setUVGrid(grid);
  module.setGeometry(std::move(geometry));
  module.setShaders({OrbivaneGeometry::clipMatrixShader(Utils::Matrix4x4::identity()),
                     OrbivaneGeometry::Shader(ImageSource::kLensDistortionShaderUid,
                                              {{"f_TCorrection_F", "0.200000"},
                                               {"f_TCorrection_H", "0.500000"},
                                               {"f_TCorrection_V", "0.500000"},
                                               {"i_ps_distortion_ext_pwp", "2"}})});
  module.setImage(Image::fromMat(picture));
  module.setExposureGain(1.2);
  return module;
}

double largestDifference(const cv::Mat& a, const cv::Mat& b) {
  return a.empty() && b.empty() ? 0.0 : cv::norm(a, b, cv::NORM_INF);
}

TEST(ModuleDrawing, ALargeDrawingIsTheDrawingOfItsTilesAndItsCoverageIsItsInside) {
  const CameraDescription::OrbivaneModule module = bentModule();
  const cv::Size panorama(1400, 1000);
  const auto whole = OrbivaneRendering::drawModule(module, panorama);
  ASSERT_TRUE(whole) << whole.error();
  const OrbivaneRendering::ModuleDrawing& w = whole.value();
  ASSERT_GT(w.box.area(), 2 * 262144);  // drawn in stripes
  ASSERT_GT(cv::countNonZero(w.inside), w.box.area() / 3);

  // Tiles of 200 x 150 pixels, each drawn on its own: every pixel reads the
  // picture where the whole drawing reads it (the tiles' frames differ from
  // the whole's in the last bits of the surface position only). A tile is
  // smaller than the picture, so its colours come from a reduced copy; its
  // maps stay in pixels of the picture itself.
  double worstMap = 0.0;
  int insideDiffers = 0;
  for (int y = w.box.y; y < w.box.br().y; y += 150)
    for (int x = w.box.x; x < w.box.br().x; x += 200) {
      const auto tile = OrbivaneRendering::drawModule(module, panorama, cv::Rect(x, y, 200, 150));
      if (!tile) continue;
      const OrbivaneRendering::ModuleDrawing& t = tile.value();
      const cv::Rect inWhole = t.box - w.box.tl();
      cv::Mat readBoth = t.inside & w.inside(inWhole);
      insideDiffers += cv::countNonZero(t.inside != w.inside(inWhole));
      cv::Mat dx = cv::abs(t.mapX - w.mapX(inWhole)), dy = cv::abs(t.mapY - w.mapY(inWhole));
      double mx = 0, my = 0;
      cv::minMaxLoc(dx, nullptr, &mx, nullptr, nullptr, readBoth);
      cv::minMaxLoc(dy, nullptr, &my, nullptr, nullptr, readBoth);
      worstMap = std::max({worstMap, mx, my});
    }
  EXPECT_LT(worstMap, 1e-3) << "picture pixels";
  // A pixel right at the picture's edge may fall either side of it.
  EXPECT_LT(insideDiffers, w.box.width + w.box.height);

  // The coverage alone: the same box, maps, inside and outline, no colours.
  const auto coverage = OrbivaneRendering::drawModuleCoverage(module, panorama);
  ASSERT_TRUE(coverage) << coverage.error();
  const OrbivaneRendering::ModuleDrawing& c = coverage.value();
  EXPECT_EQ(c.box, w.box);
  EXPECT_EQ(c.picture, w.picture);
  EXPECT_EQ(largestDifference(c.mapX, w.mapX), 0.0);
  EXPECT_EQ(largestDifference(c.mapY, w.mapY), 0.0);
  EXPECT_EQ(cv::countNonZero(c.inside != w.inside), 0);
  EXPECT_EQ(c.outline, w.outline);
  EXPECT_TRUE(c.colour.empty());
  // And it fails as the drawing fails.
  CameraDescription::OrbivaneModule bare(L"bare");
  bare.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>());
  const auto none = OrbivaneRendering::drawModuleCoverage(bare, panorama);
  ASSERT_FALSE(none);
  EXPECT_EQ(none.error(), "has no picture");
}

}  // namespace
