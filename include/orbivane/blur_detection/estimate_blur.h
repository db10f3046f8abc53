// Sharpness of a camera picture: the variance of its Laplacian, leaving out
// two thin horizontal bands of rows. Larger is sharper.
#pragma once

#include <memory>

#include "orbivane/export.h"
#include "orbivane/image/universal_image_interface.h"

namespace BlurDetection {

// `rotation` is the module's mounting rotation in degrees; the picture is
// turned by the image model's turning rule before the measurement, and rows
// r of the turned picture with 0.66 R < r < 0.68 R or 0.49 R < r < 0.51 R
// (R rows, single precision) are left out. Returns the variance truncated
// toward zero. An empty picture, or a rotation exactly between two quarter
// turns (45, 135, ...), throws cv::Exception, as the OpenCV calls would.
ORBIVANE_EXPORT int estimateBlur(std::shared_ptr<Image::UniversalImageInterface> image, int rotation);

}  // namespace BlurDetection
