// The geometry calibrators in Python: MatchToTarget, NeighbourNeighbour,
// ShaderBruteForcer and AutoClipping. Each wrapper owns the library's
// calibrator and a callback relay; the main operation runs with the GIL
// released, so abort() works from another Python thread.
#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include <pybind11/stl.h>

#include "bindings.h"
#include "orbivane/geometry_calibration/calibrator_options.h"
#include "orbivane/geometry_calibration/matrix_based/auto_clipping.h"
#include "orbivane/geometry_calibration/matrix_based/match_to_target.h"
#include "orbivane/geometry_calibration/matrix_based/neighbour_neighbour.h"
#include "orbivane/geometry_calibration/matrix_based/shader_brute_forcer.h"

namespace OrbivanePython {
namespace {

using CameraDescription::Orbivane;
using GeometryCalibration::MatrixBased::AutoClipping;
using GeometryCalibration::MatrixBased::MatchToTarget;
using GeometryCalibration::MatrixBased::NeighbourNeighbour;
using GeometryCalibration::MatrixBased::ShaderBruteForcer;
using CameraPtr = std::shared_ptr<Orbivane>;

const char* kCallbackDoc =
    "Registers fn(step, total, text, info) (info: StepInfo), called on the calibrating thread with the GIL held. "
    "An exception raised there stops the run and is raised by the running call. None removes it.";

struct PyMatchToTarget {
  PyMatchToTarget(const Orbivane& camera, const py::dict& pictures)
      : impl(std::make_unique<MatchToTarget>(camera, picturesFromDict(pictures))), names(moduleNames(camera)) {
    impl->registerStatusCallback(relay.callback());
  }
  std::unique_ptr<MatchToTarget> impl;
  std::set<std::string> names;
  std::atomic<bool> aborted{false};  // abort() was called: every later calibrate() returns at once
  CallbackRelay relay;
};

struct PyNeighbourNeighbour {
  PyNeighbourNeighbour(const Orbivane& camera, const py::dict& pictures, int levels, int iterations, float step)
      : impl(checked(camera, pictures, levels, iterations, step)), names(moduleNames(camera)) {
    impl->registerStatusCallback(relay.callback());
  }
  // The stitcher, its settings checked by the library's own rules first.
  static std::unique_ptr<NeighbourNeighbour> checked(const Orbivane& camera, const py::dict& pictures, int levels,
                                                     int iterations, float step) {
    if (const auto valid = GeometryCalibration::NeighbourOptions{levels, iterations, step}.validate(); !valid) {
      throw py::value_error(valid.error());
    }
    return std::make_unique<NeighbourNeighbour>(camera, picturesFromDict(pictures), levels, iterations, step);
  }
  std::unique_ptr<NeighbourNeighbour> impl;
  std::set<std::string> names;
  CallbackRelay relay;
};

struct PyShaderBruteForcer {
  PyShaderBruteForcer(const Orbivane& camera, const py::dict& pictures, const py::object& parameters)
      : names(moduleNames(camera)) {
    for (const auto& item : pictures) pictureNames.insert(py::str(item.first).cast<std::string>());
    if (parameters.is_none()) {
      impl = std::make_unique<ShaderBruteForcer>(camera, picturesFromDict(pictures));
    } else {
      impl = std::make_unique<ShaderBruteForcer>(camera, picturesFromDict(pictures), parameterList(parameters));
    }
    impl->registerStatusCallback(relay.callback());
  }
  std::set<std::string> names, pictureNames;  // the camera's modules; the pictures given

