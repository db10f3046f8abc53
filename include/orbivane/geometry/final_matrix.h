// A module's final matrix: its geometry matrix composed with the clip matrix
// of its clip-matrix shader (UID "00050007"), as the viewer draws it.
//   final = module matrix x clip matrix
// The clip matrix acts on the picture's texture coordinates first, the module
// matrix then takes them onto the surface (see surface_projection.h). A module
// without an enabled clip-matrix shader has its geometry matrix as final
// matrix. CameraDescription::finalMatrix (camera/final_matrix.h) reads both
// from a module.
#pragma once

#include <list>

#include "orbivane/export.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/shader.h"
#include "orbivane/utils/matrix4x4.h"
#include "orbivane/utils/optional.h"

namespace OrbivaneGeometry {

// Nothing when there is no matrix geometry (null), the clip-matrix values
// cannot be read, or the product is not finite.
ORBIVANE_EXPORT Utils::Optional<Utils::Matrix4x4> finalMatrix(const MatrixGeometry* geometry,
                                                              const std::list<Shader>& shaders);

}  // namespace OrbivaneGeometry
