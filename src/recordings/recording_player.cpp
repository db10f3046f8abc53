// Playback of recorded video; see recording_player.h.
#include "orbivane/recordings/recording_player.h"

#include <algorithm>

#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "recordings/video_frame_reader.h"

namespace Quarn {

Utils::ReturnState<std::shared_ptr<RecordingPlayer>, std::string> RecordingPlayer::open(const std::string& indexPath) {
  auto index = loadRecordingsIndex(indexPath);
  if (!index) return Utils::failure(index.error());
  return std::make_shared<RecordingPlayer>(std::move(index.value()));
}

RecordingPlayer::RecordingPlayer(RecordingsIndex index) : index_(std::move(index)) {}

std::string RecordingPlayer::noSensorWindow(const std::string& id) {
  return "module '" + id + "' plays recordings and has no sensor window";
}

Utils::ReturnState<bool, std::string> RecordingPlayer::connect(const std::string& id) const {
  for (const auto& r : index_.recordings) {
    if (r.module == id) return true;
  }
  return Utils::failure("the recordings index " + index_.path + " has no recordings of module '" + id + "'");
}

std::vector<std::string> RecordingPlayer::moduleIds() const {
  std::vector<std::string> ids;
  for (const auto& r : index_.recordings) {
    if (std::find(ids.begin(), ids.end(), r.module) == ids.end()) ids.push_back(r.module);
  }
  return ids;
}

Utils::ReturnState<std::vector<SearchInfo>, std::string> RecordingPlayer::search(const std::string& id,
                                                                                 const SearchCriteria& criteria) const {
  auto known = connect(id);
  if (!known) return Utils::failure(known.error());
  const std::int64_t to = std::max(criteria.toMs, criteria.fromMs);
  std::vector<SearchInfo> found;
  for (const auto& r : index_.recordings) {
    if (r.module != id || r.startMs > to) continue;
    auto span = recordingSpan(r);
    if (!span) return Utils::failure(span.error());
    if (span.value().endMs <= criteria.fromMs) continue;
    found.push_back({id, span.value().startMs, span.value().endMs, r.video});
  }
  std::stable_sort(found.begin(), found.end(),
                   [](const SearchInfo& a, const SearchInfo& b) { return a.startMs < b.startMs; });
  return found;
}

Utils::ReturnState<EmptyReturn, std::string> RecordingPlayer::showTrack(const std::string& id,
                                                                        const SearchInfo& track) {
  auto known = connect(id);
  if (!known) return Utils::failure(known.error());
  if (!track.device.empty() && track.device != id) {
    return Utils::failure("the track '" + track.track + "' belongs to module '" + track.device + "', not '" + id + "'");
  }
  for (const auto& r : index_.recordings) {
    if (r.module != id || r.video != track.track) continue;
    auto span = recordingSpan(r);
    if (!span) return Utils::failure(span.error());
    SearchInfo shown{id, span.value().startMs, span.value().endMs, r.video};
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = std::find_if(playback_.begin(), playback_.end(), [&](const SearchInfo& p) { return p.device == id; });
    if (it == playback_.end()) {
      playback_.push_back(shown);
    } else {
      *it = shown;
    }
    return EmptyReturn{};
  }
  return Utils::failure("module '" + id + "' has no recording '" + track.track + "' in " + index_.path);
}

Utils::ReturnState<SearchInfo, std::string> RecordingPlayer::currentTrack(const std::string& id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& p : playback_) {
    if (p.device == id) return p;
  }
  return Utils::failure("module '" + id + "' has no track shown");
}

Utils::ReturnState<cv::Mat, std::string> RecordingPlayer::capture(const std::string& id) const {
  auto track = currentTrack(id);
  if (!track) return Utils::failure(track.error() + "; show one of its recordings first");
  cv::VideoCapture video;
  cv::Mat frame;
  if (!ImageSource::openVideoFile(video, track.value().track) || !video.read(frame) || frame.empty()) {
    return Utils::failure("video '" + track.value().track + "': cannot read its first frame");
  }
  if (frame.channels() == 1) cv::cvtColor(frame, frame, cv::COLOR_GRAY2BGR);
  return frame;
}

}  // namespace Quarn
