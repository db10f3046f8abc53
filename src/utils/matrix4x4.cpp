// Row-major 4x4 float matrix: products in float, inverse and determinant in
// double (the inverse is rounded back to float once at the end).
#include "orbivane/utils/matrix4x4.h"

#include <cmath>
#include <ostream>
#include <stdexcept>

namespace Utils {
namespace {

void checkIndex(int row, int column) {
  if (row < 0 || row > 3 || column < 0 || column > 3) {
    throw std::out_of_range("Matrix4x4 index out of range");
  }
}

}  // namespace

Matrix4x4::Matrix4x4() : values_{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1} {}

Matrix4x4::Matrix4x4(const std::array<float, 16>& rowMajor) : values_(rowMajor) {}

Matrix4x4 Matrix4x4::identity() { return Matrix4x4(); }

Matrix4x4 Matrix4x4::translation(float dx, float dy) {
  Matrix4x4 m;
  m.values_[3] = dx;
  m.values_[7] = dy;
  return m;
}

float Matrix4x4::get(int row, int column) const {
  checkIndex(row, column);
  return values_[4 * row + column];
}

void Matrix4x4::set(int row, int column, float value) {
  checkIndex(row, column);
  values_[4 * row + column] = value;
}

float& Matrix4x4::operator()(int row, int column) {
  checkIndex(row, column);
  return values_[4 * row + column];
}

float Matrix4x4::operator()(int row, int column) const { return get(row, column); }

Matrix4x4 Matrix4x4::operator*(const Matrix4x4& other) const {
  Matrix4x4 r;
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 4; ++j) {
      float s = 0.0f;
      for (int k = 0; k < 4; ++k) s += values_[4 * i + k] * other.values_[4 * k + j];
      r.values_[4 * i + j] = s;
    }
  }
  return r;
}

bool Matrix4x4::isFinite() const {
  for (float v : values_) {
    if (!std::isfinite(v)) return false;
  }
  return true;
}

double Matrix4x4::determinant() const {
  // Gaussian elimination with partial pivoting in double.
  double a[4][4];
  for (int i = 0; i < 16; ++i) a[i / 4][i % 4] = values_[i];
  double det = 1.0;
  for (int c = 0; c < 4; ++c) {
    int pivot = c;
    for (int r = c + 1; r < 4; ++r) {
      if (std::fabs(a[r][c]) > std::fabs(a[pivot][c])) pivot = r;
    }
    if (a[pivot][c] == 0.0) return 0.0;
    if (pivot != c) {
      for (int k = 0; k < 4; ++k) std::swap(a[c][k], a[pivot][k]);
      det = -det;
    }
    det *= a[c][c];
    for (int r = c + 1; r < 4; ++r) {
      const double f = a[r][c] / a[c][c];
      for (int k = c; k < 4; ++k) a[r][k] -= f * a[c][k];
    }
  }
  return det;
}

Utils::Optional<Matrix4x4> Matrix4x4::inverse() const {
  if (!isFinite()) return std::nullopt;
  // Gauss-Jordan elimination with partial pivoting in double.
  double a[4][8];
  double scale = 0.0;
  for (int r = 0; r < 4; ++r) {
    for (int c = 0; c < 4; ++c) {
      a[r][c] = values_[4 * r + c];
      a[r][c + 4] = r == c ? 1.0 : 0.0;
      scale = std::fmax(scale, std::fabs(a[r][c]));
    }
  }
  if (scale == 0.0) return std::nullopt;
  const double tiny = scale * 1e-12;
  for (int c = 0; c < 4; ++c) {
    int pivot = c;
    for (int r = c + 1; r < 4; ++r) {
      if (std::fabs(a[r][c]) > std::fabs(a[pivot][c])) pivot = r;
    }
    if (std::fabs(a[pivot][c]) <= tiny) return std::nullopt;
    if (pivot != c) {
      for (int k = 0; k < 8; ++k) std::swap(a[c][k], a[pivot][k]);
    }
    const double inv = 1.0 / a[c][c];
    for (int k = 0; k < 8; ++k) a[c][k] *= inv;
    for (int r = 0; r < 4; ++r) {
      if (r == c) continue;
      const double f = a[r][c];
      if (f == 0.0) continue;
      for (int k = 0; k < 8; ++k) a[r][k] -= f * a[c][k];
    }
  }
  Matrix4x4 result;
  for (int r = 0; r < 4; ++r) {
    for (int c = 0; c < 4; ++c) result.values_[4 * r + c] = static_cast<float>(a[r][c + 4]);
  }
  if (!result.isFinite()) return std::nullopt;
  return result;
}

std::ostream& operator<<(std::ostream& os, const Matrix4x4& m) {
  os << '[';
  for (int r = 0; r < 4; ++r) {
    os << (r ? "; " : "");
    for (int c = 0; c < 4; ++c) os << (c ? " " : "") << m.get(r, c);
  }
  return os << ']';
}

}  // namespace Utils
