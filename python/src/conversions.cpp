// Small conversions between the library's values and Python's: module names,
// 4 x 4 matrices as numpy arrays, and the calibrators' reports as dicts.
#include <cmath>
#include <string>

#include "bindings.h"
#include "orbivane/utils/wide_text.h"

namespace OrbivanePython {

std::wstring wide(const std::string& text) { return Utils::fromUtf8(text); }
std::string narrow(const std::wstring& text) { return Utils::toUtf8(text); }

std::list<std::wstring> wideList(const std::vector<std::string>& names) {
  std::list<std::wstring> out;
  for (const auto& name : names) out.push_back(wide(name));
  return out;
}

py::array_t<float> matrixArray(const Utils::Matrix4x4& matrix) {
  py::array_t<float> out({4, 4});
  auto view = out.mutable_unchecked<2>();
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) view(r, c) = matrix.get(r, c);
  return out;
}

Utils::Matrix4x4 matrixFromObject(const py::handle& object) {
  py::array_t<float, py::array::c_style | py::array::forcecast> array;
  try {
    array = py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(object);
  } catch (const py::error_already_set&) {
    array = py::array_t<float, py::array::c_style | py::array::forcecast>();
  }
  if (!array || array.ndim() != 2 || array.shape(0) != 4 || array.shape(1) != 4) {
    PyErr_Clear();
    throw py::value_error("expected a 4 x 4 matrix of numbers (row-major)");
  }
  std::array<float, 16> values{};
  for (int i = 0; i < 16; ++i) {
    values[std::size_t(i)] = array.data()[i];
    if (!std::isfinite(values[std::size_t(i)])) {
      throw py::value_error("the matrix holds a value that is not finite (row " + std::to_string(i / 4) + ", column " +
                            std::to_string(i % 4) + ")");
    }
  }
  return Utils::Matrix4x4(values);
}

std::set<std::string> moduleNames(const CameraDescription::Orbivane& camera) {
  std::set<std::string> names;
  for (const auto& module : camera.modules())
    if (module) names.insert(narrow(module->name()));
  return names;
}

void requireModules(const std::set<std::string>& known, const std::vector<std::string>& names, const char* role) {
  for (const auto& name : names) {
    if (!name.empty() && known.count(name) == 0) throw py::key_error("unknown " + std::string(role) + " '" + name + "'");
  }
}

namespace {
py::object number(double value) { return std::isnan(value) ? py::object(py::none()) : py::object(py::float_(value)); }
}  // namespace

py::dict moduleReportDict(const GeometryCalibration::ModuleReport& report) {
  py::dict out;
  out["status"] = GeometryCalibration::statusName(report.status);
  out["reason"] = report.reason;
  // A module without an error of its own carries the largest float in the
  // library; here it is None, no number a caller could take for a measurement.
  out["error"] = report.error < 3.0e38f ? py::object(py::float_(report.error)) : py::object(py::none());
  out["residual_px"] = number(report.residualPx);
  out["supporting_pairs"] = report.supportingPairs < 0 ? py::object(py::none()) : py::object(py::int_(report.supportingPairs));
  out["start_correlation"] = number(report.startCorrelation);
  out["correlation"] = number(report.correlation);
  out["overlap_share"] = report.overlapShare;
  out["moved_px"] = report.movedPx;
  return out;
}

py::dict moduleReportsDict(const std::map<std::wstring, GeometryCalibration::ModuleReport>& reports) {
  py::dict out;
  for (const auto& [name, report] : reports) out[py::str(narrow(name))] = moduleReportDict(report);
  return out;
}

py::dict pairReportDict(const GeometryCalibration::PairReport& report) {
  py::dict out;
  out["first"] = narrow(report.first);
  out["second"] = narrow(report.second);
  out["measured"] = report.measured;
  out["reason"] = report.reason;
  out["dx"] = report.dx;
  out["dy"] = report.dy;
  out["shift_px"] = report.shiftPx;
  out["correlation"] = number(report.correlation);
  out["overlap_pixels"] = report.overlapPixels;
  return out;
}

}  // namespace OrbivanePython
