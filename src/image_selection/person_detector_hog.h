// OpenCV's HOG people detector (Dalal-Triggs SVM of OpenCV's default model):
// needs no downloaded files.
#pragma once

#include <opencv2/objdetect.hpp>

#include "orbivane/image_selection/person_detector.h"

namespace OrbivaneCalibration {

class HogPersonDetector : public PersonDetector {
 public:
  explicit HogPersonDetector(int minPersonHeight);

  std::vector<PersonDetection> detect(const cv::Mat& picture) override;
  PersonDetectorKind kind() const override { return PersonDetectorKind::Hog; }
  std::string description() const override;

  // The factor the picture is resized by before the search, for a picture of
  // `rows` rows: pictures are brought to kWorkRows_ rows (never shrunk, grown
  // at most kMaxUpscale_ times), so that walkers from about 75 px height in a
  // 576-row picture fill the 64x128 detection window. With a minimum person
  // height the factor is at most 128 / minPersonHeight: smaller people need
  // not be found, so a large picture may be shrunk.
  static double workScale(int rows, int minPersonHeight);

  static constexpr double kWorkRows_ = 750;
  static constexpr double kMaxUpscale_ = 3;

 private:
  cv::HOGDescriptor hog_;
  int minPersonHeight_;
};

}  // namespace OrbivaneCalibration
