// Exposure of a rig's modules: gains that even out the brightness of
// overlapping modules as the viewer draws them, and how much two modules
// still differ over their overlap.
//
// The gains solve, in the logarithm, the least squares of OpenCV's gain
// compensator (cv::detail::GainCompensator: g_i m_ij = g_j m_ji over every
// overlap), with two differences that the rig's goal (every overlap within a
// few hundredths of an EV) asks for: each overlap counts alike whatever its
// size (OpenCV weighs by pixel count, so a small overlap in a loop keeps its
// difference), and the gains are held at 1 only on the whole (their mean
// logarithm is 0), not each one.
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
