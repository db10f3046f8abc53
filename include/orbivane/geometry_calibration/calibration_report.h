// What a geometry calibration says about each module and each pair after a
// run, so that a host (and a user) can tell a calibrated camera from one that
// only looks calibrated.
//
// Target matching gives one ModuleReport per listed name; neighbour
// stitching one PairReport per neighbouring pair of its chain. A status is
// never "aligned" unless the calibrator checked the placement it leaves on
// the module's own pictures; a module that is not aligned keeps its matrix
// exactly as it came in.
#pragma once

#include <limits>
#include <string>

#include "orbivane/export.h"

namespace GeometryCalibration {

enum class ModuleStatus {
  aligned,  // the module's placement is supported by its picture (moved or already in place)
  failed,   // the module could not be calibrated; its matrix is unchanged (see reason)
  skipped,  // the module was not calibrated at all (unknown, listed twice, aborted before it)
  kept,     // left exactly as it came in, which its pictures support: the step would not have improved it (see reason)
  aborted,  // the run was interrupted (abort()) while or before this module was calibrated; its matrix is unchanged
};

// "aligned", "failed", "skipped", "kept" or "aborted".
ORBIVANE_EXPORT const char* statusName(ModuleStatus status);

struct ModuleReport {
  ModuleStatus status = ModuleStatus::skipped;
  std::string reason;  // why it is not aligned; a short note or empty when aligned
  // The calibrator's own error for the module as error() gives it (after
  // normalisation); the largest float when the module has none.
  float error = std::numeric_limits<float>::max();
  // Median distance, in target pixels, between the supporting feature pairs
  // under the placement left on the module; NaN when the estimator matched
  // no features (modes 1, 2 and 3, and the grid estimator).
  double residualPx = std::numeric_limits<double>::quiet_NaN();
  // Feature pairs that agree with the placement (within 3 work pixels); -1
  // when the estimator matched no features.
  int supportingPairs = -1;
  // Normalised cross-correlation of the module's picture and the target's
  // over their overlap, before and after (-1..1; NaN when not measured).
  double startCorrelation = std::numeric_limits<double>::quiet_NaN();
  double correlation = std::numeric_limits<double>::quiet_NaN();
  // Share of the module's picture that lands on the target's picture (0..1).
  double overlapShare = 0.0;
  // How far the module moved, in target pixels (largest corner movement).
  double movedPx = 0.0;
};

struct PairReport {
  std::wstring first, second;
  bool measured = false;  // false: nothing was applied for this pair (see reason)
  std::string reason;     // why it was not measured; empty when measured
  // The correction found, in surface units (the second module moved by it)
  // and in pixels of the first module's picture.
  float dx = 0.0f, dy = 0.0f;
  double shiftPx = 0.0;
  // Normalised cross-correlation over the overlap after the alignment (-1..1,
  // NaN when not measured) and the overlap's size in pixels of the first
  // picture.
  double correlation = std::numeric_limits<double>::quiet_NaN();
  int overlapPixels = 0;
};

}  // namespace GeometryCalibration
