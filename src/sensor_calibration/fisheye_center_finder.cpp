// The lens circle search.
#include "sensor_calibration/fisheye_center_finder.h"
#include "orbivane/image/image_conversion.h"

#include <cmath>
#include <iostream>
#include <vector>

#include <opencv2/imgproc.hpp>

namespace SensorCalibration {

FisheyeCenterFinder::FisheyeCenterFinder(const cv::Mat& picture)
    : picture_(picture), rows_(picture.rows), cols_(picture.cols) {
  centreX_ = cols_ / 2;
  centreY_ = rows_ / 2;
  radius_ = std::min(rows_ / 2, cols_ / 2);
  centreXf_ = static_cast<float>(centreX_);
  centreYf_ = static_cast<float>(centreY_);
  radiusf_ = static_cast<float>(radius_);
  // 3.14, not pi: the expected areas are figured with it.
  expectedArea_ = (rows_ * 0.5) * (rows_ * 0.5) * 3.14;
  bwConstant_ = expectedArea_ > 0 ? (double(rows_) * cols_ - expectedArea_) / expectedArea_ : 0.0;
}

void FisheyeCenterFinder::run() {
  if (picture_.empty()) {
    radius_ = -1;
    radiusf_ = -1.0f;
    return;
  }
  cv::Mat grey = Image::greyOf(picture_);
  grey.convertTo(grey, CV_8U, 1.0, 0.0);
  cv::GaussianBlur(grey, grey, cv::Size(19, 19), 2.0, 2.0);

  switch (thresholdingMethod_) {
    case 0:
      binary_ = cv::Mat(grey.size(), CV_8U);
      for (int y = 0; y < grey.rows; ++y) {
        const uchar* in = grey.ptr<uchar>(y);
        uchar* out = binary_.ptr<uchar>(y);
        for (int x = 0; x < grey.cols; ++x) out[x] = in[x] > threshold_ ? 255 : 0;
      }
      break;
    case 1: {
      // The block size must be odd and larger than 1.
      const int block = std::max(3, threshold_ | 1);
      cv::adaptiveThreshold(grey, binary_, 255, cv::ADAPTIVE_THRESH_GAUSSIAN_C, cv::THRESH_BINARY, block, 0);
      break;
    }
    default:
      cv::threshold(grey, binary_, threshold_, 255, cv::THRESH_BINARY);
      break;
  }
  cv::medianBlur(binary_, binary_, 21);
  cleanUp();

  white_ = cv::countNonZero(binary_ == 255);
  black_ = cv::countNonZero(binary_ == 0);
  if (black_ + white_ != rows_ * static_cast<long>(cols_)) {
    std::cout << "WARNING fisheyecenter: The image is not binary type (B/W)\n"
              << "\t Black pixels: " << black_ << "+  White pixels: " << white_ << " != " << rows_ << std::endl;
  }
  measuredRatio_ = white_ > 0 ? double(black_) / double(white_) : 0.0;

  cv::Sobel(binary_, edges_, CV_8U, 1, 1, 5, 5.0, 0.0, cv::BORDER_DEFAULT);

  bool fitted = false;
  switch (circleMethod_) {
    case 1:
      fitted = fitLeastSquares(1);
      break;
    case 2:
      fitted = fitRegion();
      break;
    case 3:
      fitted = fitHough();
      break;
    default:
      fitted = fitLeastSquares(150);
      break;
  }
  if (!fitted) {
    radius_ = -1;
    radiusf_ = -1.0f;
    return;
  }
  qualityCheck();
}

// Keeps the largest white region and fills the black holes inside it, so
// specks of noise and dark spots on the lens do not enter the edges.
void FisheyeCenterFinder::cleanUp() {
  cv::Mat labels, stats, centroids;
  const int n = cv::connectedComponentsWithStats(binary_, labels, stats, centroids, 8, CV_32S);
  if (n <= 2) {
    if (n <= 1) return;  // no white at all
  } else {
    int largest = 1;
    for (int i = 2; i < n; ++i) {
      if (stats.at<int>(i, cv::CC_STAT_AREA) > stats.at<int>(largest, cv::CC_STAT_AREA)) largest = i;
    }
    binary_ = (labels == largest);
  }
  cv::Mat inverse = ~binary_;
  const int holes = cv::connectedComponentsWithStats(inverse, labels, stats, centroids, 4, CV_32S);
  for (int i = 1; i < holes; ++i) {
    const int x = stats.at<int>(i, cv::CC_STAT_LEFT), y = stats.at<int>(i, cv::CC_STAT_TOP);
    const int w = stats.at<int>(i, cv::CC_STAT_WIDTH), h = stats.at<int>(i, cv::CC_STAT_HEIGHT);
    const bool touchesBorder = x == 0 || y == 0 || x + w == cols_ || y + h == rows_;
    if (!touchesBorder) binary_.setTo(255, labels == i);
  }
}

bool FisheyeCenterFinder::fitLeastSquares(int every) {
  // Rows (-2x, -2y, 1) against -(x^2 + y^2): unknowns centre x, centre y and
  // c = cx^2 + cy^2 - r^2; normal equations in double precision.
  cv::Matx33d a = cv::Matx33d::zeros();
  cv::Vec3d b(0, 0, 0);
  long seen = 0, used = 0;
  for (int y = 0; y < edges_.rows; ++y) {
    const uchar* row = edges_.ptr<uchar>(y);
    for (int x = 0; x < edges_.cols; ++x) {
      if (row[x] != 255) continue;
      if (seen++ % every != 0) continue;
      const cv::Vec3d r(-2.0 * x, -2.0 * y, 1.0);
      const double rhs = -(double(x) * x + double(y) * y);
      for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) a(i, j) += r[i] * r[j];
        b[i] += r[i] * rhs;
      }
      ++used;
    }
  }
  if (used < 3) return false;
  cv::Vec3d s;
  if (!cv::solve(a, b, s, cv::DECOMP_CHOLESKY) && !cv::solve(a, b, s, cv::DECOMP_SVD)) return false;
  const double r2 = s[0] * s[0] + s[1] * s[1] - s[2];
  if (!(r2 > 0.0) || !std::isfinite(r2) || !std::isfinite(s[0]) || !std::isfinite(s[1])) return false;
  centreXf_ = static_cast<float>(s[0]);
  centreYf_ = static_cast<float>(s[1]);
  radiusf_ = static_cast<float>(std::sqrt(r2));
  centreX_ = cvRound(centreXf_);
  centreY_ = cvRound(centreYf_);
  radius_ = cvRound(radiusf_);
  return true;
}

