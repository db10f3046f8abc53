// Target matching on pictures taken from recordings: finds, for the target
// and each listed module, a moment of its recordings without persons
// (SmartFinderImage) and aligns the modules' pictures of those moments to the
// target's picture with GeometryCalibration::MatrixBased::MatchToTarget.
//
// The target's picture is the one given for it in the images map at
// construction when there is one (a reference picture); otherwise the target
// module's own picked frame. Modules are always matched on their picked
// frames; a module for which no moment is found is logged and skipped, as
// MatchToTarget skips a module without a picture.
//
// The returned camera carries the corrected matrices (and grids) and, for
// every module with a picked frame, that picture (image path cleared), so a
// host can keep or show the pictures the matrices were computed on.
//
// Progress: the finder's steps ("Sampling Module ...") followed by the
// matcher's ("Calibrating Module ...", "Finished Module ..."), numbered as
// one run. abort() may be called from another thread and stops whichever
// stage runs.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "orbivane/camera/orbivane.h"
#include "orbivane/export.h"
#include "orbivane/geometry_calibration/matrix_based/match_to_target.h"
#include "orbivane/geometry_calibration/status_callback.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/image_selection/smart_finder_image.h"
#include "orbivane/utils/uv_grid.h"

namespace OrbivaneCalibration {


class ORBIVANE_EXPORT SmartFinderMatchToTarget {
 public:
  using CalibrateMode = GeometryCalibration::MatrixBased::MatchToTarget::CalibrateMode;

  // Copies the camera (modules with connections to recordings) and the
  // pictures (module name -> picture; may be empty).
  explicit SmartFinderMatchToTarget(
      const CameraDescription::Orbivane& camera,
      std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images = {});
  virtual ~SmartFinderMatchToTarget();
  // Finds the pictures, then aligns the listed modules, in list order, to
  // `target` (see the file comment) and returns the corrected copy of the
  // camera. Each run starts from the camera as earlier runs left it.
  virtual CameraDescription::Orbivane calibrate(std::list<std::wstring> modules, std::wstring target);

  SmartFinderMatchToTarget(const SmartFinderMatchToTarget&) = delete;
  SmartFinderMatchToTarget& operator=(const SmartFinderMatchToTarget&) = delete;

  // The finder's options (time window, sampling, detector, weights).
  void setFinderOptions(const SmartFinderOptions& options);
  SmartFinderOptions finderOptions() const;

  // The matcher's options, as MatchToTarget has them.
  void setCalibrationMode(const CalibrateMode& mode);
  CalibrateMode calibrationMode() const;
  void setGridEnabled(const bool& enabled);
  void initGrid(const int& columns, const int& rows, const std::wstring& module);
  Utils::UVGrid getGrid(const std::wstring& module) const;
  void setM2nMaxIteration(const std::uint64_t& limit);
  std::uint64_t m2nMaxIteration() const;
  void setM2bMaxIteration(const std::uint64_t& limit);
  std::uint64_t m2bMaxIteration() const;
  void allowScale(const float& scale);

  void registerStatusCallback(GeometryCalibration::StatusCallback callback);
  void abort();

  // The matcher's errors of the last run (see MatchToTarget::error).
  std::map<std::wstring, float> error() const;
  float error(const std::wstring& module) const;
  // The matcher's verdicts of the last run (see MatchToTarget::moduleReports).
  std::map<std::wstring, GeometryCalibration::ModuleReport> moduleReports() const;
  // The moments the finder chose in the last run, and why modules had none.
  std::map<std::wstring, std::vector<SmartFinderFrame>> frames() const;
  std::map<std::wstring, std::string> finderErrors() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace OrbivaneCalibration
