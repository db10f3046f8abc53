// The "simulated" backend: one module of a SimulatedCamera (sensor windows,
// latency and faults), registered when the library is loaded.
#include <memory>
#include <string>

#include "orbivane/recordings/recordings_index.h"
#include "orbivane/session/camera_backend.h"
#include "orbivane/simulated/simulated_camera.h"
#include "recordings/recordings_backend.h"

namespace Quarn {
namespace {

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

const bool registered = [] {
  registerCameraBackend("simulated", [] { return std::unique_ptr<CameraBackend>(new SimulatedBackend()); });
  return true;
}();

}  // namespace
}  // namespace Quarn
