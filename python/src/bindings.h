// What the parts of the Python module share: conversions between the
// library's pictures and numpy arrays, module names and text, status
// callbacks that call into Python, and the registration functions of each
// part (camera model, geometry calibrators, sensor calibrators).
//
// Threads: every long library call runs with the GIL released; whatever
// touches a Python object (a callback, a picture array's reference count)
// takes the GIL first.
#pragma once

#include <atomic>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include <pybind11/pybind11.h>
#include <pybind11/numpy.h>
#include <opencv2/core/mat.hpp>

#include "orbivane/camera/orbivane.h"
#include "orbivane/geometry_calibration/calibration_report.h"
#include "orbivane/geometry_calibration/status_callback.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/utils/matrix4x4.h"

namespace OrbivanePython {

namespace py = pybind11;

using Images = std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>>;

// --- pictures (pictures.cpp) -------------------------------------------------

// A picture from a numpy array as cv2 gives it: H x W x 3 uint8 (BGR), H x W x 4
// (BGRA) or H x W (grey). A writable BGR or BGRA array whose pixels and
// channels are packed (any row stride) is used in place, without a copy: the
// picture keeps the array alive and sees later changes to it. Other arrays
// (grey, read-only, strided pixels) are copied. `what` names the picture in
// errors. Raises ValueError for another dtype or shape.
std::shared_ptr<Image::UniversalImageInterface> pictureFromArray(const py::handle& object, const std::string& what);
// The pictures of a dict {module name: array}.
Images picturesFromDict(const py::dict& pictures);
// The pictures the camera's modules carry (no Python object touched: may run
// without the GIL).
Images modulePictures(const CameraDescription::Orbivane& camera);
// A calibrator's pictures: the dict's, or for None the modules' own.
Images picturesOf(const CameraDescription::Orbivane& camera, const py::object& pictures);
// An array of a picture: the very array it was made from, else a read-only
// view of the library's BGR pixels (no copy), else a BGR copy. None for null.
py::object arrayFromPicture(const std::shared_ptr<Image::UniversalImageInterface>& picture);
// An array that owns (shares) the matrix's pixels: H x W for one channel,
// H x W x C otherwise; uint8, int16, int32 or float32.
py::array arrayFromMat(const cv::Mat& mat);
// A matrix of a uint8 array (H x W or H x W x C): a view of its pixels (valid
// while the array lives) when they are packed, else a copy.
cv::Mat matFromArray(const py::handle& object, const std::string& what);

// --- small conversions (conversions.cpp) ------------------------------------

std::wstring wide(const std::string& text);
std::string narrow(const std::wstring& text);
std::list<std::wstring> wideList(const std::vector<std::string>& names);
// The names of a camera's modules, and the check every class makes of the
// names it is given: KeyError naming the first that is no module of the
// camera ("unknown module 'ghost'"; `role` says which: "module", "target
// module", "reference module"). Empty names are not checked.
std::set<std::string> moduleNames(const CameraDescription::Orbivane& camera);
void requireModules(const std::set<std::string>& known, const std::vector<std::string>& names, const char* role);

py::array_t<float> matrixArray(const Utils::Matrix4x4& matrix);
// From any 4 x 4 array-like of numbers; ValueError otherwise.
Utils::Matrix4x4 matrixFromObject(const py::handle& object);

py::dict moduleReportDict(const GeometryCalibration::ModuleReport& report);
py::dict pairReportDict(const GeometryCalibration::PairReport& report);
py::dict moduleReportsDict(const std::map<std::wstring, GeometryCalibration::ModuleReport>& reports);

// Raised (as orbivane.OrbivaneError, a RuntimeError) for a failure the
// library reports as a value rather than an exception.
struct LibraryError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// --- status callbacks (callbacks.cpp) ---------------------------------------

// Thrown through the library to end a run whose Python callback raised (or
// that Ctrl-C interrupted). Deliberately not a std::exception, so that the
// library's per-module error handling does not take it for a module failure.
struct CallbackStopped {};

// The library's console texts ("Best 0 Error: ...", "Starting t = ...",
// " #") while a call from Python runs: std::cout and std::cerr are caught
// (from every thread, a line at a time) and handed to Python's logging when
// the call returns, under the logger "orbivane.<Class>" (INFO; the progress
// marks " #" at DEBUG). Nothing is printed unless the user configures
// logging. Built with the GIL held; the streams are restored when the last
// capture ends.
class ConsoleCapture {
 public:
  explicit ConsoleCapture(const char* what);
  ~ConsoleCapture();
  ConsoleCapture(const ConsoleCapture&) = delete;
  ConsoleCapture& operator=(const ConsoleCapture&) = delete;

 private:
  std::string logger_;
};

// A call into the library from Python without a calibrator's relay: its
// console texts go to the logger "orbivane.<what>", and the GIL is released
// while it runs (the capture outlives the release: it logs with the GIL).
struct LibraryCall {
  explicit LibraryCall(const char* what) : console(what) {}
  ConsoleCapture console;
  py::gil_scoped_release release;
};

// The status callback a calibrator gets from Python. It always checks for
// pending signals (so Ctrl-C stops a long run); with a registered function it
// calls fn(step, total, text, info). An exception there stops the run: it is
// kept and raised again by run() once the library has unwound.
class CallbackRelay {
 public:
  CallbackRelay();
  void setFunction(py::object function);
  GeometryCalibration::StatusCallback callback() const;

  // Runs `call` with the GIL released and raises the callback's exception,
  // if it stopped the run. Refuses a second run of the same calibrator while
  // one is under way.
  template <typename Call>
  auto run(const char* what, Call&& call) -> decltype(call());

 private:
  struct State;
  void begin(const char* what);
  void end();
  [[noreturn]] void raiseStored();
  std::shared_ptr<State> state_;
};

struct CallbackRelay::State {
  ~State();
  py::object function;                // guarded by the GIL
  std::exception_ptr error;           // set with the GIL held
  std::atomic<bool> running{false};
};

template <typename Call>
auto CallbackRelay::run(const char* what, Call&& call) -> decltype(call()) {
  begin(what);
  const ConsoleCapture console(what);
  struct Ender {
    CallbackRelay* relay;
    ~Ender() { relay->end(); }
  } ender{this};
  try {
    py::gil_scoped_release release;
    return call();
  } catch (const CallbackStopped&) {
    raiseStored();
  }
}

// --- registration -------------------------------------------------------------

void registerPictures(py::module_& m);
void registerStepInfo(py::module_& m);
void registerCamera(py::module_& m);
void registerGeometryCalibration(py::module_& m);
// The calibrators' option records (options.cpp).
void registerOptions(py::module_& m);
void registerPipeline(py::module_& m);
void registerSensorCalibration(py::module_& m);

}  // namespace OrbivanePython
