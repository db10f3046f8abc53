// "sensor ...": the sensor window of a simulated camera and the fisheye closed
// loop against it.
//   sensor create STATE.json --module NAME --scene fisheye|target|IMAGE [...] [--json]
//   sensor read STATE.json --module NAME [--json]
//   sensor write STATE.json --module NAME --x X --y Y [--json]
//   sensor capture STATE.json --module NAME OUT.png [--json]
//   sensor centre STATE.json --module NAME [--threshold T] [--json]
//   sensor restore STATE.json --module NAME [--json]
//   sensor overlap STATE.json --modules A,B [--overlap PX] [--camera CAMERA.json]
//                  [--search SHARE] [--picture OUT.png] [--json]
// "centre" keeps the window each module started from in
// STATE.json.restore.json ({"modules": {NAME: {"x", "y"}}}, one restore
// point per module) so that a later "restore" of that module puts it back.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include "command_line.h"
#include "json_output.h"
#include "lens_circle_check.h"
#include "orbivane/camera/camera_file.h"
#include "orbivane/geometry_calibration/calibrator_options.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/simulated/simulated_camera.h"
#include "orbivane/sensor_calibration/fisheye_calibration.h"
#include "orbivane/sensor_calibration/sensor_shifter.h"
#include "orbivane/utils/atomic_file.h"
#include "orbivane/utils/wide_text.h"

