// Coarse-to-fine translation alignment (see translation_aligner.h).
#include "geometry_calibration/matrix_based/translation_aligner.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <iostream>

#include <opencv2/imgproc.hpp>

namespace GeometryCalibration {
namespace MatrixBased {
namespace {

constexpr int kMinimumLevelSize = 40;  // pixels, the coarsest level's smaller side at least
constexpr int kStripWidth = 15;        // pixels, the strip of mode 1
constexpr int kSampleMargin = 2;       // pixels of the second picture kept clear for the cubic kernel
constexpr int kMinimumRectangle = 8;   // pixels; a smaller comparison rectangle is not aligned on
constexpr double kMaximumStep = 2.0;   // pixels of the level: the largest single update
constexpr int kSplineSettle = 8;       // pixels for the spline prefilter to forget a cut edge (|z|^8 < 3e-5)
// Pixels the translation may move within a level before samples reach the
// edge of the prefiltered part (beyond it the edge coefficient is repeated).
constexpr int kSampleSlack = 4;
// Gradient energy per pixel (grey levels squared per pixel squared) below
// which a picture counts as without texture.
constexpr double kMinimumGradientEnergy = 1e-4;
// Smallest eigenvalue of the 2x2 system relative to the largest for which
// both directions are solved; below it only the well-determined direction is
// updated (an edge pins the translation across it, not along it).
constexpr double kConditionLimit = 1e-3;
// The most the gain may change from the middle of the compared rectangle to
// its edge, as a share of the gain; a steeper fit is not vignetting and is
// not used.
constexpr double kMaximumGainSlope = 0.5;

// Cubic B-spline weights of the taps at -1, 0, 1, 2 for the fractional
// position f in [0, 1); they act on spline coefficients (splinePrefilter).
inline void cubicWeights(float f, float* w) {
  const float g = 1.0f - f;
  const float f2 = f * f;
  const float f3 = f2 * f;
  w[0] = g * g * g * (1.0f / 6.0f);
  w[1] = (4.0f - 6.0f * f2 + 3.0f * f3) * (1.0f / 6.0f);
  w[2] = (1.0f + 3.0f * f + 3.0f * f2 - 3.0f * f3) * (1.0f / 6.0f);
  w[3] = f3 * (1.0f / 6.0f);
}

// Turns samples into cubic B-spline coefficients in place (the recursive
// filter of Unser et al., mirror boundaries), so that interpolating with
// cubicWeights passes exactly through the samples. Interpolation of this
// kind carries far less sub-pixel bias on fine texture than cubic
// convolution or bilinear sampling.
void splinePrefilter(cv::Mat& m) {
  const float z = static_cast<float>(std::sqrt(3.0) - 2.0);
  const int horizon = 12;  // |z|^12 < 1e-6
  const int cols = m.cols;
  const int rows = m.rows;
  if (cols >= 2) {
    for (int y = 0; y < rows; ++y) {
      float* c = m.ptr<float>(y);
      float sum = c[0];
      float zk = z;
      for (int k = 1; k < std::min(horizon, cols); ++k, zk *= z) sum += zk * c[k];
      c[0] = sum;
      for (int x = 1; x < cols; ++x) c[x] += z * c[x - 1];
      c[cols - 1] = (z / (z * z - 1.0f)) * (c[cols - 1] + z * c[cols - 2]);
      for (int x = cols - 2; x >= 0; --x) c[x] = z * (c[x + 1] - c[x]);
      for (int x = 0; x < cols; ++x) c[x] *= 6.0f;
    }
  }
  if (rows >= 2) {
    float* first = m.ptr<float>(0);
    float zk = z;
    for (int k = 1; k < std::min(horizon, rows); ++k, zk *= z) {
      const float* r = m.ptr<float>(k);
      for (int x = 0; x < cols; ++x) first[x] += zk * r[x];
    }
    for (int y = 1; y < rows; ++y) {
      float* r = m.ptr<float>(y);
      const float* p = m.ptr<float>(y - 1);
      for (int x = 0; x < cols; ++x) r[x] += z * p[x];
    }
    {
      float* last = m.ptr<float>(rows - 1);
      const float* before = m.ptr<float>(rows - 2);
      const float k = z / (z * z - 1.0f);
      for (int x = 0; x < cols; ++x) last[x] = k * (last[x] + z * before[x]);
    }
    for (int y = rows - 2; y >= 0; --y) {
      float* r = m.ptr<float>(y);
      const float* n = m.ptr<float>(y + 1);
      for (int x = 0; x < cols; ++x) r[x] = z * (n[x] - r[x]);
    }
    m *= 6.0;
  }
}

bool finite(const cv::Point2d& p) { return std::isfinite(p.x) && std::isfinite(p.y); }

}  // namespace

int pyramidDepth(int levels, cv::Size size) {
  int depth = std::min(levels, 30);
  while (depth > 0 && ((size.width >> depth) < kMinimumLevelSize || (size.height >> depth) < kMinimumLevelSize)) {
    --depth;
  }
  return std::max(depth, 0);
}

cv::Rect comparisonRectangle(int mode, int x, int y, cv::Size size) {
  const int cols = size.width;
  const int rows = size.height;
  const bool wide = cols - x >= rows - y;
  switch (mode) {
    case 0:
      return cv::Rect(0, 0, cols, rows);
    case 1:
      return wide ? cv::Rect(x, y, cols, kStripWidth) : cv::Rect(x, y, kStripWidth, rows);
    default:
      return wide ? cv::Rect(x, y, cols, rows - y) : cv::Rect(x, y, cols - x, rows);
  }
}

TranslationAligner::TranslationAligner(int levels, int iterations, float step, int mode)
    : levels_(levels), iterations_(iterations), step_(step), mode_(mode) {}

TranslationResult TranslationAligner::align(const cv::Mat& first, const cv::Mat& second, cv::Point2d start,
                                            double sx, double sy) {
  TranslationResult result;
  result.translation = start;
  const bool usable = !first.empty() && !second.empty() && first.type() == CV_8UC1 && second.type() == CV_8UC1 &&
                      finite(start) && std::isfinite(sx) && std::isfinite(sy) && sx > 0 && sy > 0;
  const cv::Size smaller(std::min(first.cols, second.cols), std::min(first.rows, second.rows));
  const int depth = usable ? pyramidDepth(levels_, smaller) : 0;

  if (depth > 0) {
    cv::buildPyramid(first, firstPyramid_, depth, cv::BORDER_REFLECT_101);
    cv::buildPyramid(second, secondPyramid_, depth, cv::BORDER_REFLECT_101);
  }
  char starting[80];
  std::snprintf(starting, sizeof starting, "Starting t = (%.2f,%.2f)\n", start.x, start.y);
  std::cerr << starting << std::flush;  // through the stream, so a host that redirects std::cerr gets it
  if (depth == 0) return result;
  result.depth = depth;

  // The overlap at full scale bounds how far the result may move.
  const cv::Rect fullRect = comparisonRectangle(mode_, cvRound(start.x), cvRound(start.y), first.size()) &
                            cv::Rect(0, 0, first.cols, first.rows);
  if (fullRect.empty()) return result;

  cv::Point2d t = start;
  if (depth != 1) t *= 1.0 / double(1 << (depth - 1));

  for (int level = depth - 1; level >= 0; --level) {
    // Float copies of the level (kept per level, so repeated calls on
    // pictures of one size allocate nothing).
    const std::size_t index = static_cast<std::size_t>(level);
    if (firstFloats_.size() <= index) firstFloats_.resize(index + 1);
    if (secondFloats_.size() <= index) secondFloats_.resize(index + 1);
    cv::Mat& firstFloat = firstFloats_[index];
    cv::Mat& secondFloat = secondFloats_[index];
    firstPyramid_[index].convertTo(firstFloat, CV_32F);
    secondPyramid_[index].convertTo(secondFloat, CV_32F);
    firstLevel_ = firstFloat;
    if (buffers_.size() <= index) buffers_.resize(index + 1);
    current_ = &buffers_[index];

    const cv::Rect rect = levelRectangle(t, sx, sy, firstFloat.size(), secondFloat.size());
    const cv::Mat levelMask = maskAtLevel(first.size(), level, firstFloat.size());
    if (rect.width >= kMinimumRectangle && rect.height >= kMinimumRectangle &&
        prepareLevel(firstFloat, rect, levelMask) && alignLevel(rect, secondFloat, t, sx, sy, result)) {
      ++result.levelsAligned;
      result.comparedPixels = levelMask.empty() ? rect.area() : cv::countNonZero(levelMask(rect));
      if (level > 0) result.comparedPixels <<= (2 * level);
    }
    if (level > 0) t *= 2.0;
  }

  if (!finite(t)) return result;
  const cv::Point2d limit(fullRect.width, fullRect.height);
  cv::Point2d moved = t - start;
  if (std::fabs(moved.x) > limit.x || std::fabs(moved.y) > limit.y) {
    moved.x = std::clamp(moved.x, -limit.x, limit.x);
    moved.y = std::clamp(moved.y, -limit.y, limit.y);
    result.clamped = true;
  }
  result.translation = start + moved;
  return result;
}

cv::Rect TranslationAligner::levelRectangle(const cv::Point2d& t, double sx, double sy, cv::Size first,
                                            cv::Size second) const {
  // The rule's rectangle, inside the first picture and where the second
  // picture (placed at t) can be sampled with the full kernel.
  cv::Rect rect =
      comparisonRectangle(mode_, cvRound(t.x), cvRound(t.y), first) & cv::Rect(0, 0, first.width, first.height);
  const int x0 = static_cast<int>(std::ceil(t.x + sx * kSampleMargin));
  const int x1 = static_cast<int>(std::floor(t.x + sx * (second.width - 2 - kSampleMargin)));
  const int y0 = static_cast<int>(std::ceil(t.y + sy * kSampleMargin));
  const int y1 = static_cast<int>(std::floor(t.y + sy * (second.height - 2 - kSampleMargin)));
  if (!(x1 > x0 && y1 > y0)) return cv::Rect();
  return rect & cv::Rect(x0, y0, x1 - x0 + 1, y1 - y0 + 1);
}

cv::Mat TranslationAligner::maskAtLevel(cv::Size full, int level, cv::Size size) const {
  // Only elements whose whole footprint is usable.
  cv::Mat levelMask;
  if (firstMask_.empty() || firstMask_.size() != full) return levelMask;
  if (level == 0) return firstMask_;
  cv::resize(firstMask_, levelMask, size, 0, 0, cv::INTER_AREA);
  cv::compare(levelMask, 254, levelMask, cv::CMP_GE);
  return levelMask;
}

bool TranslationAligner::alignLevel(const cv::Rect& rect, const cv::Mat& secondFloat, cv::Point2d& t, double sx,
                                    double sy, TranslationResult& result) {
  // The part of the second picture this level samples, with room for the
  // translation to move and for the recursive filter to settle.
  const int slack = kSplineSettle + kSampleSlack;
  const int u0 = static_cast<int>(std::floor((rect.x - t.x) / sx)) - slack;
  const int u1 = static_cast<int>(std::ceil((rect.x + rect.width - 1 - t.x) / sx)) + slack;
  const int v0 = static_cast<int>(std::floor((rect.y - t.y) / sy)) - slack;
  const int v1 = static_cast<int>(std::ceil((rect.y + rect.height - 1 - t.y) / sy)) + slack;
  const cv::Rect sampled =
      cv::Rect(u0, v0, u1 - u0 + 1, v1 - v0 + 1) & cv::Rect(0, 0, secondFloat.cols, secondFloat.rows);
  if (sampled.width < 4 || sampled.height < 4) return false;
  secondFloat(sampled).copyTo(current_->coefficients);
  splinePrefilter(current_->coefficients);
  origin_ = sampled.tl();
  bool stepped = false;
  for (int i = 0; i < iterations_; ++i) {
    if (!stepLevel(rect, t, sx, sy, &result.correlation)) break;
    stepped = true;
  }
  return stepped;
}

bool TranslationAligner::prepareLevel(const cv::Mat& first, const cv::Rect& rect, const cv::Mat& mask) {
  // Derivative kernels of fourth order (five taps); filtering the rectangle
  // of the whole level uses the real neighbours outside the rectangle.
  static const cv::Matx<float, 1, 5> kDerivative(1.0f / 12, -8.0f / 12, 0.0f, 8.0f / 12, -1.0f / 12);
  const cv::Mat area = first(rect);
  cv::filter2D(area, current_->gradX, CV_32F, kDerivative, cv::Point(-1, -1), 0.0, cv::BORDER_REFLECT_101);
  cv::filter2D(area, current_->gradY, CV_32F, kDerivative.t(), cv::Point(-1, -1), 0.0, cv::BORDER_REFLECT_101);
  cv::Laplacian(area, current_->laplacian, CV_32F, 3, 1.0, 0.0, cv::BORDER_REFLECT_101);
  cv::absdiff(current_->laplacian, cv::Scalar::all(0), current_->laplacian);

  // Robust weight: pixels of strong curvature (fine texture, corners,
  // specular spots) fit the linear model worst and are weighed down.
  const double meanCurvature = cv::mean(current_->laplacian)[0];
  const float scale = meanCurvature > 0 ? static_cast<float>(1.0 / (2.0 * meanCurvature)) : 0.0f;
  current_->weight.create(rect.size(), CV_32F);

  // Sums over the rectangle, each row in independent float lanes (so the
  // loop vectorises), rows in double.
  constexpr int kLanes = 8;
  constexpr int kSums = 10;  // gx gx, gx gy, gy gy, w, a, a a, gx, gy, gx a, gy a (all weighted)
  double total[kSums] = {};
  for (int y = 0; y < rect.height; ++y) {
    const float* a = area.ptr<float>(y);
    const float* gx = current_->gradX.ptr<float>(y);
    const float* gy = current_->gradY.ptr<float>(y);
    const float* lap = current_->laplacian.ptr<float>(y);
    float* w = current_->weight.ptr<float>(y);
    const std::uint8_t* usable = mask.empty() ? nullptr : mask.ptr<std::uint8_t>(rect.y + y) + rect.x;
    float lane[kSums][kLanes] = {};
    auto add = [&](int x, int j) {
      const float wi = (usable == nullptr || usable[x] != 0) ? 1.0f / (1.0f + lap[x] * scale) : 0.0f;
      w[x] = wi;
      const float wgx = wi * gx[x];
      const float wgy = wi * gy[x];
      const float wa = wi * a[x];
      lane[0][j] += wgx * gx[x];
      lane[1][j] += wgx * gy[x];
      lane[2][j] += wgy * gy[x];
      lane[3][j] += wi;
      lane[4][j] += wa;
      lane[5][j] += wa * a[x];
      lane[6][j] += wgx;
      lane[7][j] += wgy;
      lane[8][j] += wgx * a[x];
      lane[9][j] += wgy * a[x];
    };
    int x = 0;
    for (; x + kLanes <= rect.width; x += kLanes) {
      for (int j = 0; j < kLanes; ++j) add(x + j, j);
    }
    for (; x < rect.width; ++x) add(x, 0);
    for (int k = 0; k < kSums; ++k) {
      for (int j = 0; j < kLanes; ++j) total[k] += lane[k][j];
    }
  }
  hxx_ = total[0];
  hxy_ = total[1];
  hyy_ = total[2];
  sumW_ = total[3];
  sumA_ = total[4];
  sumAA_ = total[5];
  sumGx_ = total[6];
  sumGy_ = total[7];
  sumGxA_ = total[8];
  sumGyA_ = total[9];
  return sumW_ > 0 && (hxx_ + hyy_) > kMinimumGradientEnergy * sumW_;
}

TranslationAligner::RowSpan TranslationAligner::resampleRows(const cv::Rect& rect, const cv::Point2d& t, double sx,
                                                             double sy) {
  const cv::Mat& second = current_->coefficients;  // spline coefficients of the sampled part, from origin_
  const int w = rect.width;
  const int h = rect.height;
  const int maxColumn = second.cols - 4;  // first tap of the last full kernel
  const int maxRow = second.rows - 1;

  // Sampling positions in the second picture: u = (x - tx) / sx, v = (y - ty)
  // / sy, taken relative to the sampled part.
  columnWeights_.resize(static_cast<std::size_t>(4 * w));
  columnIndex_.resize(static_cast<std::size_t>(w));
  for (int i = 0; i < w; ++i) {
    const double u = (rect.x + i - t.x) / sx - origin_.x;
    const double fl = std::floor(u);
    cubicWeights(static_cast<float>(u - fl), &columnWeights_[static_cast<std::size_t>(4 * i)]);
    columnIndex_[static_cast<std::size_t>(i)] = std::clamp(static_cast<int>(fl) - 1, 0, std::max(maxColumn, 0));
  }
  const double vFirst = (rect.y - t.y) / sy - origin_.y;
  const double vLast = (rect.y + h - 1 - t.y) / sy - origin_.y;
  RowSpan span;
  span.first = std::clamp(static_cast<int>(std::floor(vFirst)) - 1, 0, maxRow);
  span.last = std::clamp(static_cast<int>(std::floor(vLast)) + 2, 0, maxRow);
  const int rowCount = span.last - span.first + 1;

  // Without a scale ratio every column has the same weights and consecutive taps.
  rowBuffer_.resize(static_cast<std::size_t>(rowCount) * static_cast<std::size_t>(w));
  const bool uniform = sx == 1.0 && columnIndex_.front() + w - 1 == columnIndex_.back();
  for (int r = 0; r < rowCount; ++r) {
    const float* src = second.ptr<float>(span.first + r);
    float* dst = &rowBuffer_[static_cast<std::size_t>(r) * static_cast<std::size_t>(w)];
    if (uniform) {
      const float* s = src + columnIndex_.front();
      const float c0 = columnWeights_[0], c1 = columnWeights_[1], c2 = columnWeights_[2], c3 = columnWeights_[3];
      for (int i = 0; i < w; ++i) dst[i] = c0 * s[i] + c1 * s[i + 1] + c2 * s[i + 2] + c3 * s[i + 3];
    } else {
      for (int i = 0; i < w; ++i) {
        const float* s = src + columnIndex_[static_cast<std::size_t>(i)];
        const float* cw = &columnWeights_[static_cast<std::size_t>(4 * i)];
        dst[i] = cw[0] * s[0] + cw[1] * s[1] + cw[2] * s[2] + cw[3] * s[3];
      }
    }
  }
  return span;
}

TranslationAligner::StepSums TranslationAligner::sumStep(const cv::Rect& rect, const cv::Point2d& t, double sy,
                                                         const RowSpan& span) {
  // Each row is summed in independent float lanes (so the loop
  // vectorises), rows in double. The column position xn (-1..1 over the
  // rectangle) enters the sums of the gain's slope; the row position yn
  // multiplies whole row sums.
  constexpr int kLanes = 8;
  const int w = rect.width;
  const int h = rect.height;
  StepSums sums;
  columnPosition_.resize(static_cast<std::size_t>(w));
  const double halfWidth = std::max(1.0, 0.5 * (w - 1)), halfHeight = std::max(1.0, 0.5 * (h - 1));
  for (int i = 0; i < w; ++i) columnPosition_[static_cast<std::size_t>(i)] = float((i - 0.5 * (w - 1)) / halfWidth);
  const float* xs = columnPosition_.data();
  const cv::Mat area = firstLevel_(rect);
  for (int y = 0; y < h; ++y) {
    const double v = (rect.y + y - t.y) / sy - origin_.y;
    const double fl = std::floor(v);
    float rw[4];
    cubicWeights(static_cast<float>(v - fl), rw);
    const float* rowsOf[4];
    for (int k = 0; k < 4; ++k) {
      const int row = std::clamp(static_cast<int>(fl) - 1 + k, span.first, span.last) - span.first;
      rowsOf[k] = &rowBuffer_[static_cast<std::size_t>(row) * static_cast<std::size_t>(w)];
    }
    const float* r0 = rowsOf[0];
    const float* r1 = rowsOf[1];
    const float* r2 = rowsOf[2];
    const float* r3 = rowsOf[3];
    const float* a = area.ptr<float>(y);
    const float* gx = current_->gradX.ptr<float>(y);
    const float* gy = current_->gradY.ptr<float>(y);
    const float* wt = current_->weight.ptr<float>(y);
    float lane[StepSums::kRowSums][kLanes] = {};
    auto add = [&](int k, int j) {
      const float b = rw[0] * r0[k] + rw[1] * r1[k] + rw[2] * r2[k] + rw[3] * r3[k];
      const float wb = wt[k] * b;
      const float wbb = wb * b, wab = wb * a[k], wgxb = wb * gx[k], wgyb = wb * gy[k];
      const float xn = xs[k];
      lane[0][j] += wb;
      lane[1][j] += wbb;
      lane[2][j] += wab;
      lane[3][j] += wgxb;
      lane[4][j] += wgyb;
      lane[5][j] += xn * wb;
      lane[6][j] += xn * wbb;
      lane[7][j] += xn * xn * wbb;
      lane[8][j] += xn * wab;
      lane[9][j] += xn * wgxb;
      lane[10][j] += xn * wgyb;
    };
    int x = 0;
    for (; x + kLanes <= w; x += kLanes) {
      for (int j = 0; j < kLanes; ++j) add(x + j, j);
    }
    for (; x < w; ++x) add(x, 0);
    double row[StepSums::kRowSums] = {};
    for (int k = 0; k < StepSums::kRowSums; ++k) {
      for (int j = 0; j < kLanes; ++j) row[k] += lane[k][j];
      sums.sum[k] += row[k];
    }
    const double yn = (y - 0.5 * (h - 1)) / halfHeight;
    sums.ySum[0] += yn * row[0];
    sums.ySum[1] += yn * row[1];
    sums.ySum[2] += yn * row[6];
    sums.ySum[3] += yn * yn * row[1];
    sums.ySum[4] += yn * row[2];
    sums.ySum[5] += yn * row[3];
    sums.ySum[6] += yn * row[4];
  }
  return sums;
}

void TranslationAligner::gainSlopes(const StepSums& s, double& hx, double& hy) const {
  // Neighbouring modules darken towards their edges in opposite directions
  // across the overlap (vignetting), so the gain that carries one onto the
  // other changes over it. It is taken as gain * (1 + hx xn + hy yn): the
  // slopes hx, hy from the least-squares fit of first ~ (g0 + g1 xn + g2 yn)
  // second + c (hx = g1 / g0, hy = g2 / g0), the overall gain as matched
  // by the caller. Without a usable fit the gain stays flat.
  hx = hy = 0.0;
  const cv::Matx44d normal(s.sum[1], s.sum[6], s.ySum[1], s.sum[0],    //
                           s.sum[6], s.sum[7], s.ySum[2], s.sum[5],    //
                           s.ySum[1], s.ySum[2], s.ySum[3], s.ySum[0], //
                           s.sum[0], s.sum[5], s.ySum[0], sumW_);
  const cv::Vec4d right(s.sum[2], s.sum[8], s.ySum[4], sumA_);
  cv::Vec4d fit;
  if (cv::solve(normal, right, fit, cv::DECOMP_CHOLESKY) && std::isfinite(fit[0]) && std::fabs(fit[0]) > 1e-9) {
    hx = fit[1] / fit[0];
    hy = fit[2] / fit[0];
    if (!std::isfinite(hx) || !std::isfinite(hy) || std::fabs(hx) > kMaximumGainSlope ||
        std::fabs(hy) > kMaximumGainSlope) {
      hx = hy = 0.0;
    }
  }
}

bool TranslationAligner::solveStep(double ex, double ey, cv::Point2d& delta) const {
  // Through the 2x2 system's eigen decomposition, dropping a direction that
  // carries no information.
  const double half = 0.5 * (hxx_ + hyy_);
  const double root = std::sqrt(0.25 * (hxx_ - hyy_) * (hxx_ - hyy_) + hxy_ * hxy_);
  const double large = half + root;
  const double small = half - root;
  if (!(large > kMinimumGradientEnergy * sumW_)) return false;
  if (small > kConditionLimit * large) {
    const double det = hxx_ * hyy_ - hxy_ * hxy_;
    delta.x = -(hyy_ * ex - hxy_ * ey) / det;
    delta.y = -(hxx_ * ey - hxy_ * ex) / det;
  } else {
    // Eigenvector of the large eigenvalue.
    cv::Point2d axis = std::fabs(hxy_) > 1e-12 ? cv::Point2d(hxy_, large - hxx_)
                                               : (hxx_ >= hyy_ ? cv::Point2d(1, 0) : cv::Point2d(0, 1));
    axis *= 1.0 / std::hypot(axis.x, axis.y);
    delta = -(axis.x * ex + axis.y * ey) / large * axis;
  }
  return true;
}

bool TranslationAligner::stepLevel(const cv::Rect& rect, cv::Point2d& t, double sx, double sy,
                                   double* correlation) {
  // 1. The second picture resampled where the rectangle sees it, and the sums of the step.
  const RowSpan span = resampleRows(rect, t, sx, sy);
  const StepSums s = sumStep(rect, t, sy, span);
  const double sumB = s.sum[0], sumBB = s.sum[1], sumAB = s.sum[2], sumGxB = s.sum[3], sumGyB = s.sum[4];

  // 2. Gain and offset that carry the second picture's brightness onto the first's.
  const double meanA = sumA_ / sumW_;
  const double meanB = sumB / sumW_;
  const double varA = sumAA_ / sumW_ - meanA * meanA;
  const double varB = sumBB / sumW_ - meanB * meanB;
  if (!(varA > 1e-9) || !(varB > 1e-9)) return false;
  const double cov = sumAB / sumW_ - meanA * meanB;
  *correlation = std::clamp(cov / std::sqrt(varA * varB), -1.0, 1.0);
  const double gain = std::sqrt(varA / varB);
  double hx = 0.0, hy = 0.0;
  gainSlopes(s, hx, hy);
  // Offset: the mean of first - gain(x) * second.
  const double offset = meanA - gain * (sumB + hx * s.sum[5] + hy * s.ySum[0]) / sumW_;

  // 3. Right-hand side: sum of w * grad(first) * (first - gain(x) * second - offset); the step.
  const double ex = sumGxA_ - gain * (sumGxB + hx * s.sum[9] + hy * s.ySum[5]) - offset * sumGx_;
  const double ey = sumGyA_ - gain * (sumGyB + hx * s.sum[10] + hy * s.ySum[6]) - offset * sumGy_;
  cv::Point2d delta;
  if (!solveStep(ex, ey, delta)) return false;
  delta *= static_cast<double>(step_);
  const double length = std::hypot(delta.x, delta.y);
  if (!std::isfinite(length)) return false;
  if (length > kMaximumStep) delta *= kMaximumStep / length;
  t += delta;
  return true;
}

}  // namespace MatrixBased
}  // namespace GeometryCalibration
