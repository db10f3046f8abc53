// Exposure gains of a rig (see rig_exposure.h).
#include "geometry_calibration/rig/rig_exposure.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <opencv2/imgproc.hpp>
#include <opencv2/stitching/detail/exposure_compensate.hpp>

#include "orbivane/rendering/module_drawing.h"

namespace GeometryCalibration {
namespace Rig {
namespace {

constexpr int kFewestOverlapPixels = 200;

cv::Size reduced(cv::Size panorama, int largestSide) {
  const double s = std::min(1.0, double(largestSide) / std::max(panorama.width, panorama.height));
  return cv::Size(std::max(1, int(std::lround(panorama.width * s))), std::max(1, int(std::lround(panorama.height * s))));
}

}  // namespace

std::vector<double> exposureGains(const std::vector<std::shared_ptr<CameraDescription::OrbivaneModule>>& modules,
                                  cv::Size panorama, int largestSide) {
  const cv::Size size = reduced(panorama, largestSide);
  std::vector<cv::Point> corners;
  std::vector<cv::UMat> images;
  std::vector<std::pair<cv::UMat, uchar>> masks;
  std::vector<int> drawnIndex;
  for (std::size_t i = 0; i < modules.size(); ++i) {
    CameraDescription::OrbivaneModule plain(*modules[i]);
    plain.setExposureGain(1.0);
    auto drawn = OrbivaneRendering::drawModule(plain, size);
    if (!drawn) continue;
    cv::Mat colour;
    drawn.value().colour.convertTo(colour, CV_8UC3);
    corners.push_back(drawn.value().box.tl());
    images.push_back(colour.getUMat(cv::ACCESS_READ).clone());
    masks.emplace_back(drawn.value().inside.getUMat(cv::ACCESS_READ).clone(), uchar(255));
    drawnIndex.push_back(int(i));
  }
  std::vector<double> gains(modules.size(), 1.0);
  if (images.size() < 2) return gains;
  cv::detail::GainCompensator compensator;
  compensator.setNrFeeds(2);
  compensator.feed(corners, images, masks);
  const std::vector<double> found = compensator.gains();
  for (std::size_t k = 0; k < found.size() && k < drawnIndex.size(); ++k) {
    if (std::isfinite(found[k]) && found[k] > 0.0) gains[std::size_t(drawnIndex[k])] = found[k];
  }
  return gains;
}

double exposureDifferenceEv(const CameraDescription::OrbivaneModule& a, const CameraDescription::OrbivaneModule& b,
                            cv::Size panorama, int largestSide) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const cv::Size size = reduced(panorama, largestSide);
  auto da = OrbivaneRendering::drawModule(a, size);
  auto db = OrbivaneRendering::drawModule(b, size);
  if (!da || !db) return nan;
  const cv::Rect shared = da.value().box & db.value().box;
  if (shared.empty()) return nan;
  const cv::Rect inA = shared - da.value().box.tl(), inB = shared - db.value().box.tl();
  const cv::Mat both = da.value().inside(inA) & db.value().inside(inB);
  if (cv::countNonZero(both) < kFewestOverlapPixels) return nan;
  cv::Mat greyA, greyB;
  cv::cvtColor(da.value().colour(inA), greyA, cv::COLOR_BGR2GRAY);
  cv::cvtColor(db.value().colour(inB), greyB, cv::COLOR_BGR2GRAY);
  const double meanA = cv::mean(greyA, both)[0], meanB = cv::mean(greyB, both)[0];
  if (!(meanA > 0.0 && meanB > 0.0)) return nan;
  return std::fabs(std::log2(meanA / meanB));
}

}  // namespace Rig
}  // namespace GeometryCalibration
