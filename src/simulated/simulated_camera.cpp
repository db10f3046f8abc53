// The simulated camera: state in a JSON file or in memory, sensor frames
// rendered from the scene description (and cached), window crops.
#include "orbivane/simulated/simulated_camera.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "orbivane/image/image_conversion.h"
#include "orbivane/recordings/recordings_index.h"
#include "simulated/scene_renderer.h"
#include "recordings/video_frame_reader.h"
#include "utils/json_path.h"
#include "orbivane/utils/atomic_file.h"

namespace Quarn {
namespace {

// Memory a rendered sensor frame may take (bytes), and what one of its
// pixels takes while it is made (the 8-bit frame and the float noise).
constexpr double kMaxRenderBytes = 1024.0 * 1024 * 1024;
constexpr double kRenderBytesPerPixel = 3 + 12;

using json = nlohmann::json;
constexpr const char* kFormat = "orbivane-simulated-camera";
constexpr const char* kMemoryPrefix = "memory:";

// A whole number of type T at `key` (or `fallback` when the key is absent).
// nlohmann converts a number out of T's range without a word (undefined
// behaviour for a float), so the range and wholeness are checked here.
template <typename T>
T wholeNumber(const json& v, const char* key) {
  const std::string name = std::string("\"") + key + "\"";
  if (!v.is_number()) throw std::invalid_argument(name + " is not a number");
  const double d = v.get<double>();
  if (!(d >= static_cast<double>(std::numeric_limits<T>::min()) &&
        d <= static_cast<double>(std::numeric_limits<T>::max())) ||
      d != std::floor(d)) {
    throw std::invalid_argument(name + " must be a whole number from " +
                                std::to_string(std::numeric_limits<T>::min()) + " to " +
                                std::to_string(std::numeric_limits<T>::max()));
  }
  return static_cast<T>(d);
}

template <typename T>
T wholeNumber(const json& j, const char* key, T fallback) {
  if (!j.contains(key)) return fallback;
  return wholeNumber<T>(j.at(key), key);
}

// One field of a record into the state file, and back (a field the file
// does not have keeps its value).
template <typename T>
void putField(json& j, const SimulatedField& f, const T& value) {
  if (f.element < 0) {
    j[f.json] = value;
    return;
  }
  json& list = j[f.json];
  if (!list.is_array()) list = json::array();
  while (list.size() <= std::size_t(f.element)) list.push_back(nullptr);
  list[std::size_t(f.element)] = value;
}

void readValue(const json& v, const char* key, int& value) { value = wholeNumber<int>(v, key); }
void readValue(const json& v, const char* key, std::uint32_t& value) { value = wholeNumber<std::uint32_t>(v, key); }
void readValue(const json& v, const char*, double& value) { value = v.get<double>(); }
void readValue(const json& v, const char*, bool& value) { value = v.get<bool>(); }
void readValue(const json& v, const char*, std::string& value) { value = v.get<std::string>(); }

template <typename T>
void getField(const json& j, const SimulatedField& f, T& value) {
  if (!j.contains(f.json)) return;
  readValue(f.element < 0 ? j.at(f.json) : j.at(f.json).at(std::size_t(f.element)), f.json, value);
}

json sceneToJson(const SimulatedScene& s) {
  json j = json::object();
  sceneFields(s, [&j](const SimulatedField& f, const auto& value) { putField(j, f, value); });
  return j;
}

SimulatedScene sceneFromJson(const json& j) {
  SimulatedScene s;
  sceneFields(s, [&j](const SimulatedField& f, auto& value) { getField(j, f, value); });
  return s;
}

json windowToJson(const SimulatedWindow& w) {
  json j = json::object();
  windowFields(w, [&j](const SimulatedField& f, const auto& value) { putField(j, f, value); });
  return j;
}

SimulatedWindow windowFromJson(const json& j) {
  SimulatedWindow w;
  windowFields(w, [&j](const SimulatedField& f, auto& value) { getField(j, f, value); });
  return w;
}

json faultsToJson(const SimulatedFaults& f) {
  json j = json::object();
  faultFields(f, [&j](const SimulatedField& field, const auto& value) { putField(j, field, value); });
  return j;
}

SimulatedFaults faultsFromJson(const json& j) {
  SimulatedFaults f;
  faultFields(f, [&j](const SimulatedField& field, auto& value) { getField(j, field, value); });
  return f;
}

// Rendered frames by scene description; scenes rarely change, rendering a
// large frame is not free.
Utils::ReturnState<cv::Mat, std::string> renderScene(const SimulatedScene& scene) {
  static std::mutex cacheMutex;
  static std::list<std::pair<std::string, cv::Mat>> cache;
  const std::string key = sceneToJson(scene).dump();
  {
    std::lock_guard<std::mutex> lock(cacheMutex);
    for (const auto& entry : cache) {
      if (entry.first == key) return entry.second;
    }
  }
  cv::Mat frame;
  if (scene.kind == "image") {
    auto picture = Image::loadImage(scene.imagePath);
    if (!picture) return Utils::failure(picture.error());
    frame = Image::toMat(picture.value());
    if (scene.cropWidth > 0 || scene.cropHeight > 0 || scene.cropX != 0 || scene.cropY != 0) {
      const cv::Rect crop(scene.cropX, scene.cropY, scene.cropWidth > 0 ? scene.cropWidth : frame.cols - scene.cropX,
                          scene.cropHeight > 0 ? scene.cropHeight : frame.rows - scene.cropY);
      if (crop.x < 0 || crop.y < 0 || crop.width <= 0 || crop.height <= 0 || crop.x + crop.width > frame.cols ||
          crop.y + crop.height > frame.rows) {
        return Utils::failure("the crop " + std::to_string(crop.x) + "," + std::to_string(crop.y) + " " +
                              std::to_string(crop.width) + "x" + std::to_string(crop.height) + " is not inside the " +
                              std::to_string(frame.cols) + "x" + std::to_string(frame.rows) + " picture '" +
                              scene.imagePath + "'");
      }
      frame = frame(crop).clone();
    }
  } else if (scene.width <= 0 || scene.height <= 0 || scene.width > 20000 || scene.height > 20000) {
    return Utils::failure("scene size " + std::to_string(scene.width) + "x" + std::to_string(scene.height) +
                          " is out of range (1 to 20000 pixels)");
  } else if (double(scene.width) * scene.height * kRenderBytesPerPixel > kMaxRenderBytes) {
    return Utils::failure("a scene of " + std::to_string(scene.width) + "x" + std::to_string(scene.height) +
                          " pixels needs about " +
                          std::to_string(int(double(scene.width) * scene.height * kRenderBytesPerPixel / 1048576.0)) +
                          " MB to render, more than the " + std::to_string(int(kMaxRenderBytes / 1048576.0)) +
                          " MB allowed; choose a smaller --size");
  } else if (!std::isfinite(scene.centreX + scene.centreY + scene.radius + scene.vignetting + scene.cornerX +
                            scene.cornerY + scene.spacingX + scene.spacingY + scene.markRadius + scene.rotation +
                            scene.blur + scene.noise)) {
    return Utils::failure("scene values must be finite numbers");
  } else if (scene.kind == "fisheye") {
    frame = renderLensCircle({scene.width, scene.height}, {scene.centreX, scene.centreY}, scene.radius,
                             scene.vignetting, scene.blur, scene.noise, scene.seed);
  } else if (scene.kind == "target") {
    frame = renderThreeCircleTarget({scene.width, scene.height}, {scene.cornerX, scene.cornerY}, scene.spacingX,
                                    scene.spacingY, scene.markRadius, scene.rotation, scene.blur, scene.noise,
                                    scene.seed);
  } else {
    return Utils::failure("unknown scene kind '" + scene.kind + "' (fisheye, target or image)");
  }
  std::lock_guard<std::mutex> lock(cacheMutex);
  cache.emplace_front(key, frame);
  if (cache.size() > 6) cache.pop_back();
  return frame;
}

int roundDownTo(int value, int step) { return step > 0 ? value - value % step : value; }

void sleepFor(int ms) {
  if (ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

std::map<std::string, std::shared_ptr<SimulatedCamera>>& memoryCameras() {
  static std::map<std::string, std::shared_ptr<SimulatedCamera>> cameras;
  return cameras;
}
std::mutex& memoryCamerasMutex() {
  static std::mutex m;
  return m;
}

}  // namespace

SimulatedCamera::SimulatedCamera(std::string address)
    : address_(std::move(address)), inMemory_(address_.rfind(kMemoryPrefix, 0) == 0) {}

SimulatedCamera::~SimulatedCamera() = default;

Utils::ReturnState<std::shared_ptr<SimulatedCamera>, std::string> SimulatedCamera::open(const std::string& address) {
  if (address.empty()) return Utils::failure("the simulated camera needs an address: a state file or memory:NAME");
  if (address.rfind(kMemoryPrefix, 0) == 0) {
    std::lock_guard<std::mutex> lock(memoryCamerasMutex());
    auto& slot = memoryCameras()[address];
    if (!slot) slot = std::make_shared<SimulatedCamera>(address);
    return slot;
  }
  if (isRecordingsIndexFile(address)) {
    return Utils::failure("'" + address + "' is a recordings index: it is played by the \"recordings\" backend, not "
                          "simulated");
  }
  return std::make_shared<SimulatedCamera>(address);
}

std::string SimulatedCamera::toJson(const std::vector<SimulatedModule>& modules) {
  json list = json::array();
  for (const auto& m : modules) {
    list.push_back({{"id", m.id},
                    {"latencyMs", m.latencyMs},
                    {"scene", sceneToJson(m.scene)},
                    {"window", windowToJson(m.window)},
                    {"faults", faultsToJson(m.faults)}});
  }
  return json{{"format", kFormat}, {"version", 1}, {"modules", list}}.dump(2) + "\n";
}

Utils::ReturnState<std::vector<SimulatedModule>, std::string> SimulatedCamera::fromJson(const std::string& text) {
  try {
    auto parsed = Utils::parseJsonText(text, "simulated camera state");
    if (!parsed) return Utils::failure(parsed.error());
    const json& root = parsed.value();
    if (root.value("format", std::string()) != kFormat) {
      return Utils::failure(std::string("not a simulated camera state (format is not \"") + kFormat + "\")");
    }
    std::vector<SimulatedModule> modules;
    for (const json& m : root.at("modules")) {
      SimulatedModule module;
      module.id = m.at("id").get<std::string>();
      module.latencyMs = wholeNumber(m, "latencyMs", 0);
      if (m.contains("scene")) module.scene = sceneFromJson(m.at("scene"));
      if (m.contains("window")) module.window = windowFromJson(m.at("window"));
      if (m.contains("faults")) module.faults = faultsFromJson(m.at("faults"));
      modules.push_back(std::move(module));
    }
    return modules;
  } catch (const json::exception& e) {
    return Utils::failure(std::string("simulated camera state: ") + e.what());
  } catch (const std::invalid_argument& e) {
    return Utils::failure(std::string("simulated camera state: ") + e.what());
  }
}

Utils::ReturnState<std::vector<SimulatedModule>, std::string> SimulatedCamera::load() const {
  if (inMemory_) return memory_;
  std::ifstream probe(address_);
  if (!probe) return std::vector<SimulatedModule>{};
  auto text = Utils::readWholeFile(address_);
  if (!text) return Utils::failure(text.error());
  auto modules = fromJson(text.value());
  if (!modules) return Utils::failure(address_ + ": " + modules.error());
  return modules;
}

Utils::ReturnState<bool, std::string> SimulatedCamera::store(const std::vector<SimulatedModule>& modules) {
  if (inMemory_) {
    memory_ = modules;
    return true;
  }
  return Utils::writeFileAtomically(address_, toJson(modules));
}

Utils::ReturnState<SimulatedModule, std::string> SimulatedCamera::find(const std::string& id) const {
  auto modules = load();
  if (!modules) return Utils::failure(modules.error());
  for (const auto& m : modules.value()) {
    if (m.id == id) return m;
  }
  return Utils::failure("the simulated camera " + address_ + " has no module '" + id + "'");
}

Utils::ReturnState<bool, std::string> SimulatedCamera::addModule(SimulatedModule module) {
  if (module.id.empty()) return Utils::failure("a simulated module needs an id");
  auto frame = renderScene(module.scene);
  if (!frame) return Utils::failure(frame.error());
  const int fw = frame.value().cols, fh = frame.value().rows;
  SimulatedWindow& w = module.window;
  if (w.width <= 0) w.width = std::max(1, fw * 3 / 4);
  if (w.height <= 0) w.height = std::max(1, fh * 3 / 4);
  if (w.xStep <= 0 || w.yStep <= 0) return Utils::failure("window steps must be positive");
  if (w.width > fw || w.height > fh) {
    // A window beyond the sensor would capture black padding as picture.
    return Utils::failure("a window of " + std::to_string(w.width) + "x" + std::to_string(w.height) +
                          " pixels does not fit the " + std::to_string(fw) + "x" + std::to_string(fh) +
                          " sensor frame");
  }
  if (w.xMin == 0 && w.xMax == 0) {
    w.xMax = roundDownTo(std::max(0, (fw - w.width) / 2), w.xStep);
    w.xMin = -w.xMax;
  }
  if (w.yMin == 0 && w.yMax == 0) {
    w.yMax = roundDownTo(std::max(0, (fh - w.height) / 2), w.yStep);
    w.yMin = -w.yMax;
  }
  if (w.xMin > w.xMax || w.yMin > w.yMax) return Utils::failure("window limits are reversed");
  return setModule(module);
}

Utils::ReturnState<bool, std::string> SimulatedCamera::setModule(const SimulatedModule& module) {
  std::lock_guard<std::mutex> lock(mutex_);
  // Other processes may write the same state file: read, change and write
  // it under the file's lock, so no writer loses another's module.
  std::unique_ptr<Utils::FileLock> fileLock;
  if (!inMemory_) {
    fileLock = std::make_unique<Utils::FileLock>(address_);
    if (!fileLock->held()) return Utils::failure(fileLock->error());
  }
  auto modules = load();
  if (!modules) return Utils::failure(modules.error());
  auto& list = modules.value();
  auto it = std::find_if(list.begin(), list.end(), [&](const SimulatedModule& m) { return m.id == module.id; });
  if (it == list.end()) {
    list.push_back(module);
  } else {
    *it = module;
  }
  return store(list);
}

Utils::ReturnState<SimulatedModule, std::string> SimulatedCamera::module(const std::string& id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return find(id);
}

Utils::ReturnState<std::vector<std::string>, std::string> SimulatedCamera::moduleIds() const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto modules = load();
  if (!modules) return Utils::failure(modules.error());
  std::vector<std::string> ids;
  for (const auto& m : modules.value()) ids.push_back(m.id);
  return ids;
}

Utils::ReturnState<bool, std::string> SimulatedCamera::connect(const std::string& id) const {
  auto m = module(id);
  if (!m) return Utils::failure(m.error());
  sleepFor(m.value().latencyMs);
  if (m.value().faults.connectRefused) return Utils::failure("connection refused by simulated module '" + id + "'");
  return true;
}

Utils::ReturnState<CamerasensorInfoData, std::string> SimulatedCamera::sensorInfo(const std::string& id) const {
  auto found = module(id);
  if (!found) return Utils::failure(found.error());
  const SimulatedModule& m = found.value();
  sleepFor(m.latencyMs);
  if (m.faults.sensorInfoFailing) return Utils::failure("simulated module '" + id + "' cannot report its sensor");
  if (m.faults.sensorInfoEmpty) return CamerasensorInfoData{};
  const SimulatedWindow& w = m.window;
  return CamerasensorInfoData{{w.x, w.y, w.xMin, w.xMax, w.xStep, w.yMin, w.yMax, w.yStep}};
}

Utils::ReturnState<EmptyReturn, std::string> SimulatedCamera::moveWindow(const std::string& id, int x, int y) {
  auto found = module(id);
  if (!found) return Utils::failure(found.error());
  SimulatedModule m = found.value();
  sleepFor(m.latencyMs);
  if (m.faults.writeTimeout) {
    sleepFor(m.faults.writeTimeoutMs);
    return Utils::failure("simulated module '" + id + "' did not answer the window write");
  }
  if (m.faults.writeFailing) return Utils::failure("simulated module '" + id + "' refused the window write");
  const SimulatedWindow& w = m.window;
  if (x < w.xMin || x > w.xMax || y < w.yMin || y > w.yMax) {
    return Utils::failure("window position (" + std::to_string(x) + ", " + std::to_string(y) + ") is outside [" +
                          std::to_string(w.xMin) + ", " + std::to_string(w.xMax) + "] x [" + std::to_string(w.yMin) +
                          ", " + std::to_string(w.yMax) + "]");
  }
  if ((w.xStep > 0 && x % w.xStep != 0) || (w.yStep > 0 && y % w.yStep != 0)) {
    return Utils::failure("window position (" + std::to_string(x) + ", " + std::to_string(y) +
                          ") is not on the steps " + std::to_string(w.xStep) + ", " + std::to_string(w.yStep));
  }
  m.window.x = x;
  m.window.y = y;
  auto stored = setModule(m);
  if (!stored) return Utils::failure(stored.error());
  return EmptyReturn{};
}

Utils::ReturnState<cv::Mat, std::string> SimulatedCamera::sensorFrame(const std::string& id) const {
  auto m = module(id);
  if (!m) return Utils::failure(m.error());
  return renderScene(m.value().scene);
}

Utils::ReturnState<cv::Mat, std::string> SimulatedCamera::capture(const std::string& id) const {
  auto found = module(id);
  if (!found) return Utils::failure(found.error());
  const SimulatedModule& m = found.value();
  sleepFor(m.latencyMs);
  auto frame = renderScene(m.scene);
  if (!frame) return Utils::failure(frame.error());
  const cv::Mat& f = frame.value();
  const SimulatedWindow& w = m.window;
  if (w.width <= 0 || w.height <= 0) return Utils::failure("simulated module '" + id + "' has an empty window");
  cv::Mat picture(w.height, w.width, f.type(), cv::Scalar::all(0));
  const cv::Rect window((f.cols - w.width) / 2 + w.x, (f.rows - w.height) / 2 + w.y, w.width, w.height);
  const cv::Rect onFrame = window & cv::Rect(0, 0, f.cols, f.rows);
  if (onFrame.area() > 0) f(onFrame).copyTo(picture(onFrame - window.tl()));
  return picture;
}

}  // namespace Quarn
