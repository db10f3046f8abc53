// Helpers every demo step uses: numbers and pictures for the report, corner
// errors in words, and connections to the simulated camera.
#include "demo_steps.h"

#include <cstdio>

#include "command_line.h"
#include "orbivane/image/image_conversion.h"

namespace Tool {
namespace Demo {


std::string number(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

void writePicture(const cv::Mat& picture, const std::string& path) {
  auto saved = Image::saveMat(picture, path);
  if (!saved) throw CommandError(saved.error());
}

std::string px(const Synthetic::CornerError& e) { return number(e.mean, 2) + " / " + number(e.max, 2); }

std::list<std::wstring> moduleList(const Synthetic::Rig& s) { return {s.names.begin(), s.names.end()}; }

// Top-left pixel of a simulated module's window on its sensor frame.
cv::Point windowCorner(const Quarn::SimulatedModule& m, cv::Size frame) {
  return {(frame.width - m.window.width) / 2 + m.window.x, (frame.height - m.window.height) / 2 + m.window.y};
}

}  // namespace Demo
}  // namespace Tool
