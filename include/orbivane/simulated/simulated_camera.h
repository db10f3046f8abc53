// A simulated camera for the session library (backend "simulated"). Each
// module has a full sensor frame (a picture file or a rendered scene) and a
// sensor window on it; capturing returns the window's crop, so moving the
// window moves the picture.
//
// Window convention (sensor pixels): the window is width x height; position
// (0, 0) puts it in the middle of the sensor frame, and position (x, y) puts
// its top-left pixel at ((frameWidth - width) / 2 + x, (frameHeight - height)
// / 2 + y) (integer division). Larger x moves the window right, so the scene
// moves left in the captured picture. Parts of the window off the frame are
// black.
//
// The camera's state lives either in a JSON file (the connection's address is
// its path; every operation reads it and every change writes it atomically,
// so separate processes see the same camera) or in memory (address
// "memory:NAME", for tests). Faults and latency are per module.
//
// The simulated camera is a test double of a device: it keeps no
// recordings (the "recordings" backend plays those, see
// orbivane/recordings/recording_player.h), and answers searches with "not
// supported by this backend". A connection of backend "simulated" whose
// address is a recordings index (files written before the recordings backend
// existed) is played by the recordings backend all the same.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "orbivane/export.h"
#include "orbivane/session/quarn_records.h"
#include "orbivane/utils/return_state.h"

namespace Quarn {

// What the sensor sees.
struct SimulatedScene {
  // "fisheye": a bright lens circle with vignetting on a dark surround;
  // "target": three dark round marks at the corners of a right angle on a
  // bright ground; "image": a picture file, or a crop of it (frame size =
  // the picture's or the crop's).
  std::string kind = "fisheye";
  int width = 1920;   // sensor frame size in pixels (rendered scenes)
  int height = 1080;
  // fisheye: circle centre and radius (pixels), brightness falling to
  // (1 - vignetting) at the rim.
  double centreX = 960.0;
  double centreY = 540.0;
  double radius = 500.0;
  double vignetting = 0.4;
  // target: the corner mark and the two sides (pixels), mark radius (pixels)
  // and rotation (degrees, counter-clockwise on the picture).
  double cornerX = 560.0;
  double cornerY = 340.0;
  double spacingX = 800.0;
  double spacingY = 400.0;
  double markRadius = 30.0;
  double rotation = 0.0;
  // all rendered scenes: Gaussian blur sigma and noise sigma (grey levels).
  double blur = 1.0;
  double noise = 2.0;
  std::uint32_t seed = 1;
  // image: the picture file, and the part of it that is the sensor frame
  // (pixels; a width or height of 0 takes the whole picture). Two modules
  // cropped from one wide picture see the same scene with a known overlap.
  std::string imagePath;
  int cropX = 0;
  int cropY = 0;
  int cropWidth = 0;
  int cropHeight = 0;
};

struct SimulatedWindow {
  int x = 0;
  int y = 0;
  int width = 0;   // 0: three quarters of the frame, chosen when the module is added
  int height = 0;
  int xMin = 0;
  int xMax = 0;
  int xStep = 1;
  int yMin = 0;
  int yMax = 0;
  int yStep = 1;
};

struct SimulatedFaults {
  bool connectRefused = false;
  bool sensorInfoEmpty = false;    // the device answers with no values
  bool sensorInfoFailing = false;  // the device answers with an error
  bool writeFailing = false;       // the device refuses every window write
  bool writeTimeout = false;       // the device never answers a window write
  int writeTimeoutMs = 3000;       // how long it stays silent before dropping the write
};

// Each record's fields, described once: the state file's reader and writer,
// the Python bindings and the command line walk these lists. `visit(field,
// member)` is called for every field in order; `field` gives the name Python
// uses and where the state file keeps the value (a key, or one element of
// the array at a key). `Record` is the record or a const record.
struct SimulatedField {
  const char* python;  // key in Python's dicts
  const char* json;    // key in the state file
  int element = -1;    // element of the array at `json`; -1: the value itself
};

template <typename Record, typename Visit>
void sceneFields(Record& s, Visit&& visit) {
  visit(SimulatedField{"kind", "kind"}, s.kind);
  visit(SimulatedField{"width", "width"}, s.width);
  visit(SimulatedField{"height", "height"}, s.height);
  visit(SimulatedField{"centre_x", "centre", 0}, s.centreX);
  visit(SimulatedField{"centre_y", "centre", 1}, s.centreY);
  visit(SimulatedField{"radius", "radius"}, s.radius);
  visit(SimulatedField{"vignetting", "vignetting"}, s.vignetting);
  visit(SimulatedField{"corner_x", "corner", 0}, s.cornerX);
  visit(SimulatedField{"corner_y", "corner", 1}, s.cornerY);
  visit(SimulatedField{"spacing_x", "spacing", 0}, s.spacingX);
  visit(SimulatedField{"spacing_y", "spacing", 1}, s.spacingY);
  visit(SimulatedField{"mark_radius", "markRadius"}, s.markRadius);
  visit(SimulatedField{"rotation", "rotation"}, s.rotation);
  visit(SimulatedField{"blur", "blur"}, s.blur);
  visit(SimulatedField{"noise", "noise"}, s.noise);
  visit(SimulatedField{"seed", "seed"}, s.seed);
  visit(SimulatedField{"image_path", "imagePath"}, s.imagePath);
  visit(SimulatedField{"crop_x", "crop", 0}, s.cropX);
  visit(SimulatedField{"crop_y", "crop", 1}, s.cropY);
  visit(SimulatedField{"crop_width", "crop", 2}, s.cropWidth);
  visit(SimulatedField{"crop_height", "crop", 3}, s.cropHeight);
}

template <typename Record, typename Visit>
void windowFields(Record& w, Visit&& visit) {
  visit(SimulatedField{"x", "x"}, w.x);
  visit(SimulatedField{"y", "y"}, w.y);
  visit(SimulatedField{"width", "width"}, w.width);
  visit(SimulatedField{"height", "height"}, w.height);
  visit(SimulatedField{"x_min", "xMin"}, w.xMin);
  visit(SimulatedField{"x_max", "xMax"}, w.xMax);
  visit(SimulatedField{"x_step", "xStep"}, w.xStep);
  visit(SimulatedField{"y_min", "yMin"}, w.yMin);
  visit(SimulatedField{"y_max", "yMax"}, w.yMax);
  visit(SimulatedField{"y_step", "yStep"}, w.yStep);
}

template <typename Record, typename Visit>
void faultFields(Record& f, Visit&& visit) {
  visit(SimulatedField{"connect_refused", "connectRefused"}, f.connectRefused);
  visit(SimulatedField{"sensor_info_empty", "sensorInfoEmpty"}, f.sensorInfoEmpty);
  visit(SimulatedField{"sensor_info_failing", "sensorInfoFailing"}, f.sensorInfoFailing);
  visit(SimulatedField{"write_failing", "writeFailing"}, f.writeFailing);
  visit(SimulatedField{"write_timeout", "writeTimeout"}, f.writeTimeout);
  visit(SimulatedField{"write_timeout_ms", "writeTimeoutMs"}, f.writeTimeoutMs);
}

struct SimulatedModule {
  std::string id;  // the connection's device
  SimulatedScene scene;
  SimulatedWindow window;
  SimulatedFaults faults;
  int latencyMs = 0;  // added to every operation
};

class ORBIVANE_EXPORT SimulatedCamera {
 public:
  // The camera behind an address: "memory:NAME" (made on first use, lives for
  // the process) or a state file path (a missing file is an empty camera
  // until the first module is added). A recordings index is refused: the
  // recordings backend plays it.
  static Utils::ReturnState<std::shared_ptr<SimulatedCamera>, std::string> open(const std::string& address);

