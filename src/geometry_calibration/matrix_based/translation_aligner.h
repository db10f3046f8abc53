// Coarse-to-fine translation alignment of two grey pictures, the measuring
// step of neighbour stitching.
//
// Model: the second picture, scaled by (sx, sy) and moved by t, lies on the
// first: first(t + S q) ~ g * second(q) + b for pixel q of the second picture,
// S = diag(sx, sy), with an unknown gain g and offset b (neighbouring modules
// expose differently). All translations are in pixels of the first picture,
// pixel centres on integer coordinates (OpenCV's convention); a Gaussian
// pyramid level l holds the picture at 1 / 2^l of that scale.
//
// Each level runs a fixed number of translation-only Gauss-Newton
// (Lucas-Kanade) steps over the comparison rectangle: the first picture's
// gradients (five-tap derivative kernels) and absolute Laplacian (which
// weighs down pixels of strong curvature, where the linear model fits worst)
// are computed once per level; each step resamples the second picture into
// the rectangle with the affine warp (scale and translation, separable cubic
// B-spline at exact sub-pixel positions: OpenCV's warpAffine rounds positions
// to 1/32 pixel and its kernels bias sub-pixel estimates on fine texture),
// matches gain and offset, and solves a 2x2 system for the update, which is
// scaled by `step`. The gain may change linearly over the compared rectangle
// (neighbouring modules darken towards their edges in opposite directions
// across their overlap): its slopes are fitted by least squares, its level
// is matched by the two pictures' spread as before.
#pragma once

#include <vector>

#include <opencv2/core.hpp>

namespace GeometryCalibration {
namespace MatrixBased {

// The deepest usable pyramid level: `levels` reduced until both dimensions
// divided by 2^L are at least 40 pixels; never below 0. Alignment starts at
// level L - 1, so L = 0 means no level is processed.
int pyramidDepth(int levels, cv::Size size);

// The comparison rectangle for translation (x, y) (whole pixels) on a level
// of `size` (cols x rows). Mode 0: the whole picture. Mode 1: a 15-pixel strip
// from (x, y): cols wide and 15 high when cols - x >= rows - y, else 15 wide
// and rows high. Mode 2 (the overlap): from (x, y), cols wide and rows - y
// high when cols - x >= rows - y, else cols - x wide and rows high. The
// rectangle is returned as the rule gives it; the aligner clips it to the
// pictures.
cv::Rect comparisonRectangle(int mode, int x, int y, cv::Size size);

struct TranslationResult {
  cv::Point2d translation;  // pixels of the first picture
  int depth = 0;            // pyramid depth L used; 0: nothing was processed
  double correlation = 0;   // normalised correlation over the last rectangle, -1..1 (0 if none)
  bool clamped = false;     // the result was held within the overlap
  int levelsAligned = 0;    // levels on which at least one step was made
  int comparedPixels = 0;   // pixels of the first picture compared on the finest level aligned
};

class TranslationAligner {
 public:
  static constexpr int kOverlapMode = 2;

  TranslationAligner(int levels, int iterations, float step, int mode = kOverlapMode);

  // Aligns `second` to `first` (both single-channel 8-bit), starting from
  // `start`. Prints "Starting t = (x,y)" on standard error. A picture that
  // is empty or too small for one level returns `start` unchanged; an
  // update that is not finite or would leave the overlap is refused.
  TranslationResult align(const cv::Mat& first, const cv::Mat& second, cv::Point2d start, double sx, double sy);

  // Restricts the comparison to the pixels of the first picture where `mask`
  // (8-bit, the first picture's size) is non-zero, for example where a
  // pre-warped second picture has content. An empty mask compares wherever
  // the rectangle rule allows (the default). Kept for later calls.
  void setFirstMask(const cv::Mat& mask) { firstMask_ = mask; }
  // The comparison rectangle's rule (0, 1 or 2; see comparisonRectangle).
  void setMode(int mode) { mode_ = mode; }

