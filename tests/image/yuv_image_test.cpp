// YUVImage: plane sizes, the colour transform and round trips through RGB on
// real pictures.
#include "orbivane/image/yuv_image.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "orbivane/image/image_conversion.h"
#include "support/matchers.h"
#include "synthetic/sample_data.h"

namespace {

cv::Mat plane(const Image::YUVImage& yuv, int p) {
  return cv::Mat(yuv.planeHeight(p), yuv.planeWidth(p), CV_8UC1, const_cast<std::uint8_t*>(yuv.planeData(p)))
      .clone();
}

cv::Mat roundTrip(const cv::Mat& bgr, int subsampling) {
  const auto yuv = Image::YUVImage::fromRGB(*Image::fromMat(bgr), subsampling);
  return Image::toMat(*yuv->toRGB(Image::kMappingBGR));
}

// Mean absolute error of the worst channel.
double worstChannelMeanError(const cv::Mat& a, const cv::Mat& b) {
  cv::Mat diff;
  cv::absdiff(a, b, diff);
  const cv::Scalar mean = cv::mean(diff);
  return std::max({mean[0], mean[1], mean[2]});
}

}  // namespace

TEST(YUVImage, FreshPictureIsBlack) {
  const Image::YUVImage yuv(5, 3, Image::kChroma420);
  EXPECT_EQ(cv::countNonZero(plane(yuv, 0)), 0);
  EXPECT_EQ(cv::norm(plane(yuv, 1), cv::Mat(2, 3, CV_8UC1, cv::Scalar(128)), cv::NORM_INF), 0.0);
  EXPECT_EQ(cv::norm(plane(yuv, 2), cv::Mat(2, 3, CV_8UC1, cv::Scalar(128)), cv::NORM_INF), 0.0);
  const cv::Mat bgr = Image::toMat(*yuv.toRGB());
  EXPECT_EQ(cv::norm(bgr, cv::NORM_INF), 0.0);
  EXPECT_THROW(Image::YUVImage(-2, 3, Image::kChroma444), std::invalid_argument);
}

TEST(YUVImage, ChromaPlaneSizesRoundUp) {
  struct Case {
    int width, height, subsampling, chromaWidth, chromaHeight;
  };
  const Case cases[] = {
      {7, 5, Image::kChroma444, 7, 5}, {7, 5, Image::kChroma422, 4, 5}, {7, 5, Image::kChroma420, 4, 3},
      {8, 6, Image::kChroma422, 4, 6}, {8, 6, Image::kChroma420, 4, 3}, {1, 1, Image::kChroma420, 1, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height) + " sub " + std::to_string(c.subsampling));
    const Image::YUVImage yuv(c.width, c.height, c.subsampling);
    EXPECT_EQ(yuv.planeWidth(0), c.width);
    EXPECT_EQ(yuv.planeHeight(0), c.height);
    for (int p : {1, 2}) {
      EXPECT_EQ(yuv.planeWidth(p), c.chromaWidth);
      EXPECT_EQ(yuv.planeHeight(p), c.chromaHeight);
    }
    EXPECT_EQ(Image::YUVImageInterface::chromaWidth(c.width, c.subsampling), c.chromaWidth);
    EXPECT_EQ(Image::YUVImageInterface::chromaHeight(c.height, c.subsampling), c.chromaHeight);
    EXPECT_THROW(yuv.planeWidth(3), std::out_of_range);
    EXPECT_THROW(yuv.planeData(-1), std::out_of_range);
  }
  // An odd-sized real picture converts without touching memory outside the planes.
  const cv::Mat odd = Synthetic::loadSample("fruits.jpg")(cv::Rect(0, 0, 301, 199)).clone();
  const auto yuv = Image::YUVImage::fromRGB(*Image::fromMat(odd), Image::kChroma420);
  EXPECT_EQ(yuv->planeWidth(1), 151);
  EXPECT_EQ(yuv->planeHeight(2), 100);
  EXPECT_LE(worstChannelMeanError(Image::toMat(*yuv->toRGB()), odd), 3.0);
}

TEST(YUVImage, LumaIsOpenCvsBt601Luma) {
  const cv::Mat bgr = Synthetic::loadSample("fruits.jpg");
  cv::Mat reference;
  cv::cvtColor(bgr, reference, cv::COLOR_BGR2YUV);
  cv::Mat luma;
  cv::extractChannel(reference, luma, 0);
  for (int s : {Image::kChroma444, Image::kChroma422, Image::kChroma420}) {
    const auto yuv = Image::YUVImage::fromRGB(*Image::fromMat(bgr), s);
    EXPECT_EQ(cv::norm(plane(*yuv, 0), luma, cv::NORM_INF), 0.0) << "subsampling " << s;
  }
}

