// Which named loggers write, where, and from which level on is decided by the
// configuration file "OrbivaneCalibration.cfg" in the process's working
// directory, read once when the library is loaded. An existing but empty file
// is filled with the default text (every logger listed there inactive); a
// missing file is not created, and then no logger writes. Calibrators whose
// logger is not switched on log into a discarding logger.
//
// Logger names: "MatrixBasedMatchToBackground", "FisheyeCalibration" (both in
// the default text), "MatrixBasedNeighbourNeighbourStitch" and
// "ResolutionCalibration" (switched on only by adding entries by hand).
#pragma once

#include <string>
#include <vector>

#include "orbivane/export.h"

namespace Utils {

ORBIVANE_EXPORT extern const char* const kLoggerConfigurationFile;  // "OrbivaneCalibration.cfg"

// The names the default configuration lists, in order.
ORBIVANE_EXPORT std::vector<std::string> defaultLoggerNames();

// The text written into an empty configuration file.
ORBIVANE_EXPORT std::string defaultLoggerConfiguration(const std::vector<std::string>& names);

}  // namespace Utils
