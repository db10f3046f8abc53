// Finding people in a picture. A calibration wants pictures of an empty scene;
// the image selection uses a person detector to reject frames where someone
// walks through. Backends: OpenCV's HOG people detector (no downloaded files
// needed), the Haar full-body cascade, and two COCO networks through OpenCV's
// dnn module (Darknet YOLOv3-SPP, TensorFlow Mask R-CNN).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>
#include <opencv2/core/types.hpp>

#include "orbivane/export.h"
#include "orbivane/utils/return_state.h"

namespace OrbivaneCalibration {

// The class name a person detection goes by ("Person").
ORBIVANE_EXPORT extern const char* const kPersonClassName;

enum class PersonDetectorKind { Auto, Hog, HaarFullBody, Yolo, MaskRcnn };

// "auto", "hog", "haar", "yolo", "maskrcnn" (exactly these lower-case words)
// to the kind; anything else gives an error naming the accepted words.
ORBIVANE_EXPORT Utils::ReturnState<PersonDetectorKind, std::string> parsePersonDetectorKind(const std::string& text);
// The word parsePersonDetectorKind reads back to `kind`.
ORBIVANE_EXPORT std::string personDetectorKindName(PersonDetectorKind kind);

struct PersonDetectorOptions {
  PersonDetectorKind kind = PersonDetectorKind::Auto;
  // Darknet YOLOv3-SPP files. They are looked for in this order, the first
  // place where both files exist wins:
  //   1. yoloConfig and yoloWeights as given (skipped when either is empty),
  //   2. "yolov3-spp.cfg" and "yolov3-spp.weights" inside yoloDirectory,
  //   3. the same two names inside the folder of the environment variable
  //      ORBIVANE_DARKNET_DIR.
  std::string yoloConfig = "F:/Darknet/cfg/yolov3-spp.cfg";
  std::string yoloWeights = "F:/Darknet/yolov3-spp.weights";
  std::string yoloDirectory;
  std::string maskRcnnModel;   // TensorFlow frozen graph (.pb)
  std::string maskRcnnConfig;  // its text graph (.pbtxt)
  std::string haarCascade;     // empty: /usr/share/opencv4/haarcascades/haarcascade_fullbody.xml (opencv-data)
  float confidence = 0.5f;     // network score threshold, 0..1 (YOLO and Mask R-CNN only)
  int minPersonHeight = 0;     // pixels; detections whose box is lower are ignored (0: no limit)
};

struct PersonDetection {
  cv::Rect box;  // in picture pixels, clipped to the picture
  // 0..1, larger is surer. Networks: their class score. HOG: the logistic of
  // the SVM margin (always above 0.5). Haar: n / (n + 3) for n merged hits.
  float confidence = 0;
};

class ORBIVANE_EXPORT PersonDetector {
 public:
  virtual ~PersonDetector();

  // Persons in a BGR (CV_8UC3), grey (CV_8UC1) or BGRA (CV_8UC4, alpha
  // ignored) picture, surest first, overlapping boxes merged. Throws
  // std::invalid_argument for an empty picture or any other type. One detector
  // must not be used from two threads at once.
  virtual std::vector<PersonDetection> detect(const cv::Mat& picture) = 0;
  virtual PersonDetectorKind kind() const = 0;
  // What runs, e.g. "HOG people detector (OpenCV default)".
  virtual std::string description() const = 0;

  // Auto: Mask R-CNN when both of its files are given and exist, else YOLO
  // when both Darknet files are found (see PersonDetectorOptions), else HOG.
  // A chosen network whose files are missing, unreadable or not a usable
  // person detector gives an error naming the file and the problem; so does
  // a confidence outside 0..1 or a negative minPersonHeight. Logs one line
  // saying which detector is in use (logger "SmartFinder").
  static Utils::ReturnState<std::unique_ptr<PersonDetector>, std::string> create(const PersonDetectorOptions& options);
};

}  // namespace OrbivaneCalibration
