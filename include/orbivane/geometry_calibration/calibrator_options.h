// The settings of each calibrator as one record with validate(), in the
// manner of OrbivaneCalibration::SmartFinderOptions. The calibrators keep the
// constructors and setters their interfaces define and check what they were
// given against these records when a run starts (target matching and
// neighbour stitching in calibrate, automatic clipping in process); hosts
// (the command line, the Python package, PipelineOptions) fill a record and
// validate it before handing the values on, so every range is written once,
// here.
//
// validate() returns true, or an error naming the first bad value, its
// allowed range and what was given.
#pragma once

#include <cstddef>
#include <string>

#include "orbivane/export.h"
#include "orbivane/utils/return_state.h"

namespace GeometryCalibration {

// Neighbour stitching (NeighbourNeighbour's constructor).
struct ORBIVANE_EXPORT NeighbourOptions {
  int levels = 4;       // most pyramid levels of the alignment, 1..30
  int iterations = 6;   // Gauss-Newton steps on each level, 1..1000
  float step = 1.0f;    // factor each update is scaled by, (0, 2]
  Utils::ReturnState<bool, std::string> validate() const;
};

// Target matching (MatchToTarget's setters).
struct ORBIVANE_EXPORT MatchOptions {
  int mode = 0;                      // 0 features, 1 keep, 2 optical flow, 3 iterative
  unsigned long long m2b = 5;        // matching rounds per module in mode 3, 1..100
  unsigned long long m2n = 1;        // runs in a row in mode 3, 1..100
  float allowScale = 0.0f;           // work scale: > 0 fixed (at most 8), < 0 the target's own, 0 from the placement
  // A UV grid per module (mode 0); 0 x 0: none, else 1..mostGridCells_ each.
  // Every cell is estimated on its own: 64 x 64 takes seconds, 128 x 128 ten
  // times as long, and finer cells hold too few pixels to estimate.
  static constexpr int mostGridCells_ = 64;
  int gridColumns = 0, gridRows = 0;
  Utils::ReturnState<bool, std::string> validate() const;
  // "COLSxROWS" into gridColumns and gridRows; an error for other text.
  Utils::ReturnState<bool, std::string> parseGrid(const std::string& text);
};

// Hands `options` (validated) to a target-matching calibrator
// (MatrixBased::MatchToTarget or OrbivaneCalibration::SmartFinderMatchToTarget)
// through its setters, with a grid for each of `modules` when they ask for one.
template <typename Calibrator, typename Modules>
void applyMatchOptions(Calibrator& calibrator, const MatchOptions& options, const Modules& modules) {
  calibrator.setCalibrationMode(static_cast<typename Calibrator::CalibrateMode>(options.mode));
  calibrator.setM2bMaxIteration(options.m2b);
  calibrator.setM2nMaxIteration(options.m2n);
  calibrator.allowScale(options.allowScale);
  if (options.gridColumns > 0) {
    calibrator.setGridEnabled(true);
    for (const auto& name : modules) calibrator.initGrid(options.gridColumns, options.gridRows, name);
  }
}

// Automatic clipping: geometry mode (config(requireOverlap, keepAspect,
// threshold) and setNoHoles) or value mode (config(values, ...)).
struct ORBIVANE_EXPORT ClippingOptions {
  bool valueMode = false;
  // Geometry mode.
  bool requireOverlap = false, keepAspect = false, noHoles = false;
  float threshold = 0.5f;  // coverage an element needs, module units, (0, 1]
  // Value mode.
  float weight = 1.0f;                // what an uncovered element costs, finite, >= 0
  std::size_t maxIterations = 10000;  // iteration limit of the search, >= 1
  Utils::ReturnState<bool, std::string> validate() const;
};

// Fisheye centring.
struct ORBIVANE_EXPORT FisheyeOptions {
  int threshold = 97;  // grey threshold of the lens circle, 0..255
  Utils::ReturnState<bool, std::string> validate() const;
};

// Resolution on a three-mark target.
struct ORBIVANE_EXPORT ResolutionOptions {
  float realX = 0.0f, realY = 0.0f;  // the marks' horizontal and vertical spacing, metres, finite, > 0
  int minBlobArea = 100;             // smallest mark area, pixels, >= 1
  Utils::ReturnState<bool, std::string> validate() const;
};

}  // namespace GeometryCalibration
