// Grid refinement: a global homography, a measured displacement field and
// the regularised grid fitted to it.
#include "geometry_calibration/matrix_based/grid_estimator.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <mutex>

#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/feature_matcher.h"
#include "utils/parallel.h"

namespace GeometryCalibration {
namespace MatrixBased {
namespace {

constexpr int kSmallestPatch = 24;      // pixels a side
constexpr double kGrowth = 1.5;         // patch growth per retry
constexpr double kMostError = 0.5;      // 1 - correlation
constexpr double kSmoothing = 1.0;      // pixels, Gaussian sigma of both pictures
constexpr int kIterations = 20;         // Lucas-Kanade steps per level
constexpr double kConverged = 0.005;    // pixels: a step below this ends a level
constexpr double kRegularisation = 0.05;  // second-difference weight, relative to a point's data
constexpr double kSignificance = 10.0;  // the field must explain this many times what noise would
constexpr int kFoldRetries = 4;         // regularisation raised tenfold per retry
// A measured point whose shift turns against each measured lattice neighbour
// (right, below) by more than this (radians; the curl of the field over one
// spacing, half of it) locked on a wrong peak: lens and parallax fields turn
// by hundredths over a spacing of 12..32 pixels, a wrong peak by tenths.
constexpr double kMostLocalTurn = 0.1;

// For each measured lattice point, how far its shift turns against its
// measured right and lower neighbours (radians: the smaller of the two
// half-curls, so a point is judged by its best-agreeing neighbour); 0 where
// it has no measured neighbour. Points lie `spacing` apart on rows.
template <typename Result>
std::vector<double> localTurns(const std::vector<cv::Point>& lattice, const std::vector<Result>& found, int spacing) {
  std::map<std::pair<int, int>, std::size_t> index;
  for (std::size_t k = 0; k < lattice.size(); ++k)
    if (found[k].ok) index[{lattice[k].x, lattice[k].y}] = k;
  std::vector<double> turns(lattice.size(), 0.0);
  for (const auto& [at, k] : index) {
    double smallest = -1.0;
    const auto right = index.find({at.first + spacing, at.second});
    if (right != index.end()) {
      // d(dy)/dx over one spacing: half the curl when the field only turns.
      smallest = std::fabs(found[right->second].shift.y - found[k].shift.y) / spacing;
    }
    const auto below = index.find({at.first, at.second + spacing});
    if (below != index.end()) {
      const double turn = std::fabs(found[below->second].shift.x - found[k].shift.x) / spacing;
      smallest = smallest < 0.0 ? turn : std::min(smallest, turn);
    }
    turns[k] = std::max(0.0, smallest);
  }
  return turns;
}

// The pictures patches are aligned on: both smoothed, as floats, with the
// target's gradients; the module's validity eroded by the smoothing.
struct PatchPictures {
  cv::Mat target, moving, gradX, gradY, valid;
};

PatchPictures patchPictures(const cv::Mat& target, const cv::Mat& moving, const cv::Mat& valid) {
  PatchPictures p;
  target.convertTo(p.target, CV_32F);
  moving.convertTo(p.moving, CV_32F);
  cv::GaussianBlur(p.target, p.target, cv::Size(), kSmoothing, kSmoothing, cv::BORDER_REPLICATE);
  cv::GaussianBlur(p.moving, p.moving, cv::Size(), kSmoothing, kSmoothing, cv::BORDER_REPLICATE);
  cv::Sobel(p.target, p.gradX, CV_32F, 1, 0, 3, 0.125, 0.0, cv::BORDER_REPLICATE);
  cv::Sobel(p.target, p.gradY, CV_32F, 0, 1, 3, 0.125, 0.0, cv::BORDER_REPLICATE);
  cv::erode(valid, p.valid, cv::Mat(), cv::Point(-1, -1), 3, cv::BORDER_CONSTANT, cv::Scalar(0));
  return p;
}

PatchPictures halved(const PatchPictures& full) {
  PatchPictures p;
  cv::pyrDown(full.target, p.target);
  cv::pyrDown(full.moving, p.moving);
  cv::Sobel(p.target, p.gradX, CV_32F, 1, 0, 3, 0.125, 0.0, cv::BORDER_REPLICATE);
  cv::Sobel(p.target, p.gradY, CV_32F, 0, 1, 3, 0.125, 0.0, cv::BORDER_REPLICATE);
  cv::Mat eroded;
  cv::erode(full.valid, eroded, cv::Mat(), cv::Point(-1, -1), 1, cv::BORDER_CONSTANT, cv::Scalar(0));
  cv::resize(eroded, p.valid, p.target.size(), 0, 0, cv::INTER_NEAREST);
  return p;
}

struct PatchResult {
  bool ok = false;
  cv::Point2d shift;
  cv::Matx22d information = cv::Matx22d::zeros();
  double correlation = 0.0;
};

// Inverse-compositional Lucas-Kanade for a translation of the target patch
// `rect` against the moving picture, from `start`; both sides normalised to
// zero mean and unit spread over the patch.
PatchResult alignPatch(const PatchPictures& p, const cv::Rect& rect, cv::Point2d start) {
  PatchResult result;
  const int n = rect.area();
  if (n < 16 || (rect & cv::Rect(0, 0, p.target.cols, p.target.rows)) != rect) return result;
  const std::size_t size = static_cast<std::size_t>(n);
  std::vector<float> t(size), gx(size), gy(size), m(size);
  double mean = 0, square = 0;
  for (int y = 0, k = 0; y < rect.height; ++y) {
    const float* T = p.target.ptr<float>(rect.y + y) + rect.x;
    const float* X = p.gradX.ptr<float>(rect.y + y) + rect.x;
    const float* Y = p.gradY.ptr<float>(rect.y + y) + rect.x;
    for (int x = 0; x < rect.width; ++x, ++k) {
      t[std::size_t(k)] = T[x];
      gx[std::size_t(k)] = X[x];
      gy[std::size_t(k)] = Y[x];
      mean += T[x];
      square += double(T[x]) * T[x];
    }
  }
  mean /= n;
  const double spread = std::sqrt(std::max(0.0, square / n - mean * mean));
  if (!(spread > 1.0)) return result;  // flat: nothing to align on
  double hxx = 0, hxy = 0, hyy = 0;
  for (int k = 0; k < n; ++k) {
    t[std::size_t(k)] = static_cast<float>((t[std::size_t(k)] - mean) / spread);
    gx[std::size_t(k)] = static_cast<float>(gx[std::size_t(k)] / spread);
    gy[std::size_t(k)] = static_cast<float>(gy[std::size_t(k)] / spread);
    hxx += double(gx[std::size_t(k)]) * gx[std::size_t(k)];
    hxy += double(gx[std::size_t(k)]) * gy[std::size_t(k)];
    hyy += double(gy[std::size_t(k)]) * gy[std::size_t(k)];
  }
  const double determinant = hxx * hyy - hxy * hxy;
  if (!(determinant > 1e-9 * (hxx + hyy) * (hxx + hyy)) || !(hxx + hyy > 1e-6)) return result;
  cv::Point2d shift = start;
  double residual = 0.0;
  for (int iteration = 0; iteration < kIterations; ++iteration) {
    // The moving picture at the shifted patch, all of it on valid pixels.
    double mm = 0, ms = 0;
    for (int y = 0, k = 0; y < rect.height; ++y) {
      const double py = rect.y + y + shift.y;
      const int iy = static_cast<int>(std::floor(py));
      if (iy < 0 || iy + 1 >= p.moving.rows) return result;
      const float fy = static_cast<float>(py - iy);
      const float* r0 = p.moving.ptr<float>(iy);
      const float* r1 = p.moving.ptr<float>(iy + 1);
      const std::uint8_t* v0 = p.valid.ptr<std::uint8_t>(iy);
      const std::uint8_t* v1 = p.valid.ptr<std::uint8_t>(iy + 1);
      for (int x = 0; x < rect.width; ++x, ++k) {
        const double px = rect.x + x + shift.x;
        const int ix = static_cast<int>(std::floor(px));
        if (ix < 0 || ix + 1 >= p.moving.cols || !v0[ix] || !v0[ix + 1] || !v1[ix] || !v1[ix + 1]) return result;
        const float fx = static_cast<float>(px - ix);
        const float top = r0[ix] + fx * (r0[ix + 1] - r0[ix]);
        const float bottom = r1[ix] + fx * (r1[ix + 1] - r1[ix]);
        const float value = top + fy * (bottom - top);
        m[std::size_t(k)] = value;
        mm += value;
        ms += double(value) * value;
      }
    }
    mm /= n;
    const double movingSpread = std::sqrt(std::max(0.0, ms / n - mm * mm));
    if (!(movingSpread > 1e-3)) return result;
    double bx = 0, by = 0;
    residual = 0.0;
    for (int k = 0; k < n; ++k) {
      const double e = (m[std::size_t(k)] - mm) / movingSpread - t[std::size_t(k)];
      bx += gx[std::size_t(k)] * e;
      by += gy[std::size_t(k)] * e;
      residual += e * e;
    }
    const double dx = (hyy * bx - hxy * by) / determinant, dy = (hxx * by - hxy * bx) / determinant;
    if (!std::isfinite(dx) || !std::isfinite(dy)) return result;
    shift -= cv::Point2d(dx, dy);
    if (!(std::fabs(shift.x) < p.moving.cols && std::fabs(shift.y) < p.moving.rows)) return result;  // diverged
    if (std::hypot(dx, dy) < kConverged) break;
  }
  residual /= n;
  result.ok = true;
  result.shift = shift;
  result.correlation = 1.0 - 0.5 * residual;  // both sides have unit spread
  // The shift's inverse covariance: the patch's gradient structure over the
  // residual's variance (at least a small floor, for noise-free pictures).
  const double variance = std::max(residual, 1e-3);
  result.information = cv::Matx22d(hxx, hxy, hxy, hyy) * (1.0 / variance);
  return result;
}

// A symmetric positive definite band matrix (entries within `band` of the
// diagonal) with its Cholesky factorisation.
class BandSystem {
 public:
  BandSystem(int size, int band)
      : n_(size), band_(band), a_(std::size_t(size) * std::size_t(band + 1), 0.0), b_(std::size_t(size), 0.0) {}
  // Adds v to entry (i, j) (and (j, i)); |i - j| <= band.
  void add(int i, int j, double v) {
    if (j > i) std::swap(i, j);
    a_[std::size_t(i) * std::size_t(band_ + 1) + std::size_t(i - j)] += v;
  }
  void addRight(int i, double v) { b_[std::size_t(i)] += v; }
  double& at(int i, int j) { return a_[std::size_t(i) * std::size_t(band_ + 1) + std::size_t(i - j)]; }
  // Solves in place; false when the matrix is not positive definite.
  bool solve(std::vector<double>& x) {
    for (int i = 0; i < n_; ++i) {
      for (int j = std::max(0, i - band_); j <= i; ++j) {
        double s = at(i, j);
        for (int k = std::max(0, i - band_); k < j; ++k) s -= at(i, k) * at(j, k);
        if (i == j) {
          if (!(s > 0.0)) return false;
          at(i, i) = std::sqrt(s);
        } else {
          at(i, j) = s / at(j, j);
        }
      }
    }
    x = b_;
    for (int i = 0; i < n_; ++i) {
      double s = x[std::size_t(i)];
      for (int k = std::max(0, i - band_); k < i; ++k) s -= at(i, k) * x[std::size_t(k)];
      x[std::size_t(i)] = s / at(i, i);
    }
    for (int i = n_ - 1; i >= 0; --i) {
      double s = x[std::size_t(i)];
      for (int k = i + 1; k <= std::min(n_ - 1, i + band_); ++k) s -= at(k, i) * x[std::size_t(k)];
      x[std::size_t(i)] = s / at(i, i);
    }
    return true;
  }

