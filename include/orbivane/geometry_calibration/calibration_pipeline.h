// The whole geometry calibration of one camera, step after step, each step
// on the previous step's result:
//   "match"     target matching (MatchToTarget, mode 0 by default) of the
//               listed modules to the target module's picture;
//   "neighbour" neighbour stitching (NeighbourNeighbour) along the listed
//               modules in their order, anchored on the reference module
//               (default: the middle one);
//   "clip"      automatic clipping (AutoClipping, geometry mode) of what
//               the listed modules still in the running cover; the
//               rectangle is applied to the whole camera
//               (AutoClipping::applyClipping: the crop is composed into
//               every module's matrix and the panorama size becomes the
//               rectangle's), so the result draws the clipped panorama;
//   "shader"    the shader parameter search (ShaderBruteForcer) of every
//               listed module that has a lens shader, against the target's
//               picture; the best parameter set is kept.
// A module that fails a step keeps its matrix and is left out of the later
// steps (reported "skipped" there); the other modules go on. The pipeline
// measures the seams between overlapping modules itself (measureSeams),
// independently of the calibrators: before the first step and after each
// step that moves modules. A step that leaves the seams worse than it found
// them is undone (its modules are reported "kept" with the reason), so no
// step makes a camera worse.
//
// Units: seam residuals are in pixels of the first module's picture; times
// in seconds.
#pragma once

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "orbivane/camera/orbivane.h"
#include "orbivane/export.h"
#include "orbivane/geometry_calibration/calibration_report.h"
#include "orbivane/geometry_calibration/calibrator_options.h"
#include "orbivane/geometry_calibration/status_callback.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/utils/matrix4x4.h"
#include "orbivane/utils/return_state.h"

namespace GeometryCalibration {
namespace MatrixBased {
class MatchToTarget;
}

struct ORBIVANE_EXPORT PipelineOptions {
  std::wstring target;              // the module whose picture the others are matched to ("match", "shader")
  std::list<std::wstring> modules;  // empty: every module of the camera except the target, in camera order
  std::vector<std::string> steps = {"match", "neighbour", "clip"};
  std::wstring reference;           // neighbour stitching's anchor; empty: the middle module of the chain
  // Each step's settings, as the calibrator's own record: the match step's
  // mode, rounds and scale (a grid of gridColumns x gridRows is refined for
  // every module in mode 0), neighbour stitching's pyramid, and the clip's
  // geometry mode. The clip step takes the largest rectangle without any
  // badly covered element by default (noHoles): the camera it writes goes
  // to a viewer, which would show holes as black.
  MatchOptions match;
  NeighbourOptions neighbour;
  ClippingOptions clip = withoutHoles();

  // True when the options can be used; otherwise what is wrong, one line
  // (each record's own check, and the clip in geometry mode).
  Utils::ReturnState<bool, std::string> validate() const;

 private:
  static ClippingOptions withoutHoles() {
    ClippingOptions o;
    o.noHoles = true;
    return o;
  }
};

// One pair of overlapping modules' seam, measured on the panorama as a
// viewer shows it: both modules drawn alone over their overlap (matrix, UV
// grid, lens shader, gain), features matched between the two drawings, and
// the distances between the matched positions (seam_measurement.h).
struct SeamResidual {
  std::wstring first, second;
  bool measured = false;
  std::string reason;            // why not measured
  int matches = 0;               // feature matches the distances come from
  double px = 0.0;               // median distance, pixels of the first module's picture
  double p90Px = 0.0;            // 90th percentile of the distances
  double dx = 0.0, dy = 0.0;     // shift of the second module against the first (median of each axis over the matches), pixels
  double exposureEv = 0.0;       // brightness difference over the overlap, |log2| of the ratio
  int overlapPixels = 0;
  std::vector<float> distances;  // every matched distance, pixels
};

// All the measured seams' distances together: their median and 90th
// percentile (pixels), the worst pair's median, the largest exposure
// difference, and how many pairs were and were not measured.
struct SeamSummary {
  double medianPx = 0.0, p90Px = 0.0, worstPx = 0.0, worstExposureEv = 0.0;
  int measured = 0, notMeasured = 0, matches = 0;
};
ORBIVANE_EXPORT SeamSummary summariseSeams(const std::vector<SeamResidual>& seams);

struct StepReport {
  std::string step;
  double seconds = 0.0;
  // Per listed module: what the step did with it. For "neighbour" a module is
  // aligned when the pair that ends in it was measured (the chain's first
  // module is aligned when the chain ran).
  std::map<std::wstring, ModuleReport> modules;
  std::list<PairReport> pairs;   // "neighbour" only
  std::vector<float> clipping;   // "clip" only: left, top, right, bottom (surface units)
  cv::Mat clippingPicture;       // "clip" only: AutoClipping's inspection picture (BGR)
  Utils::Matrix4x4 clippingCrop; // "clip" only: the crop composed into every module's matrix
  std::vector<SeamResidual> seams;  // measured after the step
  std::string undone;               // why the step was undone (it left the seams worse); empty when it stood
  CameraDescription::Orbivane camera;  // the camera after the step
};

class ORBIVANE_EXPORT CalibrationPipeline {
 public:
  using Images = std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>>;

  CalibrationPipeline(const CameraDescription::Orbivane& camera, Images images);

  // Progress of the whole run on one total: each step has an equal share
  // of it (the number of listed modules), into which the running
  // calibrator's own progress is scaled, with its text prefixed by the
  // step's name ("target matching: ", "neighbour stitching: ", "clipping: ",
  // "shader search: "); each completed step ends its share with "<name>:
  // Finished" and the camera as it stands, so a run whose steps all
  // complete ends at step == total.
  void registerStatusCallback(StatusCallback callback);
  // From another thread: the running step stops at its next module and the
  // pipeline returns what it has.
  void abort();
  bool aborted() const { return abort_.load(); }

  // Runs the steps; throws std::invalid_argument when the options are not
  // valid (validate()). Returns the calibrated camera.
  CameraDescription::Orbivane run(const PipelineOptions& options);

  // The seams measured on the camera as given, before any step.
  const std::vector<SeamResidual>& seamsBefore() const { return seamsBefore_; }
  const std::vector<StepReport>& steps() const { return steps_; }
  // Each listed module's verdict over all steps: the first step that did not
  // align it decides; aligned when every step did. Neighbour stitching fails
  // a module that no measured seam ties to another (and that target
  // matching did not place). After an interrupted run
  // (abort()) every module that did not fail is "aborted".
  std::map<std::wstring, ModuleReport> verdicts() const;
  // The modules the last run() calibrated, each once, in order.
  const std::list<std::wstring>& listedModules() const { return listed_; }

  // Measures the seam of every pair of the listed modules that overlap on
  // the panorama (of the camera's panorama size, else one the coverage
  // raster would take), in the order the modules are listed.
  static std::vector<SeamResidual> measureSeams(const CameraDescription::Orbivane& camera, const Images& images,
                                                const std::list<std::wstring>& modules);

 private:
  // The modules a run calibrates (options.modules, or every module but the
  // target), each once, into listed_.
  void listModules(const PipelineOptions& options);

  CameraDescription::Orbivane camera_;
  Images images_;
  StatusCallback callback_;
  std::atomic<bool> abort_{false};
  std::vector<SeamResidual> seamsBefore_;
  std::vector<StepReport> steps_;
  std::list<std::wstring> listed_;
  std::atomic<MatrixBased::MatchToTarget*> runningMatch_{nullptr};
};

}  // namespace GeometryCalibration