bool FisheyeCenterFinder::fitRegion() {
  const cv::Moments m = cv::moments(binary_, true);
  if (m.m00 <= 0.0) return false;
  centreXf_ = static_cast<float>(m.m10 / m.m00);
  centreYf_ = static_cast<float>(m.m01 / m.m00);
  radiusf_ = static_cast<float>(std::sqrt(m.m00 / 3.14));
  centreX_ = cvRound(centreXf_);
  centreY_ = cvRound(centreYf_);
  radius_ = cvRound(radiusf_);
  return true;
}

bool FisheyeCenterFinder::fitHough() {
  std::vector<cv::Vec3f> circles;
  cv::HoughCircles(edges_, circles, cv::HOUGH_GRADIENT, 5.0, std::max(1, rows_), 100, 100, 500, 800);
  if (circles.empty()) return false;
  long sx = 0, sy = 0, sr = 0;
  for (const auto& c : circles) {
    sx += cvRound(c[0]);
    sy += cvRound(c[1]);
    sr += cvRound(c[2]);
  }
  const auto n = static_cast<float>(circles.size());
  centreXf_ = sx / n;
  centreYf_ = sy / n;
  radiusf_ = sr / n;
  centreX_ = static_cast<int>(sx / static_cast<long>(circles.size()));
  centreY_ = static_cast<int>(sy / static_cast<long>(circles.size()));
  radius_ = static_cast<int>(sr / static_cast<long>(circles.size()));
  return true;
}

void FisheyeCenterFinder::qualityCheck() const {
  const double area = double(radius_) * radius_ * 3.14;
  if (std::fabs(area - expectedArea_) > tolerance_ * expectedArea_ ||
      radius_ > static_cast<int>(std::trunc(cols_ * 0.15 + cols_))) {
    std::cout << "WARNING fisheyecenter: Check manually the centering quality, if necessary change the threshold "
                 "value!!!\n"
              << "\t Black pixels: " << black_ << ", White pixels: " << white_ << std::endl
              << "\t B/W Ratio after thresholding: " << measuredRatio_
              << " it should be ~= B/W Constant: " << bwConstant_ << std::endl;
  }
}

}  // namespace SensorCalibration
