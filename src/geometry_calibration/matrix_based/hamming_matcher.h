// Cross-checked nearest neighbours of binary descriptors (ORB, BRISK) by
// Hamming distance: the pairs cv::BFMatcher(cv::NORM_HAMMING, true).match
// gives, in the same order with the same distances, but computed in one
// pass over the descriptor pairs with the processor's population count.
//
// A pair (q, t) is kept when train row t is the nearest to query row q and
// q is the nearest to t; among equally near rows the lower index is the
// nearest, as in OpenCV. OpenCV measures each descriptor pair through a
// traced library call and walks the pairs twice (once per direction); on
// 10,000 features a side that was most of target matching's time.
#pragma once

#include <vector>

#include <opencv2/core.hpp>

namespace GeometryCalibration {
namespace MatrixBased {

// `query` and `train` hold one descriptor per row (CV_8U, the same width).
// Descriptors whose width is not a whole number of 8-byte words, or of
// another type, are handed to cv::BFMatcher. Runs on the library's
// parallel loops when there are many pairs.
void crossCheckedHamming(const cv::Mat& query, const cv::Mat& train, std::vector<cv::DMatch>& matches);

}  // namespace MatrixBased
}  // namespace GeometryCalibration
