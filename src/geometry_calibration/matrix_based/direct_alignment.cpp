// Inverse-compositional Gauss-Newton alignment with gain and offset.
#include "geometry_calibration/matrix_based/direct_alignment.h"
#include "utils/parallel.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <mutex>

#include <opencv2/imgproc.hpp>

namespace GeometryCalibration {
namespace MatrixBased {
namespace {

constexpr double kSmoothing = 0.7;  // pixels, finest level, both pictures
constexpr int kCoarsestSide = 32;   // the coarsest level keeps at least this many pixels a side

int parameterCount(AlignmentMotion motion) {
  switch (motion) {
    case AlignmentMotion::kTranslation:
      return 2;
    case AlignmentMotion::kAffine:
      return 6;
    case AlignmentMotion::kHomography:
      break;
  }
  return 8;
}

// Terms of the spatial gain: 1, u, v, u^2, v^2, uv.
constexpr int kGainTerms = 6;
// Unknowns of the spatial photometric fit: the gain terms and the offset.
constexpr int kPhotometric = kGainTerms + 1;

// Sums of one pass; combined over the stripes of a parallel loop.
struct Sums {
  double n = 0, sI = 0, sT = 0, sII = 0, sTT = 0, sIT = 0;
  std::array<double, 8> jI{}, j1{}, jT{};
  std::array<double, 36> h{};  // upper triangle of the Hessian, row by row
  void add(const Sums& o) {
    n += o.n;
    sI += o.sI;
    sT += o.sT;
    sII += o.sII;
    sTT += o.sTT;
    sIT += o.sIT;
    for (int k = 0; k < 8; ++k) {
      jI[k] += o.jI[k];
      j1[k] += o.j1[k];
      jT[k] += o.jT[k];
    }
    for (int k = 0; k < 36; ++k) h[k] += o.h[k];
  }
};

bool finite(const cv::Matx33d& h) {
  for (int k = 0; k < 9; ++k)
    if (!std::isfinite(h.val[k])) return false;
  return true;
}

cv::Matx33d scaling(double s) { return cv::Matx33d(s, 0, 0, 0, s, 0, 0, 0, 1); }

}  // namespace

double cornerDisplacement(const cv::Matx33d& h, const cv::Rect2d& rect) {
  double worst = 0.0;
  const cv::Point2d corners[4] = {rect.tl(), {rect.x + rect.width, rect.y}, rect.br(), {rect.x, rect.y + rect.height}};
  for (const auto& c : corners) {
    const cv::Vec3d p = h * cv::Vec3d(c.x, c.y, 1.0);
    if (!(std::fabs(p[2]) > 1e-12)) return HUGE_VAL;
    worst = std::max(worst, std::hypot(p[0] / p[2] - c.x, p[1] / p[2] - c.y));
  }
  return std::isfinite(worst) ? worst : HUGE_VAL;
}

DirectAlignment::DirectAlignment(AlignmentOptions options) : options_(options) {}

void DirectAlignment::buildPyramid(const cv::Mat& fixed, const cv::Mat& moving, const cv::Mat& movingMask,
                                   cv::Rect region, int levels, bool gradients) {
  levels_.assign(static_cast<std::size_t>(levels), Level());
  for (int l = 0; l < levels; ++l) {
    Level& level = levels_[static_cast<std::size_t>(l)];
    if (l == 0) {
      fixed.convertTo(level.fixed, CV_32F);
      moving.convertTo(level.moving, CV_32F);
      cv::GaussianBlur(level.fixed, level.fixed, cv::Size(5, 5), kSmoothing, kSmoothing, cv::BORDER_REPLICATE);
      cv::GaussianBlur(level.moving, level.moving, cv::Size(5, 5), kSmoothing, kSmoothing, cv::BORDER_REPLICATE);
      if (movingMask.empty()) {
        level.mask = cv::Mat(moving.size(), CV_8U, cv::Scalar(255));
      } else {
        cv::erode(movingMask, level.mask, cv::Mat(), cv::Point(-1, -1), 2, cv::BORDER_CONSTANT, cv::Scalar(0));
      }
      if (!fixedMask_.empty() && fixedMask_.size() == fixed.size() && fixedMask_.type() == CV_8U) {
        cv::erode(fixedMask_, level.fixedMask, cv::Mat(), cv::Point(-1, -1), 2, cv::BORDER_CONSTANT, cv::Scalar(0));
      }
      level.region = region;
      level.scale = 1.0;
    } else {
      const Level& finer = levels_[static_cast<std::size_t>(l - 1)];
      cv::pyrDown(finer.fixed, level.fixed);
      cv::pyrDown(finer.moving, level.moving);
      cv::Mat eroded;
      cv::erode(finer.mask, eroded, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(5, 5)), cv::Point(-1, -1), 1,
                cv::BORDER_CONSTANT, cv::Scalar(0));
      cv::resize(eroded, level.mask, level.moving.size(), 0, 0, cv::INTER_NEAREST);
      if (!finer.fixedMask.empty()) {
        cv::erode(finer.fixedMask, eroded, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(5, 5)), cv::Point(-1, -1),
                  1, cv::BORDER_CONSTANT, cv::Scalar(0));
        cv::resize(eroded, level.fixedMask, level.fixed.size(), 0, 0, cv::INTER_NEAREST);
      }
      level.scale = finer.scale * 0.5;
      const int x0 = (finer.region.x + 1) / 2, y0 = (finer.region.y + 1) / 2;
      const int x1 = std::min(level.fixed.cols, (finer.region.x + finer.region.width) / 2);
      const int y1 = std::min(level.fixed.rows, (finer.region.y + finer.region.height) / 2);
      level.region = cv::Rect(x0, y0, std::max(0, x1 - x0), std::max(0, y1 - y0));
    }
    if (gradients) {
      static const cv::Mat derivative = (cv::Mat_<float>(1, 5) << 1.f / 12, -8.f / 12, 0.f, 8.f / 12, -1.f / 12);
      static const cv::Mat one = (cv::Mat_<float>(1, 1) << 1.f);
      // sepFilter2D correlates: out(x) = (f(x-2) - 8 f(x-1) + 8 f(x+1) - f(x+2)) / 12.
      cv::sepFilter2D(level.fixed, level.gradX, CV_32F, derivative, one, cv::Point(-1, -1), 0, cv::BORDER_REPLICATE);
      cv::sepFilter2D(level.fixed, level.gradY, CV_32F, one, derivative, cv::Point(-1, -1), 0, cv::BORDER_REPLICATE);
    }
  }
}



