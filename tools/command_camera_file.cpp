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
#include "interrupt_watch.h"
#include "progress.h"
#include "json_output.h"
#include "orbivane/camera/camera_file.h"
#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/shader_directories.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/geometry_calibration/rig_estimator.h"
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
  // A layout (--layout or --overlap given) places the pictures side by side
  // as told; otherwise the rig is estimated from the pictures.
  bool layoutGiven = false;
  std::string projection = "auto";
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

// The pictures, all read first (a picture that cannot be read stops
// everything before anything is written), and their module names: --names,
// or the pictures' file names (a second picture of the same name gets "-2",
// and so on).
struct InitInputs {
  std::vector<std::shared_ptr<Image::RGBImage>> pictures;
  std::vector<std::string> names;
  std::shared_ptr<Image::RGBImage> target;
};

// A picture a module can be drawn from: readable and 2x2 pixels or larger,
// as `camera validate` requires.
std::shared_ptr<Image::RGBImage> initPicture(const std::string& path) {
  auto image = Image::loadImage(path);
  if (!image) throw CommandError(image.error());
  if (image.value()->width() < 2 || image.value()->height() < 2) {
    throw CommandError("picture '" + path + "' is " + std::to_string(image.value()->width()) + "x" +
                       std::to_string(image.value()->height()) + " pixels; a module's picture needs 2x2 or more");
  }
  return image.value();
}

InitInputs readInitInputs(const InitOptions& o) {
  InitInputs in;
  for (const auto& p : o.pictures) in.pictures.push_back(initPicture(p));
  std::set<std::string> used;
  for (std::size_t i = 0; i < o.pictures.size(); ++i) {
    const std::string base = o.names.empty() ? fs::path(o.pictures[i]).stem().string() : o.names[i];
    if (base.empty()) throw CommandError("picture '" + o.pictures[i] + "' gives an empty module name; use --names");
    std::string name = base;
    if (!o.names.empty() && used.count(name) != 0) throw CommandError("--names gives the name '" + name + "' twice");
    for (int k = 2; used.count(name) != 0; ++k) name = base + "-" + std::to_string(k);
    used.insert(name);
    in.names.push_back(name);
  }
  if (!o.target.empty()) {
    if (used.count("target") != 0) throw CommandError("a picture is already named 'target'; rename it with --names");
    in.target = initPicture(o.target);
  }
  return in;
}

// The pictures side by side: cols x rows cells that overlap by `overlap` of a
// cell; each cell spans 1 / (n - (n - 1) overlap) of the surface's side.
CameraDescription::Orbivane layoutCamera(const InitOptions& o, const InitInputs& in, int cols, int rows) {
  const double cellWidth = 1.0 / (cols - (cols - 1) * o.overlap);
  const double cellHeight = 1.0 / (rows - (rows - 1) * o.overlap);
  CameraDescription::Orbivane camera;
  // The panorama as large as the pictures make it (the first picture's size per cell).
  const int pw = in.pictures.front()->width(), ph = in.pictures.front()->height();
  camera.setPanoramaSize({std::max(1, int(std::lround(pw / cellWidth))), std::max(1, int(std::lround(ph / cellHeight)))});
  for (std::size_t i = 0; i < in.pictures.size(); ++i) {
    const int c = int(i) % cols, r = int(i) / cols;
    Utils::Matrix4x4 m;
    m.set(0, 0, float(cellWidth));
    m.set(0, 3, float(c * cellWidth * (1.0 - o.overlap)));
    m.set(1, 1, float(cellHeight));
    m.set(1, 3, float(r * cellHeight * (1.0 - o.overlap)));
    CameraDescription::OrbivaneModule module(Utils::fromUtf8(in.names[i]));
    module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(m));
    module.setImage(in.pictures[i]);
    if (rows == 1) {
      module.setLinkage(std::make_unique<CameraDescription::OrbivaneLinkage>(
          i > 0 ? Utils::fromUtf8(in.names[i - 1]) : std::wstring(),
          i + 1 < in.names.size() ? Utils::fromUtf8(in.names[i + 1]) : std::wstring(), float(o.overlap)));
    }
    camera.addModule(module);
  }
  if (rows == 1) {
    auto& modules = camera.modules();
    for (std::size_t i = 0; i + 1 < modules.size(); ++i) modules[i]->setNeighbour(modules[i + 1]);
  }
  return camera;
}

