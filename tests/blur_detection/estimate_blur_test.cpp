// The blur score: equal to the plain OpenCV sequence on real and random
// pictures at every turn, with the row bands and the gap of the turning rule.
#include <random>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "blur_detection/laplacian_statistics.h"
#include "orbivane/blur_detection/estimate_blur.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/image/yuv_image.h"
#include "synthetic/reference_pipelines.h"
#include "synthetic/sample_data.h"

namespace {

using BlurDetection::estimateBlur;

std::shared_ptr<Image::UniversalImageInterface> picture(const cv::Mat& bgr) { return Image::fromMat(bgr); }

TEST(EstimateBlur, EqualsTheOpenCvSequenceOnRealPicturesAtEveryTurn) {
  for (const char* name : {"baboon.jpg", "fruits.jpg", "building.jpg", "home.jpg", "graf1.png", "smarties.png"}) {
    const cv::Mat bgr = Synthetic::loadSample(name);
    const auto image = picture(bgr);
    for (int rotation : {0, 90, 180, 270}) {
      const int expected = Synthetic::referenceBlur(bgr, rotation);
      EXPECT_EQ(estimateBlur(image, rotation), expected) << name << " at " << rotation;
    }
    // Other ways of writing the same turns.
    EXPECT_EQ(estimateBlur(image, -270), Synthetic::referenceBlur(bgr, 90)) << name;
    EXPECT_EQ(estimateBlur(image, -90), Synthetic::referenceBlur(bgr, 270)) << name;
    EXPECT_EQ(estimateBlur(image, -180), Synthetic::referenceBlur(bgr, 180)) << name;
    EXPECT_EQ(estimateBlur(image, 30), Synthetic::referenceBlur(bgr, 0)) << name;
    EXPECT_EQ(estimateBlur(image, 400), Synthetic::referenceBlur(bgr, 0)) << name;
  }
}

TEST(EstimateBlur, EqualsTheOpenCvSequenceOnRandomPicturesOfAwkwardSizes) {
  std::mt19937 random(7);
  const cv::Size sizes[] = {{1, 1}, {1, 7}, {9, 1}, {2, 2}, {3, 10}, {10, 3}, {17, 100}, {100, 17}, {257, 129}};
  for (const cv::Size& size : sizes) {
    cv::Mat bgr(size, CV_8UC3);
    cv::randu(bgr, 0, 256);
    for (int rotation : {0, 90, 180, 270}) {
      EXPECT_EQ(estimateBlur(picture(bgr), rotation), Synthetic::referenceBlur(bgr, rotation))
          << size << " at " << rotation;
    }
  }
}

TEST(EstimateBlur, SharpPicturesScoreHigherThanBlurredOnes) {
  const cv::Mat sharp = Synthetic::loadSample("building.jpg");
  cv::Mat soft, softer;
  cv::GaussianBlur(sharp, soft, cv::Size(0, 0), 1.5);
  cv::GaussianBlur(sharp, softer, cv::Size(0, 0), 4.0);
  const int a = estimateBlur(picture(sharp), 0);
  const int b = estimateBlur(picture(soft), 0);
  const int c = estimateBlur(picture(softer), 0);
  EXPECT_GT(a, 2 * b);
  EXPECT_GT(b, 2 * c);
  EXPECT_EQ(estimateBlur(picture(cv::Mat(120, 160, CV_8UC3, cv::Scalar(90, 90, 90))), 0), 0);
}

TEST(EstimateBlur, EveryPictureKindGivesTheSameScore) {
  const cv::Mat bgr = Synthetic::loadSample("fruits.jpg");
  const auto reference = Image::fromMat(bgr);
  const int expected = estimateBlur(reference, 0);
  for (int mapping : {Image::kMappingBGRA, Image::kMappingRGB, Image::kMappingRGBA, Image::kMappingARGB}) {
    EXPECT_EQ(estimateBlur(reference->converted(mapping), 0), expected) << "mapping " << mapping;
  }
  // A YUV picture is converted back to BGR first; 4:4:4 keeps it close.
  const auto yuv = Image::YUVImage::fromRGB(*reference, Image::kChroma444);
  EXPECT_EQ(estimateBlur(yuv, 0), Synthetic::referenceBlur(Image::toMat(*yuv), 0));
}

TEST(EstimateBlur, BadInputThrowsLikeTheOpenCvCalls) {
  EXPECT_THROW(estimateBlur(nullptr, 0), cv::Exception);
  EXPECT_THROW(estimateBlur(std::make_shared<Image::RGBImage>(0, 0, Image::kMappingBGR), 0), cv::Exception);
  // Exactly between two quarter turns, or near none of the turning rule's
  // anchors, the picture is left unturned (empty).
  const auto image = picture(Synthetic::loadSample("baboon.jpg"));
  for (int rotation : {45, 135, 225, 315, -45, 450, 720, -360, -330}) {
    EXPECT_THROW(estimateBlur(image, rotation), cv::Exception) << rotation;
  }
}

TEST(BlurBands, RowsLeftOutFollowTheSinglePrecisionBands) {
  std::vector<std::uint8_t> rows, cols;
  BlurDetection::bandMasks(100, 5, Image::Turn::kKeep, rows, cols);
  std::vector<int> out;
  for (int i = 0; i < 100; ++i) {
    if (!rows[static_cast<std::size_t>(i)]) out.push_back(i);
  }
  EXPECT_EQ(out, (std::vector<int>{50, 67}));
  EXPECT_TRUE(std::all_of(cols.begin(), cols.end(), [](std::uint8_t k) { return k == 1; }));

  BlurDetection::bandMasks(10, 5, Image::Turn::kKeep, rows, cols);
  out.clear();
  for (int i = 0; i < 10; ++i) {
    if (!rows[static_cast<std::size_t>(i)]) out.push_back(i);
  }
  EXPECT_EQ(out, (std::vector<int>{5}));

  // A quarter turn turns the bands into columns of the untouched picture:
  // clockwise, turned row r is column r; counter-clockwise it is column cols-1-r.
  BlurDetection::bandMasks(5, 100, Image::Turn::kQuarterClockwise, rows, cols);
  EXPECT_EQ(cols[50], 0);
  EXPECT_EQ(cols[67], 0);
  EXPECT_EQ(cols[49], 1);
  BlurDetection::bandMasks(5, 100, Image::Turn::kQuarterCounterClockwise, rows, cols);
  EXPECT_EQ(cols[99 - 50], 0);
  EXPECT_EQ(cols[99 - 67], 0);
  EXPECT_EQ(cols[50], 1);
  BlurDetection::bandMasks(100, 5, Image::Turn::kHalf, rows, cols);
  EXPECT_EQ(rows[99 - 50], 0);
  EXPECT_EQ(rows[99 - 67], 0);
  EXPECT_EQ(rows[67], 1);
}

TEST(BlurBands, TheFigureIsTruncatedNotRounded) {
  // One row of grey values 0, 0, 3: Laplacians (reflect-101 border) are
  // computed by hand as 2*(up-left+up-right+down-left+down-right) - 8*centre.
  // With a single row, up and down are the row itself.
  cv::Mat bgr(1, 3, CV_8UC3);
  const std::uint8_t g[3] = {0, 0, 3};
  for (int x = 0; x < 3; ++x) bgr.at<cv::Vec3b>(0, x) = cv::Vec3b(g[x], g[x], g[x]);
  // x=0: neighbours x=1 (reflected) both sides: 2*(0+0+0+0) - 0 = 0
  // x=1: 2*(0+3+0+3) - 0 = 12
  // x=2: neighbours x=1 both sides: 2*(0+0+0+0) - 8*3 = -24
  // mean -4, variance (16 + 256 + 400) / 3 = 224.
  EXPECT_EQ(estimateBlur(picture(bgr), 0), Synthetic::referenceBlur(bgr, 0));
  // Values 0, 0, 1 give Laplacians 0, 4, -8: mean -4/3, variance 24.888...: 24.
  for (int x = 0; x < 3; ++x) bgr.at<cv::Vec3b>(0, x) = cv::Vec3b(x == 2, x == 2, x == 2);
  EXPECT_EQ(estimateBlur(picture(bgr), 0), 24);
  EXPECT_EQ(Synthetic::referenceBlur(bgr, 0), 24);
}

}  // namespace
