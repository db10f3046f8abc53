// The maps automatic clipping searches, made from the coverage raster
// (geometry/coverage.h): how coverage becomes a value map in each mode, and
// what is read back from a rectangle found in it (offsets, gaps, inspection
// picture).
#pragma once

#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>
#include <opencv2/core/matx.hpp>
#include <opencv2/core/types.hpp>


namespace GeometryCalibration {
namespace MatrixBased {
namespace AutoClippingCoverage {

// How far below a threshold coverage may lie and still reach it (one 8-bit
// level: the warped masks are 8-bit).
constexpr float kCoverageTolerance = 1.0f / 255.0f;
// Coverage (module units) from which a value-mode element counts as covered
// when gaps are listed.
constexpr float kValueModeCovered = 0.5f;
// What an element that is not well covered costs in the geometry-mode value
// map, in well-covered elements (which are worth 1 each).
constexpr float kGeometryHolePenalty = 16.0f;
// Most gaps listed.
constexpr std::size_t kMaxGaps = 256;

// The value-mode map: value(p) = v(p) * c(p) - weight * (1 - c(p)) with c the
// coverage clamped to 0..1 and v the configured values resized to the raster
// (linear). Covered elements are worth their configured value, uncovered ones
// cost `weight`, and partly covered ones lie in between.
void valueModeMap(const cv::Mat& coverage, const cv::Mat& values, float weight, cv::Mat& map);

// 255 where the coverage is at least `needed` module units (less
// kCoverageTolerance), else 0 (CV_8U).
void wellCoveredMask(const cv::Mat& coverage, float needed, cv::Mat& mask);

// The geometry-mode map: 1 where `wellCovered` is set, -kGeometryHolePenalty
// elsewhere (CV_32F).
void geometryModeMap(const cv::Mat& wellCovered, cv::Mat& map);

// The best rectangle of aspect ratio `aspect` (width / height) inside `rect`:
// as wide (or as high) as `rect`, and slid along the other axis to the
// position of greatest sum (the one nearest the middle on equal sums).
// `integral` is the integral image (CV_64F) of the value map.
cv::Rect fitAspect(const cv::Rect& rect, double aspect, const cv::Mat& integral);

// The holes inside `rect`: the 8-connected regions where `wellCovered` is 0,
// as five numbers each (x, y, width, height of the region's bounding box in
// raster elements, and its element count), largest first (then top to bottom,
// left to right), at most kMaxGaps of them.
std::vector<int> listGaps(const cv::Mat& wellCovered, const cv::Rect& rect);

// The largest rectangle (most elements) in which `wellCovered` is set
// throughout; the topmost, then leftmost of equal area. Empty when no element
// is set. O(W x H): the largest rectangle under each row's histogram of
// set elements above it.
cv::Rect largestHoleFreeRect(const cv::Mat& wellCovered);

// The rectangle as distances from the panorama's left, top, right and bottom
// edges in normalised surface units.
std::vector<float> offsetsOf(const cv::Rect& rect, cv::Size raster);

// The inspection picture (BGR): coverage in grey (black uncovered, brighter
// with each module), elements that are not well covered in red, and the
// rectangle in green (thickness 2, line type 8).
cv::Mat drawInspection(const cv::Mat& coverage, const cv::Mat& wellCovered, const cv::Rect& rect);

}  // namespace AutoClippingCoverage
}  // namespace MatrixBased
}  // namespace GeometryCalibration
