// The HOG people detector, tuned on the walkers of vtest.avi (768x576): the
// search runs on the grey picture (the colour gradient gives the same hits on
// walkers and costs a third more), enlarged so that persons from about 60 px
// fill the detection window. On enlarged levels HOG also fires on small
// structures of the empty scene (the front of the parked van in vtest.avi,
// boxes of 83..97 px with SVM margins 0.3..1.0 from 1.3x on, while walkers
// with boxes of that size score a median of 1.9), so the small boxes must be
// surer. The picture's left and right sides are continued by their mirror
// image: half a person at the side plus its mirror looks like a person to
// HOG. Measured on every tenth frame of vtest.avi (person_detector_benchmark)
// against the search at 750 rows without mirrored sides: walkers of 55..79 px
// found 124 of 140 (105), of 80 px and more 189 of 196 (189), walkers cut 40 %
// by a side 224 of 304 (27); 1 of 80 frames with their people painted out
// gives a box, on a remnant of a person (0); 200 ms a frame instead of 133.
#include "image_selection/person_detector_hog.h"

#include <algorithm>
#include <cmath>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "image_selection/person_detector_support.h"

namespace OrbivaneCalibration {
namespace {

constexpr double kPyramidStep = 1.1;      // ratio between the searched window sizes
constexpr int kWindowStride = 8;          // pixels between tested windows, in the work picture
constexpr int kPadding = 8;               // rows of border OpenCV adds above and below the work picture
constexpr double kGroupThreshold = 2;     // hits a group of windows needs to count
constexpr double kMaxOverlap = 0.45;      // intersection over union above which boxes merge
constexpr double kMaxContained = 0.7;     // share of the smaller box inside the other above which boxes merge
constexpr double kWindowPersonRows = 96;  // rows of the 128-row window a person fills
constexpr double kMinVisibleWidth = 0.35; // share of a box's width that must lie inside the picture

}  // namespace

HogPersonDetector::HogPersonDetector(int minPersonHeight) : minPersonHeight_(minPersonHeight) {
  hog_.setSVMDetector(cv::HOGDescriptor::getDefaultPeopleDetector());
}

double HogPersonDetector::workScale(int rows, int minPersonHeight) {
  double scale = std::max(std::clamp(kWorkRows_ / std::max(rows, 1), 1.0, kMaxUpscale_),
                          kWindowPersonRows / kSmallestPerson_);
  if (minPersonHeight > 0) scale = std::min(scale, 128.0 / minPersonHeight);
  return scale;
}

std::string HogPersonDetector::description() const {
  return "HOG people detector (OpenCV default, grey, persons from 60 px, mirrored sides)";
}

std::vector<PersonDetection> HogPersonDetector::detect(const cv::Mat& picture) {
  const cv::Mat grey = personPictureAsGrey(picture, "HOG person detector");
  const double scale = workScale(grey.rows, minPersonHeight_);
  cv::Mat work = grey;
  if (scale != 1.0) {
    cv::resize(grey, work, cv::Size(), scale, scale, scale > 1 ? cv::INTER_LINEAR : cv::INTER_AREA);
  }
  if (work.cols < hog_.winSize.width / 2 || work.rows < hog_.winSize.height) return {};
  // Mirrored sides (a picture narrower than the padding is mirrored as far as it goes).
  const int side = std::min(kSidePadding_, work.cols - 1);
  cv::Mat padded;
  cv::copyMakeBorder(work, padded, 0, 0, side, side, cv::BORDER_REFLECT);

  std::vector<cv::Rect> boxes;
  std::vector<double> weights;
  hog_.detectMultiScale(padded, boxes, weights, 0.0, cv::Size(kWindowStride, kWindowStride), cv::Size(0, kPadding),
                        kPyramidStep, kGroupThreshold);
  const cv::Rect frame(0, 0, grey.cols, grey.rows);
  std::vector<PersonDetection> detections;
  for (std::size_t i = 0; i < boxes.size(); ++i) {
    const cv::Rect& b = boxes[i];
    const int x0 = static_cast<int>(std::lround((b.x - side) / scale));
    const int y0 = static_cast<int>(std::lround(b.y / scale));
    const int x1 = static_cast<int>(std::lround((b.x - side + b.width) / scale));
    const int y1 = static_cast<int>(std::lround((b.y + b.height) / scale));
    const cv::Rect box(x0, y0, x1 - x0, y1 - y0);
    const double margin = i < weights.size() ? weights[i] : 0.0;
    if (box.height < kSmallBoxHeight_ && margin < kSmallBoxMargin_) continue;
    // Mostly in the mirror: the mirror image of a person who is found inside too.
    if ((box & frame).width < kMinVisibleWidth * box.width) continue;
    PersonDetection d;
    d.box = box & frame;
    d.confidence = static_cast<float>(1.0 / (1.0 + std::exp(-margin)));
    detections.push_back(d);
  }
  return finishPersonDetections(suppressOverlappingPersons(std::move(detections), kMaxOverlap, kMaxContained),
                                grey.size(), minPersonHeight_);
}

}  // namespace OrbivaneCalibration
