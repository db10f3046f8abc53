// The feature matcher's steps and the estimators' building blocks on real
// pictures with known motion.
#include "geometry_calibration/matrix_based/feature_matcher.h"

#include <cfloat>
#include <cmath>
#include <limits>

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

// A module's work pictures on a wide target: a 4:1 strip of real
// photographs, and a 640x480 perspective view of part of it, black where it
// shows nothing, drawn by its placement into the target's frame.
WorkPictures wideWorkPictures() {
  cv::Mat strip, view;
  cv::hconcat(std::vector<cv::Mat>{Synthetic::loadRealPhoto("P1060378.jpg"), Synthetic::loadRealPhoto("P1060379.jpg"),
                                   Synthetic::loadRealPhoto("P1060380.jpg")},
              strip);
  cv::resize(strip, strip, cv::Size(1920, 480), 0, 0, cv::INTER_AREA);
  const cv::Matx33d view2target(0.95, 0.06, 700.0, -0.04, 1.02, -20.0, 2e-5, -1e-5, 1.0);
  cv::warpPerspective(strip, view, cv::Mat(view2target), cv::Size(640, 480), cv::WARP_INVERSE_MAP);
  WorkPictures p;
  p.target = strip;
  cv::warpPerspective(view, p.module, cv::Mat(view2target), strip.size(), cv::INTER_LINEAR, cv::BORDER_CONSTANT);
  p.moduleMask = contentMask(p.module);
  p.prepareGrey();
  return p;
}

// The difference error and the correlation over the overlap, computed on
// the whole pictures as the matcher's rules define them.
double wholeCorrelation(const WorkPictures& p, const cv::Matx33d& h) {
  cv::Mat covered, warped, a, b;
  cv::warpPerspective(p.moduleMask, covered, cv::Mat(h), p.targetGrey.size(), cv::INTER_NEAREST, cv::BORDER_CONSTANT);
  cv::erode(covered, covered, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(7, 7)));
  if (cv::countNonZero(covered) < 400) return std::numeric_limits<double>::quiet_NaN();
  cv::warpPerspective(p.moduleGrey, warped, cv::Mat(h), p.targetGrey.size(), cv::INTER_LINEAR, cv::BORDER_CONSTANT);
  cv::GaussianBlur(p.targetGrey, a, cv::Size(), 1.0);
  cv::GaussianBlur(warped, b, cv::Size(), 1.0);
  cv::Scalar ma, da, mb, db;
  cv::meanStdDev(a, ma, da, covered);
  cv::meanStdDev(b, mb, db, covered);
  cv::Mat af, bf, product;
  a.convertTo(af, CV_32F, 1.0, -ma[0]);
  b.convertTo(bf, CV_32F, 1.0, -mb[0]);
  cv::multiply(af, bf, product);
  return cv::mean(product, covered)[0] / (da[0] * db[0]);
}

TEST(WorkPictureMeasures, LookingOnlyWhereTheModuleIsDrawnChangesNoNumber) {
  const WorkPictures p = wideWorkPictures();
  const struct {
    const char* what;
    cv::Matx33d h;
  } placements[] = {
      {"in place", cv::Matx33d::eye()},
      {"a third of a pixel off", cv::Matx33d(1, 0, 0.33, 0, 1, -0.21, 0, 0, 1)},
      {"turned 2 degrees and scaled", cv::Matx33d(0.98, -0.035, 20.0, 0.035, 0.98, -9.0, 0, 0, 1)},
      {"keystoned", cv::Matx33d(1, 0.01, 0, 0, 1, 0, 1e-4, 2e-5, 1)},
      {"half off the target's left edge", cv::Matx33d(1, 0, -1000.0, 0, 1, 0, 0, 0, 1)},
      {"off the target", cv::Matx33d(1, 0, 5000.0, 0, 1, 0, 0, 0, 1)},
  };
  for (const auto& placement : placements) {
    EXPECT_FLOAT_EQ(differenceError(p, placement.h), differenceError(p.module, p.target, placement.h))
        << placement.what;
    const double whole = wholeCorrelation(p, placement.h), drawn = overlapCorrelation(p, placement.h);
    if (std::isnan(whole)) {
      EXPECT_TRUE(std::isnan(drawn)) << placement.what;
    } else {
      // OpenCV's warp rounds positions to 1/32 pixel from the corner of
      // what it draws, so a part drawn alone interpolates a few values a
      // grey level apart.
      EXPECT_NEAR(drawn, whole, 1e-4) << placement.what;
    }
  }
  // In place the views agree closely; off the target nothing is shared.
  EXPECT_GT(overlapCorrelation(p, cv::Matx33d::eye()), 0.95);
  EXPECT_TRUE(std::isnan(overlapCorrelation(p, placements[5].h)));
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
