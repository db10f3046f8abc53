// Pictures cut at known sub-pixel offsets; see fine_scene.h.
#include "synthetic/fine_scene.h"

#include <algorithm>

#include <opencv2/imgproc.hpp>

namespace Synthetic {

cv::Mat fineScene(const cv::Mat& photograph, cv::Size pictureArea) {
  const double up = std::max(double(kFineScale) * pictureArea.width / photograph.cols,
                             double(kFineScale) * pictureArea.height / photograph.rows);
  cv::Mat scene;
  cv::resize(photograph, scene, cv::Size(), up, up, cv::INTER_CUBIC);
  return scene;
}

cv::Mat cutFine(const cv::Mat& scene, cv::Point at, cv::Size size) {
  cv::Mat out;
  cv::resize(scene(cv::Rect(at.x, at.y, size.width * kFineScale, size.height * kFineScale)), out, size, 0, 0,
             cv::INTER_AREA);
  return out;
}

cv::Mat withGainAndNoise(const cv::Mat& picture, double gain, double offset, double sigma, cv::RNG& rng) {
  cv::Mat f;
  picture.convertTo(f, CV_MAKETYPE(CV_32F, picture.channels()), gain, offset);
  cv::Mat noise(picture.size(), f.type());
  rng.fill(noise, cv::RNG::NORMAL, 0.0, sigma);
  f += noise;
  cv::Mat out;
  f.convertTo(out, picture.type());
  return out;
}

}  // namespace Synthetic
