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
//
// One gain per module cannot even out a lens's vignetting: where a picture's
// dark corner overlaps another's bright middle (a ring and the picture above
// it), they differ however the gains are set. So the lenses' fall-off is
// fitted too, from the overlaps' pixels, and written into the modules for
// the viewer to undo where it explains a tenth or more of how the shared
// pixels disagree (elsewhere the fit would mostly follow other causes: the
// camera's tone curve, a moving sky).
#pragma once

#include <memory>
#include <vector>

#include <opencv2/core/types.hpp>

#include "orbivane/camera/orbivane_module.h"

namespace GeometryCalibration {
namespace Rig {

struct Exposure {
  std::vector<double> gains;  // per module, in their order
  // The lenses' vignetting, one for all (none: the overlaps did not show
  // one clearly enough).
  CameraDescription::OrbivaneModule::Vignetting vignetting;
};

// Gains for `modules` and their lenses' vignetting (each module drawn with
// its current gain and vignetting ignored), on a panorama of `panorama`
// pixels drawn at most `largestSide` pixels wide or high.
Exposure evenExposure(const std::vector<std::shared_ptr<CameraDescription::OrbivaneModule>>& modules,
                      cv::Size panorama, int largestSide = 1600);

// |log2| of the ratio of the two modules' mean brightness (grey) over their
// overlap, each drawn as the viewer shows it (vignetting undone, gain
// applied); NaN when they share too few pixels.
double exposureDifferenceEv(const CameraDescription::OrbivaneModule& a, const CameraDescription::OrbivaneModule& b,
                            cv::Size panorama, int largestSide = 1600);

}  // namespace Rig
}  // namespace GeometryCalibration
