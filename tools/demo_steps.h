// The demo's calibration steps: each runs one calibrator on the virtual
// camera (or the simulated camera) with a progress bar, measures its result
// against the known truth and describes it as a report section.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "demo_report.h"
#include "demo_scene.h"

namespace Tool {
namespace Demo {

struct StepContext {
  const Scene& scene;
  const CameraDescription::Orbivane& truth;  // the camera with its true matrices
  std::string dir;                           // output folder
  std::string data;                          // opencv-doc sample folder
  bool quick = false;
};

struct MatchOutcome {
  Section section;
  CameraDescription::Orbivane camera;  // the calibrated camera
};

MatchOutcome runTargetMatching(const StepContext& context);
MatchOutcome runNeighbourStitching(const StepContext& context, const CameraDescription::Orbivane& matched);
Section runClipping(const StepContext& context, const CameraDescription::Orbivane& calibrated);
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
