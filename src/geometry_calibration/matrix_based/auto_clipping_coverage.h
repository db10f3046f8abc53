// The maps automatic clipping searches: where the modules cover the panorama
// (the coverage map), how that becomes a value map in each mode, and what is
// read back from a rectangle found in it (offsets, gaps, inspection picture).
//
// The coverage map is a raster of the panorama surface's unit square (the
// panorama) whose elements tile it: element (X, Y) of a W x H raster is the
// square X / W .. (X + 1) / W, Y / H .. (Y + 1) / H. Its value is the number
// of modules that cover the element, in module units: 1.0 where one module
// covers the whole element, fractions where a module's outline crosses it
// (its picture is warped with linear interpolation, its pixels taken as
// squares, so the 0.5 contour is the module's outline: pixel (x, y) is
// centred on texture (x / w, y / h) and covers half a pixel around it, as the
// panorama renderer draws it).
#pragma once

#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>
#include <opencv2/core/matx.hpp>
#include <opencv2/core/types.hpp>

#include "orbivane/camera/orbivane.h"
#include "orbivane/utils/size.h"
#include "orbivane/utils/surface_quad.h"

namespace GeometryCalibration {
namespace MatrixBased {
namespace AutoClippingCoverage {

// Width of the raster when the camera has no panorama size (pixels).
constexpr int kDefaultRasterWidth = 1920;
// Longest side of any raster (pixels); larger panoramas are rastered smaller,
// keeping their aspect ratio (offsets are normalised, so nothing else changes).
constexpr int kMaxRasterSide = 8192;
// Side of the picture mask of a module that has no picture (pixels).
constexpr int kMaskSideWithoutPicture = 512;
// Scale of 8-bit coverage to module units (1 / 255).
constexpr double kEightBitScale = 0.003921568859368563;
// How far below a threshold coverage may lie and still reach it (one 8-bit
// level: the warped masks are 8-bit).
constexpr float kCoverageTolerance = 1.0f / 255.0f;
// Coverage (module units) from which a value-mode element counts as covered
// when gaps are listed.
constexpr float kValueModeCovered = 0.5f;
// What an element that is not well covered costs in the geometry-mode value
// map, in well-covered elements (which are worth 1 each).
constexpr float kGeometryHolePenalty = 16.0f;
// A module corner further than this from the panorama (surface units) counts
// as one that does not project: its picture lies almost on the horizon.
constexpr float kFarAway = 1.0e4f;
// Most gaps listed.
constexpr std::size_t kMaxGaps = 256;

// A module that takes part in the coverage.
struct Footprint {
  std::wstring name;
  Utils::SurfaceQuad quad;  // where its unit square lands, normalised surface units
  cv::Matx33d homography;   // texture coordinates -> surface (the final matrix's plane part)
  cv::Size picture;         // its picture size in pixels; empty when it has none
};

// The modules whose picture projects onto the surface through their final
// matrix (module matrix x clip matrix), in camera order. A module without
// matrix geometry, with unreadable clip-matrix values, with a singular or
// non-finite matrix, or
// whose unit square does not project (a corner on or behind the horizon) is
// left out, with one message for it in `skipped`. So is a module with a corner
// further than kFarAway from the panorama.
std::vector<Footprint> collectFootprints(const CameraDescription::Orbivane& camera, std::vector<std::string>& skipped);

// The raster of the panorama: the camera's panorama size when it is set.
// Otherwise kDefaultRasterWidth wide and as high as the modules' pictures
// say the panorama is: a module whose picture of w x h pixels spans a box of
// dx x dy surface units puts the panorama at w / dx by h / dy picture
// pixels; the height comes from the mean of those. Without any picture the
// height is 9/16 of the width. Both sides are kept within 1 ..
// kMaxRasterSide.
cv::Size rasterSize(const Utils::Size& panoramaSize, const std::vector<Footprint>& footprints);

// Accumulates the modules' coverage on the raster (CV_32F, module units):
// each module's picture area (an 8-bit mask of its picture size, or
// kMaskSideWithoutPicture square without picture) is warped onto the raster
// through its homography (picture pixel -> texture -> surface -> raster
// element) and added with addWeighted.
void accumulateCoverage(const std::vector<Footprint>& footprints, cv::Size raster, cv::Mat& coverage);

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
