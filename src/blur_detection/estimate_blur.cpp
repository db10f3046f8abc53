// The blur score of a picture.
#include "orbivane/blur_detection/estimate_blur.h"

#include <opencv2/core.hpp>

#include "blur_detection/laplacian_statistics.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/image/rgb_image.h"

namespace BlurDetection {

int estimateBlur(std::shared_ptr<Image::UniversalImageInterface> image, int rotation) {
  if (!image || image->empty()) CV_Error(cv::Error::StsBadArg, "estimateBlur: the picture is empty");
  const Image::Turn turn = Image::turnFor(rotation);
  if (turn == Image::Turn::kNone) {
    CV_Error(cv::Error::StsBadArg, "estimateBlur: a rotation of " + std::to_string(rotation) +
                                       " degrees lies exactly between two quarter turns; the picture is not turned");
  }
  // A BGR picture is read in place; any other kind is converted first.
  cv::Mat bgr;
  const auto* rgb = dynamic_cast<const Image::RGBImageInterface*>(image.get());
  if (rgb != nullptr && rgb->mapping() == Image::kMappingBGR) {
    bgr = cv::Mat(rgb->height(), rgb->width(), CV_8UC3, const_cast<std::uint8_t*>(rgb->data()), rgb->stride());
  } else {
    bgr = Image::toMat(*image);
  }
  std::vector<std::uint8_t> keepRow, keepColumn;
  bandMasks(bgr.rows, bgr.cols, turn, keepRow, keepColumn);
  const LaplacianStatistics stats = bgrLaplacianStatistics(bgr, keepRow, keepColumn);
  return static_cast<int>(stats.stddev * stats.stddev);
}

}  // namespace BlurDetection
