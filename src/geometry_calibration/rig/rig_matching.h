// Features of the rig's pictures and the pairs of pictures that overlap, from
// OpenCV's stitching blocks: SIFT features (cv::detail::computeImageFeatures)
// and the best-of-two-nearest matching with a homography check per pair
// (cv::detail::BestOf2NearestMatcher's, each picture's search tree built
// once).
//
// Keypoints are in the picture's own pixels (OpenCV convention) even when the
// features were searched on a reduced copy. Pixels that are black in every
// channel (the uncovered border of a fisheye circle, a frame) are left out of
// the search.
#pragma once

#include <atomic>
#include <functional>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/stitching/detail/matchers.hpp>

namespace GeometryCalibration {
namespace Rig {

// SIFT features of each picture, searched on copies of at most `megapixels`,
// with SIFT's contrast threshold `contrast` (OpenCV's default 0.04; lower
// finds features in plain sky and walls too).
std::vector<cv::detail::ImageFeatures> findFeatures(const std::vector<cv::Mat>& pictures, double megapixels,
                                                    const std::atomic<bool>& abort, double contrast = 0.04);

// SIFT features of one picture inside `region` (picture pixels) only, found
// at the scale findFeatures searches the whole picture at; positions in the
// picture's pixels. Much cheaper than the whole picture for a small region.
cv::detail::ImageFeatures findFeaturesIn(const cv::Mat& picture, cv::Rect region, double megapixels, double contrast);

// Every pair's matches as cv::detail::BestOf2NearestMatcher makes them, n x
// n, entry i * n + j for pictures i -> j (each way the nearest feature that
// clearly beats the second, by a FLANN search, the two ways joined; then a
// homography by RANSAC, refitted on its inliers). That matcher builds both
// pictures' search trees again for every pair it compares, most of its time
// on a rig of nine pictures; here each picture's tree is built once and
// searched with all the other pictures.
std::vector<cv::detail::MatchesInfo> nearestPairs(const std::vector<cv::detail::ImageFeatures>& features);

// All pairwise matches (n x n, entry i * n + j as cv::detail returns them).
// Each pair's agreeing matches are then chosen anew by what a turning camera
// can make: a rotation between the two pictures' rays at the rig's typical
// focal length (cv::detail::estimateFocal over the pairs that link), found
// by RANSAC on two matches at a time, within kTurnTolerance pixels. The pair's homography becomes that
// rotation's (K R K^-1, points from the pictures' middles, as cv::detail's),
// its inliers those matches, its confidence inliers / (8 + 0.3 matches)
// (OpenCV zeroes it above 3, which would cut pictures that overlap much).
// A consensus of a plane seen from two places, or of a few points, that a
// free homography would take, does not link two pictures here.
// `typicalFocal` receives that focal length (0 when no pair gives one).
std::vector<cv::detail::MatchesInfo> matchPairs(const std::vector<cv::detail::ImageFeatures>& features,
                                                double* typicalFocal = nullptr);

// The pair's agreeing matches among `p.matches` (queryIdx in `a`, trainIdx in
// `b`) chosen anew by a turn between the two pictures at `focal`, as
// matchPairs does: fills p.H, p.inliers_mask and p.num_inliers (H empty when
// too few agree).
void fitTurn(const cv::detail::ImageFeatures& a, const cv::detail::ImageFeatures& b, double focal,
             cv::detail::MatchesInfo& p);

// The rotation that best takes rays `from` to `to` (Kabsch: the SVD of
// their covariance, never a reflection), over the indices `use`.
cv::Matx33d bestRotation(const std::vector<cv::Vec3d>& from, const std::vector<cv::Vec3d>& to,
                         const std::vector<int>& use);

// Matches between `a` and `b` when where each feature of `a` lies in `b` is
// already known to within `radius` pixels (`predict` gives it; false: it
// lies outside `b`): the nearest descriptor among the features of `b` that
// near, kept when it clearly beats the next one there and the two are each
// other's best.
std::vector<cv::DMatch> guidedMatches(const cv::detail::ImageFeatures& a, const cv::detail::ImageFeatures& b,
                                      const std::function<bool(cv::Point2f, cv::Point2f&)>& predict, double radius);

}  // namespace Rig
}  // namespace GeometryCalibration
