// The lens distortion shader's parameters and mapping.
#include "shading/distortion_model.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "orbivane/shading/image_shading.h"

namespace ImageSource {

const char* const kLensDistortionShaderUid = "00060001";

namespace {

double number(const OrbivaneGeometry::Shader& shader, const char* name, double fallback) {
  const std::string* text = shader.parameter(name);
  if (text == nullptr) return fallback;
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(text->c_str(), &end);
  while (end != nullptr && *end == ' ') ++end;
  if (end == text->c_str() || (end != nullptr && *end != '\0') || errno == ERANGE || !std::isfinite(value)) {
    throw std::invalid_argument(std::string("lens distortion parameter ") + name + " is not a finite number: '" +
                                *text + "'");
  }
  return value;
}

}  // namespace

LensDistortion LensDistortion::fromShader(const OrbivaneGeometry::Shader& shader) {
  LensDistortion d;
  d.strength = static_cast<float>(number(shader, "f_TCorrection_F", d.strength));
  d.horizontal = static_cast<float>(number(shader, "f_TCorrection_H", d.horizontal));
  d.vertical = static_cast<float>(number(shader, "f_TCorrection_V", d.vertical));
  d.shiftX = static_cast<float>(number(shader, "f_ps_distortion_ext_xshift", d.shiftX));
  d.shiftY = static_cast<float>(number(shader, "f_ps_distortion_ext_yshift", d.shiftY));
  // Integer parameters may arrive as "%f" text ("3.000000"): rounded.
  d.power = static_cast<int>(std::lround(std::clamp(number(shader, "i_ps_distortion_ext_pwp", d.power), 1.0, 32.0)));
  d.method = std::lround(std::clamp(number(shader, "i_ps_distortion_ext_method", d.method), -1e6, 1e6)) == 1 ? 1 : 0;
  return d;
}

LensDistortion LensDistortion::fromChain(const std::list<OrbivaneGeometry::Shader>& shaders) {
  for (const auto& shader : shaders) {
    if (shader.uid() == kLensDistortionShaderUid) return fromShader(shader);
  }
  return LensDistortion();
}

bool LensDistortion::isIdentity() const {
  return strength == 0.0f && horizontal == 0.5f && vertical == 0.5f && shiftX == 0.0f && shiftY == 0.0f;
}

cv::Point2f LensDistortion::map(float u, float v) const {
  const float cx = 0.5f + shiftX, cy = 0.5f + shiftY;
  const float dx = 2.0f * (u - cx), dy = 2.0f * (v - cy);
  const float q = (dx * dx + dy * dy) * 0.5f;
  const float g = strength * halfPower(q, power);
  const float k = method == 1 ? 1.0f / (1.0f + g) : 1.0f + g;
  return {cx + 0.5f * (0.5f + horizontal) * dx * k, cy + 0.5f * (0.5f + vertical) * dy * k};
}

}  // namespace ImageSource
