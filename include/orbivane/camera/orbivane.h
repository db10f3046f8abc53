// A multi-sensor panoramic camera: its modules in the camera's own order.
// Copying a camera copies every module (so a copy's modules can be changed
// without touching the source's) and re-points each module's neighbour
// reference that leads into the source camera at the copy's module in the
// same place; a neighbour outside the camera stays as it was.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "orbivane/camera/orbivane_module.h"
#include "orbivane/export.h"
#include "orbivane/utils/size.h"

namespace CameraDescription {

class ORBIVANE_EXPORT Orbivane {
 public:
  Orbivane();
  Orbivane(const Orbivane& other);
  Orbivane& operator=(const Orbivane& other);
  Orbivane(Orbivane&& other) noexcept;
  Orbivane& operator=(Orbivane&& other) noexcept;
  ~Orbivane();

  const std::wstring& name() const { return name_; }
  void setName(std::wstring name) { name_ = std::move(name); }

  // Size of the stitched panorama in pixels; empty when not set.
  const Utils::Size& panoramaSize() const { return panoramaSize_; }
  void setPanoramaSize(const Utils::Size& size) { panoramaSize_ = size; }

  const std::vector<std::shared_ptr<OrbivaneModule>>& modules() const { return modules_; }
  std::vector<std::shared_ptr<OrbivaneModule>>& modules() { return modules_; }
  // Appends a copy of the module and returns it.
  std::shared_ptr<OrbivaneModule> addModule(const OrbivaneModule& module);

  // The first module of that name in camera order (exact, case-sensitive), or null.
  std::shared_ptr<const OrbivaneModule> findModule(const std::wstring& name) const;
  std::shared_ptr<OrbivaneModule> findModule(const std::wstring& name);

 private:
  std::wstring name_;
  Utils::Size panoramaSize_;
  std::vector<std::shared_ptr<OrbivaneModule>> modules_;
};

// The module lookup the calibrators build on: walks the modules from first to
// last and returns the first whose name equals `name`, or an empty pointer.
ORBIVANE_EXPORT std::shared_ptr<const OrbivaneModule> findModule(const Orbivane& camera, const std::wstring& name);

}  // namespace CameraDescription
