// "camera ...": camera description files.
//   validate FILE [--no-images] [--json]   what the file holds, and every
//       module that the panorama or a calibrator would refuse (exit 3);
//   init PICTURE... --out FILE [--layout row|grid:CxR] [--overlap SHARE]
//       [--target PICTURE] [--names A,B,...] [--json]   a starting camera
//       from pictures, as a project is started from its pictures;
//   remove-module FILE NAME --out OUT [--json]   the camera without a module,
//       with the references to it cleaned.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <set>

#include "command_line.h"
#include "json_output.h"
#include "orbivane/camera/camera_file.h"
#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/shader_directories.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/camera/final_matrix.h"
#include "orbivane/utils/wide_text.h"

namespace Tool {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// What would make the panorama or a calibrator refuse the module; empty when
// nothing would.
std::vector<std::string> moduleProblems(const CameraDescription::OrbivaneModule& module, bool picturesLoaded) {
  std::vector<std::string> problems;
  const auto* geometry = module.matrixGeometry();
  if (module.geometry() == nullptr) {
    problems.push_back("no geometry");
  } else if (geometry == nullptr) {
    problems.push_back(module.geometry()->kind() + " geometry: the calibrators and the panorama need a matrix");
  } else {
    const Utils::Matrix4x4 matrix = geometry->matrix();
    const cv::Matx33d planar = OrbivaneGeometry::planarHomography(matrix);
    const double det = matrix.isFinite() ? cv::determinant(planar) : NAN;
    if (!matrix.isFinite()) {
      problems.push_back("the matrix holds values that are not finite");
    } else if (!(std::fabs(det) > 1e-12)) {
      problems.push_back("the matrix is singular");
    } else if (det < 0.0) {
      problems.push_back("the matrix mirrors the picture");
    }
    if (const auto* clip = OrbivaneGeometry::findClipMatrixShader(module.shaders())) {
      try {
        OrbivaneGeometry::clipMatrixFromShader(*clip);
      } catch (const std::exception& e) {
        problems.push_back(std::string("the clip-matrix shader's values cannot be read: ") + e.what());
      }
    }
    const auto final = CameraDescription::finalMatrix(module);
    if (problems.empty() && (!final || !OrbivaneGeometry::moduleSurfaceQuad(*final))) {
      problems.push_back("the picture does not project onto the surface (a corner on or behind the horizon)");
    }
  }
  if (picturesLoaded && !module.image()) problems.push_back("no picture");
  if (module.image() && (module.image()->width() < 2 || module.image()->height() < 2)) {
    problems.push_back("the picture is smaller than 2x2 pixels");
  }
  return problems;
}

void validate(const std::string& path, bool skipImages, bool asJson) {
  JsonOutput output(asJson);
  CameraDescription::CameraFileOptions options;
  options.loadImages = !skipImages;
  auto loaded = CameraDescription::loadCameraFile(path, options);
  if (!loaded) throw CommandError(loaded.error());
  const CameraDescription::Orbivane& camera = loaded.value();
  const auto known = OrbivaneGeometry::knownShaders();
  std::cout << "camera '" << Utils::toUtf8(camera.name()) << "': " << camera.modules().size() << " module(s)";
  if (!camera.panoramaSize().empty()) {
    std::cout << ", panorama " << camera.panoramaSize().width << "x" << camera.panoramaSize().height;
  }
  std::cout << "\n";
  json modules = json::array();
  int refused = 0;
  for (const auto& module : camera.modules()) {
    const std::string name = Utils::toUtf8(module->name());
    json entry = {{"name", name}};
    std::cout << "  " << name << ": ";
    if (const auto* g = module->matrixGeometry()) {
      entry["geometry"] = "matrix";
      const auto quad = OrbivaneGeometry::moduleSurfaceQuad(g->matrix());
      if (quad) {
        std::cout << "matrix geometry covering x " << quad->left() << ".." << quad->right() << ", y " << quad->top()
                  << ".." << quad->bottom();
        entry["covers"] = {quad->left(), quad->top(), quad->right(), quad->bottom()};
      } else {
        std::cout << "matrix geometry that does not project its picture";
      }
      if (g->uvGrid()) {
        std::cout << ", UV grid " << g->uvGrid()->columns() << "x" << g->uvGrid()->rows();
        entry["uvGrid"] = {g->uvGrid()->columns(), g->uvGrid()->rows()};
      }
    } else if (module->geometry()) {
      std::cout << module->geometry()->kind() << " geometry";
      entry["geometry"] = module->geometry()->kind();
    } else {
      std::cout << "no geometry";
      entry["geometry"] = nullptr;
    }
    if (module->image()) {
      std::cout << ", picture " << module->image()->width() << "x" << module->image()->height();
      entry["picture"] = {module->image()->width(), module->image()->height()};
    } else if (!module->imagePath().empty()) {
      std::cout << ", picture " << module->imagePath() << " (not loaded)";
      entry["picture"] = module->imagePath();
    }
    json shaders = json::array();
    std::vector<std::string> notes;
    for (const auto& shader : module->shaders()) {
      shaders.push_back(shader.uid());
      if (known.count(shader.uid()) == 0 && shader.uid() != OrbivaneGeometry::kClipMatrixShaderUid) {
        notes.push_back("shader " + shader.uid() + " is not known here (no shader file); the panorama draws without it");
      }
    }
    if (!module->shaders().empty()) std::cout << ", " << module->shaders().size() << " shader(s)";
    entry["shaders"] = shaders;
    if (module->connection()) {
      std::cout << ", " << module->connection()->backend << " connection";
      entry["connection"] = module->connection()->backend;
    }
    if (const auto* linkage = module->linkage()) {
      for (const std::wstring* side : {&linkage->left, &linkage->right}) {
        if (!side->empty() && !camera.findModule(*side)) {
          notes.push_back("its linkage names a module '" + Utils::toUtf8(*side) + "' that the camera does not have");
        }
      }
    }
    std::cout << "\n";
    const std::vector<std::string> problems = moduleProblems(*module, !skipImages);
    for (const auto& p : problems) std::cerr << "orbivane-calibrate: module " << name << " cannot be used: " << p << "\n";
    for (const auto& n : notes) std::cerr << "orbivane-calibrate: module " << name << ": " << n << "\n";
    entry["problems"] = problems;
    entry["notes"] = notes;
    refused += problems.empty() ? 0 : 1;
    modules.push_back(entry);
  }
  if (refused == 0) {
    std::cout << "ok" << std::endl;
  } else {
    std::cout << refused << " module(s) cannot be used (see above)" << std::endl;
    exitStatus() = kExitFailedModules;
  }
  json document = {{"camera", Utils::toUtf8(camera.name())}, {"modules", modules}, {"ok", refused == 0}};
  if (!camera.panoramaSize().empty()) {
    document["panoramaSize"] = {camera.panoramaSize().width, camera.panoramaSize().height};
  }
  output.print(document);
}

// --- camera init -------------------------------------------------------------

struct InitOptions {
  std::vector<std::string> pictures;
  std::string out, layout = "row", target;
  std::vector<std::string> names;
  double overlap = 0.2;
  bool json = false;
};

// "row" -> {n, 1}; "grid:CxR" -> {C, R}.
std::pair<int, int> parseLayout(const std::string& layout, std::size_t count) {
  if (layout == "row") return {int(count), 1};
  int cols = 0, rows = 0;
  char x = 0, rest = 0;
  if (layout.rfind("grid:", 0) == 0 &&
      std::sscanf(layout.c_str() + 5, "%d%c%d%c", &cols, &x, &rows, &rest) == 3 && (x == 'x' || x == 'X') &&
      cols > 0 && rows > 0) {
    if (std::size_t(cols) * std::size_t(rows) != count) {
      throw CommandError("--layout " + layout + " has " + std::to_string(cols * rows) + " places for " +
                         std::to_string(count) + " picture(s)");
    }
    return {cols, rows};
  }
  throw CommandError("--layout is 'row' or 'grid:COLSxROWS' (e.g. grid:3x2), not '" + layout + "'");
}

void init(const InitOptions& o) {
  JsonOutput output(o.json);
  if (o.pictures.empty()) throw CommandError("camera init needs at least one picture");
  if (!(o.overlap >= 0.0 && o.overlap < 1.0)) throw CommandError("--overlap is a share of a picture from 0 to below 1");
  if (!o.names.empty() && o.names.size() != o.pictures.size()) {
    throw CommandError("--names gives " + std::to_string(o.names.size()) + " name(s) for " +
                       std::to_string(o.pictures.size()) + " picture(s)");
  }
  std::vector<std::string> inputs = o.pictures;
  if (!o.target.empty()) inputs.push_back(o.target);
  checkOutputFile(o.out, inputs, "--out");
  const auto [cols, rows] = parseLayout(o.layout, o.pictures.size());

  // The pictures, all read first: a picture that cannot be read stops
  // everything before anything is written.
  std::vector<std::shared_ptr<Image::RGBImage>> pictures;
  for (const auto& p : o.pictures) {
    auto image = Image::loadImage(p);
    if (!image) throw CommandError(image.error());
    pictures.push_back(image.value());
  }
  // Module names: --names, or the pictures' file names (a second picture of
  // the same name gets "-2", and so on).
  std::set<std::string> used;
  std::vector<std::string> names;
  for (std::size_t i = 0; i < o.pictures.size(); ++i) {
    const std::string base = o.names.empty() ? fs::path(o.pictures[i]).stem().string() : o.names[i];
    if (base.empty()) throw CommandError("picture '" + o.pictures[i] + "' gives an empty module name; use --names");
    std::string name = base;
    if (!o.names.empty() && used.count(name) != 0) throw CommandError("--names gives the name '" + name + "' twice");
    for (int k = 2; used.count(name) != 0; ++k) name = base + "-" + std::to_string(k);
    used.insert(name);
    names.push_back(name);
  }
  if (!o.target.empty() && used.count("target") != 0) throw CommandError("a picture is already named 'target'; rename it with --names");

  // The surface: cols x rows cells that overlap by `overlap` of a cell; each
  // cell spans 1 / (n - (n - 1) overlap) of the surface's side.
  const double cellWidth = 1.0 / (cols - (cols - 1) * o.overlap);
  const double cellHeight = 1.0 / (rows - (rows - 1) * o.overlap);
  CameraDescription::Orbivane camera;
  camera.setName(Utils::fromUtf8(fs::path(o.out).stem().string()));
  // The panorama as large as the pictures make it (the first picture's size per cell).
  const int pw = pictures.front()->width(), ph = pictures.front()->height();
  camera.setPanoramaSize({std::max(1, int(std::lround(pw / cellWidth))), std::max(1, int(std::lround(ph / cellHeight)))});
  for (std::size_t i = 0; i < pictures.size(); ++i) {
    const int c = int(i) % cols, r = int(i) / cols;
    Utils::Matrix4x4 m;
    m.set(0, 0, float(cellWidth));
    m.set(0, 3, float(c * cellWidth * (1.0 - o.overlap)));
    m.set(1, 1, float(cellHeight));
    m.set(1, 3, float(r * cellHeight * (1.0 - o.overlap)));
    CameraDescription::OrbivaneModule module(Utils::fromUtf8(names[i]));
    module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(m));
    module.setImage(pictures[i]);
    if (rows == 1) {
      module.setLinkage(std::make_unique<CameraDescription::OrbivaneLinkage>(
          i > 0 ? Utils::fromUtf8(names[i - 1]) : std::wstring(),
          i + 1 < names.size() ? Utils::fromUtf8(names[i + 1]) : std::wstring(), float(o.overlap)));
    }
    camera.addModule(module);
  }
  if (rows == 1) {
    auto& modules = camera.modules();
    for (std::size_t i = 0; i + 1 < modules.size(); ++i) modules[i]->setNeighbour(modules[i + 1]);
  }
  if (!o.target.empty()) {
    auto image = Image::loadImage(o.target);
    if (!image) throw CommandError(image.error());
    CameraDescription::OrbivaneModule target(L"target");
    target.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(Utils::Matrix4x4::identity()));
    target.setImage(image.value());
    camera.addModule(target);
  }
  const auto saved = CameraDescription::saveCameraFile(camera, o.out);
  if (!saved) throw CommandError(saved.error());
  std::cout << "wrote " << o.out << ": " << pictures.size() << " module(s) in " << cols << "x" << rows
            << " with an overlap of " << o.overlap << (o.target.empty() ? "" : ", and the target module 'target'")
            << "; panorama " << camera.panoramaSize().width << "x" << camera.panoramaSize().height << std::endl;
  json modules = json::array();
  for (const auto& module : camera.modules()) {
    const auto quad = OrbivaneGeometry::moduleSurfaceQuad(module->matrixGeometry()->matrix());
    modules.push_back({{"name", Utils::toUtf8(module->name())},
                       {"covers", {quad->left(), quad->top(), quad->right(), quad->bottom()}}});
  }
  output.print({{"camera", o.out},
                {"modules", modules},
                {"panoramaSize", {camera.panoramaSize().width, camera.panoramaSize().height}}});
}

