// "find-frames RECORDINGS.json --out DIR": finds, per module of a recordings
// index, a moment without persons that is sharp and well exposed, writes the
// pictures (DIR/<module>.png) and a camera file DIR/camera.json whose modules
// carry them and connect to the index.
#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "command_line.h"
#include "json_output.h"
#include "staged_folder.h"
#include "orbivane/camera/camera_file.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/image_selection/smart_finder_image.h"
#include "orbivane/recordings/recordings_index.h"
#include "orbivane/utils/wide_text.h"
#include "interrupt_watch.h"
#include "progress.h"

namespace Tool {
namespace {

namespace fs = std::filesystem;
using OrbivaneCalibration::SmartFinderImage;

struct FindOptions {
  std::string recordings;
  std::string from;
  std::string to;
  std::string detector = "auto";
  std::string yoloDirectory;
  float confidence = 0.5f;
  int minPersonHeight = 0;
  double step = 0.0;
  int samples = 24;
  int moments = 1;
  double maxMotion = 0.002;
  double maxForeground = 0.02;
  int smallestPerson = 60;
  std::string out;
  bool json = false;
};

// A file name for a module: characters other than letters, digits, '-', '_'
// and '.' become '_'.
std::string fileNameFor(const std::string& module) {
  std::string name;
  for (char c : module) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                       c == '_' || c == '.';
    name += plain ? c : '_';
  }
  if (name.empty() || name == "." || name == "..") name = "_" + name;
  return name;
}

// `stem` + `extension`, or with "-2", "-3", ... before the extension when
// that name (compared without case) is taken; the name is then taken.
std::string uniqueFileName(const std::string& stem, const std::string& extension, std::set<std::string>& used) {
  const auto lower = [](std::string text) {
    for (char& c : text) c = char(std::tolower(static_cast<unsigned char>(c)));
    return text;
  };
  std::string name = stem + extension;
  for (int k = 2; used.count(lower(name)) != 0; ++k) name = stem + "-" + std::to_string(k) + extension;
  used.insert(lower(name));
  return name;
}

// The foreground of a frame: null when it was not measured.
nlohmann::json foregroundJson(const OrbivaneCalibration::SmartFinderFrame& f) {
  if (!f.foregroundMeasured) return nullptr;
  const cv::Rect& b = f.foregroundBox;
  return {{"share", f.foreground},
          {"largestBlob", f.foregroundBlob},
          {"largestBlobBox", {b.x, b.y, b.width, b.height}},
          {"personBlobs", f.foregroundPersons},
          {"noiseLevel", f.noiseLevel}};
}

// One sampled frame for --json.
nlohmann::json sampleJson(const OrbivaneCalibration::SmartFinderFrame& f) {
  nlohmann::json boxes = nlohmann::json::array();
  for (const cv::Rect& b : f.personBoxes) boxes.push_back({b.x, b.y, b.width, b.height});
  return {{"time", f.timeMs},   {"frame", f.frame},         {"persons", f.persons},
          {"personBoxes", boxes}, {"blur", f.blur},         {"motion", f.motion},
          {"exposure", f.exposure}, {"foreground", foregroundJson(f)}, {"free", f.isFree}};
}

OrbivaneCalibration::SmartFinderOptions finderOptionsOf(const FindOptions& options) {
  OrbivaneCalibration::SmartFinderOptions finderOptions;
  if (!options.from.empty()) finderOptions.fromMs = parseTimeOption(options.from, "--from");
  if (!options.to.empty()) finderOptions.toMs = parseTimeOption(options.to, "--to");
  finderOptions.stepSeconds = options.step;
  finderOptions.samples = options.samples;
  finderOptions.momentsPerModule = options.moments;
  finderOptions.maxMotion = options.maxMotion;
  finderOptions.maxForeground = options.maxForeground;
  finderOptions.smallestPersonHeight = options.smallestPerson;
  auto kind = OrbivaneCalibration::parsePersonDetectorKind(options.detector);
  if (!kind) throw CommandError("--detector: " + kind.error());
  finderOptions.detector.kind = kind.value();
  finderOptions.detector.confidence = options.confidence;
  finderOptions.detector.yoloDirectory = options.yoloDirectory;
  finderOptions.detector.minPersonHeight = options.minPersonHeight;
  const auto valid = finderOptions.validate();
  if (!valid) throw CommandError(valid.error());
  return finderOptions;
}

// The camera of a recordings index: its modules in order of appearance,
// each connected to the index.
CameraDescription::Orbivane cameraOfIndex(const Quarn::RecordingsIndex& index, const std::string& recordings) {
  const std::string indexPath = fs::absolute(recordings).lexically_normal().string();
  CameraDescription::Orbivane camera;
  camera.setName(Utils::fromUtf8(fs::path(recordings).stem().string()));
  for (const auto& r : index.recordings) {
    const std::wstring name = Utils::fromUtf8(r.module);
    if (camera.findModule(name)) continue;
    CameraDescription::OrbivaneModule module(name);
    Quarn::QuarnConnection connection;
    connection.backend = "recordings";
    connection.address = indexPath;
    connection.device = r.module;
    module.setConnection(connection);
    camera.addModule(module);
  }
  return camera;
}

// One line of what was found for a module.
void printFrame(const std::string& module, const OrbivaneCalibration::SmartFinderFrame& best, long freeFrames,
                std::size_t sampled) {
  std::cout << module << ": " << Quarn::formatTimestamp(best.timeMs) << " persons " << best.persons << " blur "
            << best.blur << " exposure " << best.exposure << " motion " << best.motion;
  if (best.foregroundMeasured) {
    std::cout << " foreground " << best.foreground << " largest blob " << best.foregroundBlob << " px";
  }
  std::cout << " (" << freeFrames << " of " << sampled << " sampled frames free)";
  if (best.builtBackground) std::cout << " no free frame: built background from " << best.framesUsed << " frames";
  std::cout << "\n";
}

// The --json record of a module's frames.
nlohmann::json framesJson(const std::vector<OrbivaneCalibration::SmartFinderFrame>& moments,
                          const std::vector<OrbivaneCalibration::SmartFinderFrame>& samples, long freeFrames,
                          const std::string& picturePath) {
  const auto& best = moments.front();
  nlohmann::json sampleList = nlohmann::json::array();
  for (const auto& f : samples) sampleList.push_back(sampleJson(f));
  nlohmann::json more = nlohmann::json::array();
  for (std::size_t i = 1; i < moments.size(); ++i) {
    more.push_back({{"time", moments[i].timeMs},
                    {"persons", moments[i].persons},
                    {"blur", moments[i].blur},
                    {"foreground", foregroundJson(moments[i])}});
  }
  return {{"time", best.timeMs},
          {"timeText", Quarn::formatTimestamp(best.timeMs)},
          {"persons", best.persons},
          {"blur", best.blur},
          {"exposure", best.exposure},
          {"motion", best.motion},
          {"foreground", foregroundJson(best)},
          {"freeFrames", freeFrames},
          {"brightness", best.brightness},
          {"background", best.builtBackground},
          {"framesUsed", best.framesUsed},
          {"track", best.track},
          {"frame", best.frame},
          {"picture", picturePath},
          {"more", more},
          {"samples", sampleList}};
}

// A module without a picture (a missing or unreadable video, say) fails the
// run: nothing is put in place, an earlier run's output stays whole.
void refuseMissingPictures(const std::map<std::wstring, std::string>& errors) {
  if (errors.empty()) return;
  const auto& first = *errors.begin();
  throw CommandError("no picture for module '" + Utils::toUtf8(first.first) + "': " + first.second +
                     (errors.size() > 1 ? " (and " + std::to_string(errors.size() - 1) + " more)" : "") +
                     "; nothing written");
}

// Interrupted: the modules done so far stay, the others are left out (their
// names returned), so the camera written has a picture for every module.
std::vector<std::string> keepModulesDone(CameraDescription::Orbivane& camera) {
  std::vector<std::string> notDone;
  auto& modules = camera.modules();
  for (auto it = modules.begin(); it != modules.end();) {
    if ((*it)->image()) {
      ++it;
      continue;
    }
    notDone.push_back(Utils::toUtf8((*it)->name()));
    it = modules.erase(it);
  }
  if (modules.empty()) {
    exitStatus() = kExitInterrupted;
    throw CommandError("interrupted before any module had a picture; nothing written");
  }
  return notDone;
}

void runFind(const FindOptions& options) {
  // Ctrl-C stops the search; the pictures and camera.json are still put in place.
  const InterruptWatch finishing([] {});
  JsonOutput output(options.json);
  auto index = Quarn::loadRecordingsIndex(options.recordings);
  if (!index) throw CommandError(index.error());
  if (index.value().recordings.empty()) throw CommandError(options.recordings + ": lists no recordings");
  const OrbivaneCalibration::SmartFinderOptions finderOptions = finderOptionsOf(options);
  const CameraDescription::Orbivane camera = cameraOfIndex(index.value(), options.recordings);

  // The pictures and camera.json are written beside the folder and put in
  // place together at the end: a run that fails leaves what was there.
  checkOutputFolder(options.out, "--out");
  StagedFolder staged(options.out, true);

  SmartFinderImage finder(camera);
  finder.setOptions(finderOptions);
  Progress progress("finding frames");
  finder.registerStatusCallback(progress.callback());
  bool interrupted = false;
  auto found = [&] {
    const InterruptWatch watch([&finder] { finder.abort(); });
    auto result = finder.find();
    interrupted = watch.interrupted();
    return result;
  }();
  progress.finish(!interrupted);
  if (!found) throw CommandError(found.error());

  // Each module's best frame: its picture, a line and its record.
  nlohmann::json frames = nlohmann::json::object();
  auto sampled = finder.samples();
  CameraDescription::Orbivane result = camera;
  std::set<std::string> usedFiles;  // lower case: one file per module on any file system
  for (const auto& [name, moments] : found.value()) {
    if (moments.empty() || !moments.front().picture) continue;
    const std::string utf8 = Utils::toUtf8(name);
    const auto& best = moments.front();
    const std::string fileName = uniqueFileName(fileNameFor(utf8), ".png", usedFiles);
    const auto saved = Image::saveImage(*best.picture, staged.file(fileName));
    if (!saved) throw CommandError(saved.error());
    const auto module = result.findModule(name);
    module->setImage(best.picture);
    module->setImagePath(staged.file(fileName));
    const auto& samples = sampled[name];
    const auto freeFrames = long(std::count_if(samples.begin(), samples.end(), [](const auto& f) { return f.isFree; }));
    printFrame(utf8, best, freeFrames, samples.size());
    frames[utf8] = framesJson(moments, samples, freeFrames, (fs::path(options.out) / fileName).string());
  }
  // Ctrl-C keeps what was found.
  if (!interrupted) refuseMissingPictures(finder.errors());
  const std::vector<std::string> notDone = interrupted ? keepModulesDone(result) : std::vector<std::string>();

  const std::string cameraPath = (fs::path(options.out) / "camera.json").string();
  const auto savedCamera = CameraDescription::saveCameraFile(result, staged.file("camera.json"));
  if (!savedCamera) throw CommandError(savedCamera.error());
  staged.commit();
  std::cout << "detector: " << finder.detectorDescription() << "\n";
  if (interrupted) {
    std::cout << "interrupted: wrote the modules done so far";
    for (std::size_t i = 0; i < notDone.size(); ++i) std::cout << (i == 0 ? "; left out: " : ", ") << notDone[i];
    std::cout << "\n";
  }
  std::cout << "wrote " << cameraPath << std::endl;
  output.print({{"frames", frames}});
  if (interrupted || finishing.interrupted()) exitStatus() = kExitInterrupted;
}

}  // namespace

