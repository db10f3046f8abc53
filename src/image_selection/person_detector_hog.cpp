// The HOG people detector, tuned on walkers of 60..200 px in 768x576 frames.
// The search runs on the grey picture (the colour gradient gives the same
// hits on walkers and costs a third more), enlarged to about 750 rows: at the
// original size walkers under about 95 px are missed, while enlarging much
// further (1.4x and more on 576 rows) lets a parked van's front pass as a
// person on every frame, which would reject every empty scene.
#include "image_selection/person_detector_hog.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

#include "image_selection/person_detector_support.h"

namespace OrbivaneCalibration {
namespace {

constexpr double kPyramidStep = 1.1;      // ratio between the searched window sizes
constexpr int kWindowStride = 8;          // pixels between tested windows, in the work picture
constexpr int kPadding = 8;               // pixels of border added around the work picture
constexpr double kGroupThreshold = 2;     // hits a group of windows needs to count
constexpr double kMaxOverlap = 0.45;      // intersection over union above which boxes merge
constexpr double kMaxContained = 0.7;     // share of the smaller box inside the other above which boxes merge

}  // namespace

HogPersonDetector::HogPersonDetector(int minPersonHeight) : minPersonHeight_(minPersonHeight) {
  hog_.setSVMDetector(cv::HOGDescriptor::getDefaultPeopleDetector());
}

double HogPersonDetector::workScale(int rows, int minPersonHeight) {
  double scale = std::clamp(kWorkRows_ / std::max(rows, 1), 1.0, kMaxUpscale_);
  if (minPersonHeight > 0) scale = std::min(scale, 128.0 / minPersonHeight);
  return scale;
}

std::string HogPersonDetector::description() const {
  return "HOG people detector (OpenCV default, grey, pictures brought to 750 rows)";
}

std::vector<PersonDetection> HogPersonDetector::detect(const cv::Mat& picture) {
  const cv::Mat grey = personPictureAsGrey(picture, "HOG person detector");
  const double scale = workScale(grey.rows, minPersonHeight_);
  cv::Mat work = grey;
  if (scale != 1.0) {
    cv::resize(grey, work, cv::Size(), scale, scale, scale > 1 ? cv::INTER_LINEAR : cv::INTER_AREA);
  }
  if (work.cols < hog_.winSize.width || work.rows < hog_.winSize.height) return {};

  std::vector<cv::Rect> boxes;
  std::vector<double> weights;
  hog_.detectMultiScale(work, boxes, weights, 0.0, cv::Size(kWindowStride, kWindowStride),
                        cv::Size(kPadding, kPadding), kPyramidStep, kGroupThreshold);
  std::vector<PersonDetection> detections;
  for (std::size_t i = 0; i < boxes.size(); ++i) {
    const cv::Rect& b = boxes[i];
    PersonDetection d;
    const int x0 = static_cast<int>(std::lround(b.x / scale));
    const int y0 = static_cast<int>(std::lround(b.y / scale));
    const int x1 = static_cast<int>(std::lround((b.x + b.width) / scale));
    const int y1 = static_cast<int>(std::lround((b.y + b.height) / scale));
    d.box = cv::Rect(x0, y0, x1 - x0, y1 - y0);
    const double margin = i < weights.size() ? weights[i] : 0.0;
    d.confidence = static_cast<float>(1.0 / (1.0 + std::exp(-margin)));
    detections.push_back(d);
  }
  return finishPersonDetections(suppressOverlappingPersons(std::move(detections), kMaxOverlap, kMaxContained),
                                grey.size(), minPersonHeight_);
}

}  // namespace OrbivaneCalibration
