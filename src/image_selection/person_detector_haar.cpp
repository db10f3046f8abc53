// The Haar full-body cascade on the equalised grey picture.
#include "image_selection/person_detector_haar.h"

#include <opencv2/imgproc.hpp>

#include "image_selection/person_detector_support.h"

namespace OrbivaneCalibration {
namespace {

constexpr double kPyramidStep = 1.05;  // ratio between the searched window sizes
constexpr int kMinNeighbours = 3;      // hits a group of windows needs to count

}  // namespace

Utils::ReturnState<std::unique_ptr<PersonDetector>, std::string> HaarPersonDetector::load(
    const std::string& cascadeFile, int minPersonHeight) {
  const std::string file = cascadeFile.empty() ? std::string(kDefaultCascade_) : cascadeFile;
  const std::string problem = personFileProblem(file);
  if (!problem.empty()) {
    return Utils::failure("Haar person detector: the cascade file " + file + " " + problem +
                          (cascadeFile.empty() ? " (Debian package opencv-data)" : ""));
  }
  cv::CascadeClassifier cascade;
  try {
    if (!cascade.load(file) || cascade.empty()) {
      return Utils::failure("Haar person detector: " + file + " is not a readable OpenCV cascade");
    }
  } catch (const cv::Exception& e) {
    return Utils::failure("Haar person detector: " + file + " is not a readable OpenCV cascade: " + e.what());
  }
  return std::unique_ptr<PersonDetector>(new HaarPersonDetector(std::move(cascade), file, minPersonHeight));
}

HaarPersonDetector::HaarPersonDetector(cv::CascadeClassifier cascade, std::string file, int minPersonHeight)
    : cascade_(std::move(cascade)), file_(std::move(file)), minPersonHeight_(minPersonHeight) {}

std::string HaarPersonDetector::description() const { return "Haar full-body cascade (" + file_ + ")"; }

std::vector<PersonDetection> HaarPersonDetector::detect(const cv::Mat& picture) {
  const cv::Mat grey = personPictureAsGrey(picture, "Haar person detector");
  cv::Mat equalised;
  cv::equalizeHist(grey, equalised);
  std::vector<cv::Rect> boxes;
  std::vector<int> hits;
  const cv::Size minSize = minPersonHeight_ > 0 ? cv::Size(minPersonHeight_ / 2, minPersonHeight_) : cv::Size();
  cascade_.detectMultiScale(equalised, boxes, hits, kPyramidStep, kMinNeighbours, 0, minSize);
  std::vector<PersonDetection> detections;
  for (std::size_t i = 0; i < boxes.size(); ++i) {
    const double n = i < hits.size() ? hits[i] : kMinNeighbours;
    detections.push_back({boxes[i], static_cast<float>(n / (n + kMinNeighbours))});
  }
  return finishPersonDetections(suppressOverlappingPersons(std::move(detections), 0.45, 0.7), grey.size(),
                                minPersonHeight_);
}

}  // namespace OrbivaneCalibration
