// "match-to-target CAMERA.json --target NAME --out OUT.json": aligns modules
// to a target module's picture and writes the corrected camera file. With
// "--recordings RECORDINGS.json" the pictures come from the recordings: for
// each module a moment without persons (SmartFinderMatchToTarget).
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "command_line.h"
#include "json_output.h"
#include "orbivane/camera/camera_file.h"
#include "orbivane/geometry_calibration/calibrator_options.h"
#include "orbivane/geometry_calibration/matrix_based/match_to_target.h"
#include "orbivane/image_selection/smart_finder_match_to_target.h"
#include "orbivane/recordings/recordings_index.h"
#include "orbivane/utils/wide_text.h"
#include "interrupt_watch.h"
#include "progress.h"
#include "report_json.h"

namespace Tool {
namespace {

using GeometryCalibration::MatrixBased::MatchToTarget;

struct MatchOptions {
  std::string camera;
  std::string target;
  std::vector<std::string> modules;
  int mode = 0;
  std::string grid;
  std::uint64_t m2b = 5;
  std::uint64_t m2n = 1;
  float allowScale = 0.0f;
  std::string out;
  bool json = false;
  // Pictures from recordings.
  std::string recordings;
  std::string from;
  std::string to;
  std::string detector = "auto";
};

// Runs a calibrator with a progress bar and Ctrl-C turned into abort(),
// writes the camera file and prints the errors.
template <typename Calibrator, typename Report>
void runCalibrator(Calibrator& calibrator, const std::list<std::wstring>& names, const std::wstring& target,
                   const MatchOptions& options, Report report) {
  Progress progress("target matching");
  calibrator.registerStatusCallback(progress.callback());
  CameraDescription::Orbivane result;
  bool interrupted = false;
  {
    const InterruptWatch watch([&calibrator] { calibrator.abort(); });
    result = calibrator.calibrate(names, target);
    interrupted = watch.interrupted();
  }
  progress.finish(!interrupted);

  const auto saved = CameraDescription::saveCameraFile(result, options.out);
  if (!saved) throw CommandError(saved.error());
  // An interrupted run returns before the errors are normalised: they are
  // not on the scale the mode documents, so none are reported.
  nlohmann::json errors = nlohmann::json::object();
  if (!interrupted) {
    // A failed module's error is the largest float in the library; here it
    // is null, no number a reader could take for a measurement.
    for (const auto& [name, value] : calibrator.error())
      errors[Utils::toUtf8(name)] = value < 3.0e38f ? nlohmann::json(value) : nlohmann::json(nullptr);
  }
  nlohmann::json modules = nlohmann::json::object();
  int notAligned = 0;
  for (const auto& [name, verdict] : calibrator.moduleReports()) {
    const std::string text = Utils::toUtf8(name);
    modules[text] = moduleReportJson(verdict);
    std::cout << text << ": " << GeometryCalibration::statusName(verdict.status);
    if (verdict.error < 3.0e38f) std::cout << ", error " << verdict.error;
    if (std::isfinite(verdict.residualPx)) std::cout << ", residual " << verdict.residualPx << " px";
    if (std::isfinite(verdict.correlation)) std::cout << ", correlation " << verdict.correlation;
    if (verdict.movedPx > 0) std::cout << ", moved " << verdict.movedPx << " px";
    if (!verdict.reason.empty()) std::cout << " (" << verdict.reason << ")";
    std::cout << "\n";
    // A module kept in place is where its pictures say it belongs: no failure.
    if (verdict.status != GeometryCalibration::ModuleStatus::aligned &&
        verdict.status != GeometryCalibration::ModuleStatus::kept) {
      ++notAligned;
      std::cerr << "orbivane-calibrate: module " << text << " " << GeometryCalibration::statusName(verdict.status)
                << ": " << verdict.reason << "\n";
    }
  }
  report();
  if (interrupted) std::cout << "interrupted: wrote the modules done so far\n";
  std::cout << "wrote " << options.out << std::endl;
  JsonOutput::printActive({{"modules", modules}, {"errors", errors}, {"interrupted", interrupted}});
  if (interrupted) {
    exitStatus() = kExitInterrupted;
  } else if (notAligned > 0) {
    exitStatus() = kExitFailedModules;
  }
}

using Images = std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>>;

// Connects the modules the recordings index lists to it; returns their names.
std::set<std::string> connectRecordings(CameraDescription::Orbivane& camera, const std::string& recordings) {
  auto index = Quarn::loadRecordingsIndex(recordings);
  if (!index) throw CommandError(index.error());
  const std::string indexPath = std::filesystem::absolute(recordings).lexically_normal().string();
  std::set<std::string> recorded;
  for (const auto& r : index.value().recordings) recorded.insert(r.module);
  for (const auto& module : camera.modules()) {
    const std::string name = Utils::toUtf8(module->name());
    if (recorded.count(name) == 0) continue;
    Quarn::QuarnConnection connection;
    connection.backend = "recordings";
    connection.address = indexPath;
    connection.device = name;
    module->setConnection(connection);
  }
  return recorded;
}

// The modules to match: --modules in order (each once), else all but the target.
std::list<std::wstring> modulesToMatch(const CameraDescription::Orbivane& camera, const MatchOptions& options,
                                       const std::wstring& target) {
  std::list<std::wstring> names;
  if (options.modules.empty()) {
    for (const auto& module : camera.modules())
      if (module->name() != target) names.push_back(module->name());
    return names;
  }
  for (const auto& name : options.modules) {
    const std::wstring wide = Utils::fromUtf8(name);
    if (!camera.findModule(wide)) throw CommandError("unknown module '" + name + "' in " + options.camera);
    if (std::find(names.begin(), names.end(), wide) != names.end()) {
      std::cerr << "orbivane-calibrate: module " << name << " is listed more than once; calibrated once\n";
      continue;
    }
    names.push_back(wide);
  }
  return names;
}

// The settings, checked by the library's own rules.
GeometryCalibration::MatchOptions matchSettings(const MatchOptions& options) {
  GeometryCalibration::MatchOptions settings;
  settings.mode = options.mode;
  settings.m2b = options.m2b;
  settings.m2n = options.m2n;
  settings.allowScale = options.allowScale;
  if (!options.grid.empty()) {
    const auto parsed = settings.parseGrid(options.grid);
    if (!parsed) throw CommandError("--grid: " + parsed.error());
  }
  if (const auto valid = settings.validate(); !valid) throw CommandError("target matching: " + valid.error());
  return settings;
}

// Target matching on pictures picked from the recordings.
void matchFromRecordings(CameraDescription::Orbivane& camera, Images images, const MatchOptions& options,
                         const GeometryCalibration::MatchOptions& settings, const std::list<std::wstring>& names,
                         const std::wstring& target) {
  OrbivaneCalibration::SmartFinderOptions finderOptions;
  if (!options.from.empty()) finderOptions.fromMs = parseTimeOption(options.from, "--from");
  if (!options.to.empty()) finderOptions.toMs = parseTimeOption(options.to, "--to");
  auto kind = OrbivaneCalibration::parsePersonDetectorKind(options.detector);
  if (!kind) throw CommandError("--detector: " + kind.error());
  finderOptions.detector.kind = kind.value();
  const auto valid = finderOptions.validate();
  if (!valid) throw CommandError(valid.error());
  OrbivaneCalibration::SmartFinderMatchToTarget smart(camera, std::move(images));
  smart.setFinderOptions(finderOptions);
  GeometryCalibration::applyMatchOptions(smart, settings, names);
  runCalibrator(smart, names, target, options, [&smart] {
    for (const auto& [name, moments] : smart.frames()) {
      if (moments.empty()) continue;
      std::cout << Utils::toUtf8(name) << ": picture of " << Quarn::formatTimestamp(moments.front().timeMs)
                << (moments.front().builtBackground ? " (built background)" : "") << "\n";
    }
    for (const auto& [name, why] : smart.finderErrors()) {
      std::cout << Utils::toUtf8(name) << ": no picture from the recordings: " << why << "\n";
    }
  });
}

void runMatch(const MatchOptions& options) {
  JsonOutput output(options.json);
  auto loaded = CameraDescription::loadCameraFile(options.camera);
  if (!loaded) throw CommandError(loaded.error());
  CameraDescription::Orbivane& camera = loaded.value();
  checkOutputFile(options.out, cameraInputs(camera, options.camera), "--out");
  const bool fromRecordings = !options.recordings.empty();
  if (!fromRecordings && (!options.from.empty() || !options.to.empty() || options.detector != "auto")) {
    throw CommandError("--from, --to and --detector need --recordings");
  }
  // Modules the index has recordings of reach them through it.
  const std::set<std::string> recorded = fromRecordings ? connectRecordings(camera, options.recordings) : std::set<std::string>();

  const std::wstring target = Utils::fromUtf8(options.target);
  const auto targetModule = camera.findModule(target);
  if (!targetModule) throw CommandError("unknown target module '" + options.target + "' in " + options.camera);
  const bool targetRecorded = recorded.count(options.target) != 0;
  if (!targetModule->image() && !targetRecorded) {
    throw CommandError("target module '" + options.target + "' has no picture" +
                       (fromRecordings ? " and no recordings" : ""));
  }
  const std::list<std::wstring> names = modulesToMatch(camera, options, target);
  Images images;
  // From recordings, a target with recordings uses its own picked frame.
  if (!targetRecorded) images[target] = targetModule->image();
  for (const auto& name : names) {
    const auto module = camera.findModule(name);
    if (module && module->image()) images[name] = module->image();
  }
  const GeometryCalibration::MatchOptions settings = matchSettings(options);

  if (fromRecordings) {
    matchFromRecordings(camera, std::move(images), options, settings, names, target);
    return;
  }
  MatchToTarget calibrator(camera, std::move(images));
  GeometryCalibration::applyMatchOptions(calibrator, settings, names);
  runCalibrator(calibrator, names, target, options, [] {});
}

}  // namespace

void addMatchToTargetCommand(CLI::App& app) {
  CLI::App* command = app.add_subcommand(
      "match-to-target", "Align modules to a target module's picture and write the corrected camera file");
  static MatchOptions options;
  command->add_option("CAMERA", options.camera, "Camera file (JSON) with the modules' pictures")->required();
  command->add_option("--target", options.target, "The module whose picture the others are aligned to")->required();
  command->add_option("--modules", options.modules, "Modules to align, separated by commas (default: all others)")
      ->delimiter(',');
  command->add_option("--mode", options.mode,
                      "0 features + refinement, 1 keep (measure only), 2 optical flow, 3 iterative")
      ->capture_default_str();
  command->add_option("--grid", options.grid, "Also refine a COLSxROWS UV grid per module (mode 0)");
  command->add_option("--m2b", options.m2b, "Matching rounds per module in mode 3 (1..100)")->capture_default_str();
  command->add_option("--m2n", options.m2n, "Runs in a row in mode 3 (1..100)")->capture_default_str();
  command->add_option("--allow-scale", options.allowScale,
                      "Work scale: > 0 fixed, < 0 the target's own resolution, 0 from the placement")
      ->capture_default_str();
  command->add_option("--out", options.out, "Where to write the corrected camera file")->required();
  command->add_flag("--json", options.json,
                    "Print each module's verdict and the errors as one JSON object on the last line");
  command->add_option("--recordings", options.recordings,
                      "Recordings index: take each module's picture from a moment of its recordings without persons");
  command->add_option("--from", options.from, "With --recordings: start of the time window (ISO-8601 UTC or ms)");
  command->add_option("--to", options.to, "With --recordings: end of the time window (ISO-8601 UTC or ms)");
  command->add_option("--detector", options.detector,
                      "With --recordings: person detector auto, hog, haar, yolo, maskrcnn")
      ->capture_default_str();
  command->callback([] { runMatch(options); });
}

}  // namespace Tool