namespace {

// Where a fixed pixel lands on the moving picture, and the moving picture's
// bilinear value there; false when it lands outside or off the mask.
struct Sampler {
  const cv::Matx33d& w;  // fixed -> moving pixels of the level
  const cv::Mat& moving;
  const cv::Mat& mask;
  const cv::Mat& fixedMask;  // empty: every fixed pixel counts
  bool operator()(int x, int y, double& px, double& py, float& value) const {
    if (!fixedMask.empty() && fixedMask.at<uchar>(y, x) == 0) return false;
    const double X = w(0, 0) * x + w(0, 1) * y + w(0, 2);
    const double Y = w(1, 0) * x + w(1, 1) * y + w(1, 2);
    const double Z = w(2, 0) * x + w(2, 1) * y + w(2, 2);
    if (!(Z > 1e-9)) return false;
    px = X / Z;
    py = Y / Z;
    if (!(px >= 0.0) || !(py >= 0.0) || px >= moving.cols - 1 || py >= moving.rows - 1) return false;
    const int ix = static_cast<int>(px), iy = static_cast<int>(py);
    const uchar* m0 = mask.ptr<uchar>(iy) + ix;
    const uchar* m1 = mask.ptr<uchar>(iy + 1) + ix;
    if (!(m0[0] && m0[1] && m1[0] && m1[1])) return false;
    const float fx = static_cast<float>(px - ix), fy = static_cast<float>(py - iy);
    const float* r0 = moving.ptr<float>(iy) + ix;
    const float* r1 = moving.ptr<float>(iy + 1) + ix;
    const float top = r0[0] + fx * (r0[1] - r0[0]);
    const float bottom = r1[0] + fx * (r1[1] - r1[0]);
    value = top + fy * (bottom - top);
    return true;
  }
};

}  // namespace

