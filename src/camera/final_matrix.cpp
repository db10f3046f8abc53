// A module's final matrix from its own geometry and shaders.
#include "orbivane/camera/final_matrix.h"

#include "orbivane/geometry/final_matrix.h"

namespace CameraDescription {

Utils::Optional<Utils::Matrix4x4> finalMatrix(const OrbivaneModule& module) {
  return OrbivaneGeometry::finalMatrix(module.matrixGeometry(), module.shaders());
}

}  // namespace CameraDescription
