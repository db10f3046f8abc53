// A geometry given by the region the module covers on the surface and a
// triangle mesh that maps the picture into it. The calibrators do not change
// such modules; they skip them.
#pragma once

#include "orbivane/export.h"
#include "orbivane/geometry/geometry.h"
#include "orbivane/utils/surface_quad.h"
#include "orbivane/utils/triangle_list.h"

namespace OrbivaneGeometry {

class ORBIVANE_EXPORT RegionBasedGeometry : public Geometry {
 public:
  RegionBasedGeometry();
  RegionBasedGeometry(const Utils::SurfaceQuad& region, Utils::TriangleList mesh);
  RegionBasedGeometry(const RegionBasedGeometry& other);
  RegionBasedGeometry& operator=(const RegionBasedGeometry& other);
  ~RegionBasedGeometry() override;

  std::unique_ptr<Geometry> clone() const override;
  std::string kind() const override;

  const Utils::SurfaceQuad& region() const { return region_; }
  void setRegion(const Utils::SurfaceQuad& region) { region_ = region; }
  const Utils::TriangleList& mesh() const { return mesh_; }
  void setMesh(Utils::TriangleList mesh) { mesh_ = std::move(mesh); }

 private:
  Utils::SurfaceQuad region_;
  Utils::TriangleList mesh_;
};

}  // namespace OrbivaneGeometry
