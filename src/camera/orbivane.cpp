// Camera copies and module lookup.
#include "orbivane/camera/orbivane.h"

namespace CameraDescription {

Orbivane::Orbivane() = default;

Orbivane::Orbivane(const Orbivane& other) { *this = other; }

Orbivane& Orbivane::operator=(const Orbivane& other) {
  if (this == &other) return *this;
  name_ = other.name_;
  panoramaSize_ = other.panoramaSize_;
  modules_.clear();
  modules_.reserve(other.modules_.size());
  for (const auto& module : other.modules_) {
    modules_.push_back(module ? std::make_shared<OrbivaneModule>(*module) : nullptr);
  }
  // Second pass: a neighbour reference into the source camera is re-pointed at
  // the copy's module in the same place, so the copy never refers back into
  // the source. References to modules outside the camera stay as copied.
  for (std::size_t i = 0; i < other.modules_.size(); ++i) {
    if (!other.modules_[i] || !modules_[i]) continue;
    const auto neighbour = other.modules_[i]->neighbour();
    if (!neighbour) continue;
    for (std::size_t k = 0; k < other.modules_.size(); ++k) {
      if (other.modules_[k] == neighbour) {
        modules_[i]->setNeighbour(modules_[k]);
        break;
      }
    }
  }
  return *this;
}

Orbivane::Orbivane(Orbivane&& other) noexcept = default;
Orbivane& Orbivane::operator=(Orbivane&& other) noexcept = default;
Orbivane::~Orbivane() = default;

std::shared_ptr<OrbivaneModule> Orbivane::addModule(const OrbivaneModule& module) {
  modules_.push_back(std::make_shared<OrbivaneModule>(module));
  return modules_.back();
}

std::shared_ptr<const OrbivaneModule> Orbivane::findModule(const std::wstring& name) const {
  return CameraDescription::findModule(*this, name);
}

std::shared_ptr<OrbivaneModule> Orbivane::findModule(const std::wstring& name) {
  for (const auto& module : modules_) {
    if (module && module->name() == name) return module;
  }
  return nullptr;
}

std::shared_ptr<const OrbivaneModule> findModule(const Orbivane& camera, const std::wstring& name) {
  for (const auto& module : camera.modules()) {
    if (module && module->name().size() == name.size() && module->name() == name) return module;
  }
  return nullptr;
}

}  // namespace CameraDescription
