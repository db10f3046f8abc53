// Darknet YOLOv3-SPP (COCO) through OpenCV's dnn module, and where its files
// are looked for.
#pragma once

#include <string>
#include <vector>

#include <opencv2/dnn.hpp>

#include "orbivane/image_selection/person_detector.h"

namespace OrbivaneCalibration {

struct DarknetFiles {
  std::string config;
  std::string weights;
};

// The first place with both Darknet files, in the order documented at
// PersonDetectorOptions (`environmentDirectory` is ORBIVANE_DARKNET_DIR's
// value, empty when unset); otherwise an error listing every place tried and
// what was wrong there.
Utils::ReturnState<DarknetFiles, std::string> findDarknetFiles(const PersonDetectorOptions& options,
                                                               const std::string& environmentDirectory);

class YoloPersonDetector : public PersonDetector {
 public:
  static constexpr int kInputSize_ = 416;  // network input, pixels a side

  // Reads and checks the network (one trial run on a blank picture); an
  // error names the file and the problem.
  static Utils::ReturnState<std::unique_ptr<PersonDetector>, std::string> load(const DarknetFiles& files,
                                                                               float confidence, int minPersonHeight);

  std::vector<PersonDetection> detect(const cv::Mat& picture) override;
  PersonDetectorKind kind() const override { return PersonDetectorKind::Yolo; }
  std::string description() const override;

 private:
  YoloPersonDetector(cv::dnn::Net net, DarknetFiles files, float confidence, int minPersonHeight);
  std::vector<cv::Mat> run(const cv::Mat& bgr);

  cv::dnn::Net net_;
  std::vector<std::string> outputs_;
  DarknetFiles files_;
  float confidence_;
  int minPersonHeight_;
};

}  // namespace OrbivaneCalibration
