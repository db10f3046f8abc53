// The clip-matrix shader and module matrices.
#include "orbivane/geometry/clip_matrix.h"

#include <stdexcept>

#include "geometry/text_conversion.h"

namespace OrbivaneGeometry {
namespace {

struct ClipEntry {
  const char* name;
  int row;
  int column;
};

// The depth row and column (index 2) are dropped.
const ClipEntry kClipEntries[9] = {
    {"f_clipMatrix_m00", 0, 0}, {"f_clipMatrix_m01", 0, 1}, {"f_clipMatrix_m02", 0, 3},
    {"f_clipMatrix_m10", 1, 0}, {"f_clipMatrix_m11", 1, 1}, {"f_clipMatrix_m12", 1, 3},
    {"f_clipMatrix_m20", 3, 0}, {"f_clipMatrix_m21", 3, 1}, {"f_clipMatrix_m22", 3, 3},
};

}  // namespace

const char* const kClipMatrixShaderUid = "00050007";

Shader clipMatrixShader(const Utils::Matrix4x4& matrix) {
  std::map<std::string, std::string> parameters;
  parameters["i_clipMatrix_enabled"] = std::to_string(1);
  for (const auto& e : kClipEntries) parameters[e.name] = formatFloat(matrix.get(e.row, e.column));
  return Shader(kClipMatrixShaderUid, parameters);
}

Utils::Matrix4x4 clipMatrixFromShader(const Shader& shader) {
  Utils::Matrix4x4 m;
  for (const auto& e : kClipEntries) {
    const std::string* text = shader.parameter(e.name);
    if (text == nullptr) throw std::invalid_argument(std::string("clip-matrix shader has no parameter ") + e.name);
    m.set(e.row, e.column, parseFloat(*text));
  }
  return m;
}

const Shader* findClipMatrixShader(const std::list<Shader>& shaders) {
  for (const auto& s : shaders) {
    if (s.uid() != kClipMatrixShaderUid) continue;
    const std::string* enabled = s.parameter("i_clipMatrix_enabled");
    if (enabled == nullptr || *enabled != "0") return &s;
  }
  return nullptr;
}

}  // namespace OrbivaneGeometry
