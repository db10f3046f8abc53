// Progress of a long command: a bar that redraws itself on a terminal, plain
// lines when standard error is not a terminal (logs, CI).
#pragma once

#include <string>

#include "orbivane/geometry_calibration/status_callback.h"

namespace Tool {

class Progress {
 public:
  // `title` names the work ("target matching").
  explicit Progress(std::string title);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Step `step` of `total` (from 1) with a short text; safe to call often.
  void update(int step, int total, const std::string& text);
  // Ends the bar's line.
  void finish();
  // A calibrator's status callback that updates this bar (which must outlive it).
  GeometryCalibration::StatusCallback callback();

 private:
  std::string title_;
  bool terminal_;
  bool open_ = false;
  std::string lastText_;
};

}  // namespace Tool
