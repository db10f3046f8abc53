// Pictures cut from one scene at known sub-pixel offsets, for the tests and
// the benchmark of neighbour stitching: the scene is sampled kFineScale
// times finer than the pictures, and a picture whose pixel (0, 0) is at fine
// pixel (X, Y) is the INTER_AREA reduction of the kFineScale W x kFineScale H
// block there, so moving the block by k fine pixels moves the picture by
// exactly k / kFineScale pixels.
#pragma once

#include <opencv2/core.hpp>

namespace Synthetic {

constexpr int kFineScale = 8;

// `photograph` scaled up (INTER_CUBIC, keeping its aspect) until it covers
// `pictureArea` picture pixels at kFineScale fine pixels each.
cv::Mat fineScene(const cv::Mat& photograph, cv::Size pictureArea);

// The `size` picture whose pixel (0, 0) is fine-scene pixel `at`.
cv::Mat cutFine(const cv::Mat& scene, cv::Point at, cv::Size size);

// `picture` x gain + offset plus Gaussian noise of `sigma` levels (one draw
// of `rng` per pixel and channel), in the picture's own type.
cv::Mat withGainAndNoise(const cv::Mat& picture, double gain, double offset, double sigma, cv::RNG& rng);

}  // namespace Synthetic
