// A module's final matrix (module matrix x clip matrix, see
// geometry/final_matrix.h), read from the module's matrix geometry and its
// shader chain.
#pragma once

#include "orbivane/camera/orbivane_module.h"
#include "orbivane/export.h"
#include "orbivane/utils/matrix4x4.h"
#include "orbivane/utils/optional.h"

namespace CameraDescription {

// Nothing when the module has no matrix geometry, its clip-matrix values
// cannot be read, or the product is not finite.
ORBIVANE_EXPORT Utils::Optional<Utils::Matrix4x4> finalMatrix(const OrbivaneModule& module);

}  // namespace CameraDescription
