// The sensor-shift calibration proper (moving a window by a surface
// displacement) and the overlap calibration of two neighbouring modules.
#include <algorithm>
#include <cmath>
#include <exception>

#include <opencv2/core.hpp>
#include <spdlog/logger.h>

#include "logging/logger_setup.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/session/quarn_session.h"
#include "orbivane/camera/final_matrix.h"
#include "orbivane/sensor_calibration/sensor_shifter.h"
#include "orbivane/utils/wide_text.h"
#include "sensor_calibration/device_access.h"
#include "sensor_calibration/overlap_measurement.h"

namespace SensorCalibration {
namespace {

using Module = CameraDescription::OrbivaneModule;

std::shared_ptr<spdlog::logger> logger() { return Utils::calibratorLogger("SensorShifter"); }

std::string nameOf(const Module& module) { return Utils::toUtf8(module.name()); }

// The derivative of the surface point by the texture coordinate at (u, v),
// by central differences; nothing where the matrix does not project.
Utils::Optional<cv::Matx22d> surfaceJacobian(const Utils::Matrix4x4& matrix, double u, double v) {
  constexpr double h = 0.05;  // texture units; exact for affine matrices
  const auto at = [&](double du, double dv) {
    return OrbivaneGeometry::projectToSurface(matrix, static_cast<float>(u + du), static_cast<float>(v + dv));
  };
  const auto uMinus = at(-h, 0), uPlus = at(h, 0), vMinus = at(0, -h), vPlus = at(0, h);
  if (!uMinus || !uPlus || !vMinus || !vPlus) return std::nullopt;
  const cv::Matx22d j((double(uPlus->x) - uMinus->x) / (2 * h), (double(vPlus->x) - vMinus->x) / (2 * h),
                      (double(uPlus->y) - uMinus->y) / (2 * h), (double(vPlus->y) - vMinus->y) / (2 * h));
  if (!cv::checkRange(j)) return std::nullopt;
  return j;
}

// Where a window move of `delta` from `current` lands: the nearest step,
// clamped to the limits, then rounded toward zero to the step as the write
// does.
std::int32_t plannedPosition(std::int32_t current, double delta, std::int32_t minimum, std::int32_t maximum,
                             std::int32_t step) {
  const double s = step > 0 ? step : 1;
  const double target = std::round((current + delta) / s) * s;
  std::int32_t x = static_cast<std::int32_t>(std::clamp(target, double(minimum), double(maximum)));
  if (step > 0) x -= x % step;
  return x;
}

Utils::ReturnState<SensorShifter::SensorInfo, std::string> readWindow(const std::shared_ptr<Module>& module) {
  SensorShifter::SensorInfo info;
  if (!SensorShifter::readSensorShift(module, info, false, 0.0f)) {
    return Utils::failure("Cant get Camera Sensor Info of module " + nameOf(*module) + "!");
  }
  return info;
}

// Writes (x, y) and checks that the device took it.
Utils::ReturnState<SensorShifter::SensorInfo, std::string> writeWindow(const std::shared_ptr<Module>& module,
                                                                       SensorShifter::SensorInfo info, std::int32_t x,
                                                                       std::int32_t y) {
  info.x = x;
  info.y = y;
  info.virtualShift = false;
  SensorShifter::writeSensorShift(module, info);
  auto now = readWindow(module);
  if (!now) return now;
  if (now.value().x != x || now.value().y != y) {
    return Utils::failure("Cannot write SensorShift of module " + nameOf(*module) + ": the window is at (" +
                          std::to_string(now.value().x) + ", " + std::to_string(now.value().y) + "), not (" +
                          std::to_string(x) + ", " + std::to_string(y) + ")");
  }
  return now;
}

Utils::ReturnState<cv::Mat, std::string> capture(const std::shared_ptr<Module>& module) {
  auto session = connectModule(*module);
  if (!session) return Utils::failure("Cant connect to module " + nameOf(*module) + ": " + session.error());
  auto picture = session.value()->CaptureImage({}).get();
  if (!picture) return Utils::failure("Cannot capture a picture of module " + nameOf(*module) + ": " + picture.error());
  if (picture.value().empty()) return Utils::failure("Module " + nameOf(*module) + " gave an empty picture");
  return picture;
}

// Both pictures captured (and kept as the modules' pictures), then measured.
Utils::ReturnState<SensorShifter::OverlapMeasurement, std::string> captureAndMeasure(
    const std::shared_ptr<Module>& left, const std::shared_ptr<Module>& right,
    const SensorShifter::OverlapOptions& options) {
  auto leftPicture = capture(left);
  if (!leftPicture) return Utils::failure(leftPicture.error());
  auto rightPicture = capture(right);
  if (!rightPicture) return Utils::failure(rightPicture.error());
  left->setImage(Image::fromMat(leftPicture.value()));
  right->setImage(Image::fromMat(rightPicture.value()));
  auto m = measureOverlapOf(leftPicture.value(), rightPicture.value(), options.searchShare, options.minScore);
  if (!m) return Utils::failure("Modules " + nameOf(*left) + " and " + nameOf(*right) + ": " + m.error());
  return m;
}

// A surplus of `leftPixels` columns of the left picture in sensor pixels of
// the right module: onto the surface through the left module's final matrix
// at the middle of its right edge, into the right module through its own.
// 1:1 when either module lacks a usable matrix.
double rightPixelsFor(const std::shared_ptr<Module>& left, const std::shared_ptr<Module>& right, double leftPixels) {
  const auto matrix = CameraDescription::finalMatrix(*left);
  if (!matrix || !left->image() || left->image()->width() <= 0) return leftPixels;
  const auto j = surfaceJacobian(*matrix, 1.0, 0.5);
  if (!j) return leftPixels;
  const double du = leftPixels / left->image()->width();
  const auto shift = SensorShifter::cvtToPixelSensorShift(right, (*j)(0, 0) * du, (*j)(1, 0) * du);
  if (!shift || !std::isfinite(shift.value().x)) return leftPixels;
  return shift.value().x;
}

}  // namespace

Utils::ReturnState<SensorShifter::PixelShift, std::string> SensorShifter::cvtToPixelSensorShift(
    std::shared_ptr<Module> module, double surfaceDx, double surfaceDy) {
  if (!module) return Utils::failure("no module");
  if (!std::isfinite(surfaceDx) || !std::isfinite(surfaceDy)) return Utils::failure("the shift is not finite");
  if (module->matrixGeometry() == nullptr) {
    return Utils::failure("Module " + nameOf(*module) + " has no Matrix Geometry");
  }
  if (!module->image() || module->image()->width() <= 0 || module->image()->height() <= 0) {
    return Utils::failure("Module " + nameOf(*module) + " has no picture to measure its pixels on");
  }
  const auto matrix = CameraDescription::finalMatrix(*module);
  if (!matrix) return Utils::failure("Module " + nameOf(*module) + " has no usable final matrix");
  const auto j = surfaceJacobian(*matrix, 0.5, 0.5);
  if (!j || std::fabs(cv::determinant(*j)) < 1e-12) {
    return Utils::failure("the matrix of module " + nameOf(*module) + " is singular at its picture's middle");
  }
  const cv::Vec2d texture = j->inv() * cv::Vec2d(surfaceDx, surfaceDy);
  PixelShift shift;
  shift.x = texture[0] * module->image()->width();
  shift.y = texture[1] * module->image()->height();
  if (!std::isfinite(shift.x) || !std::isfinite(shift.y)) return Utils::failure("the shift is not finite");
  return shift;
}

Utils::ReturnState<SensorShifter::SensorInfo, std::string> SensorShifter::sensorshiftCalibration(
    std::shared_ptr<Module> module, double surfaceDx, double surfaceDy) {
  if (!module) return Utils::failure("no module");
  if (!module->connection()) {
    return Utils::failure("Module " + nameOf(*module) + " has no Quarn Connection Info! Can't apply Calibration");
  }
  auto shift = cvtToPixelSensorShift(module, surfaceDx, surfaceDy);
  if (!shift) return Utils::failure(shift.error());
  auto info = readWindow(module);
  if (!info) return info;
  const SensorInfo& i = info.value();
  const std::int32_t x = plannedPosition(i.x, shift.value().x, i.xMin, i.xMax, i.xStep);
  const std::int32_t y = plannedPosition(i.y, shift.value().y, i.yMin, i.yMax, i.yStep);
  logger()->info("Module {}: surface shift ({}, {}) is ({:.2f}, {:.2f}) sensor pixels; window ({}, {}) -> ({}, {})",
                 nameOf(*module), surfaceDx, surfaceDy, shift.value().x, shift.value().y, i.x, i.y, x, y);
  auto written = writeWindow(module, i, x, y);
  if (!written) {
    logger()->error(written.error());
    return written;
  }
  updatelastChangedSensorInfo(written.value(), module->name());
  return written;
}

bool SensorShifter::updateSettings(std::shared_ptr<Module> module) {
  if (!module) return false;
  SensorInfo info;
  if (!readSensorShift(module, info, false, 0.0f)) return false;
  updatelastChangedSensorInfo(info, module->name());
  return true;
}

Utils::ReturnState<SensorShifter::OverlapMeasurement, std::string> SensorShifter::measureOverlap(
    std::shared_ptr<Image::UniversalImageInterface> left, std::shared_ptr<Image::UniversalImageInterface> right,
    double searchShare, double minScore) {
  if (!left || !right) return Utils::failure("a picture is missing");
  cv::Mat l, r;
  try {
    l = Image::toMat(left);
    r = Image::toMat(right);
  } catch (const std::exception& e) {
    return Utils::failure(std::string("cannot read a picture: ") + e.what());
  }
  return measureOverlapOf(l, r, searchShare, minScore);
}

Utils::ReturnState<SensorShifter::OverlapResult, std::string> SensorShifter::overlapCalibration(
    std::shared_ptr<Module> left, std::shared_ptr<Module> right, const OverlapOptions& options) {
  if (!left || !right) return Utils::failure("two modules are needed");
  if (left == right || left->name() == right->name()) return Utils::failure("a module cannot overlap itself");
  for (const auto* m : {left.get(), right.get()}) {
    if (!m->connection()) {
      return Utils::failure("Module " + nameOf(*m) + " has no Quarn Connection Info! Can't apply Calibration");
    }
  }
  if (options.maxIterations < 0) return Utils::failure("the number of moves must not be negative");
  auto leftInfo = readWindow(left);
  if (!leftInfo) return Utils::failure(leftInfo.error());
  auto rightInfo = readWindow(right);
  if (!rightInfo) return Utils::failure(rightInfo.error());
  auto measured = captureAndMeasure(left, right, options);
  if (!measured) return Utils::failure(measured.error());

  OverlapResult result;
  result.left = left->name();
  result.right = right->name();
  const int leftWidth = left->image()->width();
  if (options.wantedPixels >= 0.0) {
    result.wanted = options.wantedPixels;
  } else {
    const CameraDescription::OrbivaneLinkage* linkage = left->linkage() ? left->linkage() : right->linkage();
    if (linkage == nullptr || !(linkage->overlap > 0.0f)) {
      return Utils::failure("No wanted overlap for modules " + nameOf(*left) + " and " + nameOf(*right) +
                            ": give one in pixels or set the linkage's overlap share");
    }
    result.wanted = double(linkage->overlap) * leftWidth;
  }
  if (!std::isfinite(result.wanted) || result.wanted >= leftWidth) {
    return Utils::failure("the wanted overlap must be a number of pixels below the picture width " +
                          std::to_string(leftWidth));
  }
  result.before = measured.value();
  const std::shared_ptr<spdlog::logger> log = logger();
  log->info("Modules {} and {}: overlap {:.2f} px, wanted {:.2f} px", nameOf(*left), nameOf(*right),
            measured.value().overlap, result.wanted);

  SensorInfo l = leftInfo.value(), r = rightInfo.value();
  const double rightStep = std::max(1, r.xStep), leftStep = std::max(1, l.xStep);
  while (result.moves < options.maxIterations) {
    const double surplus = measured.value().overlap - result.wanted;  // left picture pixels
    if (std::fabs(surplus) <= 0.5 * rightStep) break;
    // More overlap than wanted: the right window moves right, so the right
    // picture starts further right in the scene.
    const double rightPixels = rightPixelsFor(left, right, surplus);
    const std::int32_t newRight = plannedPosition(r.x, rightPixels, r.xMin, r.xMax, r.xStep);
    const double leftover = rightPixels - (newRight - r.x);
    // What the right window cannot take, the left one takes the other way
    // (in left picture pixels, by the same ratio).
    const double leftPixels = std::fabs(rightPixels) > 1e-9 ? leftover * surplus / rightPixels : 0.0;
    const std::int32_t newLeft =
        std::fabs(leftPixels) >= 0.5 * leftStep ? plannedPosition(l.x, -leftPixels, l.xMin, l.xMax, l.xStep) : l.x;
    if (newRight == r.x && newLeft == l.x) break;
    if (newRight != r.x) {
      auto written = writeWindow(right, r, newRight, r.y);
      if (!written) return Utils::failure(written.error());
      r = written.value();
    }
    if (newLeft != l.x) {
      auto written = writeWindow(left, l, newLeft, l.y);
      if (!written) return Utils::failure(written.error());
      l = written.value();
    }
    ++result.moves;
    log->info("Move {}: windows {} at x {}, {} at x {}", result.moves, nameOf(*left), l.x, nameOf(*right), r.x);
    measured = captureAndMeasure(left, right, options);
    if (!measured) return Utils::failure(measured.error());
  }
  result.after = measured.value();
  result.reached = std::fabs(result.after.overlap - result.wanted) <= std::max(rightStep, leftStep);
  updatelastChangedSensorInfo(l, left->name());
  updatelastChangedSensorInfo(r, right->name());
  result.leftWindow = l;
  result.rightWindow = r;
  log->info("Modules {} and {}: overlap now {:.2f} px (wanted {:.2f} px){}", nameOf(*left), nameOf(*right),
            result.after.overlap, result.wanted, result.reached ? "" : ", not reached");
  return result;
}

std::shared_ptr<Image::UniversalImageInterface> SensorShifter::overlapImg(std::shared_ptr<Module> left,
                                                                         std::shared_ptr<Module> right,
                                                                         double wantedPixels) {
  if (!left || !right || !left->image() || !right->image()) return nullptr;
  cv::Mat l, r;
  try {
    l = Image::toMat(left->image());
    r = Image::toMat(right->image());
  } catch (const std::exception& e) {
    logger()->error("Cannot read a picture: {}", e.what());
    return nullptr;
  }
  auto m = measureOverlapOf(l, r, 0.5, 0.8);
  if (!m) {
    logger()->warn("Modules {} and {}: {}", nameOf(*left), nameOf(*right), m.error());
    return nullptr;
  }
  return Image::fromMat(drawOverlap(l, r, m.value(), std::isfinite(wantedPixels) ? wantedPixels : -1.0));
}

}  // namespace SensorCalibration
