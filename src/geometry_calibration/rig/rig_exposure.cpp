// Exposure gains of a rig (see rig_exposure.h).
#include "geometry_calibration/rig/rig_exposure.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <opencv2/imgproc.hpp>

#include "orbivane/rendering/module_drawing.h"

namespace GeometryCalibration {
namespace Rig {
namespace {

constexpr int kFewestOverlapPixels = 200;
// How strongly the gains are held at 1 overall (the panorama keeps the
// modules' mean exposure), against one overlap's difference.
constexpr double kAnchorWeight = 1e-3;

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

// Mean grey of each over their shared pixels; false when they share too few.
bool overlapMeans(const Drawn& a, const Drawn& b, double& meanA, double& meanB) {
  if (!a.ok || !b.ok) return false;
  const cv::Rect shared = a.box & b.box;
  if (shared.empty()) return false;
  const cv::Rect inA = shared - a.box.tl(), inB = shared - b.box.tl();
  const cv::Mat both = a.inside(inA) & b.inside(inB);
  if (cv::countNonZero(both) < kFewestOverlapPixels) return false;
  meanA = cv::mean(a.grey(inA), both)[0];
  meanB = cv::mean(b.grey(inB), both)[0];
  return meanA > 0.0 && meanB > 0.0;
}

}  // namespace

std::vector<double> exposureGains(const std::vector<std::shared_ptr<CameraDescription::OrbivaneModule>>& modules,
                                  cv::Size panorama, int largestSide) {
  const cv::Size size = reduced(panorama, largestSide);
  const int n = int(modules.size());
  std::vector<Drawn> drawn(modules.size());
  cv::parallel_for_(cv::Range(0, n), [&](const cv::Range& range) {
    for (int i = range.start; i < range.end; ++i) drawn[std::size_t(i)] = drawGrey(*modules[std::size_t(i)], size, false);
  });
  // log g_i - log g_j = log(mean_j / mean_i) for every overlapping pair, each
  // pair counting alike (a small overlap between two modules shows a
  // difference as plainly as a large one), least squares, with the gains'
  // mean logarithm held at 0.
  cv::Mat a = cv::Mat::zeros(n, n, CV_64F), b = cv::Mat::zeros(n, 1, CV_64F);
  for (int i = 0; i < n; ++i) {
    a.at<double>(i, i) += kAnchorWeight;
    for (int j = i + 1; j < n; ++j) {
      double mi = 0.0, mj = 0.0;
      if (!overlapMeans(drawn[std::size_t(i)], drawn[std::size_t(j)], mi, mj)) continue;
      const double d = std::log(mj / mi);
      a.at<double>(i, i) += 1.0;
      a.at<double>(j, j) += 1.0;
      a.at<double>(i, j) -= 1.0;
      a.at<double>(j, i) -= 1.0;
      b.at<double>(i) += d;
      b.at<double>(j) -= d;
    }
  }
  cv::Mat logGain;
  std::vector<double> gains(modules.size(), 1.0);
  if (!cv::solve(a, b, logGain, cv::DECOMP_CHOLESKY)) return gains;
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
