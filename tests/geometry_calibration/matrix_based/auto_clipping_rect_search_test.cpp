// The maximum-value rectangle search of automatic clipping: its input errors,
// the cases whose result follows from the rules by hand (equal values, zeros,
// one element, start step equal to the minimum step, the iteration limit),
// and on random maps, that it stops only where no move of the last step
// raises the brute-force sum.
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/auto_clipping_rect_search.h"
#include "orbivane/geometry_calibration/matrix_based/auto_clipping.h"

namespace {

using GeometryCalibration::MatrixBased::AutoClipping;
using GeometryCalibration::MatrixBased::AutoClippingSearch::findMaxValueRect;

const char* const kInputError =
    "AutoClipping::findMaxValueRect::Input Error: mat.empty() || minStep < 1 || startStep < minStep\n";

// Sum of the elements of a rectangle, one by one.
double bruteSum(const cv::Mat& map, const cv::Rect& r) {
  double sum = 0.0;
  for (int y = r.y; y < r.y + r.height; ++y) {
    for (int x = r.x; x < r.x + r.width; ++x) sum += map.at<float>(y, x);
  }
  return sum;
}

TEST(AutoClippingSearch, InputErrorsPrintTheMessageAndFindNothing) {
  const cv::Mat ones(8, 8, CV_32F, cv::Scalar(1));
  struct Case {
    cv::Mat map;
    int minStep;
    int startStep;
  };
  for (const Case& c : {Case{cv::Mat(), 1, 16}, Case{cv::Mat(0, 5, CV_32F), 1, 16}, Case{ones, 0, 16},
                        Case{ones, -3, 16}, Case{ones, 4, 2}}) {
    testing::internal::CaptureStdout();
    const auto found = findMaxValueRect(c.map, c.minStep, c.startStep, 100);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), kInputError)
        << "minStep " << c.minStep << ", startStep " << c.startStep;
    EXPECT_FALSE(found.has_value());
  }

  testing::internal::CaptureStdout();
  EXPECT_FALSE(findMaxValueRect(cv::Mat(8, 8, CV_32FC3, cv::Scalar::all(1)), 1, 16, 100).has_value());
  EXPECT_NE(testing::internal::GetCapturedStdout().find("Input Error: "), std::string::npos);

  testing::internal::CaptureStdout();
  EXPECT_TRUE(findMaxValueRect(ones, 1, 16, 100).has_value());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "a good input prints nothing";
}

TEST(AutoClippingSearch, EqualValuesKeepTheWholeMapButItsLastColumnAndRow) {
  // Every shrinking move lowers the sum, so the step halves down to nothing.
  EXPECT_EQ(findMaxValueRect(cv::Mat(23, 37, CV_32F, cv::Scalar(2.5)), 1, 16, 1000), cv::Rect(0, 0, 36, 22));
  EXPECT_EQ(findMaxValueRect(cv::Mat(40, 9, CV_8U, cv::Scalar(7)), 1, 16, 1000), cv::Rect(0, 0, 8, 39));
  EXPECT_EQ(AutoClipping::findMaxValueRect(cv::Mat(5, 300, CV_64F, cv::Scalar(0.1)), 1, 16, 1000),
            cv::Rect(0, 0, 299, 4));

  // The off-by-one is kept: a last column worth a thousand times more still stays out.
  cv::Mat richLastColumn(30, 50, CV_32F, cv::Scalar(1));
  richLastColumn.col(49).setTo(1000);
  EXPECT_EQ(findMaxValueRect(richLastColumn, 1, 16, 1000), cv::Rect(0, 0, 49, 29));
}

TEST(AutoClippingSearch, ZerosShrinkFromTheBottomAndRightByTheFirstValidCombination) {
  // All sums tie, so the first valid combination wins: top kept, bottom up,
  // left kept, right left. On 10 x 10 from step 16: steps 16 and 8 cannot
  // move; step 4 goes to edges 0..5, step 2 to 0..3, step 1 to 0..2, after
  // which nothing moves. Eight iterations in all.
  const cv::Mat zeros(10, 10, CV_32F, cv::Scalar(0));
  EXPECT_EQ(findMaxValueRect(zeros, 1, 16, 1000), cv::Rect(0, 0, 2, 2));
  EXPECT_EQ(findMaxValueRect(cv::Mat(12, 20, CV_32F, cv::Scalar(0)), 1, 16, 1000), cv::Rect(0, 0, 2, 2));

  // The iteration limit: the count starts at 1 and goes up after each of
  // the seven iterations before the last, so a limit of 9 suffices and 8
  // ends with nothing.
  EXPECT_EQ(findMaxValueRect(zeros, 1, 16, 9), cv::Rect(0, 0, 2, 2));
  EXPECT_FALSE(findMaxValueRect(zeros, 1, 16, 8).has_value());
  EXPECT_FALSE(findMaxValueRect(zeros, 1, 16, 1).has_value());
  EXPECT_FALSE(findMaxValueRect(zeros, 1, 16, 0).has_value());
}

