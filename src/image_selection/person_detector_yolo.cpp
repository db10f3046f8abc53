// Darknet YOLOv3-SPP: finding and checking its files, and running it.
#include "image_selection/person_detector_yolo.h"

#include <sys/stat.h>

#include "image_selection/person_detector_decoding.h"
#include "image_selection/person_detector_support.h"

namespace OrbivaneCalibration {
namespace {

constexpr const char* kConfigName = "yolov3-spp.cfg";
constexpr const char* kWeightsName = "yolov3-spp.weights";
constexpr long long kMinWeightsHeader = 12;  // bytes before the weights: version (3 x int32) and a seen count

std::string inFolder(const std::string& folder, const std::string& name) {
  if (folder.empty() || folder.back() == '/') return folder + name;
  return folder + "/" + name;
}

long long fileSize(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? static_cast<long long>(status.st_size) : -1;
}

// The number of values the weights file holds for the loaded network: every
// value read ends up in a blob of a convolution or batch normalisation layer;
// the YOLO output layers keep their anchors from the layout.
long long parameterCount(cv::dnn::Net& net) {
  long long count = 0;
  for (const std::string& name : net.getLayerNames()) {
    const cv::Ptr<cv::dnn::Layer> layer = net.getLayer(net.getLayerId(name));
    if (layer->type == "Region") continue;
    for (const cv::Mat& blob : layer->blobs) count += static_cast<long long>(blob.total());
  }
  return count;
}

}  // namespace

Utils::ReturnState<DarknetFiles, std::string> findDarknetFiles(const PersonDetectorOptions& options,
                                                               const std::string& environmentDirectory) {
  std::vector<DarknetFiles> places;
  if (!options.yoloConfig.empty() && !options.yoloWeights.empty()) {
    places.push_back({options.yoloConfig, options.yoloWeights});
  }
  for (const std::string& folder : {options.yoloDirectory, environmentDirectory}) {
    if (!folder.empty()) places.push_back({inFolder(folder, kConfigName), inFolder(folder, kWeightsName)});
  }
  if (places.empty()) return Utils::failure("YOLO person detector: no Darknet files or folder were given");
  std::string tried;
  for (const DarknetFiles& place : places) {
    const std::string configProblem = personFileProblem(place.config);
    const std::string weightsProblem = personFileProblem(place.weights);
    if (configProblem.empty() && weightsProblem.empty()) return place;
    tried += tried.empty() ? "" : "; ";
    tried += place.config + (configProblem.empty() ? " is there" : " " + configProblem) + ", " + place.weights +
             (weightsProblem.empty() ? " is there" : " " + weightsProblem);
  }
  return Utils::failure("YOLO person detector: the Darknet files were not found: " + tried);
}

Utils::ReturnState<std::unique_ptr<PersonDetector>, std::string> YoloPersonDetector::load(const DarknetFiles& files,
                                                                                          float confidence,
                                                                                          int minPersonHeight) {
  for (const std::string& file : {files.config, files.weights}) {
    const std::string problem = personFileProblem(file);
    if (!problem.empty()) return Utils::failure("YOLO person detector: " + file + " " + problem);
  }
  // The layout alone first, so that a broken layout is told apart from broken weights.
  try {
    if (cv::dnn::readNetFromDarknet(files.config).empty()) {
      return Utils::failure("YOLO person detector: " + files.config + " describes no layers");
    }
  } catch (const cv::Exception& e) {
    return Utils::failure("YOLO person detector: " + files.config + " is not a usable Darknet layout: " + e.err);
  }
  cv::dnn::Net net;
  try {
    net = cv::dnn::readNetFromDarknet(files.config, files.weights);
  } catch (const cv::Exception& e) {
    return Utils::failure("YOLO person detector: " + files.weights + " does not fit " + files.config + ": " + e.err);
  }
  // OpenCV reads a short weights file without complaint (the rest stays undefined).
  const long long needed = kMinWeightsHeader + 4 * parameterCount(net);
  const long long size = fileSize(files.weights);
  if (size < needed) {
    return Utils::failure("YOLO person detector: " + files.weights + " is too short for " + files.config + ": " +
                          std::to_string(size) + " bytes, the layout needs at least " + std::to_string(needed));
  }
  bool hasRegion = false;
  for (int id : net.getUnconnectedOutLayers()) hasRegion = hasRegion || net.getLayer(id)->type == "Region";
  if (!hasRegion) {
    return Utils::failure("YOLO person detector: " + files.config + " has no [yolo] output layer");
  }
  std::unique_ptr<YoloPersonDetector> detector(
      new YoloPersonDetector(std::move(net), files, confidence, minPersonHeight));
  try {
    const std::vector<cv::Mat> outputs = detector->run(cv::Mat(kInputSize_, kInputSize_, CV_8UC3, cv::Scalar::all(0)));
    for (const cv::Mat& output : outputs) {
      if (output.dims != 2 || output.cols < 6) {
        return Utils::failure("YOLO person detector: " + files.config +
                              " gives outputs that are not YOLO detections (a row needs box, objectness and classes)");
      }
    }
  } catch (const cv::Exception& e) {
    return Utils::failure("YOLO person detector: the network of " + files.config + " does not run: " + e.err);
  }
  return std::unique_ptr<PersonDetector>(std::move(detector));
}

YoloPersonDetector::YoloPersonDetector(cv::dnn::Net net, DarknetFiles files, float confidence, int minPersonHeight)
    : net_(std::move(net)),
      outputs_(net_.getUnconnectedOutLayersNames()),
      files_(std::move(files)),
      confidence_(confidence),
      minPersonHeight_(minPersonHeight) {}

std::string YoloPersonDetector::description() const {
  return "YOLO (Darknet, " + files_.config + ", " + std::to_string(kInputSize_) + "x" + std::to_string(kInputSize_) +
         ")";
}

std::vector<cv::Mat> YoloPersonDetector::run(const cv::Mat& bgr) {
  net_.setInput(cv::dnn::blobFromImage(bgr, 1.0 / 255.0, cv::Size(kInputSize_, kInputSize_), cv::Scalar(), true, false));
  std::vector<cv::Mat> outputs;
  net_.forward(outputs, outputs_);
  return outputs;
}

std::vector<PersonDetection> YoloPersonDetector::detect(const cv::Mat& picture) {
  const cv::Mat bgr = personPictureAsBgr(picture, "YOLO person detector");
  return finishPersonDetections(decodeYoloPersons(run(bgr), bgr.size(), confidence_), bgr.size(), minPersonHeight_);
}

}  // namespace OrbivaneCalibration
