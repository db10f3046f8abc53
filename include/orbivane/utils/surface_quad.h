// A quadrilateral on a surface: four corners in the order top-left, top-right,
// bottom-right, bottom-left of the region it outlines. Units are those of the
// surface it lives on (normalised surface units for module regions, sensor
// pixels for sensor windows).
#pragma once

#include <array>

namespace Utils {

struct SurfacePoint {
  float x = 0.0f;
  float y = 0.0f;
};

struct SurfaceQuad {
  std::array<SurfacePoint, 4> corners{};  // top-left, top-right, bottom-right, bottom-left

  float left() const;
  float right() const;
  float top() const;
  float bottom() const;
};

inline float SurfaceQuad::left() const {
  float v = corners[0].x;
  for (const auto& c : corners) v = c.x < v ? c.x : v;
  return v;
}
inline float SurfaceQuad::right() const {
  float v = corners[0].x;
  for (const auto& c : corners) v = c.x > v ? c.x : v;
  return v;
}
inline float SurfaceQuad::top() const {
  float v = corners[0].y;
  for (const auto& c : corners) v = c.y < v ? c.y : v;
  return v;
}
inline float SurfaceQuad::bottom() const {
  float v = corners[0].y;
  for (const auto& c : corners) v = c.y > v ? c.y : v;
  return v;
}

}  // namespace Utils
