// Scene rendering of the simulated camera.
#include "simulated/scene_renderer.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

namespace Quarn {
namespace {

// Share of the pixel at distance d from a disc's centre that the disc of
// radius r covers (a linear ramp one pixel wide across the rim).
inline double coverage(double d, double r) { return std::clamp(r - d + 0.5, 0.0, 1.0); }

cv::Mat finish(const cv::Mat& grey, double blur, double noise, std::uint32_t seed) {
  cv::Mat g = grey;
  if (blur > 0.0) cv::GaussianBlur(g, g, cv::Size(0, 0), blur, blur);
  if (noise > 0.0) {
    cv::Mat n(g.size(), CV_32F);
    cv::RNG rng(seed == 0 ? 0x9e3779b9u : seed);
    rng.fill(n, cv::RNG::NORMAL, 0.0, noise);
    g = g + n;
  }
  cv::Mat grey8, bgr;
  g.convertTo(grey8, CV_8U);
  cv::cvtColor(grey8, bgr, cv::COLOR_GRAY2BGR);
  return bgr;
}

}  // namespace

cv::Mat renderLensCircle(cv::Size size, cv::Point2d centre, double radius, double vignetting, double blur,
                         double noise, std::uint32_t seed) {
  if (size.width <= 0 || size.height <= 0) return cv::Mat();
  constexpr double kDark = 12.0, kBright = 235.0;
  const double r = std::max(radius, 0.0);
  cv::Mat grey(size, CV_32F, cv::Scalar(kDark));
  const int y0 = std::max(0, static_cast<int>(std::floor(centre.y - r - 1)));
  const int y1 = std::min(size.height - 1, static_cast<int>(std::ceil(centre.y + r + 1)));
  const int x0 = std::max(0, static_cast<int>(std::floor(centre.x - r - 1)));
  const int x1 = std::min(size.width - 1, static_cast<int>(std::ceil(centre.x + r + 1)));
  for (int y = y0; y <= y1; ++y) {
    float* row = grey.ptr<float>(y);
    const double dy = y - centre.y;
    for (int x = x0; x <= x1; ++x) {
      const double dx = x - centre.x;
      const double d = std::sqrt(dx * dx + dy * dy);
      const double c = coverage(d, r);
      if (c <= 0.0) continue;
      const double rel = r > 0.0 ? std::min(d / r, 1.0) : 1.0;
      const double bright = kBright * (1.0 - vignetting * rel * rel);
      row[x] = static_cast<float>(kDark + c * (bright - kDark));
    }
  }
  return finish(grey, blur, noise, seed);
}

std::array<cv::Point2d, 3> threeCircleTargetCentres(cv::Point2d corner, double spacingX, double spacingY,
                                                    double rotation) {
  const double a = rotation * CV_PI / 180.0;
  const double c = std::cos(a), s = std::sin(a);
  // Counter-clockwise on a picture whose y axis points down.
  const cv::Point2d alongX(c * spacingX, -s * spacingX);
  const cv::Point2d alongY(s * spacingY, c * spacingY);
  return {corner, corner + alongX, corner + alongY};
}

cv::Mat renderThreeCircleTarget(cv::Size size, cv::Point2d corner, double spacingX, double spacingY,
                                double markRadius, double rotation, double blur, double noise, std::uint32_t seed) {
  if (size.width <= 0 || size.height <= 0) return cv::Mat();
  constexpr double kGround = 220.0, kMark = 20.0;
  cv::Mat grey(size, CV_32F, cv::Scalar(kGround));
  const double r = std::max(markRadius, 0.0);
  for (const cv::Point2d& p : threeCircleTargetCentres(corner, spacingX, spacingY, rotation)) {
    const int y0 = std::max(0, static_cast<int>(std::floor(p.y - r - 1)));
    const int y1 = std::min(size.height - 1, static_cast<int>(std::ceil(p.y + r + 1)));
    const int x0 = std::max(0, static_cast<int>(std::floor(p.x - r - 1)));
    const int x1 = std::min(size.width - 1, static_cast<int>(std::ceil(p.x + r + 1)));
    for (int y = y0; y <= y1; ++y) {
      float* row = grey.ptr<float>(y);
      for (int x = x0; x <= x1; ++x) {
        const double c = coverage(std::hypot(x - p.x, y - p.y), r);
        if (c > 0.0) row[x] = static_cast<float>(row[x] + c * (kMark - row[x]));
      }
    }
  }
  return finish(grey, blur, noise, seed);
}

}  // namespace Quarn
