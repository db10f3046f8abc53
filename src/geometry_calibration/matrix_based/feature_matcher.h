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
// that keep features off the edge of the module's content and off every
// pixel a picture shows nothing at (black, uncovered parts).
//
// The search widens in up to three stages and stops at the first whose
// result the pictures support (at least kLeastSupport pairs agree with its
// homography, and the correlation over the overlap after it is at least
// kLeastCorrelation):
//  1. near the current placement: both pictures cut to where the start
//     homography draws the module, widened by the search radius (0.15 of
//     the drawn part's larger side); the strongest 2000 ORB features of
//     each cut, matched (cross-checked Hamming, hamming_matcher.h) only with
//     partners within about a sixth of the cut of where the start
//     homography puts them; homography by RHO at 3 pixels;
//  2. anywhere: all ORB features (the detector with its fixed settings,
//     10000 from the driver) of both whole pictures, cross-checked Hamming,
//     homography by RANSAC at 3 pixels; this finds a module placed half a
//     picture or more from its true place;
//  3. anywhere with BRISK features (no more of them than ORB may keep), as
//     in 2, when 2 forms no homography at all.
// In each stage at most 1000 pairs are collected (spread over the module
// picture), the best 75 % by distance kept when there are more than 10.
// When no stage is supported, the best-supported homography found is passed
// on (the driver's verdict then rejects it). The estimate is then refined by
// direct alignment and the better of the two kept.
#pragma once

#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#include <opencv2/features2d.hpp>

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
  // The homography (module -> target) of the pairs, RHO (or `method`, an
  // OpenCV robust method) at 3 pixels; false when it cannot be formed.
  static bool homographyOfPairs(const std::vector<MatchPair>& pairs, cv::Matx33d& h, int method = cv::RHO);

  // The stages of the search, in the order they are tried.
  enum class Search { kNearPlacement, kAnywhere, kBriskAnywhere };

  // The pairs of the last call's chosen stage, after keepBest.
  const std::vector<MatchPair>& lastPairs() const { return pairs_; }
  // Whether the last call's refinement improved on the feature estimate.
  bool lastRefined() const { return refined_; }

 private:
  // One stage's outcome: its pairs, their homography (module work -> target
  // work pixels), how many pairs agree with it and the correlation after it.
  struct Candidate {
    Search search = Search::kNearPlacement;
    std::vector<MatchPair> pairs;
    cv::Matx33d homography = cv::Matx33d::eye();
    bool found = false;
    int agreeing = 0;
    double correlation = -1.0;  // -1 when it could not be measured
    bool supported() const;
    bool betterThan(const Candidate& other) const;
  };

  // A picture at the matching scale: padded, with its detection mask.
  struct Prepared {
    cv::Mat padded, detect;
  };
  struct Features {
    std::vector<cv::KeyPoint> keys;
    cv::Mat descriptors;
  };
  // `grey` reduced to `reduced`, padded; the detection mask keeps features
  // off the edges of `validity` (empty: all valid).
  static Prepared prepare(const cv::Mat& grey, const cv::Mat& validity, cv::Size reduced);
  // The features of a stage in both pictures; false when aborted.
  bool detectFeatures(const Prepared& module, const Prepared& target, int maxFeatures, Search search,
                      Features& moduleFeatures, Features& targetFeatures) const;
  // Cross-checked matches between features within `radius` padded pixels'
  // tiles of where `placed` (padded module -> padded target pixels) puts
  // them; false when aborted.
  bool matchNearPlacement(const Features& module, const Features& target, const cv::Matx33d& placed, int radius,
                          cv::Size padded, std::vector<cv::DMatch>& matches) const;
  // Fills pairs_ with the stage's pairs; false when aborted.
  bool collectPairs(const cv::Mat& moduleGrey, const cv::Mat& targetGrey, const cv::Mat& moduleMask,
                    const cv::Mat& targetMask, int maxFeatures, Search search, const cv::Matx33d& start);
  // Runs one stage and judges its homography on `pictures`; false when aborted.
  bool runStage(const WorkPictures& pictures, const cv::Mat& moduleContrast, const cv::Mat& targetContrast,
                int maxFeatures, Search search, const cv::Matx33d& start, Candidate& candidate);

  // The last pairs drawn on the equalised colour pictures (trace level).
  void drawMatchesForInspection(const cv::Mat& moduleEqualised, const cv::Mat& targetEqualised) const;

  EstimatorContext context_;
  std::vector<MatchPair> pairs_;
  bool refined_ = false;
};

}  // namespace MatrixBased
}  // namespace GeometryCalibration
