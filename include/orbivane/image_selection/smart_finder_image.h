// Finding calibration pictures in recordings: for each module, the moments
// of its recordings when the picture shows no person, is sharp and well
// exposed. A person walking through an overlap spoils the alignment of two
// modules, so calibrations want pictures of the empty, still scene.
//
// Use: construct with the camera (modules with connections to recordings,
// e.g. backend "simulated" with address = a recordings index, see
// orbivane/recordings/recordings_index.h), set the options, register a status
// callback, call find(), then read results() or cameraWithPictures().
//
// How a module is searched:
//  1. Its recordings overlapping the time window are found through the
//     session (Search); the window defaults to all of them.
//  2. Sample times: every `stepSeconds` from the window's start, or
//     `samples` times evenly spread over it (the middle of equal parts),
//     keeping only times some recording covers.
//  3. Each sampled frame (raw, RecordingImageSource with the geometry grid
//     ignored) gets: the persons the detector finds, the blur score
//     (BlurDetection::estimateBlur, the variance of the Laplacian; larger is
//     sharper) and the exposure (mean grey level and clipped share, see
//     SmartFinderFrame::exposure).
//     Motion: the frame is compared with the frame `motionGapSeconds` later
//     (earlier at the end of a recording): the share of pixels whose grey
//     level changed by more than 35, both reduced by 4 with area averaging
//     (noise, compression and a change of focus average out), after the
//     later frame is brought to the same mean grey level. Something
//     moving that the detector missed (a small or partly hidden walker, a
//     car) shows there; a still scene gives 0.
//  4. Foreground: the empty scene is learnt from the recording itself, as the
//     temporal median of `backgroundFrames` frames spread over the window
//     (the samples; when there are fewer samples, further frames between
//     them are read for the model only), on colour copies reduced by
//     smallestPersonHeight / 30 and with every frame's exposure matched to
//     the model's (see image_selection/background_model.h in the sources).
//     Each sample's foreground is the share of its pixels that differ from
//     the model beyond the frame's noise level, and its largest blob of such
//     pixels. Someone who stands still for a while (and is missed by the
//     detector and the motion check) differs from the empty scene; a parked
//     car that never moves does not. Where the detector finds someone in at
//     least half of the samples (people who stay there most of the window,
//     so the median shows them), the foreground does not count: a frame
//     without them differs there, and that place is left to the detector.
//  5. A frame is free when the detector finds nobody, its motion is at most
//     `maxMotion`, at most `maxForeground` of its pixels are foreground and
//     no foreground blob is as large as a person `smallestPersonHeight`
//     pixels tall (0.08 x height^2 pixels, 0.4 x height high; a
//     person-sized blob counts even when no detector fires). With fewer than 3 frames for a model the
//     foreground is not measured and does not count. Among free frames, the score
//        blurWeight x blur / (largest blur of the module's samples)
//      + exposureWeight x exposure
//     picks the best `momentsPerModule` frames, at least `minimumSpacingSeconds`
//     apart.
//  6. When no sampled frame is free, a clean background is built: the
//     per-pixel temporal median of up to `backgroundFrames` of the frames
//     read, evenly spread and read again at full size (people that move are
//     outvoted by the background behind them); the result says so
//     (builtBackground) and the log line "Module {} has no frame without
//     persons; built a background from {} frames" is written.
//
// Progress: one step per sampled frame, text "Sampling Module NAME at TIME".
// abort() may be called from any thread: the run stops before the next
// frame and returns what it has (modules done keep their moments; the
// module being searched picks among the frames sampled so far).
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core/types.hpp>

#include "orbivane/camera/orbivane.h"
#include "orbivane/export.h"
#include "orbivane/geometry_calibration/status_callback.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/image_selection/person_detector.h"
#include "orbivane/utils/optional.h"
#include "orbivane/utils/return_state.h"