  // Adds or replaces a module. A zero window size becomes three quarters of
  // the frame; zero limits become the largest range that keeps the window on
  // the frame, rounded to the steps. Fails for an unreadable picture or a
  // bad size.
  Utils::ReturnState<bool, std::string> addModule(SimulatedModule module);
  Utils::ReturnState<SimulatedModule, std::string> module(const std::string& id) const;
  // Replaces a module's record as it is (no defaults filled in).
  Utils::ReturnState<bool, std::string> setModule(const SimulatedModule& module);
  Utils::ReturnState<std::vector<std::string>, std::string> moduleIds() const;

  // Device operations, with the module's faults and latency.
  Utils::ReturnState<bool, std::string> connect(const std::string& id) const;
  Utils::ReturnState<CamerasensorInfoData, std::string> sensorInfo(const std::string& id) const;
  Utils::ReturnState<EmptyReturn, std::string> moveWindow(const std::string& id, int x, int y);
  Utils::ReturnState<cv::Mat, std::string> capture(const std::string& id) const;
  // The whole sensor frame of a module (no faults, no latency).
  Utils::ReturnState<cv::Mat, std::string> sensorFrame(const std::string& id) const;

  const std::string& address() const { return address_; }

  // The state as JSON text and back.
  static std::string toJson(const std::vector<SimulatedModule>& modules);
  static Utils::ReturnState<std::vector<SimulatedModule>, std::string> fromJson(const std::string& text);

  explicit SimulatedCamera(std::string address);
  ~SimulatedCamera();

 private:
  Utils::ReturnState<std::vector<SimulatedModule>, std::string> load() const;
  Utils::ReturnState<bool, std::string> store(const std::vector<SimulatedModule>& modules);
  Utils::ReturnState<SimulatedModule, std::string> find(const std::string& id) const;

  std::string address_;
  bool inMemory_ = false;
  mutable std::mutex mutex_;
  std::vector<SimulatedModule> memory_;
};

}  // namespace Quarn
