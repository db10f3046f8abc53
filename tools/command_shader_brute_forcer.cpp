// "shader-search CAMERA.json --module NAME --reference IMAGE --out-dir DIR":
// searches a module's lens distortion parameters on the fixed grid and
// writes the ten best camera files. "--shard I/N" searches only part of the
// grid and writes a shard file instead; "shader-merge" joins shard files
// into the result of the whole search.
//
// Shard file (JSON, DIR/shard-I-of-N.json):
//   {"format": "orbivane-shader-shard", "version": 1, "module": NAME,
//    "shard": [I, N], "gridSize": G,
//    "best": [{"error": e, "index": k, "parameters": {name: value, ...}}, ...]}
// where k is the result's place in the whole grid's walk order, so merged
// shards keep ties exactly as the whole search does.
#include <cstdint>
#include <cstdio>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "command_line.h"
#include "json_output.h"
#include "digest.h"
#include "interrupt_watch.h"
#include "shard_file.h"
#include "staged_folder.h"
#include "orbivane/camera/camera_file.h"
#include "orbivane/geometry_calibration/matrix_based/shader_brute_forcer.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/utils/atomic_file.h"
#include "orbivane/utils/wide_text.h"
#include "progress.h"

namespace Tool {
namespace {

using GeometryCalibration::MatrixBased::ShaderBruteForcer;

struct SearchOptions {
  std::string camera;
  std::string module;
  std::string reference;
  std::string outDir;
  std::string shard;
  bool json = false;
};

struct MergeOptions {
  std::string camera;
  std::vector<std::string> shards;
  std::string outDir;
  bool json = false;
};

nlohmann::json parametersJson(const std::map<std::string, float>& parameters) {
  nlohmann::json out = nlohmann::json::object();
  for (const auto& p : parameters) out[p.first] = p.second;
  return out;
}

// Writes the cameras best first (best-0.json, best-1.json, ...) and prints
// the ranking. The ten files are put in place together (other files of the
// folder, shard files say, stay); best files of an earlier, longer list that
// this one does not reach are removed with it.
void writeResults(const CameraDescription::Orbivane& camera, const std::string& module,
                  const std::list<ShaderBruteForcer::Result>& results, const std::string& outDir, bool printJson) {
  StagedFolder staged(outDir, true);
  for (int stale = int(results.size());; ++stale) {
    std::error_code ec;
    if (!std::filesystem::remove(staged.file("best-" + std::to_string(stale) + ".json"), ec)) break;
  }
  nlohmann::json best = nlohmann::json::array();
  int place = 0;
  for (const auto& result : results) {
    const auto withValues = ShaderBruteForcer::cameraWithParameters(camera, Utils::fromUtf8(module), result.parameters);
    const std::string name = "best-" + std::to_string(place) + ".json";
    const auto saved = CameraDescription::saveCameraFile(withValues, staged.file(name));
    if (!saved) throw CommandError(saved.error());
    std::cout << "wrote " << outDir << "/" << name << " (error " << result.error << ")\n";
    best.push_back({{"error", result.error}, {"parameters", parametersJson(result.parameters)}});
    ++place;
  }
  if (results.empty()) {
    std::cout << "no rendering could be scored: nothing written\n";
  } else {
    staged.commit();
  }
  std::cout << std::flush;
  if (printJson) JsonOutput::printActive({{"best", best}});
}

// Fingerprints of what a search runs on (see shard_file.h).
std::string pictureDigest(const std::string& name, const cv::Mat& picture) {
  Digest digest;
  digest.add(name + '\0');
  const int size[] = {picture.rows, picture.cols, picture.type()};
  digest.add(size, sizeof size);
  for (int y = 0; y < picture.rows; ++y) digest.add(picture.ptr(y), picture.cols * picture.elemSize());
  return digest.hex();
}

std::string gridDigest(const ShaderBruteForcer::ParameterList& grid) {
  Digest digest;
  for (const auto& [name, range] : grid) {
    digest.add(name + '\0');
    const float values[] = {range.min, range.max, range.step};
    digest.add(values, sizeof values);
  }
  return digest.hex();
}

std::string fileDigest(const std::string& path) {
  Digest digest;
  if (!digest.addFile(path)) throw CommandError("cannot read '" + path + "'");
  return digest.hex();
}

// The reference's picture: a module of the camera by name, or a picture file.
std::shared_ptr<Image::UniversalImageInterface> referencePicture(const CameraDescription::Orbivane& camera,
                                                                 const std::string& reference) {
  const auto module = camera.findModule(Utils::fromUtf8(reference));
  if (module && module->image()) return module->image();
  auto picture = Image::loadImage(reference);
  if (!picture) throw CommandError(picture.error());
  return picture.value();
}

std::pair<int, int> parseShard(const std::string& text) {
  const std::size_t slash = text.find('/');
  try {
    if (slash == std::string::npos) throw std::invalid_argument(text);
    std::size_t used = 0;
    const int index = std::stoi(text.substr(0, slash), &used);
    if (used != slash) throw std::invalid_argument(text);
    const std::string rest = text.substr(slash + 1);
    const int count = std::stoi(rest, &used);
    if (used != rest.size() || count < 1 || index < 0 || index >= count) throw std::invalid_argument(text);
    return {index, count};
  } catch (const std::exception&) {
    throw CommandError("--shard '" + text + "': expected I/N with 0 <= I < N");
  }
}

// Memory the system can give without swapping (MemAvailable), bytes; 0
// when it cannot be read.
std::uint64_t availableMemory() {
  std::ifstream meminfo("/proc/meminfo");
  std::string key;
  std::uint64_t kilobytes = 0;
  std::string unit;
  while (meminfo >> key >> kilobytes >> unit) {
    if (key == "MemAvailable:") return kilobytes * 1024;
  }
  return 0;
}

// Says what the search will take before it starts, and refuses one that
// would not fit in memory.
void announcePlan(const ShaderBruteForcer::Plan& plan, const std::string& reference) {
  if (plan.bytes == 0) return;  // nothing to render: the search says why
  const std::uint64_t megabytes = (plan.bytes >> 20) + 1;
  char text[320];
  std::snprintf(text, sizeof text,
                "%llu renderings of %dx%d pixels (the module's %dx%d pixels of the reference '%s', at a quarter of "
                "their size) on %d thread(s), about %llu MB",
                static_cast<unsigned long long>(plan.renderings), plan.renderedWidth, plan.renderedHeight,
                plan.rectangleWidth, plan.rectangleHeight, reference.c_str(), plan.threads,
                static_cast<unsigned long long>(megabytes));
  const std::uint64_t available = availableMemory();
  if (available > 0 && plan.bytes > available) {
    throw CommandError("shader search: " + std::string(text) + ", but only " + std::to_string(available >> 20) +
                       " MB of memory are free: give a smaller reference picture or free memory first");
  }
  std::cerr << "shader search: " << text << "\n";
}

// Times a sample of the search and says how long the whole will take.
void announceTime(const ShaderBruteForcer& forcer, const std::wstring& module, const std::wstring& reference) {
  const double seconds = forcer.estimateSeconds(module, reference);
  if (seconds <= 0.0) return;
  char text[160];
  if (seconds < 120.0) {
    std::snprintf(text, sizeof text, "shader search: about %.0f s on this machine (a sample of it timed)", std::ceil(seconds));
  } else {
    std::snprintf(text, sizeof text, "shader search: about %.0f min on this machine (a sample of it timed)",
                  std::ceil(seconds / 60.0));
  }
  std::cerr << text << std::endl;
}

// Searches and writes the best cameras or the shard; an interrupted search
// writes nothing.
void searchAndWrite(const SearchOptions& options) {
  JsonOutput output(options.json);
  auto loaded = CameraDescription::loadCameraFile(options.camera);
  if (!loaded) throw CommandError(loaded.error());
  const CameraDescription::Orbivane& camera = loaded.value();
  checkOutputFolder(options.outDir, "--out-dir");
  const std::wstring module = Utils::fromUtf8(options.module);
  const auto found = camera.findModule(module);
  if (!found) throw CommandError("unknown module '" + options.module + "' in " + options.camera);
  if (!found->image()) throw CommandError("module '" + options.module + "' has no picture in " + options.camera);

  std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images;
  images[module] = found->image();
  // The reference: a module of the camera by name, or a picture file.
  const std::wstring reference = Utils::fromUtf8(options.reference);
  images[reference] = referencePicture(camera, options.reference);

  ShaderBruteForcer forcer(camera, images);
  int shardIndex = 0, shardCount = 1;
  if (!options.shard.empty()) {
    std::tie(shardIndex, shardCount) = parseShard(options.shard);
    forcer.setShard(shardIndex, shardCount);
  }
  announcePlan(forcer.plan(module, reference), options.reference);
  announceTime(forcer, module, reference);
  Progress progress("shader search");
  forcer.registerStatusCallback(progress.callback());
  try {
    const InterruptWatch watch([&forcer] { forcer.abort(); });
    forcer.searchForBestParameters(module, reference);
  } catch (const std::out_of_range& e) {
    throw CommandError(std::string("shader search: ") + e.what());
  } catch (const std::runtime_error& e) {
    throw CommandError(std::string("shader search: ") + e.what() + " (module '" + options.module +
                       "' names shader '" +
                       (found->geometry() ? found->geometry()->shaderId() : std::string()) + "')");
  }
  if (forcer.aborted()) {
    // Part of the grid says nothing of the rest: nothing is written.
    progress.finish(false);
    exitStatus() = kExitInterrupted;
    std::cerr << "orbivane-calibrate: shader search interrupted after " << forcer.evaluationCount()
              << " renderings: nothing written\n";
    return;
  }
  progress.finish();
  std::cout << "\n" << forcer.evaluationCount() << " renderings scored\n";

  if (forcer.results().empty()) {
    exitStatus() = kExitFailedModules;
    std::cerr << "orbivane-calibrate: no rendering of module '" << options.module
              << "' could be scored against the reference; nothing written\n";
  }
  if (options.shard.empty()) {
    writeResults(camera, options.module, forcer.results(), options.outDir, options.json);
    return;
  }
  if (forcer.results().empty()) return;
  nlohmann::json best = nlohmann::json::array();
  for (const auto& result : forcer.results()) {
    best.push_back(
        {{"error", result.error}, {"index", result.gridIndex}, {"parameters", parametersJson(result.parameters)}});
  }
  nlohmann::json shard{{"format", "orbivane-shader-shard"},
                             {"version", 1},
                             {"module", options.module},
                             {"shard", {shardIndex, shardCount}},
                             {"gridSize", ShaderBruteForcer::gridSize(ShaderBruteForcer::defaultParameterList())},
                             {"best", best}};
  shard["searched"] = {{"camera", fileDigest(options.camera)},
                       {"module", pictureDigest(options.module, Image::toMat(found->image()))},
                       {"reference", options.reference},
                       {"referencePicture", pictureDigest(options.reference, Image::toMat(images[reference]))},
                       {"grid", gridDigest(ShaderBruteForcer::defaultParameterList())}};
  shard["check"] = shardCheck(shard);
  std::filesystem::create_directories(options.outDir);
  const std::string path = options.outDir + "/shard-" + std::to_string(shardIndex) + "-of-" +
                           std::to_string(shardCount) + ".json";
  writeTextAtomically(path, shard.dump(2) + "\n");
  std::cout << "wrote " << path << std::endl;
  if (options.json) {
    nlohmann::json plain = nlohmann::json::array();
    for (const auto& entry : best) plain.push_back({{"error", entry["error"]}, {"parameters", entry["parameters"]}});
    JsonOutput::printActive({{"best", plain}});
  }
}

void runSearch(const SearchOptions& options) {
  // Ctrl-C while the results are put in place waits for them.
  const InterruptWatch finishing([] {});
  searchAndWrite(options);
  if (finishing.interrupted()) exitStatus() = kExitInterrupted;
}

// A shard is merged only into the search it is a part of: the same camera
// file, module picture, reference picture and grid.
void checkSearchedOn(const ShardFile& shard, const std::string& path, const CameraDescription::Orbivane& camera,
                     const std::string& cameraPath, const ShaderBruteForcer::ParameterList& grid) {
  const auto refuse = [&path](const std::string& what) {
    throw CommandError("shard file '" + path + "' was searched on " + what);
  };
  if (shard.camera != fileDigest(cameraPath)) refuse("another camera file than '" + cameraPath + "'");
  const auto module = camera.findModule(Utils::fromUtf8(shard.module));
  if (!module->image() || shard.modulePicture != pictureDigest(shard.module, Image::toMat(module->image()))) {
    refuse("another picture of module '" + shard.module + "' (or another module)");
  }
  if (shard.grid != gridDigest(grid)) refuse("another parameter grid than this search's");
  if (shard.referencePicture != pictureDigest(shard.reference, Image::toMat(referencePicture(camera, shard.reference)))) {
    refuse("another picture of the reference '" + shard.reference + "' than it has now");
  }
}

void runMerge(const MergeOptions& options) {
  JsonOutput output(options.json);
  auto loaded = CameraDescription::loadCameraFile(options.camera);
  if (!loaded) throw CommandError(loaded.error());
  checkOutputFolder(options.outDir, "--out-dir");
  std::string module, referenceOfAll;
  int count = 0;
  std::vector<bool> seen;
  std::list<std::list<ShaderBruteForcer::Result>> shards;
  const auto grid = ShaderBruteForcer::defaultParameterList();
  for (const auto& path : options.shards) {
    auto text = Utils::readWholeFile(path);
    if (!text) throw CommandError("shard file " + text.error());
    ShardFile shard = parseShardFile(text.value(), path, grid);
    if (!loaded.value().findModule(Utils::fromUtf8(shard.module))) {
      throw CommandError("shard file '" + path + "': module '" + shard.module + "' is not in " + options.camera);
    }
    if (module.empty()) {
      module = shard.module;
      count = shard.count;
      seen.assign(std::size_t(count), false);
    }
    if (shard.module != module) {
      throw CommandError("shard file '" + path + "': shard of module '" + shard.module + "', the others are of '" +
                         module + "'");
    }
    checkSearchedOn(shard, path, loaded.value(), options.camera, grid);
    if (referenceOfAll.empty()) referenceOfAll = shard.reference + '\0' + shard.referencePicture;
    if (shard.reference + '\0' + shard.referencePicture != referenceOfAll) {
      throw CommandError("shard file '" + path + "' was searched against the reference '" + shard.reference +
                         "', the others against another");
    }
    if (shard.count != count) {
      throw CommandError("shard file '" + path + "': shard " + std::to_string(shard.index) + "/" +
                         std::to_string(shard.count) + " does not fit the others (" + std::to_string(count) +
                         " shards)");
    }
    if (seen[std::size_t(shard.index)]) {
      throw CommandError("shard file '" + path + "': shard " + std::to_string(shard.index) + " given twice");
    }
    seen[std::size_t(shard.index)] = true;
    shards.push_back(std::move(shard.results));
  }
  for (std::size_t i = 0; i < seen.size(); ++i) {
    if (!seen[i]) throw CommandError("shard " + std::to_string(i) + "/" + std::to_string(count) + " is missing");
  }
  try {
    writeResults(loaded.value(), module, ShaderBruteForcer::mergeResults(shards), options.outDir, options.json);
  } catch (const std::out_of_range& e) {
    throw CommandError("shader merge: module '" + module + "': " + e.what());
  } catch (const std::runtime_error& e) {
    if (dynamic_cast<const CommandError*>(&e)) throw;
    throw CommandError(std::string("shader merge: ") + e.what());
  }
}

}  // namespace

void addShaderSearchCommands(CLI::App& app) {
  CLI::App* search = app.add_subcommand(
      "shader-search", "Search a module's lens distortion parameters and write the ten best camera files");
  search->alias("shader-brute-forcer");  // the calibrator's own name (ShaderBruteForcer)
  static SearchOptions searchOptions;
  search->add_option("CAMERA", searchOptions.camera, "Camera file (JSON) with the module's picture")->required();
  search->add_option("--module", searchOptions.module, "Module whose shader is searched")->required();
  search->add_option("--reference", searchOptions.reference, "Reference: a module of the camera or a picture file")
      ->required();
  search->add_option("--out-dir", searchOptions.outDir, "Folder for best-0.json .. best-9.json (or the shard file)")
      ->required();
  search->add_option("--shard", searchOptions.shard,
                     "Search only part I of N (0 <= I < N) of the outermost parameter's values; writes a shard file");
  search->add_flag("--json", searchOptions.json, "Print {\"best\": [{\"error\", \"parameters\"}, ...]} last");
  search->callback([] { runSearch(searchOptions); });

  CLI::App* merge = app.add_subcommand("shader-merge", "Join shader-search shard files into the whole search's result");
  static MergeOptions mergeOptions;
  merge->add_option("CAMERA", mergeOptions.camera, "The camera file the shards searched")->required();
  merge->add_option("SHARDS", mergeOptions.shards, "Every shard file of the search")->required();
  merge->add_option("--out-dir", mergeOptions.outDir, "Folder for best-0.json .. best-9.json")->required();
  merge->add_flag("--json", mergeOptions.json, "Print {\"best\": [{\"error\", \"parameters\"}, ...]} last");
  merge->callback([] { runMerge(mergeOptions); });
}

}  // namespace Tool
