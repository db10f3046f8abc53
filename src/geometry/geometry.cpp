// The geometry kinds of a module.
#include "orbivane/geometry/geometry.h"

#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/matrix_representable_geometry.h"
#include "orbivane/geometry/region_based_geometry.h"

namespace OrbivaneGeometry {

Geometry::~Geometry() = default;
MatrixRepresentableGeometry::~MatrixRepresentableGeometry() = default;

MatrixGeometry::MatrixGeometry() = default;
MatrixGeometry::MatrixGeometry(const Utils::Matrix4x4& matrix, Utils::Optional<Utils::UVGrid> grid)
    : matrix_(matrix), grid_(std::move(grid)) {}
MatrixGeometry::~MatrixGeometry() = default;

std::unique_ptr<Geometry> MatrixGeometry::clone() const { return std::make_unique<MatrixGeometry>(*this); }
std::string MatrixGeometry::kind() const { return "matrix"; }

RegionBasedGeometry::RegionBasedGeometry() = default;
RegionBasedGeometry::RegionBasedGeometry(const Utils::SurfaceQuad& region, Utils::TriangleList mesh)
    : region_(region), mesh_(std::move(mesh)) {}

// The mesh is copied deeply: a module owns its geometry exclusively.
RegionBasedGeometry::RegionBasedGeometry(const RegionBasedGeometry& other)
    : Geometry(other), region_(other.region_),
      mesh_{std::make_shared<std::vector<Utils::Triangle>>(other.mesh_.triangles ? *other.mesh_.triangles
                                                                                 : std::vector<Utils::Triangle>{})} {}

RegionBasedGeometry& RegionBasedGeometry::operator=(const RegionBasedGeometry& other) {
  if (this != &other) {
    RegionBasedGeometry copy(other);
    Geometry::operator=(copy);
    region_ = copy.region_;
    mesh_ = std::move(copy.mesh_);
  }
  return *this;
}

RegionBasedGeometry::~RegionBasedGeometry() = default;

std::unique_ptr<Geometry> RegionBasedGeometry::clone() const { return std::make_unique<RegionBasedGeometry>(*this); }
std::string RegionBasedGeometry::kind() const { return "region"; }

}  // namespace OrbivaneGeometry