namespace OrbivaneCalibration {

struct ORBIVANE_EXPORT SmartFinderOptions {
  // Time window, milliseconds since the Unix epoch; absent: the start of the
  // module's first recording / the end of its last one.
  Utils::Optional<std::int64_t> fromMs;
  Utils::Optional<std::int64_t> toMs;
  // Seconds between samples (> 0), or 0 to take `samples` evenly spread times.
  double stepSeconds = 0.0;
  int samples = 24;  // 1 to 10000
  PersonDetectorOptions detector;
  // Weights of the sharpness and exposure terms of the score (>= 0, not both 0).
  double blurWeight = 1.0;
  double exposureWeight = 1.0;
  int momentsPerModule = 1;           // 1 to 100
  double minimumSpacingSeconds = 0.0; // between moments of one module
  // Frames the background model, and a clean background when no frame is
  // free, are built from (3 to 200).
  int backgroundFrames = 25;
  // Seconds between a frame and the one it is compared with for motion (> 0;
  // at least one frame is skipped), and the largest share of moving pixels
  // of a still frame (0..1; 1 accepts any motion).
  double motionGapSeconds = 0.3;
  double maxMotion = 0.002;
  // Foreground against the background model (see the file comment): the
  // largest share of a free frame's pixels that may differ from the empty
  // scene (0..1), and the height of the smallest person a foreground blob
  // stands for (pixels of the module's picture, 8 to 2000; a larger
  // detector.minPersonHeight takes its place).
  double maxForeground = 0.02;
  int smallestPersonHeight = 60;

  // An error naming the first bad value, or true.
  Utils::ReturnState<bool, std::string> validate() const;
};

// One chosen moment of a module.
struct ORBIVANE_EXPORT SmartFinderFrame {
  std::wstring module;
  std::int64_t timeMs = 0;         // start of the chosen frame (ms since the epoch); for a built
                                   // background the middle of the frames it was built from
  std::string track;               // the recording (video file)
  int frame = -1;                  // frame index in the recording (-1 for a built background)
  int persons = 0;                 // persons the detector found in the picture
  std::vector<cv::Rect> personBoxes;
  double blur = 0.0;               // variance of the Laplacian (larger is sharper)
  double brightness = 0.0;         // mean grey level, 0..255
  double clipped = 0.0;            // share of pixels at or below 5 or at or above 250
  double exposure = 0.0;           // 0..1: 1 - |brightness - 128| / 128 - 2 x clipped, at least 0
  double motion = 0.0;             // share of moving pixels (0..1), see the file comment
  bool foregroundMeasured = false; // compared with the background model (false: too few frames for one)
  double foreground = 0.0;         // share of pixels that differ from the empty scene (0..1)
  double foregroundBlob = 0.0;     // area of the largest blob of such pixels, pixels of the picture
  cv::Rect foregroundBox;          // that blob's bounding box, pixels of the picture
  int foregroundPersons = 0;       // foreground blobs at least as large as the smallest person
  double noiseLevel = 0.0;         // levels beyond which a pixel is foreground (reduced picture, largest channel)
  bool isFree = false;             // no person detected, still, and foreground at the noise level
  double score = 0.0;              // the picking score (see the file comment)
  bool builtBackground = false;    // the picture is a clean background built from several frames
  int framesUsed = 1;              // frames behind the picture
  std::shared_ptr<Image::UniversalImageInterface> picture;  // BGR, 8 bits
};


class ORBIVANE_EXPORT SmartFinderImage {
 public:
  // Copies the camera.
  explicit SmartFinderImage(const CameraDescription::Orbivane& camera);
  virtual ~SmartFinderImage();
  SmartFinderImage(const SmartFinderImage&) = delete;
  SmartFinderImage& operator=(const SmartFinderImage&) = delete;

  void setOptions(const SmartFinderOptions& options);
  SmartFinderOptions options() const;

  void registerStatusCallback(GeometryCalibration::StatusCallback callback);
  // May be called from another thread; see the file comment.
  void abort();
  bool aborted() const;

  // Searches the listed modules (empty: every module with a connection) and
  // returns the chosen moments per module, best first. Fails for bad options,
  // an unknown module or when the person detector cannot be made; a module
  // whose recordings cannot be searched or read is left out and its error is
  // kept (errors()).
  Utils::ReturnState<std::map<std::wstring, std::vector<SmartFinderFrame>>, std::string> find(
      std::list<std::wstring> modules = {});

  // The results of the last find().
  std::map<std::wstring, std::vector<SmartFinderFrame>> results() const;
  // Per module, why it has no result.
  std::map<std::wstring, std::string> errors() const;
  // Every sampled frame of the last run (without pictures), for reports.
  std::map<std::wstring, std::vector<SmartFinderFrame>> samples() const;
  // The detector's description (after find()).
  std::string detectorDescription() const;

  // The best picture of each module that has one.
  std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images() const;
  // A copy of the camera whose modules carry their best pictures (image path
  // cleared); modules without a result keep theirs.
  CameraDescription::Orbivane cameraWithPictures() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace OrbivaneCalibration
