// "fisheye IMAGE [--threshold T] [--annotated OUT.png] [--json]": finds the
// lens circle of a fisheye picture.
#include <iostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "command_line.h"
#include "json_output.h"
#include "lens_circle_check.h"
#include "orbivane/geometry_calibration/calibrator_options.h"
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
  cmd->add_flag("--json", json, "Print {\"centre\", \"radius\", \"warnings\"} as one JSON object");
  cmd->callback([] {
    JsonOutput output(json);
    if (const auto valid = GeometryCalibration::FisheyeOptions{threshold}.validate(); !valid) {
      throw CommandError("fisheye centring: " + valid.error());
    }
    if (!annotated.empty()) checkOutputFile(annotated, {path}, "--annotated");
    auto image = Image::loadImage(path);
    if (!image) throw CommandError(image.error());
    // The calibrator's own quality warning ("WARNING fisheyecenter: ...") is
    // part of the result: it goes into the document as well.
    SensorCalibration::FisheyeCalibration::CalibrationResults result;
    std::vector<std::string> warnings;
    const auto lines = JsonOutput::lines([&] {
      SensorCalibration::FisheyeCalibration calibration(CameraDescription::OrbivaneModule(L"picture"), threshold);
      result = calibration.calculateCalibration(image.value());
    });
    for (std::size_t i = 0; i < lines.size(); ++i) {
      if (lines[i].rfind("WARNING", 0) != 0) continue;
      std::string warning = lines[i];
      for (std::size_t k = i + 1; k < lines.size() && !lines[k].empty() && lines[k][0] == '\t'; ++k) {
        warning += " " + lines[k].substr(lines[k].find_first_not_of('\t'));
      }
      warnings.push_back(warning);
    }
    if (result.radius < 0) throw CommandError("no plausible lens circle in '" + path + "'");
    const LensCircleCheck check =
        checkLensCircle(Image::toMat(image.value()), threshold, result.x, result.y, result.radius);
    if (!check.plausible) throw CommandError("no lens circle in '" + path + "': " + check.reason);
    if (!annotated.empty()) {
      auto saved = Image::saveImage(*result.image, annotated);
      if (!saved) throw CommandError(saved.error());
    }
    std::cout << "centre " << result.x << " " << result.y << ", radius " << result.radius << std::endl;
    output.print({{"centre", {result.x, result.y}},
                  {"radius", result.radius},
                  {"brightInside", check.brightInside},
                  {"brightOutside", check.brightOutside},
                  {"warnings", warnings}});
  });
}

}  // namespace Tool
