// Fisheye centring on the lens circle, and the sensor window move.
#include "orbivane/sensor_calibration/fisheye_calibration.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>

#include <opencv2/imgproc.hpp>
#include <spdlog/logger.h>

#include "logging/logger_setup.h"
#include "orbivane/utils/wide_text.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/sensor_calibration/sensor_shifter.h"
#include "orbivane/session/quarn_session.h"
#include "sensor_calibration/device_access.h"
#include "sensor_calibration/fisheye_center_finder.h"

namespace SensorCalibration {
namespace {

const cv::Scalar kCircleColour(0, 255, 0);  // BGR green

}  // namespace

struct FisheyeCalibration::Impl {
  CameraDescription::OrbivaneModule module;
  std::shared_ptr<Quarn::QuarnSession> session;
  int previousX = 0;
  int previousY = 0;
  bool moved = false;
  int threshold = 97;
  CalibrationResults results;
  bool haveResults = false;
  int circleX = 0;  // integer centre of the last circle
  int circleY = 0;
  int cols = 0;
  int rows = 0;
  std::shared_ptr<spdlog::logger> logger;

  Quarn::CamerasensorInfoData limits;  // the device's sensor info as apply read it

  Utils::ReturnState<bool, std::string> fail(const std::string& text) {
    logger->error(text);
    return Utils::failure(text);
  }

