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
  // `rows` rows: at least so much that a person kSmallestPerson_ pixels tall
  // fills the 64x128 detection window (a person is about 96 of its 128
  // rows), and at least so much that the picture has about kWorkRows_ rows
  // (never shrunk, grown at most kMaxUpscale_ times). With a minimum person
  // height the factor is at most 128 / minPersonHeight: smaller people need
  // not be found, so a large picture may be shrunk.
  static double workScale(int rows, int minPersonHeight);

  static constexpr double kWorkRows_ = 750;
  static constexpr double kMaxUpscale_ = 3;
  static constexpr double kSmallestPerson_ = 60;  // pixels of the picture
  // Columns of mirrored picture added on the left and right of the work
  // picture, so that a person cut by the picture's side still fills a window.
  static constexpr int kSidePadding_ = 48;
  // Boxes lower than this (pixels of the picture) come from levels enlarged
  // more than 128/112, where HOG also sees persons in small structures of
  // the empty scene (the front of a parked van); they count only with an SVM
  // margin of at least kSmallBoxMargin_.
  static constexpr int kSmallBoxHeight_ = 112;
  static constexpr double kSmallBoxMargin_ = 1.2;

 private:
  cv::HOGDescriptor hog_;
  int minPersonHeight_;
};

}  // namespace OrbivaneCalibration
