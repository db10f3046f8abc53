// The demo's calibration steps, one file each (calibration_pipeline_step.cpp,
// shader_brute_forcer_step.cpp, estimate_blur_step.cpp, fisheye_calibration_step.cpp, resolution_calibration_step.cpp,
// smart_finder_image_step.cpp, real_photos_step.cpp): each runs one calibrator on the synthetic rig (or the
// simulated camera) with a progress bar, measures its result against the
// known truth and describes it as a report section.
#pragma once

#include <chrono>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "demo_report.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/session/quarn_session.h"
#include "orbivane/simulated/simulated_camera.h"
#include "synthetic/connections.h"
#include "synthetic/corner_error.h"
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
// Real photographs (data/durlach) calibrated without a truth, their seams
// measured independently and beside OpenCV's detail pipeline; writes
// panorama-real.png, panorama-real-grid.png and camera-real.json.
Section runRealPhotographs(const StepContext& context);

// Tolerances the demo holds each calibrator to.
constexpr double kAlignmentTolerancePx = 1.0;   // module corners against the truth
constexpr double kClippingTolerancePx = 2.0;    // clipping offsets against those of the true camera
constexpr double kResolutionTolerance = 0.01;   // relative
constexpr double kFisheyeTolerancePx = 1.5;     // circle centre against the window's middle (window step 1)

using ImageMap = std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>>;

// Shared helpers (demo_support.cpp).
std::string number(double value, int decimals);
void writePicture(const cv::Mat& picture, const std::string& path);
// A corner error as "mean / worst" pixels.
std::string px(const Synthetic::CornerError& e);
std::list<std::wstring> moduleList(const Synthetic::Rig& s);
// Top-left pixel of a simulated module's window on its sensor frame.
cv::Point windowCorner(const Quarn::SimulatedModule& m, cv::Size frame);

class Stopwatch {
 public:
  double seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count(); }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace Demo
}  // namespace Tool