// The fixed picture of a level as a measurement reads it: its values and
// gradients over `region`, the sampler of the moving picture, and the
// normalised coordinates xn = (x - cx) / sc, yn = (y - cy) / sc.
struct DirectAlignment::LevelPixels {
  const cv::Mat& fixed;
  const cv::Mat& gradX;
  const cv::Mat& gradY;
  cv::Rect region;
  Sampler sample;
  double cx, cy, sc;
};

namespace {

DirectAlignment::LevelPixels levelPixels(const cv::Mat& fixed, const cv::Mat& gradX, const cv::Mat& gradY,
                                         const cv::Rect& region, const Sampler& sample) {
  return DirectAlignment::LevelPixels{fixed,
                                      gradX,
                                      gradY,
                                      region,
                                      sample,
                                      region.x + 0.5 * (region.width - 1),
                                      region.y + 0.5 * (region.height - 1),
                                      0.5 * std::max(region.width, region.height)};
}

// The Jacobian of a fixed pixel for `count` parameters (2: translation, 6:
// affine, 8: homography) from its gradient (gx, gy, scaled by sc) at (xn, yn).
inline void jacobianAt(float gx, float gy, float xn, float yn, int count, std::array<float, 8>& j) {
  if (count == 2) {
    j[0] = gx;
    j[1] = gy;
    return;
  }
  j[0] = gx * xn;
  j[1] = gx * yn;
  j[2] = gx;
  j[3] = gy * xn;
  j[4] = gy * yn;
  j[5] = gy;
  if (count == 8) {
    const float s = -(gx * xn + gy * yn);
    j[6] = s * xn;
    j[7] = s * yn;
  }
}

// One row's sums of the one-gain measurement, added to `sums`.
void addSingleRow(const DirectAlignment::LevelPixels& l, int y, int count, bool wantJacobian, bool buildHessian, Sums& sums) {
  const float* T = l.fixed.ptr<float>(y);
  const float* GX = wantJacobian ? l.gradX.ptr<float>(y) : nullptr;
  const float* GY = wantJacobian ? l.gradY.ptr<float>(y) : nullptr;
  const float yn = static_cast<float>((y - l.cy) / l.sc);
  double rowN = 0, rowI = 0, rowT = 0, rowII = 0, rowTT = 0, rowIT = 0;
  std::array<double, 8> rowJI{}, rowJ1{}, rowJT{};
  std::array<float, 8> j{};
  for (int x = l.region.x; x < l.region.x + l.region.width; ++x) {
    double px = 0, py = 0;
    float I = 0;
    if (!l.sample(x, y, px, py, I)) continue;
    const float t = T[x];
    rowN += 1.0;
    rowI += I;
    rowT += t;
    rowII += double(I) * I;
    rowTT += double(t) * t;
    rowIT += double(I) * t;
    if (!wantJacobian) continue;
    const float xn = static_cast<float>((x - l.cx) / l.sc);
    jacobianAt(GX[x] * static_cast<float>(l.sc), GY[x] * static_cast<float>(l.sc), xn, yn, count, j);
    for (int k = 0; k < count; ++k) {
      rowJI[k] += j[k] * I;
      rowJ1[k] += j[k];
      rowJT[k] += j[k] * t;
    }
    if (buildHessian) {
      int idx = 0;
      for (int a = 0; a < count; ++a)
        for (int b = a; b < count; ++b) sums.h[idx++] += double(j[a]) * j[b];
    }
  }
  sums.n += rowN;
  sums.sI += rowI;
  sums.sT += rowT;
  sums.sII += rowII;
  sums.sTT += rowTT;
  sums.sIT += rowIT;
  for (int k = 0; k < count; ++k) {
    sums.jI[k] += rowJI[k];
    sums.j1[k] += rowJ1[k];
    sums.jT[k] += rowJT[k];
  }
}

// The spatial photometric model at a warp, fitted on every `stride`-th
// pixel of every `stride`-th row (its seven terms need far fewer pixels than
// the geometry): fixed ~ g(u, v) moving + b, g quadratic in the moving
// picture's coordinates u, v (-1..1); one gain and offset when too little
// of the moving picture is seen for seven terms. Returns the gain terms
// followed by the offset.
cv::Vec<double, kPhotometric> fitSpatialGain(const DirectAlignment::LevelPixels& l, double uScale, double vScale, int stride) {
  std::array<double, kPhotometric * (kPhotometric + 1) / 2> normalSums{};
  std::array<double, kPhotometric> at{};
  double fitN = 0, fitI = 0, fitT = 0, fitII = 0, fitIT = 0;
  for (int y = l.region.y; y < l.region.y + l.region.height; y += stride) {
    const float* T = l.fixed.ptr<float>(y);
    for (int x = l.region.x; x < l.region.x + l.region.width; x += stride) {
      double px = 0, py = 0;
      float value = 0;
      if (!l.sample(x, y, px, py, value)) continue;
      const double I = value, t = T[x];
      const double u = px * uScale - 1.0, v = py * vScale - 1.0;
      const std::array<double, kPhotometric> r = {I, u * I, v * I, u * u * I, v * v * I, u * v * I, 1.0};
      int idx = 0;
      for (int i = 0; i < kPhotometric; ++i) {
        at[std::size_t(i)] += r[std::size_t(i)] * t;
        for (int k = i; k < kPhotometric; ++k) normalSums[std::size_t(idx++)] += r[std::size_t(i)] * r[std::size_t(k)];
      }
      fitN += 1.0;
      fitI += I;
      fitT += t;
      fitII += I * I;
      fitIT += I * t;
    }
  }
  cv::Vec<double, kPhotometric> c = cv::Vec<double, kPhotometric>::all(0.0);
  bool spatial = false;
  if (fitN >= kPhotometric * 4) {
    cv::Matx<double, kPhotometric, kPhotometric> normal;
    int idx = 0;
    for (int i = 0; i < kPhotometric; ++i)
      for (int k = i; k < kPhotometric; ++k) {
        normal(i, k) = normalSums[std::size_t(idx)];
        normal(k, i) = normalSums[std::size_t(idx)];
        ++idx;
      }
    spatial = cv::solve(normal, cv::Vec<double, kPhotometric>(at.data()), c, cv::DECOMP_CHOLESKY);
    for (int i = 0; i < kPhotometric && spatial; ++i) spatial = std::isfinite(c[i]);
  }
  if (!spatial && fitN > 1.0) {
    const double mI = fitI / fitN, mT = fitT / fitN, vI = fitII / fitN - mI * mI;
    c = cv::Vec<double, kPhotometric>::all(0.0);
    c[0] = vI > 1e-9 ? (fitIT / fitN - mI * mT) / vI : 1.0;
    c[kGainTerms] = mT - c[0] * mI;
  }
  return c;
}

// Sums of the spatial-gain measurement. The Jacobian of a pixel is
// (P xn, P yn, P, Q xn, Q yn, Q, S xn, S yn) with P, Q the fixed picture's
// gradient and S = -(P xn + Q yn), so per row it needs only sums over
// products of P, Q, S, the residual and powers of xn (yn is the row's).
struct SpatialSums {
  double n = 0, sI = 0, sT = 0, sII = 0, sTT = 0, sIT = 0, sEE = 0;
  double g[6] = {0};       // P xn e, P e, Q xn e, Q e, S xn e, S e (times yn^k summed as needed)
  double gy[3] = {0};      // yn P e, yn Q e, yn S e
  double h[6][3][3] = {};  // [PP, PQ, PS, QQ, QS, SS][xn power][yn power]
  void add(const SpatialSums& o) {
    n += o.n, sI += o.sI, sT += o.sT, sII += o.sII, sTT += o.sTT, sIT += o.sIT, sEE += o.sEE;
    for (int k = 0; k < 6; ++k) g[k] += o.g[k];
    for (int k = 0; k < 3; ++k) gy[k] += o.gy[k];
    for (int f = 0; f < 6; ++f)
      for (int k = 0; k < 3; ++k)
        for (int m = 0; m < 3; ++m) h[f][k][m] += o.h[f][k][m];
  }
};

// One row's sums of the spatial-gain measurement with the photometric
// model `c`, added to `part`.
void addSpatialRow(const DirectAlignment::LevelPixels& l, int y, const cv::Vec<double, kPhotometric>& c, double uScale, double vScale,
                   bool wantJacobian, bool buildHessian, SpatialSums& part) {
  const float* T = l.fixed.ptr<float>(y);
  const float* GX = wantJacobian ? l.gradX.ptr<float>(y) : nullptr;
  const float* GY = wantJacobian ? l.gradY.ptr<float>(y) : nullptr;
  const double yn = (y - l.cy) / l.sc;
  double n = 0, sI = 0, sT = 0, sII = 0, sTT = 0, sIT = 0, sEE = 0;
  double pxe = 0, pe = 0, qxe = 0, qe = 0, sxe = 0, se = 0;
  double pp0 = 0, pp1 = 0, pp2 = 0, pq0 = 0, pq1 = 0, pq2 = 0, ps0 = 0, ps1 = 0, ps2 = 0;
  double qq0 = 0, qq1 = 0, qq2 = 0, qs0 = 0, qs1 = 0, qs2 = 0, ss0 = 0, ss1 = 0, ss2 = 0;
  for (int x = l.region.x; x < l.region.x + l.region.width; ++x) {
    double px = 0, py = 0;
    float value = 0;
    if (!l.sample(x, y, px, py, value)) continue;
    const double I = value, t = T[x];
    const double u = px * uScale - 1.0, v = py * vScale - 1.0;
    const double gain = c[0] + u * (c[1] + u * c[3] + v * c[5]) + v * (c[2] + v * c[4]);
    const double e = gain * I + c[kGainTerms] - t;
    n += 1.0;
    sI += I;
    sT += t;
    sII += I * I;
    sTT += t * t;
    sIT += I * t;
    sEE += e * e;
    if (!wantJacobian) continue;
    const double xn = (x - l.cx) / l.sc;
    const double P = double(GX[x]) * l.sc, Q = double(GY[x]) * l.sc;
    const double S = -(P * xn + Q * yn);
    pxe += P * xn * e;
    pe += P * e;
    qxe += Q * xn * e;
    qe += Q * e;
    sxe += S * xn * e;
    se += S * e;
    if (!buildHessian) continue;
    const double x2 = xn * xn;
    const double PP = P * P, PQ = P * Q, PS = P * S, QQ = Q * Q, QS = Q * S, SS = S * S;
    pp0 += PP, pp1 += PP * xn, pp2 += PP * x2;
    pq0 += PQ, pq1 += PQ * xn, pq2 += PQ * x2;
    ps0 += PS, ps1 += PS * xn, ps2 += PS * x2;
    qq0 += QQ, qq1 += QQ * xn, qq2 += QQ * x2;
    qs0 += QS, qs1 += QS * xn, qs2 += QS * x2;
    ss0 += SS, ss1 += SS * xn, ss2 += SS * x2;
  }
  part.n += n, part.sI += sI, part.sT += sT, part.sII += sII, part.sTT += sTT, part.sIT += sIT, part.sEE += sEE;
  part.g[0] += pxe, part.g[1] += pe, part.g[2] += qxe, part.g[3] += qe, part.g[4] += sxe, part.g[5] += se;
  part.gy[0] += yn * pe, part.gy[1] += yn * qe, part.gy[2] += yn * se;
  const double rows3[6][3] = {{pp0, pp1, pp2}, {pq0, pq1, pq2}, {ps0, ps1, ps2},
                              {qq0, qq1, qq2}, {qs0, qs1, qs2}, {ss0, ss1, ss2}};
  const double ynPower[3] = {1.0, yn, yn * yn};
  for (int f = 0; f < 6; ++f)
    for (int k = 0; k < 3; ++k)
      for (int m = 0; m < 3; ++m) part.h[f][k][m] += rows3[f][k] * ynPower[m];
}

// The normal equations of the geometric update from the spatial sums, for
// `count` parameters (2: translation, 8: homography; the affine motion's
// six are the homography's first six).
void spatialNormalEquations(const SpatialSums& total, int count, cv::Matx<double, 8, 8>* hessian,
                            cv::Vec<double, 8>* gradient, bool buildHessian) {
  // The Jacobian's entries as (function of P/Q/S, power of xn, power of yn).
  static const int kFunction[8] = {0, 0, 0, 1, 1, 1, 2, 2};
  static const int kXPower[8] = {1, 0, 0, 1, 0, 0, 1, 0};
  static const int kYPower[8] = {0, 1, 0, 0, 1, 0, 0, 1};
  // The motion's parameters among those eight.
  static const int kTranslation[2] = {2, 5};
  static const int kAll[8] = {0, 1, 2, 3, 4, 5, 6, 7};
  const int* used = count == 2 ? kTranslation : kAll;
  if (gradient) {
    // Sums by (function, power of xn, power of yn): g holds (P xn, P, Q xn, Q, S xn, S), gy the yn ones.
    *gradient = cv::Vec<double, 8>::all(0.0);
    for (int k = 0; k < count; ++k) {
      const int j = used[k], f = kFunction[j];
      (*gradient)[k] = kYPower[j] ? total.gy[f] : total.g[2 * f + (kXPower[j] ? 0 : 1)];
    }
  }
  if (hessian && buildHessian) {
    static const int kPairIndex[3][3] = {{0, 1, 2}, {1, 3, 4}, {2, 4, 5}};
    *hessian = cv::Matx<double, 8, 8>::zeros();
    for (int a = 0; a < count; ++a)
      for (int b = 0; b < count; ++b) {
        const int ja = used[a], jb = used[b];
        (*hessian)(a, b) = total.h[kPairIndex[kFunction[ja]][kFunction[jb]]][kXPower[ja] + kXPower[jb]]
                                  [kYPower[ja] + kYPower[jb]];
      }
  }
}

// The sums of `addRow(y, sums)` over the rows of `region`, stripe by stripe
// on the library's threads.
template <typename Totals, typename AddRow>
Totals sumRows(const cv::Rect& region, const AddRow& addRow) {
  Totals total;
  std::mutex lock;
  Utils::parallelRows(region.y, region.y + region.height, [&](int rowBegin, int rowEnd) {
    Totals part;
    for (int y = rowBegin; y < rowEnd; ++y) addRow(y, part);
    std::lock_guard<std::mutex> guard(lock);
    total.add(part);
  });
  return total;
}

// Means, variances and covariance of the moving (I) and fixed (T) values
// from their sums; `textured` is false when either is flat.
struct Moments {
  double mI = 0, mT = 0, vI = 0, vT = 0, cIT = 0;
  bool textured = false;
};

template <typename Totals>
Moments momentsOf(const Totals& t) {
  Moments m;
  const double n = t.n;
  m.mI = t.sI / n, m.mT = t.sT / n;
  m.vI = t.sII / n - m.mI * m.mI, m.vT = t.sTT / n - m.mT * m.mT, m.cIT = t.sIT / n - m.mI * m.mT;
  m.textured = m.vI > 1e-3 && m.vT > 1e-3;
  return m;
}

}  // namespace

