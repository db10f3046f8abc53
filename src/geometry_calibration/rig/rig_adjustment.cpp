// The rig's bundle adjustment with Ceres (see rig_adjustment.h).
#include "geometry_calibration/rig/rig_adjustment.h"

#include <algorithm>
#include <cmath>
#include <array>
#include <memory>

#include <ceres/ceres.h>
#include <ceres/rotation.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/core/utility.hpp>

namespace GeometryCalibration {
namespace Rig {
namespace {

// After a solve, a match is kept when its residual (observed pixels) is
// within kSpread times the median residual, that threshold held within
// kTightest .. kLoosest.
constexpr double kTightest = 2.0, kLoosest = 6.0, kSpread = 3.0;
// Bounds of the lens: the distortion terms and the focal length's share of
// its first estimate.
constexpr double kLargestDistortion = 0.5;
constexpr double kFocalRange = 2.0;
// The model must stay monotonic this far out (half diagonals): grids reach a
// little beyond the picture's corners.
constexpr double kMonotonicRadius = 1.4;
// Iterations of the shared lens's solve when each module's own lens follows.
constexpr int kSharedLensIterations = 30;
// The first solves' robust loss scales (pixels), wide to narrow.
constexpr double kNarrowingLoss[] = {40.0, 10.0, 3.0};
// How far a module's own lens may stray from the rig's shared one before it
// costs as much as one match a pixel off: 2 % of the focal length, 0.02 of a
// distortion term.
constexpr double kFocalSigma = 0.02, kDistortionSigma = 0.02;
// How weakly the lens is held near its first guess (see LensHold): the
// spreads of distortion terms and of the focal length (a share of it), and
// the share of the matches the hold is worth.
constexpr double kDistortionSpread = 0.05;
constexpr double kFocalSpread = 0.05;
constexpr double kHoldShare = 0.1;

// Cost of one direction of a match: pixel `from` of module A, seen in module
// B, against pixel `to` of B, in ideal pixels of B.
struct RayCost {
  RayCost(cv::Point2d from, cv::Point2d to, cv::Point2d centreA, double diagonalA, cv::Point2d centreB,
          double diagonalB)
      : fx(from.x - centreA.x), fy(from.y - centreA.y), tx(to.x - centreB.x), ty(to.y - centreB.y),
        inverseDiagonalA2(1.0 / (diagonalA * diagonalA)), inverseDiagonalB2(1.0 / (diagonalB * diagonalB)) {}

  template <typename T>
  bool operator()(const T* rotationA, const T* lensA, const T* rotationB, const T* lensB, T* residual) const {
    // Ideal offsets from the centre: (1 + k1 r^2 + k2 r^4) times the observed.
    const double ra2 = (fx * fx + fy * fy) * inverseDiagonalA2;
    const T sa = T(1.0) + lensA[1] * ra2 + lensA[2] * ra2 * ra2;
    const T camera[3] = {T(fx) * sa / lensA[0], T(fy) * sa / lensA[0], T(1.0)};
    T world[3];
    ceres::AngleAxisRotatePoint(rotationA, camera, world);
    const T back[3] = {-rotationB[0], -rotationB[1], -rotationB[2]};
    T inB[3];
    ceres::AngleAxisRotatePoint(back, world, inB);
    const double rb2 = (tx * tx + ty * ty) * inverseDiagonalB2;
    const T sb = T(1.0) + lensB[1] * rb2 + lensB[2] * rb2 * rb2;
    // Behind B: a constant large cost with no pull (cannot happen near the solution).
    if (!(inB[2] > T(1e-6))) {
      residual[0] = T(1e3);
      residual[1] = T(1e3);
      return true;
    }
    residual[0] = lensB[0] * inB[0] / inB[2] - T(tx) * sb;
    residual[1] = lensB[0] * inB[1] / inB[2] - T(ty) * sb;
    return true;
  }

