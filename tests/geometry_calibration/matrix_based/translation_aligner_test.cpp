// The translation aligner of neighbour stitching: the pyramid depth rule, the
// comparison rectangles, recovery of known sub-pixel offsets between pictures
// cut from real photographs, and what it does with bad input.
#include "geometry_calibration/matrix_based/translation_aligner.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "synthetic/fine_scene.h"
#include "synthetic/sample_data.h"

namespace {

using GeometryCalibration::MatrixBased::comparisonRectangle;
using GeometryCalibration::MatrixBased::pyramidDepth;
using GeometryCalibration::MatrixBased::TranslationAligner;

constexpr int kAlignerFine = Synthetic::kFineScale;

cv::Mat greyScene(const std::string& sample, cv::Size pictureArea) {
  cv::Mat grey;
  cv::cvtColor(Synthetic::loadSample(sample), grey, cv::COLOR_BGR2GRAY);
  return Synthetic::fineScene(grey, pictureArea);
}

cv::Mat cut(const cv::Mat& scene, int x, int y, cv::Size size, double gain, double offset, double noise, cv::RNG& rng) {
  return Synthetic::withGainAndNoise(Synthetic::cutFine(scene, {x, y}, size), gain, offset, noise, rng);
}

}  // namespace

TEST(TranslationAligner, PyramidDepthKeepsTheCoarsestLevelAtLeastFortyPixels) {
  EXPECT_EQ(pyramidDepth(5, cv::Size(640, 480)), 3);  // 480 / 8 = 60, / 16 = 30
  EXPECT_EQ(pyramidDepth(2, cv::Size(640, 480)), 2);  // asked for less than allowed
  EXPECT_EQ(pyramidDepth(4, cv::Size(80, 80)), 1);    // 80 pixels: exactly one level
  EXPECT_EQ(pyramidDepth(4, cv::Size(320, 79)), 0);   // smaller side 40..79: nothing to process
  EXPECT_EQ(pyramidDepth(4, cv::Size(40, 40)), 0);
  EXPECT_EQ(pyramidDepth(4, cv::Size(10, 10)), 0);
  EXPECT_EQ(pyramidDepth(0, cv::Size(640, 480)), 0);
  EXPECT_EQ(pyramidDepth(-3, cv::Size(640, 480)), 0);
  EXPECT_EQ(pyramidDepth(1000, cv::Size(1 << 20, 1 << 20)), 14);  // 2^20 / 2^14 = 64
}

TEST(TranslationAligner, ComparisonRectanglesFollowTheirModes) {
  const cv::Size size(320, 240);
  EXPECT_EQ(comparisonRectangle(0, 250, 3, size), cv::Rect(0, 0, 320, 240));
  // A horizontal neighbour: cols - x = 70 >= rows - y = 237.
  EXPECT_EQ(comparisonRectangle(1, 250, 3, size), cv::Rect(250, 3, 15, 240));  // 70 < 237: tall strip
  EXPECT_EQ(comparisonRectangle(2, 250, 3, size), cv::Rect(250, 3, 70, 240));
  // A vertical neighbour: cols - x = 318 >= rows - y = 40.
  EXPECT_EQ(comparisonRectangle(1, 2, 200, size), cv::Rect(2, 200, 320, 15));
  EXPECT_EQ(comparisonRectangle(2, 2, 200, size), cv::Rect(2, 200, 320, 40));
}

TEST(TranslationAligner, RecoversKnownSubPixelOffsetsBetweenRealPictures) {
  // Neighbours overlapping by about a quarter, with independent noise (sigma 2
  // grey levels) and a brightness change (gain 0.9, offset +10) on the
  // second; the start is up to 3 pixels off in both directions.
  const cv::Size size(240, 180);
  cv::RNG rng(20240611);
  std::vector<double> errors;
  for (const char* sample : {"baboon.jpg", "fruits.jpg", "building.jpg"}) {
    const cv::Mat scene = greyScene(sample, cv::Size(size.width * 2, size.height + 16));
    for (int k = 0; k < 3; ++k) {
      const int shiftX = rng.uniform(170 * kAlignerFine, 190 * kAlignerFine);
      const int shiftY = rng.uniform(-3 * kAlignerFine, 3 * kAlignerFine);
      const cv::Mat first = cut(scene, 0, 4 * kAlignerFine, size, 1.0, 0.0, 2.0, rng);
      const cv::Mat second = cut(scene, shiftX, 4 * kAlignerFine + shiftY, size, 0.9, 10.0, 2.0, rng);
      const cv::Point2d truth(double(shiftX) / kAlignerFine, double(shiftY) / kAlignerFine);
      const cv::Point2d start = truth + cv::Point2d(rng.uniform(-3.0, 3.0), rng.uniform(-3.0, 3.0));
      TranslationAligner aligner(4, 6, 1.0f);
      const auto result = aligner.align(first, second, start, 1.0, 1.0);
      EXPECT_EQ(result.depth, 2) << sample;  // 180 / 4 = 45
      EXPECT_GT(result.correlation, 0.95) << sample;
      EXPECT_FALSE(result.clamped);
      errors.push_back(cv::norm(result.translation - truth));
      EXPECT_LT(errors.back(), 0.05) << sample << " truth " << truth << " found " << result.translation;
    }
  }
  std::sort(errors.begin(), errors.end());
  EXPECT_LT(errors[errors.size() / 2], 0.03);
}

