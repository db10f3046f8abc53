// The lens distortion shader (UID 00060001) with chosen parameter values, as
// the shader search's truth in tests, benchmarks and the demo.
#pragma once

#include <map>
#include <string>

#include "orbivane/geometry/shader.h"

namespace Synthetic {

// `values`: parameter name -> value (e.g. "f_TCorrection_F"); the method and
// the power-of-two flag are fixed (method 0, i_ps_distortion_ext_pwp 2).
OrbivaneGeometry::Shader lensShader(const std::map<std::string, float>& values);

}  // namespace Synthetic
