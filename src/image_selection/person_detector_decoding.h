// Network outputs to person detections: the YOLO region layer's rows and the
// DetectionOutput blob of Mask R-CNN (and other TensorFlow detection graphs).
#pragma once

#include <vector>

#include <opencv2/core/mat.hpp>

#include "orbivane/image_selection/person_detector.h"

namespace OrbivaneCalibration {

// YOLO region outputs (one row per candidate: centre x, centre y, width,
// height relative to the picture, objectness, then one score per class with
// the objectness already applied) to persons (class 0) of a picture of
// `size`: rows whose person score is at least `confidence` (and above 0),
// overlapping boxes merged.
std::vector<PersonDetection> decodeYoloPersons(const std::vector<cv::Mat>& outputs, cv::Size size, float confidence);

// A DetectionOutput blob (1 x 1 x N x 7: image id, class id, score, left,
// top, right, bottom relative to the picture) to detections of `classId` in
// a picture of `size` scoring at least `confidence` (and above 0).
std::vector<PersonDetection> decodeDetectionOutputPersons(const cv::Mat& blob, cv::Size size, float confidence,
                                                          int classId);

}  // namespace OrbivaneCalibration
