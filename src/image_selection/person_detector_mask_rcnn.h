// TensorFlow Mask R-CNN (COCO) through OpenCV's dnn module; only its boxes are
// used, the masks are not computed.
#pragma once

#include <string>

#include <opencv2/dnn.hpp>

#include "orbivane/image_selection/person_detector.h"

namespace OrbivaneCalibration {

class MaskRcnnPersonDetector : public PersonDetector {
 public:
  static constexpr int kPersonClass_ = 0;  // COCO "person" in the usual mask_rcnn_inception_v2_coco text graph

  static Utils::ReturnState<std::unique_ptr<PersonDetector>, std::string> load(const std::string& model,
                                                                               const std::string& config,
                                                                               float confidence, int minPersonHeight);

  std::vector<PersonDetection> detect(const cv::Mat& picture) override;
  PersonDetectorKind kind() const override { return PersonDetectorKind::MaskRcnn; }
  std::string description() const override;

 private:
  MaskRcnnPersonDetector(cv::dnn::Net net, std::string model, float confidence, int minPersonHeight);

  cv::dnn::Net net_;
  std::string model_;
  float confidence_;
  int minPersonHeight_;
};

}  // namespace OrbivaneCalibration
