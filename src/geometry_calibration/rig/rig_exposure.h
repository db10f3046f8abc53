// Exposure of a rig's modules: gains that even out the brightness of
// overlapping modules (cv::detail::GainCompensator on the modules as the
// viewer draws them), and how much two modules still differ over their
// overlap.
#pragma once

#include <memory>
#include <vector>

#include <opencv2/core/types.hpp>

#include "orbivane/camera/orbivane_module.h"

namespace GeometryCalibration {
namespace Rig {

// Gains for `modules` (each drawn with its current gain ignored), on a
// panorama of `panorama` pixels drawn at most `largestSide` pixels wide or high.
std::vector<double> exposureGains(const std::vector<std::shared_ptr<CameraDescription::OrbivaneModule>>& modules,
                                  cv::Size panorama, int largestSide = 1600);

// |log2| of the ratio of the two modules' mean brightness (grey) over their
// overlap, each with its gain applied; NaN when they share too few pixels.
double exposureDifferenceEv(const CameraDescription::OrbivaneModule& a, const CameraDescription::OrbivaneModule& b,
                            cv::Size panorama, int largestSide = 1600);

}  // namespace Rig
}  // namespace GeometryCalibration
