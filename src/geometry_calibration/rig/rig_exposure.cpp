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

cv::Size reduced(cv::Size panorama, int largestSide) {
  const double s = std::min(1.0, double(largestSide) / std::max(panorama.width, panorama.height));
  return cv::Size(std::max(1, int(std::lround(panorama.width * s))), std::max(1, int(std::lround(panorama.height * s))));
}

struct Drawn {
  bool ok = false;
  cv::Rect box;
  cv::Mat grey;    // CV_32F
  cv::Mat inside;  // CV_8U
};

Drawn drawGrey(const CameraDescription::OrbivaneModule& module, cv::Size size, bool withGain) {
  Drawn d;
  CameraDescription::OrbivaneModule copy(module);
  if (!withGain) copy.setExposureGain(1.0);
  auto drawn = OrbivaneRendering::drawModule(copy, size);
  if (!drawn) return d;
  cv::Mat bytes;
  drawn.value().colour.convertTo(bytes, CV_8UC3);  // as the viewer shows it, saturated
  cv::cvtColor(bytes, d.grey, cv::COLOR_BGR2GRAY);
  d.grey.convertTo(d.grey, CV_32F);
  d.inside = drawn.value().inside;
  d.box = drawn.value().box;
  d.ok = true;
  return d;
}

// Mean grey of each over their shared pixels, leaving out those either
// shows clipped (a gain does not move them); false when they share too few.
// `textured` (when given) counts the shared pixels with visible detail in
// the first picture, which is where a viewer sees a difference first.
bool overlapMeans(const Drawn& a, const Drawn& b, double& meanA, double& meanB, double* textured = nullptr) {
  if (!a.ok || !b.ok) return false;
  const cv::Rect shared = a.box & b.box;
  if (shared.empty()) return false;
  const cv::Rect inA = shared - a.box.tl(), inB = shared - b.box.tl();
  cv::Mat both = a.inside(inA) & b.inside(inB);
  cv::Mat unclipped;
  cv::inRange(a.grey(inA), kDarkest, kBrightest, unclipped);
  both &= unclipped;
  cv::inRange(b.grey(inB), kDarkest, kBrightest, unclipped);
  both &= unclipped;
  if (cv::countNonZero(both) < kFewestOverlapPixels) return false;
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

}  // namespace

std::vector<double> exposureGains(const std::vector<std::shared_ptr<CameraDescription::OrbivaneModule>>& modules,
                                  cv::Size panorama, int largestSide) {
  const cv::Size size = reduced(panorama, largestSide);
  const int n = int(modules.size());
  std::vector<Drawn> drawn(modules.size());
  Utils::parallelRows(0, n, [&](int first, int last) {
    for (int i = first; i < last; ++i) drawn[std::size_t(i)] = drawGrey(*modules[std::size_t(i)], size, false);
  });
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
  std::vector<double> gains(modules.size(), 1.0);
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
    }
    if (!(largest > 1e-6)) break;
    // Lawson's reweighting: each overlap's weight grows with its difference.
    double total = 0.0;
    for (std::size_t k = 0; k < pairs.size(); ++k) total += (weights[k] *= residual[k] + 1e-9);
    for (auto& w : weights) w = std::max(w / total * double(pairs.size()), 1e-6);
  }
  logGain = best;
  if (logGain.empty()) return gains;
  const double mean = cv::mean(logGain)[0];
  for (int i = 0; i < n; ++i) {
    const double g = std::exp(logGain.at<double>(i) - mean);
    if (std::isfinite(g) && g > 0.0) gains[std::size_t(i)] = g;
  }
  return gains;
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
