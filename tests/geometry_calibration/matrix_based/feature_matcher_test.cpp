// The feature matcher's steps and the estimators' building blocks on real
// pictures with known motion.
#include "geometry_calibration/matrix_based/feature_matcher.h"

#include <cfloat>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/direct_alignment.h"
#include "geometry_calibration/matrix_based/optical_flow_estimator.h"
#include "logging/logger_setup.h"
#include "synthetic/sample_data.h"
#include "synthetic/target_scenes.h"
#include "support/matchers.h"

namespace {

using namespace GeometryCalibration::MatrixBased;

EstimatorContext context() { return EstimatorContext{Utils::calibratorLogger("MatrixBasedMatchToBackground"), nullptr}; }

TEST(FeatureMatcherSteps, ScaleFactorSkipsTheFirstTwo) {
  EXPECT_DOUBLE_EQ(FeatureMatcher::matchingFactor(cv::Size(1280, 720)), 1.2);
  EXPECT_DOUBLE_EQ(FeatureMatcher::matchingFactor(cv::Size(300, 300)), 1.2);   // 250 exactly
  EXPECT_DOUBLE_EQ(FeatureMatcher::matchingFactor(cv::Size(320, 240)), 1.0);   // none qualifies: full size
}

TEST(FeatureMatcherSteps, KeepsTheBestThreeQuartersAboveTen) {
  std::vector<MatchPair> pairs(11);
  for (int i = 0; i < 11; ++i) pairs[std::size_t(i)].distance = float(10 - i);
  FeatureMatcher::keepBest(pairs);
  ASSERT_EQ(pairs.size(), 8u);  // 11 x 0.75 = 8.25
  EXPECT_FLOAT_EQ(pairs.front().distance, 0.0f);
  EXPECT_FLOAT_EQ(pairs.back().distance, 7.0f);
  std::vector<MatchPair> ten(10);
  FeatureMatcher::keepBest(ten);
  EXPECT_EQ(ten.size(), 10u);
}

TEST(FeatureMatcherSteps, FivePairsGiveAHomography) {
  const cv::Matx33d truth(1.02, 0.01, 5, -0.01, 0.99, -3, 0, 0, 1);
  std::vector<MatchPair> pairs;
  for (const cv::Point2d p : {cv::Point2d(10, 10), cv::Point2d(300, 20), cv::Point2d(280, 200), cv::Point2d(15, 220),
                              cv::Point2d(150, 110)}) {
    const cv::Vec3d q = truth * cv::Vec3d(p.x, p.y, 1);
    pairs.push_back({float(p.x), float(p.y), float(q[0] / q[2]), float(q[1] / q[2]), 1.0f});
  }
  cv::Matx33d h;
  ASSERT_TRUE(FeatureMatcher::homographyOfPairs(pairs, h));
  EXPECT_THAT(h, Testing::HomographyNear(truth, 1e-3, cv::Size(320, 240)));
}

TEST(FeatureMatcherSteps, TinyAndTexturelessPicturesFail) {
  FeatureMatcher matcher(context());
  WorkPictures tiny;
  tiny.module = cv::Mat(3, 3, CV_8UC3, cv::Scalar(1, 2, 3));
  tiny.target = tiny.module.clone();
  tiny.prepareGrey();
  EXPECT_EQ(matcher.estimate(tiny, cv::Matx33f::eye(), 10000, 0, 0).error, FLT_MAX);
  WorkPictures flat;
  flat.module = cv::Mat(240, 320, CV_8UC3, cv::Scalar(80, 80, 80));
  flat.target = cv::Mat(240, 320, CV_8UC3, cv::Scalar(120, 120, 120));
  flat.prepareGrey();
  const auto r = matcher.estimate(flat, cv::Matx33f::eye(), 10000, 0, 0);
  EXPECT_EQ(r.error, FLT_MAX);
  EXPECT_EQ(r.value, 0);
}

TEST(FeatureMatcherSteps, RecoversAShiftAndRotationWithRefinement) {
  const Synthetic::Scene scene = Synthetic::makeScene("building.jpg", cv::Size(320, 240));
  Synthetic::ModuleTruth truth;
  cv::RNG rng(4);
  truth.homography = Synthetic::realisticMisalignment(rng, cv::Size(320, 240), cv::Size(320, 240));
  WorkPictures pictures;
  pictures.module = Synthetic::renderModule(scene, truth, cv::Size(320, 240), 1.1, -5, 2.0, 3);
  pictures.target = scene.target;
  pictures.prepareGrey();
  FeatureMatcher matcher(context());
  const auto r = matcher.estimate(pictures, cv::Matx33f::eye(), 10000, 0, 0);
  ASSERT_LT(r.error, FLT_MAX);
  EXPECT_GE(r.value, 5);
  EXPECT_LE(matcher.lastPairs().size(), 750u);  // 1000 at most, 75 % kept
  EXPECT_THAT(cv::Matx33d(r.homography), Testing::HomographyNear(truth.homography, 0.1, cv::Size(320, 240)));
  // The error is a share of pixels in percent.
  EXPECT_GE(r.error, 0.0f);
  EXPECT_LE(r.error, 100.0f);
}

TEST(DirectAlignmentSteps, SubPixelHomographyWithGainAndOffset) {
  const Synthetic::Scene scene = Synthetic::makeScene("fruits.jpg", cv::Size(320, 240));
  Synthetic::ModuleTruth truth;
  truth.homography = cv::Matx33d(0.99, 0.02, 1.37, -0.015, 1.01, -0.62, 1e-5, -2e-5, 1);
  cv::Mat module = Synthetic::renderModule(scene, truth, cv::Size(320, 240), 0.7, 30, 1.0, 9), grey, target;
  cv::cvtColor(module, grey, cv::COLOR_BGR2GRAY);
  cv::cvtColor(scene.target, target, cv::COLOR_BGR2GRAY);
  DirectAlignment alignment;
  // target -> module is the inverse of the truth; start from the identity (about 1.5 px off).
  const auto r = alignment.align(target, grey, cv::Mat(), cv::Matx33d::eye());
  ASSERT_TRUE(r.ok);
  EXPECT_THAT(r.warp.inv(), Testing::HomographyNear(truth.homography, 0.05, cv::Size(320, 240)));
  EXPECT_NEAR(r.gain, 1.0 / 0.7, 0.05);
  EXPECT_GT(r.correlation, 0.95);
  // A flat picture has nothing to align on.
  const cv::Mat flat(240, 320, CV_8U, cv::Scalar(100));
  EXPECT_FALSE(alignment.align(flat, flat, cv::Mat(), cv::Matx33d::eye()).ok);
}

TEST(OpticalFlowSteps, OutliersAreDropped) {
  std::vector<cv::Point2f> flow(100, cv::Point2f(3.0f, -1.0f));
  for (int i = 0; i < 100; ++i) flow[std::size_t(i)] += cv::Point2f(0.01f * (i % 7), -0.01f * (i % 5));
  flow[10] = cv::Point2f(40, 2);
  flow[50] = cv::Point2f(3, 25);
  const auto kept = OpticalFlowEstimator::inliers(flow);
  EXPECT_EQ(kept.size(), 98u);
  EXPECT_EQ(std::count(kept.begin(), kept.end(), 10u), 0);
  EXPECT_EQ(std::count(kept.begin(), kept.end(), 50u), 0);
}

}  // namespace