// --- camera remove-module ----------------------------------------------------

void removeModule(const std::string& path, const std::string& name, const std::string& out, bool asJson) {
  JsonOutput output(asJson);
  CameraDescription::CameraFileOptions options;
  options.loadImages = false;  // pictures stay where they are; the file only names them
  auto loaded = CameraDescription::loadCameraFile(path, options);
  if (!loaded) throw CommandError(loaded.error());
  checkOutputFile(out, cameraInputs(loaded.value(), path), "--out");
  CameraDescription::Orbivane camera = std::move(loaded.value());
  const std::wstring gone = Utils::fromUtf8(name);
  const auto module = camera.findModule(gone);
  if (!module) throw CommandError("camera file '" + path + "' has no module '" + name + "'");
  std::vector<std::string> cleaned;
  for (const auto& other : camera.modules()) {
    if (other == module) continue;
    if (other->neighbour() == module) {
      other->setNeighbour(module->neighbour() != other ? module->neighbour() : nullptr);
      cleaned.push_back(Utils::toUtf8(other->name()) + ": neighbour");
    }
    if (const auto* linkage = other->linkage()) {
      if (linkage->left == gone || linkage->right == gone) {
        auto changed = linkage->clone();
        if (changed->left == gone) changed->left.clear();
        if (changed->right == gone) changed->right.clear();
        other->setLinkage(std::move(changed));
        cleaned.push_back(Utils::toUtf8(other->name()) + ": linkage");
      }
    }
  }
  auto& modules = camera.modules();
  modules.erase(std::remove(modules.begin(), modules.end(), module), modules.end());
  const auto saved = CameraDescription::saveCameraFile(camera, out);
  if (!saved) throw CommandError(saved.error());
  std::cout << "wrote " << out << " without module " << name;
  for (const auto& c : cleaned) std::cout << "; cleaned " << c;
  std::cout << std::endl;
  output.print({{"camera", out}, {"removed", name}, {"cleaned", cleaned}, {"modules", camera.modules().size()}});
}

}  // namespace

