// The lens distortion shader with chosen values; see lens_shader.h.
#include "synthetic/lens_shader.h"

#include <cstdio>

#include "orbivane/shading/image_shading.h"

namespace Synthetic {

OrbivaneGeometry::Shader lensShader(const std::map<std::string, float>& values) {
  std::map<std::string, std::string> texts{{"i_ps_distortion_ext_pwp", "2"}, {"i_ps_distortion_ext_method", "0"}};
  for (const auto& v : values) {
    char text[64];
    std::snprintf(text, sizeof text, "%f", double(v.second));
    texts[v.first] = text;
  }
  return OrbivaneGeometry::Shader(ImageSource::kLensDistortionShaderUid, texts);
}

}  // namespace Synthetic