std::string fixedText(double value, int digits) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

// Whether two modules' footprints on the panorama overlap.
bool drawingsMeet(const CameraDescription::Orbivane& camera, const std::wstring& a, const std::wstring& b) {
  const auto ma = camera.findModule(a), mb = camera.findModule(b);
  if (!ma || !mb) return false;
  const auto fa = CameraDescription::finalMatrix(*ma), fb = CameraDescription::finalMatrix(*mb);
  if (!fa || !fb) return false;
  const auto qa = OrbivaneGeometry::moduleSurfaceQuad(*fa), qb = OrbivaneGeometry::moduleSurfaceQuad(*fb);
  if (!qa || !qb) return false;
  return std::max(qa->left(), qb->left()) < std::min(qa->right(), qb->right()) &&
         std::max(qa->top(), qb->top()) < std::min(qa->bottom(), qb->bottom());
}

// The pictures (and the target) as modules at no place yet.
CameraDescription::Orbivane unplacedCamera(const InitInputs& in) {
  CameraDescription::Orbivane camera;
  for (std::size_t i = 0; i < in.pictures.size(); ++i) {
    CameraDescription::OrbivaneModule module(Utils::fromUtf8(in.names[i]));
    module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>());
    module.setImage(in.pictures[i]);
    camera.addModule(module);
  }
  if (in.target) {
    CameraDescription::OrbivaneModule target(L"target");
    target.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>());
    target.setImage(in.target);
    camera.addModule(target);
  }
  return camera;
}

// Runs the estimator with progress; Ctrl-C or a rig that cannot be
// estimated ends the command.
CameraDescription::Orbivane estimateRig(GeometryCalibration::RigEstimator& estimator, const InitOptions& o,
                                        bool withTarget) {
  GeometryCalibration::RigOptions options;
  options.projection = o.projection;
  if (withTarget) options.target = L"target";
  if (const auto valid = estimator.setOptions(options); !valid) throw CommandError(valid.error());
  Progress progress("rig estimation");
  estimator.registerStatusCallback(progress.callback());
  Utils::ReturnState<CameraDescription::Orbivane, std::string> estimated = Utils::failure(std::string("not run"));
  bool interrupted = false;
  {
    const InterruptWatch watch([&estimator] { estimator.abort(); });
    estimated = estimator.estimate();
    interrupted = watch.interrupted();
  }
  progress.finish(!interrupted && bool(estimated));
  if (interrupted) {
    exitStatus() = kExitInterrupted;
    throw CommandError("interrupted: nothing written");
  }
  if (!estimated) {
    throw CommandError("the rig cannot be estimated from these pictures: " + estimated.error() +
                       " (place them yourself with --layout and --overlap)");
  }
  return estimated.value();
}

// Puts module `name` beside the panorama, the `unplaced`-th there, at the
// rig's scale: drawn nowhere until placed.
void putBesidePanorama(CameraDescription::Orbivane& camera, const std::wstring& name,
                       const Image::UniversalImageInterface& picture, int unplaced) {
  const Utils::Size panorama = camera.panoramaSize();
  const double w = double(picture.width()) / std::max(1, panorama.width);
  const double h = double(picture.height()) / std::max(1, panorama.height);
  Utils::Matrix4x4 matrix;
  matrix.set(0, 0, float(w));
  matrix.set(1, 1, float(h));
  matrix.set(0, 3, float(1.0 + (unplaced - 1) * w * 1.05 + 0.05 * w));
  camera.findModule(name)->setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(matrix));
}

