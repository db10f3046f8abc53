// The CPU renderer behind ImageSource::ImageShading. It keeps what does not
// change between renderings of the same picture: the picture reduced to the
// working size (colour, and grey with a zero border and each 2x2 neighbourhood
// packed in one element for the vectorised sampler), and the texture coordinate of
// every output pixel (clip matrix and UV grid, before the lens distortion).
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "orbivane/geometry/shader.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/utils/optional.h"
#include "orbivane/utils/uv_grid.h"
#include "platform/distortion_model.h"

namespace ImageSource {

class ShaderRenderer {
 public:
  ShaderRenderer();

  // The chain's clip matrix (identity when none is enabled) and lens
  // distortion; see ImageShading::SetShader.
  void setShaders(const std::list<OrbivaneGeometry::Shader>& shaders);
  void setGrid(const Utils::UVGrid& grid);

  // The colour rendering (BGR, 8 bits) of `image` at `size`.
  cv::Mat renderColour(const std::shared_ptr<Image::UniversalImageInterface>& image, cv::Size size);

  // The grey rendering at `size` into `grey` (CV_8UC1; its columns may be
  // padded to a multiple of 8: only the first size.width count) and the
  // histogram of its size.width x size.height pixels. Vectorised where the
  // processor has AVX2; the plain path gives the same bytes.
  void renderGrey(const std::shared_ptr<Image::UniversalImageInterface>& image, cv::Size size, cv::Mat& grey,
                  int histogram[256]);

  const LensDistortion& distortion() const { return distortion_; }

  // Whether the vectorised sampler is used; tests switch it off to compare.
  static bool vectorised();
  static void setVectorised(bool on);

 private:
  struct Source {
    std::shared_ptr<Image::UniversalImageInterface> image;  // keeps the key alive
    int factor = 0;            // whole reduction factor
    cv::Size original;         // picture size in pixels
    cv::Mat colour;            // working colour picture
    cv::Mat quads;             // CV_32SC1 over the grey picture with a 1-pixel zero border left/top and 2
                               // right/bottom: element (x, y) packs bytes (x, y), (x+1, y), (x, y+1), (x+1, y+1)
  };
  struct Coordinates {
    cv::Size size;
    int stride = 0;                 // floats a row, a multiple of 8
    std::vector<float> u, v;        // texture coordinate of each output pixel
    std::vector<std::int32_t> mask; // -1 where the pixel shows the module, 0 where it is black
  };

  const Source& source(const std::shared_ptr<Image::UniversalImageInterface>& image, cv::Size size);
  const Coordinates& coordinates(cv::Size size);

  cv::Matx33d homography_;        // texture -> surface
  Utils::Optional<Utils::UVGrid> grid_;
  LensDistortion distortion_;
  Source source_;
  Coordinates coordinates_;
  bool coordinatesValid_ = false;
};

}  // namespace ImageSource
