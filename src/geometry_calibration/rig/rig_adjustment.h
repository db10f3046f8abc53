// The bundle adjustment of a rig: each module's rotation, focal length and
// radial distortion (rig_model.h) refined over all matched features with
// Ceres, as OpenCV's bundle adjusters do for the rotation and focal length,
// with the lens added.
//
// A match says that pixel `pa` of module `a` and pixel `pb` of module `b` see
// the same scene point. Its cost is the distance, in ideal pixels of `b`,
// between pb and where the ray of pa lands in `b` (and the same from b to a),
// under a Huber loss. One module's rotation is held (it fixes the rig's
// orientation). After a first solve the matches are chosen anew by the
// refined model (those within a few pixels of it), and the rig is solved
// again on those.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "geometry_calibration/rig/rig_model.h"

namespace GeometryCalibration {
namespace Rig {

struct Match {
  int a = 0, b = 0;       // module indices
  cv::Point2d pa, pb;     // observed picture pixels
  bool inlier = true;     // used by the adjustment (set anew after the first solve)
};

struct AdjustmentSettings {
  bool lensPerModule = true;
  int fixedModule = 0;   // the module whose rotation is held
  double focalGuess = 0.0;  // pixels: the pair homographies' typical focal length (0: none)
};

struct AdjustmentSummary {
  bool converged = false;
  std::string message;    // Ceres's report line when it did not converge
  int inliers = 0;
};

// Refines `models` in place; marks each match inlier or not.
AdjustmentSummary adjustRig(std::vector<ModuleModel>& models, std::vector<Match>& matches,
                            const AdjustmentSettings& settings);

// The distance, in observed pixels, between where the ray of the match's
// point in one module lands in the other and the other point, the mean of
// both directions; a large value when a ray points behind the other module.
double matchResidual(const std::vector<ModuleModel>& models, const Match& match);

}  // namespace Rig
}  // namespace GeometryCalibration
