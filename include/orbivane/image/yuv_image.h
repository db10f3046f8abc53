// The library's planar YUV picture, with conversion to and from RGB pictures.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "orbivane/export.h"
#include "orbivane/image/rgb_image.h"
#include "orbivane/image/yuv_image_interface.h"

namespace Image {

class ORBIVANE_EXPORT YUVImage : public YUVImageInterface {
 public:
  // Luma 0 and chroma 128 (black). Throws std::runtime_error("Unknown Chroma
  // Subsampling!") for an unknown code.
  YUVImage(int width, int height, int subsampling);
  ~YUVImage() override;

  // Converts an RGB picture; chroma is averaged over the subsampled block.
  // Throws std::runtime_error("Unknown Chroma Subsampling!") for an unknown code.
  static std::shared_ptr<YUVImage> fromRGB(const RGBImageInterface& rgb, int subsampling);
  // Converts back, upsampling chroma bilinearly; the result has the mapping asked for.
  std::shared_ptr<RGBImage> toRGB(int mapping = kMappingBGR) const;

  int width() const override { return width_; }
  int height() const override { return height_; }
  std::shared_ptr<UniversalImageInterface> clone() const override;

  int subsampling() const override { return subsampling_; }
  int planeWidth(int plane) const override;
  int planeHeight(int plane) const override;
  const std::uint8_t* planeData(int plane) const override;
  std::uint8_t* planeData(int plane) override;

 private:
  void checkPlane(int plane) const;

  int width_ = 0;
  int height_ = 0;
  int subsampling_ = kChroma444;
  std::vector<std::uint8_t> planes_[3];
};

}  // namespace Image
