// Measuring and drawing the overlap of two neighbouring pictures (left's
// right edge against right's left edge), on OpenCV matrices.
#pragma once

#include <string>

#include <opencv2/core.hpp>

#include "orbivane/sensor_calibration/sensor_shifter.h"
#include "orbivane/utils/return_state.h"

namespace SensorCalibration {

// Grey 8-bit copy of a BGR, BGRA or grey picture (8 or 16 bits).
cv::Mat greyOf(const cv::Mat& picture);

// The right picture's left strip (full width of the strip inside the overlap,
// rows less a margin for the vertical search) is matched (normalised
// correlation coefficient) against the right `searchShare` of the left
// picture; the peak is refined to sub-pixel by a parabola through its
// neighbours in x and in y.
Utils::ReturnState<SensorShifter::OverlapMeasurement, std::string> measureOverlapOf(const cv::Mat& left,
                                                                                    const cv::Mat& right,
                                                                                    double searchShare,
                                                                                    double minScore);

// The inspection picture of SensorShifter::overlapImg (BGR 8-bit).
cv::Mat drawOverlap(const cv::Mat& left, const cv::Mat& right, const SensorShifter::OverlapMeasurement& m,
                    double wantedPixels);

}  // namespace SensorCalibration
