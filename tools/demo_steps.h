// The demo's calibration steps: each runs one calibrator on the virtual
// camera (or the simulated camera) with a progress bar, measures its result
// against the known truth and describes it as a report section.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "demo_report.h"
#include "synthetic/rig.h"

namespace Tool {
namespace Demo {

struct StepContext {
  const Synthetic::Rig& scene;
  const CameraDescription::Orbivane& truth;  // the camera with its true matrices
  std::string dir;                           // output folder
  std::string data;                          // opencv-doc sample folder
  bool quick = false;
};

struct GeometryOutcome {
  std::vector<Section> sections;        // target matching, neighbour stitching, clipping
  CameraDescription::Orbivane stitched; // after neighbour stitching (unclipped)
  CameraDescription::Orbivane camera;   // the calibrated camera, clipped
};

// The geometry calibration as the calibrate command runs it: the pipeline's
// match, neighbour and clip steps on one camera, measured against the truth
// after every step.
GeometryOutcome runGeometryPipeline(const StepContext& context);
Section runShaderSearch(const StepContext& context);
Section runBlurScores(const StepContext& context);
Section runFisheyeCentring(const StepContext& context);
Section runResolution(const StepContext& context);
Section runFrameFinding(const StepContext& context);

// Shared helpers.
std::string number(double value, int decimals);
void writePicture(const cv::Mat& picture, const std::string& path);

class Stopwatch {
 public:
  double seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count(); }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace Demo
}  // namespace Tool