  double fx, fy, tx, ty, inverseDiagonalA2, inverseDiagonalB2;
};

// The same cost when both modules share one lens.
struct SharedLensCost {
  RayCost cost;
  template <typename T>
  bool operator()(const T* rotationA, const T* lens, const T* rotationB, T* residual) const {
    return cost(rotationA, lens, rotationB, lens, residual);
  }
};

// A module's lens pulled towards the rig's shared lens: (focal - f0) / sigma,
// (k - k0) / sigma.
struct LensPrior {
  LensPrior(const std::array<double, 3>& lens, double focal, double distortion)
      : shared(lens), focalSigma(focal), distortionSigma(distortion) {}
  template <typename T>
  bool operator()(const T* lens, T* residual) const {
    residual[0] = (lens[0] - T(shared[0])) / T(focalSigma);
    residual[1] = (lens[1] - T(shared[1])) / T(distortionSigma);
    residual[2] = (lens[2] - T(shared[2])) / T(distortionSigma);
    return true;
  }
  std::array<double, 3> shared;
  double focalSigma, distortionSigma;
};

// The lens held, weakly, near what the pairs say before any adjustment: its
// focal length near the pair homographies' typical one, its distortion near
// none. Overlaps lie at the pictures' edges, where a much longer focal
// length with strong distortion draws much like the right one without, and
// near objects seen from a moving camera can favour the wrong one; a pull
// worth a hundredth of the lens's matches decides such a case and leaves a
// rig whose matches do decide alone. Residuals sqrt(n) * share * (deviation
// / spread) for n matches of the lens.
struct LensHold {
  double weight;  // sqrt(n) * share
  double focal;   // the guess (0: focal length not held)
  template <typename T>
  bool operator()(const T* lens, T* residual) const {
    residual[0] = focal > 0.0 ? (lens[0] / T(focal) - T(1.0)) * T(weight / kFocalSpread) : T(0.0);
    residual[1] = lens[1] * T(weight / kDistortionSpread);
    residual[2] = lens[2] * T(weight / kDistortionSpread);
    return true;
  }
};

struct Blocks {
  std::vector<std::array<double, 3>> rotation;
  std::vector<std::array<double, 3>> lens;  // focal, k1, k2 (one shared block when the lens is shared)
};

Blocks blocksOf(const std::vector<ModuleModel>& models, bool perModule) {
  Blocks b;
  for (const auto& m : models) {
    cv::Vec3d r;
    cv::Rodrigues(cv::Mat(m.rotation), r);
    b.rotation.push_back({r[0], r[1], r[2]});
    if (perModule || b.lens.empty()) b.lens.push_back({m.focal, m.k1, m.k2});
  }
  if (!perModule && !models.empty()) {
    // The shared lens starts at the median focal length and distortion.
    std::vector<double> focals, k1s, k2s;
    for (const auto& m : models) {
      focals.push_back(m.focal);
      k1s.push_back(m.k1);
      k2s.push_back(m.k2);
    }
    const auto median = [](std::vector<double> v) {
      std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
      return v[v.size() / 2];
    };
    b.lens[0] = {median(focals), median(k1s), median(k2s)};
  }
  return b;
}

void writeBack(const Blocks& b, std::vector<ModuleModel>& models, bool perModule) {
  for (std::size_t i = 0; i < models.size(); ++i) {
    cv::Mat r;
    cv::Rodrigues(cv::Vec3d(b.rotation[i][0], b.rotation[i][1], b.rotation[i][2]), r);
    models[i].rotation = cv::Matx33d(r);
    const auto& lens = b.lens[perModule ? i : 0];
    models[i].focal = lens[0];
    models[i].k1 = lens[1];
    models[i].k2 = lens[2];
  }
}

struct SolveSettings {
  bool perModule = false;
  bool withK2 = true;
  double lossScale = 1.0;                       // pixels, of the robust (Cauchy) loss
  int iterations = 200;                          // at most
  const std::array<double, 3>* prior = nullptr;  // per module: pulled towards this shared lens
};

// `firstFocal`: each module's first estimate of its focal length, which
// bounds what the adjustment may make of it.
bool solve(std::vector<ModuleModel>& models, const std::vector<Match>& matches, int fixedModule,
           const std::vector<double>& firstFocal, double focalGuess, const SolveSettings& how, std::string& message) {
  Blocks b = blocksOf(models, how.perModule);
  if (!how.withK2)
    for (auto& lens : b.lens) lens[2] = 0.0;
  std::vector<double> low, high;
  for (std::size_t k = 0; k < b.lens.size(); ++k) {
    if (how.perModule) {
      low.push_back(firstFocal[k] / kFocalRange);
      high.push_back(firstFocal[k] * kFocalRange);
    } else {
      low.push_back(*std::min_element(firstFocal.begin(), firstFocal.end()) / kFocalRange);
      high.push_back(*std::max_element(firstFocal.begin(), firstFocal.end()) * kFocalRange);
    }
    b.lens[k][0] = std::clamp(b.lens[k][0], low.back(), high.back());
  }

  ceres::Problem problem;
  int used = 0;
  std::vector<int> perLens(b.lens.size(), 0);
  for (const Match& m : matches) {
    if (!m.inlier) continue;
    ++perLens[how.perModule ? std::size_t(m.a) : 0];
    ++perLens[how.perModule ? std::size_t(m.b) : 0];
    const ModuleModel& A = models[std::size_t(m.a)];
    const ModuleModel& B = models[std::size_t(m.b)];
    double* lensA = b.lens[how.perModule ? std::size_t(m.a) : 0].data();
    double* lensB = b.lens[how.perModule ? std::size_t(m.b) : 0].data();
    for (int direction = 0; direction < 2; ++direction) {
      const bool forward = direction == 0;
      const RayCost cost = forward ? RayCost(m.pa, m.pb, A.centre(), A.halfDiagonal(), B.centre(), B.halfDiagonal())
                                   : RayCost(m.pb, m.pa, B.centre(), B.halfDiagonal(), A.centre(), A.halfDiagonal());
      double* rotationFrom = b.rotation[std::size_t(forward ? m.a : m.b)].data();
      double* rotationTo = b.rotation[std::size_t(forward ? m.b : m.a)].data();
      ceres::LossFunction* loss = new ceres::CauchyLoss(how.lossScale);
      if (lensA == lensB) {
        // One lens for both (Ceres takes a block once per cost).
        problem.AddResidualBlock(new ceres::AutoDiffCostFunction<SharedLensCost, 2, 3, 3, 3>(new SharedLensCost{cost}),
                                 loss, rotationFrom, lensA, rotationTo);
      } else {
        problem.AddResidualBlock(new ceres::AutoDiffCostFunction<RayCost, 2, 3, 3, 3, 3>(new RayCost(cost)), loss,
                                 rotationFrom, forward ? lensA : lensB, rotationTo, forward ? lensB : lensA);
      }
    }
    ++used;
  }
  if (used == 0) {
    message = "no matches to adjust";
    return false;
  }
  if (problem.HasParameterBlock(b.rotation[std::size_t(fixedModule)].data())) {
    problem.SetParameterBlockConstant(b.rotation[std::size_t(fixedModule)].data());
  }
  for (std::size_t k = 0; k < b.lens.size(); ++k) {
    double* lens = b.lens[k].data();
    if (!problem.HasParameterBlock(lens)) continue;
    problem.AddResidualBlock(new ceres::AutoDiffCostFunction<LensHold, 3, 3>(
                                 new LensHold{std::sqrt(double(perLens[k])) * kHoldShare, focalGuess}),
                             nullptr, lens);
    if (how.prior != nullptr) {
      problem.AddResidualBlock(new ceres::AutoDiffCostFunction<LensPrior, 3, 3>(
                                   new LensPrior(*how.prior, kFocalSigma * (*how.prior)[0], kDistortionSigma)),
                               nullptr, lens);
    }
    problem.SetParameterLowerBound(lens, 0, low[k]);
    problem.SetParameterUpperBound(lens, 0, high[k]);
    for (int j = 1; j < 3; ++j) {
      problem.SetParameterLowerBound(lens, j, -kLargestDistortion);
      problem.SetParameterUpperBound(lens, j, kLargestDistortion);
    }
    if (!how.withK2) problem.SetManifold(lens, new ceres::SubsetManifold(3, {2}));
  }
  ceres::Solver::Options options;
  // A few dozen parameters, but thousands of residuals each touching at
  // most a dozen of them: the normal equations are formed sparsely (on a
  // ring of nine, the adjustment took 4.9 s with dense QR of the whole
  // Jacobian and 2.8 s so, for the same rig to the printed digit). The
  // Levenberg-Marquardt damping keeps them positive definite where the
  // matches barely hold a module. Eigen's sparse Cholesky where Ceres was
  // built with it (Debian's is), else SuiteSparse's, else dense QR.
  if (ceres::IsSparseLinearAlgebraLibraryTypeAvailable(ceres::EIGEN_SPARSE)) {
    options.linear_solver_type = ceres::SPARSE_NORMAL_CHOLESKY;
    options.sparse_linear_algebra_library_type = ceres::EIGEN_SPARSE;
  } else if (ceres::IsSparseLinearAlgebraLibraryTypeAvailable(ceres::SUITE_SPARSE)) {
    options.linear_solver_type = ceres::SPARSE_NORMAL_CHOLESKY;
    options.sparse_linear_algebra_library_type = ceres::SUITE_SPARSE;
  } else {
    options.linear_solver_type = ceres::DENSE_QR;
  }
  options.logging_type = ceres::SILENT;
  options.max_num_iterations = how.iterations;
  options.num_threads = std::max(1, cv::getNumThreads());  // the share of the cores the host gives us
  // Tight enough that the rig no longer moves at the precision it is
  // written with (a tolerance of 1e-12 ran two to three times the
  // iterations for the same result). A looser one (1e-6) halved the
  // iterations and left the real sets' seams as they were, but on a
  // synthetic ring with near paving seen from places a step apart one seam
  // then came out locked onto the paving's pattern (7 px).
  options.function_tolerance = 1e-9;
  options.parameter_tolerance = 1e-10;
  ceres::Solver::Summary summary;
  ceres::Solve(options, &problem, &summary);
  if (!summary.IsSolutionUsable()) {
    message = summary.BriefReport();
    return false;
  }
  writeBack(b, models, how.perModule);
  return true;
}

bool lensesMonotonic(const std::vector<ModuleModel>& models) {
  for (const auto& m : models)
    if (!ModuleModel::monotonic(m.k1, m.k2, kMonotonicRadius)) return false;
  return true;
}

}  // namespace

double matchResidual(const std::vector<ModuleModel>& models, const Match& match) {
  const ModuleModel& A = models[std::size_t(match.a)];
  const ModuleModel& B = models[std::size_t(match.b)];
  cv::Point2d inB, inA;
  if (!B.project(A.ray(match.pa), inB) || !A.project(B.ray(match.pb), inA)) return 1e9;
  return 0.5 * (cv::norm(inB - match.pb) + cv::norm(inA - match.pa));
}

// Marks as inliers the matches within a threshold of the model (kSpread
// times the median residual of the present inliers, held within kTightest ..
// kLoosest); returns how many.
int chooseMatches(const std::vector<ModuleModel>& models, std::vector<Match>& matches) {
  std::vector<double> residuals;
  residuals.reserve(matches.size());
  for (const Match& m : matches) residuals.push_back(matchResidual(models, m));
  std::vector<double> sorted;
  for (std::size_t i = 0; i < matches.size(); ++i)
    if (matches[i].inlier) sorted.push_back(residuals[i]);
  double median = 1.0;
  if (!sorted.empty()) {
    std::nth_element(sorted.begin(), sorted.begin() + sorted.size() / 2, sorted.end());
    median = sorted[sorted.size() / 2];
  }
  const double threshold = std::clamp(kSpread * median, kTightest, kLoosest);
  int inliers = 0;
  for (std::size_t i = 0; i < matches.size(); ++i) {
    matches[i].inlier = residuals[i] < threshold;
    inliers += matches[i].inlier ? 1 : 0;
  }
  return inliers;
}

AdjustmentSummary adjustRig(std::vector<ModuleModel>& models, std::vector<Match>& matches,
                            const AdjustmentSettings& settings) {
  AdjustmentSummary summary;
  const std::vector<ModuleModel> start = models;
  const std::vector<Match> startMatches = matches;
  std::vector<double> firstFocal;
  for (const auto& m : models) firstFocal.push_back(m.focal);
  auto fail = [&]() {
    models = start;
    matches = startMatches;
    return summary;
  };
  // Solves, dropping k2 when the lens would fold back within reach.
  auto solveStage = [&](SolveSettings how) {
    std::vector<ModuleModel> trial = models;
    if (!solve(trial, matches, settings.fixedModule, firstFocal, settings.focalGuess, how, summary.message)) return false;
    if (how.withK2 && !lensesMonotonic(trial)) {
      how.withK2 = false;
      trial = models;
      if (!solve(trial, matches, settings.fixedModule, firstFocal, settings.focalGuess, how, summary.message)) return false;
    }
    models = trial;
    return true;
  };

  SolveSettings how;
  // 1. One lens for the rig, no k2: the rig's shape, under a robust loss
  //    that starts wide (a first guess that is far off for some pairs is
  //    still pulled in) and narrows.
  how.perModule = false;
  how.withK2 = false;
  for (const double scale : kNarrowingLoss) {
    how.lossScale = scale;
    if (!solveStage(how)) return fail();
  }
  chooseMatches(models, matches);
  // 2. The shared lens in full on the matches the model keeps.
  how.withK2 = true;
  how.lossScale = 1.0;
  // Where each module gets its own lens next, this shared one is only their
  // start: the end of its descent is left to them (on the whole upper ring,
  // nine photographs, it ran 198 iterations, the last 170 for 0.02 % of the
  // cost, crawling along the valley where k1, k2 and the focal length trade
  // for one another).
  if (settings.lensPerModule) how.iterations = kSharedLensIterations;
  if (!solveStage(how)) return fail();
  summary.inliers = chooseMatches(models, matches);
  // 3. Each module its own lens, held near the shared one where the matches
  //    say little.
  if (settings.lensPerModule) {
    how.iterations = SolveSettings().iterations;
    const std::array<double, 3> shared = {models.front().focal, models.front().k1, models.front().k2};
    how.perModule = true;
    how.prior = &shared;
    if (!solveStage(how)) return fail();
    summary.inliers = chooseMatches(models, matches);
    if (!solveStage(how)) return fail();
  } else {
    if (!solveStage(how)) return fail();
  }
  summary.converged = true;
  return summary;
}

}  // namespace Rig
}  // namespace GeometryCalibration
