// The plain OpenCV reference pipelines; see reference_pipelines.h.
#include "synthetic/reference_pipelines.h"

#include <stdexcept>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace Synthetic {

int referenceBlur(const cv::Mat& bgr, int rotation) {
  cv::Mat turned;
  switch (((rotation % 360) + 360) % 360) {
    case 0:
      turned = bgr;
      break;
    case 90:
      cv::rotate(bgr, turned, cv::ROTATE_90_CLOCKWISE);
      break;
    case 180:
      cv::rotate(bgr, turned, cv::ROTATE_180);
      break;
    case 270:
      cv::rotate(bgr, turned, cv::ROTATE_90_COUNTERCLOCKWISE);
      break;
    default:
      throw std::invalid_argument("referenceBlur takes multiples of 90 degrees");
  }
  cv::Mat grey, laplacian;
  cv::cvtColor(turned, grey, cv::COLOR_BGR2GRAY);
  cv::Laplacian(grey, laplacian, CV_64F, 3, 1.0, 0.0, cv::BORDER_DEFAULT);
  cv::Mat mask(grey.size(), CV_8UC1);
  const float rows = static_cast<float>(grey.rows);
  for (int i = 0; i < grey.rows; ++i) {
    const float fi = static_cast<float>(i);
    const bool out = (0.66f * rows < fi && fi < 0.68f * rows) || (0.49f * rows < fi && fi < 0.51f * rows);
    mask.row(i).setTo(out ? 0 : 1);
  }
  cv::Scalar mean, stddev;
  cv::meanStdDev(laplacian, mean, stddev, mask);
  return static_cast<int>(stddev[0] * stddev[0]);
}

}  // namespace Synthetic
