// The calibration pipeline in Python: the steps match, neighbour, clip and
// shader on one camera, with its report (verdicts, seams, step times) as
// plain dicts and lists, so a report can travel between processes.
#include <memory>
#include <string>
#include <vector>

#include <pybind11/stl.h>

#include "bindings.h"
#include "orbivane/geometry_calibration/calibration_pipeline.h"

namespace OrbivanePython {
namespace {

using CameraDescription::Orbivane;
using GeometryCalibration::CalibrationPipeline;
using GeometryCalibration::PipelineOptions;

struct PyPipeline {
  PyPipeline(const Orbivane& camera, const py::object& pictures) : names(moduleNames(camera)) {
    impl = std::make_unique<CalibrationPipeline>(camera, picturesOf(camera, pictures));
    impl->registerStatusCallback(relay.callback());
  }
  std::set<std::string> names;
  std::unique_ptr<CalibrationPipeline> impl;
  CallbackRelay relay;
};

py::list seamList(const std::vector<GeometryCalibration::SeamResidual>& seams) {
  py::list out;
  for (const auto& s : seams) {
    py::dict d;
    d["first"] = narrow(s.first);
    d["second"] = narrow(s.second);
    d["measured"] = s.measured;
    d["reason"] = s.reason;
    d["dx"] = s.dx;
    d["dy"] = s.dy;
    d["px"] = s.px;
    d["overlap_pixels"] = s.overlapPixels;
    out.append(d);
  }
  return out;
}

py::dict stepDict(const GeometryCalibration::StepReport& step) {
  py::dict d;
  d["step"] = step.step;
  d["seconds"] = step.seconds;
  d["modules"] = moduleReportsDict(step.modules);
  py::list pairs;
  for (const auto& p : step.pairs) pairs.append(pairReportDict(p));
  d["pairs"] = pairs;
  d["clipping"] = step.clipping.empty() ? py::object(py::none()) : py::cast(step.clipping);
  // The crop the clip step composed into every module's matrix, and the
  // panorama size after the step.
  d["clipping_crop"] = step.clipping.empty() ? py::object(py::none()) : py::object(matrixArray(step.clippingCrop));
  const Utils::Size size = step.camera.panoramaSize();
  d["panorama_size"] = size.empty() ? py::object(py::none()) : py::object(py::make_tuple(size.width, size.height));
  d["seams"] = seamList(step.seams);
  return d;
}

// Keywords of one record: given with the record itself, they must keep their defaults.
void notBoth(bool keywordsChanged, const char* keywords, const char* record) {
  if (keywordsChanged) {
    throw py::value_error(std::string("give ") + keywords + " or " + record + "=, not both");
  }
}

PipelineOptions optionsFrom(const std::string& target, const py::object& modules, const py::object& steps,
                            const std::string& reference, int matchMode, int levels, int iterations, float step,
                            bool requireOverlap, bool keepAspect, float clipThreshold, bool noHoles,
                            const py::object& match, const py::object& neighbour, const py::object& clip) {
  PipelineOptions options;
  options.target = wide(target);
  if (!modules.is_none()) options.modules = wideList(modules.cast<std::vector<std::string>>());
  if (!steps.is_none()) options.steps = steps.cast<std::vector<std::string>>();
  options.reference = wide(reference);
  options.match.mode = matchMode;
  if (!match.is_none()) {
    notBoth(matchMode != 0, "match_mode", "match");
    options.match = match.cast<GeometryCalibration::MatchOptions>();
  }
  options.neighbour = GeometryCalibration::NeighbourOptions{levels, iterations, step};
  if (!neighbour.is_none()) {
    notBoth(levels != 4 || iterations != 6 || step != 1.0f, "levels, iterations and step", "neighbour");
    options.neighbour = neighbour.cast<GeometryCalibration::NeighbourOptions>();
  }
  options.clip.requireOverlap = requireOverlap;
  options.clip.keepAspect = keepAspect;
  options.clip.threshold = clipThreshold;
  options.clip.noHoles = noHoles;
  if (!clip.is_none()) {
    notBoth(requireOverlap || keepAspect || clipThreshold != 0.5f || !noHoles,
            "require_overlap, keep_aspect, clip_threshold and no_holes", "clip");
    options.clip = clip.cast<GeometryCalibration::ClippingOptions>();
  }
  if (const auto valid = options.validate(); !valid) throw py::value_error(valid.error());
  return options;
}

}  // namespace

void registerPipeline(py::module_& m) {
  py::class_<PyPipeline>(
      m, "CalibrationPipeline",
      "The whole geometry calibration of one camera, step after step on the previous step's result: 'match' "
      "(target matching), 'neighbour' (neighbour stitching), 'clip' (automatic clipping), 'shader' (parameter "
      "search). A module that fails a step keeps its matrix and is left out of later steps. After every step the "
      "seams between neighbouring modules are measured independently.")
      .def(py::init<const Orbivane&, const py::object&>(), py::arg("camera"), py::arg("pictures") = py::none(),
           "pictures: {module name: array}; None takes the camera's own pictures.")
      .def(
          "run",
          [](PyPipeline& self, const std::string& target, const py::object& modules, const py::object& steps,
             const std::string& reference, int matchMode, int levels, int iterations, float step, bool requireOverlap,
             bool keepAspect, float clipThreshold, bool noHoles, const py::object& match, const py::object& neighbour,
             const py::object& clip) {
            if (!modules.is_none()) requireModules(self.names, modules.cast<std::vector<std::string>>(), "module");
            requireModules(self.names, {target}, "target module");
            requireModules(self.names, {reference}, "reference module");
            const PipelineOptions options = optionsFrom(target, modules, steps, reference, matchMode, levels,
                                                        iterations, step, requireOverlap, keepAspect, clipThreshold,
                                                        noHoles, match, neighbour, clip);
            auto result = self.relay.run("CalibrationPipeline.run", [&] { return self.impl->run(options); });
            return std::make_shared<Orbivane>(std::move(result));
          },
          py::arg("target") = "", py::arg("modules") = py::none(), py::arg("steps") = py::none(),
          py::arg("reference") = "", py::arg("match_mode") = 0, py::arg("levels") = 4, py::arg("iterations") = 6,
          py::arg("step") = 1.0f, py::arg("require_overlap") = false, py::arg("keep_aspect") = false,
          py::arg("clip_threshold") = 0.5f, py::arg("no_holes") = true, py::arg("match") = py::none(),
          py::arg("neighbour") = py::none(), py::arg("clip") = py::none(),
          "Runs the steps (default ['match', 'neighbour', 'clip']) and returns the calibrated camera. modules: "
          "None for every module but the target. The clip step crops the camera to the largest rectangle its "
          "calibrated modules cover (without holes unless no_holes is False) by composing the crop into every "
          "module's matrix. match, neighbour and clip take a step's settings whole (MatchOptions, NeighbourOptions, "
          "ClippingOptions) in place of its keywords. Options that cannot be used raise ValueError.")
      .def("abort", [](PyPipeline& self) { self.impl->abort(); },
           "From another thread: the running step stops at its next module and run() returns what it has.")
      .def("aborted", [](const PyPipeline& self) { return self.impl->aborted(); },
           "Whether abort() was called: the run stopped and its modules are 'aborted'.")
      .def("register_status_callback", [](PyPipeline& self, py::object fn) { self.relay.setFunction(std::move(fn)); },
           py::arg("fn"), "fn(step, total, text, info); the text is prefixed with the step's name.")
      .def("verdicts", [](const PyPipeline& self) { return moduleReportsDict(self.impl->verdicts()); },
           "Each listed module's verdict over all steps (the first step that did not align it decides).")
      .def("seams_before", [](const PyPipeline& self) { return seamList(self.impl->seamsBefore()); },
           "The seams measured on the camera as given, before any step: [{'first', 'second', 'measured', 'reason', 'dx', 'dy', 'px', 'overlap_pixels'}, ...].")
      .def(
          "steps",
          [](const PyPipeline& self) {
            py::list out;
            for (const auto& step : self.impl->steps()) out.append(stepDict(step));
            return out;
          },
          "Per step run: {'step', 'seconds', 'modules', 'pairs', 'clipping', 'clipping_crop', 'panorama_size', "
          "'seams'}.")
      .def(
          "step_cameras",
          [](const PyPipeline& self) {
            std::vector<std::shared_ptr<Orbivane>> out;
            for (const auto& step : self.impl->steps()) out.push_back(std::make_shared<Orbivane>(step.camera));
            return out;
          },
          "The camera after each step.")
      .def(
          "report",
          [](const PyPipeline& self) {
            py::dict out;
            out["verdicts"] = moduleReportsDict(self.impl->verdicts());
            out["seams_before"] = seamList(self.impl->seamsBefore());
            py::list steps;
            for (const auto& step : self.impl->steps()) steps.append(stepDict(step));
            out["steps"] = steps;
            return out;
          },
          "{'verdicts', 'seams_before', 'steps'}: plain dicts and lists (picklable, JSON-ready).")
      .def_static(
          "measure_seams",
          [](const Orbivane& camera, const py::object& pictures, const std::vector<std::string>& chain) {
            const CalibrationPipeline::Images images = picturesOf(camera, pictures);
            std::vector<GeometryCalibration::SeamResidual> seams;
            {
              const LibraryCall release("CalibrationPipeline");
              seams = CalibrationPipeline::measureSeams(camera, images, wideList(chain));
            }
            return seamList(seams);
          },
          py::arg("camera"), py::arg("pictures"), py::arg("chain"),
          "Measures the seam of every consecutive pair of `chain` (panorama pixels).");
}

}  // namespace OrbivanePython
