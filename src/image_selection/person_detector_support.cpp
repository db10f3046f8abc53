// Input checks, box merging and file checks shared by the person detectors.
#include "image_selection/person_detector_support.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <sys/stat.h>

#include <opencv2/imgproc.hpp>

namespace OrbivaneCalibration {
namespace {

void checkPicture(const cv::Mat& picture, const char* who) {
  if (picture.empty()) throw std::invalid_argument(std::string(who) + ": the picture is empty");
  const int type = picture.type();
  if (type != CV_8UC1 && type != CV_8UC3 && type != CV_8UC4) {
    throw std::invalid_argument(std::string(who) + ": the picture must be 8-bit grey, BGR or BGRA, not " +
                                cv::typeToString(type));
  }
}

}  // namespace

cv::Mat personPictureAsBgr(const cv::Mat& picture, const char* who) {
  checkPicture(picture, who);
  if (picture.type() == CV_8UC3) return picture;
  cv::Mat bgr;
  cv::cvtColor(picture, bgr, picture.type() == CV_8UC1 ? cv::COLOR_GRAY2BGR : cv::COLOR_BGRA2BGR);
  return bgr;
}

cv::Mat personPictureAsGrey(const cv::Mat& picture, const char* who) {
  checkPicture(picture, who);
  if (picture.type() == CV_8UC1) return picture;
  cv::Mat grey;
  cv::cvtColor(picture, grey, picture.type() == CV_8UC3 ? cv::COLOR_BGR2GRAY : cv::COLOR_BGRA2GRAY);
  return grey;
}

std::vector<PersonDetection> suppressOverlappingPersons(std::vector<PersonDetection> detections, double maxOverlap,
                                                        double maxContained) {
  std::stable_sort(detections.begin(), detections.end(),
                   [](const PersonDetection& a, const PersonDetection& b) { return a.confidence > b.confidence; });
  std::vector<PersonDetection> kept;
  for (const PersonDetection& candidate : detections) {
    const double area = candidate.box.area();
    bool keep = area > 0;
    for (const PersonDetection& other : kept) {
      if (!keep) break;
      const double common = (candidate.box & other.box).area();
      const double united = area + other.box.area() - common;
      const double smaller = std::min<double>(area, other.box.area());
      if (common > maxOverlap * united || common > maxContained * smaller) keep = false;
    }
    if (keep) kept.push_back(candidate);
  }
  return kept;
}

std::vector<PersonDetection> finishPersonDetections(std::vector<PersonDetection> detections, cv::Size size,
                                                    int minHeight) {
  std::vector<PersonDetection> result;
  const cv::Rect frame(0, 0, size.width, size.height);
  for (PersonDetection detection : detections) {
    detection.box &= frame;
    if (detection.box.empty() || detection.box.height < minHeight) continue;
    result.push_back(detection);
  }
  std::stable_sort(result.begin(), result.end(),
                   [](const PersonDetection& a, const PersonDetection& b) { return a.confidence > b.confidence; });
  return result;
}

std::string personFileProblem(const std::string& path) {
  if (path.empty()) return "no file name was given";
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return "does not exist";
  if (S_ISDIR(status.st_mode)) return "is a folder, not a file";
  if (!S_ISREG(status.st_mode)) return "is not a regular file";
  if (status.st_size == 0) return "is empty";
  std::ifstream probe(path, std::ios::binary);
  if (!probe) return "cannot be opened for reading";
  return {};
}

}  // namespace OrbivaneCalibration
