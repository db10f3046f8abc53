// The verdicts of the geometry calibrators as JSON (see report_json.h).
#include "report_json.h"

#include <cfloat>
#include <cmath>

#include "orbivane/utils/wide_text.h"

namespace Tool {
namespace {

nlohmann::json numberOrNull(double value) { return std::isfinite(value) ? nlohmann::json(value) : nlohmann::json(); }

}  // namespace

nlohmann::json moduleReportJson(const GeometryCalibration::ModuleReport& r) {
  nlohmann::json out = {{"status", GeometryCalibration::statusName(r.status)},
                        {"reason", r.reason},
                        {"error", r.error < FLT_MAX ? nlohmann::json(r.error) : nlohmann::json()},
                        {"residualPx", numberOrNull(r.residualPx)},
                        {"correlation", numberOrNull(r.correlation)},
                        {"startCorrelation", numberOrNull(r.startCorrelation)},
                        {"overlapShare", r.overlapShare},
                        {"movedPx", r.movedPx}};
  if (r.supportingPairs >= 0) out["supportingPairs"] = r.supportingPairs;
  return out;
}

nlohmann::json pairReportJson(const GeometryCalibration::PairReport& r) {
  return {{"first", Utils::toUtf8(r.first)},
          {"second", Utils::toUtf8(r.second)},
          {"status", r.measured ? "measured" : "not measured"},
          {"reason", r.reason},
          {"dx", r.dx},
          {"dy", r.dy},
          {"shiftPx", r.shiftPx},
          {"correlation", numberOrNull(r.correlation)},
          {"overlapPixels", r.overlapPixels}};
}

nlohmann::json seamJson(const GeometryCalibration::SeamResidual& s) {
  return {{"first", Utils::toUtf8(s.first)},
          {"second", Utils::toUtf8(s.second)},
          {"status", s.measured ? "measured" : "not measured"},
          {"reason", s.reason},
          {"dx", s.measured ? nlohmann::json(s.dx) : nlohmann::json()},
          {"dy", s.measured ? nlohmann::json(s.dy) : nlohmann::json()},
          {"residualPx", s.measured ? nlohmann::json(s.px) : nlohmann::json()},
          {"p90Px", s.measured ? nlohmann::json(s.p90Px) : nlohmann::json()},
          {"matches", s.matches},
          {"exposureEv", s.measured ? nlohmann::json(s.exposureEv) : nlohmann::json()},
          {"overlapPixels", s.overlapPixels}};
}

}  // namespace Tool
