// A grid of texture coordinates over a module's picture. A grid of C columns
// and R rows has C x R cells and (C + 1) x (R + 1) points, stored row by row.
// Point (i, j) sits at the regular position (i / C, j / R) of the module's
// unit square and names the texture coordinate (u, v) that is drawn there:
// u runs right and v down, both 0..1 over the picture. A fresh grid is the
// regular lattice, which leaves the picture unchanged.
//
// The points live in one shared vector; copies share it until one of them is
// changed (copy on write), so handing a grid around costs no copy of points.
#pragma once

#include <memory>
#include <vector>

#include "orbivane/export.h"

namespace Utils {

class ORBIVANE_EXPORT UVGrid {
 public:
  struct UVPoint {
    float u = 0.0f;
    float v = 0.0f;
    friend bool operator==(const UVPoint& a, const UVPoint& b) { return a.u == b.u && a.v == b.v; }
  };

  // An empty grid: no columns, no rows, no points.
  UVGrid();
  // The regular lattice of columns x rows cells. Throws std::invalid_argument
  // when either count is below 1.
  UVGrid(int columns, int rows);

  int columns() const { return columns_; }
  int rows() const { return rows_; }
  bool empty() const { return columns_ == 0 || rows_ == 0; }

  // Point i (0..columns) of row j (0..rows). Out-of-range indices throw
  // std::out_of_range.
  const UVPoint& point(int i, int j) const;
  void setPoint(int i, int j, const UVPoint& p);

  const std::vector<UVPoint>& points() const;
  // Replaces all points; the count must be (columns + 1) x (rows + 1).
  void setPoints(std::vector<UVPoint> points);

  // The texture coordinate drawn at position (x, y) of the unit square,
  // interpolated bilinearly within its cell; (x, y) outside are clamped, and a
  // position that is not finite gives a point that is not either.
  UVPoint sample(float x, float y) const;

  // True when every point equals the regular lattice's.
  bool isRegular(float tolerance = 0.0f) const;

  friend bool operator==(const UVGrid& a, const UVGrid& b);
  friend bool operator!=(const UVGrid& a, const UVGrid& b) { return !(a == b); }

 private:
  std::size_t index(int i, int j) const;
  void detach();

  int columns_ = 0;
  int rows_ = 0;
  std::shared_ptr<std::vector<UVPoint>> points_;
};

ORBIVANE_EXPORT bool operator==(const UVGrid& a, const UVGrid& b);

}  // namespace Utils
