// The backend registry. Backends register themselves when the library is
// loaded: "recordings" (recordings/recordings_backend.cpp) and "simulated"
// (simulated/simulated_backend.cpp).
#include "orbivane/session/camera_backend.h"

#include <map>
#include <mutex>


namespace Quarn {

CameraBackend::~CameraBackend() = default;

Utils::ReturnState<std::vector<SearchInfo>, std::string> CameraBackend::search(const SearchCriteria&) {
  return Utils::failure("searching recordings is not supported by this backend (" + name() + ")");
}

Utils::ReturnState<EmptyReturn, std::string> CameraBackend::showTrack(const SearchInfo&) {
  return Utils::failure("showing recorded tracks is not supported by this backend (" + name() + ")");
}

namespace {

struct Registry {
  std::mutex mutex;
  std::map<std::string, CameraBackendFactory> factories;
};

Registry& registry() {
  static Registry r;
  return r;
}

}  // namespace

void registerCameraBackend(const std::string& name, CameraBackendFactory factory) {
  std::lock_guard<std::mutex> lock(registry().mutex);
  registry().factories[name] = std::move(factory);
}

std::vector<std::string> cameraBackendNames() {
  std::lock_guard<std::mutex> lock(registry().mutex);
  std::vector<std::string> names;
  for (const auto& entry : registry().factories) names.push_back(entry.first);
  return names;
}

Utils::ReturnState<std::shared_ptr<CameraBackend>, std::string> createCameraBackend(const std::string& name) {
  CameraBackendFactory factory;
  {
    std::lock_guard<std::mutex> lock(registry().mutex);
    auto it = registry().factories.find(name);
    if (it != registry().factories.end()) factory = it->second;
  }
  if (!factory) {
    std::string known;
    for (const auto& n : cameraBackendNames()) known += (known.empty() ? "" : ", ") + n;
    return Utils::failure("no camera backend '" + name + "' in this build (known: " + known + ")");
  }
  std::shared_ptr<CameraBackend> backend = factory();
  if (!backend) return Utils::failure("the camera backend '" + name + "' could not be created");
  return backend;
}

}  // namespace Quarn