AlignmentResult DirectAlignment::measure(const Level& level, const cv::Matx33d& warp, cv::Matx<double, 8, 8>* hessian,
                                         cv::Vec<double, 8>* gradient, bool buildHessian) {
  AlignmentResult result;
  result.warp = warp;
  if (level.region.empty()) return result;
  const cv::Matx33d w = scaling(level.scale) * warp * scaling(1.0 / level.scale);  // in this level's pixels
  const LevelPixels pixels = levelPixels(level.fixed, level.gradX, level.gradY, level.region,
                                         Sampler{w, level.moving, level.mask, level.fixedMask});
  return options_.spatialGain ? measureSpatial(level, pixels, result, hessian, gradient, buildHessian)
                              : measureSingle(pixels, result, hessian, gradient, buildHessian);
}

AlignmentResult DirectAlignment::measureSingle(const LevelPixels& pixels, AlignmentResult result,
                                             cv::Matx<double, 8, 8>* hessian, cv::Vec<double, 8>* gradient,
                                             bool buildHessian) {
  const int count = parameterCount(options_.motion);

  // 1. The sums over every pixel.
  const Sums total = sumRows<Sums>(pixels.region, [&](int y, Sums& sums) {
    addSingleRow(pixels, y, count, gradient != nullptr, buildHessian, sums);
  });

  // 2. Gain, offset and their residual, then the normal equations.
  result.validPixels = static_cast<int>(total.n);
  if (total.n < options_.minimumPixels) return result;
  const Moments m = momentsOf(total);
  if (!m.textured) return result;  // no texture to align on
  // fixed ~ g * moving + b
  const double g = m.cIT / m.vI;
  const double b = m.mT - g * m.mI;
  result.gain = g;
  result.offset = b;
  result.correlation = m.cIT / std::sqrt(m.vI * m.vT);
  result.meanSquaredResidual = std::max(0.0, m.vT - m.cIT * m.cIT / m.vI);
  if (gradient) {
    *gradient = cv::Vec<double, 8>::all(0.0);
    for (int k = 0; k < count; ++k) (*gradient)[k] = g * total.jI[k] + b * total.j1[k] - total.jT[k];
  }
  if (hessian && buildHessian) {
    *hessian = cv::Matx<double, 8, 8>::zeros();
    int idx = 0;
    for (int a = 0; a < count; ++a)
      for (int c = a; c < count; ++c) {
        (*hessian)(a, c) = total.h[idx];
        (*hessian)(c, a) = total.h[idx];
        ++idx;
      }
  }
  result.ok = true;
  return result;
}

