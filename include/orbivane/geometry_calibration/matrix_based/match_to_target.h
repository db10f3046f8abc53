// Target matching: aligns chosen modules' pictures to one target module's
// picture and writes the corrected matrices (and, where asked, UV grids) into
// a copy of the camera description.
//
// For each module the calibrator estimates the homography H that takes the
// module's picture (pixels) onto the target's picture (pixels) and sets the
// module's matrix to
//   M_module' = M_target x T_target x H x T_module^-1          (planar 3x3)
// with T = pixelsToTexture of each picture (orbivane/geometry/
// surface_projection.h), so that a scene point seen by both modules lands on
// the same surface point. Pictures of different sizes are fine.
//
// Work system: the estimators see the target's picture scaled by the work
// scale s and the module's picture warped onto it by the module's current
// placement; in that system the current placement is the identity. The
// forward homographies of a module take a 4x4 matrix into the work system
// (transformToWorkSystem), the backward ones take a work homography back to
// a module matrix (transformToResulte); they are inverse to each other.
//
// Modes (CalibrateMode):
//  0  feature matching (ORB, 10000 features; near the current placement
//     first, over the whole pictures when that finds no supported result,
//     so a module placed a picture's width off is found too) with a
//     full-resolution direct alignment refinement; with the grid enabled, the grid estimator also
//     fits the module's UV grid to the measured displacement field between
//     the pictures (smoothly regularised, never folding; a module the
//     homography already holds keeps a regular grid);
//  1  no estimator: modules keep their matrices;
//  2  dense optical flow (DIS), outlier rejection, a robust homography and
//     the same refinement;
//  3  iterative matching (up to the m2b limit per module, stopping when the
//     error no longer improves), run m2n times in a row; each result is a
//     correction applied on top of the module's matrix.
//
// Errors: per module, the share of differing pixels in percent (0..100),
// normalised after the run in modes 0 and 3 so that 0 means "as good as the
// best module" and 10 marks a failed module (see calibrate()).
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "orbivane/camera/orbivane.h"
#include "orbivane/camera/orbivane_module.h"
#include "orbivane/export.h"
#include "orbivane/geometry_calibration/calibration_report.h"
#include "orbivane/geometry_calibration/adv_step_info.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/utils/matrix4x4.h"
#include "orbivane/utils/uv_grid.h"

namespace GeometryCalibration {
namespace MatrixBased {


class ORBIVANE_EXPORT MatchToTarget {
 public:
  enum CalibrateMode : std::int32_t {
    kFeatureMatching = 0,
    kKeepMatrix = 1,
    kOpticalFlow = 2,
    kIterative = 3,
  };

  // Copies the camera and the pictures (module name -> picture).
  MatchToTarget(const CameraDescription::Orbivane& camera,
                std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images);
  virtual ~MatchToTarget();
  MatchToTarget(const MatchToTarget&) = delete;
  MatchToTarget& operator=(const MatchToTarget&) = delete;

  // Aligns the listed modules, in list order, to `target` and returns the
  // corrected copy of the camera. Modules that do not exist, have no matrix
  // geometry or no picture are logged and skipped; a target without a usable
  // picture or matrix skips every module. Progress: "Calibrating Module "
  // and "Finished Module " with the module's name (totals: 2 x n in mode 0,
  // 4 x columns x rows of each listed grid in mode 0 with grid, m2n x n in
  // the other modes). Errors are normalised after the loop:
  //  mode 0: base = max(30, smallest); e < 100 -> max(0, (e - 1.3 base) / (0.5 base)), else 10;
  //  mode 3: base = max(20, smallest); e < 60 -> max(0, (e - 1.2 base) / (0.2 base)), else 10.
  // After `abort` the camera is returned as it stands.
  virtual CameraDescription::Orbivane calibrate(std::list<std::wstring> modules, std::wstring target);

  void setCalibrationMode(const CalibrateMode& mode);
  CalibrateMode calibrationMode() const;

