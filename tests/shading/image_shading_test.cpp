// The image-shading renderer against hand-computed warps on real pictures.
#include "orbivane/shading/image_shading.h"

#include <cmath>
#include <cstdlib>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"
#include "shading/distortion_model.h"
#include "shading/image_shading_access.h"
#include "shading/shader_renderer_family.h"
#include "shading/shader_renderer_sampling.h"
#include "support/matchers.h"
#include "synthetic/sample_data.h"

namespace {

using ImageSource::ImageShading;
using OrbivaneGeometry::Shader;

std::shared_ptr<Image::UniversalImageInterface> picture(const char* name, cv::Size size) {
  cv::Mat m;
  cv::resize(Synthetic::loadSample(name), m, size, 0, 0, cv::INTER_AREA);
  return Image::fromMat(m);
}

Shader lensOf(std::map<std::string, std::string> values) { return Shader(ImageSource::kLensDistortionShaderUid, values); }

cv::Mat render(ImageShading& shading, const std::shared_ptr<Image::UniversalImageInterface>& image,
               Utils::Optional<Utils::Size> size = std::nullopt) {
  return Image::toMat(shading.Apply(image, size));
}

double meanDifference(const cv::Mat& a, const cv::Mat& b) {
  cv::Mat d;
  cv::absdiff(a, b, d);
  return cv::mean(d.reshape(1))[0];
}

TEST(ImageShading, IdentityChainAndRegularGridLeaveThePictureUnchanged) {
  const auto image = picture("fruits.jpg", cv::Size(320, 240));
  ImageShading shading;
  shading.SetShader({OrbivaneGeometry::clipMatrixShader(Utils::Matrix4x4()), lensOf({})});
  shading.SetUVGrid(Utils::UVGrid(4, 3));
  EXPECT_THAT(render(shading, image), Testing::PictureNear(Image::toMat(image), 0));
  // A translated and scaled module only moves its footprint: the framed rendering is the same.
  Utils::Matrix4x4 placed;
  placed.set(0, 0, 0.25f);
  placed.set(1, 1, 0.5f);
  placed.set(0, 3, 0.6f);
  placed.set(1, 3, 0.2f);
  shading.SetShader({OrbivaneGeometry::clipMatrixShader(placed)});
  EXPECT_THAT(render(shading, image), Testing::PictureNear(Image::toMat(image), 1));
}

TEST(ImageShading, PerspectiveClipMatrixIsTheHomographyOfItsParameters) {
  const auto image = picture("building.jpg", cv::Size(320, 240));
  const cv::Matx33d h(0.8, 0.15, 0.1, -0.05, 0.9, 0.05, 0.2, 0.1, 1.0);
  const Utils::Matrix4x4 matrix = OrbivaneGeometry::matrixFromPlanarHomography(h);
  ImageShading shading;
  shading.SetShader({OrbivaneGeometry::clipMatrixShader(matrix)});
  const cv::Size out(300, 200);
  const cv::Mat ours = render(shading, image, Utils::Size{out.width, out.height});

  // By hand: output pixel -> footprint point -> texture (inverse homography) -> picture pixel.
  const auto quad = OrbivaneGeometry::moduleSurfaceQuad(matrix);
  ASSERT_TRUE(quad);
  float left = 1e9f, top = 1e9f, right = -1e9f, bottom = -1e9f;
  for (const auto& c : quad->corners) {
    left = std::min(left, c.x), right = std::max(right, c.x), top = std::min(top, c.y), bottom = std::max(bottom, c.y);
  }
  const cv::Matx33d frame((right - left) / out.width, 0, left, 0, (bottom - top) / out.height, top, 0, 0, 1);
  const cv::Matx33d toPicture = OrbivaneGeometry::textureToPixels(320, 240) * h.inv() * frame;
  cv::Mat expected;
  cv::warpPerspective(Image::toMat(image), expected, cv::Mat(toPicture), out, cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                      cv::BORDER_CONSTANT);
  int compared = 0, worst = 0;
  double total = 0;
  for (int y = 0; y < out.height; ++y) {
    for (int x = 0; x < out.width; ++x) {
      const cv::Vec3d p = toPicture * cv::Vec3d(x, y, 1);
      const double px = p[0] / p[2], py = p[1] / p[2];
      if (px < 1 || py < 1 || px > 318 || py > 238) continue;  // away from the picture's edge
      ++compared;
      for (int k = 0; k < 3; ++k) {
        const int d = std::abs(int(ours.at<cv::Vec3b>(y, x)[k]) - int(expected.at<cv::Vec3b>(y, x)[k]));
        worst = std::max(worst, d);
        total += d;
      }
    }
  }
  EXPECT_GT(compared, out.area() / 2);
  // Both sample at 1/32 pixel; at the sharpest edges that is a few levels.
  EXPECT_LE(worst, 4);
  EXPECT_LT(total / (3.0 * compared), 0.2);
  // The footprint's corners outside the module are black.
  EXPECT_EQ(ours.at<cv::Vec3b>(out.height - 1, 0), cv::Vec3b(0, 0, 0));
}

TEST(ImageShading, DisplacedGridPointMovesOnlyTheFourCellsAroundIt) {
  const auto image = picture("baboon.jpg", cv::Size(320, 240));
  ImageShading shading;
  Utils::UVGrid grid(4, 4);
  shading.SetUVGrid(grid);
  const cv::Mat regular = render(shading, image);
  grid.setPoint(2, 2, {0.56f, 0.53f});
  shading.SetUVGrid(grid);
  const cv::Mat moved = render(shading, image);
  const cv::Rect cells(80, 60, 160, 120);  // cells (1..2, 1..2)
  cv::Mat outside = cv::Mat::ones(regular.size(), CV_8U);
  outside(cells).setTo(0);
  cv::Mat d;
  cv::absdiff(regular, moved, d);
  double worstOutside = 0;
  for (int y = 0; y < d.rows; ++y) {
    for (int x = 0; x < d.cols; ++x) {
      if (outside.at<std::uint8_t>(y, x)) {
        const cv::Vec3b v = d.at<cv::Vec3b>(y, x);
        worstOutside = std::max({worstOutside, double(v[0]), double(v[1]), double(v[2])});
      }
    }
  }
  EXPECT_EQ(worstOutside, 0.0);
  EXPECT_GT(meanDifference(regular(cells), moved(cells)), 5.0);
  // The grid point draws the texture coordinate it names: picture pixel (179.2, 127.2).
  cv::Mat sample;
  cv::getRectSubPix(Image::toMat(image), cv::Size(1, 1), cv::Point2f(0.56f * 320, 0.53f * 240), sample);
  EXPECT_THAT(moved(cv::Rect(160, 120, 1, 1)), Testing::PictureNear(sample, 3));
}

TEST(ImageShading, LensDistortionFollowsItsFormulaAndEveryParameterShows) {
  const auto image = picture("fruits.jpg", cv::Size(320, 240));
  const std::map<std::string, std::string> base{{"f_TCorrection_F", "0.3"},
                                                {"f_TCorrection_H", "0.45"},
                                                {"f_TCorrection_V", "0.55"},
                                                {"f_ps_distortion_ext_xshift", "0.05"},
                                                {"f_ps_distortion_ext_yshift", "-0.05"},
                                                {"i_ps_distortion_ext_pwp", "2"},
                                                {"i_ps_distortion_ext_method", "0"}};
  ImageShading shading;
  shading.SetShader({lensOf(base)});
  const cv::Mat ours = render(shading, image);
  // The formula written out independently: c, d, q, k and the source point.
  cv::Mat mapX(240, 320, CV_32F), mapY(240, 320, CV_32F);
  for (int y = 0; y < 240; ++y) {
    for (int x = 0; x < 320; ++x) {
      const double cx = 0.55, cy = 0.45, dx = 2 * (x / 320.0 - cx), dy = 2 * (y / 240.0 - cy);
      const double k = 1 + 0.3 * (dx * dx + dy * dy) / 2;
      mapX.at<float>(y, x) = float((cx + 0.95 * dx * k / 2) * 320);
      mapY.at<float>(y, x) = float((cy + 1.05 * dy * k / 2) * 240);
    }
  }
  cv::Mat expected;
  cv::remap(Image::toMat(image), expected, mapX, mapY, cv::INTER_LINEAR, cv::BORDER_CONSTANT);
  EXPECT_LT(meanDifference(ours, expected), 0.5);

  for (const auto& change : std::map<std::string, std::string>{{"f_TCorrection_F", "0.35"},
                                                               {"f_TCorrection_H", "0.55"},
                                                               {"f_TCorrection_V", "0.6"},
                                                               {"f_ps_distortion_ext_xshift", "0.1"},
                                                               {"f_ps_distortion_ext_yshift", "0.0"},
                                                               {"i_ps_distortion_ext_pwp", "4"},
                                                               {"i_ps_distortion_ext_method", "1"}}) {
    auto changed = base;
    changed[change.first] = change.second;
    shading.SetShader({lensOf(changed)});
    EXPECT_GT(meanDifference(render(shading, image), ours), 2.0) << change.first;
  }
  auto broken = base;
  broken["f_TCorrection_F"] = "nan";
  EXPECT_THROW(shading.SetShader({lensOf(broken)}), std::invalid_argument);
}

// The grey rendering of `shading` at `size` by the renderer's current sampler.
struct GreyRendering {
  cv::Mat grey;  // size.width columns
  std::vector<int> histogram;
};
GreyRendering renderGreyWith(ImageShading& shading, const std::shared_ptr<Image::UniversalImageInterface>& image,
                             cv::Size size) {
  cv::Mat padded;
  int histogram[256];
  ImageSource::ImageShadingAccess::renderer(shading).renderGrey(image, size, padded, histogram);
  return {padded(cv::Rect(0, 0, size.width, size.height)).clone(), std::vector<int>(histogram, histogram + 256)};
}

std::vector<int> histogramOf(const cv::Mat& grey) {
  std::vector<int> counts(256, 0);
  for (int y = 0; y < grey.rows; ++y)
    for (int x = 0; x < grey.cols; ++x) ++counts[grey.at<std::uint8_t>(y, x)];
  return counts;
}

// Chains that bring every part of the sampling rule into play: the grid's
// weakest and strongest distortions shifted to each side (so every edge of
// the picture, with its black surround, is in the rendering), the division
// method and odd powers, a perspective footprint whose rows only partly show
// the module, and a UV grid.
std::vector<std::list<Shader>> testedChains() {
  const cv::Matx33d perspective(0.8, 0.15, 0.1, -0.05, 0.9, 0.05, 0.2, 0.1, 1.0);
  std::vector<std::list<Shader>> chains;
  for (const char* x : {"-0.3", "0.3"})
    for (const char* y : {"-0.3", "0.3"})
      chains.push_back({lensOf({{"f_TCorrection_F", "0.75"}, {"f_TCorrection_H", "0.75"}, {"f_TCorrection_V", "0.75"},
                              {"f_ps_distortion_ext_xshift", x}, {"f_ps_distortion_ext_yshift", y}})});
  chains.push_back({lensOf({{"f_TCorrection_F", "0.05"}, {"f_TCorrection_H", "0.05"}, {"f_TCorrection_V", "0.05"},
                          {"f_ps_distortion_ext_xshift", "-0.3"}, {"f_ps_distortion_ext_yshift", "0.25"}})});
  chains.push_back({lensOf({{"f_TCorrection_F", "0.1"}, {"f_TCorrection_H", "0.05"}, {"f_TCorrection_V", "0.3"},
                          {"f_ps_distortion_ext_xshift", "-0.1"}})});
  chains.push_back({OrbivaneGeometry::clipMatrixShader(OrbivaneGeometry::matrixFromPlanarHomography(perspective)),
                    lensOf({{"f_TCorrection_F", "0.5"}, {"i_ps_distortion_ext_pwp", "5"},
                          {"i_ps_distortion_ext_method", "1"}, {"f_ps_distortion_ext_yshift", "0.2"}})});
  chains.push_back({lensOf({{"f_TCorrection_F", "0.4"}, {"f_TCorrection_H", "0.3"}, {"i_ps_distortion_ext_pwp", "3"}})});
  return chains;
}

// The search's grey rendering is exactly Apply's colour rendering converted
// to grey by OpenCV, with every sampler, at sizes with partial blocks of 16
// and at reductions of the picture (factors 1, 2 and 4); the histogram is the
// grey picture's.
TEST(ImageShading, GreyRenderingIsExactlyTheColourRenderingInGrey) {
  const auto image = picture("home.jpg", cv::Size(640, 480));
  const int level = ImageSource::ShaderRenderer::samplerLevel();
  const int best = ImageSource::ShaderRenderer::bestSamplerLevel();
  const auto chains = testedChains();
  int blackSides = 0;
  for (std::size_t i = 0; i < chains.size(); ++i) {
    for (const cv::Size size : {cv::Size(160, 120), cv::Size(203, 117), cv::Size(320, 240), cv::Size(640, 480)}) {
      ImageShading shading;
      shading.SetShader(chains[i]);
      if (i == 5) {
        Utils::UVGrid grid(4, 3);
        grid.setPoint(2, 1, {0.55f, 0.3f});
        grid.setPoint(1, 2, {0.2f, 0.7f});
        shading.SetUVGrid(grid);
      }
      cv::Mat expected;
      cv::cvtColor(render(shading, image, Utils::Size{size.width, size.height}), expected, cv::COLOR_BGR2GRAY);
      for (int sampler = 0; sampler <= best; ++sampler) {
        ImageSource::ShaderRenderer::setSamplerLevel(sampler);
        const GreyRendering grey = renderGreyWith(shading, image, size);
        EXPECT_EQ(cv::countNonZero(grey.grey != expected), 0) << "chain " << i << " at " << size << " sampler " << sampler;
        EXPECT_EQ(grey.histogram, histogramOf(expected)) << "chain " << i << " sampler " << sampler;
      }
      ImageSource::ShaderRenderer::setSamplerLevel(level);
      // The renderings are real pictures, not black.
      EXPECT_GT(cv::countNonZero(expected), size.area() / 4) << "chain " << i;
      if (i < 4 && size == cv::Size(160, 120)) {
        // The strongest distortions show the picture's edges: black beyond both of them.
        const int x = chains[i].front().parameter("f_ps_distortion_ext_xshift")->at(0) == '-' ? size.width - 1 : 0;
        const int y = chains[i].front().parameter("f_ps_distortion_ext_yshift")->at(0) == '-' ? size.height - 1 : 0;
        blackSides += expected.at<std::uint8_t>(size.height / 2, x) == 0 && expected.at<std::uint8_t>(y, size.width / 2) == 0;
      }
    }
  }
  EXPECT_EQ(blackSides, 4);
}

// Two members of a family rendered together are the bytes of two renderings
// apart, with every sampler.
TEST(ImageShading, FamilyMembersRenderedTogetherAreRenderedAsAlone) {
  const auto image = picture("baboon.jpg", cv::Size(640, 480));
  const int level = ImageSource::ShaderRenderer::samplerLevel();
  for (int sampler = 0; sampler <= ImageSource::ShaderRenderer::bestSamplerLevel(); ++sampler) {
    ImageSource::ShaderRenderer::setSamplerLevel(sampler);
    ImageShading shading;
    shading.SetShader({lensOf({{"f_TCorrection_F", "0.6"}, {"f_ps_distortion_ext_xshift", "0.15"}})});
    auto& renderer = ImageSource::ImageShadingAccess::renderer(shading);
    const cv::Size size(203, 150);
    ImageSource::GreyFamily family;
    family.prepare(renderer.source(image, size), renderer.coordinates(size), renderer.distortion());
    cv::Mat first, second, alone;
    family.render(0.25f, 0.15f, first, 0.7f, second);
    for (const auto& [vertical, together] : {std::make_pair(0.15f, &first), std::make_pair(0.7f, &second)}) {
      family.render(0.25f, vertical, alone);
      EXPECT_EQ(cv::countNonZero(alone != *together), 0) << "sampler " << sampler << " V " << vertical;
      EXPECT_GT(cv::countNonZero(alone), size.area() / 3);
    }
    EXPECT_GT(cv::countNonZero(first != second), size.area() / 4);  // V shows
  }
  ImageSource::ShaderRenderer::setSamplerLevel(level);
}

// Apply's colours are OpenCV's bilinear remap at the sampling rule's 1/32-pixel
// positions (fixed-point maps), each channel within two levels (the moves that
// give the interpolated grey), most of them unchanged.
TEST(ImageShading, ColourRenderingIsTheBilinearRemapUpToTheGreyMatch) {
  const auto image = picture("baboon.jpg", cv::Size(320, 240));
  const auto chains = testedChains();
  ImageShading shading;
  shading.SetShader(chains[7]);
  const cv::Mat ours = render(shading, image);
  auto& renderer = ImageSource::ImageShadingAccess::renderer(shading);
  const auto coordinates = renderer.coordinates(cv::Size(320, 240));
  const ImageSource::LensWarp w = ImageSource::makeLensWarp(renderer.distortion(), 320, 240, 1, 320, 240);
  // Integer maps: padded position >> 5 less the border pixel, and the 1/32 fractions.
  cv::Mat whole(240, 320, CV_16SC2), fraction(240, 320, CV_16UC1);
  for (int y = 0; y < 240; ++y) {
    for (int x = 0; x < 320; ++x) {
      const std::size_t k = std::size_t(y) * std::size_t(coordinates->stride) + std::size_t(x);
      float ex = 0, ey = 0;
      ImageSource::radialTerm(w, coordinates->u2[k], coordinates->v2[k], ex, ey);
      const int rx = ImageSource::fixedPosition(ex, w.kx, w.x0, w.hiX);
      const int ry = ImageSource::fixedPosition(ey, w.ky, w.y0, w.hiY);
      whole.at<cv::Vec2s>(y, x) = cv::Vec2s(short((rx >> 5) - 1), short((ry >> 5) - 1));
      fraction.at<std::uint16_t>(y, x) = std::uint16_t((ry & 31) * 32 + (rx & 31));
    }
  }
  cv::Mat remapped;
  cv::remap(Image::toMat(image), remapped, whole, fraction, cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar::all(0));
  cv::Mat difference;
  cv::absdiff(ours, remapped, difference);
  double worst = 0;
  cv::minMaxLoc(difference.reshape(1), nullptr, &worst);
  EXPECT_LE(worst, 2.0);
  EXPECT_LT(cv::countNonZero(difference.reshape(1)), 0.1 * 3 * 320 * 240);
  EXPECT_GT(cv::countNonZero(difference.reshape(1)), 0);  // the grey match does move some channels
  EXPECT_GT(meanDifference(ours, cv::Mat::zeros(ours.size(), ours.type())), 40.0);
}

// The grey rule is OpenCV's conversion for every colour, and the grey match
// reaches every grey from any colour, moving green first.
TEST(ImageShading, GreyOfAColourIsOpenCvsAndEveryGreyCanBeMatched) {
  cv::Mat colours(4096, 4096, CV_8UC3);
  for (int i = 0; i < (1 << 24); ++i) colours.at<cv::Vec3b>(i >> 12, i & 4095) = cv::Vec3b(i & 255, (i >> 8) & 255, i >> 16);
  cv::Mat grey;
  cv::cvtColor(colours, grey, cv::COLOR_BGR2GRAY);
  int wrong = 0;
  for (int i = 0; i < (1 << 24); ++i) wrong += grey.at<std::uint8_t>(i >> 12, i & 4095) != ImageSource::greyOf(i & 255, (i >> 8) & 255, i >> 16);
  EXPECT_EQ(wrong, 0);
  int unmatched = 0, farMoves = 0;
  for (int b = 0; b < 256; b += 15)
    for (int g = 0; g < 256; g += 15)
      for (int r = 0; r < 256; r += 15)
        for (int target = 0; target < 256; ++target) {
          int nb = b, ng = g, nr = r;
          ImageSource::matchGrey(nb, ng, nr, target);
          unmatched += ImageSource::greyOf(nb, ng, nr) != target;
          // One level of grey apart needs at most two levels of green (away from green's own limits).
          if (std::abs(ImageSource::greyOf(b, g, r) - target) <= 1 && g > 2 && g < 253)
            farMoves += std::abs(ng - g) > 2 || nr != r || nb != b;
        }
  EXPECT_EQ(unmatched, 0);
  EXPECT_EQ(farMoves, 0);
}

TEST(ImageShading, SharedPreparationRendersLikeAnOwnOne) {
  const auto image = picture("fruits.jpg", cv::Size(640, 480));
  const cv::Size size(160, 120);
  const std::list<Shader> chain{lensOf({{"f_TCorrection_F", "0.35"}, {"f_ps_distortion_ext_xshift", "0.1"}})};
  ImageShading first, second, own;
  first.SetShader(chain);
  renderGreyWith(first, image, size);  // prepares picture and coordinates
  second.SetShader(chain);
  ImageSource::ImageShadingAccess::renderer(second).shareCache(ImageSource::ImageShadingAccess::renderer(first));
  own.SetShader(chain);
  EXPECT_EQ(cv::countNonZero(renderGreyWith(second, image, size).grey != renderGreyWith(own, image, size).grey), 0);

  // Another clip matrix: the shared coordinates must not be used.
  Utils::Matrix4x4 placed;
  placed.set(0, 0, 0.5f);
  placed.set(0, 1, 0.2f);
  const std::list<Shader> sheared{OrbivaneGeometry::clipMatrixShader(placed), chain.front()};
  second.SetShader(sheared);
  own.SetShader(sheared);
  const GreyRendering shearedShared = renderGreyWith(second, image, size);
  EXPECT_EQ(cv::countNonZero(shearedShared.grey != renderGreyWith(own, image, size).grey), 0);
  ImageShading late;
  late.SetShader(sheared);
  ImageSource::ImageShadingAccess::renderer(late).shareCache(ImageSource::ImageShadingAccess::renderer(first));
  EXPECT_EQ(cv::countNonZero(renderGreyWith(late, image, size).grey != shearedShared.grey), 0);
  EXPECT_GT(cv::countNonZero(shearedShared.grey == 0), size.area() / 10);  // the sheared footprint's black corners
}

TEST(ImageShading, SurfaceSizeAndMisuse) {
  const auto image = picture("baboon.jpg", cv::Size(200, 100));
  ImageShading shading;
  EXPECT_THROW(shading.Apply(Utils::Size{10, 10}), std::logic_error);
  EXPECT_THROW(shading.Apply(nullptr), std::invalid_argument);
  shading.SetSurface(image);
  const auto surfaceSized = shading.Apply(picture("fruits.jpg", cv::Size(64, 48)));
  EXPECT_EQ(surfaceSized->width(), 200);
  EXPECT_EQ(surfaceSized->height(), 100);
  // Apply(size) renders the surface picture itself.
  const auto halved = shading.Apply(Utils::Size{100, 50});
  ImageShading other;
  EXPECT_THAT(Image::toMat(halved), Testing::PictureNear(render(other, image, Utils::Size{100, 50}), 0));
  EXPECT_EQ(halved->width(), 100);
  EXPECT_TRUE(shading.Apply(image, Utils::Size{0, 10})->empty());
  // A singular clip matrix places nothing: black, not a crash.
  Utils::Matrix4x4 singular;
  singular.set(0, 0, 0.0f);
  shading.SetShader({OrbivaneGeometry::clipMatrixShader(singular)});
  EXPECT_EQ(cv::countNonZero(Image::toMat(shading.Apply(image)).reshape(1)), 0);
}

}  // namespace
