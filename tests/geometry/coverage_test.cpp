// The coverage raster of many modules: each footprint is warped only where it
// can reach, which must give exactly what warping it over the whole raster
// gives (the plain OpenCV sequence, written out here as the reference).
#include "geometry/coverage.h"

#include <gtest/gtest.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace {

using OrbivaneGeometry::Coverage::Footprint;

cv::Mat referenceCoverage(const std::vector<Footprint>& footprints, cv::Size raster) {
  cv::Mat sum(raster, CV_32F, cv::Scalar(0));
  for (const Footprint& f : footprints) {
    const cv::Mat mask(f.picture, CV_8U, cv::Scalar(255));
    const cv::Matx33d toRaster(raster.width, 0, -0.5, 0, raster.height, -0.5, 0, 0, 1);
    const cv::Matx33d toTexture(1.0 / f.picture.width, 0, 0, 0, 1.0 / f.picture.height, 0, 0, 0, 1);
    cv::Mat warped;
    cv::warpPerspective(mask, warped, cv::Mat(toRaster * f.homography * toTexture), raster, cv::INTER_LINEAR,
                        cv::BORDER_CONSTANT, cv::Scalar(0));
    cv::addWeighted(sum, 1.0, warped, 1.0, 0.0, sum, CV_32F);
  }
  cv::Mat coverage;
  sum.convertTo(coverage, CV_32F, OrbivaneGeometry::Coverage::kEightBitScale);
  return coverage;
}

TEST(Coverage, FootprintsWarpedWhereTheyReachEqualTheWholeRasterWarp) {
  cv::RNG rng(41);
  const cv::Size raster(640, 360);
  std::vector<Footprint> footprints;
  for (int i = 0; i < 60; ++i) {
    // Small turned and keystoned modules, some across the raster's edge.
    Footprint f;
    const double x = rng.uniform(-0.1, 1.0), y = rng.uniform(-0.1, 1.0), s = rng.uniform(0.03, 0.2);
    const double turn = rng.uniform(-0.2, 0.2), keystone = rng.uniform(-0.3, 0.3);
    f.homography = cv::Matx33d(s * std::cos(turn), -s * std::sin(turn), x, s * std::sin(turn), s * std::cos(turn), y,
                               keystone * s, 0, 1);
    f.picture = cv::Size(rng.uniform(40, 300), rng.uniform(40, 300));
    footprints.push_back(f);
  }
  // One that reaches past the horizon: warped over the whole raster.
  Footprint wide;
  wide.homography = cv::Matx33d(0.5, 0, 0.2, 0, 0.5, 0.2, 1.5, 0, 1);
  wide.picture = cv::Size(100, 100);
  footprints.push_back(wide);
  cv::Mat ours;
  OrbivaneGeometry::Coverage::accumulateCoverage(footprints, raster, ours);
  const cv::Mat reference = referenceCoverage(footprints, raster);
  ASSERT_EQ(ours.size(), reference.size());
  EXPECT_EQ(cv::norm(ours, reference, cv::NORM_INF), 0.0);
  EXPECT_GT(cv::countNonZero(ours), 0);
}

}  // namespace