AlignmentResult DirectAlignment::measureSpatial(const Level& level, const LevelPixels& pixels, AlignmentResult result,
                                                cv::Matx<double, 8, 8>* hessian, cv::Vec<double, 8>* gradient,
                                                bool buildHessian) {
  const int cols = level.moving.cols, rows = level.moving.rows;
  const double uScale = 2.0 / std::max(1, cols - 1), vScale = 2.0 / std::max(1, rows - 1);

  // 1. The photometric model at this warp.
  const int stride = level.scale >= 1.0 ? 4 : level.scale >= 0.5 ? 2 : 1;
  const cv::Vec<double, kPhotometric> c = fitSpatialGain(pixels, uScale, vScale, stride);

  // 2. Every pixel: the residual of that model, its statistics, and the
  // sums of the normal equations.
  const SpatialSums total = sumRows<SpatialSums>(pixels.region, [&](int y, SpatialSums& part) {
    addSpatialRow(pixels, y, c, uScale, vScale, gradient != nullptr, buildHessian, part);
  });

  // 3. The statistics, then the normal equations of the geometric update.
  result.validPixels = static_cast<int>(total.n);
  if (total.n < options_.minimumPixels) return result;
  const Moments m = momentsOf(total);
  if (!m.textured) return result;  // no texture to align on
  result.correlation = m.cIT / std::sqrt(m.vI * m.vT);
  result.meanSquaredResidual = std::max(0.0, total.sEE / total.n);
  result.gain = c[0];
  result.offset = c[kGainTerms];
  spatialNormalEquations(total, parameterCount(options_.motion), hessian, gradient, buildHessian);
  result.ok = true;
  return result;
}