// Prints each module's place (or why it has none, putting it beside the
// panorama) and returns their records; counts the unplaced.
json reportModules(CameraDescription::Orbivane& camera, const GeometryCalibration::RigReport& r, const InitInputs& in,
                   int& unplaced) {
  json modules = json::array();
  for (std::size_t i = 0; i < in.names.size(); ++i) {
    const std::wstring name = Utils::fromUtf8(in.names[i]);
    const auto it = r.modules.find(name);
    const GeometryCalibration::RigModuleReport m = it == r.modules.end() ? GeometryCalibration::RigModuleReport() : it->second;
    json entry = {{"name", in.names[i]}, {"placed", m.placed}};
    if (m.placed) {
      std::cout << "  " << in.names[i] << ": yaw " << fixedText(m.yaw, 1) << ", pitch " << fixedText(m.pitch, 1)
                << ", roll " << fixedText(m.roll, 1) << " deg; focal " << fixedText(m.focalPx, 1) << " px, k1 "
                << fixedText(m.k1, 4) << ", k2 " << fixedText(m.k2, 4) << "; gain " << fixedText(m.exposureGain, 3)
                << "; grid " << m.gridColumns << "x" << m.gridRows << " (within " << fixedText(m.gridErrorPx, 3)
                << " px); residual " << fixedText(m.residualPx, 2) << " px\n";
      entry.update({{"yaw", m.yaw}, {"pitch", m.pitch}, {"roll", m.roll}, {"focalPx", m.focalPx}, {"k1", m.k1},
                    {"k2", m.k2}, {"exposureGain", m.exposureGain}, {"grid", {m.gridColumns, m.gridRows}},
                    {"gridErrorPx", m.gridErrorPx}, {"residualPx", m.residualPx}});
    } else {
      putBesidePanorama(camera, name, *in.pictures[i], ++unplaced);
      std::cerr << "orbivane-calibrate: module " << in.names[i] << " not placed: " << m.reason
                << "; it is put beside the panorama\n";
      entry["reason"] = m.reason;
    }
    modules.push_back(entry);
  }
  return modules;
}

// Whether two placed modules look the same way through the same lens
// (within a tenth of a degree and 0.5 % of focal length): one picture
// given twice, or two taken without turning.
bool lookTheSameWay(const GeometryCalibration::RigReport& r, const std::wstring& first, const std::wstring& second) {
  const auto a = r.modules.find(first), b = r.modules.find(second);
  if (a == r.modules.end() || b == r.modules.end() || !a->second.placed || !b->second.placed) return false;
  const auto near = [](double x, double y) { return std::fabs(std::remainder(x - y, 360.0)) < 0.1; };
  return near(a->second.yaw, b->second.yaw) && near(a->second.pitch, b->second.pitch) &&
         near(a->second.roll, b->second.roll) &&
         std::fabs(a->second.focalPx - b->second.focalPx) <= 0.005 * std::max(a->second.focalPx, b->second.focalPx);
}

// Prints each linked pair and returns their records.
json reportPairs(const CameraDescription::Orbivane& camera, const GeometryCalibration::RigReport& r) {
  json pairs = json::array();
  for (const auto& p : r.pairs) {
    std::cout << "  " << Utils::toUtf8(p.first) << " - " << Utils::toUtf8(p.second) << ": " << p.matches
              << " matches within " << fixedText(p.medianPx, 2) << " px (median), " << fixedText(p.p90Px, 2)
              << " px (90 %)";
    if (std::isfinite(p.exposureEv)) std::cout << "; exposure differs by " << fixedText(p.exposureEv, 3) << " EV";
    // Linked modules whose drawings do not meet lie on both sides of the
    // panorama's left and right border (an equirectangular target's frame
    // puts its border where the target has it): the viewer shows no seam
    // between them, and calibrate cannot measure one.
    const bool acrossBorder = !drawingsMeet(camera, p.first, p.second);
    if (acrossBorder) std::cout << "; they meet across the panorama's left and right border, where no seam is drawn";
    const bool sameView = lookTheSameWay(r, p.first, p.second);
    if (sameView) std::cout << "; the two look the same way, so one adds nothing (the same picture twice?)";
    std::cout << "\n";
    json pair = {{"first", Utils::toUtf8(p.first)}, {"second", Utils::toUtf8(p.second)}, {"matches", p.matches},
                 {"confidence", p.confidence}, {"medianPx", p.medianPx}, {"p90Px", p.p90Px}};
    pair["exposureEv"] = std::isfinite(p.exposureEv) ? json(p.exposureEv) : json(nullptr);
    pair["acrossBorder"] = acrossBorder;
    pair["sameView"] = sameView;
    pairs.push_back(pair);
  }
  return pairs;
}

