// The lens circle check; see lens_circle_check.h.
#include "lens_circle_check.h"
#include "orbivane/image/image_conversion.h"

#include <cstdio>

#include <opencv2/imgproc.hpp>

namespace Tool {
namespace {

// A lens circle: nearly all of the disc bright, little of the rest.
constexpr double kLeastBrightInside = 0.85;
constexpr double kMostBrightOutside = 0.15;

}  // namespace

LensCircleCheck checkLensCircle(const cv::Mat& picture, int threshold, double x, double y, double radius) {
  LensCircleCheck check;
  if (picture.empty() || !(radius > 0)) {
    check.reason = "no circle";
    return check;
  }
  cv::Mat grey = Image::greyOf(picture), bright;
  cv::threshold(grey, bright, threshold, 255, cv::THRESH_BINARY);
  cv::Mat disc = cv::Mat::zeros(grey.size(), CV_8U);
  cv::circle(disc, cv::Point2d(x, y), int(radius + 0.5), cv::Scalar(255), cv::FILLED, cv::LINE_8);
  const double inside = cv::countNonZero(disc);
  const double outside = double(disc.total()) - inside;
  const double brightInDisc = cv::countNonZero(bright & disc);
  const double brightTotal = cv::countNonZero(bright);
  check.brightInside = inside > 0 ? brightInDisc / inside : 0.0;
  check.brightOutside = outside > 0 ? (brightTotal - brightInDisc) / outside : 0.0;
  check.plausible = check.brightInside >= kLeastBrightInside && check.brightOutside <= kMostBrightOutside;
  if (!check.plausible) {
    char text[200];
    std::snprintf(text, sizeof text,
                  "the circle found is not a bright lens disc on a dark surround (%.0f %% of it bright, %.0f %% of "
                  "the rest bright; a lens circle has at least %.0f %% and at most %.0f %%)",
                  100.0 * check.brightInside, 100.0 * check.brightOutside, 100.0 * kLeastBrightInside,
                  100.0 * kMostBrightOutside);
    check.reason = text;
  }
  return check;
}

}  // namespace Tool
