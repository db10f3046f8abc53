// Whether a lens circle the fisheye calibrator reports is a bright disc on a
// dark surround in the picture. The calibrator returns any circle that fits
// its size rule, also one fitted to the edges of an ordinary photograph; the
// command line checks the picture agrees before it reports or moves a window.
#pragma once

#include <string>

#include <opencv2/core/mat.hpp>

namespace Tool {

struct LensCircleCheck {
  bool plausible = false;
  double brightInside = 0.0;   // share of the disc's pixels (on the picture) above the threshold
  double brightOutside = 0.0;  // share of the other pixels above it
  std::string reason;          // why not plausible
};

// `threshold`: the grey level the calibrator used; centre and radius in pixels.
LensCircleCheck checkLensCircle(const cv::Mat& picture, int threshold, double x, double y, double radius);

}  // namespace Tool
