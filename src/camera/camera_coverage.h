// The coverage footprints (geometry/coverage.h) of a camera's modules.
#pragma once

#include <string>
#include <vector>

#include "geometry/coverage.h"
#include "orbivane/camera/orbivane.h"

namespace CameraDescription {

// The footprints of the camera's modules, in camera order; what is left out
// is said in `skipped`, one line per module.
std::vector<OrbivaneGeometry::Coverage::Footprint> cameraFootprints(const Orbivane& camera,
                                                                     std::vector<std::string>& skipped);

}  // namespace CameraDescription
