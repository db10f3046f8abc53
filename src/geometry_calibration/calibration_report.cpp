// Names of the module statuses.
#include "orbivane/geometry_calibration/calibration_report.h"

namespace GeometryCalibration {

const char* statusName(ModuleStatus status) {
  switch (status) {
    case ModuleStatus::aligned:
      return "aligned";
    case ModuleStatus::failed:
      return "failed";
    case ModuleStatus::kept:
      return "kept";
    case ModuleStatus::aborted:
      return "aborted";
    case ModuleStatus::skipped:
    default:
      return "skipped";
  }
}

}  // namespace GeometryCalibration
