// The sensor side in Python: blur estimation, fisheye centring, resolution,
// the sensor shifter with the simulated camera it can talk to, and finding
// calibration pictures in recordings (SmartFinderImage).
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core/utility.hpp>
#include <pybind11/stl.h>

#include "bindings.h"
#include "orbivane/blur_detection/estimate_blur.h"
#include "orbivane/image_selection/smart_finder_image.h"
#include "orbivane/simulated/simulated_camera.h"
#include "orbivane/sensor_calibration/fisheye_calibration.h"
#include "orbivane/sensor_calibration/resolution_calibration.h"
#include "orbivane/sensor_calibration/sensor_shifter.h"

namespace OrbivanePython {
namespace {

using CameraDescription::OrbivaneModule;
using ModulePtr = std::shared_ptr<OrbivaneModule>;
using SensorCalibration::SensorShifter;

// Fills `field` from dict key `key` when present; records the key as used.
template <typename T>
void take(const py::dict& d, const char* key, T& field, std::vector<std::string>& used) {
  used.emplace_back(key);
  if (d.contains(key)) field = d[key].cast<T>();
}

void refuseUnknown(const py::dict& d, const std::vector<std::string>& used, const std::string& what) {
  for (const auto& item : d) {
    const std::string key = item.first.cast<std::string>();
    if (std::find(used.begin(), used.end(), key) == used.end()) {
      std::string known;
      for (const auto& k : used) known += (known.empty() ? "" : ", ") + k;
      throw py::value_error("unknown " + what + " key '" + key + "' (known: " + known + ")");
    }
  }
}

template <typename T>
T valueOrRaise(Utils::ReturnState<T, std::string> state) {
  if (!state) throw LibraryError(state.error());
  return std::move(state).value();
}

// --- sensor windows ------------------------------------------------------------

py::dict sensorInfoDict(const SensorShifter::SensorInfo& i) {
  py::dict d;
  d["module"] = narrow(i.moduleName);
  d["x"] = i.x;
  d["x_min"] = i.xMin;
  d["x_max"] = i.xMax;
  d["x_step"] = i.xStep;
  d["y"] = i.y;
  d["y_min"] = i.yMin;
  d["y_max"] = i.yMax;
  d["y_step"] = i.yStep;
  d["virtual_shift"] = i.virtualShift;
  d["device_x_min"] = i.deviceXMin;
  d["device_x_max"] = i.deviceXMax;
  d["device_y_min"] = i.deviceYMin;
  d["device_y_max"] = i.deviceYMax;
  return d;
}

SensorShifter::SensorInfo sensorInfoFrom(const py::dict& d) {
  SensorShifter::SensorInfo i;
  std::vector<std::string> used;
  std::string name;
  take(d, "module", name, used);
  i.moduleName = wide(name);
  take(d, "x", i.x, used);
  take(d, "x_min", i.xMin, used);
  take(d, "x_max", i.xMax, used);
  take(d, "x_step", i.xStep, used);
  take(d, "y", i.y, used);
  take(d, "y_min", i.yMin, used);
  take(d, "y_max", i.yMax, used);
  take(d, "y_step", i.yStep, used);
  take(d, "virtual_shift", i.virtualShift, used);
  take(d, "device_x_min", i.deviceXMin, used);
  take(d, "device_x_max", i.deviceXMax, used);
  take(d, "device_y_min", i.deviceYMin, used);
  take(d, "device_y_max", i.deviceYMax, used);
  refuseUnknown(d, used, "sensor window");
  return i;
}

py::dict overlapDict(const SensorShifter::OverlapMeasurement& m) {
  py::dict d;
  d["overlap"] = m.overlap;
  d["x"] = m.x;
  d["y"] = m.y;
  d["score"] = m.score;
  return d;
}

// What overlap_calibration returns: the pair, the overlap before and after, the windows now set.
py::dict overlapResultDict(const SensorShifter::OverlapResult& result) {
  py::dict d;
  d["left"] = narrow(result.left);
  d["right"] = narrow(result.right);
  d["wanted"] = result.wanted;
  d["before"] = overlapDict(result.before);
  d["after"] = overlapDict(result.after);
  d["left_window"] = sensorInfoDict(result.leftWindow);
  d["right_window"] = sensorInfoDict(result.rightWindow);
  d["moves"] = result.moves;
  d["reached"] = result.reached;
  return d;
}

// --- simulated camera -----------------------------------------------------------

// The records' fields as Python names them, from the one list each record has.
template <typename Record, typename Fields>
py::dict recordDict(const Record& record, Fields fields) {
  py::dict d;
  fields(record, [&d](const Quarn::SimulatedField& f, const auto& value) { d[f.python] = value; });
  return d;
}

template <typename Record, typename Fields>
Record recordFrom(const py::dict& d, Fields fields, const char* what) {
  Record record;
  std::vector<std::string> used;
  fields(record, [&](const Quarn::SimulatedField& f, auto& value) { take(d, f.python, value, used); });
  refuseUnknown(d, used, what);
  return record;
}

py::dict sceneDict(const Quarn::SimulatedScene& s) {
  return recordDict(s, [](const auto& r, auto&& visit) { Quarn::sceneFields(r, visit); });
}

Quarn::SimulatedScene sceneFrom(const py::dict& d) {
  return recordFrom<Quarn::SimulatedScene>(d, [](auto& r, auto&& visit) { Quarn::sceneFields(r, visit); }, "scene");
}

py::dict windowDict(const Quarn::SimulatedWindow& w) {
  return recordDict(w, [](const auto& r, auto&& visit) { Quarn::windowFields(r, visit); });
}

Quarn::SimulatedWindow windowFrom(const py::dict& d) {
  return recordFrom<Quarn::SimulatedWindow>(d, [](auto& r, auto&& visit) { Quarn::windowFields(r, visit); },
                                            "window");
}

Quarn::SimulatedFaults faultsFrom(const py::dict& d) {
  return recordFrom<Quarn::SimulatedFaults>(d, [](auto& r, auto&& visit) { Quarn::faultFields(r, visit); },
                                            "faults");
}

void registerSimulatedCamera(py::module_& m) {
  using Quarn::SimulatedCamera;
  py::class_<SimulatedCamera, std::shared_ptr<SimulatedCamera>>(
      m, "SimulatedCamera",
      "A simulated camera for the session library (connection backend 'simulated'): each module has a sensor "
      "frame (a rendered fisheye circle, a three-mark target, or a picture file) and a sensor window on it; "
      "capturing returns the window's crop.")
      .def_static(
          "open", [](const std::string& address) { return valueOrRaise(SimulatedCamera::open(address)); },
          py::arg("address"), "'memory:NAME' (lives for the process), a state file path or a recordings index.")
      .def(
          "add_module",
          [](SimulatedCamera& self, const std::string& id, const py::dict& scene, const py::object& window,
             const py::object& faults, int latencyMs) {
            Quarn::SimulatedModule module;
            module.id = id;
            module.scene = sceneFrom(scene);
            if (!window.is_none()) module.window = windowFrom(window.cast<py::dict>());
            if (!faults.is_none()) module.faults = faultsFrom(faults.cast<py::dict>());
            module.latencyMs = latencyMs;
            const LibraryCall release("SensorCalibration");
            valueOrRaise(self.addModule(module));
          },
          py::arg("id"), py::arg("scene"), py::arg("window") = py::none(), py::arg("faults") = py::none(),
          py::arg("latency_ms") = 0,
          "Adds or replaces a module. scene: {'kind': 'fisheye'|'target'|'image', 'width', 'height', 'centre_x', "
          "'centre_y', 'radius', ...}; window: {'x', 'y', 'width', 'height', 'x_min', ...} (zero sizes and limits "
          "are filled in); faults: {'connect_refused', 'write_failing', ...}.")
      .def(
          "module",
          [](const SimulatedCamera& self, const std::string& id) {
            const auto module = valueOrRaise(self.module(id));
            py::dict d;
            d["id"] = module.id;
            d["scene"] = sceneDict(module.scene);
            d["window"] = windowDict(module.window);
            d["latency_ms"] = module.latencyMs;
            return d;
          },
          py::arg("id"),
           "The simulated module of that id as a dict (window, scene, faults); KeyError when there is none.")
      .def("module_ids", [](const SimulatedCamera& self) { return valueOrRaise(self.moduleIds()); },
           "The ids of the simulated modules.")
      .def(
          "capture",
          [](const SimulatedCamera& self, const std::string& id) {
            Utils::ReturnState<cv::Mat, std::string> picture = Utils::failure("not captured");
            {
              const LibraryCall release("SensorCalibration");
              picture = self.capture(id);
            }
            return arrayFromMat(valueOrRaise(std::move(picture)));
          },
          py::arg("id"), "The picture the module's window shows now (BGR).")
      .def(
          "sensor_frame",
          [](const SimulatedCamera& self, const std::string& id) {
            return arrayFromMat(valueOrRaise(self.sensorFrame(id)));
          },
          py::arg("id"),
           "The module's whole sensor frame (the picture the window crops) as a BGR array.")
      .def(
          "move_window",
          [](SimulatedCamera& self, const std::string& id, int x, int y) {
            const LibraryCall release("SensorCalibration");
            valueOrRaise(self.moveWindow(id, x, y));
          },
          py::arg("id"), py::arg("x"), py::arg("y"),
           "Moves the module's sensor window (clamped to its limits, rounded to its steps).")
      .def_property_readonly("address", &SimulatedCamera::address,
           "The state file the simulated camera keeps its modules in (or 'memory:...').");
}

// The module's window as read_sensor_shift returns it; OrbivaneError when it cannot be read.
py::dict readSensorWindow(ModulePtr module, const py::object& virtualShift, float buffer) {
  SensorShifter::SensorInfo info;
  bool ok = false;
  {
    const LibraryCall release("SensorCalibration");
    ok = virtualShift.is_none() ? SensorShifter::readSensorShift(module, info)
                                : SensorShifter::readSensorShift(module, info, virtualShift.cast<bool>(), buffer);
  }
  if (!ok) {
    throw LibraryError("cannot read the sensor window of module '" + narrow(module->name()) +
                       "' (no connection, connection refused, or the device gave no window)");
  }
  return sensorInfoDict(info);
}

using SensorShifterClass = py::class_<SensorShifter>;

// Reading, writing and moving a module's window, and the shifter's settings.
void registerSensorShifterWindows(SensorShifterClass& cls) {
  cls.def_static("read_sensor_shift", &readSensorWindow, py::arg("module"), py::arg("virtual_shift") = py::none(),
                 py::arg("buffer") = 0.0f,
                 "The module's window {'x', 'x_min', 'x_max', 'x_step', 'y', ...}; virtual_shift None uses the "
                 "process-wide switch. Raises OrbivaneError when it cannot be read.")
      .def_static(
          "write_sensor_shift",
          [](ModulePtr module, const py::dict& info) {
            const auto window = sensorInfoFrom(info);
            const LibraryCall release("SensorCalibration");
            SensorShifter::writeSensorShift(module, window);
          },
          py::arg("module"), py::arg("info"),
          "Sends info['x'], info['y'] (clamped to the device's limits, rounded to its steps).")
      .def_static(
          "sensorshift_calibration",
          [](ModulePtr module, double dx, double dy) {
            Utils::ReturnState<SensorShifter::SensorInfo, std::string> r = Utils::failure("not run");
            {
              const LibraryCall release("SensorCalibration");
              r = SensorShifter::sensorshiftCalibration(module, dx, dy);
            }
            return sensorInfoDict(valueOrRaise(std::move(r)));
          },
          py::arg("module"), py::arg("surface_dx"), py::arg("surface_dy"),
          "Moves the module's window by a displacement on the panorama surface; returns the window now set.")
      .def_static(
          "cvt_to_pixel_sensor_shift",
          [](ModulePtr module, double dx, double dy) {
            const auto shift = valueOrRaise(SensorShifter::cvtToPixelSensorShift(module, dx, dy));
            return py::make_tuple(shift.x, shift.y);
          },
          py::arg("module"), py::arg("surface_dx"), py::arg("surface_dy"),
          "A window move in sensor units turned into pixels of the module's picture.")
      .def_static(
          "update_settings",
          [](ModulePtr module) {
            const LibraryCall release("SensorCalibration");
            return SensorShifter::updateSettings(module);
          },
          py::arg("module"), "Reads the shifter's settings (virtual shift and its buffer) again.");
}

// The virtual shift: its switch, its buffer, the windows it remembers and the picture area they leave.
void registerSensorShifterVirtualShift(SensorShifterClass& cls) {
  cls.def_static("enable_virtual_sensor_shift",
                 [](bool enable, float buffer) { SensorShifter::enableVirtualSensorShift(enable, buffer); },
                 py::arg("enable"), py::arg("buffer") = 0.0f,
                 "Turns the virtual shift on or off: when on, writing a window also moves the module's picture on "
                 "the panorama.")
      .def_static("virtual_sensor_shift_enabled", &SensorShifter::virtualSensorShiftEnabled,
                  "Whether writing a window also moves the module's picture on the panorama.")
      .def_static("virtual_sensor_shift_buffer", &SensorShifter::virtualSensorShiftBuffer,
                  "Sensor pixels the virtual shift keeps off the device's limits.")
      .def_static(
          "last_changed_sensor_info",
          [](const std::string& name) { return sensorInfoDict(SensorShifter::lastChangedSensorInfo(wide(name))); },
          py::arg("module"),
          "The window last written in this process (the store the virtual shift works from), or None.")
      .def_static(
          "get_unclipped_rect",
          [](ModulePtr module, const py::dict& info) {
            const auto quad = SensorShifter::getUnclippedRect(module, sensorInfoFrom(info));
            py::list out;
            for (const auto& c : quad.corners) out.append(py::make_tuple(c.x, c.y));
            return out;
          },
          py::arg("module"), py::arg("info"),
          "Corners (top-left, top-right, bottom-right, bottom-left) of the unclipped picture area, texture units.");
}

// Measuring and balancing the overlap of two neighbouring modules.
void registerSensorShifterOverlap(SensorShifterClass& cls) {
  cls.def_static("measure_overlap",
                 [](const py::object& left, const py::object& right, double searchShare, double minScore) {
                   auto a = pictureFromArray(left, "left picture");
                   auto b = pictureFromArray(right, "right picture");
                   Utils::ReturnState<SensorShifter::OverlapMeasurement, std::string> r =
                       Utils::failure("not measured");
                   {
                     const LibraryCall release("SensorCalibration");
                     r = SensorShifter::measureOverlap(a, b, searchShare, minScore);
                   }
                   return overlapDict(valueOrRaise(std::move(r)));
                 },
                 py::arg("left"), py::arg("right"), py::arg("search_share") = 0.5, py::arg("min_score") = 0.8,
                 "How two neighbouring pictures overlap: {'overlap', 'x', 'y', 'score'} (pixels of the left "
                 "picture).")
      .def_static(
          "overlap_calibration",
          [](ModulePtr left, ModulePtr right, double wantedPixels, int maxIterations, double searchShare,
             double minScore) {
            SensorShifter::OverlapOptions options;
            options.wantedPixels = wantedPixels;
            options.maxIterations = maxIterations;
            options.searchShare = searchShare;
            options.minScore = minScore;
            Utils::ReturnState<SensorShifter::OverlapResult, std::string> r = Utils::failure("not run");
            {
              const LibraryCall release("SensorCalibration");
              r = SensorShifter::overlapCalibration(left, right, options);
            }
            return overlapResultDict(valueOrRaise(std::move(r)));
          },
          py::arg("left"), py::arg("right"), py::arg("wanted_pixels") = -1.0, py::arg("max_iterations") = 3,
          py::arg("search_share") = 0.5, py::arg("min_score") = 0.8,
          "Moves the windows of two neighbouring modules until their pictures overlap by wanted_pixels.")
      .def_static(
          "overlap_img",
          [](ModulePtr left, ModulePtr right, double wantedPixels) {
            return arrayFromPicture(SensorShifter::overlapImg(left, right, wantedPixels));
          },
          py::arg("left"), py::arg("right"), py::arg("wanted_pixels") = -1.0,
          "The two modules' strips side by side and their overlap laid together (left red, right cyan), as a BGR "
          "array.");
}

void registerSensorShifter(py::module_& m) {
  SensorShifterClass cls(
      m, "SensorShifter",
      "Reads and moves modules' sensor windows through the session library (positions in sensor pixels), keeps "
      "the last window of each module, and balances the overlap of neighbouring modules. Static methods only.");
  registerSensorShifterWindows(cls);
  registerSensorShifterVirtualShift(cls);
  registerSensorShifterOverlap(cls);
}

// --- fisheye and resolution ---------------------------------------------------------

struct PyFisheye {
  PyFisheye(const OrbivaneModule& module, const py::object& threshold)
      : impl(threshold.is_none() ? std::make_unique<SensorCalibration::FisheyeCalibration>(module)
                                 : std::make_unique<SensorCalibration::FisheyeCalibration>(module,
                                                                                          threshold.cast<int>())) {}
  std::unique_ptr<SensorCalibration::FisheyeCalibration> impl;
};

struct PyResolution {
  PyResolution(const OrbivaneModule& module, float realX, float realY, int minBlobArea)
      : impl(std::make_unique<SensorCalibration::ResolutionCalibration>(module, realX, realY, minBlobArea)) {}
  std::unique_ptr<SensorCalibration::ResolutionCalibration> impl;
};

void registerFisheyeAndResolution(py::module_& m) {
  py::class_<PyFisheye>(m, "FisheyeCalibration",
                        "Fisheye centring: finds the bright lens circle in a module's picture and moves the module's "
                        "sensor window so the circle sits in the middle.")
      .def(py::init<const OrbivaneModule&, const py::object&>(), py::arg("module"), py::arg("threshold") = py::none(),
           "threshold: grey level of the circle's edge (None: 97).")
      .def_property_readonly("threshold", [](const PyFisheye& self) { return self.impl->threshold(); },
           "The grey threshold the lens circle is found with (0..255).")
      .def(
          "calculate_calibration",
          [](PyFisheye& self, const py::object& picture) {
            auto image = pictureFromArray(picture, "fisheye picture");
            SensorCalibration::FisheyeCalibration::CalibrationResults r;
            {
              const LibraryCall release("SensorCalibration");
              r = self.impl->calculateCalibration(image);
            }
            py::dict d;
            d["picture"] = arrayFromPicture(r.image);
            d["x"] = r.x;
            d["y"] = r.y;
            d["radius"] = r.radius;
            return d;
          },
          py::arg("picture"),
          "{'picture' (with the circle drawn in), 'x', 'y', 'radius'} in pixels; -1 without a valid circle.")
      .def(
          "apply",
          [](PyFisheye& self, short x, short y) {
            Utils::ReturnState<bool, std::string> r = false;
            {
              const LibraryCall release("SensorCalibration");
              r = self.impl->apply(x, y);
            }
            return valueOrRaise(std::move(r));
          },
          py::arg("x") = 0, py::arg("y") = 0,
          "Moves the window so the last circle comes to the middle (+ x, y sensor pixels); raises OrbivaneError "
          "when the device refuses.")
      .def("restore", [](PyFisheye& self) {
        const LibraryCall release("SensorCalibration");
        return self.impl->restore();
      },
           "Moves the sensor window back to where it was before apply(); True when it could be written.");

  py::class_<PyResolution>(m, "ResolutionCalibration",
                           "Resolution: metres per pixel from a target of three round marks at the corners of a "
                           "right angle with known sides.")
      .def(py::init<const OrbivaneModule&, float, float, int>(), py::arg("module"), py::arg("real_x"),
           py::arg("real_y"), py::arg("min_blob_area"),
           "real_x, real_y: the mark triangle's sides in metres; min_blob_area: the smallest mark in pixels.")
      .def(
          "calculate_calibration",
          [](PyResolution& self, const py::object& picture) {
            auto image = pictureFromArray(picture, "target picture");
            std::shared_ptr<Image::UniversalImageInterface> annotated;
            {
              const LibraryCall release("SensorCalibration");
              annotated = self.impl->calculateCalibration(image);
            }
            return arrayFromPicture(annotated);
          },
          py::arg("picture"), "Measures and returns the annotated picture.")
      .def("circle_count", [](const PyResolution& self) { return self.impl->circleCount(); },
           "How many circle marks the last measurement found.")
      .def("horizontal_spacing", [](const PyResolution& self) { return self.impl->horizontalSpacing(); },
           "The marks' horizontal spacing in pixels, or -1 before a measurement.")
      .def("vertical_spacing", [](const PyResolution& self) { return self.impl->verticalSpacing(); },
           "The marks' vertical spacing in pixels, or -1 before a measurement.")
      .def("metres_per_pixel_x", [](const PyResolution& self) { return self.impl->metresPerPixelX(); },
           "Metres on the target per picture pixel across, or -1 before a measurement.")
      .def("metres_per_pixel_y", [](const PyResolution& self) { return self.impl->metresPerPixelY(); },
           "Metres on the target per picture pixel down, or -1 before a measurement.")
      .def("apply", [](PyResolution& self) {
        const LibraryCall release("SensorCalibration");
        return self.impl->apply();
      },
           "Writes the measured pixel size into the module; False when nothing was measured.")
      .def("restore", [](PyResolution& self) { return self.impl->restore(); },
           "Puts back the module's resolution values from before apply().")
      .def("applied", [](const PyResolution& self) { return self.impl->applied(); },
           "Whether apply() has set the module's resolution values.");
}

// --- frames from recordings ----------------------------------------------------------

OrbivaneCalibration::SmartFinderOptions finderOptionsFrom(const py::dict& d,
                                                          OrbivaneCalibration::SmartFinderOptions o) {
  std::vector<std::string> used;
  py::object from = py::none(), to = py::none();
  used.emplace_back("from_ms");
  if (d.contains("from_ms")) from = d["from_ms"];
  used.emplace_back("to_ms");
  if (d.contains("to_ms")) to = d["to_ms"];
  if (d.contains("from_ms")) o.fromMs = from.is_none() ? Utils::Optional<std::int64_t>() : from.cast<std::int64_t>();
  if (d.contains("to_ms")) o.toMs = to.is_none() ? Utils::Optional<std::int64_t>() : to.cast<std::int64_t>();
  take(d, "step_seconds", o.stepSeconds, used);
  take(d, "samples", o.samples, used);
  std::string detector = OrbivaneCalibration::personDetectorKindName(o.detector.kind);
  take(d, "detector", detector, used);
  o.detector.kind = valueOrRaise(OrbivaneCalibration::parsePersonDetectorKind(detector));
  take(d, "yolo_directory", o.detector.yoloDirectory, used);
  take(d, "confidence", o.detector.confidence, used);
  take(d, "min_person_height", o.detector.minPersonHeight, used);
  take(d, "blur_weight", o.blurWeight, used);
  take(d, "exposure_weight", o.exposureWeight, used);
  take(d, "moments_per_module", o.momentsPerModule, used);
  take(d, "minimum_spacing_seconds", o.minimumSpacingSeconds, used);
  take(d, "background_frames", o.backgroundFrames, used);
  take(d, "motion_gap_seconds", o.motionGapSeconds, used);
  take(d, "max_motion", o.maxMotion, used);
  take(d, "max_foreground", o.maxForeground, used);
  take(d, "smallest_person_height", o.smallestPersonHeight, used);
  refuseUnknown(d, used, "finder option");
  auto valid = o.validate();
  if (!valid) throw py::value_error(valid.error());
  return o;
}

py::dict frameDict(const OrbivaneCalibration::SmartFinderFrame& f) {
  py::dict d;
  d["module"] = narrow(f.module);
  d["time_ms"] = f.timeMs;
  d["track"] = f.track;
  d["frame"] = f.frame;
  d["persons"] = f.persons;
  py::list boxes;
  for (const auto& b : f.personBoxes) boxes.append(py::make_tuple(b.x, b.y, b.width, b.height));
  d["person_boxes"] = boxes;
  d["blur"] = f.blur;
  d["brightness"] = f.brightness;
  d["clipped"] = f.clipped;
  d["exposure"] = f.exposure;
  d["motion"] = f.motion;
  d["score"] = f.score;
  d["built_background"] = f.builtBackground;
  d["frames_used"] = f.framesUsed;
  // Against the background model of the searched window.
  d["foreground_measured"] = f.foregroundMeasured;
  d["foreground"] = f.foreground;
  d["foreground_blob"] = f.foregroundBlob;
  d["foreground_box"] = py::make_tuple(f.foregroundBox.x, f.foregroundBox.y, f.foregroundBox.width,
                                       f.foregroundBox.height);
  d["foreground_persons"] = f.foregroundPersons;
  d["noise_level"] = f.noiseLevel;
  d["is_free"] = f.isFree;
  d["picture"] = arrayFromPicture(f.picture);
  return d;
}

py::dict framesDict(const std::map<std::wstring, std::vector<OrbivaneCalibration::SmartFinderFrame>>& frames) {
  py::dict out;
  for (const auto& [name, list] : frames) {
    py::list l;
    for (const auto& f : list) l.append(frameDict(f));
    out[py::str(narrow(name))] = l;
  }
  return out;
}

struct PySmartFinder {
  explicit PySmartFinder(const CameraDescription::Orbivane& camera)
      : impl(std::make_unique<OrbivaneCalibration::SmartFinderImage>(camera)) {
    impl->registerStatusCallback(relay.callback());
  }
  std::unique_ptr<OrbivaneCalibration::SmartFinderImage> impl;
  CallbackRelay relay;
};

void registerSmartFinder(py::module_& m) {
  py::class_<PySmartFinder>(
      m, "SmartFinderImage",
      "Finds calibration pictures in recordings: per module the sampled moments without persons, sharp, well "
      "exposed and still; a clean background when no such moment exists.")
      .def(py::init<const CameraDescription::Orbivane&>(), py::arg("camera"),
           "Modules need connections to recordings (backend 'simulated', address = a recordings index).")
      .def(
          "set_options",
          [](PySmartFinder& self, const py::kwargs& options) {
            self.impl->setOptions(finderOptionsFrom(options, self.impl->options()));
          },
          "Keywords: from_ms, to_ms, step_seconds, samples, detector ('auto', 'hog', 'haar', 'yolo', "
          "'maskrcnn'), yolo_directory, confidence, min_person_height, blur_weight, exposure_weight, "
          "moments_per_module, minimum_spacing_seconds, background_frames, motion_gap_seconds, max_motion, "
          "max_foreground, smallest_person_height. "
          "Bad values raise ValueError.")
      .def("register_status_callback", [](PySmartFinder& self, py::object fn) { self.relay.setFunction(std::move(fn)); },
           py::arg("fn"),
           "fn(step, total, text, info) for each step of find(); None removes it.")
      .def("abort", [](PySmartFinder& self) { self.impl->abort(); },
           "Stops a running find() at the next frame; safe from any thread.")
      .def(
          "find",
          [](PySmartFinder& self, const std::vector<std::string>& modules) {
            auto found = self.relay.run("SmartFinderImage.find", [&] { return self.impl->find(wideList(modules)); });
            return framesDict(valueOrRaise(std::move(found)));
          },
          py::arg("modules") = std::vector<std::string>(),
          "{module: [frame, ...]} best first; a frame is a dict with 'time_ms', 'track', 'frame', 'persons', "
          "'blur', 'exposure', 'motion', 'score', 'built_background', 'foreground', 'is_free', 'picture', ...")
      .def("errors",
           [](const PySmartFinder& self) {
             py::dict out;
             for (const auto& [name, e] : self.impl->errors()) out[py::str(narrow(name))] = e;
             return out;
           },
           "Modules of the last find() that got no picture, with the reason.")
      .def("samples", [](const PySmartFinder& self) { return framesDict(self.impl->samples()); },
           "Every frame the last find() looked at, per module, with its verdict.")
      .def("detector_description", [](const PySmartFinder& self) { return self.impl->detectorDescription(); },
           "Which person detector the finder uses, in words.")
      .def(
          "pictures",
          [](const PySmartFinder& self) {
            py::dict out;
            for (const auto& [name, p] : self.impl->images()) out[py::str(narrow(name))] = arrayFromPicture(p);
            return out;
          },
          "The best picture of each module that has one.")
      .def(
          "camera_with_pictures",
          [](const PySmartFinder& self) {
            return std::make_shared<CameraDescription::Orbivane>(self.impl->cameraWithPictures());
          },
          "A copy of the camera whose modules carry their best pictures.");
}

}  // namespace

void registerSensorCalibration(py::module_& m) {
  m.def(
      "set_num_threads",
      [](int threads) {
        if (threads < 0) throw py::value_error("the thread count is 0 (OpenCV's default) or more");
        cv::setNumThreads(threads == 0 ? -1 : threads);
      },
      py::arg("threads"),
      "Threads OpenCV's parallel loops may use in this process (the calibrators' image work); 0 restores "
      "OpenCV's default. Worker processes of a cluster set it to their share of the cores.");
  m.def("get_num_threads", [] { return cv::getNumThreads(); });
  m.def(
      "estimate_blur",
      [](const py::object& picture, int rotation) {
        auto image = pictureFromArray(picture, "picture");
        const LibraryCall release("SensorCalibration");
        return BlurDetection::estimateBlur(image, rotation);
      },
      py::arg("picture"), py::arg("rotation") = 0,
      "Sharpness: the variance of the Laplacian of the picture turned by the mounting rotation (degrees), two "
      "thin bands of rows left out; larger is sharper.");
  registerSimulatedCamera(m);
  registerSensorShifter(m);
  registerFisheyeAndResolution(m);
  registerSmartFinder(m);
}

}  // namespace OrbivanePython
