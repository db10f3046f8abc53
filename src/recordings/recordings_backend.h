// The "recordings" backend: one module of a recordings index, played from
// its recorded video. It has no sensor window. The simulated camera's backend
// plays an index named in one of its connections through it.
#pragma once

#include <memory>
#include <string>

#include "orbivane/recordings/recording_player.h"
#include "orbivane/session/camera_backend.h"

namespace Quarn {

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

}  // namespace Quarn
