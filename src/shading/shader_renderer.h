// The CPU renderer behind ImageSource::ImageShading. It keeps what does not
// change between renderings of the same picture: the picture reduced to the
// working size (colour, and grey as a zero-bordered byte plane), and the
// texture coordinate of every output pixel (clip matrix and UV grid, before
// the lens distortion). Both are immutable once built, so renderers of
// several threads can share them (shareCache). How a rendering samples the
// working picture is written in shading/shader_renderer_sampling.h.
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
#include "shading/distortion_model.h"

namespace ImageSource {

class ShaderRenderer {
 public:
  // The working picture of one picture at one reduction factor.
  struct Source {
    std::shared_ptr<Image::UniversalImageInterface> image;  // keeps the key alive
    int factor = 0;      // whole reduction factor
    cv::Size original;   // picture size in pixels
    cv::Size working;    // reduced size
    cv::Mat colour;      // CV_8UC3 working picture with one zero column/row before and two after
    cv::Mat plane;       // CV_8UC1 grey of the working picture, one zero column/row before and at least
                         // kPlaneRight zero columns and kPlaneBottom zero rows after
  };
  static constexpr int kPlaneRight = 80;
  static constexpr int kPlaneBottom = 5;

  // Where each output pixel of one output size shows the module.
  struct Coordinates {
    cv::Size size;
    int stride = 0;                    // floats a row, a multiple of 16
    std::vector<float> u2, v2;         // twice the texture coordinate of each output pixel (0 in padding)
    std::vector<std::int32_t> mask;    // -1 where the pixel shows the module, 0 where it is black
    std::vector<int> first, last;      // per row: the pixels showing the module are within [first, last)
  };

  ShaderRenderer();

  // The chain's clip matrix (identity when none is enabled) and lens
  // distortion; see ImageShading::SetShader.
  void setShaders(const std::list<OrbivaneGeometry::Shader>& shaders);
  void setGrid(const Utils::UVGrid& grid);
  // Replaces the chain's texture-to-surface homography (the panorama draws a
  // module through its final matrix, not its clip matrix alone); the next
  // setShaders sets it back to the clip matrix.
  void setHomography(const cv::Matx33d& homography);
  // The part of the surface the output frames (surface units: left, top,
  // width, height); nothing frames the module's footprint.
  void setFrame(const Utils::Optional<cv::Rect2d>& frame);
  // Whether a large output (a quarter million pixels or more) computes its
  // coordinates and maps in stripes of rows on the machine's cores (a module
  // drawn alone on a panorama); off by default, for renderers that already
  // run side by side (the shader search's). The result is the same either way.
  void setParallelRows(bool parallel) { parallelRows_ = parallel; }

  // Where each output pixel of a `size` rendering of a picture of `picture`
  // pixels reads the picture (CV_32FC1 maps for cv::remap, in picture pixels;
  // -10 where the output shows no part of the module).
  void pictureMaps(cv::Size picture, cv::Size size, cv::Mat& mapX, cv::Mat& mapY);

  // The colour rendering (BGR, 8 bits) of `image` at `size`.
  cv::Mat renderColour(const std::shared_ptr<Image::UniversalImageInterface>& image, cv::Size size);

  // The grey rendering at `size` into `grey` (CV_8UC1; its columns are padded
  // to a multiple of 16: only the first size.width count) and the histogram
  // of its size.width x size.height pixels: exactly the colour rendering
  // converted to grey (cv::COLOR_BGR2GRAY).
  void renderGrey(const std::shared_ptr<Image::UniversalImageInterface>& image, cv::Size size, cv::Mat& grey,
                  int histogram[256]);

  // Takes over the other renderer's working picture and coordinates (shared,
  // not copied) when it renders with the same chain geometry; a renderer per
  // thread then prepares nothing itself.
  void shareCache(const ShaderRenderer& other);

  const LensDistortion& distortion() const { return distortion_; }

  // The working picture and the coordinates of a rendering at `size` (made
  // on first use, then kept).
  std::shared_ptr<const Source> source(const std::shared_ptr<Image::UniversalImageInterface>& image, cv::Size size);
  std::shared_ptr<const Coordinates> coordinates(cv::Size size);

  // Which grey sampler runs: 0 plain, 1 AVX2, 2 AVX-512 (with the byte
  // permutes and dot products of VBMI and VNNI). All give the same bytes;
  // setting asks for at most that level (what the processor has). At first
  // the most the processor has.
  static int samplerLevel();
  static void setSamplerLevel(int level);
  static int bestSamplerLevel();

 private:
  // Fills the remap maps for a picture of `original` pixels.
  void fillMaps(const Coordinates& c, cv::Size original, cv::Mat& mapX, cv::Mat& mapY) const;

  cv::Matx33d homography_;        // texture -> surface
  Utils::Optional<cv::Rect2d> frame_;
  Utils::Optional<Utils::UVGrid> grid_;
  LensDistortion distortion_;
  std::shared_ptr<const Source> source_;
  std::shared_ptr<const Coordinates> coordinates_;  // null when the geometry changed
  bool parallelRows_ = false;
};

}  // namespace ImageSource
