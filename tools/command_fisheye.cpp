// "fisheye IMAGE [--threshold T] [--annotated OUT.png] [--json]": finds the
// lens circle of a fisheye picture.
#include <iostream>

#include <nlohmann/json.hpp>

#include "command_line.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/sensor_calibration/fisheye_calibration.h"

namespace Tool {

void addFisheyeCommand(CLI::App& app) {
  CLI::App* cmd = app.add_subcommand("fisheye", "Find the lens circle of a fisheye picture");
  static std::string path, annotated;
  static int threshold = 97;
  static bool json = false;
  cmd->add_option("IMAGE", path, "Picture file")->required();
  cmd->add_option("--threshold", threshold, "Grey threshold of the lens circle (0..255)")->capture_default_str();
  cmd->add_option("--annotated", annotated, "Write the picture with the circle drawn in");
  cmd->add_flag("--json", json, "Print the result as one JSON object");
  cmd->callback([] {
    auto image = Image::loadImage(path);
    if (!image) throw CommandError(image.error());
    SensorCalibration::FisheyeCalibration calibration(CameraDescription::OrbivaneModule(L"picture"), threshold);
    const auto result = calibration.calculateCalibration(image.value());
    if (result.radius < 0) throw CommandError("no plausible lens circle in '" + path + "'");
    if (!annotated.empty()) {
      auto saved = Image::saveImage(*result.image, annotated);
      if (!saved) throw CommandError(saved.error());
    }
    if (json) {
      std::cout << nlohmann::json{{"centre", {result.x, result.y}}, {"radius", result.radius}}.dump() << std::endl;
    } else {
      std::cout << "centre " << result.x << " " << result.y << ", radius " << result.radius << std::endl;
    }
  });
}

}  // namespace Tool