TEST(AutoClippingSearch, OneElementGivesItsRectangleOfWidthAndHeightZero) {
  const cv::Mat one(1, 1, CV_32F, cv::Scalar(5));
  const auto found = findMaxValueRect(one, 1, 16, 1000);
  ASSERT_TRUE(found.has_value()) << "a 1 x 1 map has a result, unlike an input error";
  EXPECT_EQ(*found, cv::Rect(0, 0, 0, 0));
  // Halving 16 down to 0 takes five iterations.
  EXPECT_TRUE(findMaxValueRect(one, 1, 16, 6).has_value());
  EXPECT_FALSE(findMaxValueRect(one, 1, 16, 5).has_value());
  // A start step far beyond the map moves nothing and halves down.
  EXPECT_EQ(findMaxValueRect(cv::Mat(3, 4, CV_32F, cv::Scalar(1)), 1, std::numeric_limits<int>::max(), 100),
            cv::Rect(0, 0, 3, 2));
}

TEST(AutoClippingSearch, StartStepEqualToMinStepEndsAtTheFirstHalving) {
  // Nothing to gain by moving: the first iteration halves and ends, before
  // the iteration is counted, so even a limit of 1 finds the rectangle.
  EXPECT_EQ(findMaxValueRect(cv::Mat(20, 20, CV_32F, cv::Scalar(1)), 4, 4, 1), cv::Rect(0, 0, 19, 19));

  // A ground band (rows 32..39 worth -10): at step 8 only the bottom edge
  // moves, from 39 to 31, and the search ends; going on down to step 1 the
  // bottom edge finds 32, taking in the last good row 31.
  cv::Mat ground(40, 40, CV_32F, cv::Scalar(1));
  ground.rowRange(32, 40).setTo(-10);
  EXPECT_EQ(findMaxValueRect(ground, 8, 8, 100), cv::Rect(0, 0, 39, 31));
  EXPECT_EQ(findMaxValueRect(ground, 1, 8, 100), cv::Rect(0, 0, 39, 32));
  EXPECT_FALSE(findMaxValueRect(ground, 8, 8, 2).has_value()) << "one move and one halving need a limit of 3";
}

TEST(AutoClippingSearch, FindsAPositiveBlockInANegativeMapExactly) {
  cv::Mat map(50, 80, CV_32F, cv::Scalar(-1));
  map(cv::Rect(20, 10, 40, 20)).setTo(1);
  EXPECT_EQ(findMaxValueRect(map, 1, 16, 1000), cv::Rect(20, 10, 40, 20));
  // Off the coarse lattice of the first steps as well.
  cv::Mat odd(61, 97, CV_32F, cv::Scalar(-2));
  odd(cv::Rect(13, 7, 51, 29)).setTo(1);
  EXPECT_EQ(findMaxValueRect(odd, 1, 16, 1000), cv::Rect(13, 7, 51, 29));
}

