// Renders the simulated camera's scenes as BGR 8-bit sensor frames, with
// anti-aliased edges (each edge pixel takes its covered share), Gaussian blur
// and Gaussian noise from a seeded generator, so a scene is the same on every
// run. Pixel (0, 0) is centred on (0, 0).
#pragma once

#include <array>
#include <cstdint>

#include <opencv2/core.hpp>

namespace Quarn {

// A bright disc of `radius` pixels around `centre` on a dark surround (grey
// 12); the brightness is 235 in the middle and falls with the squared
// distance to 235 * (1 - vignetting) at the rim.
cv::Mat renderLensCircle(cv::Size size, cv::Point2d centre, double radius, double vignetting, double blur,
                         double noise, std::uint32_t seed);

// The three mark centres of a right-angle target: the corner, the end of the
// horizontal side and the end of the vertical side, turned by `rotation`
// degrees (counter-clockwise as seen on the picture) about the corner.
std::array<cv::Point2d, 3> threeCircleTargetCentres(cv::Point2d corner, double spacingX, double spacingY,
                                                    double rotation);

// Three dark marks (grey 20) of `markRadius` pixels on a bright ground
// (grey 220) at the centres above.
cv::Mat renderThreeCircleTarget(cv::Size size, cv::Point2d corner, double spacingX, double spacingY,
                                double markRadius, double rotation, double blur, double noise, std::uint32_t seed);

}  // namespace Quarn
