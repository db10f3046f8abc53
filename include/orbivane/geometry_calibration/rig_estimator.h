// The camera geometry of a rig, estimated from the modules' own pictures.
//
// The modules of a panoramic camera look in different directions from (about)
// one point. RigEstimator finds, from the overlaps of neighbouring pictures
// alone, where each module looks and what its lens does, and writes that into
// the camera as a viewer draws it:
//   1. features (SIFT) in every picture, matched between every two pictures
//      (cv::detail::BestOf2NearestMatcher); pairs whose matches a homography
//      does not support are dropped, and the largest set of pictures linked by
//      supported pairs is kept (any layout: a row, a ring, several rows);
//   2. a rotation model: a first guess from the pair homographies
//      (cv::detail::HomographyBasedEstimator, BundleAdjusterRay), then a bundle
//      adjustment (Ceres) of each module's rotation, focal length and radial
//      lens distortion over all matched features, with a robust loss and the
//      matches re-chosen by the refined model;
//   3. the horizon straightened (cv::detail::waveCorrect) and a panorama
//      projection chosen by the field of view: planar for narrow rigs,
//      cylindrical for wide rows, spherical when the rig looks far up or down
//      (RigOptions::projection sets it); a full ring is cut where two modules
//      overlap;
//   4. exposure gains from the overlaps (cv::detail::GainCompensator);
//   5. each module written: its 4x4 matrix the best homography from its
//      picture to its place on the panorama, its UV grid what the projection
//      and the lens add to that homography (dense enough that drawing through
//      the grid stays within RigOptions::gridTolerancePx of the model), its
//      lens distortion shader ("00060001", polynomial model) the part of the
//      lens the shader can carry, and its exposure gain.
// The panorama is the surface's unit square; its size in pixels (the camera's
// panorama size) keeps one picture pixel per panorama pixel at the middle of
// the pictures.
//
// Units: angles in degrees, focal lengths and residuals in picture pixels,
// distortion coefficients k1, k2 of the radial model
//   ideal = centre + (observed - centre) (1 + k1 r^2 + k2 r^4)
// with r the distance from the picture's centre in half diagonals.
#pragma once

#include <atomic>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "orbivane/camera/orbivane.h"
#include "orbivane/export.h"
#include "orbivane/geometry_calibration/status_callback.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/utils/return_state.h"