TEST(YUVImage, ChromaPlanesAreBlueDifferenceThenRedDifference) {
  cv::Mat bgr(2, 4, CV_8UC3, cv::Scalar(200, 60, 40));  // bluish left half
  bgr(cv::Rect(2, 0, 2, 2)).setTo(cv::Scalar(40, 60, 200));  // reddish right half
  const auto yuv = Image::YUVImage::fromRGB(*Image::fromMat(bgr), Image::kChroma444);
  const cv::Mat u = plane(*yuv, 1);
  const cv::Mat v = plane(*yuv, 2);
  EXPECT_GT(u.at<std::uint8_t>(0, 0), 150);
  EXPECT_LT(v.at<std::uint8_t>(0, 0), 120);
  EXPECT_LT(u.at<std::uint8_t>(1, 3), 120);
  EXPECT_GT(v.at<std::uint8_t>(1, 3), 150);
  // Grey has no chroma.
  const auto grey = Image::YUVImage::fromRGB(*Image::fromMat(cv::Mat(3, 3, CV_8UC3, cv::Scalar::all(90))),
                                             Image::kChroma444);
  EXPECT_EQ(cv::norm(plane(*grey, 1), cv::Mat(3, 3, CV_8UC1, cv::Scalar(128)), cv::NORM_INF), 0.0);
  EXPECT_EQ(cv::norm(plane(*grey, 0), cv::Mat(3, 3, CV_8UC1, cv::Scalar(90)), cv::NORM_INF), 0.0);
}

TEST(YUVImage, ChromaFollowsTheJpegCoefficients) {
  // Full-range BT.601 as JPEG: Cb = 128 + 0.564 (B - Y), Cr = 128 + 0.713 (R - Y),
  // which is OpenCV's YCrCb with the chroma in the other order.
  const cv::Mat bgr = Synthetic::loadSample("fruits.jpg");
  cv::Mat ycrcb;
  cv::cvtColor(bgr, ycrcb, cv::COLOR_BGR2YCrCb);
  cv::Mat cr, cb;
  cv::extractChannel(ycrcb, cr, 1);
  cv::extractChannel(ycrcb, cb, 2);
  const auto yuv = Image::YUVImage::fromRGB(*Image::fromMat(bgr), Image::kChroma444);
  EXPECT_LE(cv::norm(plane(*yuv, 1), cb, cv::NORM_INF), 1.0) << "U plane is not JPEG's Cb";
  EXPECT_LE(cv::norm(plane(*yuv, 2), cr, cv::NORM_INF), 1.0) << "V plane is not JPEG's Cr";
}

TEST(YUVImage, FullChromaRoundTripKeepsRealPictures) {
  for (const char* name : {"fruits.jpg", "baboon.jpg", "building.jpg"}) {
    const cv::Mat bgr = Synthetic::loadSample(name);
    EXPECT_THAT(roundTrip(bgr, Image::kChroma444), Testing::PictureNear(bgr, 2)) << name;
  }
}

TEST(YUVImage, FullChromaRoundTripKeepsSaturatedColours) {
  // Every colour of a coarse lattice of the RGB cube, primaries included.
  cv::Mat bgr(6, 36, CV_8UC3);
  for (int k = 0; k < 216; ++k) {
    bgr.at<cv::Vec3b>(k / 36, k % 36) = cv::Vec3b(static_cast<std::uint8_t>(51 * (k % 6)),
                                                   static_cast<std::uint8_t>(51 * ((k / 6) % 6)),
                                                   static_cast<std::uint8_t>(51 * (k / 36)));
  }
  EXPECT_THAT(roundTrip(bgr, Image::kChroma444), Testing::PictureNear(bgr, 2));
}

TEST(YUVImage, SubsampledRoundTripsStayCloseOnRealPictures) {
  struct Case {
    const char* name;
    double mean422, mean420;  // worst channel's mean absolute error, levels
  };
  // Measured: fruits 1.2 / 2.2, baboon 1.9 / 5.7 (its fur is rich in fine colour).
  const Case cases[] = {{"fruits.jpg", 1.6, 2.8}, {"baboon.jpg", 2.5, 7.0}};
  for (const auto& c : cases) {
    const cv::Mat bgr = Synthetic::loadSample(c.name);
    const double e422 = worstChannelMeanError(roundTrip(bgr, Image::kChroma422), bgr);
    const double e420 = worstChannelMeanError(roundTrip(bgr, Image::kChroma420), bgr);
    EXPECT_LE(e422, c.mean422) << c.name;
    EXPECT_LE(e420, c.mean420) << c.name;
    // Halving the chroma again costs more: the planes really are subsampled.
    EXPECT_GT(e420, e422) << c.name;
    EXPECT_GT(e422, worstChannelMeanError(roundTrip(bgr, Image::kChroma444), bgr)) << c.name;
  }
}

TEST(YUVImage, SubsampledChromaIsTheAverageOfItsBlock) {
  // Columns alternate between two colours; each 2x2 block holds both twice.
  cv::Mat bgr(4, 4, CV_8UC3);
  for (int x = 0; x < 4; ++x) bgr.col(x).setTo(x % 2 ? cv::Scalar(30, 90, 180) : cv::Scalar(170, 120, 60));
  const auto full = Image::YUVImage::fromRGB(*Image::fromMat(bgr), Image::kChroma444);
  const auto half = Image::YUVImage::fromRGB(*Image::fromMat(bgr), Image::kChroma420);
  for (int p : {1, 2}) {
    const cv::Mat f = plane(*full, p);
    const double expected = (f.at<std::uint8_t>(0, 0) + f.at<std::uint8_t>(0, 1)) / 2.0;
    const cv::Mat h = plane(*half, p);
    ASSERT_EQ(h.size(), cv::Size(2, 2));
    for (int k = 0; k < 4; ++k) EXPECT_NEAR(h.at<std::uint8_t>(k / 2, k % 2), expected, 1.0) << "plane " << p;
  }
}
