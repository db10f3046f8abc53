// Progress of a long command: a bar that redraws itself on a terminal, plain
// lines when standard error is not a terminal (logs, CI): one whenever the
// text changes and one for every tenth of the way. Once a run has gone on
// for two seconds, each says how long the rest will take at the pace of the
// steps so far.
#pragma once

#include <chrono>
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
  // Ends the bar's line. A run that completed (`completed`) shows its bar at
  // the end, total of total, whatever count its calibrator reached; an
  // interrupted one stays where it stopped. The destructor ends an open bar
  // as interrupted.
  void finish(bool completed = true);
  // A calibrator's status callback that updates this bar (which must outlive it).
  GeometryCalibration::StatusCallback callback();

 private:
  std::string timeLeft(int step, int total);

  std::string title_;
  std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
  bool terminal_;
  bool open_ = false;
  bool finished_ = false;
  std::string lastText_;
  int lastStep_ = 0, lastTotal_ = 0;
  int lastTenth_ = -1;  // plain lines: the last tenth of the way reported
  int firstStep_ = -1;  // the first report's past step 0, and its time: the pace is taken from there
  std::chrono::steady_clock::time_point firstAt_;
};

}  // namespace Tool
