// Status callbacks into Python, and the step record (AdvStepInfo) they get.
#include <string>
#include <vector>

#include <pybind11/stl.h>

#include "bindings.h"
#include "orbivane/geometry/matrix_geometry.h"

namespace OrbivanePython {

CallbackRelay::State::~State() {
  if (!Py_IsInitialized()) {
    function.release();
    return;
  }
  py::gil_scoped_acquire gil;
  function = py::object();
  error = nullptr;
}

CallbackRelay::CallbackRelay() : state_(std::make_shared<State>()) {}

void CallbackRelay::setFunction(py::object function) {
  if (!function.is_none() && !PyCallable_Check(function.ptr())) {
    throw py::type_error("the status callback must be callable as fn(step, total, text, info)");
  }
  state_->function = std::move(function);
}

GeometryCalibration::StatusCallback CallbackRelay::callback() const {
  std::shared_ptr<State> state = state_;
  return [state](int step, int total, std::string text, GeometryCalibration::AdvStepInfo info) {
    py::gil_scoped_acquire gil;
    if (state->error) throw CallbackStopped{};
    try {
      if (PyErr_CheckSignals() != 0) throw py::error_already_set();
      if (state->function && !state->function.is_none()) {
        state->function(step, total, py::str(text.data(), text.size()), std::move(info));
      }
    } catch (py::error_already_set&) {
      state->error = std::current_exception();
      throw CallbackStopped{};
    } catch (const py::builtin_exception&) {
      state->error = std::current_exception();
      throw CallbackStopped{};
    }
  };
}

void CallbackRelay::begin(const char* what) {
  bool expected = false;
  if (!state_->running.compare_exchange_strong(expected, true)) {
    throw std::runtime_error(std::string(what) + " is already running on another thread");
  }
  state_->error = nullptr;
}

void CallbackRelay::end() { state_->running = false; }

void CallbackRelay::raiseStored() {
  std::exception_ptr error = state_->error;
  state_->error = nullptr;
  if (!error) throw std::runtime_error("the run was stopped by its status callback");
  std::rethrow_exception(error);
}

namespace {

py::dict stepDetailDict(const GeometryCalibration::StepDetail& detail) {
  py::dict out;
  py::list pictures;
  for (const auto& picture : detail.images) pictures.append(arrayFromPicture(picture));
  out["pictures"] = pictures;
  py::dict values;
  for (const auto& [name, value] : detail.values) values[py::str(name)] = value;
  out["values"] = values;
  out["module"] = detail.module ? py::object(py::str(narrow(*detail.module))) : py::none();
  out["reference"] = detail.reference ? py::object(py::str(narrow(*detail.reference))) : py::none();
  const auto* matrix = dynamic_cast<const OrbivaneGeometry::MatrixGeometry*>(detail.geometry.get());
  out["matrix"] = matrix ? py::object(matrixArray(matrix->matrix())) : py::none();
  return out;
}

}  // namespace

void registerStepInfo(py::module_& m) {
  py::class_<GeometryCalibration::AdvStepInfo>(
      m, "StepInfo",
      "What a calibrator hands its status callback with a step: the camera as it stood then (shared, not copied) "
      "and an optional detail record.")
      .def_property_readonly(
          "camera",
          [](const GeometryCalibration::AdvStepInfo& info) -> py::object {
            if (!info.camera()) return py::none();
            return py::cast(std::make_shared<CameraDescription::Orbivane>(*info.camera()));
          },
          "A copy of the camera at this step, or None.")
      .def_property_readonly(
          "detail",
          [](const GeometryCalibration::AdvStepInfo& info) -> py::object {
            if (!info.detail()) return py::none();
            return stepDetailDict(*info.detail());
          },
          "The step's detail as a dict (pictures, values, module, reference, matrix), or None.")
      .def("__repr__", [](const GeometryCalibration::AdvStepInfo& info) {
        return std::string("<orbivane.StepInfo camera=") + (info.camera() ? "yes" : "no") +
               " detail=" + (info.detail() ? "yes" : "no") + ">";
      });
}

}  // namespace OrbivanePython
