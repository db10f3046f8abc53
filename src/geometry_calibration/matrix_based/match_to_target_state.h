// The private state behind MatchToTarget and its driver loop: the camera
// copy it corrects, the pictures, the settings, the per-module work systems,
// working copies, estimator results and grids.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <spdlog/logger.h>

#include "geometry_calibration/matrix_based/match_to_target_estimate.h"
#include "orbivane/camera/orbivane.h"
#include "orbivane/geometry_calibration/calibration_report.h"
#include "orbivane/geometry_calibration/matrix_based/match_to_target.h"
#include "orbivane/geometry_calibration/status_callback.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/utils/matrix4x4.h"
#include "orbivane/utils/uv_grid.h"

namespace GeometryCalibration {
namespace MatrixBased {

// A module's work system: the four planar homographies of one run.
//   forward:  W = forwardLeft x M x forwardRight   (module matrix -> work homography)
//   backward: M = backwardLeft x W x backwardRight (work homography -> module matrix)
// backwardLeft takes target work pixels to the surface (M_t T_t S^-1),
// backwardRight takes module texture coordinates to module work pixels
// (G T_m^-1, G = the pre-warp); the forward pair are their inverses.
struct WorkSystem {
  cv::Matx33d forwardLeft = cv::Matx33d::eye(), forwardRight = cv::Matx33d::eye();
  cv::Matx33d backwardLeft = cv::Matx33d::eye(), backwardRight = cv::Matx33d::eye();
};

class MatchToTargetState {
 public:
  using Images = std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>>;
  using Mode = MatchToTarget::CalibrateMode;

  MatchToTargetState(const CameraDescription::Orbivane& camera, Images images);

  // The driver; `self` is the public object, through which mode 3 recurses.
  CameraDescription::Orbivane calibrate(MatchToTarget& self, const std::list<std::wstring>& modules,
                                        const std::wstring& target);

  // The settings as MatchOptions::validate judges them (with the grids of
  // the listed modules in mode 0 with grid): empty when they are in range.
  std::string optionsProblem(const std::list<std::wstring>& modules) const;
  // A run refused for its settings: every listed module failed with the
  // problem as its reason, the camera as it was.
  CameraDescription::Orbivane refuseOptions(const std::list<std::wstring>& modules, const std::string& problem);

  // Step rules, public so that they can be checked on their own.
  // Progress total and first "current" of a run over `names`.
  void setUpProgress(const std::list<std::wstring>& names);
  // The work scale for a module whose homography into the target's pixels
  // has the upper-left block (a, b; c, d). Overwrites the allowed scale with
  // 1.2 in mode 2 and in mode 0 with the grid enabled.
  float workScale(double a, double b, double c, double d);
  // `s` held so that the target's work picture is at most 8192 and at least
  // 2 pixels a side; NaN when no scale gives both.
  static double heldWorkScale(double s, cv::Size target);
  // Normalises `errors` in place as `mode` asks.
  static void normaliseErrors(std::map<std::wstring, float>& errors, Mode mode);
  // The accept-or-reject rule for a result against the best error so far.
  static bool acceptable(const EstimateResult& result, float best);

  // Reads the distortion-method flag from the camera's shaders.
  static bool distortionMethodFlag(const CameraDescription::Orbivane& camera);

  Utils::Matrix4x4 toWorkSystem(const std::wstring& module, const Utils::Matrix4x4& matrix) const;
  Utils::Matrix4x4 toResult(const std::wstring& module, const Utils::Matrix4x4& matrix) const;

  // Increments the progress and calls the callback, if any.
  void report(const std::string& text, AdvStepInfo info = AdvStepInfo());

