// A progress bar on a terminal, plain lines elsewhere; see progress.h.
#include "progress.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace Tool {

Progress::Progress(std::string title) : title_(std::move(title)), terminal_(::isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() { finish(false); }

// "about 40 s left", at the pace of the steps since the first report past
// step 0 (what a command does before its first step, such as reading
// pictures or a first measurement that a report at step 0 names, is no
// step's time); empty before there is enough to go by (two seconds since
// the start and a step since that report) or at the end.
std::string Progress::timeLeft(int step, int total) {
  const auto now = std::chrono::steady_clock::now();
  if (firstStep_ < 0 && step > 0) {
    firstStep_ = step;
    firstAt_ = now;
  }
  const double elapsed = std::chrono::duration<double>(now - started_).count();
  const double sinceFirst = std::chrono::duration<double>(now - firstAt_).count();
  if (firstStep_ < 0 || step <= firstStep_ || total <= 0 || step >= total || elapsed < 2.0) return std::string();
  const double left = sinceFirst * double(total - step) / double(step - firstStep_);
  char text[48];
  if (left < 120.0) {
    std::snprintf(text, sizeof text, "about %.0f s left", std::max(1.0, left));
  } else {
    std::snprintf(text, sizeof text, "about %.0f min left", left / 60.0);
  }
  return text;
}

void Progress::update(int step, int total, const std::string& text) {
  const std::string left = timeLeft(step, total);
  lastStep_ = step;
  lastTotal_ = total;
  if (terminal_) {
    const int width = 30;
    const double share = total > 0 ? std::clamp(double(step) / total, 0.0, 1.0) : 0.0;
    const int filled = static_cast<int>(share * width + 0.5);
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.resize(width, '.');
    std::fprintf(stderr, "\r%s [%s] %d/%d %-40.40s %-18s", title_.c_str(), bar.c_str(), step, total, text.c_str(),
                 left.c_str());
    std::fflush(stderr);
    open_ = true;
  } else {
    // A line when the text changes, and one for every tenth of the way
    // (long searches report one text many times).
    const int tenth = total > 0 ? std::clamp(int(10.0 * step / total), 0, 10) : 0;
    if (text != lastText_ || tenth > lastTenth_) {
      std::fprintf(stderr, "%s: %d/%d %s%s%s\n", title_.c_str(), step, total, text.c_str(), left.empty() ? "" : ", ",
                   left.c_str());
      lastTenth_ = tenth;
    }
  }
  lastText_ = text;
}

void Progress::finish(bool completed) {
  if (completed && !finished_ && lastTotal_ > 0 && lastStep_ < lastTotal_) {
    // The run is done, whatever count the calibrator's total was made of.
    update(lastTotal_, lastTotal_, "done");
  } else if (completed && !finished_ && !terminal_ && lastTotal_ > 0 && lastText_ != "done") {
    std::fprintf(stderr, "%s: %d/%d done\n", title_.c_str(), lastTotal_, lastTotal_);
  }
  if (open_) {
    std::fputc('\n', stderr);
    std::fflush(stderr);
    open_ = false;
  }
  finished_ = finished_ || completed;
}

GeometryCalibration::StatusCallback Progress::callback() {
  return [this](int step, int total, std::string text, GeometryCalibration::AdvStepInfo) { update(step, total, text); };
}

}  // namespace Tool
