// The verdicts of the geometry calibrators as JSON, the same in every
// command: a module {"status", "reason", "error", "residualPx", ...} and a
// pair {"first", "second", "status", "reason", "dx", "dy", ...}. Values that
// were not measured are null.
#pragma once

#include <nlohmann/json.hpp>

#include "orbivane/geometry_calibration/calibration_pipeline.h"
#include "orbivane/geometry_calibration/calibration_report.h"

namespace Tool {

nlohmann::json moduleReportJson(const GeometryCalibration::ModuleReport& report);
// "measured" or "not measured", with the correction in surface units and
// in pixels of the first picture.
nlohmann::json pairReportJson(const GeometryCalibration::PairReport& report);
nlohmann::json seamJson(const GeometryCalibration::SeamResidual& seam);

}  // namespace Tool