  // The process-wide store of the sensor shifter keeps the window the
  // device now has: the last window decided for the module.
  void remember(std::int32_t x, std::int32_t y) const {
    SensorShifter::SensorInfo info = SensorShifter::lastChangedSensorInfo(module.name());
    info.moduleName = module.name();
    info.x = x;
    info.y = y;
    if (!limits.empty()) {
      info.xMin = limits.xMin();
      info.xMax = limits.xMax();
      info.xStep = limits.xStep();
      info.yMin = limits.yMin();
      info.yMax = limits.yMax();
      info.yStep = limits.yStep();
    }
    SensorShifter::updatelastChangedSensorInfo(info, module.name());
  }
};

FisheyeCalibration::FisheyeCalibration(const CameraDescription::OrbivaneModule& module)
    : FisheyeCalibration(module, 97) {
  std::cerr << "In this case the threshold is unchanged, it is set to 97!" << std::endl;
}

FisheyeCalibration::FisheyeCalibration(const CameraDescription::OrbivaneModule& module, int threshold)
    : impl_(new Impl{module, nullptr, 0, 0, false, threshold, {}, false, 0, 0, 0, 0,
                     Utils::calibratorLogger("FisheyeCalibration"), {}}) {}

FisheyeCalibration::~FisheyeCalibration() = default;

void FisheyeCalibration::updateOrbivane(const CameraDescription::Orbivane& camera) {
  takeModuleFrom(camera, impl_->module, *impl_->logger);
}

int FisheyeCalibration::threshold() const { return impl_->threshold; }

FisheyeCalibration::CalibrationResults FisheyeCalibration::calculateCalibration(
    std::shared_ptr<Image::UniversalImageInterface> image) {
  CalibrationResults results;
  results.image = image;
  // Every calculation leaves results that apply works from, an implausible
  // circle's -1 values included; only apply before any calculation has none.
  impl_->haveResults = true;
  impl_->circleX = -1;
  impl_->circleY = -1;
  impl_->cols = 0;
  impl_->rows = 0;
  cv::Mat picture;
  try {
    if (image) picture = Image::toMat(image);
  } catch (const std::exception& e) {
    impl_->logger->error("Cannot read the picture: {}", e.what());
  }
  if (picture.empty()) {
    std::cerr << "Circle can't drawn, possible wrong circle parameters. Check the lens cover!" << std::endl;
    impl_->results = results;
    return results;
  }
  impl_->cols = picture.cols;
  impl_->rows = picture.rows;
  FisheyeCenterFinder finder(picture);
  finder.setThreshold(std::clamp(impl_->threshold, 0, 255));
  finder.setThresholdingMethod(2);
  finder.run();

  const int r = finder.radius();
  const float cx = finder.centreXf(), cy = finder.centreYf();
  if (r >= 0 && r <= (2 * picture.cols) / 3 && cx >= 0 && cx < picture.cols && cy >= 0 && cy < picture.rows) {
    cv::circle(picture, cv::Point(finder.centreX(), finder.centreY()), r, kCircleColour, 4, 8);
    results.image = Image::fromMat(picture);
    results.x = cx;
    results.y = cy;
    results.radius = finder.radiusf();
    impl_->circleX = finder.centreX();
    impl_->circleY = finder.centreY();
    impl_->logger->info("Circle at ({}, {}), radius {}", cx, cy, finder.radiusf());
  } else {
    std::cerr << "Circle can't drawn, possible wrong circle parameters. Check the lens cover!" << std::endl;
  }
  impl_->results = results;
  return results;
}

Utils::ReturnState<bool, std::string> FisheyeCalibration::apply(short x, short y) {
  Impl& d = *impl_;
  if (!d.module.connection()) return d.fail("Module has no Quarn Connection Info! Can't apply Calibration");
  auto session = connectModule(d.module);
  if (!session) {
    d.logger->error("Connect: {}", session.error());
    return d.fail("Cant connect to Module! Enable Quarn logs for more Information.");
  }
  d.session = session.value();
  auto read = d.session->GetCamerasensorInfo({}).get();
  if (!read || read.value().empty()) {
    const std::string error = read ? std::string("the device gave no sensor values") : read.error();
    d.logger->error("Cant get Camera Sensor Info! Error: {}", error);
    return Utils::failure("Cant get Camera Sensor Info! Error: " + error);
  }
  if (!d.haveResults) return d.fail("No Calibration Values!");
  const Quarn::CamerasensorInfoData& info = read.value();

  int newX = info.x() - (d.cols / 2 - d.circleX) + x;
  int newY = info.y() - (d.rows / 2 - d.circleY) + y;
  // Snapping moves toward plus infinity in both directions.
  const auto snap = [](int value, int step) {
    if (step == 0) return value;
    const int rem = std::abs(value) % std::abs(step);
    if (rem == 0) return value;
    return value < 0 ? -(std::abs(value) - rem) : value + (std::abs(step) - rem);
  };
  newX = snap(newX, info.xStep());
  newY = snap(newY, info.yStep());
  std::cout << "XShift: " << newX << "\t YShift: " << newY << "\t XMin: " << info.xMin() << "\t XMax: " << info.xMax()
            << "\t YMin: " << info.yMin() << "\t YMax: " << info.yMax() << std::endl;

  const int clampedX = std::max(std::min(info.xMax(), newX), info.xMin());
  const int clampedY = std::max(std::min(info.yMax(), newY), info.yMin());
  if (clampedX != newX || clampedY != newY) {
    return d.fail("Sensor Shift Values out of Range!  x: " + std::to_string(newX) + " [" + std::to_string(info.xMin()) +
                  " - " + std::to_string(info.xMax()) + "], y: " + std::to_string(newY) + " [" +
                  std::to_string(info.yMin()) + " - " + std::to_string(info.yMax()) + "]");
  }
  const auto written = d.session->SetCamerasensor(newX, newY, {}).get();
  if (!written) return d.fail(written.error());
  d.previousX = info.x();
  d.previousY = info.y();
  d.moved = true;
  d.limits = info;
  d.remember(newX, newY);
  d.logger->info("Sensor window moved from ({}, {}) to ({}, {})", info.x(), info.y(), newX, newY);
  return true;
}

bool FisheyeCalibration::restore() {
  Impl& d = *impl_;
  if (!d.moved) return true;
  if (!d.session) return false;
  const auto written = d.session->SetCamerasensor(d.previousX, d.previousY, {}).get();
  if (!written) {
    d.logger->error("Restore: {}", written.error());
    return false;
  }
  d.moved = false;
  d.remember(d.previousX, d.previousY);
  return true;
}

}  // namespace SensorCalibration
