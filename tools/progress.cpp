#include "progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace Tool {

Progress::Progress(std::string title) : title_(std::move(title)), terminal_(::isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() { finish(); }

void Progress::update(int step, int total, const std::string& text) {
  if (terminal_) {
    const int width = 30;
    const double share = total > 0 ? std::clamp(double(step) / total, 0.0, 1.0) : 0.0;
    const int filled = static_cast<int>(share * width + 0.5);
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.resize(width, '.');
    std::fprintf(stderr, "\r%s [%s] %d/%d %-40.40s", title_.c_str(), bar.c_str(), step, total, text.c_str());
    std::fflush(stderr);
    open_ = true;
  } else if (text != lastText_) {
    std::fprintf(stderr, "%s: %d/%d %s\n", title_.c_str(), step, total, text.c_str());
  }
  lastText_ = text;
}

void Progress::finish() {
  if (open_) {
    std::fputc('\n', stderr);
    std::fflush(stderr);
    open_ = false;
  }
}

GeometryCalibration::StatusCallback Progress::callback() {
  return [this](int step, int total, std::string text, GeometryCalibration::AdvStepInfo) { update(step, total, text); };
}

}  // namespace Tool
