// Module pictures from recordings: for an absolute time, the frame of each
// module's recording that was on screen at that time.
//
// Each module needs a connection whose backend serves recordings (for
// example backend "simulated" with address = a recordings index, device = the
// module's name in it; see orbivane/recordings/recordings_index.h). The source
// finds a module's recording through the session's Search, makes it the
// current playback with ShowTrack, and reads the track's video file itself.
//
// Seeking is exact to the frame: the picture for time t is frame k of the
// recording whose span [start + k / fps, start + (k + 1) / fps) holds t.
// Frames are reached by reading forward when the wanted frame is at most a
// few dozen frames ahead of the decoder; further jumps set the decoder's frame
// position and then check the decoded frame's time stamp, and when the file's
// decoder does not land exactly (seeking inter-frame codecs is not always
// exact) the file is read forward from a known position instead.
//
// Geometry grid: by default (setIgnoreGeometryGrid(false)) each frame is
// drawn through the module's UV grid and lens distortion shader with
// ImageSource::ImageShading, at the frame's own size; the module's placement
// on the panorama (its matrix and clip-matrix shader) is not applied, so the
// picture stays a module picture. With setIgnoreGeometryGrid(true) the raw
// frames are returned, which is what the geometry calibrators take.
//
// One object must not be used from two threads at once.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "orbivane/camera/orbivane_module.h"
#include "orbivane/export.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/session/quarn_records.h"
#include "orbivane/utils/return_state.h"

namespace ImageSource {


class ORBIVANE_EXPORT RecordingImageSource {
 public:
  // Where a module's current picture comes from.
  struct Position {
    Quarn::SearchInfo recording;      // the track and its span
    int frame = -1;                   // frame index in the track
    std::int64_t frameStartMs = 0;    // when that frame starts (ms since the epoch)
  };

  RecordingImageSource();
  ~RecordingImageSource();
  RecordingImageSource(const RecordingImageSource&) = delete;
  RecordingImageSource& operator=(const RecordingImageSource&) = delete;

  // Connects a session for each module (names must be unique and non-empty,
  // each module needs a connection). Replaces an earlier set of modules.
  Utils::ReturnState<bool, std::string> init(std::list<CameraDescription::OrbivaneModule> modules);

  // Moves every module to the absolute time (milliseconds since the Unix
  // epoch). Fails, naming the module, when a module has no recording at that
  // time or its recording cannot be read; modules are then left where they
  // were.
  Utils::ReturnState<bool, std::string> seekToAbsolutePosition(std::int64_t timeMs);

  // See the file comment: false (default) draws through the UV grid and lens
  // shader, true returns raw frames.
  void setIgnoreGeometryGrid(bool ignore);
  bool ignoreGeometryGrid() const;

  // One picture per module (BGR, 8 bits) at the current position. Fails
  // before the first seek, or when a frame cannot be decoded.
  Utils::ReturnState<std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>>, std::string>
  getImages();

  // The module's position after the last seek.
  Utils::ReturnState<Position, std::string> position(const std::wstring& module) const;
  // The module's recordings overlapping [fromMs, toMs], through the session.
  Utils::ReturnState<std::vector<Quarn::SearchInfo>, std::string> recordings(const std::wstring& module,
                                                                             std::int64_t fromMs,
                                                                             std::int64_t toMs) const;
  // The modules given to init, in order.
  std::vector<std::wstring> modules() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ImageSource