namespace GeometryCalibration {

struct ORBIVANE_EXPORT RigOptions {
  // "auto" (by the field of view), "plane", "cylindrical" or "spherical".
  std::string projection = "auto";
  // Pictures are searched for features at most this large (megapixels,
  // 0.1..50); larger ones are reduced first. Feature positions are refined in
  // the picture's own pixels either way.
  double featureMegapixels = 2.0;
  // The least pair confidence (cv::detail's inliers / (8 + 0.3 matches)) for
  // two pictures to count as neighbours, 0.3..10.
  double pairConfidence = 1.0;
  // Each module its own focal length and lens (true) or one lens for all.
  bool lensPerModule = true;
  bool straightenHorizon = true;
  // Exposure gains that even out the overlaps, and the lenses' vignetting
  // where the overlaps show it (RigReport::vignetting).
  bool exposureGains = true;
  // Let the UV grids also lay matched features of overlapping modules onto
  // each other where the rotation model leaves them apart (parallax of near
  // objects): a smooth displacement that fades out away from the overlaps.
  // Where that moves pictures by two panorama pixels or more, the pairs'
  // features are matched again where the displaced model puts them and the
  // seams held once more with those matches too.
  bool holdSeams = true;
  // A module of the camera whose picture shows the whole scene (empty:
  // none). It is not part of the rig: the rig is registered to it (see
  // RigTargetReport) and it is placed on the panorama.
  std::wstring target;
  // Largest difference, picture pixels, between drawing through the UV grid
  // and the model, 0.001..2; the grid gets as many cells as that needs (up
  // to 128 a side; up to 512 columns for a module that sees a pole).
  double gridTolerancePx = 0.1;
  Utils::ReturnState<bool, std::string> validate() const;
};

// What the estimate found for one module.
struct ORBIVANE_EXPORT RigModuleReport {
  bool placed = false;  // false: no supported pair links it to the others (see reason)
  std::string reason;
  double yaw = 0.0, pitch = 0.0, roll = 0.0;  // degrees; yaw to the right, pitch up
  double focalPx = 0.0;
  double k1 = 0.0, k2 = 0.0;
  double exposureGain = 1.0;
  int gridColumns = 0, gridRows = 0;
  double gridErrorPx = 0.0;  // largest difference of the grid from the model
  double largestDisplacementPx = 0.0;  // the most the seams moved a picture point, panorama pixels
  // Median reprojection residual of the module's matched features, pixels.
  double residualPx = 0.0;
};

// One pair of pictures that overlap.
struct ORBIVANE_EXPORT RigPairReport {
  std::wstring first, second;
  int matches = 0;     // feature matches that the refined model keeps
  double confidence = 0.0;
  double medianPx = 0.0, p90Px = 0.0;  // their residuals under the refined model, picture pixels
  // Brightness difference of the two drawn over their overlap, gains
  // applied, |log2(mean first / mean second)|; NaN when they do not overlap
  // on the panorama.
  double exposureEv = std::numeric_limits<double>::quiet_NaN();
};

// How the rig was registered to the target picture: an equirectangular
// target (twice as wide as high) becomes the panorama itself, the rig turned
// onto it (so the target module is the identity and every module lies where
// the target shows its scene); any other target is placed on the rig's
// panorama through the homography that best matches the modules' features.
struct ORBIVANE_EXPORT RigTargetReport {
  bool registered = false;
  std::string reason;  // why not, when not: the target then spans the panorama's width
  bool equirectangular = false;
  int matches = 0;       // the modules' features that agree with the registration
  double medianPx = 0.0;  // their distance from it, target pixels
};

struct ORBIVANE_EXPORT RigReport {
  std::string projection;         // the projection used
  double fieldOfViewX = 0.0, fieldOfViewY = 0.0;  // degrees the placed pictures span
  bool fullRing = false;          // the pictures go all the way round
  int panoramaWidth = 0, panoramaHeight = 0;
  std::map<std::wstring, RigModuleReport> modules;
  std::list<RigPairReport> pairs;
  RigTargetReport target;  // when RigOptions::target names one
  double medianPx = 0.0, p90Px = 0.0;  // over all kept matches
  // The lenses' vignetting the modules were given, one for all (none: the
  // overlaps did not show one).
  CameraDescription::OrbivaneModule::Vignetting vignetting;
  double seconds = 0.0;
};

class ORBIVANE_EXPORT RigEstimator {
 public:
  using Images = std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>>;

  // `images` maps module names to their pictures (a module's own picture is
  // used where the map has none).
  RigEstimator(const CameraDescription::Orbivane& camera, Images images);
  ~RigEstimator();
  RigEstimator(const RigEstimator&) = delete;
  RigEstimator& operator=(const RigEstimator&) = delete;

  // Fails with one line for options out of range (validate()).
  Utils::ReturnState<bool, std::string> setOptions(const RigOptions& options);
  const RigOptions& options() const;
  void registerStatusCallback(StatusCallback callback);
  // From another thread: the estimate stops at its next step and returns the
  // camera unchanged.
  void abort();
  bool aborted() const;

  // Estimates the listed modules (empty: every module with a picture) and
  // returns the camera with their geometry, shaders and gains replaced and its
  // panorama size set. Modules not placed keep what they had. Fails (with the
  // reason) when fewer than two pictures can be linked.
  Utils::ReturnState<CameraDescription::Orbivane, std::string> estimate(const std::list<std::wstring>& modules = {});

  const RigReport& report() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace GeometryCalibration