namespace Tool {
namespace {

struct SensorArgs {
  std::string state;
  std::string module;
  std::string scene = "fisheye";
  std::vector<int> size{1920, 1080};
  std::vector<double> centre;
  double radius = 0;
  bool radiusGiven = false;
  std::vector<int> window;
  int step = 2;
  double blur = 1.0, noise = 2.0;
  int x = 0, y = 0;
  int threshold = 97;
  std::string out;
  bool json = false;
  std::vector<int> crop;
  std::vector<std::string> modules;
  double overlap = -1.0;
  double search = 0.5;
  std::string camera;
  std::string picture;
};

SensorArgs& args() {
  static SensorArgs a;
  return a;
}

// The state file of a camera that must exist already (everything but create).
void requireStateFile() {
  std::error_code ec;
  if (std::filesystem::is_directory(args().state, ec)) {
    throw CommandError("state file '" + args().state + "' is a folder, not a file");
  }
  if (!std::filesystem::exists(args().state, ec)) {
    throw CommandError("state file '" + args().state + "' does not exist (make it with 'sensor create')");
  }
}

std::shared_ptr<Quarn::SimulatedCamera> openCamera() {
  requireStateFile();
  auto camera = Quarn::SimulatedCamera::open(args().state);
  if (!camera) throw CommandError(camera.error());
  auto module = camera.value()->module(args().module);
  if (!module) throw CommandError(module.error());
  return camera.value();
}

std::shared_ptr<CameraDescription::OrbivaneModule> moduleFor(const std::string& id) {
  auto module = std::make_shared<CameraDescription::OrbivaneModule>(Utils::fromUtf8(id));
  Quarn::QuarnConnection c;
  c.backend = "simulated";
  c.address = args().state;
  c.device = id;
  module->setConnection(c);
  return module;
}

std::shared_ptr<CameraDescription::OrbivaneModule> moduleFor() { return moduleFor(args().module); }

std::string restorePath() { return args().state + ".restore.json"; }

void printWindow(const std::shared_ptr<Quarn::SimulatedCamera>& camera) {
  const auto w = camera->module(args().module).value().window;
  std::cout << "window " << w.x << " " << w.y << " (" << w.width << "x" << w.height << "), x " << w.xMin << ".."
            << w.xMax << " step " << w.xStep << ", y " << w.yMin << ".." << w.yMax << " step " << w.yStep
            << std::endl;
  nlohmann::json printed = {{"module", args().module}};
  Quarn::windowFields(w, [&printed](const Quarn::SimulatedField& f, int value) { printed[f.json] = value; });
  JsonOutput::printActive(printed);
}

// The restore points of every module of the state file: {name: {"x", "y"}}.
// A file of the older form {"module", "x", "y"} holds one module's.
nlohmann::json readRestorePoints() {
  std::ifstream f(restorePath());
  if (!f) return nlohmann::json::object();
  nlohmann::json saved;
  try {
    f >> saved;
  } catch (const nlohmann::json::exception& e) {
    throw CommandError("restore points '" + restorePath() + "' cannot be read: " + e.what());
  }
  if (saved.is_object() && saved.contains("modules") && saved["modules"].is_object()) return saved["modules"];
  if (saved.is_object() && saved.contains("module") && saved["module"].is_string()) {
    return {{saved["module"].get<std::string>(), {{"x", saved.value("x", 0)}, {"y", saved.value("y", 0)}}}};
  }
  throw CommandError("restore points '" + restorePath() + "' are not a restore-point file");
}

void writeRestorePoints(const nlohmann::json& points) {
  if (points.empty()) {
    std::remove(restorePath().c_str());
    return;
  }
  writeTextAtomically(restorePath(), nlohmann::json{{"modules", points}}.dump(2) + "\n");
}

void create() {
  const SensorArgs& a = args();
  Quarn::SimulatedModule m;
  m.id = a.module;
  if (a.scene == "fisheye" || a.scene == "target") {
    m.scene.kind = a.scene;
    if (a.size.size() != 2 || a.size[0] <= 0 || a.size[1] <= 0) throw CommandError("--size needs WIDTH HEIGHT");
    m.scene.width = a.size[0];
    m.scene.height = a.size[1];
    m.scene.centreX = a.size[0] / 2.0;
    m.scene.centreY = a.size[1] / 2.0;
    m.scene.radius = a.size[1] * 0.4;
    m.scene.cornerX = a.size[0] * 0.25;
    m.scene.cornerY = a.size[1] * 0.25;
    m.scene.spacingX = a.size[0] * 0.5;
    m.scene.spacingY = a.size[1] * 0.4;
  } else {
    m.scene.kind = "image";
    m.scene.imagePath = std::filesystem::absolute(a.scene).string();
  }
  if (!a.centre.empty()) {
    if (a.centre.size() != 2) throw CommandError("--centre needs X Y");
    m.scene.centreX = m.scene.cornerX = a.centre[0];
    m.scene.centreY = m.scene.cornerY = a.centre[1];
  }
  if (!a.crop.empty()) {
    if (m.scene.kind != "image") throw CommandError("--crop needs a picture as --scene");
    if (a.crop.size() != 4) throw CommandError("--crop needs X Y WIDTH HEIGHT");
    m.scene.cropX = a.crop[0];
    m.scene.cropY = a.crop[1];
    m.scene.cropWidth = a.crop[2];
    m.scene.cropHeight = a.crop[3];
  }
  if (a.radius > 0) m.scene.radius = a.radius;
  m.scene.blur = a.blur;
  m.scene.noise = a.noise;
  if (!a.window.empty()) {
    if (a.window.size() != 2) throw CommandError("--window needs WIDTH HEIGHT");
    m.window.width = a.window[0];
    m.window.height = a.window[1];
  }
  if (a.step <= 0) throw CommandError("--step must be positive");
  if (a.radiusGiven && !(a.radius > 0)) throw CommandError("--radius must be a positive number of pixels");
  if (!(a.blur >= 0) || !(a.noise >= 0)) throw CommandError("--blur and --noise must be 0 or more");
  m.window.xStep = m.window.yStep = a.step;
  auto camera = Quarn::SimulatedCamera::open(a.state);
  if (!camera) throw CommandError(camera.error());
  auto added = camera.value()->addModule(m);
  if (!added) throw CommandError(added.error());
  printWindow(camera.value());
}

void capture() {
  checkOutputFile(args().out, {args().state, restorePath()}, "OUT");
  auto camera = openCamera();
  auto picture = camera->capture(args().module);
  if (!picture) throw CommandError(picture.error());
  auto saved = Image::saveMat(picture.value(), args().out);
  if (!saved) throw CommandError(saved.error());
  std::cout << "wrote " << args().out << std::endl;
  JsonOutput::printActive({{"module", args().module}, {"picture", args().out},
                           {"size", {picture.value().cols, picture.value().rows}}});
}

// The sensor shifter's own words for a refused write ("!!!Error ...: Cannot
// write SensorShift!") with what happened and what to do; empty when the
// captured text holds none.
std::string refusedWrite(const std::string& captured, const std::string& module) {
  const std::size_t at = captured.find("!!!Error ");
  if (at == std::string::npos) return std::string();
  std::string why = captured.substr(at + 9, captured.find('\n', at) - at - 9);
  const std::size_t tail = why.rfind(": Cannot write SensorShift!");
  if (tail != std::string::npos) why.erase(tail);
  return "the device refused to move module '" + module + "''s sensor window (" + why +
         "); see where it is with 'sensor read STATE --module " + module +
         "', check the device and its limits, and write again";
}

void write() {
  openCamera();
  SensorCalibration::SensorShifter::SensorInfo info;
  info.x = args().x;
  info.y = args().y;
  std::ostringstream err;
  auto* old = std::cerr.rdbuf(err.rdbuf());
  SensorCalibration::SensorShifter::writeSensorShift(moduleFor(), info);
  std::cerr.rdbuf(old);
  if (const std::string refused = refusedWrite(err.str(), args().module); !refused.empty()) throw CommandError(refused);
  if (!err.str().empty()) throw CommandError(err.str().substr(0, err.str().find('\n')));
  printWindow(openCamera());
}

void centre() {
  if (const auto valid = GeometryCalibration::FisheyeOptions{args().threshold}.validate(); !valid) {
    throw CommandError("fisheye centring: " + valid.error());
  }
  auto camera = openCamera();
  const auto before = camera->module(args().module).value().window;
  auto picture = camera->capture(args().module);
  if (!picture) throw CommandError(picture.error());
  auto module = moduleFor();
  SensorCalibration::FisheyeCalibration calibration(*module, args().threshold);
  const auto found = calibration.calculateCalibration(Image::fromMat(picture.value()));
  if (found.radius < 0) throw CommandError("no plausible lens circle in the module's picture");
  const LensCircleCheck lens = checkLensCircle(picture.value(), args().threshold, found.x, found.y, found.radius);
  if (!lens.plausible) throw CommandError("no lens circle in module '" + args().module + "''s picture: " + lens.reason);
  const auto applied = calibration.apply(0, 0);
  if (!applied) throw CommandError(applied.error());
  // This module's restore point, beside those of the others (under the
  // file's lock: other modules may be centred at the same time); a second
  // centre keeps the first starting window.
  {
    const Utils::FileLock lock(restorePath());
    if (!lock.held()) throw CommandError(lock.error());
    nlohmann::json points = readRestorePoints();
    if (!points.contains(args().module)) points[args().module] = {{"x", before.x}, {"y", before.y}};
    writeRestorePoints(points);
  }
  auto after = camera->capture(args().module);
  if (!after) throw CommandError(after.error());
  const auto check = calibration.calculateCalibration(Image::fromMat(after.value()));
  const auto w = camera->module(args().module).value().window;
  std::cout << "circle at " << found.x << " " << found.y << " moved to " << check.x << " " << check.y
            << ", window now " << w.x << " " << w.y << std::endl;
  JsonOutput::printActive({{"module", args().module}, {"before", {found.x, found.y}}, {"after", {check.x, check.y}},
                           {"radius", check.radius}, {"window", {w.x, w.y}}});
}

void restore() {
  auto camera = openCamera();
  const Utils::FileLock lock(restorePath());
  if (!lock.held()) throw CommandError(lock.error());
  nlohmann::json points = readRestorePoints();
  if (!points.contains(args().module)) {
    throw CommandError("nothing to restore for module '" + args().module + "': no restore point in '" +
                       restorePath() + "' (run 'sensor centre' first)");
  }
  const auto& point = points[args().module];
  auto moved = camera->moveWindow(args().module, point.value("x", 0), point.value("y", 0));
  if (!moved) throw CommandError(moved.error());
  points.erase(args().module);
  writeRestorePoints(points);
  printWindow(camera);
}

// Balances the overlap of two simulated modules; --camera lends them the
// geometry and linkage of the camera file's modules of the same names.
void overlap() {
  const SensorArgs& a = args();
  if (a.modules.size() != 2) throw CommandError("--modules needs two module ids: LEFT,RIGHT");
  auto camera = Quarn::SimulatedCamera::open(a.state);
  if (!camera) throw CommandError(camera.error());
  std::shared_ptr<CameraDescription::OrbivaneModule> pair[2];
  Utils::Optional<CameraDescription::Orbivane> description;
  if (!a.camera.empty()) {
    CameraDescription::CameraFileOptions options;
    options.loadImages = false;
    auto loaded = CameraDescription::loadCameraFile(a.camera, options);
    if (!loaded) throw CommandError(loaded.error());
    description = std::move(loaded).value();
  }
  for (int i = 0; i < 2; ++i) {
    auto simulated = camera.value()->module(a.modules[i]);
    if (!simulated) throw CommandError(simulated.error());
    pair[i] = moduleFor(a.modules[i]);
    if (description) {
      auto described = description->findModule(Utils::fromUtf8(a.modules[i]));
      if (!described) throw CommandError("the camera file '" + a.camera + "' has no module '" + a.modules[i] + "'");
      if (auto* geometry = described->geometry()) pair[i]->setGeometry(geometry->clone());
      if (auto* linkage = described->linkage()) pair[i]->setLinkage(linkage->clone());
      pair[i]->setShaders(described->shaders());
    }
  }
  // The picture's place is checked before any window moves.
  if (!a.picture.empty()) {
    checkOutputFile(a.picture, {a.state, restorePath(), a.camera}, "--picture");
    if (!cv::haveImageWriter(a.picture)) {
      throw CommandError("--picture " + a.picture + ": no picture format for that name; end it in .png or .jpg");
    }
  }
  SensorCalibration::SensorShifter::OverlapOptions options;
  options.wantedPixels = a.overlap;
  options.searchShare = a.search;
  std::ostringstream err;
  auto* old = std::cerr.rdbuf(err.rdbuf());
  auto result = SensorCalibration::SensorShifter::overlapCalibration(pair[0], pair[1], options);
  std::cerr.rdbuf(old);
  if (!result) throw CommandError(result.error());
  for (const auto& module : a.modules) {
    const std::string refused = refusedWrite(err.str(), module);
    if (!refused.empty() && err.str().find(module) != std::string::npos) {
      std::cerr << "orbivane-calibrate: " << refused << "\n";
      exitStatus() = kExitFailedModules;
    }
  }
  const auto& r = result.value();
  if (!a.picture.empty()) {
    auto shown = SensorCalibration::SensorShifter::overlapImg(pair[0], pair[1], r.wanted);
    if (!shown) throw CommandError("the overlap picture could not be drawn");
    auto saved = Image::saveImage(*shown, a.picture);
    if (!saved) throw CommandError(saved.error());
  }
  char line[256];
  std::snprintf(line, sizeof line, "overlap %.2f px -> %.2f px (wanted %.2f px)%s; windows %s x %d, %s x %d; %d move(s)",
                r.before.overlap, r.after.overlap, r.wanted, r.reached ? "" : ", not reached", a.modules[0].c_str(),
                r.leftWindow.x, a.modules[1].c_str(), r.rightWindow.x, r.moves);
  std::cout << line << std::endl;
  JsonOutput::printActive({{"left", a.modules[0]},
                           {"right", a.modules[1]},
                           {"wanted", r.wanted},
                           {"before", r.before.overlap},
                           {"after", r.after.overlap},
                           {"dy", r.after.y},
                           {"score", r.after.score},
                           {"windows", {{r.leftWindow.x, r.leftWindow.y}, {r.rightWindow.x, r.rightWindow.y}}},
                           {"moves", r.moves},
                           {"reached", r.reached}});
}

CLI::App* withStateAndModule(CLI::App* sensor, const std::string& name, const std::string& help) {
  CLI::App* cmd = sensor->add_subcommand(name, help);
  cmd->add_option("STATE", args().state, "Simulated camera state file")->required();
  cmd->add_option("--module", args().module, "Module id")->required();
  return cmd;
}

}  // namespace

void addSensorCommand(CLI::App& app) {
  CLI::App* sensor = app.add_subcommand("sensor", "Sensor windows of a simulated camera");
  sensor->require_subcommand(1);
  SensorArgs& a = args();
  CLI::App* c = withStateAndModule(sensor, "create", "Add or replace a simulated module");
  c->add_option("--scene", a.scene, "fisheye, target or a picture file")->capture_default_str();
  c->add_option("--size", a.size, "Sensor frame WIDTH HEIGHT of a rendered scene")->expected(2);
  c->add_option("--centre", a.centre, "Lens circle centre (fisheye) or corner mark (target) X Y")->expected(2);
  c->add_option("--radius", a.radius, "Lens circle radius in pixels")->each([](const std::string&) {
    args().radiusGiven = true;
  });
  c->add_option("--crop", a.crop, "Part X Y WIDTH HEIGHT of the picture that is the sensor frame")->expected(4);
  c->add_option("--window", a.window, "Sensor window WIDTH HEIGHT")->expected(2);
  c->add_option("--step", a.step, "Window step in sensor pixels")->capture_default_str();
  c->add_option("--blur", a.blur, "Blur sigma of a rendered scene")->capture_default_str();
  c->add_option("--noise", a.noise, "Noise sigma of a rendered scene")->capture_default_str();
  c->add_flag("--json", a.json, "Print the window as one JSON object");
  c->callback([] { JsonOutput output(args().json); create(); });
  CLI::App* r = withStateAndModule(sensor, "read", "Print the sensor window");
  r->add_flag("--json", a.json, "Print one JSON object");
  r->callback([] {
    JsonOutput output(args().json);
    printWindow(openCamera());
  });
  CLI::App* w = withStateAndModule(sensor, "write", "Move the sensor window (clamped and rounded to the steps)");
  w->add_option("--x", a.x, "Window x")->required();
  w->add_option("--y", a.y, "Window y")->required();
  w->add_flag("--json", a.json, "Print one JSON object");
  w->callback([] { JsonOutput output(args().json); write(); });
  CLI::App* p = withStateAndModule(sensor, "capture", "Write the sensor window's picture");
  p->add_option("OUT", a.out, "Picture file")->required();
  p->add_flag("--json", a.json, "Print one JSON object");
  p->callback([] { JsonOutput output(args().json); capture(); });
  CLI::App* f = withStateAndModule(sensor, "centre", "Centre the lens circle in the sensor window");
  f->add_option("--threshold", a.threshold, "Grey threshold of the lens circle (0..255)")->capture_default_str();
  f->add_flag("--json", a.json, "Print one JSON object");
  f->callback([] { JsonOutput output(args().json); centre(); });
  CLI::App* b = withStateAndModule(sensor, "restore", "Put the window back where centre found it");
  b->add_flag("--json", a.json, "Print one JSON object");
  b->callback([] { JsonOutput output(args().json); restore(); });
  CLI::App* o = sensor->add_subcommand("overlap", "Move two neighbouring windows until their pictures overlap as wanted");
  o->add_option("STATE", a.state, "Simulated camera state file")->required();
  o->add_option("--modules", a.modules, "LEFT,RIGHT module ids")->delimiter(',')->required();
  o->add_option("--overlap", a.overlap, "Wanted overlap in pixels of the left picture (default: the linkage's share)")
      ->check(CLI::Range(0.0, 1e6));
  o->add_option("--camera", a.camera, "Camera file lending the modules geometry and linkage");
  o->add_option("--search", a.search, "Share of the left picture searched for the overlap (0..1]")
      ->check(CLI::Range(0.001, 1.0))
      ->capture_default_str();
  o->add_option("--picture", a.picture, "Write the overlap picture");
  o->add_flag("--json", a.json, "Print one JSON object");
  o->callback([] { JsonOutput output(args().json); overlap(); });
}

}  // namespace Tool
