// A 4x4 matrix of 32-bit floats, row-major: element (row r, column c) is
// values()[4 * r + c]. It is a module's transform: it takes the module's
// homogeneous texture coordinates (u, v, 0, 1) to the panorama surface (see
// orbivane/geometry/surface_projection.h). The translation is the fourth column.
#pragma once

#include <array>
#include <iosfwd>

#include "orbivane/export.h"
#include "orbivane/utils/optional.h"

namespace Utils {

class ORBIVANE_EXPORT Matrix4x4 {
 public:
  // The identity.
  Matrix4x4();
  explicit Matrix4x4(const std::array<float, 16>& rowMajor);

  static Matrix4x4 identity();
  // Identity with (dx, dy) in the translation column of rows 0 and 1.
  static Matrix4x4 translation(float dx, float dy);

  float get(int row, int column) const;
  void set(int row, int column, float value);
  float& operator()(int row, int column);
  float operator()(int row, int column) const;

  const std::array<float, 16>& values() const { return values_; }

  // Row-by-column product: (*this) x other.
  Matrix4x4 operator*(const Matrix4x4& other) const;

  // The inverse, or nothing when the matrix is singular or not finite.
  Utils::Optional<Matrix4x4> inverse() const;
  double determinant() const;
  bool isFinite() const;

  friend bool operator==(const Matrix4x4& a, const Matrix4x4& b) { return a.values_ == b.values_; }
  friend bool operator!=(const Matrix4x4& a, const Matrix4x4& b) { return !(a == b); }

 private:
  std::array<float, 16> values_;
};

ORBIVANE_EXPORT std::ostream& operator<<(std::ostream& os, const Matrix4x4& m);

}  // namespace Utils
