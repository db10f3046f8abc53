// Direct (intensity-based) alignment of two grey pictures under a planar
// motion, the sub-pixel refinement step of target matching.
//
// Model: fixed(x) ~ g * moving(W(x)) + b for the pixels x of the fixed
// picture, where W is a homography from fixed pixels to moving pixels and
// g, b an unknown gain and offset (the module and the target expose
// differently). With `spatialGain` the gain varies smoothly over the moving
// picture, g = g(u, v) a quadratic in the moving picture's coordinates
// normalised to -1..1 (six terms: 1, u, v, u^2, v^2, uv): a module's
// vignetting, which may darken its corners by a fifth, then no longer pulls
// the alignment towards the brighter middle. Pixel centres sit on integer
// coordinates (OpenCV's convention).
//
// Method: inverse-compositional Gauss-Newton over a Gaussian pyramid. The
// fixed picture's gradients give the Jacobian (once per level); each
// iteration samples the moving picture bilinearly at the exact warped
// positions (OpenCV's warps round positions to 1/32 pixel), fits gain and
// offset by linear regression, and solves the normal equations for the
// update, which is composed inversely into W. Parameters are expressed in
// coordinates centred on the picture and scaled to about -1..1 so that the
// system is well conditioned. Both pictures are smoothed slightly (sigma
// 0.7 pixel) at the finest level, which keeps the bilinear interpolation
// from biasing the sub-pixel result.
//
// The motion model may be a full homography (8 parameters), an affine map
// (6) or a translation (2); the latter two are used on small patches by the
// grid estimator.
#pragma once

#include <vector>

#include <opencv2/core.hpp>

namespace GeometryCalibration {
namespace MatrixBased {

enum class AlignmentMotion { kTranslation, kAffine, kHomography };

struct AlignmentOptions {
  AlignmentMotion motion = AlignmentMotion::kHomography;
  int levels = 3;             // pyramid levels (reduced so the coarsest level is at least 32 pixels a side)
  int iterations = 12;        // most Gauss-Newton steps on a level
  double minimumStep = 2e-3;  // a level stops when no corner of the region moves more than this (pixels of the level)
  int minimumPixels = 64;     // fewer valid pixels than this and a level is skipped
  bool spatialGain = false;   // a quadratic gain over the moving picture instead of one gain
};

struct AlignmentResult {
  cv::Matx33d warp = cv::Matx33d::eye();  // fixed pixels -> moving pixels
  double meanSquaredResidual = 0.0;       // after gain and offset, over the valid pixels (grey levels^2)
  double correlation = 0.0;               // normalised correlation over the valid pixels, -1..1 (one gain)
  double gain = 1.0, offset = 0.0;        // with spatialGain: the gain at the moving picture's middle
  int validPixels = 0;
  bool ok = false;  // false: nothing usable was measured (no texture, too small, diverged); warp = start
};

class DirectAlignment {
 public:
  explicit DirectAlignment(AlignmentOptions options = AlignmentOptions());

  // The fixed picture's valid pixels (8-bit, non-zero; empty: all) for the
  // next calls: pixels it shows nothing at (the black, uncovered parts of a
  // panorama) are left out of every cost.
  void setFixedMask(const cv::Mat& mask) { fixedMask_ = mask; }

  // Aligns `moving` to `fixed` (both single-channel 8-bit or 32-bit float)
  // starting from `start`. `movingMask` (8-bit, optional) marks the moving
  // picture's valid pixels (non-zero); `region` limits the fixed pixels
  // used (empty: the whole picture).
  // `atStart` (optional) receives the measurement of `start` at full
  // resolution, as evaluate would give it, without building the pictures twice.
  AlignmentResult align(const cv::Mat& fixed, const cv::Mat& moving, const cv::Mat& movingMask,
                        const cv::Matx33d& start, cv::Rect region = cv::Rect(), AlignmentResult* atStart = nullptr);

  // The residual and correlation of `warp` at full resolution, without
  // changing it (same smoothing and gain/offset fit as `align`).
  AlignmentResult evaluate(const cv::Mat& fixed, const cv::Mat& moving, const cv::Mat& movingMask,
                           const cv::Matx33d& warp, cv::Rect region = cv::Rect());

  // A pyramid level as the measurements read it, at one warp (defined in
  // direct_alignment.cpp).
  struct LevelPixels;

 private:
  struct Level {
    cv::Mat fixed, moving, mask, fixedMask, gradX, gradY;  // fixedMask empty: every fixed pixel counts
    cv::Rect region;
    double scale = 1.0;  // level pixels per full-resolution pixel
  };
  void buildPyramid(const cv::Mat& fixed, const cv::Mat& moving, const cv::Mat& movingMask, cv::Rect region,
                    int levels, bool gradients);
  // One pass over the level: samples the moving picture with `warp`,
  // fits gain and offset, and (when `hessian` is given) accumulates the
  // normal equations of the update.
  AlignmentResult measure(const Level& level, const cv::Matx33d& warp, cv::Matx<double, 8, 8>* hessian,
                          cv::Vec<double, 8>* gradient, bool buildHessian);
  // The measurement with a spatial gain: the gain fitted at the warp first,
  // then the geometric normal equations under it. `result` carries the warp.
  AlignmentResult measureSpatial(const Level& level, const LevelPixels& pixels, AlignmentResult result,
                                 cv::Matx<double, 8, 8>* hessian, cv::Vec<double, 8>* gradient, bool buildHessian);
  // The measurement with one gain and offset.
  AlignmentResult measureSingle(const LevelPixels& pixels, AlignmentResult result, cv::Matx<double, 8, 8>* hessian,
                                cv::Vec<double, 8>* gradient, bool buildHessian);

  AlignmentOptions options_;
  cv::Mat fixedMask_;
  std::vector<Level> levels_;
  cv::Mat sampled_;   // moving picture sampled on the region (float)
  cv::Mat valid_;     // 8-bit validity of `sampled_`
};

// Corner displacement of a homography update, in pixels: the largest
// distance a corner of `rect` moves under `h`.
double cornerDisplacement(const cv::Matx33d& h, const cv::Rect2d& rect);

}  // namespace MatrixBased
}  // namespace GeometryCalibration
