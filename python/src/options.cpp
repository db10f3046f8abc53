// The calibrators' option records in Python: MatchOptions, NeighbourOptions
// and ClippingOptions, built from keywords, read and changed field by field,
// checked by validate() (the library's own ranges, ValueError naming the
// first bad value), printed and pickled. The pipeline, target matching and
// neighbour stitching take them whole.
#include <string>

#include <pybind11/pybind11.h>

#include "bindings.h"
#include "orbivane/geometry_calibration/calibrator_options.h"

namespace OrbivanePython {

namespace {

using GeometryCalibration::ClippingOptions;
using GeometryCalibration::MatchOptions;
using GeometryCalibration::NeighbourOptions;

template <typename Record>
void requireValid(const Record& record) {
  if (const auto valid = record.validate(); !valid) throw py::value_error(valid.error());
}

std::string text(bool value) { return value ? "True" : "False"; }

void registerMatchOptions(py::module_& m) {
  py::class_<MatchOptions>(m, "MatchOptions",
                           "Target matching's settings: mode (0 features, 1 keep, 2 optical flow, 3 iterative), "
                           "m2b and m2n (mode 3's rounds per module and runs in a row, 1..100), allow_scale (> 0 a "
                           "fixed work scale up to 8, < 0 the target's own, 0 from the placement) and a UV grid of "
                           "grid_columns x grid_rows per module in mode 0 (0 x 0: none, else 1..64 each).")
      .def(py::init([](int mode, unsigned long long m2b, unsigned long long m2n, float allowScale, int gridColumns,
                       int gridRows) {
             return MatchOptions{mode, m2b, m2n, allowScale, gridColumns, gridRows};
           }),
           py::arg("mode") = 0, py::arg("m2b") = 5, py::arg("m2n") = 1, py::arg("allow_scale") = 0.0f,
           py::arg("grid_columns") = 0, py::arg("grid_rows") = 0)
      .def_readwrite("mode", &MatchOptions::mode, "0 features, 1 keep, 2 optical flow, 3 iterative")
      .def_readwrite("m2b", &MatchOptions::m2b, "mode 3: matching rounds per module, 1..100")
      .def_readwrite("m2n", &MatchOptions::m2n, "mode 3: runs in a row, 1..100")
      .def_readwrite("allow_scale", &MatchOptions::allowScale, "work scale: > 0 fixed (at most 8), < 0 the target's own, 0 from the placement")
      .def_readwrite("grid_columns", &MatchOptions::gridColumns, "UV grid columns per module in mode 0 (0: no grid), 1..64")
      .def_readwrite("grid_rows", &MatchOptions::gridRows, "UV grid rows per module in mode 0 (0: no grid), 1..64")
      .def("validate", &requireValid<MatchOptions>, "Raises ValueError naming the first value out of range.")
      .def("__repr__",
           [](const MatchOptions& o) {
             return "MatchOptions(mode=" + std::to_string(o.mode) + ", m2b=" + std::to_string(o.m2b) +
                    ", m2n=" + std::to_string(o.m2n) + ", allow_scale=" + py::repr(py::float_(o.allowScale)).cast<std::string>() +
                    ", grid_columns=" + std::to_string(o.gridColumns) + ", grid_rows=" + std::to_string(o.gridRows) +
                    ")";
           })
      .def(py::pickle(
          [](const MatchOptions& o) { return py::make_tuple(o.mode, o.m2b, o.m2n, o.allowScale, o.gridColumns, o.gridRows); },
          [](const py::tuple& t) {
            return MatchOptions{t[0].cast<int>(), t[1].cast<unsigned long long>(), t[2].cast<unsigned long long>(),
                                t[3].cast<float>(), t[4].cast<int>(), t[5].cast<int>()};
          }));
}

void registerNeighbourOptions(py::module_& m) {
  py::class_<NeighbourOptions>(m, "NeighbourOptions",
                               "Neighbour stitching's settings: levels (most pyramid levels, 1..30), iterations "
                               "(Gauss-Newton steps on each level, 1..1000), step (factor each update is scaled by, "
                               "(0, 2]).")
      .def(py::init([](int levels, int iterations, float step) { return NeighbourOptions{levels, iterations, step}; }),
           py::arg("levels") = 4, py::arg("iterations") = 6, py::arg("step") = 1.0f)
      .def_readwrite("levels", &NeighbourOptions::levels, "most pyramid levels of the alignment, 1..30")
      .def_readwrite("iterations", &NeighbourOptions::iterations, "Gauss-Newton steps on each level, 1..1000")
      .def_readwrite("step", &NeighbourOptions::step, "factor each update is scaled by, (0, 2]")
      .def("validate", &requireValid<NeighbourOptions>, "Raises ValueError naming the first value out of range.")
      .def("__repr__",
           [](const NeighbourOptions& o) {
             return "NeighbourOptions(levels=" + std::to_string(o.levels) +
                    ", iterations=" + std::to_string(o.iterations) +
                    ", step=" + py::repr(py::float_(o.step)).cast<std::string>() + ")";
           })
      .def(py::pickle([](const NeighbourOptions& o) { return py::make_tuple(o.levels, o.iterations, o.step); },
                      [](const py::tuple& t) {
                        return NeighbourOptions{t[0].cast<int>(), t[1].cast<int>(), t[2].cast<float>()};
                      }));
}

ClippingOptions clippingOptions(bool requireOverlap, bool keepAspect, bool noHoles, float threshold) {
  ClippingOptions o;
  o.requireOverlap = requireOverlap;
  o.keepAspect = keepAspect;
  o.noHoles = noHoles;
  o.threshold = threshold;
  return o;
}

void registerClippingOptions(py::module_& m) {
  py::class_<ClippingOptions>(m, "ClippingOptions",
                              "Automatic clipping in geometry mode: require_overlap (two modules everywhere), "
                              "keep_aspect (the panorama's aspect ratio), no_holes (no badly covered element "
                              "inside), threshold (the coverage an element needs, module units, (0, 1]).")
      .def(py::init(&clippingOptions), py::arg("require_overlap") = false, py::arg("keep_aspect") = false,
           py::arg("no_holes") = true, py::arg("threshold") = 0.5f)
      .def_readwrite("require_overlap", &ClippingOptions::requireOverlap, "two modules must cover every element kept")
      .def_readwrite("keep_aspect", &ClippingOptions::keepAspect, "the rectangle keeps the panorama's aspect ratio")
      .def_readwrite("no_holes", &ClippingOptions::noHoles, "no badly covered element inside the rectangle")
      .def_readwrite("threshold", &ClippingOptions::threshold, "coverage an element needs, module units, (0, 1]")
      .def("validate", &requireValid<ClippingOptions>, "Raises ValueError naming the first value out of range.")
      .def("__repr__",
           [](const ClippingOptions& o) {
             return "ClippingOptions(require_overlap=" + text(o.requireOverlap) + ", keep_aspect=" +
                    text(o.keepAspect) + ", no_holes=" + text(o.noHoles) +
                    ", threshold=" + py::repr(py::float_(o.threshold)).cast<std::string>() + ")";
           })
      .def(py::pickle(
          [](const ClippingOptions& o) { return py::make_tuple(o.requireOverlap, o.keepAspect, o.noHoles, o.threshold); },
          [](const py::tuple& t) {
            return clippingOptions(t[0].cast<bool>(), t[1].cast<bool>(), t[2].cast<bool>(), t[3].cast<float>());
          }));
}

}  // namespace

void registerOptions(py::module_& m) {
  registerMatchOptions(m);
  registerNeighbourOptions(m);
  registerClippingOptions(m);
}

}  // namespace OrbivanePython
