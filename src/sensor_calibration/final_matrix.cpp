// Module matrix composed with its clip matrix.
#include "orbivane/sensor_calibration/final_matrix.h"

#include <exception>

#include "orbivane/geometry/clip_matrix.h"

namespace SensorCalibration {

Utils::Optional<Utils::Matrix4x4> finalMatrix(const CameraDescription::OrbivaneModule& module) {
  const auto* geometry = module.matrixGeometry();
  if (geometry == nullptr) return std::nullopt;
  Utils::Matrix4x4 result = geometry->matrix();
  if (const auto* clip = OrbivaneGeometry::findClipMatrixShader(module.shaders())) {
    try {
      result = result * OrbivaneGeometry::clipMatrixFromShader(*clip);
    } catch (const std::exception&) {
      return std::nullopt;
    }
  }
  if (!result.isFinite()) return std::nullopt;
  return result;
}

}  // namespace SensorCalibration
