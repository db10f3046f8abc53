// A module's final matrix: its geometry matrix composed with the clip matrix
// of its clip-matrix shader (UID "00050007"), as the viewer draws it.
//   final = module matrix x clip matrix
// The clip matrix acts on the picture's texture coordinates first, the module
// matrix then takes them onto the surface (see surface_projection.h). A module
// without an enabled clip-matrix shader has its geometry matrix as final
// matrix.
#pragma once

#include "orbivane/camera/orbivane_module.h"
#include "orbivane/export.h"
#include "orbivane/utils/matrix4x4.h"
#include "orbivane/utils/optional.h"

namespace SensorCalibration {

// Nothing when the module has no matrix geometry, its clip-matrix values
// cannot be read, or the product is not finite.
ORBIVANE_EXPORT Utils::Optional<Utils::Matrix4x4> finalMatrix(const CameraDescription::OrbivaneModule& module);

}  // namespace SensorCalibration