  // [(name, min, max, step[, kind]), ...] in walk order, the first outermost.
  static ShaderBruteForcer::ParameterList parameterList(const py::handle& parameters) {
    ShaderBruteForcer::ParameterList list;
    for (const auto& entry : parameters) {
      const auto t = entry.cast<py::tuple>();
      if (t.size() != 4 && t.size() != 5) {
        throw py::value_error("a parameter range is (name, min, max, step) or (name, min, max, step, kind)");
      }
      ShaderBruteForcer::MinMaxStep range;
      range.min = t[1].cast<float>();
      range.max = t[2].cast<float>();
      range.step = t[3].cast<float>();
      range.kind = t.size() == 5 ? t[4].cast<int>() : 0;
      list.emplace_back(t[0].cast<std::string>(), range);
    }
    return list;
  }
  static py::list parameterTuples(const ShaderBruteForcer::ParameterList& list) {
    py::list out;
    for (const auto& [name, r] : list) out.append(py::make_tuple(name, r.min, r.max, r.step, r.kind));
    return out;
  }

  std::unique_ptr<ShaderBruteForcer> impl;
  CallbackRelay relay;
};

py::dict resultDict(const ShaderBruteForcer::Result& result) {
  py::dict out;
  out["error"] = result.error;
  out["grid_index"] = result.gridIndex;
  out["parameters"] = result.parameters;
  return out;
}

ShaderBruteForcer::Result resultFromDict(const py::handle& object) {
  const auto d = object.cast<py::dict>();
  if (!d.contains("error") || !d.contains("grid_index") || !d.contains("parameters")) {
    throw py::value_error("a search result is {'error', 'grid_index', 'parameters'}");
  }
  ShaderBruteForcer::Result r;
  r.error = d["error"].cast<float>();
  r.gridIndex = d["grid_index"].cast<std::uint64_t>();
  r.parameters = d["parameters"].cast<std::map<std::string, float>>();
  return r;
}

std::vector<CameraPtr> sharedCameras(std::list<Orbivane> cameras) {
  std::vector<CameraPtr> out;
  for (auto& c : cameras) out.push_back(std::make_shared<Orbivane>(std::move(c)));
  return out;
}

// Target matching's settings with one field changed, as MatchOptions judges
// them: ValueError naming the range when out of it.
void requireValidMatch(const std::function<void(GeometryCalibration::MatchOptions&)>& change) {
  GeometryCalibration::MatchOptions settings;
  change(settings);
  if (const auto valid = settings.validate(); !valid) throw py::value_error(valid.error());
}

using MatchToTargetClass = py::class_<PyMatchToTarget>;

// Construction, the run itself and stopping it.
void registerMatchToTargetRun(MatchToTargetClass& cls) {
  cls.def(py::init<const Orbivane&, const py::dict&>(), py::arg("camera"), py::arg("pictures"),
          "Copies the camera; pictures maps module names to arrays (H x W x 3 uint8 BGR, or grey), used in place "
          "where their layout allows.")
      .def(
          "calibrate",
          [](PyMatchToTarget& self, const std::vector<std::string>& modules, const std::string& target) {
            requireModules(self.names, modules, "module");
            requireModules(self.names, {target}, "target module");
            auto result = self.relay.run("MatchToTarget.calibrate",
                                         [&] { return self.impl->calibrate(wideList(modules), wide(target)); });
            return std::make_shared<Orbivane>(std::move(result));
          },
          py::arg("modules"), py::arg("target"),
          "Aligns the modules (in list order) to `target` and returns the corrected copy of the camera. "
          "Releases the GIL; abort() from another thread makes it return what it has.")
      .def(
          "abort",
          [](PyMatchToTarget& self) {
            self.aborted = true;
            self.impl->abort();
          },
          "Stops a running calibrate() at the next module (that module and the rest are 'aborted'); safe from any "
          "thread. Later calibrate() calls return at once.")
      .def("aborted", [](const PyMatchToTarget& self) { return self.aborted.load(); }, "Whether abort() was called.");
}

// The calibration mode and the UV grids mode 0 refines.
void registerMatchToTargetModeAndGrid(MatchToTargetClass& cls) {
  cls.def("set_calibration_mode",
          [](PyMatchToTarget& self, int mode) {
            requireValidMatch([&](GeometryCalibration::MatchOptions& o) { o.mode = mode; });
            self.impl->setCalibrationMode(static_cast<MatchToTarget::CalibrateMode>(mode));
          },
          py::arg("mode"), "Sets the mode (0..3; ValueError otherwise) for the next calibrate().")
      .def("calibration_mode", [](const PyMatchToTarget& self) { return int(self.impl->calibrationMode()); },
           "The mode calibrate() uses: 0 feature matching, 1 keep matrices, 2 optical flow, 3 iterative.")
      .def("set_grid_enabled", [](PyMatchToTarget& self, bool enabled) { self.impl->setGridEnabled(enabled); },
           py::arg("enabled"), "Mode 0: refine the modules' UV grids too (each needs init_grid).")
      .def(
          "init_grid",
          [](PyMatchToTarget& self, int columns, int rows, const std::string& module) {
            if (columns < 1 || rows < 1) throw py::value_error("a grid needs at least one column and one row");
            self.impl->initGrid(columns, rows, wide(module));
          },
          py::arg("columns"), py::arg("rows"), py::arg("module"),
          "Mode 0 with the grid enabled: gives `module` a UV grid of columns x rows cells to refine.")
      .def(
          "get_grid",
          [](const PyMatchToTarget& self, const std::string& module) -> py::object {
            const Utils::UVGrid grid = self.impl->getGrid(wide(module));
            if (grid.empty()) return py::none();
            py::array_t<float> out({grid.rows() + 1, grid.columns() + 1, 2});
            auto view = out.mutable_unchecked<3>();
            for (int j = 0; j <= grid.rows(); ++j)
              for (int i = 0; i <= grid.columns(); ++i) {
                view(j, i, 0) = grid.point(i, j).u;
                view(j, i, 1) = grid.point(i, j).v;
              }
            return std::move(out);
          },
          py::arg("module"), "The module's grid as a (rows + 1) x (columns + 1) x 2 array, or None.");
}

// Mode 3's iteration limits, the work scale and the status callback.
void registerMatchToTargetLimits(MatchToTargetClass& cls) {
  cls.def(
         "set_options",
         [](PyMatchToTarget& self, const GeometryCalibration::MatchOptions& options, const py::object& modules) {
           if (const auto valid = options.validate(); !valid) throw py::value_error(valid.error());
           std::vector<std::string> names;
           if (modules.is_none()) {
             names.assign(self.names.begin(), self.names.end());
           } else {
             names = modules.cast<std::vector<std::string>>();
             requireModules(self.names, names, "module");
           }
           GeometryCalibration::applyMatchOptions(*self.impl, options, wideList(names));
         },
         py::arg("options"), py::arg("modules") = py::none(),
         "All of target matching's settings from a MatchOptions (checked first: ValueError), its grid (when it "
         "has one) for each of `modules` (None: every module).")
      .def("set_m2n_max_iteration",
          [](PyMatchToTarget& self, std::uint64_t n) {
            requireValidMatch([&](GeometryCalibration::MatchOptions& o) { o.m2n = n; });
            self.impl->setM2nMaxIteration(n);
          },
          py::arg("limit"), "Mode 3: runs in a row, 1..100 (default 1); ValueError outside.")
      .def("m2n_max_iteration", [](const PyMatchToTarget& self) { return self.impl->m2nMaxIteration(); },
           "Mode 3: runs in a row.")
      .def(
          "set_m2b_max_iteration",
          [](PyMatchToTarget& self, std::uint64_t n) {
            requireValidMatch([&](GeometryCalibration::MatchOptions& o) { o.m2b = n; });
            self.impl->setM2bMaxIteration(n);
          },
          py::arg("limit"), "Mode 3: matching rounds per module, 1..100 (default 5); ValueError outside.")
      .def("m2b_max_iteration", [](const PyMatchToTarget& self) { return self.impl->m2bMaxIteration(); },
           "Mode 3: matching rounds per module.")
      .def(
          "allow_scale",
          [](PyMatchToTarget& self, float scale) {
            requireValidMatch([&](GeometryCalibration::MatchOptions& o) { o.allowScale = scale; });
            self.impl->allowScale(scale);
          },
          py::arg("scale"),
          "Work scale: > 0 fixes it (at most 8), < 0 the target's resolution, 0 (default) from the module's "
          "placement; ValueError for a scale above 8 or not finite.")
      .def("register_status_callback",
           [](PyMatchToTarget& self, py::object fn) { self.relay.setFunction(std::move(fn)); }, py::arg("fn"),
           kCallbackDoc);
}

// What the last run left: errors, reports, working pictures and the work system's matrices.
void registerMatchToTargetResults(MatchToTargetClass& cls) {
  cls.def("error",
          [](const PyMatchToTarget& self) {
            py::dict out;
            for (const auto& [name, e] : self.impl->error()) {
              out[py::str(narrow(name))] = e < 3.0e38f ? py::object(py::float_(e)) : py::object(py::none());
            }
            return out;
          },
          "Per module error of the last run (modes 0 and 3 normalised: 0 as good as the best module, 10 failed); "
          "None for a module without an accepted estimate where no normalisation applies (the C++ API's largest "
          "float).")
      .def("module_reports", [](const PyMatchToTarget& self) { return moduleReportsDict(self.impl->moduleReports()); },
           "The verdict of the last calibrate per listed name ('aligned', 'kept', 'failed' or 'skipped'; 'error' "
           "is None for a module without one): {name: {'status', 'reason', 'error', "
           "'residual_px', 'supporting_pairs', 'start_correlation', 'correlation', 'overlap_share', 'moved_px'}}.")
      .def(
          "imgs_working_copy",
          [](const PyMatchToTarget& self, const std::string& module) {
            py::list out;
            for (const auto& picture : self.impl->imgsWorkingCopy(wide(module))) out.append(arrayFromPicture(picture));
            return out;
          },
          py::arg("module"), "The module's picture warped into the work system and the target at the work scale.")
      .def(
          "transform_to_work_system",
          [](const PyMatchToTarget& self, const std::string& module, const py::object& matrix) {
            return matrixArray(self.impl->transformToWorkSystem(wide(module), matrixFromObject(matrix)));
          },
          py::arg("module"), py::arg("matrix"),
          "A module matrix in the target's work system, where the estimators compare pictures.")
      .def(
          "transform_to_resulte",
          [](const PyMatchToTarget& self, const std::string& module, const py::object& matrix) {
            return matrixArray(self.impl->transformToResulte(wide(module), matrixFromObject(matrix)));
          },
          py::arg("module"), py::arg("matrix"),
          "The work-system matrix of a result turned back into a module matrix (the inverse of "
          "transform_to_work_system).")
      .def_static(
          "calculate_fin_matrix",
          [](const Orbivane& camera, const std::string& module) {
            return matrixArray(MatchToTarget::calculateFinMatrix(camera, wide(module)));
          },
          py::arg("camera"), py::arg("module"), "The module matrix composed with its clip-matrix shader.");
}

void registerMatchToTarget(py::module_& m) {
  MatchToTargetClass cls(
      m, "MatchToTarget",
      "Target matching: aligns the listed modules' pictures to a target module's picture and returns a corrected "
      "copy of the camera. Modes: 0 feature matching (default), 1 keep matrices (check only), 2 dense optical flow, "
      "3 iterative matching.");
  registerMatchToTargetRun(cls);
  registerMatchToTargetModeAndGrid(cls);
  registerMatchToTargetLimits(cls);
  registerMatchToTargetResults(cls);
}

void registerNeighbourNeighbour(py::module_& m) {
  py::class_<PyNeighbourNeighbour>(
      m, "NeighbourNeighbour",
      "Neighbour stitching: aligns a chain of neighbouring modules pair by pair (translation in the overlap) and "
      "returns a corrected copy of the camera.")
      .def(py::init<const Orbivane&, const py::dict&, int, int, float>(), py::arg("camera"), py::arg("pictures"),
           py::arg("levels") = 4, py::arg("iterations") = 6, py::arg("step") = 1.0f)
      .def(py::init([](const Orbivane& camera, const py::dict& pictures, const GeometryCalibration::NeighbourOptions& o) {
             return std::make_unique<PyNeighbourNeighbour>(camera, pictures, o.levels, o.iterations, o.step);
           }),
           py::arg("camera"), py::arg("pictures"), py::arg("options"), "The settings whole, from a NeighbourOptions.")
      .def(
          "calibrate",
          [](PyNeighbourNeighbour& self, const std::vector<std::string>& modules, const std::string& reference) {
            requireModules(self.names, modules, "module");
            requireModules(self.names, {reference}, "reference module");
            auto result = self.relay.run("NeighbourNeighbour.calibrate",
                                         [&] { return self.impl->calibrate(wideList(modules), wide(reference)); });
            return std::make_shared<Orbivane>(std::move(result));
          },
          py::arg("modules"), py::arg("reference") = "",
          "Stitches the modules in list order; `reference` stays in place (empty: the chain's middle). "
          "An unknown module raises KeyError, one without a picture IndexError.")
      .def("register_status_callback",
           [](PyNeighbourNeighbour& self, py::object fn) { self.relay.setFunction(std::move(fn)); }, py::arg("fn"),
           kCallbackDoc)
      .def(
          "translations",
          [](const PyNeighbourNeighbour& self) {
            py::list out;
            for (const auto& t : self.impl->translations()) {
              out.append(py::make_tuple(narrow(t.first), narrow(t.second), t.dx, t.dy));
            }
            return out;
          },
          "(first, second, dx, dy) per pair of the last run, surface units.")
      .def(
          "pair_reports",
          [](const PyNeighbourNeighbour& self) {
            py::list out;
            for (const auto& r : self.impl->pairReports()) out.append(pairReportDict(r));
            return out;
          },
          "Per pair of the last run: {'first', 'second', 'measured', 'reason', 'dx', 'dy', 'shift_px', "
          "'correlation', 'overlap_pixels'}.");
}

void registerShaderBruteForcer(py::module_& m) {
  py::class_<PyShaderBruteForcer>(
      m, "ShaderBruteForcer",
      "Shader parameter search: renders a module's picture through its lens shader for every point of a grid and "
      "keeps the ten parameter sets whose edges best match the module's region of a reference picture.")
      .def(py::init<const Orbivane&, const py::dict&, const py::object&>(), py::arg("camera"), py::arg("pictures"),
           py::arg("parameters") = py::none(),
           "parameters: [(name, min, max, step[, kind]), ...], the first outermost; None: the fixed grid.")
      .def(
          "search_for_best_parameters",
          [](PyShaderBruteForcer& self, const std::string& module, const std::string& reference) {
            requireModules(self.names, {module}, "module");
            if (self.pictureNames.count(module) == 0) throw py::key_error("no picture of module '" + module + "'");
            if (self.pictureNames.count(reference) == 0) {
              throw py::key_error("unknown reference '" + reference + "' (no picture of that name)");
            }
            auto cameras = self.relay.run("ShaderBruteForcer.search_for_best_parameters", [&] {
              return self.impl->searchForBestParameters(wide(module), wide(reference));
            });
            return sharedCameras(std::move(cameras));
          },
          py::arg("module"), py::arg("reference"),
          "Up to ten cameras, best first, whose module carries one of the best parameter sets. An unknown module "
          "or a reference without a picture raises KeyError; a module whose geometry names an unknown shader "
          "raises RuntimeError.")
      .def(
          "set_shard",
          [](PyShaderBruteForcer& self, int index, int count) {
            if (count < 1 || index < 0 || index >= count) {
              throw py::value_error("shard " + std::to_string(index) + " of " + std::to_string(count) +
                                    ": expected 0 <= index < count");
            }
            self.impl->setShard(index, count);
          },
          py::arg("index"), py::arg("count"), "Searches only the index-th of count parts of the grid.")
      .def("set_thread_count", [](PyShaderBruteForcer& self, int n) { self.impl->setThreadCount(std::max(0, n)); },
           py::arg("threads"), "Threads for the evaluations; 0 (default) every core.")
      .def("abort", [](PyShaderBruteForcer& self) { self.impl->abort(); },
           "Stops a running search at its next batch of evaluations; it returns [] and results() is empty (part of "
           "the grid says nothing of the rest). Safe from any thread; later searches return at once.")
      .def("aborted", [](const PyShaderBruteForcer& self) { return self.impl->aborted(); },
           "Whether abort() was called.")
      .def("register_status_callback",
           [](PyShaderBruteForcer& self, py::object fn) { self.relay.setFunction(std::move(fn)); }, py::arg("fn"),
           kCallbackDoc)
      .def(
          "results",
          [](const PyShaderBruteForcer& self) {
            py::list out;
            for (const auto& r : self.impl->results()) out.append(resultDict(r));
            return out;
          },
          "The last search's best results by rising error: [{'error', 'grid_index', 'parameters'}, ...].")
      .def("evaluation_count", [](const PyShaderBruteForcer& self) { return self.impl->evaluationCount(); },
           "Renderings scored by the last search.")
      .def_static("default_parameter_list",
                  [] { return PyShaderBruteForcer::parameterTuples(ShaderBruteForcer::defaultParameterList()); },
           "The fixed grid the search walks: [(name, min, max, step, kind), ...], the first outermost.")
      .def_static(
          "grid_size",
          [](const py::object& parameters) {
            return ShaderBruteForcer::gridSize(parameters.is_none() ? ShaderBruteForcer::defaultParameterList()
                                                                    : PyShaderBruteForcer::parameterList(parameters));
          },
          py::arg("parameters") = py::none(),
           "Points of a parameter grid (the default grid when none is given).")
      .def_static(
          "parameter_values",
          [](const std::string& name, float min, float max, float step) {
            ShaderBruteForcer::MinMaxStep range;
            range.min = min;
            range.max = max;
            range.step = step;
            return ShaderBruteForcer::parameterValues(name, range);
          },
          py::arg("name"), py::arg("min"), py::arg("max"), py::arg("step"),
           "The values one grid entry takes, in walk order.")
      .def_static(
          "merge_results",
          [](const py::list& shards) {
            std::list<std::list<ShaderBruteForcer::Result>> all;
            for (const auto& shard : shards) {
              std::list<ShaderBruteForcer::Result> results;
              for (const auto& r : shard) results.push_back(resultFromDict(r));
              all.push_back(std::move(results));
            }
            py::list out;
            for (const auto& r : ShaderBruteForcer::mergeResults(all)) out.append(resultDict(r));
            return out;
          },
          py::arg("shards"), "The shards' results joined into exactly what the whole search keeps.")
      .def_static(
          "camera_with_parameters",
          [](const Orbivane& camera, const std::string& module, const std::map<std::string, float>& parameters) {
            return std::make_shared<Orbivane>(ShaderBruteForcer::cameraWithParameters(camera, wide(module), parameters));
          },
          py::arg("camera"), py::arg("module"), py::arg("parameters"),
          "A copy of the camera whose module's shader carries the values.");
}

struct PyAutoClipping {
  explicit PyAutoClipping(const Orbivane& source)
      : camera(std::make_shared<Orbivane>(source)), impl(std::make_unique<AutoClipping>(camera)) {}
  CameraPtr camera;
  std::unique_ptr<AutoClipping> impl;
  CallbackRelay relay;  // no callback; guards against two runs at once
};

using AutoClippingClass = py::class_<PyAutoClipping>;

// Construction, the two modes' settings and the run.
void registerAutoClippingRun(AutoClippingClass& cls) {
  cls.def(py::init<const Orbivane&>(), py::arg("camera"), "Works on a copy of the camera as it is now.")
      .def(
          "config_geometry",
          [](PyAutoClipping& self, bool requireOverlap, bool keepAspect, float threshold) {
            GeometryCalibration::ClippingOptions settings;
            settings.threshold = threshold;
            if (const auto valid = settings.validate(); !valid) throw py::value_error(valid.error());
            return self.impl->config(requireOverlap, keepAspect, threshold);
          },
          py::arg("require_overlap") = false, py::arg("keep_aspect") = false, py::arg("threshold") = 0.5f,
          "Geometry mode: an element is well covered at `threshold` module units (1 + threshold with "
          "require_overlap); keep_aspect cuts the result to the panorama's aspect.")
      .def(
          "config_values",
          [](PyAutoClipping& self, const py::object& values, float weight, std::size_t maxIterations) {
            auto array = py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(values);
            if (!array || array.ndim() != 2 || array.size() == 0) {
              PyErr_Clear();
              throw py::value_error("values must be a rows x cols array of numbers");
            }
            std::vector<float> v(array.data(), array.data() + array.size());
            const unsigned cols = unsigned(array.shape(1)), rows = unsigned(array.shape(0));
            if (!self.impl->config(std::move(v), cols, rows, weight, maxIterations)) throw LibraryError(self.impl->error());
            return true;
          },
          py::arg("values"), py::arg("weight"), py::arg("max_iterations") = 1000000,
          "Value mode: `values` (rows x cols) is what each part of the panorama is worth; uncovered elements cost "
          "`weight`.")
      .def(
          "process",
          [](PyAutoClipping& self) {
            return self.relay.run("AutoClipping.process", [&] { return self.impl->process(); });
          },
          "Runs the configured mode; False when no rectangle was found (error() says why).")
      .def("is_processed", [](const PyAutoClipping& self) { return self.impl->isProcessed(); },
           "Whether a process() has succeeded since the last config().");
}

// The rectangle found, its holes, the coverage behind it and why a run failed.
void registerAutoClippingResults(AutoClippingClass& cls) {
  cls.def("offset", [](PyAutoClipping& self) { return self.impl->offset(); },
          "[left, top, right, bottom] distances from the panorama's edges, surface units.")
      .def(
          "check_gap",
          [](PyAutoClipping& self) {
            const std::vector<int> flat = self.impl->checkGap();
            py::list out;
            for (std::size_t i = 0; i + 5 <= flat.size(); i += 5) {
              out.append(py::make_tuple(flat[i], flat[i + 1], flat[i + 2], flat[i + 3], flat[i + 4]));
            }
            return out;
          },
          "Holes inside the rectangle: (x, y, width, height, elements), largest first.")
      .def(
          "rectangle",
          [](const PyAutoClipping& self) {
            const cv::Rect r = self.impl->rectangle();
            return py::make_tuple(r.x, r.y, r.width, r.height);
          },
          "(x, y, width, height) in coverage-map elements.")
      .def("coverage_size",
           [](const PyAutoClipping& self) {
             const cv::Size s = self.impl->coverageSize();
             return py::make_tuple(s.width, s.height);
           },
           "The coverage raster's size (width, height) of the last process(), in elements.")
      .def("coverage", [](const PyAutoClipping& self) { return arrayFromMat(self.impl->coverage()); },
           "The coverage map (float32, module units).")
      .def("inspection_picture", [](const PyAutoClipping& self) { return arrayFromMat(self.impl->inspectionPicture()); },
           "The picture 'imgBackgrdRect' (BGR): coverage grey, holes red, the rectangle green.")
      .def("error", [](const PyAutoClipping& self) { return self.impl->error(); },
           "Why the last config() or process() failed; empty after a success.")
      .def("skipped_modules", [](const PyAutoClipping& self) { return self.impl->skippedModules(); },
           "The modules the last process() left out, one line each with the reason.");
}

// The rectangle without holes, and the crop applied to the camera.
void registerAutoClippingCrop(AutoClippingClass& cls) {
  cls.def("set_no_holes", [](PyAutoClipping& self, bool noHoles) { self.impl->setNoHoles(noHoles); },
          py::arg("no_holes"), "Geometry mode: the largest rectangle without any badly covered element, found exactly.")
      .def("no_holes", [](const PyAutoClipping& self) { return self.impl->noHoles(); },
           "Whether the rectangle must be free of badly covered elements (set_no_holes).")
      .def("viewer_offset", [](const PyAutoClipping& self) { return self.impl->viewerOffset(); },
           "offset() moved by half an element right and down: the crop clipped_camera() applies, so the clipped "
           "panorama's pixel centres fall on covered elements.")
      .def(
          "clipped_camera",
          [](const PyAutoClipping& self) {
            auto clipped = self.impl->clippedCamera();
            if (!clipped) throw LibraryError(clipped.error());
            return std::make_shared<Orbivane>(std::move(clipped.value()));
          },
          "The camera with the rectangle applied: the crop composed into every module's matrix and the panorama "
          "size set to the rectangle's, so a viewer draws the clipped panorama.")
      .def_static(
          "apply_clipping",
          [](const Orbivane& camera, const std::vector<float>& offset, std::pair<int, int> panorama) {
            try {
              return std::make_shared<Orbivane>(
                  AutoClipping::applyClipping(camera, offset, Utils::Size{panorama.first, panorama.second}));
            } catch (const std::invalid_argument& e) {
              throw py::value_error(e.what());
            }
          },
          py::arg("camera"), py::arg("offset"), py::arg("panorama_size"),
          "The camera cropped to the rectangle `offset` = [left, top, right, bottom] (surface units) inside the "
          "panorama of `panorama_size` (width, height) pixels.");
}

// The coarse-to-fine search of a value map on its own.
void registerAutoClippingSearch(AutoClippingClass& cls) {
  cls.def_static(
      "find_max_value_rect",
      [](const py::object& values, int minStep, int startStep, std::size_t maxIterations) -> py::object {
        auto array = py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(values);
        if (!array || array.ndim() != 2) {
          PyErr_Clear();
          throw py::value_error("values must be a two-dimensional array of numbers");
        }
        const cv::Mat mat(int(array.shape(0)), int(array.shape(1)), CV_32F, const_cast<float*>(array.data()));
        const auto found = AutoClipping::findMaxValueRect(mat, minStep, startStep, maxIterations);
        if (!found) return py::none();
        return py::make_tuple(found->x, found->y, found->width, found->height);
      },
      py::arg("values"), py::arg("min_step"), py::arg("start_step"), py::arg("max_iterations"),
      "The coarse-to-fine maximum-sum rectangle (x, y, width, height) of a value map, or None.");
}

void registerAutoClipping(py::module_& m) {
  AutoClippingClass cls(
      m, "AutoClipping",
      "Automatic clipping: the largest axis-aligned rectangle of the panorama that the modules cover well.");
  registerAutoClippingRun(cls);
  registerAutoClippingResults(cls);
  registerAutoClippingCrop(cls);
  registerAutoClippingSearch(cls);
}

// The reference a benchmark measures the Python layer against: the same
// target matching done wholly in C++ (pictures taken from the camera's
// modules, reports and errors read), in seconds.
double matchToTargetSeconds(const Orbivane& camera, const std::vector<std::string>& modules, const std::string& target) {
  const LibraryCall release("MatchToTarget");
  const auto started = std::chrono::steady_clock::now();
  const Images images = modulePictures(camera);
  MatchToTarget matcher(camera, images);
  matcher.registerStatusCallback([](int, int, std::string, GeometryCalibration::AdvStepInfo) {});
  const Orbivane result = matcher.calibrate(wideList(modules), wide(target));
  const auto reports = matcher.moduleReports();
  const auto errors = matcher.error();
  if (result.modules().size() != camera.modules().size() || reports.size() > modules.size() + errors.size()) {
    throw std::logic_error("target matching lost modules");
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
}

}  // namespace

void registerGeometryCalibration(py::module_& m) {
  m.def("_match_to_target_seconds", &matchToTargetSeconds, py::arg("camera"), py::arg("modules"), py::arg("target"),
        "Benchmark reference: the same target matching done wholly in C++; returns its wall time in seconds.");
  registerMatchToTarget(m);
  registerNeighbourNeighbour(m);
  registerShaderBruteForcer(m);
  registerAutoClipping(m);
}

}  // namespace OrbivanePython