AlignmentResult DirectAlignment::evaluate(const cv::Mat& fixed, const cv::Mat& moving, const cv::Mat& movingMask,
                                          const cv::Matx33d& warp, cv::Rect region) {
  AlignmentResult failed;
  failed.warp = warp;
  if (fixed.empty() || moving.empty() || fixed.channels() != 1 || moving.channels() != 1 || !finite(warp))
    return failed;
  region &= cv::Rect(0, 0, fixed.cols, fixed.rows);
  if (region.empty()) region = cv::Rect(0, 0, fixed.cols, fixed.rows);
  buildPyramid(fixed, moving, movingMask, region, 1, false);
  return measure(levels_[0], warp, nullptr, nullptr, false);
}

AlignmentResult DirectAlignment::align(const cv::Mat& fixed, const cv::Mat& moving, const cv::Mat& movingMask,
                                       const cv::Matx33d& start, cv::Rect region, AlignmentResult* atStart) {
  if (atStart != nullptr) {
    *atStart = AlignmentResult();
    atStart->warp = start;
  }
  AlignmentResult failed;
  failed.warp = start;
  if (fixed.empty() || moving.empty() || fixed.channels() != 1 || moving.channels() != 1 || !finite(start) ||
      !(cv::determinant(start) > 0.0))
    return failed;
  if (!movingMask.empty() && (movingMask.size() != moving.size() || movingMask.type() != CV_8U)) return failed;
  const cv::Rect whole(0, 0, fixed.cols, fixed.rows);
  region = region.empty() ? whole : (region & whole);
  if (region.width < 8 || region.height < 8) return failed;

  int levels = std::max(1, options_.levels);
  while (levels > 1 && std::min(region.width, region.height) / (1 << (levels - 1)) < kCoarsestSide) --levels;
  buildPyramid(fixed, moving, movingMask, region, levels, true);
  if (atStart != nullptr) {
    *atStart = measure(levels_[0], start, nullptr, nullptr, false);
    atStart->warp = start;
  }

  const int count = parameterCount(options_.motion);
  cv::Matx33d warp = start;
  bool anyLevel = false;
  for (int l = levels - 1; l >= 0; --l) {
    const Level& level = levels_[static_cast<std::size_t>(l)];
    if (level.region.width < 4 || level.region.height < 4) continue;
    const double cx = level.region.x + 0.5 * (level.region.width - 1);
    const double cy = level.region.y + 0.5 * (level.region.height - 1);
    const double sc = 0.5 * std::max(level.region.width, level.region.height);
    // Normalised level coordinates: n = N * (level pixel).
    const cv::Matx33d N(1.0 / sc, 0, -cx / sc, 0, 1.0 / sc, -cy / sc, 0, 0, 1);
    const cv::Matx33d toLevel = scaling(level.scale);
    const cv::Matx33d fromNormalised = toLevel.inv() * N.inv();  // normalised -> full-resolution pixels
    const cv::Matx33d toNormalised = N * toLevel;
    const cv::Rect2d corners(-0.5 * level.region.width / sc, -0.5 * level.region.height / sc,
                             level.region.width / sc, level.region.height / sc);

    cv::Matx<double, 8, 8> hessian;
    cv::Matx<double, 8, 8> inverse;
    bool haveHessian = false;
    for (int it = 0; it < options_.iterations; ++it) {
      cv::Vec<double, 8> gradient;
      const AlignmentResult m = measure(level, warp, &hessian, &gradient, !haveHessian);
      if (!m.ok) break;
      if (!haveHessian) {
        cv::Mat h(count, count, CV_64F), hinv;
        for (int a = 0; a < count; ++a)
          for (int c = 0; c < count; ++c) h.at<double>(a, c) = hessian(a, c);
        if (cv::invert(h, hinv, cv::DECOMP_CHOLESKY) == 0) break;
        inverse = cv::Matx<double, 8, 8>::zeros();
        for (int a = 0; a < count; ++a)
          for (int c = 0; c < count; ++c) inverse(a, c) = hinv.at<double>(a, c);
        haveHessian = true;
      }
      cv::Vec<double, 8> p;
      for (int a = 0; a < count; ++a) {
        double s = 0.0;
        for (int c = 0; c < count; ++c) s += inverse(a, c) * gradient[c];
        p[a] = s;
      }
      cv::Matx33d delta = cv::Matx33d::eye();
      if (count == 2) {
        delta(0, 2) = p[0];
        delta(1, 2) = p[1];
      } else {
        delta = cv::Matx33d(1 + p[0], p[1], p[2], p[3], 1 + p[4], p[5], count == 8 ? p[6] : 0.0,
                            count == 8 ? p[7] : 0.0, 1.0);
      }
      if (!finite(delta) || !(cv::determinant(delta) > 1e-6)) break;
      // W <- W o D^-1, with D acting on normalised coordinates.
      const cv::Matx33d next = warp * fromNormalised * delta.inv() * toNormalised;
      if (!finite(next) || !(cv::determinant(next) > 0.0)) break;
      warp = next * (1.0 / next(2, 2));
      anyLevel = true;
      if (cornerDisplacement(delta, corners) * sc < options_.minimumStep) break;
    }
  }
  if (!anyLevel) return failed;
  AlignmentResult result = measure(levels_[0], warp, nullptr, nullptr, false);
  result.warp = warp;
  if (!result.ok) {
    failed.validPixels = result.validPixels;
    return failed;
  }
  return result;
}

}  // namespace MatrixBased
}  // namespace GeometryCalibration
