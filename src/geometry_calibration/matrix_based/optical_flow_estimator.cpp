// Dense optical flow, outlier rejection and a robust homography.
#include "geometry_calibration/matrix_based/optical_flow_estimator.h"

#include <algorithm>
#include <cmath>

#include <opencv2/calib3d.hpp>
#include <opencv2/video/tracking.hpp>

namespace GeometryCalibration {
namespace MatrixBased {
namespace {

constexpr double kBand = 3.0;      // robust deviations
constexpr double kSlack = 1.0;     // pixels added to the band
constexpr double kRansac = 1.0;    // pixels

double median(std::vector<double> v) {
  if (v.empty()) return 0.0;
  const auto mid = v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2);
  std::nth_element(v.begin(), mid, v.end());
  return *mid;
}

}  // namespace

OpticalFlowEstimator::OpticalFlowEstimator(EstimatorContext context) : context_(std::move(context)) {}

std::vector<std::size_t> OpticalFlowEstimator::inliers(const std::vector<cv::Point2f>& flow) {
  std::vector<double> xs, ys;
  xs.reserve(flow.size());
  ys.reserve(flow.size());
  for (const auto& f : flow) {
    xs.push_back(f.x);
    ys.push_back(f.y);
  }
  const double mx = median(xs), my = median(ys);
  std::vector<double> dx, dy;
  for (const auto& f : flow) {
    dx.push_back(std::fabs(f.x - mx));
    dy.push_back(std::fabs(f.y - my));
  }
  const double bandX = kBand * 1.4826 * median(dx) + kSlack, bandY = kBand * 1.4826 * median(dy) + kSlack;
  std::vector<std::size_t> kept;
  for (std::size_t i = 0; i < flow.size(); ++i) {
    if (std::fabs(flow[i].x - mx) <= bandX && std::fabs(flow[i].y - my) <= bandY) kept.push_back(i);
  }
  return kept;
}

EstimateResult OpticalFlowEstimator::estimate(const WorkPictures& pictures, const cv::Matx33f& homography) {
  EstimateResult failed;
  failed.homography = homography;
  if (pictures.targetGrey.empty() || pictures.moduleGrey.empty() ||
      pictures.targetGrey.size() != pictures.moduleGrey.size() || pictures.targetGrey.cols < 16 ||
      pictures.targetGrey.rows < 16 || !isUsableHomography(cv::Matx33d(homography)))
    return failed;
  context_.logger->info("calculating Optical Flow ...");
  // The module picture brought onto the target by the start homography.
  cv::Mat moduleStart = pictures.moduleGrey, maskStart = pictures.moduleMask;
  const bool identity = cv::norm(cv::Mat(homography), cv::Mat(cv::Matx33f::eye())) < 1e-9;
  if (!identity) {
    cv::warpPerspective(pictures.moduleGrey, moduleStart, cv::Mat(homography), pictures.targetGrey.size());
    const cv::Mat ones = pictures.moduleMask.empty() ? cv::Mat(pictures.moduleGrey.size(), CV_8U, cv::Scalar(255))
                                                     : pictures.moduleMask;
    cv::warpPerspective(ones, maskStart, cv::Mat(homography), pictures.targetGrey.size(), cv::INTER_NEAREST);
  }
  cv::Mat flow;
  cv::Ptr<cv::DISOpticalFlow> dis = cv::DISOpticalFlow::create(cv::DISOpticalFlow::PRESET_MEDIUM);
  dis->calc(pictures.targetGrey, moduleStart, flow);
  if (context_.aborted()) return failed;

  // Samples: target point x, module point x + flow(x) (in the start frame).
  std::vector<cv::Point2f> targetPoints, flows;
  for (int y = kSampleStep / 2; y < flow.rows; y += kSampleStep) {
    const cv::Point2f* f = flow.ptr<cv::Point2f>(y);
    for (int x = kSampleStep / 2; x < flow.cols; x += kSampleStep) {
      if (!std::isfinite(f[x].x) || !std::isfinite(f[x].y)) continue;
      const int mx = cvRound(x + f[x].x), my = cvRound(y + f[x].y);
      if (mx < 0 || my < 0 || mx >= flow.cols || my >= flow.rows) continue;
      if (!maskStart.empty() && maskStart.at<uchar>(my, mx) == 0) continue;
      targetPoints.emplace_back(float(x), float(y));
      flows.push_back(f[x]);
    }
  }
  const auto kept = inliers(flows);
  context_.logger->info("outliner detected l: {}", flows.size() - kept.size());
  if (kept.size() < 8) return failed;
  std::vector<cv::Point2f> from, to;
  for (const std::size_t i : kept) {
    from.push_back(targetPoints[i] + flows[i]);
    to.push_back(targetPoints[i]);
  }
  const cv::Mat found = cv::findHomography(from, to, cv::RANSAC, kRansac, cv::noArray(), 2000, 0.995);
  if (found.empty()) return failed;
  cv::Matx33d correction;
  cv::Mat converted;
  found.convertTo(converted, CV_64F);
  correction = cv::Matx33d(converted.ptr<double>());
  // The flow was measured against the start; compose into a module -> target homography.
  cv::Matx33d estimate = correction * cv::Matx33d(homography);
  if (!isUsableHomography(estimate)) return failed;
  estimate *= 1.0 / estimate(2, 2);
  const cv::Matx33d refined = refineHomography(pictures, estimate);
  EstimateResult result;
  result.homography = cv::Matx33f(refined);
  result.value = static_cast<std::int32_t>(kept.size());
  result.error = differenceError(pictures, refined);
  return result;
}

}  // namespace MatrixBased
}  // namespace GeometryCalibration
