// Resolution on a three-mark target.
#include "orbivane/sensor_calibration/resolution_calibration.h"

#include <cmath>
#include <iomanip>
#include <iostream>
#include <sstream>

#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>
#include <spdlog/logger.h>

#include "logging/logger_setup.h"
#include "orbivane/utils/wide_text.h"
#include "orbivane/image/image_conversion.h"
#include "sensor_calibration/blob_pairs.h"
#include "sensor_calibration/device_access.h"

namespace SensorCalibration {
namespace {

const cv::Scalar kCircleColour(0, 0, 255);  // BGR red
const cv::Scalar kTextColour(255, 0, 0);    // BGR blue

}  // namespace

struct ResolutionCalibration::Impl {
  CameraDescription::OrbivaneModule module;
  float realX = 0;
  float realY = 0;
  int minBlobArea = 0;
  bool haveResults = false;
  int count = 0;
  int horizontal = 0;
  int vertical = 0;
  float x = 0;  // metres per pixel
  float y = 0;
  bool applied = false;
  std::shared_ptr<spdlog::logger> logger;
};

ResolutionCalibration::ResolutionCalibration(const CameraDescription::OrbivaneModule& module, float realX, float realY,
                                             int minBlobArea)
    : impl_(new Impl{module, realX, realY, minBlobArea, false, 0, 0, 0, 0, 0, false,
                     Utils::calibratorLogger("ResolutionCalibration")}) {}

ResolutionCalibration::~ResolutionCalibration() = default;

void ResolutionCalibration::updateOrbivane(const CameraDescription::Orbivane& camera) {
  takeModuleFrom(camera, impl_->module, *impl_->logger);
}

int ResolutionCalibration::circleCount() const { return impl_->count; }
int ResolutionCalibration::horizontalSpacing() const { return impl_->horizontal; }
int ResolutionCalibration::verticalSpacing() const { return impl_->vertical; }
float ResolutionCalibration::metresPerPixelX() const { return impl_->x; }
float ResolutionCalibration::metresPerPixelY() const { return impl_->y; }
bool ResolutionCalibration::applied() const { return impl_->applied; }

std::shared_ptr<Image::UniversalImageInterface> ResolutionCalibration::calculateCalibration(
    std::shared_ptr<Image::UniversalImageInterface> image) {
  Impl& d = *impl_;
  cv::Mat picture;
  try {
    if (image) picture = Image::toMat(image);
  } catch (const std::exception& e) {
    d.logger->error("Cannot read the picture: {}", e.what());
  }
  if (picture.empty()) {
    d.logger->error("No picture to measure");
    return nullptr;
  }

  cv::SimpleBlobDetector::Params params;
  params.minThreshold = 50.0f;
  params.maxThreshold = 180.0f;
  params.filterByArea = true;
  params.minArea = static_cast<float>(d.minBlobArea);
  params.filterByCircularity = true;
  params.minCircularity = 0.8f;
  params.filterByInertia = true;
  params.minInertiaRatio = 0.01f;
  params.filterByConvexity = true;
  params.minConvexity = 0.8f;
  cv::Ptr<cv::SimpleBlobDetector> detector = cv::SimpleBlobDetector::create(params);
  std::vector<cv::KeyPoint> keypoints;
  detector->detect(picture, keypoints);

  std::vector<cv::Point> centres;
  std::vector<std::pair<cv::Point, int>> circles;
  for (const auto& k : keypoints) {
    centres.emplace_back(cvRound(k.pt.x), cvRound(k.pt.y));
    circles.emplace_back(cv::Point(cvRound(k.pt.x), cvRound(k.pt.y)), cvRound(k.size));
  }
  const auto spacings = markSpacings(centres);
  d.count = static_cast<int>(centres.size());
  d.horizontal = spacings.first;
  d.vertical = spacings.second;
  std::cout << "Circles " << d.count << std::endl;

  const int font = cv::FONT_HERSHEY_SIMPLEX;
  if (d.count != 3) {
    const std::string text = "Error: Not enough or too much cirles was detected!";
    int baseline = 0;
    const cv::Size size = cv::getTextSize(text, font, 3.0, 5, &baseline);
    cv::putText(picture, text, cv::Point((picture.cols - size.width) / 2, (picture.rows + size.height) / 2), font, 3.0,
                kTextColour, 5, 8);
    d.logger->warn("{} marks found instead of three", d.count);
  }
  for (const auto& c : circles) cv::circle(picture, c.first, c.second, kCircleColour, 5, 8);

  d.x = d.realX / static_cast<float>(d.horizontal);
  d.y = d.realY / static_cast<float>(d.vertical);
  std::cout << "xyReal sizes: " << d.realX << "\t" << d.realY << std::endl;
  std::cout << "xyPixel sizes: " << d.horizontal << "\t" << d.vertical << std::endl;

  std::ostringstream first, second;
  first << "x,y-Resolution [mm/px]: " << std::fixed << std::setprecision(3) << d.x * 1000.0f << " / " << d.y * 1000.0f;
  const auto rounded = [](float v) {
    std::ostringstream s;
    if (std::isfinite(v)) {
      s << std::llround(v);
    } else {
      s << v;
    }
    return s.str();
  };
  second << "x,y-Resolution [px/m]: " << rounded(1.0f / d.x) << " / " << rounded(1.0f / d.y);
  int baseline = 0;
  const cv::Size size = cv::getTextSize(first.str(), font, 4.0, 5, &baseline);
  const cv::Point origin((picture.cols - size.width) / 2, (picture.rows + size.height) / 2);
  cv::putText(picture, first.str(), origin, font, 4.0, kTextColour, 5, 8);
  cv::putText(picture, second.str(), origin + cv::Point(0, size.height + baseline + 5), font, 4.0, kTextColour, 5, 8);
  d.logger->info("{}; {}", first.str(), second.str());
  d.haveResults = true;
  d.applied = false;
  return Image::fromMat(picture);
}

bool ResolutionCalibration::apply() {
  Impl& d = *impl_;
  if (!d.haveResults) {
    d.logger->error("No Calibration Values!");
    return false;
  }
  if (!d.module.connection()) {
    d.logger->error("Module has no Quarn Connection Info! Can't apply Calibration");
    return false;
  }
  auto session = connectModule(d.module);
  if (!session) {
    d.logger->error("Cant connect to Module! Enable Quarn logs for more Information.");
    return false;
  }
  auto read = session.value()->GetCamerasensorInfo({}).get();
  if (!read || read.value().empty()) {
    d.logger->error("Cant get Camera Sensor Info! Error: {}",
                    read ? std::string("the device gave no sensor values") : read.error());
    return false;
  }
  const auto& info = read.value();
  if (!std::isfinite(d.x) || !std::isfinite(d.y) || d.x <= 0 || d.y <= 0) {
    d.logger->error("The measured resolution is not usable ({} x {} m/px)", d.x, d.y);
    return false;
  }
  // What moving the window over its whole range covers on the target.
  const double travelX = (double(info.xMax()) - info.xMin()) * d.x * 1000.0;
  const double travelY = (double(info.yMax()) - info.yMin()) * d.y * 1000.0;
  d.logger->info("Sensor window travel {} x {} px covers {:.1f} x {:.1f} mm of the target; one step {:.3f} x {:.3f} mm",
                 info.xMax() - info.xMin(), info.yMax() - info.yMin(), travelX, travelY, info.xStep() * d.x * 1000.0,
                 info.yStep() * d.y * 1000.0);
  d.applied = true;
  return true;
}

bool ResolutionCalibration::restore() {
  impl_->applied = false;
  return true;
}

}  // namespace SensorCalibration
