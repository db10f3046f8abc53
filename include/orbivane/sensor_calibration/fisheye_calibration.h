// Fisheye centring: finds the bright lens circle in a picture of a fisheye
// module, reports its centre and radius (pixels of the picture, pixel (0, 0)
// centred on (0, 0)), draws it into the picture, and moves the module's
// sensor window so that the circle sits in the middle of the window.
// Logs on the logger "FisheyeCalibration".
#pragma once

#include <memory>
#include <string>

#include "orbivane/camera/orbivane.h"
#include "orbivane/camera/orbivane_module.h"
#include "orbivane/export.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/utils/return_state.h"

namespace SensorCalibration {

class ORBIVANE_EXPORT FisheyeCalibration {
 public:
  struct CalibrationResults {
    std::shared_ptr<Image::UniversalImageInterface> image;  // the input with the circle drawn in
    float x = -1.0f;       // circle centre, pixels from the left edge; -1 without a valid circle
    float y = -1.0f;       // pixels from the top edge; -1 without a valid circle
    float radius = -1.0f;  // pixels; -1 without a valid circle
  };

  // Grey threshold 97 (says so on standard error).
  explicit FisheyeCalibration(const CameraDescription::OrbivaneModule& module);
  FisheyeCalibration(const CameraDescription::OrbivaneModule& module, int threshold);
  virtual ~FisheyeCalibration();
  FisheyeCalibration(const FisheyeCalibration&) = delete;
  FisheyeCalibration& operator=(const FisheyeCalibration&) = delete;

  int threshold() const;

  // Takes the module of the same name from a new camera description (its
  // connection, picture, geometry and the rest), as the host hands on a
  // camera that changed. When the camera has no module of that name the
  // calibrator keeps the module it has and logs so. A window moved by apply
  // is still put back by restore where apply moved it.
  void updateOrbivane(const CameraDescription::Orbivane& camera);

  // Finds the circle; never fails (an implausible circle gives -1 values).
  CalibrationResults calculateCalibration(std::shared_ptr<Image::UniversalImageInterface> image);

  // Moves the sensor window so that the last circle found comes to the middle
  // of the picture, plus (x, y) sensor pixels. The new position is snapped to
  // the steps toward plus infinity; a position beyond the limits is refused.
  // After a calculation that found no plausible circle its -1 values are
  // used as they are; only apply before any calculation answers "No
  // Calibration Values!". A window written is kept in SensorShifter's store
  // (lastChangedSensorInfo).
  Utils::ReturnState<bool, std::string> apply(short x, short y);

  // Puts the window back where the last apply found it (and in
  // SensorShifter's store); true at once when no apply moved it.
  bool restore();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace SensorCalibration