// Prints how the target was registered and returns its record.
json reportTarget(const GeometryCalibration::RigTargetReport& t) {
  if (t.registered) {
    std::cout << "  target: " << (t.equirectangular ? "an equirectangular panorama, the panorama's own frame"
                                                    : "placed on the panorama by a homography")
              << ", " << t.matches << " features agree within " << fixedText(t.medianPx, 2) << " px (median)\n";
  } else {
    std::cerr << "orbivane-calibrate: the target could not be registered to the rig (" << t.reason
              << "); it spans the panorama's width: calibrate --target target matches the modules to it\n";
  }
  return {{"registered", t.registered}, {"equirectangular", t.equirectangular},
          {"matches", t.matches}, {"medianPx", t.medianPx}, {"reason", t.reason}};
}

// The rig estimated from the pictures (GeometryCalibration::RigEstimator);
// modules it cannot place are put beside the panorama and named. Prints the
// rig and fills `document`.
CameraDescription::Orbivane rigCamera(const InitOptions& o, const InitInputs& in, json& document) {
  GeometryCalibration::RigEstimator estimator(unplacedCamera(in), {});
  CameraDescription::Orbivane camera = estimateRig(estimator, o, bool(in.target));
  const GeometryCalibration::RigReport& r = estimator.report();
  std::cout << "rig: " << r.projection << " projection, " << fixedText(r.fieldOfViewX, 1) << " x "
            << fixedText(r.fieldOfViewY, 1) << " degrees" << (r.fullRing ? " (a full ring)" : "") << ", panorama "
            << r.panoramaWidth << "x" << r.panoramaHeight << ", matched features within " << fixedText(r.medianPx, 2)
            << " px (median), " << fixedText(r.p90Px, 2) << " px (90 %), " << fixedText(r.seconds, 1) << " s\n";
  int unplaced = 0;
  const json modules = reportModules(camera, r, in, unplaced);
  if (!r.vignetting.none()) {
    std::cout << "  lens vignetting undone: the pictures' corners brightened " << fixedText(r.vignetting.factor(1.0), 3)
              << "x (r2 " << fixedText(r.vignetting.r2, 4) << ", r4 " << fixedText(r.vignetting.r4, 4) << ")\n";
  }
  const json pairs = reportPairs(camera, r);
  if (in.target) document["target"] = reportTarget(r.target);
  document["rig"] = {{"projection", r.projection}, {"fieldOfView", {r.fieldOfViewX, r.fieldOfViewY}},
                     {"fullRing", r.fullRing}, {"medianPx", r.medianPx}, {"p90Px", r.p90Px},
                     {"seconds", r.seconds}, {"modules", modules}, {"pairs", pairs},
                     {"vignetting", {{"r2", r.vignetting.r2}, {"r4", r.vignetting.r4}}}};
  document["unplaced"] = unplaced;
  if (unplaced > 0) exitStatus() = kExitFailedModules;
  return camera;
}