  // Members in the documented order.
  std::atomic<bool> abort{false};
  CameraDescription::Orbivane camera;
  Images images;
  std::shared_ptr<spdlog::logger> logger;
  bool distortionMethod = false;
  Mode mode = MatchToTarget::kFeatureMatching;
  std::wstring target;
  std::map<std::wstring, float> errors;
  float allowedScale = 0.0f;
  std::int32_t progressTotal = 0;
  std::int32_t progressCurrent = 0;
  StatusCallback callback;
  std::map<std::wstring, WorkSystem> workSystems;
  // The work pictures of each module's last run (module, target), kept as
  // the estimators saw them (not copied) and made pictures when asked for.
  std::map<std::wstring, std::vector<cv::Mat>> workingCopies;
  std::uint64_t m2bLimit = 5;
  std::uint64_t m2nLimit = 1;
  std::uint64_t m2nCountdown = 1;
  std::map<std::wstring, EstimateResult> results;  // the last accepted or rejected estimate per module
  bool gridEnabled = false;
  std::map<std::wstring, Utils::UVGrid> grids;
  std::map<std::wstring, std::vector<cv::Point2f>> gridDisplacements;  // per grid point, target work pixels
  std::map<std::wstring, ModuleReport> reports;  // the verdicts of the last run
  bool workScaleHeldLogged = false;  // the run has said that it held the work scale

 private:
  // One module of the loop (steps 5 to 9). A module that cannot be brought
  // to an estimator (unusable picture, target or matrix) fails: its report
  // says why and it gets no error entry here (the driver gives it the
  // largest float).
  void calibrateModule(const std::wstring& name, const cv::Mat& targetPicture, const cv::Matx33d& targetPlanar);

  // Its steps. Where the module lands on the target: its picture, matrix,
  // work scale and size, pre-warp and work system.
  struct Placement {
    cv::Mat modulePicture;
    Utils::Matrix4x4 previous;  // the module's matrix before the run
    cv::Matx33d modulePlanar = cv::Matx33d::eye();
    double scale = 1.0, sx = 1.0;  // work scale; work pixels per target pixel across
    cv::Size workSize;
    bool drawn = false;  // drawn through a UV grid or lens shader, not a plain matrix
    std::vector<cv::Point2f> landed;  // the picture's corners on the work picture
    cv::Matx33d prewarp = cv::Matx33d::eye();
    WorkSystem system;
  };
  // What the pictures say of an estimate.
  struct Judgement {
    bool estimated = false;    // accepted
    std::string rejection;     // why not, when not
    Utils::Matrix4x4 resultMatrix;  // the matrix (mode 3: the correction) an accepted estimate gives
  };
  // Each returns false (the report saying why) when the module fails there.
  bool placeOnTarget(const std::wstring& name, const cv::Mat& targetPicture, const cv::Matx33d& targetPlanar,
                     Placement& placed, ModuleReport& verdict);
  // placeOnTarget's parts: the module's picture and matrix are usable; the
  // work scale and size for its homography `h0` onto the target's pixels;
  // the pre-warp of `placement` (module -> work pixels).
  bool usableModule(const std::wstring& name, const cv::Mat& targetPicture, Placement& placed, ModuleReport& verdict);
  bool chooseWorkSize(const std::wstring& name, const cv::Matx33d& h0, cv::Size targetSize, Placement& placed,
                      ModuleReport& verdict);
  bool choosePrewarp(const std::wstring& name, const cv::Matx33d& placement, Placement& placed,
                     ModuleReport& verdict);
  bool prepareWorkPictures(const std::wstring& name, const cv::Mat& targetPicture, const Placement& placed,
                           WorkPictures& pictures, ModuleReport& verdict);
  // The target at a module's work size, with its mask and grey pictures:
  // made once for the modules placed at one scale (the last size asked for
  // is kept).
  void targetAtWorkSize(const cv::Mat& targetPicture, const Placement& placed, WorkPictures& pictures);
  struct TargetAtWork {
    cv::Mat source;  // the target picture it was made from
    cv::Size size;
    int interpolation = -1;
    WorkPictures pictures;  // target, targetMask, targetGrey, targetBrighter(Count)
  };
  TargetAtWork targetAtWork;
  EstimateResult runEstimator(const std::wstring& name, const WorkPictures& pictures, const Placement& placed);
  Judgement judge(const std::wstring& name, const EstimateResult& result, const WorkPictures& pictures,
                  const Placement& placed, ModuleReport& verdict);
  void writeBack(const std::wstring& name, const EstimateResult& result, const Judgement& judged,
                 const cv::Mat& targetPicture, const cv::Matx33d& targetPlanar, const Placement& placed,
                 ModuleReport& verdict);
};

}  // namespace MatrixBased
}  // namespace GeometryCalibration
