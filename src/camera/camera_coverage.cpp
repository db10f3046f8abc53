// What the coverage reads of each module: matrix geometry, shaders and
// picture size.
#include "camera/camera_coverage.h"

namespace CameraDescription {

std::vector<OrbivaneGeometry::Coverage::Footprint> cameraFootprints(const Orbivane& camera,
                                                                     std::vector<std::string>& skipped) {
  std::vector<OrbivaneGeometry::Coverage::ModuleGeometry> modules;
  for (const auto& module : camera.modules()) {
    if (!module) continue;
    OrbivaneGeometry::Coverage::ModuleGeometry m;
    m.name = module->name();
    m.geometry = module->matrixGeometry();
    m.shaders = &module->shaders();
    if (module->image() && !module->image()->empty()) {
      m.picture = cv::Size(module->image()->width(), module->image()->height());
    }
    modules.push_back(std::move(m));
  }
  return OrbivaneGeometry::Coverage::collectFootprints(modules, skipped);
}

}  // namespace CameraDescription
