// A rig registered to a target picture (see rig_target.h).
#include "geometry_calibration/rig/rig_target.h"

#include <algorithm>
#include <cmath>

#include <opencv2/calib3d.hpp>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>

#include "geometry_calibration/rig/rig_matching.h"

namespace GeometryCalibration {
namespace Rig {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kTargetMegapixels = 3.0;  // the target is searched for features at most this large
constexpr float kRatio = 0.75f;
constexpr double kTolerancePx = 4.0;       // target pixels a match may lie off the fit
constexpr int kIterations = 1000;
constexpr int kFewestAgreeing = 20;

struct Pair {
  int module;
  cv::Point2d picture;  // the module's picture pixel
  cv::Point2d target;   // target pixel
};

// The target's features at most kTargetMegapixels large, in its own pixels.
void targetFeatures(const cv::Mat& target, std::vector<cv::KeyPoint>& keys, cv::Mat& descriptors) {
  const double scale = std::min(1.0, std::sqrt(kTargetMegapixels * 1e6 / (double(target.cols) * target.rows)));
  cv::Mat work, grey;
  if (scale < 1.0) {
    cv::resize(target, work, cv::Size(), scale, scale, cv::INTER_AREA);
  } else {
    work = target;
  }
  cv::cvtColor(work, grey, cv::COLOR_BGR2GRAY);
  cv::SIFT::create()->detectAndCompute(grey, grey > 0, keys, descriptors);
  for (auto& k : keys) {
    k.pt.x = float((k.pt.x + 0.5) * target.cols / work.cols - 0.5);
    k.pt.y = float((k.pt.y + 0.5) * target.rows / work.rows - 0.5);
  }
}

std::vector<Pair> matchModules(const std::vector<cv::detail::ImageFeatures>& features,
                               const std::vector<cv::KeyPoint>& keys, const cv::Mat& descriptors) {
  std::vector<Pair> pairs;
  if (descriptors.empty()) return pairs;
  cv::FlannBasedMatcher matcher;
  matcher.add(descriptors);
  matcher.train();
  for (std::size_t k = 0; k < features.size(); ++k) {
    cv::Mat d = features[k].descriptors.getMat(cv::ACCESS_READ);
    if (d.empty()) continue;
    std::vector<std::vector<cv::DMatch>> found;
    matcher.knnMatch(d, found, 2);
    for (const auto& m : found) {
      if (m.size() < 2 || !(m[0].distance < kRatio * m[1].distance)) continue;
      pairs.push_back({int(k), cv::Point2d(features[k].keypoints[std::size_t(m[0].queryIdx)].pt),
                       cv::Point2d(keys[std::size_t(m[0].trainIdx)].pt)});
    }
  }
  return pairs;
}

// The world ray of an equirectangular picture's pixel (y down, z at
// longitude 0 on the horizon).
cv::Vec3d sphereRay(cv::Point2d pixel, cv::Size size) {
  const double longitude = (pixel.x + 0.5) / size.width * 2.0 * kPi - kPi;
  const double latitude = 0.5 * kPi - (pixel.y + 0.5) / size.height * kPi;
  return cv::Vec3d(std::cos(latitude) * std::sin(longitude), -std::sin(latitude),
                   std::cos(latitude) * std::cos(longitude));
}

TargetFit fitRotation(const std::vector<ModuleModel>& models, const std::vector<Pair>& pairs, cv::Size size) {
  TargetFit fit;
  fit.equirectangular = true;
  std::vector<cv::Vec3d> from, to;
  for (const auto& p : pairs) {
    from.push_back(models[std::size_t(p.module)].ray(p.picture));
    to.push_back(sphereRay(p.target, size));
  }
  const double tolerance = kTolerancePx * 2.0 * kPi / size.width;  // radians
  const auto agreeing = [&](const cv::Matx33d& r) {
    std::vector<int> in;
    for (std::size_t k = 0; k < from.size(); ++k)
      if (std::acos(std::clamp((r * from[k]).dot(to[k]), -1.0, 1.0)) < tolerance) in.push_back(int(k));
    return in;
  };
  cv::RNG rng(0x7a5);
  std::vector<int> best;
  const int n = int(from.size());
  for (int i = 0; i < kIterations && n >= 2; ++i) {
    const int a = rng.uniform(0, n), b = rng.uniform(0, n);
    if (a == b || std::fabs(from[std::size_t(a)].dot(from[std::size_t(b)])) > 0.9999) continue;
    const std::vector<int> in = agreeing(bestRotation(from, to, {a, b}));
    if (in.size() > best.size()) best = in;
  }
  for (int round = 0; round < 3 && int(best.size()) >= kFewestAgreeing; ++round)
    best = agreeing(bestRotation(from, to, best));
  fit.matches = int(best.size());
  if (fit.matches < kFewestAgreeing) {
    fit.reason = "only " + std::to_string(fit.matches) + " features of the modules agree with one turn onto the target";
    return fit;
  }
  fit.rotation = bestRotation(from, to, best);
  std::vector<double> residual;
  for (const int k : best)
    residual.push_back(std::acos(std::clamp((fit.rotation * from[std::size_t(k)]).dot(to[std::size_t(k)]), -1.0, 1.0)) *
                       size.width / (2.0 * kPi));
  std::nth_element(residual.begin(), residual.begin() + long(residual.size() / 2), residual.end());
  fit.medianPx = residual[residual.size() / 2];
  fit.ok = true;
  return fit;
}

TargetFit fitHomography(const std::vector<ModuleModel>& models, const std::vector<Pair>& pairs, cv::Size size,
                        const Surface& surface) {
  TargetFit fit;
  std::vector<cv::Point2f> from, to;
  for (const auto& p : pairs) {
    const cv::Point2d unit = surface.toUnit(models[std::size_t(p.module)], p.picture);
    from.emplace_back(float(unit.x), float(unit.y));
    to.emplace_back(float((p.target.x) / size.width), float((p.target.y) / size.height));
  }
  if (from.size() < std::size_t(kFewestAgreeing)) {
    fit.reason = "only " + std::to_string(from.size()) + " features of the modules match the target";
    return fit;
  }
  std::vector<uchar> mask;
  const double tolerance = kTolerancePx / std::max(size.width, size.height);
  cv::Mat h = cv::findHomography(from, to, cv::RANSAC, tolerance, mask, 5000, 0.999);
  fit.matches = int(std::count(mask.begin(), mask.end(), uchar(1)));
  if (h.empty() || fit.matches < kFewestAgreeing) {
    fit.reason = "only " + std::to_string(fit.matches) + " features of the modules agree with one homography onto the target";
    return fit;
  }
  fit.homography = cv::Matx33d(h);
  std::vector<double> residual;
  for (std::size_t k = 0; k < from.size(); ++k) {
    if (!mask[k]) continue;
    const cv::Vec3d q = fit.homography * cv::Vec3d(from[k].x, from[k].y, 1.0);
    residual.push_back(std::hypot((q[0] / q[2] - to[k].x) * size.width, (q[1] / q[2] - to[k].y) * size.height));
  }
  std::nth_element(residual.begin(), residual.begin() + long(residual.size() / 2), residual.end());
  fit.medianPx = residual[residual.size() / 2];
  fit.ok = true;
  return fit;
}

}  // namespace

bool isEquirectangular(cv::Size size) {
  return size.height > 0 && std::fabs(double(size.width) / size.height - 2.0) < 0.02;
}

TargetFit registerToTarget(const std::vector<ModuleModel>& models,
                           const std::vector<cv::detail::ImageFeatures>& features, const cv::Mat& target,
                           const Surface* surface) {
  std::vector<cv::KeyPoint> keys;
  cv::Mat descriptors;
  targetFeatures(target, keys, descriptors);
  const std::vector<Pair> pairs = matchModules(features, keys, descriptors);
  if (isEquirectangular(target.size())) return fitRotation(models, pairs, target.size());
  if (surface == nullptr) {
    TargetFit fit;
    fit.reason = "no panorama to place the target on";
    return fit;
  }
  return fitHomography(models, pairs, target.size(), *surface);
}

}  // namespace Rig
}  // namespace GeometryCalibration
