// Module matrix composed with its clip matrix.
#include "orbivane/geometry/final_matrix.h"

#include <exception>

#include "orbivane/geometry/clip_matrix.h"

namespace OrbivaneGeometry {

Utils::Optional<Utils::Matrix4x4> finalMatrix(const MatrixGeometry* geometry, const std::list<Shader>& shaders) {
  if (geometry == nullptr) return std::nullopt;
  Utils::Matrix4x4 result = geometry->matrix();
  if (const Shader* clip = findClipMatrixShader(shaders)) {
    try {
      result = result * clipMatrixFromShader(*clip);
    } catch (const std::exception&) {
      return std::nullopt;
    }
  }
  if (!result.isFinite()) return std::nullopt;
  return result;
}

}  // namespace OrbivaneGeometry
