// The status callback through which a running calibration reports progress:
// (step now reported, counting from 1; total steps of the run; an English
// text such as "Calibrating Module " followed by the module's name; the
// step's detail). It is called synchronously on the calibrating thread.
#pragma once

#include <functional>
#include <string>

#include "orbivane/geometry_calibration/adv_step_info.h"

namespace GeometryCalibration {

using StatusCallback = std::function<void(int, int, std::string, AdvStepInfo)>;

}  // namespace GeometryCalibration