TEST(TranslationAligner, HonoursTheScaleRatioBetweenNeighbours) {
  // The second picture is reduced 10:1 instead of 8:1, so it covers 1.25 times
  // the width and height: first(t + 1.25 q) = second(q). The block centres
  // (x + 3.5 and x + 4.5 scene pixels) give t = (X2 - X1 + 1) / 8.
  const cv::Size size(240, 180);
  cv::RNG rng(7);
  const cv::Mat scene = greyScene("fruits.jpg", cv::Size(520, 260));
  const cv::Mat first = cut(scene, 0, 0, size, 1.0, 0.0, 1.0, rng);
  cv::Mat second;
  const int x2 = 173 * kAlignerFine + 3, y2 = 2 * kAlignerFine + 5;
  cv::resize(scene(cv::Rect(x2, y2, size.width * 10, size.height * 10)), second, size, 0, 0, cv::INTER_AREA);
  const cv::Point2d truth((x2 + 1) / 8.0, (y2 + 1) / 8.0);
  TranslationAligner aligner(4, 6, 1.0f);
  const auto result = aligner.align(first, second, truth + cv::Point2d(1.5, -1.0), 1.25, 1.25);
  EXPECT_LT(cv::norm(result.translation - truth), 0.05) << result.translation << " vs " << truth;
}

TEST(TranslationAligner, PrintsItsStartAndKeepsItWhenNothingCanBeAligned) {
  const cv::Point2d start(12.345, -3.0);
  cv::RNG rng(1);
  const cv::Mat textured = cut(greyScene("baboon.jpg", cv::Size(240, 180)), 0, 0, cv::Size(240, 180), 1, 0, 0, rng);
  TranslationAligner aligner(4, 6, 1.0f);

  testing::internal::CaptureStderr();
  const auto flat = aligner.align(cv::Mat(180, 240, CV_8UC1, cv::Scalar(128)), cv::Mat(180, 240, CV_8UC1, cv::Scalar(90)),
                                  start, 1.0, 1.0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Starting t = (12.35,-3.00)\n");
  EXPECT_EQ(flat.translation, start);  // no texture: no update

  const auto small = aligner.align(textured(cv::Rect(0, 0, 70, 70)).clone(), textured(cv::Rect(0, 0, 70, 70)).clone(),
                                   start, 1.0, 1.0);
  EXPECT_EQ(small.depth, 0);
  EXPECT_EQ(small.translation, start);

  const auto empty = aligner.align(cv::Mat(), textured, start, 1.0, 1.0);
  EXPECT_EQ(empty.translation, start);

  const double nan = std::numeric_limits<double>::quiet_NaN();
  const auto notFinite = aligner.align(textured, textured, cv::Point2d(nan, 0.0), 1.0, 1.0);
  EXPECT_TRUE(std::isnan(notFinite.translation.x));  // handed back untouched, never computed with
  EXPECT_EQ(notFinite.depth, 0);

  // A start with no overlap at all, and pictures that do not match: the
  // result stays finite and within the overlap of the start.
  const auto outside = aligner.align(textured, textured, cv::Point2d(500.0, 0.0), 1.0, 1.0);
  EXPECT_EQ(outside.translation, cv::Point2d(500.0, 0.0));
  cv::Mat noise(180, 240, CV_8UC1);
  rng.fill(noise, cv::RNG::UNIFORM, 0, 256);
  const cv::Point2d near(200.0, 5.0);
  const auto unrelated = aligner.align(textured, noise, near, 1.0, 1.0);
  EXPECT_TRUE(std::isfinite(unrelated.translation.x) && std::isfinite(unrelated.translation.y));
  EXPECT_LE(std::fabs(unrelated.translation.x - near.x), 40.0);
  EXPECT_LE(std::fabs(unrelated.translation.y - near.y), 175.0);
}
