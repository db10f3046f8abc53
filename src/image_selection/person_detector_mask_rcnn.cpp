// TensorFlow Mask R-CNN: reading and checking the graph, and running it up to
// its box output.
#include "image_selection/person_detector_mask_rcnn.h"

#include "image_selection/person_detector_decoding.h"
#include "image_selection/person_detector_support.h"

namespace OrbivaneCalibration {
namespace {

constexpr const char* kBoxOutput = "detection_out_final";

}  // namespace

Utils::ReturnState<std::unique_ptr<PersonDetector>, std::string> MaskRcnnPersonDetector::load(
    const std::string& model, const std::string& config, float confidence, int minPersonHeight) {
  const std::pair<const char*, const std::string*> files[] = {{"frozen graph", &model}, {"text graph", &config}};
  for (const auto& [what, file] : files) {
    const std::string problem = personFileProblem(*file);
    if (!problem.empty()) {
      return Utils::failure(std::string("Mask R-CNN person detector: the ") + what + " " +
                            (file->empty() ? std::string("was not given") : *file + " " + problem));
    }
  }
  cv::dnn::Net net;
  try {
    net = cv::dnn::readNetFromTensorflow(model, config);
  } catch (const cv::Exception& e) {
    // OpenCV names the reader that failed: the binary one reads the frozen graph.
    std::string culprit = model + " / " + config;
    if (e.err.find("ReadProtoFromBinaryFile") != std::string::npos) culprit = model + " (frozen graph)";
    if (e.err.find("ReadProtoFromTextFile") != std::string::npos) culprit = config + " (text graph)";
    return Utils::failure("Mask R-CNN person detector: cannot read " + culprit + ": " + e.err);
  }
  if (net.empty()) return Utils::failure("Mask R-CNN person detector: " + config + " describes no layers");
  if (net.getLayerId(kBoxOutput) < 0) {
    return Utils::failure("Mask R-CNN person detector: " + config + " has no layer \"" + kBoxOutput +
                          "\"; it is not a Mask R-CNN text graph");
  }
  return std::unique_ptr<PersonDetector>(new MaskRcnnPersonDetector(std::move(net), model, confidence, minPersonHeight));
}

MaskRcnnPersonDetector::MaskRcnnPersonDetector(cv::dnn::Net net, std::string model, float confidence,
                                               int minPersonHeight)
    : net_(std::move(net)), model_(std::move(model)), confidence_(confidence), minPersonHeight_(minPersonHeight) {}

std::string MaskRcnnPersonDetector::description() const { return "Mask R-CNN (TensorFlow, " + model_ + ")"; }

std::vector<PersonDetection> MaskRcnnPersonDetector::detect(const cv::Mat& picture) {
  const cv::Mat bgr = personPictureAsBgr(picture, "Mask R-CNN person detector");
  net_.setInput(cv::dnn::blobFromImage(bgr, 1.0, bgr.size(), cv::Scalar(), true, false));
  const cv::Mat boxes = net_.forward(kBoxOutput);
  return finishPersonDetections(decodeDetectionOutputPersons(boxes, bgr.size(), confidence_, kPersonClass_),
                                bgr.size(), minPersonHeight_);
}

}  // namespace OrbivaneCalibration
