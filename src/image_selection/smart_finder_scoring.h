// The measurements and the picking rule of the frame finder: exposure of a
// picture, the temporal median background of several frames, and which
// sampled frames become a module's moments.
#pragma once

#include <cstddef>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "orbivane/image_selection/smart_finder_image.h"

namespace OrbivaneCalibration {

struct ExposureMeasure {
  double brightness = 0.0;  // mean grey level, 0..255
  double clipped = 0.0;     // share of pixels <= 5 or >= 250
  double exposure = 0.0;    // 0..1, 1 - |brightness - 128| / 128 - 2 x clipped, at least 0
};

// Exposure of a BGR or grey 8-bit picture; an empty picture measures 0.
ExposureMeasure measureExposure(const cv::Mat& picture);

// The share of pixels (0..1) whose grey level differs by more than 35
// between two frames of one size, both reduced by 4 with area averaging and
// the second brought to the first's mean grey level (a change of exposure is
// not motion); 1 for frames of different sizes, 0 for empty ones.
double measureMotion(const cv::Mat& frame, const cv::Mat& other);

// The per-pixel, per-channel median of frames of one size and type (8 bits,
// 1 to 4 channels); for an even count the lower of the two middle values.
// Throws std::invalid_argument for no frames or frames that differ in size
// or type.
cv::Mat temporalMedian(const std::vector<cv::Mat>& frames);

// Whether a measured frame is free: no person detected, motion at most
// maxMotion and, when its foreground was measured, at most maxForeground of
// foreground and no person-sized foreground blob.
bool frameIsFree(const SmartFinderFrame& frame, const SmartFinderOptions& options);

// Scores the samples (fills `score`: blurWeight x blur / largest blur of the
// samples + exposureWeight x exposure, and `isFree`) and returns the indices
// of the chosen moments, best first: free frames only, at most
// momentsPerModule, each at least minimumSpacingSeconds from those chosen
// before it. Ties keep the earlier frame.
std::vector<std::size_t> pickMoments(std::vector<SmartFinderFrame>& samples, const SmartFinderOptions& options);

}  // namespace OrbivaneCalibration
