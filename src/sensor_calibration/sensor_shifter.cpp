// Sensor window access through the session library, the process-wide store,
// and the virtual sensor shift.
//
// Virtual shift, how the limits are adjusted. The window may travel beyond
// the device's own range by sliding the displayed picture inside the area
// the camera can show without a gap. Two point sets, both in sensor pixels
// relative to the current window, are derived from the unclipped rectangle R
// of the current window (getUnclippedRect) projected onto the surface:
//  - horizontal: (a0, a1, a2, a3) = (-left overlap, 0, +right overlap, 0),
//    the overlaps with the neighbouring modules. The right one is measured
//    against the neighbour's projected picture (module->neighbour(), through
//    its final matrix), else taken from the linkage's overlap share; the left
//    one from the linkage's overlap share when a left neighbour is named.
//    Sliding into an overlap leaves no gap, since the neighbour covers it.
//  - vertical: (0, above, 0, below), how far the unclipped picture (R through
//    the module matrix) reaches above and below what the clip matrix shows
//    (R through the final matrix).
// Each set moves the limits of the axis of its larger extent by its extents,
// minus half the buffer share of the extent at each end, so the buffer share
// of the room is never used.
#include "orbivane/sensor_calibration/sensor_shifter.h"

#include <cmath>
#include <iostream>
#include <map>
#include <utility>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "orbivane/geometry/surface_projection.h"
#include "orbivane/camera/final_matrix.h"
#include "sensor_calibration/device_access.h"