TEST(AutoClippingSearch, RandomMapsEndWhereNoMoveOfTheLastStepRaisesTheBruteForceSum) {
  std::mt19937 random(20240611);
  std::uniform_int_distribution<int> side(1, 45);
  std::uniform_int_distribution<int> stepExponent(0, 4);
  for (int trial = 0; trial < 60; ++trial) {
    const int rows = side(random);
    const int cols = side(random);
    cv::Mat map(rows, cols, CV_32F);
    cv::randu(map, cv::Scalar(-1.0), cv::Scalar(1.0));
    // A smooth bump so that the optimum is a region, not noise.
    cv::GaussianBlur(map, map, cv::Size(0, 0), 1.5 + trial % 5);
    map += cv::Scalar(0.02 * (trial % 7) - 0.05);
    const int minStep = 1 << (stepExponent(random) % 2);
    const int startStep = minStep << stepExponent(random);
    SCOPED_TRACE(::testing::Message() << "trial " << trial << ": " << rows << " x " << cols << ", steps "
                                      << startStep << " to " << minStep);

    cv::Mat integral;
    const auto found = findMaxValueRect(map, minStep, startStep, 100000, integral);
    ASSERT_TRUE(found.has_value());
    const cv::Rect r = *found;
    ASSERT_GE(r.x, 0);
    ASSERT_GE(r.y, 0);
    ASSERT_LE(r.x + r.width, cols - 1) << "the right edge is an element index";
    ASSERT_LE(r.y + r.height, rows - 1) << "the bottom edge is an element index";
    const double sum = bruteSum(map, r);
    EXPECT_NEAR(GeometryCalibration::MatrixBased::AutoClippingSearch::rectangleSum(integral, r), sum, 1e-4);

    // The edges it settled on, and every valid move of them at the minimum step.
    const int top = r.y, bottom = r.y + r.height, left = r.x, right = r.x + r.width;
    const int s = minStep;
    for (int dt : {-s, 0, s}) {
      for (int db : {-s, 0, s}) {
        for (int dl : {-s, 0, s}) {
          for (int dr : {-s, 0, s}) {
            const int t = top + dt, b = bottom + db, l = left + dl, rr = right + dr;
            if (t < 0 || b > rows - 1 || l < 0 || rr > cols - 1) continue;
            if ((dt > 0 && t >= bottom - s) || (db < 0 && b <= top + s)) continue;
            if ((dl > 0 && l >= right - s) || (dr < 0 && rr <= left + s)) continue;
            const double moved = bruteSum(map, cv::Rect(l, t, rr - l, b - t));
            EXPECT_LE(moved, sum + 1e-4) << "moving by " << dt << " " << db << " " << dl << " " << dr
                                         << " would gain";
          }
        }
      }
    }
  }
}

}  // namespace

namespace {

// The search's integral is cv::integral's, double for double, on float maps
// of every row count modulo the four rows summed together, with values whose
// sums round (fractions, mixed magnitudes), and on a map of another depth.
TEST(AutoClippingSearch, TheIntegralIsOpenCvsBitForBit) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> value(-3.0f, 3.0f);
  std::uniform_int_distribution<int> scale(-20, 20);
  for (const cv::Size size : {cv::Size(1, 1), cv::Size(5, 3), cv::Size(13, 7), cv::Size(131, 258), cv::Size(64, 9),
                              cv::Size(1030, 37)}) {
    cv::Mat map(size, CV_32F);
    for (int y = 0; y < map.rows; ++y)
      for (int x = 0; x < map.cols; ++x) map.at<float>(y, x) = std::ldexp(value(rng), scale(rng));
    cv::Mat ours, theirs;
    GeometryCalibration::MatrixBased::AutoClippingSearch::integralOf(map, ours);
    cv::integral(map, theirs, CV_64F);
    ASSERT_EQ(ours.size(), theirs.size());
    ASSERT_EQ(ours.type(), theirs.type());
    EXPECT_EQ(std::memcmp(ours.data, theirs.data, theirs.total() * theirs.elemSize()), 0) << size;
  }
  // Large maps are summed in column strips on several threads, each strip's
  // running sums continuing its left neighbour's: still the same doubles.
  const int hostThreads = cv::getNumThreads();
  for (const int threads : {2, 3, 4}) {
    cv::setNumThreads(threads);
    cv::Mat map(cv::Size(1537, 703), CV_32F), ours, theirs;
    for (int y = 0; y < map.rows; ++y)
      for (int x = 0; x < map.cols; ++x) map.at<float>(y, x) = std::ldexp(value(rng), scale(rng));
    GeometryCalibration::MatrixBased::AutoClippingSearch::integralOf(map, ours);
    cv::integral(map, theirs, CV_64F);
    EXPECT_EQ(std::memcmp(ours.data, theirs.data, theirs.total() * theirs.elemSize()), 0) << threads << " threads";
  }
  cv::setNumThreads(hostThreads);
  cv::Mat bytes(9, 11, CV_8U), ours, theirs;
  cv::randu(bytes, 0, 256);
  GeometryCalibration::MatrixBased::AutoClippingSearch::integralOf(bytes, ours);
  cv::integral(bytes, theirs, CV_64F);
  EXPECT_EQ(cv::norm(ours, theirs, cv::NORM_INF), 0.0);
}

}  // namespace
