// Finds the bright lens circle of a fisheye picture: grey, Gaussian blur,
// binarisation, median blur and clean-up, Sobel edges, and a circle fitted to
// the edge pixels. Console messages carry the prefix "WARNING fisheyecenter: ".
#pragma once

#include <opencv2/core.hpp>

namespace SensorCalibration {

class FisheyeCenterFinder {
 public:
  // Settings start as: fixed threshold (method 2) at 17, least-squares circle
  // (method 0), centre in the middle, radius min(rows / 2, cols / 2).
  explicit FisheyeCenterFinder(const cv::Mat& picture);

  // 0: pixel > threshold is white; 1: adaptive Gaussian, block size =
  // threshold; 2: fixed binary threshold.
  void setThresholdingMethod(int method) { thresholdingMethod_ = method; }
  void setThreshold(int threshold) { threshold_ = threshold; }
  // 0: least squares over every 150th edge pixel; 1: least squares over every
  // edge pixel; 2: centroid and area of the white region; 3: Hough circles.
  //
  // Accuracy of method 0: the binary rim itself is good to about 0.01 px
  // (method 1 on the same edges), but the mixed-derivative edges lie about
  // 1.4 px outside the rim in two opposite quadrants and as much inside in
  // the other two, and a sparse row-major sample does not balance the
  // quadrants: on circles of radius ~430 px the centre scatters by ~0.25 px
  // in x and ~0.4 px in y, with a bias of about -0.3 px in y because the
  // sample always starts at the circle's top. Larger circles (more edge
  // pixels) scatter less.
  void setCircleMethod(int method) { circleMethod_ = method; }

  // Runs the search. When no circle can be fitted the radius is -1.
  void run();

  int centreX() const { return centreX_; }  // pixels, rounded
  int centreY() const { return centreY_; }
  int radius() const { return radius_; }
  float centreXf() const { return centreXf_; }  // pixels, pixel (0, 0) centred on (0, 0)
  float centreYf() const { return centreYf_; }
  float radiusf() const { return radiusf_; }
  long blackPixels() const { return black_; }
  long whitePixels() const { return white_; }
  double measuredRatio() const { return measuredRatio_; }  // black / white, 0 without white
  double bwConstant() const { return bwConstant_; }
  double expectedArea() const { return expectedArea_; }
  const cv::Mat& binary() const { return binary_; }
  const cv::Mat& edges() const { return edges_; }

 private:
  void cleanUp();
  bool fitLeastSquares(int every);
  bool fitRegion();
  bool fitHough();
  void qualityCheck() const;

  cv::Mat picture_;
  cv::Mat binary_;
  cv::Mat edges_;
  int rows_ = 0;
  int cols_ = 0;
  int thresholdingMethod_ = 2;
  int threshold_ = 17;
  int circleMethod_ = 0;
  int centreX_ = 0;
  int centreY_ = 0;
  int radius_ = 0;
  float centreXf_ = 0;
  float centreYf_ = 0;
  float radiusf_ = 0;
  double tolerance_ = 0.15;
  double expectedArea_ = 0;
  double bwConstant_ = 0;
  double measuredRatio_ = 0;
  long black_ = 0;
  long white_ = 0;
};

}  // namespace SensorCalibration
