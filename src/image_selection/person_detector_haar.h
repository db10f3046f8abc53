// The Haar full-body cascade (Debian's opencv-data), for comparison with HOG.
#pragma once

#include <opencv2/objdetect.hpp>

#include "orbivane/image_selection/person_detector.h"

namespace OrbivaneCalibration {

class HaarPersonDetector : public PersonDetector {
 public:
  static constexpr const char* kDefaultCascade_ = "/usr/share/opencv4/haarcascades/haarcascade_fullbody.xml";

  // Loads the cascade file; an error names the file and the problem.
  static Utils::ReturnState<std::unique_ptr<PersonDetector>, std::string> load(const std::string& cascadeFile,
                                                                               int minPersonHeight);

  std::vector<PersonDetection> detect(const cv::Mat& picture) override;
  PersonDetectorKind kind() const override { return PersonDetectorKind::HaarFullBody; }
  std::string description() const override;

 private:
  HaarPersonDetector(cv::CascadeClassifier cascade, std::string file, int minPersonHeight);

  cv::CascadeClassifier cascade_;
  std::string file_;
  int minPersonHeight_;
};

}  // namespace OrbivaneCalibration