  // Mode 0: refine the modules' UV grids too (each listed module needs a grid from initGrid).
  void setGridEnabled(const bool& enabled);
  // A regular grid of columns x rows cells for the module (replaces an earlier one).
  void initGrid(const int& columns, const int& rows, const std::wstring& module);
  // The module's grid, or an empty grid when it has none.
  Utils::UVGrid getGrid(const std::wstring& module) const;

  // Mode 3 runs m2n times in a row (default 1); setting resets the countdown.
  void setM2nMaxIteration(const std::uint64_t& limit);
  std::uint64_t m2nMaxIteration() const;
  // Matching rounds per module in mode 3 (default 5).
  void setM2bMaxIteration(const std::uint64_t& limit);
  std::uint64_t m2bMaxIteration() const;

  // The work scale: > 0 fixes it, < 0 means 1.0 (the target's own
  // resolution), 0 (default) derives it from the module's current placement.
  // Modes 2 and 0 with grid always work at 1.2. A scale that would make the
  // target's work picture larger than 8192 pixels a side (or smaller than 2)
  // is held to that size, and the run logs once that it did.
  void allowScale(const float& scale);

  void registerStatusCallback(std::function<void(int, int, std::string, GeometryCalibration::AdvStepInfo)> callback);

  // May be called from another thread; the run returns at the next module
  // (or during feature collection) with what it has done.
  void abort();

  std::map<std::wstring, float> error() const;
  // The module's error; the largest float when it has none.
  float error(const std::wstring& module) const;

  // The verdict of the last `calibrate` for every listed name (see
  // orbivane/geometry_calibration/calibration_report.h). An estimate is
  // accepted only when it is supported: in mode 0 at least 12 feature pairs
  // agree with it (within 3 work pixels) and they lie in at least 4 of the 9
  // cells of the overlap after it, unless the pictures clearly agree after
  // it (a correlation of at least 0.9 over at least a quarter of the
  // module's picture), when it does not matter where the pairs lie; the
  // module's picture covers at least 10 % of its area on the target; and its
  // normalised cross-correlation with the target over the overlap is at
  // least 0.5 and not below that of the starting placement. Pixels a picture
  // shows nothing at (black in every channel) count for none of these. A
  // module whose estimate is rejected keeps its matrix exactly and its error
  // is the largest float before normalisation (10 after it in modes 0 and
  // 3); it is "kept" when its starting placement passes the correlation
  // check (already in place: the reason says why the estimate was not
  // used), else "failed". Mode 1 runs no estimator: every module it reaches
  // is "kept" or "failed" by that check, with the largest float as error.
  // A module that cannot be brought to the estimator (a picture under 2x2
  // pixels or unreadable, no usable target, a singular, mirrored or
  // non-finite matrix, no overlap with the target) has "failed" with the
  // reason, the largest float as error and its "Finished Module " report.
  // Names that are not in the camera, and names the run did not reach
  // before an abort, are "skipped"; modules without matrix geometry or
  // without picture "failed" and have no error entry.
  std::map<std::wstring, GeometryCalibration::ModuleReport> moduleReports() const;

  // The module's working copies of the last run: its picture warped into the
  // work system and the target's picture at the work scale.
  std::vector<std::shared_ptr<Image::UniversalImageInterface>> imgsWorkingCopy(const std::wstring& module) const;

  // The matrix's planar part taken into the module's work system / a work
  // homography taken back to a module matrix (identity for a module that has
  // no work system yet).
  Utils::Matrix4x4 transformToWorkSystem(const std::wstring& module, const Utils::Matrix4x4& matrix) const;
  Utils::Matrix4x4 transformToResulte(const std::wstring& module, const Utils::Matrix4x4& matrix) const;

  // The module's matrix composed with its clip-matrix shader (identity when
  // the module is missing or has no usable matrix).
  static Utils::Matrix4x4 calculateFinMatrix(const CameraDescription::Orbivane& camera, const std::wstring& module);
  static Utils::Matrix4x4 calculateFinMatrix(std::shared_ptr<const CameraDescription::OrbivaneModule> module);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace MatrixBased
}  // namespace GeometryCalibration
