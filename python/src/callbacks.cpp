// Status callbacks into Python, and the step record (AdvStepInfo) they get.
#include <iostream>
#include <mutex>
#include <streambuf>
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

// Collects what is written to it, a whole line at a time, from any thread.
class LineCollector : public std::streambuf {
 public:
  std::vector<std::string> take() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> out;
    out.swap(lines_);
    if (!partial_.empty()) out.push_back(std::move(partial_));
    partial_.clear();
    return out;
  }

 protected:
  int overflow(int c) override {
    if (c == traits_type::eof()) return traits_type::not_eof(c);
    const char ch = traits_type::to_char_type(c);
    xsputn(&ch, 1);
    return c;
  }
  std::streamsize xsputn(const char* text, std::streamsize count) override {
    std::lock_guard<std::mutex> lock(mutex_);
    for (std::streamsize i = 0; i < count; ++i) {
      if (text[i] == '\n') {
        lines_.push_back(std::move(partial_));
        partial_.clear();
      } else {
        partial_ += text[i];
      }
    }
    return count;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
  std::string partial_;
};

// The one capture of the process, shared by the calls under way (GIL held).
struct Console {
  int users = 0;
  LineCollector collector;
  std::streambuf* out = nullptr;
  std::streambuf* err = nullptr;
};

Console& console() {
  static Console* shared = new Console();  // never destroyed: the streams may outlive static destruction
  return *shared;
}

bool onlyProgressMarks(const std::string& line) {
  return line.find_first_not_of(" #") == std::string::npos;
}

}  // namespace

ConsoleCapture::ConsoleCapture(const char* what) {
  const std::string call(what);
  logger_ = "orbivane." + call.substr(0, call.find('.'));
  Console& c = console();
  if (c.users++ == 0) {
    c.out = std::cout.rdbuf(&c.collector);
    c.err = std::cerr.rdbuf(&c.collector);
  }
}

ConsoleCapture::~ConsoleCapture() {
  Console& c = console();
  if (--c.users == 0) {
    std::cout.rdbuf(c.out);
    std::cerr.rdbuf(c.err);
  }
  const std::vector<std::string> lines = c.collector.take();
  if (lines.empty()) return;
  // An exception on its way out of the call stays the one the caller sees.
  PyObject *type = nullptr, *value = nullptr, *trace = nullptr;
  PyErr_Fetch(&type, &value, &trace);
  try {
    const py::object logger = py::module_::import("logging").attr("getLogger")(logger_);
    for (const auto& line : lines) {
      if (line.empty()) continue;
      logger.attr(onlyProgressMarks(line) ? "debug" : "info")(line);
    }
  } catch (const py::error_already_set&) {
    // Logging that fails loses the library's texts, nothing else.
  }
  PyErr_Restore(type, value, trace);
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
