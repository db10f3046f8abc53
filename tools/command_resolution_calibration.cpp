// "resolution IMAGE --real-x M --real-y M [--min-blob-area A] [--annotated
// OUT.png] [--json]": measures the resolution on a three-mark target.
#include <cmath>
#include <iostream>

#include <nlohmann/json.hpp>

#include "command_line.h"
#include "json_output.h"
#include "orbivane/geometry_calibration/calibrator_options.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/sensor_calibration/resolution_calibration.h"

namespace Tool {

void addResolutionCommand(CLI::App& app) {
  CLI::App* cmd = app.add_subcommand("resolution", "Measure the resolution on a three-mark target");
  static std::string path, annotated;
  static float realX = 0, realY = 0;
  static int minBlobArea = 100;
  static bool json = false;
  cmd->add_option("IMAGE", path, "Picture file")->required();
  cmd->add_option("--real-x", realX, "Horizontal side of the mark triangle in metres")->required();
  cmd->add_option("--real-y", realY, "Vertical side of the mark triangle in metres")->required();
  cmd->add_option("--min-blob-area", minBlobArea, "Smallest mark area in pixels")->capture_default_str();
  cmd->add_option("--annotated", annotated, "Write the annotated picture");
  cmd->add_flag("--json", json, "Print the result as one JSON object");
  cmd->callback([] {
    JsonOutput output(json);
    if (!annotated.empty()) checkOutputFile(annotated, {path}, "--annotated");
    if (const auto valid = GeometryCalibration::ResolutionOptions{realX, realY, minBlobArea}.validate(); !valid) {
      throw CommandError("resolution: " + valid.error() + " (--real-x, --real-y, --min-blob-area)");
    }
    auto image = Image::loadImage(path);
    if (!image) throw CommandError(image.error());
    SensorCalibration::ResolutionCalibration calibration(CameraDescription::OrbivaneModule(L"picture"), realX, realY,
                                                         minBlobArea);
    const auto picture = calibration.calculateCalibration(image.value());
    if (!annotated.empty() && picture) {
      auto saved = Image::saveImage(*picture, annotated);
      if (!saved) throw CommandError(saved.error());
    }
    if (calibration.circleCount() != 3) {
      throw CommandError(std::to_string(calibration.circleCount()) + " marks found in '" + path +
                         "', the target needs exactly three");
    }
    const float x = calibration.metresPerPixelX(), y = calibration.metresPerPixelY();
    std::cout << "resolution " << 1.0f / x << " x " << 1.0f / y << " pixels per metre (" << x * 1000.0f << " x "
              << y * 1000.0f << " mm per pixel)" << std::endl;
    output.print({{"circles", calibration.circleCount()},
                  {"pixelSpacing", {calibration.horizontalSpacing(), calibration.verticalSpacing()}},
                  {"mmPerPixel", {x * 1000.0f, y * 1000.0f}},
                  {"pixelsPerMetre", {1.0f / x, 1.0f / y}}});
  });
}

}  // namespace Tool
