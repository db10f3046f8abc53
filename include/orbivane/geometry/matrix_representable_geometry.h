// A geometry that can be written as one 4x4 matrix (see surface_projection.h
// for what the matrix means).
#pragma once

#include "orbivane/export.h"
#include "orbivane/geometry/geometry.h"
#include "orbivane/utils/matrix4x4.h"

namespace OrbivaneGeometry {

class ORBIVANE_EXPORT MatrixRepresentableGeometry : public Geometry {
 public:
  ~MatrixRepresentableGeometry() override;
  virtual Utils::Matrix4x4 matrix() const = 0;

 protected:
  MatrixRepresentableGeometry() = default;
  MatrixRepresentableGeometry(const MatrixRepresentableGeometry&) = default;
  MatrixRepresentableGeometry& operator=(const MatrixRepresentableGeometry&) = default;
};

}  // namespace OrbivaneGeometry
