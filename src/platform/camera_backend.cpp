// The backend registry and the simulated camera's backend (sensor windows,
// pictures, and the recordings of a camera opened on a recordings index).
#include "orbivane/platform/camera_backend.h"

#include <map>
#include <mutex>

#include "orbivane/platform/simulated_camera.h"

namespace Quarn {

CameraBackend::~CameraBackend() = default;

Utils::ReturnState<std::vector<SearchInfo>, std::string> CameraBackend::search(const SearchCriteria&) {
  return Utils::failure("searching recordings is not supported by this backend (" + name() + ")");
}

Utils::ReturnState<EmptyReturn, std::string> CameraBackend::showTrack(const SearchInfo&) {
  return Utils::failure("showing recorded tracks is not supported by this backend (" + name() + ")");
}

namespace {

// Reaches one module of a SimulatedCamera.
class SimulatedBackend : public CameraBackend {
 public:
  Utils::ReturnState<bool, std::string> connect(const QuarnConnection& connection) override {
    auto camera = SimulatedCamera::open(connection.address);
    if (!camera) return Utils::failure(camera.error());
    auto connected = camera.value()->connect(connection.device);
    if (!connected) return connected;
    camera_ = camera.value();
    device_ = connection.device;
    return true;
  }
  Utils::ReturnState<CamerasensorInfoData, std::string> readSensorWindow() override {
    if (!camera_) return Utils::failure(notConnected());
    return camera_->sensorInfo(device_);
  }
  Utils::ReturnState<EmptyReturn, std::string> writeSensorWindow(int x, int y) override {
    if (!camera_) return Utils::failure(notConnected());
    return camera_->moveWindow(device_, x, y);
  }
  Utils::ReturnState<cv::Mat, std::string> capture() override {
    if (!camera_) return Utils::failure(notConnected());
    return camera_->capture(device_);
  }
  // A camera opened on a recordings index serves its recordings; other
  // simulated cameras say that searching is not supported.
  Utils::ReturnState<std::vector<SearchInfo>, std::string> search(const SearchCriteria& criteria) override {
    if (!camera_) return Utils::failure(notConnected());
    if (!criteria.device.empty() && criteria.device != device_) {
      return Utils::failure("this session reaches module '" + device_ + "', not '" + criteria.device + "'");
    }
    return camera_->search(device_, criteria);
  }
  Utils::ReturnState<EmptyReturn, std::string> showTrack(const SearchInfo& track) override {
    if (!camera_) return Utils::failure(notConnected());
    return camera_->showTrack(device_, track);
  }
  std::string name() const override { return "simulated"; }

 private:
  static std::string notConnected() { return "the simulated camera is not connected"; }
  std::shared_ptr<SimulatedCamera> camera_;
  std::string device_;
};

struct Registry {
  std::mutex mutex;
  std::map<std::string, CameraBackendFactory> factories{
      {"simulated", [] { return std::unique_ptr<CameraBackend>(new SimulatedBackend()); }}};
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
