// Conversion between the library's pictures and OpenCV matrices, picture
// files, and the turning rule by which a module's mounting rotation is undone.
#pragma once

#include <memory>
#include <string>

#include <opencv2/core/mat.hpp>

#include "orbivane/export.h"
#include "orbivane/image/rgb_image.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/utils/return_state.h"

namespace Image {

// A BGR 8-bit three-channel copy of any picture of the image model. Throws
// std::invalid_argument for a null pointer or a picture kind it does not know.
ORBIVANE_EXPORT cv::Mat toMat(const UniversalImageInterface& image);
ORBIVANE_EXPORT cv::Mat toMat(const std::shared_ptr<UniversalImageInterface>& image);

// A picture from an 8-bit matrix: 1 channel (grey, becomes BGR), 3 (BGR) or
// 4 (BGRA). Throws std::invalid_argument for other depths or channel counts.
ORBIVANE_EXPORT std::shared_ptr<RGBImage> fromMat(const cv::Mat& mat);

// The grey of a matrix of 1, 3 (BGR) or 4 (BGRA) channels, any depth:
// cv::cvtColor for colour, the matrix itself (not copied) for one channel.
ORBIVANE_EXPORT cv::Mat greyOf(const cv::Mat& picture);

// Reads a picture file (any format OpenCV reads; 16-bit pictures are scaled to
// 8 bits, alpha is kept). The error names the file and says whether it is
// missing or cannot be decoded.
ORBIVANE_EXPORT Utils::ReturnState<std::shared_ptr<RGBImage>, std::string> loadImage(const std::string& path);

// Writes a picture file atomically: the file appears whole or not at all, and
// an existing file is replaced only once the new one is complete.
ORBIVANE_EXPORT Utils::ReturnState<bool, std::string> saveImage(const UniversalImageInterface& image,
                                                                const std::string& path);
ORBIVANE_EXPORT Utils::ReturnState<bool, std::string> saveMat(const cv::Mat& mat, const std::string& path);

// How a rotation in degrees turns a picture: within 45 degrees (exclusive)
// of 0 or 360 kKeep, of 180 or -180 kHalf, of 90 or -270 kQuarterClockwise,
// of 270 or -90 kQuarterCounterClockwise. The angle is not taken modulo 360:
// an angle near none of these anchors (45, 135, ..., and also 450, 720,
// -360, -330) is kNone, and the turned picture is then left uncopied.
enum class Turn { kKeep, kHalf, kQuarterClockwise, kQuarterCounterClockwise, kNone };
ORBIVANE_EXPORT Turn turnFor(double degrees);

// Applies the turning rule: kKeep copies, kHalf flips about both axes,
// kQuarterClockwise transposes then flips about the vertical axis,
// kQuarterCounterClockwise transposes then flips about the horizontal axis,
// kNone leaves `turned` as it was.
ORBIVANE_EXPORT void turnByRotation(const cv::Mat& source, cv::Mat& turned, double degrees);

}  // namespace Image
