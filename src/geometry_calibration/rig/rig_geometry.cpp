// A rig module's matrix, UV grid and lens shader (see rig_geometry.h).
#include "geometry_calibration/rig/rig_geometry.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <opencv2/calib3d.hpp>

#include "orbivane/geometry/surface_projection.h"
#include "orbivane/shading/image_shading.h"
#include "shading/distortion_model.h"
#include "utils/parallel.h"

namespace GeometryCalibration {
namespace Rig {
namespace {

constexpr int kLargestGridSide = 128;
// A module that sees a pole spans every longitude: more columns, each a few degrees.
constexpr int kLargestPoleGridColumns = 512;
constexpr int kFirstGridSide = 8;
// A fitted homography whose unit square must grow beyond this to hold the
// picture fits too badly; an affine map is taken instead.
constexpr double kWidestOutline = 1.6;  // cells along the picture's longer side to start with
// Texture coordinate of grid points that lie behind the module's camera: far
// outside the picture, so the viewer draws nothing there.
constexpr double kBehind = -4.0;
// Fixed-point steps that undo a module's displacement (each gains about the
// displacement's slope, a few hundredths).
constexpr int kDisplacementSteps = 4;

// The shader's lens (polynomial, power 2, centred), in double precision:
// texture t -> picture texture s = c + d (1 + F q), d = t - c, q = 2 |d|^2.
// (The polynomial form, not the division one: a camera with a division lens
// shader turns on target matching's distortion-method step.)
struct ShaderLens {
  double strength = 0.0;
  cv::Point2d map(cv::Point2d t) const {
    const cv::Point2d d = t - cv::Point2d(0.5, 0.5);
    const double q = 2.0 * (d.x * d.x + d.y * d.y);
    return cv::Point2d(0.5, 0.5) + d * (1.0 + strength * q);
  }
  // The t that the shader draws from s: along the same direction, the
  // radius r with r (1 + 2 F r^2) = |s - c| (Newton; past the radius where
  // the lens stops growing, continued straight).
  cv::Point2d inverse(cv::Point2d s) const {
    const cv::Point2d d = s - cv::Point2d(0.5, 0.5);
    const double target = std::hypot(d.x, d.y);
    if (target < 1e-15 || strength == 0.0) return s;
    double r = target;
    for (int i = 0; i < 30; ++i) {
      const double value = r * (1.0 + 2.0 * strength * r * r) - target;
      const double slope = 1.0 + 6.0 * strength * r * r;
      if (!(slope > 0.05)) break;
      const double next = r - value / slope;
      const bool done = std::fabs(next - r) < 1e-14;
      r = next;
      if (done) break;
    }
    return cv::Point2d(0.5, 0.5) + d * (r / target);
  }
  // The texture coordinate `t` held within the radius where a shrinking
  // lens (strength < 0) stops growing: beyond it the shader's polynomial
  // turns back and would draw the picture again far outside it. Grid points
  // that far out lie off the picture; held at that radius they stay off it.
  cv::Point2d unfolded(cv::Point2d t) const {
    if (!(strength < 0.0)) return t;
    const cv::Point2d d = t - cv::Point2d(0.5, 0.5);
    const double r = std::hypot(d.x, d.y), fold = 1.0 / std::sqrt(-6.0 * strength);
    return r > fold ? cv::Point2d(0.5, 0.5) + d * (fold / r) : t;
  }
};

cv::Point2d texture(cv::Point2d pixel, cv::Size picture) {
  return cv::Point2d(pixel.x / picture.width, pixel.y / picture.height);
}
cv::Point2d pixel(cv::Point2d texture, cv::Size picture) {
  return cv::Point2d(texture.x * picture.width, texture.y * picture.height);
}

// The strength that best draws the module's lens: the picture
// point of each ideal texture coordinate, least squares in picture pixels
// (golden section over the strength).
double fitStrength(const ModuleModel& model) {
  std::vector<std::pair<cv::Point2d, cv::Point2d>> samples;  // ideal texture, observed texture
  for (int j = 0; j <= 12; ++j)
    for (int i = 0; i <= 16; ++i) {
      const cv::Point2d observed(i / 16.0 * model.picture.width, j / 12.0 * model.picture.height);
      samples.emplace_back(texture(model.undistort(observed), model.picture), texture(observed, model.picture));
    }
  auto cost = [&](double f) {
    ShaderLens lens{f};
    double sum = 0.0;
    for (const auto& [ideal, observed] : samples) {
      const cv::Point2d d = pixel(lens.map(ideal) - observed, model.picture);
      sum += d.dot(d);
    }
    return sum;
  };
  double low = -0.15, high = 0.15;
  const double ratio = 0.5 * (std::sqrt(5.0) - 1.0);
  double a = high - ratio * (high - low), b = low + ratio * (high - low);
  double ca = cost(a), cb = cost(b);
  for (int k = 0; k < 80; ++k) {
    if (ca < cb) {
      high = b;
      b = a;
      cb = ca;
      a = high - ratio * (high - low);
      ca = cost(a);
    } else {
      low = a;
      a = b;
      ca = cb;
      b = low + ratio * (high - low);
      cb = cost(b);
    }
  }
  return 0.5 * (low + high);
}

OrbivaneGeometry::Shader lensShader(double strength) {
  char text[64];
  std::snprintf(text, sizeof text, "%f", strength);
  return OrbivaneGeometry::Shader(ImageSource::kLensDistortionShaderUid,
                                  {{"f_TCorrection_F", text},
                                   {"f_TCorrection_H", "0.500000"},
                                   {"f_TCorrection_V", "0.500000"},
                                   {"f_ps_distortion_ext_xshift", "0.000000"},
                                   {"f_ps_distortion_ext_yshift", "0.000000"},
                                   {"i_ps_distortion_ext_pwp", "2"},
                                   {"i_ps_distortion_ext_method", "0"}});
}

cv::Point2d apply(const cv::Matx33d& h, cv::Point2d p) {
  const cv::Vec3d v = h * cv::Vec3d(p.x, p.y, 1.0);
  return cv::Point2d(v[0] / v[2], v[1] / v[2]);
}

// The module as placed: its model, the surface and its displacement.
struct Placed {
  const ModuleModel& model;
  const Surface& surface;
  const Displacement& displacement;
  cv::Point2d drawn(cv::Point2d observed) const { return drawnAt(model, surface, displacement, observed); }
};

// The texture coordinate the grid must name at unit-square position q: the
// picture point drawn there (the model's point displaced; found by fixed-point
// steps, the displacement being smooth and small).
cv::Point2d exactTexture(const Placed& placed, const ShaderLens& lens, const cv::Matx33d& matrix, cv::Point2d q) {
  const cv::Point2d unit = apply(matrix, q);
  cv::Point2d observed;
  if (!placed.surface.toPicture(placed.model, unit, observed)) return cv::Point2d(kBehind, kBehind);
  if (!placed.displacement.empty()) {
    const cv::Size size = placed.surface.pixels();
    for (int k = 0; k < kDisplacementSteps; ++k) {
      const cv::Point2d shift = placed.displacement.at(observed);
      const cv::Point2d from(unit.x - shift.x / size.width, unit.y - shift.y / size.height);
      if (!placed.surface.toPicture(placed.model, from, observed)) return cv::Point2d(kBehind, kBehind);
    }
  }
  return lens.unfolded(lens.inverse(texture(observed, placed.model.picture)));
}

struct GridFit {
  Utils::UVGrid grid;
  double error = 0.0;  // picture pixels
};

// A grid of cols x rows cells and its largest error at cell centres and edge
// middles that draw the picture (or lie within a cell of it).
GridFit fitGrid(const Placed& placed, const ShaderLens& lens, const cv::Matx33d& matrix, int cols, int rows) {
  const ModuleModel& model = placed.model;
  GridFit fit{Utils::UVGrid(cols, rows), 0.0};
  // Rows on the machine's cores: every point is computed alone.
  std::vector<Utils::UVGrid::UVPoint> points(std::size_t(cols + 1) * std::size_t(rows + 1));
  Utils::parallelRows(0, rows + 1, [&](int first, int last) {
    for (int j = first; j < last; ++j)
      for (int i = 0; i <= cols; ++i) {
        const cv::Point2d t = exactTexture(placed, lens, matrix, cv::Point2d(double(i) / cols, double(j) / rows));
        points[std::size_t(j) * std::size_t(cols + 1) + std::size_t(i)] = {float(t.x), float(t.y)};
      }
  });
  fit.grid.setPoints(std::move(points));
  const double marginU = 1.0 / cols, marginV = 1.0 / rows;
  std::vector<double> rowError(std::size_t(2 * rows), 0.0);
  Utils::parallelRows(0, 2 * rows, [&](int first, int last) {
    for (int j = first; j < last; ++j)
      for (int i = 0; i < 2 * cols; ++i) {
        if (i % 2 == 0 && j % 2 == 0) continue;  // grid points themselves are exact
        const cv::Point2d q(i / (2.0 * cols), j / (2.0 * rows));  // cell centres and edge middles
        const cv::Point2d exact = exactTexture(placed, lens, matrix, q);
        const cv::Point2d s = lens.map(exact);
        if (s.x < -marginU || s.x > 1.0 + marginU || s.y < -marginV || s.y > 1.0 + marginV) continue;
        const Utils::UVGrid::UVPoint g = fit.grid.sample(float(q.x), float(q.y));
        const cv::Point2d drawn = lens.map(cv::Point2d(g.u, g.v));
        rowError[std::size_t(j)] = std::max(rowError[std::size_t(j)], cv::norm(pixel(drawn - s, model.picture)));
      }
  });
  for (const double e : rowError) fit.error = std::max(fit.error, e);
  return fit;
}


// The homography that best maps the lens shader's texture coordinate t to
// the surface over a lattice of the picture, widened so that its unit square
// holds the whole picture; w = 1 at the middle of the unit square.
cv::Matx33d fittedMatrix(const Placed& placed, const ShaderLens& lens) {
  const ModuleModel& model = placed.model;
  std::vector<cv::Point2f> from, to;
  for (int j = 0; j <= 12; ++j)
    for (int i = 0; i <= 16; ++i) {
      const cv::Point2d observed(i / 16.0 * model.picture.width - 0.5, j / 12.0 * model.picture.height - 0.5);
      const cv::Point2d t = lens.inverse(texture(observed, model.picture));
      const cv::Point2d unit = placed.drawn(observed);
      from.emplace_back(float(t.x), float(t.y));
      to.emplace_back(float(unit.x), float(unit.y));
    }
  // The box of the picture's outline in the unit square of `h`.
  const auto outlineBox = [&](const cv::Matx33d& h, double& left, double& right, double& top, double& bottom) {
    const cv::Matx33d inverse = h.inv();
    left = top = 1e18;
    right = bottom = -1e18;
    for (const auto& p : pictureBorder(model.picture, 64)) {
      const cv::Vec3d q = inverse * cv::Vec3d(placed.drawn(p).x, placed.drawn(p).y, 1.0);
      if (!(q[2] > 1e-9)) return false;  // the outline crosses the homography's horizon
      left = std::min(left, q[0] / q[2]);
      right = std::max(right, q[0] / q[2]);
      top = std::min(top, q[1] / q[2]);
      bottom = std::max(bottom, q[1] / q[2]);
    }
    return std::isfinite(left + right + top + bottom);
  };
  cv::Mat fitted = cv::findHomography(from, to, 0);
  cv::Matx33d h = fitted.empty() ? cv::Matx33d::eye() : cv::Matx33d(fitted);
  double left = 0, right = 0, top = 0, bottom = 0;
  if (!outlineBox(h, left, right, top, bottom) || right - left > kWidestOutline || bottom - top > kWidestOutline) {
    // A footprint too curved for one homography (a module looking far up or
    // down on a wide panorama): the best affine map, and the grid does the rest.
    cv::Mat a(int(from.size()) * 2, 6, CV_64F, cv::Scalar(0)), b(int(from.size()) * 2, 1, CV_64F);
    for (int k = 0; k < int(from.size()); ++k) {
      const double row[3] = {from[std::size_t(k)].x, from[std::size_t(k)].y, 1.0};
      for (int c = 0; c < 3; ++c) {
        a.at<double>(2 * k, c) = row[c];
        a.at<double>(2 * k + 1, 3 + c) = row[c];
      }
      b.at<double>(2 * k) = to[std::size_t(k)].x;
      b.at<double>(2 * k + 1) = to[std::size_t(k)].y;
    }
    cv::Mat x;
    cv::solve(a, b, x, cv::DECOMP_SVD);
    h = cv::Matx33d(x.at<double>(0), x.at<double>(1), x.at<double>(2), x.at<double>(3), x.at<double>(4),
                    x.at<double>(5), 0, 0, 1);
    outlineBox(h, left, right, top, bottom);
  }
  const double marginX = 2e-3 * (right - left), marginY = 2e-3 * (bottom - top);
  const cv::Matx33d widen(right - left + 2 * marginX, 0, left - marginX, 0, bottom - top + 2 * marginY, top - marginY,
                          0, 0, 1);
  cv::Matx33d matrix = h * widen;
  return matrix * (1.0 / (matrix * cv::Vec3d(0.5, 0.5, 1.0))[2]);
}

// A module that sees a pole: its unit square is the band of the panorama
// from that pole to the picture's furthest point (every longitude); the grid
// does the rest.
cv::Matx33d poleMatrix(const Placed& placed) {
  const ModuleModel& model = placed.model;
  double extreme = Surface::poleOf(model) > 0 ? 0.0 : 1.0;
  for (const auto& p : pictureBorder(model.picture, 64)) {
    const double y = placed.drawn(p).y;
    extreme = Surface::poleOf(model) > 0 ? std::max(extreme, y) : std::min(extreme, y);
  }
  const double top = Surface::poleOf(model) > 0 ? 0.0 : extreme;
  const double bottom = Surface::poleOf(model) > 0 ? extreme : 1.0;
  const double margin = 2e-3 * (bottom - top);
  return cv::Matx33d(1, 0, 0, 0, bottom - top + margin, top - (Surface::poleOf(model) > 0 ? 0.0 : margin), 0, 0, 1);
}

}  // namespace

ModulePlacement placeModule(const ModuleModel& model, const Surface& surface, const Displacement& displacement,
                            double tolerancePx) {
  const Placed placed{model, surface, displacement};
  ModulePlacement placement;
  placement.lens = lensShader(fitStrength(model));
  // The renderer's own reading of the written values.
  const ShaderLens lens{double(ImageSource::LensDistortion::fromShader(placement.lens).strength)};

  const cv::Matx33d matrix = Surface::poleOf(model) != 0 ? poleMatrix(placed) : fittedMatrix(placed, lens);
  placement.matrix = OrbivaneGeometry::matrixFromPlanarHomography(matrix);
  const cv::Matx33d written = OrbivaneGeometry::planarHomography(placement.matrix);  // as stored, in floats

  // Cells until the grid draws within the tolerance.
  const double aspect = double(model.picture.height) / model.picture.width;
  int cols = aspect <= 1.0 ? kFirstGridSide : std::max(2, int(std::ceil(kFirstGridSide / aspect)));
  int rows = aspect <= 1.0 ? std::max(2, int(std::ceil(kFirstGridSide * aspect))) : kFirstGridSide;
  const bool pole = Surface::poleOf(model) != 0;
  if (pole) cols *= 4;
  const int largestCols = pole ? kLargestPoleGridColumns : kLargestGridSide;
  GridFit fit = fitGrid(placed, lens, written, cols, rows);
  while (fit.error > tolerancePx && (cols < largestCols || rows < kLargestGridSide)) {
    // Bilinear cells err with the square of their size: grow by what the
    // error asks for (a little more), at least by half.
    const double grow = std::clamp(1.1 * std::sqrt(fit.error / tolerancePx), 1.5, 4.0);
    cols = std::min(largestCols, int(std::ceil(cols * grow)));
    rows = std::min(kLargestGridSide, int(std::ceil(rows * grow)));
    fit = fitGrid(placed, lens, written, cols, rows);
  }
  placement.grid = fit.grid;
  placement.gridErrorPx = fit.error;
  return placement;
}

}  // namespace Rig
}  // namespace GeometryCalibration
