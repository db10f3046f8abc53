// The abstract geometry calibrator. The name is spelt "Inferface" on purpose:
// hosts know it by that name. The calibrators themselves (MatchToTarget,
// SmartFinderMatchToTarget, NeighbourNeighbour) are classes of their own with
// the same two virtual operations; they do not derive from this interface.
#pragma once

#include <list>
#include <string>

#include "orbivane/camera/orbivane.h"
#include "orbivane/export.h"

namespace GeometryCalibration {

class ORBIVANE_EXPORT GeometryCalibrationInferface {
 public:
  GeometryCalibrationInferface();
  GeometryCalibrationInferface(const GeometryCalibrationInferface&);
  GeometryCalibrationInferface& operator=(const GeometryCalibrationInferface&);
  virtual ~GeometryCalibrationInferface();

  // Calibrates the listed modules against the named module or target and
  // returns a corrected copy of the camera description.
  virtual CameraDescription::Orbivane calibrate(std::list<std::wstring> modules, std::wstring target) = 0;
};

}  // namespace GeometryCalibration