namespace SensorCalibration {

std::map<std::wstring, SensorShifter::SensorInfo> SensorShifter::staticSensorInfo_;
bool SensorShifter::enableVirtualSensorShift_ = false;
float SensorShifter::virtualSensorShiftBuffer_ = 0.0f;

namespace {

using Module = CameraDescription::OrbivaneModule;

// The window each module's picture was found at when the device was first
// read or written in this process, for modules the store has no entry for:
// the picture as loaded shows the window the device is at, wherever that is.
std::map<std::wstring, std::pair<std::int32_t, std::int32_t>> firstSeenWindows;

void noteFirstSeen(const std::wstring& name, std::int32_t x, std::int32_t y) {
  firstSeenWindows.emplace(name, std::make_pair(x, y));
}

// The quad's corners through a 4x4 matrix (perspective transform of points);
// nothing when a corner does not project.
Utils::Optional<Utils::SurfaceQuad> projectQuad(const Utils::Matrix4x4& m, const Utils::SurfaceQuad& q) {
  Utils::SurfaceQuad out;
  for (std::size_t i = 0; i < 4; ++i) {
    const auto p = OrbivaneGeometry::projectToSurface(m, q.corners[i].x, q.corners[i].y);
    if (!p) return std::nullopt;
    out.corners[i] = *p;
  }
  return out;
}

bool finite(std::initializer_list<double> values) {
  for (double v : values) {
    if (!std::isfinite(v)) return false;
  }
  return true;
}

// The narrowing rule for one projected set (a0, a1, a2, a3).
void narrow(SensorShifter::SensorInfo& info, double a0, double a1, double a2, double a3, float buffer) {
  if (!finite({a0, a1, a2, a3})) return;
  if (std::fabs(a0 - a2) > std::fabs(a1 - a3)) {
    const auto d = static_cast<std::int32_t>(std::trunc(std::fabs(a0 - a2) * 0.5 * buffer));
    info.xMin += static_cast<std::int32_t>(std::trunc(std::min(a0, a2))) + d;
    info.xMax += static_cast<std::int32_t>(std::trunc(std::max(a0, a2))) - d;
  } else {
    const auto d = static_cast<std::int32_t>(std::trunc(std::fabs(a1 - a3) * 0.5 * buffer));
    info.yMin += static_cast<std::int32_t>(std::trunc(std::min(a1, a3))) + d;
    info.yMax += static_cast<std::int32_t>(std::trunc(std::max(a1, a3))) - d;
  }
}

void applyVirtualLimits(const std::shared_ptr<Module>& module, SensorShifter::SensorInfo& info, float buffer) {
  const auto* geometry = module->matrixGeometry();
  const auto final = CameraDescription::finalMatrix(*module);
  if (geometry == nullptr || !final || module->image() == nullptr) return;
  const Utils::SurfaceQuad rect = SensorShifter::getUnclippedRect(module, info);
  const auto shown = projectQuad(*final, rect);
  const auto unclipped = projectQuad(geometry->matrix(), rect);
  if (!shown || !unclipped) return;
  const double shownWidth = shown->right() - shown->left();
  const double shownHeight = shown->bottom() - shown->top();
  if (!(shownWidth > 0.0) || !(shownHeight > 0.0)) return;
  const double pxPerUnitX = module->image()->width() / shownWidth;
  const double pxPerUnitY = module->image()->height() / shownHeight;

  const CameraDescription::OrbivaneLinkage* linkage = module->linkage();
  double leftOverlap = 0.0, rightOverlap = 0.0;  // surface units
  if (linkage != nullptr && !linkage->left.empty()) leftOverlap = linkage->overlap * shownWidth;
  const auto neighbour = module->neighbour();
  const auto neighbourFinal = neighbour ? CameraDescription::finalMatrix(*neighbour) : Utils::Optional<Utils::Matrix4x4>();
  const auto neighbourQuad =
      neighbourFinal ? OrbivaneGeometry::moduleSurfaceQuad(*neighbourFinal) : Utils::Optional<Utils::SurfaceQuad>();
  if (neighbourQuad) {
    rightOverlap = std::max(0.0, double(shown->right()) - neighbourQuad->left());
  } else if (linkage != nullptr && !linkage->right.empty()) {
    rightOverlap = linkage->overlap * shownWidth;
  }
  narrow(info, -leftOverlap * pxPerUnitX, 0.0, rightOverlap * pxPerUnitX, 0.0, buffer);
  narrow(info, 0.0, (double(unclipped->top()) - shown->top()) * pxPerUnitY, 0.0,
         (double(unclipped->bottom()) - shown->bottom()) * pxPerUnitY, buffer);
}

}  // namespace

bool SensorShifter::readSensorShift(std::shared_ptr<Module> module, SensorInfo& info) {
  return readSensorShift(std::move(module), info, enableVirtualSensorShift_, virtualSensorShiftBuffer_);
}

bool SensorShifter::readSensorShift(std::shared_ptr<Module> module, SensorInfo& info, const bool& virtualShift,
                                    const float& buffer) {
  if (!module || !module->connection()) return false;
  auto session = connectModule(*module);
  if (!session) return false;
  auto read = session.value()->GetCamerasensorInfo({}).get();
  if (!read || read.value().empty()) return false;
  const Quarn::CamerasensorInfoData& v = read.value();
  info.moduleName = module->name();
  info.x = v.x();
  info.xMax = v.xMax();
  info.xMin = v.xMin();
  info.xStep = v.xStep();
  info.y = v.y();
  info.yMax = v.yMax();
  info.yMin = v.yMin();
  info.yStep = v.yStep();
  noteFirstSeen(info.moduleName, info.x, info.y);
  if (!virtualShift) return true;
  info.virtualShift = true;
  info.deviceXMax = info.xMax;
  info.deviceXMin = info.xMin;
  info.deviceYMax = info.yMax;
  info.deviceYMin = info.yMin;
  applyVirtualLimits(module, info, buffer);
  return true;
}

void SensorShifter::writeSensorShift(std::shared_ptr<Module> module, const SensorInfo& info) {
  if (!module || !module->connection()) return;
  auto session = connectModule(*module);
  if (!session) return;
  auto read = session.value()->GetCamerasensorInfo({}).get();
  if (!read || read.value().empty()) return;
  const Quarn::CamerasensorInfoData& device = read.value();
  noteFirstSeen(module->name(), device.x(), device.y());
  std::int32_t x = std::max(std::min(info.x, device.xMax()), device.xMin());
  if (device.xStep() != 0) x = x - x % device.xStep();
  std::int32_t y = std::max(std::min(info.y, device.yMax()), device.yMin());
  if (device.yStep() != 0) y = y - y % device.yStep();

  const auto written = session.value()->SetCamerasensor(x, y, {}).get();
  if (!written) std::cerr << "!!!Error " << written.error() << ": Cannot write SensorShift!" << std::endl;

  if (info.virtualShift) {
    // The picture follows the window as written (clamped and stepped), from
    // where the last write left it: writing the same position again moves
    // nothing.
    SensorInfo moved = info;
    moved.x = x;
    moved.y = y;
    const Utils::SurfaceQuad rect = getUnclippedRect(module, moved);
    const std::vector<cv::Point2f> unit{{0, 0}, {1, 0}, {1, 1}, {0, 1}};
    std::vector<cv::Point2f> corners;
    bool unmoved = true;
    for (std::size_t k = 0; k < rect.corners.size(); ++k) {
      corners.emplace_back(rect.corners[k].x, rect.corners[k].y);
      unmoved = unmoved && corners.back() == unit[k];
    }
    const cv::Mat t = cv::getPerspectiveTransform(unit, corners);
    auto* geometry = module->matrixGeometry();
    if (geometry != nullptr && !unmoved && cv::checkRange(t)) {
      const Utils::Matrix4x4 product = geometry->matrix() * OrbivaneGeometry::matrixFromPlanarHomography(cv::Matx33d(t));
      if (product.isFinite()) {
        auto replacement = geometry->clone();
        static_cast<OrbivaneGeometry::MatrixGeometry&>(*replacement).setMatrix(product);
        module->setGeometry(std::move(replacement));
      }
    }
  }
  // The store holds the window the picture now shows: the written one, and
  // for a virtual shift also one the device refused, since the picture has
  // followed it (a retry at the same position then moves nothing more).
  if (written || info.virtualShift) {
    SensorInfo kept = info;
    kept.moduleName = module->name();
    kept.x = x;
    kept.y = y;
    staticSensorInfo_[module->name()] = kept;
  }
}

void SensorShifter::enableVirtualSensorShift(const bool& enable, const float& buffer) {
  enableVirtualSensorShift_ = enable;
  if (enable) virtualSensorShiftBuffer_ = buffer;
}

SensorShifter::SensorInfo SensorShifter::lastChangedSensorInfo(const std::wstring& moduleName) {
  return staticSensorInfo_[moduleName];
}

void SensorShifter::updatelastChangedSensorInfo(const SensorInfo& info, const std::wstring& moduleName) {
  staticSensorInfo_[moduleName] = info;
}

Utils::SurfaceQuad SensorShifter::getUnclippedRect(std::shared_ptr<Module> module, const SensorInfo& info) {
  Utils::SurfaceQuad quad;
  quad.corners = {Utils::SurfacePoint{0, 0}, Utils::SurfacePoint{1, 0}, Utils::SurfacePoint{1, 1},
                  Utils::SurfacePoint{0, 1}};
  if (!module || module->image() == nullptr || module->image()->width() <= 0 || module->image()->height() <= 0) {
    return quad;
  }
  double referenceX = 0.0, referenceY = 0.0;
  const auto stored = staticSensorInfo_.find(module->name());
  if (stored != staticSensorInfo_.end() && !stored->second.moduleName.empty()) {
    referenceX = stored->second.x;
    referenceY = stored->second.y;
  } else if (const auto seen = firstSeenWindows.find(module->name()); seen != firstSeenWindows.end()) {
    referenceX = seen->second.first;
    referenceY = seen->second.second;
  } else if (info.virtualShift) {
    referenceX = (double(info.deviceXMin) + info.deviceXMax) / 2.0;
    referenceY = (double(info.deviceYMin) + info.deviceYMax) / 2.0;
  } else {
    referenceX = (double(info.xMin) + info.xMax) / 2.0;
    referenceY = (double(info.yMin) + info.yMax) / 2.0;
  }
  const float du = static_cast<float>((info.x - referenceX) / module->image()->width());
  const float dv = static_cast<float>((info.y - referenceY) / module->image()->height());
  for (auto& c : quad.corners) {
    c.x += du;
    c.y += dv;
  }
  return quad;
}

}  // namespace SensorCalibration
