// A module's geometry: how its picture is placed on the panorama surface.
// Kinds: MatrixGeometry (a 4x4 matrix and an optional UV grid; the kind every
// calibrator works on), other MatrixRepresentableGeometry kinds, and
// RegionBasedGeometry (a region with a triangle mesh). A module owns its
// geometry and copies it deeply.
#pragma once

#include <memory>
#include <string>

#include "orbivane/export.h"

namespace OrbivaneGeometry {

class ORBIVANE_EXPORT Geometry {
 public:
  virtual ~Geometry();
  virtual std::unique_ptr<Geometry> clone() const = 0;
  // "matrix", "region", ...: the kind's name as camera files write it.
  virtual std::string kind() const = 0;

  // UID of the shader that renders the module's picture with this geometry
  // (for example the distortion shader the parameter search tunes); empty if
  // none.
  const std::string& shaderId() const { return shaderId_; }
  void setShaderId(std::string uid) { shaderId_ = std::move(uid); }

 protected:
  Geometry() = default;
  Geometry(const Geometry&) = default;
  Geometry& operator=(const Geometry&) = default;

 private:
  std::string shaderId_;
};

}  // namespace OrbivaneGeometry
