// "neighbour CAMERA.json --modules A,B,C --out OUT.json": stitches a chain of
// neighbouring modules and writes the corrected camera file.
#include <cmath>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "command_line.h"
#include "json_output.h"
#include "orbivane/camera/camera_file.h"
#include "orbivane/geometry_calibration/calibrator_options.h"
#include "orbivane/geometry_calibration/matrix_based/neighbour_neighbour.h"
#include "orbivane/utils/wide_text.h"
#include "progress.h"
#include "report_json.h"

namespace Tool {
namespace {

struct NeighbourOptions {
  std::string camera;
  std::vector<std::string> modules;
  std::string reference;
  int levels = 4;
  int iterations = 6;
  float step = 1.0f;
  std::string out;
  bool json = false;
};

std::string knownModules(const CameraDescription::Orbivane& camera) {
  std::string list;
  for (const auto& module : camera.modules()) list += (list.empty() ? "" : ", ") + Utils::toUtf8(module->name());
  return list.empty() ? "none" : list;
}

void runNeighbour(const NeighbourOptions& options) {
  JsonOutput output(options.json);
  const GeometryCalibration::NeighbourOptions settings{options.levels, options.iterations, options.step};
  if (const auto valid = settings.validate(); !valid) throw CommandError("neighbour stitching: " + valid.error());
  auto loaded = CameraDescription::loadCameraFile(options.camera);
  if (!loaded) throw CommandError(loaded.error());
  const CameraDescription::Orbivane& camera = loaded.value();
  checkOutputFile(options.out, cameraInputs(camera, options.camera), "--out");

  std::list<std::wstring> chain;
  std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images;
  for (const auto& name : options.modules) {
    const std::wstring wide = Utils::fromUtf8(name);
    const auto module = camera.findModule(wide);
    if (!module) {
      throw CommandError("unknown module '" + name + "' in " + options.camera + " (modules: " + knownModules(camera) +
                         ")");
    }
    if (!module->image()) throw CommandError("module '" + name + "' has no picture in " + options.camera);
    chain.push_back(wide);
    images[wide] = module->image();
  }
  if (!options.reference.empty()) {
    bool listed = false;
    for (const auto& name : options.modules) listed = listed || name == options.reference;
    if (!listed) throw CommandError("reference '" + options.reference + "' is not one of the --modules");
  }

  GeometryCalibration::MatrixBased::NeighbourNeighbour calibrator(camera, std::move(images), options.levels,
                                                                  options.iterations, options.step);
  Progress progress("neighbour stitching");
  calibrator.registerStatusCallback(progress.callback());
  CameraDescription::Orbivane result;
  try {
    result = calibrator.calibrate(chain, Utils::fromUtf8(options.reference));
  } catch (const std::out_of_range& e) {
    throw CommandError(std::string("neighbour stitching: ") + e.what());
  }
  progress.finish();

  const auto saved = CameraDescription::saveCameraFile(result, options.out);
  if (!saved) throw CommandError(saved.error());

  nlohmann::json pairs = nlohmann::json::array();
  int notMeasured = 0;
  for (const auto& pair : calibrator.pairReports()) {
    const std::string first = Utils::toUtf8(pair.first);
    const std::string second = Utils::toUtf8(pair.second);
    pairs.push_back(pairReportJson(pair));
    if (pair.measured) {
      std::cout << first << " -> " << second << ": dx " << pair.dx << ", dy " << pair.dy << " (surface units), "
                << pair.shiftPx << " px, correlation " << pair.correlation << "\n";
    } else {
      ++notMeasured;
      std::cout << first << " -> " << second << ": not measured (" << pair.reason << ")\n";
      std::cerr << "orbivane-calibrate: pair " << first << " -> " << second << " not measured: " << pair.reason
                << "\n";
    }
  }
  std::cout << "wrote " << options.out << std::endl;
  output.print({{"pairs", pairs}});
  if (notMeasured > 0) exitStatus() = kExitFailedModules;
}

}  // namespace

void addNeighbourCommand(CLI::App& app) {
  CLI::App* command =
      app.add_subcommand("neighbour", "Stitch a chain of neighbouring modules and write the corrected camera file");
  static NeighbourOptions options;
  command->add_option("CAMERA", options.camera, "Camera file (JSON) with the modules' pictures")->required();
  command->add_option("--modules", options.modules, "Module names in stitching order, separated by commas")
      ->required()
      ->delimiter(',');
  command->add_option("--reference", options.reference,
                      "Module that keeps its place (default: the chain's middle stays put, drift spread to both ends)");
  command->add_option("--levels", options.levels, "Most pyramid levels the alignment may use (1..30)")
      ->capture_default_str();
  command->add_option("--iterations", options.iterations, "Alignment steps on each level (1..1000)")
      ->capture_default_str();
  command->add_option("--step", options.step, "Factor each alignment update is scaled by (0 < S <= 2)")
      ->capture_default_str();
  command->add_option("--out", options.out, "Where to write the corrected camera file")->required();
  command->add_flag("--json", options.json, "Print each pair's record as one JSON object on the last line");
  command->callback([] { runNeighbour(options); });
}

}  // namespace Tool
