// The geometry the calibrators read and write: a 4x4 matrix that projects the
// module's picture onto the surface, and optionally a UV grid that warps the
// picture piecewise before the matrix is applied.
#pragma once

#include <memory>

#include "orbivane/export.h"
#include "orbivane/geometry/matrix_representable_geometry.h"
#include "orbivane/utils/matrix4x4.h"
#include "orbivane/utils/optional.h"
#include "orbivane/utils/uv_grid.h"

namespace OrbivaneGeometry {

class ORBIVANE_EXPORT MatrixGeometry : public MatrixRepresentableGeometry {
 public:
  MatrixGeometry();
  explicit MatrixGeometry(const Utils::Matrix4x4& matrix, Utils::Optional<Utils::UVGrid> grid = std::nullopt);
  ~MatrixGeometry() override;

  std::unique_ptr<Geometry> clone() const override;
  std::string kind() const override;

  Utils::Matrix4x4 matrix() const override { return matrix_; }
  void setMatrix(const Utils::Matrix4x4& matrix) { matrix_ = matrix; }

  const Utils::Optional<Utils::UVGrid>& uvGrid() const { return grid_; }
  void setUVGrid(const Utils::UVGrid& grid) { grid_ = grid; }
  void clearUVGrid() { grid_.reset(); }

 private:
  Utils::Matrix4x4 matrix_;
  Utils::Optional<Utils::UVGrid> grid_;
};

}  // namespace OrbivaneGeometry
