// Seams that hold where the rotation model cannot (see rig_seams.h).
#include "geometry_calibration/rig/rig_seams.h"

#include <algorithm>
#include <cmath>
#include <map>

#include <Eigen/SparseCholesky>
#include <Eigen/SparseCore>

namespace GeometryCalibration {
namespace Rig {
namespace {

// A match that differs from the median disparity of the matches around it
// (within kNeighbourhood panorama pixels, at least kFewestNeighbours of them)
// by more than kLocalAgreement pixels is taken as wrong.
constexpr double kNeighbourhood = 80.0;
constexpr int kFewestNeighbours = 4;
constexpr double kLocalAgreement = 4.0;
// Pairs whose matches the rotation model puts within this median distance
// (panorama pixels) of each other are left as the model draws them.
constexpr double kNoParallaxPx = 0.35;
// Robust loss of the reweighted solves (Cauchy, pixels) and how many.
constexpr double kLossScale = 1.5;
constexpr int kReweightings = 4;
constexpr double kSmoothness = 0.15;  // per neighbouring node pair

struct Constraint {
  int a, b;             // modules
  cv::Point2d pa, pb;   // observed pixels
  cv::Point2d disparity;  // drawn position of pb minus that of pa, panorama pixels
};

// The grid points (indices into each field's unknowns) and weights a
// constraint's two observed pixels are interpolated from.
struct Taps {
  int ia[16], ib[16];
  double wa[16], wb[16];
};

template <typename Fields>
Taps tapsOf(const Fields& fields, const Constraint& k) {
  Taps taps;
  fields[std::size_t(k.a)].weights(k.pa, taps.ia, taps.wa);
  fields[std::size_t(k.b)].weights(k.pb, taps.ib, taps.wb);
  return taps;
}

double median(std::vector<double> v) {
  std::nth_element(v.begin(), v.begin() + long(v.size() / 2), v.end());
  return v[v.size() / 2];
}

// The matches whose disparity agrees with their neighbours'.
std::vector<Constraint> agreeingMatches(const std::vector<ModuleModel>& models, const Surface& surface,
                                        const std::vector<Match>& matches, const SeamSettings& settings) {
  const cv::Size size = surface.pixels();
  std::map<std::pair<int, int>, std::vector<Constraint>> byPair;
  for (const Match& m : matches) {
    const cv::Point2d ua = surface.toUnit(models[std::size_t(m.a)], m.pa);
    const cv::Point2d ub = surface.toUnit(models[std::size_t(m.b)], m.pb);
    Constraint c{m.a, m.b, m.pa, m.pb, surface.offset(ua, ub)};
    if (!(cv::norm(c.disparity) < settings.largestDisparity)) continue;
    byPair[{m.a, m.b}].push_back(c);
  }
  std::vector<Constraint> kept;
  for (const auto& [pair, list] : byPair) {
    // A pair the rotation model already lines up to within its features'
    // own scatter shows no parallax to hold: its matches would only teach
    // the fields that scatter.
    std::vector<double> lengths;
    for (const auto& c : list) lengths.push_back(cv::norm(c.disparity));
    if (lengths.empty() || median(lengths) < kNoParallaxPx) continue;
    std::vector<cv::Point2d> at;
    for (const auto& c : list) {
      const cv::Point2d u = surface.toUnit(models[std::size_t(c.a)], c.pa);
      at.emplace_back(u.x * size.width, u.y * size.height);
    }
    for (std::size_t i = 0; i < list.size(); ++i) {
      std::vector<double> dx, dy;
      for (std::size_t j = 0; j < list.size(); ++j) {
        if (j == i || cv::norm(at[i] - at[j]) > kNeighbourhood) continue;
        dx.push_back(list[j].disparity.x);
        dy.push_back(list[j].disparity.y);
      }
      if (int(dx.size()) >= kFewestNeighbours &&
          cv::norm(list[i].disparity - cv::Point2d(median(dx), median(dy))) > kLocalAgreement) {
        continue;
      }
      if (int(dx.size()) < kFewestNeighbours && cv::norm(list[i].disparity) > kLocalAgreement * 2) continue;
      kept.push_back(list[i]);
    }
  }
  return kept;
}

}  // namespace

Displacement::Displacement(cv::Size picture, int columns, int rows)
    : picture_(picture), columns_(columns), rows_(rows),
      nodes_(std::size_t(columns) * std::size_t(rows), cv::Point2d(0, 0)) {}

void Displacement::weights(cv::Point2d observed, int index[16], double weight[16]) const {
  // Uniform cubic B-spline over the nodes (smooth to the second derivative,
  // so the grids drawn from it need few cells); nodes beyond the lattice's
  // edge repeat the edge.
  const double x = std::clamp((observed.x + 0.5) / picture_.width, 0.0, 1.0) * (columns_ - 1);
  const double y = std::clamp((observed.y + 0.5) / picture_.height, 0.0, 1.0) * (rows_ - 1);
  const int i = std::min(int(x), columns_ - 2), j = std::min(int(y), rows_ - 2);
  const auto basis = [](double t, double b[4]) {
    const double t2 = t * t, t3 = t2 * t;
    b[0] = (1 - 3 * t + 3 * t2 - t3) / 6.0;
    b[1] = (4 - 6 * t2 + 3 * t3) / 6.0;
    b[2] = (1 + 3 * t + 3 * t2 - 3 * t3) / 6.0;
    b[3] = t3 / 6.0;
  };
  double bx[4], by[4];
  basis(x - i, bx);
  basis(y - j, by);
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) {
      const int ni = std::clamp(i - 1 + c, 0, columns_ - 1), nj = std::clamp(j - 1 + r, 0, rows_ - 1);
      index[r * 4 + c] = nj * columns_ + ni;
      weight[r * 4 + c] = bx[c] * by[r];
    }
}

cv::Point2d Displacement::at(cv::Point2d observed) const {
  if (nodes_.empty()) return cv::Point2d(0, 0);
  int index[16];
  double weight[16];
  weights(observed, index, weight);
  cv::Point2d d(0, 0);
  for (int k = 0; k < 16; ++k) d += nodes_[std::size_t(index[k])] * weight[k];
  return d;
}

double Displacement::largest() const {
  double largest = 0.0;
  for (const auto& n : nodes_) largest = std::max(largest, cv::norm(n));
  return largest;
}

cv::Point2d drawnAt(const ModuleModel& model, const Surface& surface, const Displacement& d, cv::Point2d p) {
  const cv::Point2d unit = surface.toUnit(model, p);
  const cv::Point2d shift = d.at(p);
  const cv::Size size = surface.pixels();
  return cv::Point2d(unit.x + shift.x / size.width, unit.y + shift.y / size.height);
}

std::vector<Displacement> holdSeams(const std::vector<ModuleModel>& models, const Surface& surface,
                                    const std::vector<Match>& matches, const SeamSettings& settings) {
  std::vector<Displacement> fields;
  std::vector<int> offset;
  int unknowns = 0;
  for (const auto& m : models) {
    const int cols = std::max(2, int(std::ceil(m.picture.width / settings.nodeSpacing)) + 1);
    const int rows = std::max(2, int(std::ceil(m.picture.height / settings.nodeSpacing)) + 1);
    fields.emplace_back(m.picture, cols, rows);
    offset.push_back(unknowns);
    unknowns += cols * rows;
  }
  const std::vector<Constraint> constraints = agreeingMatches(models, surface, matches, settings);
  if (constraints.empty()) return fields;

  // The fixed part of the normal equations: smoothness and anchoring.
  const double anchoring = kSmoothness / (settings.fadeNodes * settings.fadeNodes);
  std::vector<Eigen::Triplet<double>> fixedPart;
  for (std::size_t k = 0; k < fields.size(); ++k) {
    const int cols = fields[k].columns(), rows = fields[k].rows();
    for (int j = 0; j < rows; ++j)
      for (int i = 0; i < cols; ++i) {
        const int n = offset[k] + j * cols + i;
        fixedPart.emplace_back(n, n, anchoring);
        for (const int neighbour : {i + 1 < cols ? n + 1 : -1, j + 1 < rows ? n + cols : -1}) {
          if (neighbour < 0) continue;
          fixedPart.emplace_back(n, n, kSmoothness);
          fixedPart.emplace_back(neighbour, neighbour, kSmoothness);
          fixedPart.emplace_back(n, neighbour, -kSmoothness);
          fixedPart.emplace_back(neighbour, n, -kSmoothness);
        }
      }
  }

  // The constraints as the rows of one sparse matrix, built once: row c
  // reads D_a(pa) - D_b(pb) from the nodes it taps, to equal c's disparity.
  const long count = long(constraints.size());
  Eigen::SparseMatrix<double, Eigen::RowMajor> rowsOf(count, unknowns);
  Eigen::VectorXd dx(count), dy(count);
  {
    std::vector<Eigen::Triplet<double>> taps;
    taps.reserve(constraints.size() * 32);
    for (long c = 0; c < count; ++c) {
      const Constraint& k = constraints[std::size_t(c)];
      const Taps t = tapsOf(fields, k);
      for (int n = 0; n < 16; ++n) {
        taps.emplace_back(c, offset[std::size_t(k.a)] + t.ia[n], t.wa[n]);
        taps.emplace_back(c, offset[std::size_t(k.b)] + t.ib[n], -t.wb[n]);
      }
      dx[c] = k.disparity.x;
      dy[c] = k.disparity.y;
    }
    rowsOf.setFromTriplets(taps.begin(), taps.end());
  }
  Eigen::SparseMatrix<double> fixed(unknowns, unknowns);
  fixed.setFromTriplets(fixedPart.begin(), fixedPart.end());

  // Reweighted least squares: the normal equations F + A^T W A, each match
  // weighed by the Cauchy loss of the residual it kept.
  Eigen::VectorXd weight = Eigen::VectorXd::Ones(count);
  Eigen::VectorXd x = Eigen::VectorXd::Zero(unknowns), y = Eigen::VectorXd::Zero(unknowns);
  Eigen::SimplicialLDLT<Eigen::SparseMatrix<double>> solver;
  for (int round = 0; round < kReweightings; ++round) {
    const Eigen::SparseMatrix<double> weighted = weight.asDiagonal() * rowsOf;
    const Eigen::SparseMatrix<double> normal = fixed + Eigen::SparseMatrix<double>(rowsOf.transpose() * weighted);
    solver.compute(normal);
    if (solver.info() != Eigen::Success) return std::vector<Displacement>(models.size());
    x = solver.solve(weighted.transpose() * dx);
    y = solver.solve(weighted.transpose() * dy);
    const Eigen::VectorXd rx = rowsOf * x - dx, ry = rowsOf * y - dy;
    weight = (1.0 + (rx.array().square() + ry.array().square()) / (kLossScale * kLossScale)).inverse().matrix();
  }
  for (std::size_t k = 0; k < fields.size(); ++k) {
    auto& nodes = fields[k].nodes();
    for (std::size_t n = 0; n < nodes.size(); ++n) {
      nodes[n] = cv::Point2d(x[offset[k] + long(n)], y[offset[k] + long(n)]);
    }
  }
  return fields;
}

}  // namespace Rig
}  // namespace GeometryCalibration
