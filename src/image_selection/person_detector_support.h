// Shared inside of the person detector backends: checking and converting the
// input picture, merging overlapping boxes, and file checks.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "orbivane/image_selection/person_detector.h"

namespace OrbivaneCalibration {

// The picture as 3-channel BGR / as grey. Accepts CV_8UC1, CV_8UC3 (BGR) and
// CV_8UC4 (BGRA); a picture of the asked layout is returned without copying.
// Throws std::invalid_argument naming `who` for an empty picture or another type.
cv::Mat personPictureAsBgr(const cv::Mat& picture, const char* who);
cv::Mat personPictureAsGrey(const cv::Mat& picture, const char* who);

// Greedy merge, surest first: a box is dropped when its intersection over
// union with a kept box exceeds `maxOverlap`, or when more than
// `maxContained` of the smaller box's area lies inside a kept box.
std::vector<PersonDetection> suppressOverlappingPersons(std::vector<PersonDetection> detections, double maxOverlap,
                                                        double maxContained);

// Clips the boxes to a picture of `size`, drops empty ones and those lower
// than `minHeight` pixels (0: none dropped), and sorts the rest surest first.
std::vector<PersonDetection> finishPersonDetections(std::vector<PersonDetection> detections, cv::Size size,
                                                    int minHeight);

// Empty when `path` names a readable, non-empty regular file; otherwise what
// is wrong with it ("does not exist", "is a folder", "is empty", ...).
std::string personFileProblem(const std::string& path);

}  // namespace OrbivaneCalibration