void addCameraCommands(CLI::App& app) {
  CLI::App* camera = app.add_subcommand("camera", "Camera description files");
  camera->require_subcommand(1);

  CLI::App* validateCommand = camera->add_subcommand(
      "validate", "Load a camera file, print a summary and name every module the calibrators would refuse");
  static std::string path;
  static bool skipImages = false, validateJson = false;
  validateCommand->add_option("FILE", path, "Camera file (JSON)")->required();
  validateCommand->add_flag("--no-images", skipImages, "Do not load the module pictures");
  validateCommand->add_flag("--json", validateJson, "Print the summary as one JSON object");
  validateCommand->callback([] { validate(path, skipImages, validateJson); });

  CLI::App* initCommand = camera->add_subcommand("init", "Start a camera file from pictures");
  static InitOptions initOptions;
  initCommand->add_option("PICTURE", initOptions.pictures, "Module pictures, left to right (top to bottom)")
      ->required();
  initCommand->add_option("--out", initOptions.out, "Camera file to write")->required();
  initCommand->add_option("--layout", initOptions.layout, "row, or grid:COLSxROWS")->capture_default_str();
  initCommand->add_option("--overlap", initOptions.overlap, "Share of a picture that neighbours overlap (0..1)")
      ->capture_default_str();
  initCommand->add_option("--target", initOptions.target, "A picture of the whole scene: a target module 'target'");
  initCommand->add_option("--names", initOptions.names, "Module names, separated by commas (default: file names)")
      ->delimiter(',');
  initCommand->add_flag("--json", initOptions.json, "Print the modules and their places as one JSON object");
  initCommand->callback([] { init(initOptions); });

  CLI::App* removeCommand = camera->add_subcommand("remove-module", "Write a camera file without one module");
  static std::string removePath, removeName, removeOut;
  static bool removeJson = false;
  removeCommand->add_option("FILE", removePath, "Camera file (JSON)")->required();
  removeCommand->add_option("NAME", removeName, "Module to remove")->required();
  removeCommand->add_option("--out", removeOut, "Camera file to write")->required();
  removeCommand->add_flag("--json", removeJson, "Print what was removed and cleaned as one JSON object");
  removeCommand->callback([] { removeModule(removePath, removeName, removeOut, removeJson); });
}

}  // namespace Tool
