// The clip-matrix shader (UID "00050007") and a module matrix. The 3x3 clip
// matrix is the 4x4 matrix with its depth row and column (the third) removed;
// its third column is the fourth column of the 4x4 matrix:
//   m00 m01 m02      (0,0) (0,1) (0,3)
//   m10 m11 m12  <-  (1,0) (1,1) (1,3)
//   m20 m21 m22      (3,0) (3,1) (3,3)
#pragma once

#include <list>

#include "orbivane/export.h"
#include "orbivane/geometry/shader.h"
#include "orbivane/utils/matrix4x4.h"

namespace OrbivaneGeometry {

ORBIVANE_EXPORT extern const char* const kClipMatrixShaderUid;  // "00050007"

// The clip-matrix shader of a matrix: "i_clipMatrix_enabled" "1" and the nine
// "f_clipMatrix_mRC" values written with "%f".
ORBIVANE_EXPORT Shader clipMatrixShader(const Utils::Matrix4x4& matrix);

// Reads the nine values back into a 4x4 matrix (identity elsewhere). The
// string-to-float conversion's exceptions ("invalid stof argument", "stof
// argument out of range") pass to the caller; a missing parameter throws
// std::invalid_argument naming it.
ORBIVANE_EXPORT Utils::Matrix4x4 clipMatrixFromShader(const Shader& shader);

// The first enabled clip-matrix shader of a chain, or nothing.
ORBIVANE_EXPORT const Shader* findClipMatrixShader(const std::list<Shader>& shaders);

}  // namespace OrbivaneGeometry
