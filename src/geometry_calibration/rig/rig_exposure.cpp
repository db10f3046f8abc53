// Exposure gains of a rig (see rig_exposure.h).
#include "geometry_calibration/rig/rig_exposure.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <opencv2/imgproc.hpp>

#include "orbivane/rendering/module_drawing.h"
#include "utils/parallel.h"

namespace GeometryCalibration {
namespace Rig {
namespace {

constexpr int kFewestOverlapPixels = 200;
// The gains' mean logarithm is held at 0 (the panorama keeps the modules'
// mean exposure) by a term on their sum, which moves no gain against
// another; a module no overlap reaches is held at 1 by a far weaker one.
constexpr double kMeanWeight = 1.0;
constexpr double kLoneWeight = 1e-9;
// Grey levels (0..255) outside which a pixel counts as clipped.
constexpr double kDarkest = 4.0, kBrightest = 250.0;
// The gains even out the worst overlap rather than the average one: the
// least squares are reweighted this often (Lawson's iteration towards the
// smallest largest difference), the best solution seen kept.
constexpr int kReweightings = 40;
// A pixel shows detail where its grey gradient (Sobel, 3x3) exceeds this;
// each overlap counts by its detailed pixels (relative to the most detailed
// overlap, at least kLeastImportance): a corner of plain sky where two
// vignetted pictures meet matters less than a wall both show.
constexpr double kDetailGradient = 40.0;
constexpr double kLeastImportance = 0.05;
// The vignetting fit: shared pixels sampled per overlap, Gauss-Newton
// iterations, the Huber threshold (natural log of brightness, about 0.1 EV),
// the pull towards no vignetting (relative to the overlaps' total weight),
// the factors a fit may reach, and how much more the worst overlap's means
// may differ with the vignetting undone (natural log).
constexpr double kSamplesPerOverlap = 2500.0;
constexpr int kVignettingIterations = 6;
constexpr double kHuberLog = 0.07;
constexpr double kVignettingRidge = 1e-3;
constexpr double kFactorRange[2] = {0.5, 3.0};
constexpr double kNoWorse = 0.003;
// The share of the gains-only fit's loss on the shared pixels that the fit
// with the lens must stay under for the lens to be undone.
constexpr double kLensGain = 0.9;

cv::Size reduced(cv::Size panorama, int largestSide) {
  const double s = std::min(1.0, double(largestSide) / std::max(panorama.width, panorama.height));
  return cv::Size(std::max(1, int(std::lround(panorama.width * s))), std::max(1, int(std::lround(panorama.height * s))));
}

struct Drawn {
  bool ok = false;
  cv::Rect box;
  cv::Mat grey;    // CV_32F
  cv::Mat usable;  // CV_8U: drawn, and neither clipped dark nor bright as drawn
  cv::Mat radius2; // CV_32F: the squared radius (orbivane_module.h) of the picture point each pixel reads (not as shown)
};

// The module drawn in grey; `asShown`: with its vignetting and gain, as the
// viewer shows it (saturated), else from its picture as it is.
Drawn drawGrey(const CameraDescription::OrbivaneModule& module, cv::Size size, bool asShown) {
  Drawn d;
  CameraDescription::OrbivaneModule copy(module);
  if (!asShown) {
    copy.setExposureGain(1.0);
    copy.setVignetting({});
  }
  auto drawn = OrbivaneRendering::drawModule(copy, size);
  if (!drawn) return d;
  const OrbivaneRendering::ModuleDrawing& m = drawn.value();
  cv::Mat bytes;
  m.colour.convertTo(bytes, CV_8UC3);
  cv::cvtColor(bytes, d.grey, cv::COLOR_BGR2GRAY);
  cv::inRange(d.grey, kDarkest, kBrightest, d.usable);
  d.usable &= m.inside;
  d.grey.convertTo(d.grey, CV_32F);
  if (!asShown) {  // for the vignetting fit
    const double halfDiagonal = 0.5 * std::hypot(m.picture.width, m.picture.height);
    const cv::Mat dx = m.mapX - 0.5 * (m.picture.width - 1), dy = m.mapY - 0.5 * (m.picture.height - 1);
    d.radius2 = (dx.mul(dx) + dy.mul(dy)) / (halfDiagonal * halfDiagonal);
  }
  d.box = m.box;
  d.ok = true;
  return d;
}

// The shared pixels of two drawings that both show unclipped (a gain does
// not move clipped ones), over the boxes' intersection `shared`; empty when
// they share too few.
cv::Mat sharedUsable(const Drawn& a, const Drawn& b, cv::Rect& shared) {
  if (!a.ok || !b.ok) return cv::Mat();
  shared = a.box & b.box;
  if (shared.empty()) return cv::Mat();
  cv::Mat both = a.usable(shared - a.box.tl()) & b.usable(shared - b.box.tl());
  return cv::countNonZero(both) < kFewestOverlapPixels ? cv::Mat() : both;
}

// Mean grey of each over their shared usable pixels; false when they share
// too few. `textured` (when given) counts the shared pixels with visible
// detail in the first picture, which is where a viewer sees a difference
// first.
bool overlapMeans(const Drawn& a, const Drawn& b, double& meanA, double& meanB, double* textured = nullptr) {
  cv::Rect shared;
  const cv::Mat both = sharedUsable(a, b, shared);
  if (both.empty()) return false;
  const cv::Rect inA = shared - a.box.tl(), inB = shared - b.box.tl();
  meanA = cv::mean(a.grey(inA), both)[0];
  meanB = cv::mean(b.grey(inB), both)[0];
  if (textured) {
    cv::Mat dx, dy, magnitude;
    cv::Sobel(a.grey(inA), dx, CV_32F, 1, 0);
    cv::Sobel(a.grey(inA), dy, CV_32F, 0, 1);
    cv::magnitude(dx, dy, magnitude);
    cv::Mat detailed;
    cv::compare(magnitude, kDetailGradient, detailed, cv::CMP_GT);
    *textured = cv::countNonZero(detailed & both);
  }
  return meanA > 0.0 && meanB > 0.0;
}

// The largest overlap difference gains leave (natural log): weighed by each
// overlap's importance, as the gains are solved, and plain.
struct Left {
  double weighted = 0.0, plain = 0.0;
};

// The gains of the drawn modules, and what they leave.
std::vector<double> solveGains(const std::vector<Drawn>& drawn, Left& left) {
  const int n = int(drawn.size());
  // log g_i - log g_j = log(mean_j / mean_i) for every overlapping pair,
  // solved with the gains' mean logarithm held at 0: first each pair by its
  // importance (its detail; a small overlap of two walls shows a difference
  // as plainly as a large one), then reweighted towards the worst important
  // pair, since loops of overlaps rarely agree exactly (vignetting, sky).
  struct Pair {
    int i, j;
    double d, importance;
  };
  std::vector<Pair> pairs;
  double mostDetail = 0.0;
  for (int i = 0; i < n; ++i)
    for (int j = i + 1; j < n; ++j) {
      double mi = 0.0, mj = 0.0, detail = 0.0;
      if (overlapMeans(drawn[std::size_t(i)], drawn[std::size_t(j)], mi, mj, &detail)) {
        pairs.push_back({i, j, std::log(mj / mi), detail});
        mostDetail = std::max(mostDetail, detail);
      }
    }
  for (auto& p : pairs) p.importance = std::max(kLeastImportance, mostDetail > 0.0 ? p.importance / mostDetail : 1.0);
  std::vector<double> weights;
  for (const auto& p : pairs) weights.push_back(p.importance);
  cv::Mat logGain, best;
  double bestLargest = std::numeric_limits<double>::infinity();
  std::vector<double> gains(drawn.size(), 1.0);
  for (int round = 0; round <= kReweightings; ++round) {
    cv::Mat a = cv::Mat::zeros(n, n, CV_64F), b = cv::Mat::zeros(n, 1, CV_64F);
    a += cv::Mat::ones(n, n, CV_64F) * (kMeanWeight / n);
    for (int i = 0; i < n; ++i) a.at<double>(i, i) += kLoneWeight;
    for (std::size_t k = 0; k < pairs.size(); ++k) {
      const auto [i, j, d, importance] = pairs[k];
      (void)importance;
      const double w = weights[k];
      a.at<double>(i, i) += w;
      a.at<double>(j, j) += w;
      a.at<double>(i, j) -= w;
      a.at<double>(j, i) -= w;
      b.at<double>(i) += w * d;
      b.at<double>(j) -= w * d;
    }
    cv::Mat solved;
    if (!cv::solve(a, b, solved, cv::DECOMP_CHOLESKY)) break;
    logGain = solved;  // for the residuals below
    double largest = 0.0;
    std::vector<double> residual(pairs.size());
    for (std::size_t k = 0; k < pairs.size(); ++k) {
      residual[k] = pairs[k].importance *
                    std::fabs(logGain.at<double>(pairs[k].i) - logGain.at<double>(pairs[k].j) - pairs[k].d);
      largest = std::max(largest, residual[k]);
    }
    if (largest < bestLargest) {
      bestLargest = largest;
      best = solved.clone();
      left.plain = 0.0;
      for (const auto& p : pairs) {
        left.plain = std::max(left.plain, std::fabs(solved.at<double>(p.i) - solved.at<double>(p.j) - p.d));
      }
    }
    if (!(largest > 1e-6)) break;
    // Lawson's reweighting: each overlap's weight grows with its difference.
    double total = 0.0;
    for (std::size_t k = 0; k < pairs.size(); ++k) total += (weights[k] *= residual[k] + 1e-9);
    for (auto& w : weights) w = std::max(w / total * double(pairs.size()), 1e-6);
  }
  logGain = best;
  left.weighted = pairs.empty() ? 0.0 : bestLargest;
  if (logGain.empty()) return gains;
  const double mean = cv::mean(logGain)[0];
  for (int i = 0; i < n; ++i) {
    const double g = std::exp(logGain.at<double>(i) - mean);
    if (std::isfinite(g) && g > 0.0) gains[std::size_t(i)] = g;
  }
  return gains;
}


// One shared pixel of two overlapping drawings, for the vignetting fit.
struct Sample {
  int i, j;
  double d;       // log grey of i minus log grey of j
  double qi, qj;  // squared radii of the picture points they read
  double weight;  // each overlap counts alike
};

// Samples of every overlap: a few thousand of its shared pixels at most, on
// a regular lattice, each the mean of its 5x5 neighbourhood (so a fraction
// of a pixel's misalignment hardly moves it), away from the edge of what
// both show unclipped.
std::vector<Sample> overlapSamples(const std::vector<Drawn>& drawn) {
  std::vector<cv::Mat> smooth(drawn.size());
  for (std::size_t k = 0; k < drawn.size(); ++k) {
    if (drawn[k].ok) cv::blur(drawn[k].grey, smooth[k], cv::Size(5, 5));
  }
  const cv::Mat kernel = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(5, 5));
  std::vector<Sample> samples;
  for (std::size_t i = 0; i < drawn.size(); ++i)
    for (std::size_t j = i + 1; j < drawn.size(); ++j) {
      cv::Rect shared;
      cv::Mat both = sharedUsable(drawn[i], drawn[j], shared);
      if (both.empty()) continue;
      cv::erode(both, both, kernel);
      const int count = cv::countNonZero(both);
      if (count < kFewestOverlapPixels) continue;
      const int stride = std::max(1, int(std::sqrt(double(count) / kSamplesPerOverlap)));
      const std::size_t first = samples.size();
      const cv::Point ti = shared.tl() - drawn[i].box.tl(), tj = shared.tl() - drawn[j].box.tl();
      for (int y = 0; y < shared.height; y += stride)
        for (int x = 0; x < shared.width; x += stride) {
          if (!both.at<std::uint8_t>(y, x)) continue;
          const cv::Point pi = ti + cv::Point(x, y), pj = tj + cv::Point(x, y);
          const double gi = smooth[i].at<float>(pi), gj = smooth[j].at<float>(pj);
          if (!(gi > 0.0 && gj > 0.0)) continue;
          samples.push_back({int(i), int(j), std::log(gi / gj), drawn[i].radius2.at<float>(pi),
                             drawn[j].radius2.at<float>(pj), 0.0});
        }
      const double weight = 1.0 / double(std::max<std::size_t>(1, samples.size() - first));
      for (std::size_t k = first; k < samples.size(); ++k) samples[k].weight = weight;
    }
  return samples;
}

// The Huber loss of a residual (natural log of brightness).
double huberLoss(double e) {
  const double a = std::fabs(e);
  return a <= kHuberLog ? 0.5 * e * e : kHuberLog * (a - 0.5 * kHuberLog);
}

struct SampleFit {
  CameraDescription::OrbivaneModule::Vignetting vignetting;
  double cost = std::numeric_limits<double>::infinity();  // the samples' weighted Huber loss
  bool ok = false;
};

// A log gain per module and, with `lens`, the vignetting shared by the rig's
// lenses (one lens, or modules of one make), by Gauss-Newton on the samples:
// each shared pixel, corrected by the vignetting's factor at both picture
// points and the two gains, should show one brightness. Huber weights keep a
// misaligned edge or a moving cloud from pulling; a weak pull towards no
// vignetting keeps it at none where the overlaps cannot tell (neighbours
// that meet at equal radii see equal fall-off). Not ok when the fit leaves
// the factors' range.
SampleFit fitSamples(const std::vector<Sample>& samples, int n, bool lens) {
  SampleFit fit;
  CameraDescription::OrbivaneModule::Vignetting& v = fit.vignetting;
  if (samples.empty() || n < 2) return fit;
  double pairs = 0.0;
  for (const auto& s : samples) pairs += s.weight;
  const int unknowns = n + 2;
  const int used = lens ? 4 : 2;  // the unknowns a sample moves: both gains (and the lens)
  std::vector<double> logGain(std::size_t(n), 0.0);
  const auto residual = [&](const Sample& s, double& fi, double& fj) {
    fi = v.factor(std::sqrt(s.qi));
    fj = v.factor(std::sqrt(s.qj));
    return s.d + std::log(fi / fj) + logGain[std::size_t(s.i)] - logGain[std::size_t(s.j)];
  };
  for (int iteration = 0; iteration < kVignettingIterations; ++iteration) {
    cv::Mat h = cv::Mat::zeros(unknowns, unknowns, CV_64F), g = cv::Mat::zeros(unknowns, 1, CV_64F);
    for (int i = 0; i < n; ++i) {
      for (int j = 0; j < n; ++j) h.at<double>(i, j) += kMeanWeight / n;
      h.at<double>(i, i) += kLoneWeight;
    }
    const double ridge = lens ? kVignettingRidge * pairs : 1.0;
    h.at<double>(n, n) += ridge;
    h.at<double>(n + 1, n + 1) += ridge;
    g.at<double>(n) -= ridge * v.r2;
    g.at<double>(n + 1) -= ridge * v.r4;
    for (const auto& s : samples) {
      double fi = 0.0, fj = 0.0;
      const double e = residual(s, fi, fj);
      if (!(fi > 0.0 && fj > 0.0)) return fit;
      const double huber = std::fabs(e) <= kHuberLog ? 1.0 : kHuberLog / std::fabs(e);
      const double w = s.weight * huber;
      // Derivatives of e by log gain i, log gain j, r2 and r4.
      const double da = s.qi / fi - s.qj / fj, db = s.qi * s.qi / fi - s.qj * s.qj / fj;
      const int index[4] = {s.i, s.j, n, n + 1};
      const double jacobian[4] = {1.0, -1.0, da, db};
      for (int a = 0; a < used; ++a) {
        g.at<double>(index[a]) -= w * jacobian[a] * e;
        for (int b = 0; b < used; ++b) h.at<double>(index[a], index[b]) += w * jacobian[a] * jacobian[b];
      }
    }
    cv::Mat step;
    if (!cv::solve(h, g, step, cv::DECOMP_CHOLESKY)) return fit;
    for (int i = 0; i < n; ++i) logGain[std::size_t(i)] += step.at<double>(i);
    v.r2 += step.at<double>(n);
    v.r4 += step.at<double>(n + 1);
  }
  double low = 1.0, high = 1.0;
  v.factorRange(low, high);
  if (!(std::isfinite(v.r2) && std::isfinite(v.r4) && low >= kFactorRange[0] && high <= kFactorRange[1])) return fit;
  fit.cost = 0.0;
  for (const auto& s : samples) {
    double fi = 0.0, fj = 0.0;
    fit.cost += s.weight * huberLoss(residual(s, fi, fj));
  }
  fit.ok = std::isfinite(fit.cost);
  return fit;
}

}  // namespace

Exposure evenExposure(const std::vector<std::shared_ptr<CameraDescription::OrbivaneModule>>& modules,
                      cv::Size panorama, int largestSide) {
  const cv::Size size = reduced(panorama, largestSide);
  const int n = int(modules.size());
  std::vector<Drawn> drawn(modules.size());
  Utils::parallelRows(0, n, [&](int first, int last) {
    for (int i = first; i < last; ++i) drawn[std::size_t(i)] = drawGrey(*modules[std::size_t(i)], size, false);
  });
  Exposure plain;
  Left plainLeft;
  plain.gains = solveGains(drawn, plainLeft);
  // The lens is fitted where the overlaps' pixels show it: undoing it must
  // bring the shared pixels measurably closer than the gains alone do.
  const std::vector<Sample> samples = overlapSamples(drawn);
  const SampleFit gainsOnly = fitSamples(samples, n, false), withLens = fitSamples(samples, n, true);
  if (!gainsOnly.ok || !withLens.ok || !(withLens.cost < kLensGain * gainsOnly.cost)) return plain;
  const CameraDescription::OrbivaneModule::Vignetting vignetting = withLens.vignetting;
  // And the gains, solved on the pictures with the vignetting undone, must
  // leave the overlaps' means no further apart.
  std::vector<Drawn> undone = drawn;
  for (auto& d : undone) {
    if (!d.ok) continue;
    cv::Mat factor = 1.0 + d.radius2.mul(vignetting.r2 + vignetting.r4 * d.radius2);
    d.grey = d.grey.mul(factor);
  }
  Exposure corrected;
  Left correctedLeft;
  corrected.gains = solveGains(undone, correctedLeft);
  corrected.vignetting = vignetting;
  const bool noWorse = correctedLeft.plain <= plainLeft.plain + kNoWorse &&
                       correctedLeft.weighted <= plainLeft.weighted + kNoWorse;
  return noWorse ? corrected : plain;
}

double exposureDifferenceEv(const CameraDescription::OrbivaneModule& a, const CameraDescription::OrbivaneModule& b,
                            cv::Size panorama, int largestSide) {
  const cv::Size size = reduced(panorama, largestSide);
  double ma = 0.0, mb = 0.0;
  if (!overlapMeans(drawGrey(a, size, true), drawGrey(b, size, true), ma, mb)) {
    return std::numeric_limits<double>::quiet_NaN();
  }
  return std::fabs(std::log2(ma / mb));
}

}  // namespace Rig
}  // namespace GeometryCalibration