 private:
  int n_, band_;
  std::vector<double> a_, b_;
};

// The bilinear weights of grid position q (unit square) on its cell's four points.
struct Cell {
  int points[4];
  double weights[4];
};
Cell cellOf(cv::Point2d q, int columns, int rows) {
  const double gx = std::clamp(q.x, 0.0, 1.0) * columns, gy = std::clamp(q.y, 0.0, 1.0) * rows;
  const int ci = std::min(columns - 1, static_cast<int>(gx)), cj = std::min(rows - 1, static_cast<int>(gy));
  const double a = gx - ci, b = gy - cj;
  const int stride = columns + 1;
  return Cell{{cj * stride + ci, cj * stride + ci + 1, (cj + 1) * stride + ci, (cj + 1) * stride + ci + 1},
              {(1 - a) * (1 - b), a * (1 - b), (1 - a) * b, a * b}};
}

struct FieldFit {
  std::vector<cv::Point2d> shifts;  // per grid point
  double explained = 0.0;           // chi-square of the measurements less that of the fit
  double left = 0.0;                // chi-square of the measurements about the fit
  bool ok = false;
};

// The grid points' shifts fitted to the measurements (see the header).
FieldFit fitField(const std::vector<GridEstimator::Measurement>& measurements, const std::vector<cv::Point2d>& places,
                  int columns, int rows, double regularisation) {
  const int points = (columns + 1) * (rows + 1);
  const int n = 2 * points;
  BandSystem system(n, 4 * (columns + 1) + 1);
  double noise = 0.0;  // chi-square of the measurements against no field
  std::vector<double> weights;
  for (std::size_t s = 0; s < measurements.size(); ++s) {
    const auto& m = measurements[s];
    const Cell cell = cellOf(places[s], columns, rows);
    const cv::Vec2d d(m.shift.x, m.shift.y);
    const cv::Vec2d wd = m.information * d;
    noise += d.dot(wd);
    weights.push_back(0.5 * (m.information(0, 0) + m.information(1, 1)));
    for (int a = 0; a < 4; ++a) {
      for (int c = 0; c < 2; ++c) system.addRight(2 * cell.points[a] + c, cell.weights[a] * wd[c]);
      for (int b = 0; b < 4; ++b)
        for (int c = 0; c < 2; ++c)
          for (int e = 0; e < 2; ++e)
            if (2 * cell.points[a] + c >= 2 * cell.points[b] + e)
              system.add(2 * cell.points[a] + c, 2 * cell.points[b] + e,
                         cell.weights[a] * cell.weights[b] * m.information(c, e));
    }
  }
  // The penalty's weight: `regularisation` times a typical point's data
  // (the median measurement's information times measurements per point).
  double typical = 1.0;
  if (!weights.empty()) {
    std::nth_element(weights.begin(), weights.begin() + std::ptrdiff_t(weights.size() / 2), weights.end());
    typical = std::max(1e-9, weights[weights.size() / 2] * double(measurements.size()) / points);
  }
  const double lambda = regularisation * typical;
  auto penalise = [&](int p0, int p1, int p2) {
    const int index[3] = {p0, p1, p2};
    const double coefficient[3] = {1.0, -2.0, 1.0};
    for (int a = 0; a < 3; ++a)
      for (int b = 0; b < 3; ++b)
        for (int c = 0; c < 2; ++c)
          if (index[a] >= index[b]) system.add(2 * index[a] + c, 2 * index[b] + c, lambda * coefficient[a] * coefficient[b]);
  };
  const int stride = columns + 1;
  for (int j = 0; j <= rows; ++j)
    for (int i = 1; i < columns; ++i) penalise(j * stride + i - 1, j * stride + i, j * stride + i + 1);
  for (int i = 0; i <= columns; ++i)
    for (int j = 1; j < rows; ++j) penalise((j - 1) * stride + i, j * stride + i, (j + 1) * stride + i);
  for (int k = 0; k < n; ++k) system.add(k, k, 1e-6 * typical);  // a field without any data stays at rest
  std::vector<double> x;
  FieldFit fit;
  if (!system.solve(x)) return fit;
  fit.shifts.resize(std::size_t(points));
  for (int p = 0; p < points; ++p) fit.shifts[std::size_t(p)] = cv::Point2d(x[std::size_t(2 * p)], x[std::size_t(2 * p + 1)]);
  double left = 0.0;
  for (std::size_t s = 0; s < measurements.size(); ++s) {
    const Cell cell = cellOf(places[s], columns, rows);
    cv::Point2d model(0, 0);
    for (int a = 0; a < 4; ++a) model += cell.weights[a] * fit.shifts[std::size_t(cell.points[a])];
    const cv::Vec2d r(model.x - measurements[s].shift.x, model.y - measurements[s].shift.y);
    left += r.dot(measurements[s].information * r);
  }
  fit.explained = noise - left;
  fit.left = left;
  fit.ok = true;
  return fit;
}

// Whether every cell of the grid keeps its orientation (no fold-over).
bool unfolded(const std::vector<cv::Point2d>& t, int columns, int rows) {
  const int stride = columns + 1;
  for (int j = 0; j < rows; ++j)
    for (int i = 0; i < columns; ++i) {
      const cv::Point2d corner[4] = {t[std::size_t(j * stride + i)], t[std::size_t(j * stride + i + 1)],
                                     t[std::size_t((j + 1) * stride + i + 1)], t[std::size_t((j + 1) * stride + i)]};
      for (int k = 0; k < 4; ++k) {
        const cv::Point2d a = corner[(k + 1) % 4] - corner[k], b = corner[(k + 2) % 4] - corner[(k + 1) % 4];
        if (!(a.x * b.y - a.y * b.x > 0.0)) return false;
      }
    }
  return true;
}

// Counts the estimate's progress steps; slot 0 of a module's steps is the
// driver's "Calibrating Module" report, so the first is not reported here.
class StepCounter {
 public:
  StepCounter(int steps, const std::function<void()>& step) : steps_(steps), step_(step) {}
  void takeTo(int count) {
    while (taken_ < std::min(count, steps_)) {
      if (taken_ > 0) step_();
      ++taken_;
    }
  }
  void finish() { takeTo(steps_); }
  int steps() const { return steps_; }

