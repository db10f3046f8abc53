// The backend registry, the recordings backend (recorded video of a
// recordings index) and the simulated camera's backend (sensor windows).
#include "orbivane/platform/camera_backend.h"

#include <map>
#include <mutex>

#include "orbivane/platform/recording_player.h"
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

// Reaches one module of a recordings index: its recordings, no sensor window.
class RecordingsBackend : public CameraBackend {
 public:
  explicit RecordingsBackend(std::string name = "recordings") : name_(std::move(name)) {}
  Utils::ReturnState<bool, std::string> connect(const QuarnConnection& connection) override {
    auto player = RecordingPlayer::open(connection.address);
    if (!player) return Utils::failure(player.error());
    auto known = player.value()->connect(connection.device);
    if (!known) return known;
    player_ = player.value();
    device_ = connection.device;
    return true;
  }
  Utils::ReturnState<CamerasensorInfoData, std::string> readSensorWindow() override {
    if (!player_) return Utils::failure(notConnected());
    return Utils::failure(RecordingPlayer::noSensorWindow(device_));
  }
  Utils::ReturnState<EmptyReturn, std::string> writeSensorWindow(int, int) override {
    if (!player_) return Utils::failure(notConnected());
    return Utils::failure(RecordingPlayer::noSensorWindow(device_));
  }
  Utils::ReturnState<cv::Mat, std::string> capture() override {
    if (!player_) return Utils::failure(notConnected());
    return player_->capture(device_);
  }
  Utils::ReturnState<std::vector<SearchInfo>, std::string> search(const SearchCriteria& criteria) override {
    if (!player_) return Utils::failure(notConnected());
    if (!criteria.device.empty() && criteria.device != device_) {
      return Utils::failure("this session reaches module '" + device_ + "', not '" + criteria.device + "'");
    }
    return player_->search(device_, criteria);
  }
  Utils::ReturnState<EmptyReturn, std::string> showTrack(const SearchInfo& track) override {
    if (!player_) return Utils::failure(notConnected());
    return player_->showTrack(device_, track);
  }
  std::string name() const override { return name_; }

 private:
  static std::string notConnected() { return "the recordings are not connected"; }
  std::string name_;
  std::shared_ptr<RecordingPlayer> player_;
  std::string device_;
};

// Reaches one module of a SimulatedCamera. A connection of this backend whose
// address is a recordings index (written before the recordings backend
// existed) is played by the recordings backend.
class SimulatedBackend : public CameraBackend {
 public:
  Utils::ReturnState<bool, std::string> connect(const QuarnConnection& connection) override {
    if (isRecordingsIndexFile(connection.address)) {
      recordings_ = std::make_unique<RecordingsBackend>("simulated");
      return recordings_->connect(connection);
    }
    recordings_.reset();
    auto camera = SimulatedCamera::open(connection.address);
    if (!camera) return Utils::failure(camera.error());
    auto connected = camera.value()->connect(connection.device);
    if (!connected) return connected;
    camera_ = camera.value();
    device_ = connection.device;
    return true;
  }
  Utils::ReturnState<CamerasensorInfoData, std::string> readSensorWindow() override {
    if (recordings_) return recordings_->readSensorWindow();
    if (!camera_) return Utils::failure(notConnected());
    return camera_->sensorInfo(device_);
  }
  Utils::ReturnState<EmptyReturn, std::string> writeSensorWindow(int x, int y) override {
    if (recordings_) return recordings_->writeSensorWindow(x, y);
    if (!camera_) return Utils::failure(notConnected());
    return camera_->moveWindow(device_, x, y);
  }
  Utils::ReturnState<cv::Mat, std::string> capture() override {
    if (recordings_) return recordings_->capture();
    if (!camera_) return Utils::failure(notConnected());
    return camera_->capture(device_);
  }
  Utils::ReturnState<std::vector<SearchInfo>, std::string> search(const SearchCriteria& criteria) override {
    if (recordings_) return recordings_->search(criteria);
    if (!camera_) return Utils::failure(notConnected());
    return Utils::failure("searching recordings is not supported by this backend (the simulated camera " +
                          camera_->address() + " keeps no recordings)");
  }
  Utils::ReturnState<EmptyReturn, std::string> showTrack(const SearchInfo& track) override {
    if (recordings_) return recordings_->showTrack(track);
    if (!camera_) return Utils::failure(notConnected());
    return Utils::failure("showing recorded tracks is not supported by this backend (the simulated camera " +
                          camera_->address() + " keeps no recordings)");
  }
  std::string name() const override { return "simulated"; }

 private:
  static std::string notConnected() { return "the simulated camera is not connected"; }
  std::shared_ptr<SimulatedCamera> camera_;
  std::unique_ptr<RecordingsBackend> recordings_;
  std::string device_;
};

struct Registry {
  std::mutex mutex;
  std::map<std::string, CameraBackendFactory> factories{
      {"recordings", [] { return std::unique_ptr<CameraBackend>(new RecordingsBackend()); }},
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