 private:
  // Prepares the per-level data of the first picture over `rect`; false when
  // the rectangle carries no structure to align on.
  bool prepareLevel(const cv::Mat& first, const cv::Rect& rect, const cv::Mat& mask);
  // The comparison rectangle of a level with the second picture placed at
  // `t` (empty when it cannot be sampled there); first and second: the
  // level's picture sizes.
  cv::Rect levelRectangle(const cv::Point2d& t, double sx, double sy, cv::Size first, cv::Size second) const;
  // The first picture's mask at a level of `size` (empty: none was set);
  // `full` is the first picture's size.
  cv::Mat maskAtLevel(cv::Size full, int level, cv::Size size) const;
  // The level's Gauss-Newton steps from `t` on the prepared level; true
  // when at least one step was made.
  bool alignLevel(const cv::Rect& rect, const cv::Mat& secondFloat, cv::Point2d& t, double sx, double sy,
                  TranslationResult& result);
  // One Gauss-Newton step on the current level; updates `t`. Returns false
  // when the system is singular (no update made).
  bool stepLevel(const cv::Rect& rect, cv::Point2d& t, double sx, double sy, double* correlation);
  // The step's parts. Rows of the spline coefficients resampleRows put
  // into rowBuffer_ (the second picture resampled horizontally where the
  // rectangle sees it at `t`).
  struct RowSpan {
    int first = 0, last = 0;
  };
  RowSpan resampleRows(const cv::Rect& rect, const cv::Point2d& t, double sx, double sy);
  // The weighted sums of a step over the rectangle: per row b, bb, ab, gx b,
  // gy b, then with the column position xn: b, bb, xn bb, ab, gx b, gy b
  // (b the resampled second picture, a the first); and over rows with the
  // row position yn: yn b, yn bb, yn xn bb, yn^2 bb, yn ab, yn gx b, yn gy b.
  struct StepSums {
    static constexpr int kRowSums = 11;
    double sum[kRowSums] = {};
    double ySum[7] = {};
  };
  StepSums sumStep(const cv::Rect& rect, const cv::Point2d& t, double sy, const RowSpan& span);
  // The gain's slopes across the overlap (0 when they cannot be fitted).
  void gainSlopes(const StepSums& sums, double& hx, double& hy) const;
  // The update for the right-hand side (ex, ey); false when the level has
  // too little gradient energy.
  bool solveStep(double ex, double ey, cv::Point2d& delta) const;

  int levels_;
  int iterations_;
  float step_;
  int mode_;
  cv::Mat firstMask_;

  // Per-level working data, reused between levels and calls.
  std::vector<cv::Mat> firstPyramid_, secondPyramid_;  // 8-bit Gaussian pyramids
  std::vector<cv::Mat> firstFloats_, secondFloats_;    // their levels as 32-bit float
  cv::Mat firstLevel_;                                 // the level being aligned (first picture)
  // Working images of one level, kept per level so that repeated calls on
  // pictures of one size reuse their memory.
  struct LevelBuffers {
    cv::Mat gradX, gradY, laplacian, weight;  // over the comparison rectangle
    cv::Mat coefficients;                     // spline coefficients of the sampled part of the second picture
  };
  std::vector<LevelBuffers> buffers_;
  LevelBuffers* current_ = nullptr;  // the level being aligned
  cv::Point origin_;                 // where the sampled part starts in the level's picture
  std::vector<float> columnWeights_;  // 4 cubic weights per rectangle column
  std::vector<int> columnIndex_;      // first source column per rectangle column
  std::vector<float> rowBuffer_;      // horizontally resampled rows of the second picture
  std::vector<float> columnPosition_; // each rectangle column's position, -1..1
  double hxx_ = 0, hxy_ = 0, hyy_ = 0;
  double sumW_ = 0, sumA_ = 0, sumAA_ = 0, sumGx_ = 0, sumGy_ = 0, sumGxA_ = 0, sumGyA_ = 0;
};

}  // namespace MatrixBased
}  // namespace GeometryCalibration
