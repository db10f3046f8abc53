// The extension module orbivane._orbivane: the library's public classes with
// Python names (snake_case operations, numpy pictures and matrices). The
// package orbivane (python/orbivane/__init__.py) re-exports it.
#include "bindings.h"

PYBIND11_MODULE(_orbivane, m) {
  namespace py = pybind11;
  m.doc() = "Calibration of multi-sensor panoramic cameras (the OrbivaneCalibration library).";
  py::register_exception<OrbivanePython::LibraryError>(m, "OrbivaneError", PyExc_RuntimeError);
  m.attr("OrbivaneError").attr("__doc__") =
      "A failure the library reports with a message: an unreadable file, a refused device write.";
  OrbivanePython::registerPictures(m);
  OrbivanePython::registerStepInfo(m);
  OrbivanePython::registerCamera(m);
  OrbivanePython::registerOptions(m);
  OrbivanePython::registerGeometryCalibration(m);
  OrbivanePython::registerPipeline(m);
  OrbivanePython::registerSensorCalibration(m);
  m.attr("__version__") = ORBIVANE_VERSION;
}