void addFindFramesCommand(CLI::App& app) {
  CLI::App* command = app.add_subcommand(
      "find-frames", "Find moments without persons in a camera's recordings and write them as pictures");
  command->alias("smart-finder-image");  // the calibrator's own name (SmartFinderImage)
  static FindOptions options;
  command->add_option("RECORDINGS", options.recordings, "Recordings index (JSON)")->required();
  command->add_option("--from", options.from, "Start of the time window (ISO-8601 UTC or ms since the epoch)");
  command->add_option("--to", options.to, "End of the time window (ISO-8601 UTC or ms since the epoch)");
  command->add_option("--detector", options.detector, "Person detector: auto, hog, haar, yolo or maskrcnn")
      ->capture_default_str();
  command->add_option("--yolo-dir", options.yoloDirectory, "Folder with the YOLO network files");
  command->add_option("--confidence", options.confidence, "Smallest detection confidence counted as a person")
      ->check(CLI::Range(0.0, 1.0))
      ->capture_default_str();
  command->add_option("--min-person-height", options.minPersonHeight,
                      "Persons shorter than this many pixels are ignored (0: no limit)")
      ->check(CLI::Range(0, 100000))
      ->capture_default_str();
  command->add_option("--step", options.step, "Seconds between sampled frames (default: --samples spread evenly)")
      ->check(CLI::Range(0.0, 1e9));
  command->add_option("--samples", options.samples, "Frames sampled per module when no --step is given")
      ->check(CLI::Range(1, 10000))
      ->capture_default_str();
  command->add_option("--moments", options.moments, "Moments reported per module (the best is written)")
      ->check(CLI::Range(1, 100))
      ->capture_default_str();
  command->add_option("--max-motion", options.maxMotion,
                      "Largest share of moving pixels of a still frame (0..1; 1 accepts any motion)")
      ->check(CLI::Range(0.0, 1.0))
      ->capture_default_str();
  command->add_option("--max-foreground", options.maxForeground,
                      "Largest share of a free frame's pixels that may differ from the empty scene (0..1)")
      ->check(CLI::Range(0.0, 1.0))
      ->capture_default_str();
  command->add_option("--smallest-person", options.smallestPerson,
                      "Height in pixels of the smallest person a blob of foreground stands for")
      ->check(CLI::Range(8, 2000))
      ->capture_default_str();
  command->add_option("--out", options.out, "Folder for the pictures and camera.json")->required();
  command->add_flag("--json", options.json, "Print the chosen frames as one JSON object on the last line");
  command->callback([] { runFind(options); });
}

}  // namespace Tool
