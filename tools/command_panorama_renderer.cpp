// "panorama CAMERA.json --out PANO.png [--size WxH] [--grid] [--feather F]
// [--modules A,B | --exclude A,B]":
// draws the stitched panorama of a camera description through the shading
// renderer, so a calibration can be looked at before and after. --grid draws
// the module outlines, their names and the seams.
#include <cstdio>
#include <iostream>

#include "command_line.h"
#include "json_output.h"
#include "orbivane/camera/camera_file.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/rendering/panorama_renderer.h"
#include "orbivane/utils/wide_text.h"

namespace Tool {

Utils::Size parsePictureSize(const std::string& text) {
  int width = 0, height = 0;
  char x = 0, rest = 0;
  if (std::sscanf(text.c_str(), "%d%c%d%c", &width, &x, &height, &rest) != 3 || (x != 'x' && x != 'X') ||
      width <= 0 || height <= 0) {
    throw CommandError("a size is WIDTHxHEIGHT in pixels, e.g. 1920x600, not '" + text + "'");
  }
  return Utils::Size{width, height};
}

void addPanoramaCommand(CLI::App& app) {
  CLI::App* command = app.add_subcommand("panorama", "Draw the stitched panorama of a camera description");
  static std::string camera, out, size;
  static std::vector<std::string> modules, exclude;
  static bool grid = false, json = false;
  static double feather = 0.1;
  command->add_option("CAMERA", camera, "Camera description (JSON)")->required();
  command->add_option("--out", out, "Panorama picture to write (.png, .jpg, ...)")->required();
  command->add_option("--size", size, "Panorama size WIDTHxHEIGHT (default: the camera's, or from the pictures)");
  command->add_option("--modules", modules, "Draw only these modules (names separated by commas)")->delimiter(',');
  command->add_option("--exclude", exclude, "Leave these modules out (names separated by commas)")->delimiter(',');
  command->add_flag("--grid", grid, "Draw module outlines, names and seams");
  command->add_flag("--json", json, "Print {\"picture\", \"size\", \"drawn\", \"skipped\"} as one JSON object");
  command->add_option("--feather", feather, "Blending ramp as a share of a picture's shorter side (0..0.5)")
      ->capture_default_str();
  command->callback([] {
    JsonOutput output(json);
    OrbivaneRendering::PanoramaOptions options;
    if (!size.empty()) options.size = parsePictureSize(size);
    options.feather = feather;
    options.overlay = grid;
    for (const auto& name : modules) options.modules.push_back(Utils::fromUtf8(name));
    for (const auto& name : exclude) options.exclude.push_back(Utils::fromUtf8(name));
    auto loaded = CameraDescription::loadCameraFile(camera);
    if (!loaded) throw CommandError(loaded.error());
    checkOutputFile(out, cameraInputs(loaded.value(), camera), "--out");
    auto panorama = OrbivaneRendering::renderPanorama(loaded.value(), options);
    if (!panorama) throw CommandError(panorama.error());
    for (const auto& line : panorama.value().skipped) std::cout << line << "\n";
    for (const auto& line : panorama.value().notes) std::cerr << "orbivane-calibrate: " << line << "\n";
    if (panorama.value().drawn.empty()) throw CommandError("no module of '" + camera + "' could be drawn");
    auto saved = Image::saveMat(panorama.value().picture, out);
    if (!saved) throw CommandError(saved.error());
    std::cout << panorama.value().drawn.size() << " modules drawn into " << panorama.value().picture.cols << "x"
              << panorama.value().picture.rows << " panorama " << out << std::endl;
    std::vector<std::string> drawn;
    for (const auto& name : panorama.value().drawn) drawn.push_back(Utils::toUtf8(name));
    output.print({{"picture", out},
                  {"size", {panorama.value().picture.cols, panorama.value().picture.rows}},
                  {"drawn", drawn},
                  {"skipped", panorama.value().skipped},
                  {"notes", panorama.value().notes}});
  });
}

}  // namespace Tool