void init(const InitOptions& o) {
  JsonOutput output(o.json);
  if (o.pictures.empty()) throw CommandError("camera init needs at least one picture");
  if (!(o.overlap >= 0.0 && o.overlap < 1.0)) throw CommandError("--overlap is a share of a picture from 0 to below 1");
  if (!o.names.empty() && o.names.size() != o.pictures.size()) {
    throw CommandError("--names gives " + std::to_string(o.names.size()) + " name(s) for " +
                       std::to_string(o.pictures.size()) + " picture(s)");
  }
  if (o.layoutGiven && o.projection != "auto") throw CommandError("--projection applies to an estimated rig, not to --layout");
  if (const auto valid = [&] {
        GeometryCalibration::RigOptions r;
        r.projection = o.projection;
        return r.validate();
      }();
      !valid) {
    throw CommandError("--projection: " + valid.error());
  }
  std::vector<std::string> inputs = o.pictures;
  if (!o.target.empty()) inputs.push_back(o.target);
  checkOutputFile(o.out, inputs, "--out");
  const auto [cols, rows] = parseLayout(o.layout, o.pictures.size());
  const bool estimate = !o.layoutGiven && o.pictures.size() >= 2;

  const InitInputs in = readInitInputs(o);
  json document = {{"camera", o.out}};
  CameraDescription::Orbivane camera = estimate ? rigCamera(o, in, document) : layoutCamera(o, in, cols, rows);
  camera.setName(Utils::fromUtf8(fs::path(o.out).stem().string()));
  if (in.target && !estimate) {
    // The whole scene as its own module, with its own aspect ratio: as wide as
    // the panorama, centred on it.
    const Utils::Size pano = camera.panoramaSize();
    const double height = pano.empty() ? 1.0
                                       : double(in.target->height()) / in.target->width() * pano.width / pano.height;
    Utils::Matrix4x4 m;
    m.set(1, 1, float(height));
    m.set(1, 3, float(0.5 - 0.5 * height));
    CameraDescription::OrbivaneModule target(L"target");
    target.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(m));
    target.setImage(in.target);
    camera.addModule(target);
  }
  const auto saved = CameraDescription::saveCameraFile(camera, o.out);
  if (!saved) throw CommandError(saved.error());
  std::cout << "wrote " << o.out << ": ";
  if (estimate) {
    const int unplaced = document.value("unplaced", 0);
    std::cout << int(in.pictures.size()) - unplaced << " of " << in.pictures.size()
              << " module(s) placed as the pictures show them";
    if (unplaced > 0) std::cout << " (" << unplaced << " beside the panorama)";
  } else {
    std::cout << in.pictures.size() << " module(s)";
    std::cout << " in " << cols << "x" << rows << " with an overlap of " << o.overlap;
  }
  std::cout << (o.target.empty() ? "" : ", and the target module 'target'") << "; panorama "
            << camera.panoramaSize().width << "x" << camera.panoramaSize().height << std::endl;
  json modules = json::array();
  for (const auto& module : camera.modules()) {
    const auto quad = OrbivaneGeometry::moduleSurfaceQuad(module->matrixGeometry()->matrix());
    json entry = {{"name", Utils::toUtf8(module->name())}};
    entry["covers"] = quad ? json({quad->left(), quad->top(), quad->right(), quad->bottom()}) : json(nullptr);
    modules.push_back(entry);
  }
  document["modules"] = modules;
  document["panoramaSize"] = {camera.panoramaSize().width, camera.panoramaSize().height};
  document["placement"] = estimate ? "estimated" : "layout";
  output.print(document);
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
  initCommand->add_option("PICTURE", initOptions.pictures, "Module pictures (with --layout: left to right, top to bottom)")
      ->required();
  initCommand->add_option("--out", initOptions.out, "Camera file to write")->required();
  auto* layoutOption = initCommand->add_option(
      "--layout", initOptions.layout, "Place the pictures side by side instead of estimating the rig: row, or grid:COLSxROWS");
  auto* overlapOption = initCommand->add_option(
      "--overlap", initOptions.overlap, "With a layout: share of a picture that neighbours overlap (0..1, default 0.2)");
  initCommand->add_option("--projection", initOptions.projection,
                          "Panorama projection of the estimated rig: auto, plane, cylindrical or spherical")
      ->capture_default_str();
  initCommand->add_option("--target", initOptions.target, "A picture of the whole scene: a target module 'target'");
  initCommand->add_option("--names", initOptions.names, "Module names, separated by commas (default: file names)")
      ->delimiter(',');
  initCommand->add_flag("--json", initOptions.json, "Print the modules and their places as one JSON object");
  initCommand->callback([layoutOption, overlapOption] {
    initOptions.layoutGiven = layoutOption->count() > 0 || overlapOption->count() > 0;
    init(initOptions);
  });

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
