// A list of textured triangles, shared between copies: a mesh that a
// region-based geometry renders. Positions are in normalised surface units,
// texture coordinates in normalised picture units (u right, v down, 0..1).
#pragma once

#include <memory>
#include <vector>

namespace Utils {

struct TriangleVertex {
  float x = 0.0f;  // surface position
  float y = 0.0f;
  float u = 0.0f;  // texture coordinate
  float v = 0.0f;
};

struct Triangle {
  TriangleVertex a, b, c;
};

struct TriangleList {
  std::shared_ptr<std::vector<Triangle>> triangles = std::make_shared<std::vector<Triangle>>();

  std::size_t size() const { return triangles ? triangles->size() : 0; }
};

}  // namespace Utils
