// One sensor module of a panoramic camera: its name (its identity), mounting
// rotation, geometry, shader chain, reference picture, and what reaches its
// recording system. Copies are deep: a copy owns its own geometry and linkage,
// shares the (immutable) picture, and keeps only a weak reference to its
// neighbour module.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "orbivane/camera/orbivane_linkage.h"
#include "orbivane/camera/quarn_connection.h"
#include "orbivane/export.h"
#include "orbivane/geometry/geometry.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/shader.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/utils/optional.h"

namespace CameraDescription {

class ORBIVANE_EXPORT OrbivaneModule {
 public:
  explicit OrbivaneModule(std::wstring name = std::wstring());
  OrbivaneModule(const OrbivaneModule& other);
  OrbivaneModule& operator=(const OrbivaneModule& other);
  OrbivaneModule(OrbivaneModule&& other) noexcept;
  OrbivaneModule& operator=(OrbivaneModule&& other) noexcept;
  ~OrbivaneModule();

  const std::wstring& name() const { return name_; }
  void setName(std::wstring name) { name_ = std::move(name); }

  // Mounting rotation in degrees, clockwise; blur scores and displays undo it.
  std::int32_t rotation() const { return rotation_; }
  void setRotation(std::int32_t degrees) { rotation_ = degrees; }

  // The geometry, or null when the module has none. setGeometry counts the
  // geometry revision up.
  const OrbivaneGeometry::Geometry* geometry() const { return geometry_.geometry.get(); }
  OrbivaneGeometry::Geometry* geometry() { return geometry_.geometry.get(); }
  void setGeometry(std::unique_ptr<OrbivaneGeometry::Geometry> geometry);
  std::uint32_t geometryRevision() const { return geometry_.revision; }
  // The geometry when it is a MatrixGeometry, else null.
  const OrbivaneGeometry::MatrixGeometry* matrixGeometry() const;
  OrbivaneGeometry::MatrixGeometry* matrixGeometry();

  const OrbivaneLinkage* linkage() const { return geometry_.linkage.get(); }
  void setLinkage(std::unique_ptr<OrbivaneLinkage> linkage) { geometry_.linkage = std::move(linkage); }

  const std::list<OrbivaneGeometry::Shader>& shaders() const { return content_.shaders; }
  std::list<OrbivaneGeometry::Shader>& shaders() { return content_.shaders; }
  void setShaders(std::list<OrbivaneGeometry::Shader> shaders) { content_.shaders = std::move(shaders); }

  const std::shared_ptr<Image::UniversalImageInterface>& image() const { return content_.image; }
  void setImage(std::shared_ptr<Image::UniversalImageInterface> image) { content_.image = std::move(image); }
  // The exposure gain a viewer applies to the picture: each colour value
  // (0..255) is multiplied by it before the modules are blended, and the
  // result clipped to 255. 1 leaves the picture as it is.
  double exposureGain() const { return content_.exposureGain; }
  void setExposureGain(double gain) { content_.exposureGain = gain; }
  // The lens's fall-off of brightness towards the picture's corners, as the
  // viewer undoes it: each colour value of picture pixel (x, y) is multiplied
  // by 1 + r2 r^2 + r4 r^4 (and then by the exposure gain), where r is the
  // pixel's distance from the picture's centre over half the picture's
  // diagonal (0 at the centre, 1 in the corners). {0, 0} leaves the picture
  // as it is.
  struct Vignetting {
    double r2 = 0.0, r4 = 0.0;
    bool none() const { return r2 == 0.0 && r4 == 0.0; }
    double factor(double r) const { return 1.0 + r * r * (r2 + r4 * r * r); }
    // The least and largest factor over the picture (r from 0 to 1): a
    // parabola in r^2, so at the centre, a corner or its vertex.
    void factorRange(double& low, double& high) const {
      low = std::min(1.0, factor(1.0));
      high = std::max(1.0, factor(1.0));
      if (r4 != 0.0 && -r2 / (2.0 * r4) > 0.0 && -r2 / (2.0 * r4) < 1.0) {
        const double vertex = factor(std::sqrt(-r2 / (2.0 * r4)));
        low = std::min(low, vertex);
        high = std::max(high, vertex);
      }
    }
  };
  const Vignetting& vignetting() const { return content_.vignetting; }
  void setVignetting(const Vignetting& vignetting) { content_.vignetting = vignetting; }
  // Where the picture came from (a file path, empty if unknown).
  const std::string& imagePath() const { return content_.imagePath; }
  void setImagePath(std::string path) { content_.imagePath = std::move(path); }

  // The module's channel on its recording system.
  std::int32_t channel() const { return channel_; }
  void setChannel(std::int32_t channel) { channel_ = channel; }

  // The next module of the stitching chain; the module does not keep it alive.
  std::shared_ptr<OrbivaneModule> neighbour() const { return neighbour_.lock(); }
  void setNeighbour(const std::shared_ptr<OrbivaneModule>& neighbour) { neighbour_ = neighbour; }
  long neighbourUseCount() const { return neighbour_.use_count(); }

  const Utils::Optional<Quarn::QuarnConnection>& connection() const { return connection_; }
  void setConnection(Utils::Optional<Quarn::QuarnConnection> connection) { connection_ = std::move(connection); }

  // Whether the lens is a fisheye that projects a circle onto the sensor.
  bool fisheye() const { return fisheye_; }
  void setFisheye(bool fisheye) { fisheye_ = fisheye; }

  // The module's own grey threshold for finding its lens circle, if it has one.
  Utils::Optional<std::int16_t> fisheyeThreshold() const;
  void setFisheyeThreshold(Utils::Optional<std::int16_t> threshold);

 private:
  struct GeometryRecord {
    std::uint32_t revision = 0;
    std::unique_ptr<OrbivaneGeometry::Geometry> geometry;
    std::unique_ptr<OrbivaneLinkage> linkage;
  };
  struct Content {
    std::list<OrbivaneGeometry::Shader> shaders;
    std::shared_ptr<Image::UniversalImageInterface> image;
    std::string imagePath;
    double exposureGain = 1.0;
    Vignetting vignetting;
  };

  void copyFrom(const OrbivaneModule& other);

  std::wstring name_;
  std::int32_t rotation_ = 0;
  GeometryRecord geometry_;
  Content content_;
  std::int32_t channel_ = 0;
  std::weak_ptr<OrbivaneModule> neighbour_;
  Utils::Optional<Quarn::QuarnConnection> connection_;
  bool fisheye_ = false;
  std::unique_ptr<std::int16_t> fisheyeThreshold_;
};

}  // namespace CameraDescription
