// Features of the rig's pictures and the pairs of pictures that overlap, from
// OpenCV's stitching blocks: SIFT features (cv::detail::computeImageFeatures)
// and the best-of-two-nearest matcher with a homography check per pair
// (cv::detail::BestOf2NearestMatcher).
//
// Keypoints are in the picture's own pixels (OpenCV convention) even when the
// features were searched on a reduced copy. Pixels that are black in every
// channel (the uncovered border of a fisheye circle, a frame) are left out of
// the search.
#pragma once

#include <atomic>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/stitching/detail/matchers.hpp>

namespace GeometryCalibration {
namespace Rig {

// SIFT features of each picture, searched on copies of at most `megapixels`.
std::vector<cv::detail::ImageFeatures> findFeatures(const std::vector<cv::Mat>& pictures, double megapixels,
                                                    const std::atomic<bool>& abort);

// All pairwise matches (n x n, entry i * n + j as cv::detail returns them).
// Each pair's agreeing matches are then chosen anew by what a turning camera
// can make: a rotation between the two pictures' rays at the rig's typical
// focal length (cv::detail::estimateFocal), found by RANSAC on two matches
// at a time, within kTurnTolerance pixels. The pair's homography becomes that
// rotation's (K R K^-1, points from the pictures' middles, as cv::detail's),
// its inliers those matches, its confidence inliers / (8 + 0.3 matches)
// (OpenCV zeroes it above 3, which would cut pictures that overlap much).
// A consensus of a plane seen from two places, or of a few points, that a
// free homography would take, does not link two pictures here.
// `typicalFocal` receives that focal length (0 when no pair gives one).
std::vector<cv::detail::MatchesInfo> matchPairs(const std::vector<cv::detail::ImageFeatures>& features,
                                                double* typicalFocal = nullptr);

}  // namespace Rig
}  // namespace GeometryCalibration
