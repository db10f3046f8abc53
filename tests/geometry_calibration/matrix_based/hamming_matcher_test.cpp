// Cross-checked Hamming matching against OpenCV's brute-force matcher (the
// oracle): the same pairs, order and distances on real features and on
// descriptors built to tie.
#include "geometry_calibration/matrix_based/hamming_matcher.h"

#include <random>

#include <gtest/gtest.h>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>

#include "synthetic/sample_data.h"

namespace {

using GeometryCalibration::MatrixBased::crossCheckedHamming;

std::vector<cv::DMatch> openCv(const cv::Mat& query, const cv::Mat& train) {
  std::vector<cv::DMatch> matches;
  cv::BFMatcher(cv::NORM_HAMMING, true).match(query, train, matches);
  return matches;
}

// Equal when both lists hold the same pairs in the same order with the same distances.
void expectSameMatches(const cv::Mat& query, const cv::Mat& train, const char* what) {
  std::vector<cv::DMatch> ours;
  crossCheckedHamming(query, train, ours);
  const std::vector<cv::DMatch> theirs = openCv(query, train);
  ASSERT_EQ(ours.size(), theirs.size()) << what;
  for (std::size_t k = 0; k < ours.size(); ++k) {
    ASSERT_EQ(ours[k].queryIdx, theirs[k].queryIdx) << what << " match " << k;
    ASSERT_EQ(ours[k].trainIdx, theirs[k].trainIdx) << what << " match " << k;
    ASSERT_EQ(ours[k].distance, theirs[k].distance) << what << " match " << k;
  }
}

cv::Mat descriptorsOf(const cv::Ptr<cv::Feature2D>& detector, const cv::Mat& picture) {
  cv::Mat grey, descriptors;
  cv::cvtColor(picture, grey, cv::COLOR_BGR2GRAY);
  std::vector<cv::KeyPoint> keys;
  detector->detectAndCompute(grey, cv::noArray(), keys, descriptors);
  return descriptors;
}

TEST(CrossCheckedHamming, MatchesOpenCvOnFeaturesOfRealPhotographs) {
  // Two neighbouring photographs of the hand-held camera: thousands of
  // features a side, both over the parallel threshold and below it.
  const cv::Mat left = Synthetic::loadRealPhoto("P1060378.jpg"), right = Synthetic::loadRealPhoto("P1060379.jpg");
  const cv::Mat orbLeft = descriptorsOf(cv::ORB::create(6000), left);
  const cv::Mat orbRight = descriptorsOf(cv::ORB::create(6000), right);
  ASSERT_GT(orbLeft.rows, 3000);
  ASSERT_GT(orbRight.rows, 3000);
  expectSameMatches(orbLeft, orbRight, "ORB, whole pictures");
  expectSameMatches(orbRight, orbLeft, "ORB, the other way");
  expectSameMatches(orbLeft.rowRange(0, 777), orbRight.rowRange(100, 1000), "ORB, a few rows, a view into the rows");
  // BRISK's 64-byte descriptors.
  const cv::Ptr<cv::BRISK> brisk = cv::BRISK::create(30, 4, 0.4f);
  cv::Mat small;
  cv::resize(left, small, cv::Size(), 0.5, 0.5, cv::INTER_AREA);
  const cv::Mat briskLeft = descriptorsOf(brisk, small);
  cv::resize(right, small, cv::Size(), 0.5, 0.5, cv::INTER_AREA);
  const cv::Mat briskRight = descriptorsOf(brisk, small);
  ASSERT_GT(briskLeft.rows, 500);
  expectSameMatches(briskLeft, briskRight, "BRISK");
}

TEST(CrossCheckedHamming, TiesGoToTheLowerRowAsInOpenCv) {
  // Descriptors of few distinct values tie everywhere; widths of one to
  // three words, a width with its own instance among them, and the row
  // counts around the four rows taken at a time.
  std::mt19937 rng(7);
  for (const int words : {1, 3, 4}) {
    for (const int rows : {1, 3, 4, 5, 9, 600}) {
      cv::Mat query(rows, words * 8, CV_8UC1), train(rows + 2, words * 8, CV_8UC1);
      for (cv::Mat* m : {&query, &train})
        for (int r = 0; r < m->rows; ++r)
          for (int c = 0; c < m->cols; ++c) m->at<std::uint8_t>(r, c) = std::uint8_t(rng() % 4 == 0 ? rng() % 3 : 0);
      expectSameMatches(query, train, ("ties, words " + std::to_string(words) + ", rows " + std::to_string(rows)).c_str());
    }
  }
}

TEST(CrossCheckedHamming, OtherWidthsAndEmptyInputsAsOpenCv) {
  std::mt19937 rng(3);
  cv::Mat query(50, 5, CV_8UC1), train(60, 5, CV_8UC1);  // not a whole word: OpenCV's matcher
  cv::randu(query, 0, 256);
  cv::randu(train, 0, 256);
  expectSameMatches(query, train, "5-byte descriptors");
  std::vector<cv::DMatch> matches{cv::DMatch(1, 2, 3.0f)};
  crossCheckedHamming(cv::Mat(), train, matches);
  EXPECT_TRUE(matches.empty());
  crossCheckedHamming(query, cv::Mat(0, 5, CV_8UC1), matches);
  EXPECT_TRUE(matches.empty());
}

}  // namespace
