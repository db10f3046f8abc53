// Playback of recorded video (backend "recordings"): the production path by
// which frame finding and target matching from recordings reach a camera's
// videos, apart from the simulated device.
//
// A player is opened on a recordings index file
// (orbivane/recordings/recordings_index.h); its modules are the index's modules
// (a connection's device names one). search() lists a module's recordings
// that overlap a time range (SearchInfo: device, startMs, endMs exclusive,
// track = the video file as the index resolves it), showTrack() checks such a
// track and makes it the module's current playback, and capture() returns the
// first frame of that track. A module that plays recordings has no sensor
// window. Playback is kept per player (per session).
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "orbivane/export.h"
#include "orbivane/session/quarn_records.h"
#include "orbivane/recordings/recordings_index.h"
#include "orbivane/utils/return_state.h"

namespace Quarn {

class ORBIVANE_EXPORT RecordingPlayer {
 public:
  // The player of an index file; a missing or malformed index is an error.
  static Utils::ReturnState<std::shared_ptr<RecordingPlayer>, std::string> open(const std::string& indexPath);

  explicit RecordingPlayer(RecordingsIndex index);

  // Whether the index has recordings of the module.
  Utils::ReturnState<bool, std::string> connect(const std::string& id) const;
  // The module's recordings overlapping [fromMs, toMs] (toMs <= fromMs: those
  // holding fromMs), by start time. A module without recordings in the range
  // is an empty list; a video that cannot be read is an error.
  Utils::ReturnState<std::vector<SearchInfo>, std::string> search(const std::string& id,
                                                                  const SearchCriteria& criteria) const;
  // Makes a recording of the module its current playback; the track must be
  // one the index lists for that module.
  Utils::ReturnState<EmptyReturn, std::string> showTrack(const std::string& id, const SearchInfo& track);
  // The module's current playback, if one was shown.
  Utils::ReturnState<SearchInfo, std::string> currentTrack(const std::string& id) const;
  // The first frame of the module's current playback (BGR, 8 bits).
  Utils::ReturnState<cv::Mat, std::string> capture(const std::string& id) const;
  // Every recording of the index (resolved), and the modules in order of appearance.
  const std::vector<Recording>& recordings() const { return index_.recordings; }
  std::vector<std::string> moduleIds() const;
  const std::string& indexPath() const { return index_.path; }

  // What a module that plays recordings says when asked for its window.
  static std::string noSensorWindow(const std::string& id);

 private:
  RecordingsIndex index_;
  std::vector<SearchInfo> playback_;  // current track per module (guarded by mutex_)
  mutable std::mutex mutex_;
};

}  // namespace Quarn
