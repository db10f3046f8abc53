// The feature matcher of target matching: finds the homography that lays a
// module's work picture onto the target's by matching binary features, then
// refines it at full resolution by direct alignment.
//
// Steps: a picture of 10 pixels or less fails at once; the module picture is
// brought to the target's size (bicubic); the starting error of the input
// homography is measured (differenceError); both pictures are turned grey
// and their contrast raised with CLAHE (clip 4.0, 8x8 tiles) (at trace
// level the colour pictures are also equalised channel by channel, to draw
// the matches on); both are matched at a reduced scale
// (the first factor of 1.0, 1.1, 1.2, 1.25, 1.3, 1.35 from the third on whose
// picture size / factor is at least 250 pixels a side; full size when none
// is), padded so that features reach the picture edges, with detection masks
// that keep features off the edge of the module's content; ORB features
// (the detector with its fixed settings, 10000 features from the driver)
// are matched with a cross-checking Hamming matcher, first only the
// strongest 2000 of each picture and only between features within about a
// sixth of the picture of each other (the module picture is already placed
// by its current matrix, and the direct refinement does the fine work), then
// all of them anywhere, then BRISK features when ORB yields no homography;
// at most 1000 pairs are collected, the best 75 % by distance kept when
// there are more than 10, and the homography estimated with RHO at 3
// pixels. The estimate is then refined by direct alignment and the better
// of the two kept.
#pragma once

#include <vector>

#include <opencv2/core.hpp>

#include "geometry_calibration/matrix_based/match_to_target_estimate.h"

namespace GeometryCalibration {
namespace MatrixBased {

// A matched pair: the point in the module picture, the point in the target
// picture (work pixels) and the descriptor distance.
struct MatchPair {
  float moduleX = 0, moduleY = 0;
  float targetX = 0, targetY = 0;
  float distance = 0;
};

class FeatureMatcher {
 public:
  static constexpr int kMostPairs = 1000;
  static constexpr int kFewestPairs = 5;

  explicit FeatureMatcher(EstimatorContext context);

  // `homography` is the module's current homography in the work system (the
  // start); (`shiftX`, `shiftY`) are added to its translation, in target work
  // pixels (the driver passes zeros; the grid estimator's retries move the
  // start). `maxFeatures` is ORB's feature count.
  EstimateResult estimate(const WorkPictures& pictures, const cv::Matx33f& homography, int maxFeatures, float shiftX,
                          float shiftY);

  // The reduced scale of step 5 for a picture of `size`: the chosen factor
  // (the picture is divided by it), 1.0 when no factor qualifies.
  static double matchingFactor(cv::Size size);
  // Sorts by distance and keeps the best 75 % (truncated) when there are
  // more than 10 pairs.
  static void keepBest(std::vector<MatchPair>& pairs);
  // The homography (module -> target) of the pairs, RHO at 3 pixels; empty
  // optional-like (false) when it cannot be formed.
  static bool homographyOfPairs(const std::vector<MatchPair>& pairs, cv::Matx33d& h);

  // The pairs of the last call, after keepBest.
  const std::vector<MatchPair>& lastPairs() const { return pairs_; }
  // Whether the last call's refinement improved on the feature estimate.
  bool lastRefined() const { return refined_; }

 private:
  bool collectPairs(const cv::Mat& moduleGrey, const cv::Mat& targetGrey, const cv::Mat& moduleMask,
                    const cv::Mat& targetMask, int maxFeatures, bool brisk, bool prior);

  EstimatorContext context_;
  std::vector<MatchPair> pairs_;
  bool refined_ = false;
};

}  // namespace MatrixBased
}  // namespace GeometryCalibration
