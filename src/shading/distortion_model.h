// The lens distortion shader's model (UID "00060001"): which source
// coordinate each texture coordinate is drawn from. The formulas are written
// in orbivane/shading/image_shading.h.
#pragma once

#include <cmath>
#include <list>

#include <opencv2/core/types.hpp>

#include "orbivane/geometry/shader.h"

namespace ImageSource {

struct LensDistortion {
  float strength = 0.0f;        // F, "f_TCorrection_F"
  float horizontal = 0.5f;      // H, "f_TCorrection_H"
  float vertical = 0.5f;        // V, "f_TCorrection_V"
  float shiftX = 0.0f;          // "f_ps_distortion_ext_xshift", texture units
  float shiftY = 0.0f;          // "f_ps_distortion_ext_yshift", texture units
  int power = 2;                // p, "i_ps_distortion_ext_pwp", 1..32
  int method = 0;               // "i_ps_distortion_ext_method": 1 division, else polynomial

  // The values of a lens distortion shader; missing parameters keep their
  // defaults. Throws std::invalid_argument naming a parameter whose text is
  // not a finite number.
  static LensDistortion fromShader(const OrbivaneGeometry::Shader& shader);
  // The first lens distortion shader of a chain, or the identity.
  static LensDistortion fromChain(const std::list<OrbivaneGeometry::Shader>& shaders);

  bool isIdentity() const;
  // The source texture coordinate drawn at texture coordinate (u, v).
  cv::Point2f map(float u, float v) const;

  friend bool operator==(const LensDistortion& a, const LensDistortion& b) {
    return a.strength == b.strength && a.horizontal == b.horizontal && a.vertical == b.vertical &&
           a.shiftX == b.shiftX && a.shiftY == b.shiftY && a.power == b.power && a.method == b.method;
  }
};

// q^(p / 2) for q >= 0 and p >= 1, by squaring (and one square root for odd p).
inline float halfPower(float q, int p) {
  float result = (p & 1) ? std::sqrt(q) : 1.0f;
  float base = q;
  for (int n = p >> 1; n > 0; n >>= 1) {
    if (n & 1) result *= base;
    base *= base;
  }
  return result;
}

}  // namespace ImageSource
