// Resolution: how much of a flat test target one pixel of a module covers.
// The target carries three round marks at the corners of a right angle whose
// real sides (metres) the caller knows; the calibrator finds exactly three
// round blobs, measures the two sides in pixels and divides. Results and
// errors are written into the picture, to standard output and to the logger
// "ResolutionCalibration".
#pragma once

#include <memory>
#include <string>

#include "orbivane/camera/orbivane.h"
#include "orbivane/camera/orbivane_module.h"
#include "orbivane/export.h"
#include "orbivane/image/universal_image_interface.h"

namespace SensorCalibration {

class ORBIVANE_EXPORT ResolutionCalibration {
 public:
  // realX, realY: the horizontal and vertical side of the mark triangle in
  // metres; minBlobArea: the smallest mark area in pixels.
  ResolutionCalibration(const CameraDescription::OrbivaneModule& module, float realX, float realY, int minBlobArea);
  virtual ~ResolutionCalibration();
  ResolutionCalibration(const ResolutionCalibration&) = delete;
  ResolutionCalibration& operator=(const ResolutionCalibration&) = delete;

  // Takes the module of the same name from a new camera description (its
  // connection, picture, geometry and the rest), as the host hands on a
  // camera that changed. When the camera has no module of that name the
  // calibrator keeps the module it has and logs so. A window moved by apply
  // is still put back by restore where apply moved it.
  void updateOrbivane(const CameraDescription::Orbivane& camera);

  // Measures and returns the annotated picture (null for a null or unreadable
  // picture).
  std::shared_ptr<Image::UniversalImageInterface> calculateCalibration(
      std::shared_ptr<Image::UniversalImageInterface> image);

  // Results of the last calculateCalibration.
  int circleCount() const;
  int horizontalSpacing() const;  // pixels, 0 unless three marks were found
  int verticalSpacing() const;
  float metresPerPixelX() const;  // infinite when the spacing is 0
  float metresPerPixelY() const;

  // Checks the results against the module's sensor: reads its window through
  // the session library and logs the window's travel in millimetres at the
  // measured resolution. The result is then the module's applied resolution.
  bool apply();
  // Withdraws what apply took on; true when nothing was applied.
  bool restore();
  bool applied() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace SensorCalibration