 private:
  int steps_, taken_ = 0;
  const std::function<void()>& step_;
};

cv::Point2d land(const cv::Matx33d& m, cv::Point2d p) {
  const cv::Vec3d q = m * cv::Vec3d(p.x, p.y, 1.0);
  return cv::Point2d(q[0] / q[2], q[1] / q[2]);
}

// The points the displacement field is measured at: a lattice at about half
// a grid cell (12..32 work pixels) over the aligned module's pixels, each
// with a patch of 1.5 spacings.
struct Lattice {
  int spacing = 0, patch = 0;
  std::vector<cv::Point> points;
};

Lattice layOutLattice(const cv::Matx33d& toTarget, int columns, int rows, const cv::Mat& alignedMask) {
  Lattice lattice;
  const cv::Point2d extent = land(toTarget, {1, 1}) - land(toTarget, {0, 0});
  double cell = std::min(std::fabs(extent.x) / columns, std::fabs(extent.y) / rows);
  if (!std::isfinite(cell)) cell = 64.0;
  lattice.spacing = std::clamp(static_cast<int>(std::lround(cell / 2.0)), 12, 32);
  lattice.patch = std::max(kSmallestPatch, static_cast<int>(std::lround(1.5 * lattice.spacing)));
  for (int y = lattice.spacing / 2; y < alignedMask.rows; y += lattice.spacing)
    for (int x = lattice.spacing / 2; x < alignedMask.cols; x += lattice.spacing)
      if (alignedMask.at<std::uint8_t>(y, x)) lattice.points.emplace_back(x, y);
  return lattice;
}

// The shift at one lattice point: coarse to fine, the patch grown by
// kGrowth on each of `attempts` tries until the shift is plausible (within a
// quarter of the patch) and the patches agree. `tries` counts the attempts.
PatchResult measurePoint(const PatchPictures& full, const PatchPictures& half, cv::Point at, int patch, int attempts,
                         int& tries) {
  const cv::Rect whole(0, 0, full.target.cols, full.target.rows);
  PatchResult result;
  double size = patch;
  for (int attempt = 0; attempt < attempts; ++attempt, size *= kGrowth) {
    tries = attempt + 1;
    const int s = static_cast<int>(std::min<double>(size, std::min(whole.width, whole.height)));
    const cv::Rect rect(at.x - s / 2, at.y - s / 2, s, s);
    if ((rect & whole) != rect) break;
    const PatchResult coarse =
        alignPatch(half, cv::Rect(rect.x / 2, rect.y / 2, rect.width / 2, rect.height / 2), cv::Point2d(0, 0));
    result = alignPatch(full, rect, coarse.ok ? 2.0 * coarse.shift : cv::Point2d(0, 0));
    if (result.ok && std::hypot(result.shift.x, result.shift.y) <= 0.25 * s && 1.0 - result.correlation <= kMostError) {
      return result;
    }
    result.ok = false;
  }
  return result;
}

// Every lattice point's shift, a band of points per progress step and
// sixteen bands at a time in parallel; false when aborted between them.
bool measureField(const PatchPictures& full, const Lattice& lattice, const EstimatorContext& context,
                  StepCounter& counter, std::vector<PatchResult>& found, std::vector<int>& tries) {
  const PatchPictures half = halved(full);
  const std::size_t count = lattice.points.size();
  found.assign(count, PatchResult());
  tries.assign(count, 0);
  const std::size_t band = std::max<std::size_t>(1, count / std::size_t(std::max(1, counter.steps())) + 1);
  for (std::size_t first = 0; first < count; first += band * 16) {
    if (context.aborted()) return false;
    const std::size_t last = std::min(count, first + band * 16);
    Utils::parallelItems(last - first, 8, 0, [&](std::size_t begin, std::size_t end) {
      for (std::size_t k = first + begin; k < first + end; ++k)
        found[k] = measurePoint(full, half, lattice.points[k], lattice.patch, GridEstimator::kTries, tries[k]);
    });
    counter.takeTo(static_cast<int>(double(last) / double(count) * counter.steps()));
  }
  return true;
}

// The measurements the fit may use (a shift that turns against its
// neighbours, is implausibly long or disagrees is left out, with its log
// line), and their grid positions (unit square) through `back`.
std::vector<cv::Point2d> keepMeasurements(const Lattice& lattice, const std::vector<PatchResult>& found,
                                          const std::vector<int>& tries, const cv::Matx33d& back,
                                          spdlog::logger& logger,
                                          std::vector<GridEstimator::Measurement>& measurements) {
  const std::vector<double> turns = localTurns(lattice.points, found, lattice.spacing);
  std::vector<cv::Point2d> places;
  // Neighbouring patches overlap: their information is shared, not added.
  const double overlap =
      std::min(1.0, double(lattice.spacing * lattice.spacing) / double(lattice.patch * lattice.patch));
  for (std::size_t k = 0; k < lattice.points.size(); ++k) {
    const PatchResult& r = found[k];
    const cv::Point2d place = land(back, cv::Point2d(lattice.points[k]));
    if (r.ok && std::fabs(turns[k]) > kMostLocalTurn) {
      logger.debug("Skip for rot: \t{}", turns[k] * 180.0 / CV_PI);
      continue;
    }
    if (r.ok && std::isfinite(place.x) && std::isfinite(place.y)) {
      if (tries[k] > 1) logger.debug("break on try {}", tries[k] - 1);
      measurements.push_back({cv::Point2d(lattice.points[k]), r.shift, r.information * overlap});
      places.push_back(place);
      continue;
    }
    const double distance = std::hypot(r.shift.x, r.shift.y);
    if (r.ok || distance > 0.0) {
      if (!(distance <= 0.25 * lattice.patch)) {
        logger.debug("Skip for dist: \t{}", distance);
      } else {
        logger.debug("Skip for err: \t{}", 1.0 - r.correlation);
      }
    }
  }
  logger.debug("{} of {} points of the displacement field measured", measurements.size(), lattice.points.size());
  return places;
}

// The grid fitted to the measurements, raising the regularisation while it
// folds; kept (true, `grid` and `displacements` set) when the field explains
// the measurements well beyond noise and does not fold.
bool fitGrid(const std::vector<GridEstimator::Measurement>& measurements, const std::vector<cv::Point2d>& places,
             const cv::Matx33d& toTarget, spdlog::logger& logger, Utils::UVGrid& grid,
             std::vector<cv::Point2f>& displacements) {
  const int columns = grid.columns(), rows = grid.rows();
  const cv::Matx33d back = toTarget.inv();
  const int points = (columns + 1) * (rows + 1);
  std::vector<cv::Point2d> regular(static_cast<std::size_t>(points)), landing(regular.size());
  for (int j = 0; j <= rows; ++j)
    for (int i = 0; i <= columns; ++i) {
      regular[std::size_t(j * (columns + 1) + i)] = cv::Point2d(double(i) / columns, double(j) / rows);
      landing[std::size_t(j * (columns + 1) + i)] = land(toTarget, regular[std::size_t(j * (columns + 1) + i)]);
    }
  double regularisation = kRegularisation;
  for (int attempt = 0; attempt <= kFoldRetries && !measurements.empty(); ++attempt, regularisation *= 10.0) {
    const FieldFit fit = fitField(measurements, places, columns, rows, regularisation);
    if (!fit.ok) break;
    // Whether the field explains the measurements beyond what fitting its
    // freedom to noise would: the explained chi-square per degree of freedom
    // of the field against the one left per remaining degree of freedom (a
    // ratio that does not depend on how well the measurements' information
    // is scaled).
    const double freedom = std::min(2.0 * points, 2.0 * double(measurements.size()));
    const double remaining = std::max(1.0, 2.0 * double(measurements.size()) - freedom);
    const double ratio = (fit.explained / freedom) / std::max(1e-12, fit.left / remaining);
    if (!(ratio > kSignificance)) {
      logger.debug("the displacement field explains {:.2f} times the noise: the grid stays regular", ratio);
      break;
    }
    logger.debug("the displacement field explains {:.2f} times the noise", ratio);
    std::vector<cv::Point2d> named(regular.size());
    for (std::size_t p = 0; p < named.size(); ++p) named[p] = land(back, landing[p] + fit.shifts[p]);
    if (!unfolded(named, columns, rows)) {
      logger.debug("diff or error to big: {} {}{}", regularisation, fit.explained, " retry with bigger scale");
      continue;
    }
    double distanceSum = 0.0;
    for (std::size_t p = 0; p < named.size(); ++p) {
      displacements[p] = cv::Point2f(static_cast<float>(fit.shifts[p].x), static_cast<float>(fit.shifts[p].y));
      distanceSum += std::hypot(fit.shifts[p].x, fit.shifts[p].y);
    }
    std::vector<Utils::UVGrid::UVPoint> moved;
    for (const auto& t : named) moved.push_back({static_cast<float>(t.x), static_cast<float>(t.y)});
    grid.setPoints(moved);
    logger.info("Mean diff distance: {}", distanceSum / points);
    return true;
  }
  logger.info("Mean diff distance: {}", 0.0);
  return false;
}

}  // namespace

GridEstimator::GridEstimator(EstimatorContext context, std::function<void()> step)
    : context_(std::move(context)), step_(std::move(step)) {}

EstimateResult GridEstimator::estimate(const WorkPictures& pictures, const cv::Matx33f& homography,
                                       const cv::Matx33d& textureToWork, Utils::UVGrid& grid,
                                       std::vector<cv::Point2f>& displacements) {
  measurements_.clear();
  fieldKept_ = false;
  const int columns = grid.columns(), rows = grid.rows();
  StepCounter counter(grid.empty() ? 0 : 4 * columns * rows, step_);

  // 1. The global homography, by feature matching.
  FeatureMatcher matcher(context_);
  EstimateResult global = matcher.estimate(pictures, homography, kFeatures, 0.0f, 0.0f);
  displacements.assign(grid.empty() ? 0 : std::size_t(columns + 1) * std::size_t(rows + 1), cv::Point2f(0, 0));
  if (!(global.error < kFailedError) || grid.empty() || context_.aborted()) {
    counter.finish();
    return global;
  }
  const cv::Matx33d h(global.homography);
  cv::Mat aligned, alignedMask;
  cv::warpPerspective(pictures.moduleGrey, aligned, cv::Mat(h), pictures.targetGrey.size());
  const cv::Mat ones = pictures.moduleMask.empty() ? cv::Mat(pictures.moduleGrey.size(), CV_8U, cv::Scalar(255))
                                                   : pictures.moduleMask;
  cv::warpPerspective(ones, alignedMask, cv::Mat(h), pictures.targetGrey.size(), cv::INTER_NEAREST);
  // Where the grid's positions land on the target (work pixels).
  const cv::Matx33d toTarget = h * textureToWork;

  // 2. The displacement field left after it, at the points of a lattice.
  const Lattice lattice = layOutLattice(toTarget, columns, rows, alignedMask);
  std::vector<PatchResult> found;
  std::vector<int> tries;
  if (!measureField(patchPictures(pictures.targetGrey, aligned, alignedMask), lattice, context_, counter, found,
                    tries)) {
    counter.finish();
    return global;
  }
  const std::vector<cv::Point2d> places =
      keepMeasurements(lattice, found, tries, toTarget.inv(), *context_.logger, measurements_);

  // 3. and 4. The grid fitted to them, kept when it explains them and does not fold.
  fieldKept_ = fitGrid(measurements_, places, toTarget, *context_.logger, grid, displacements);
  if (fieldKept_) global.value = (columns + 1) * (rows + 1);
  counter.finish();
  return global;
}

}  // namespace MatrixBased
}  // namespace GeometryCalibration
