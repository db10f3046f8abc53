// The library's RGB picture: interleaved 8-bit pixels in one of the five
// pixel mappings, rows packed without padding.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "orbivane/export.h"
#include "orbivane/image/rgb_image_interface.h"

namespace Image {

class ORBIVANE_EXPORT RGBImage : public RGBImageInterface {
 public:
  // A black picture (alpha 255 where the mapping has alpha). Throws
  // std::runtime_error("Unknown Image Mapping") for an unknown mapping and
  // std::invalid_argument for a negative size.
  RGBImage(int width, int height, int mapping);
  // Copies width x height pixels from rows `stride` bytes apart.
  RGBImage(int width, int height, int mapping, const std::uint8_t* pixels, std::size_t stride);
  RGBImage(const RGBImage& other);
  RGBImage& operator=(const RGBImage& other);
  ~RGBImage() override;

  int width() const override { return width_; }
  int height() const override { return height_; }
  std::shared_ptr<UniversalImageInterface> clone() const override;

  int mapping() const override { return mapping_; }
  int channels() const override { return bytesPerPixel(mapping_); }
  const std::uint8_t* data() const override { return pixels_.data(); }
  std::uint8_t* data() override { return pixels_.data(); }
  std::size_t stride() const override;

  RGBPixel pixel(int x, int y) const override;
  void setPixel(int x, int y, const RGBPixel& p) override;
  std::uint8_t alpha(int x, int y) const override;

  std::shared_ptr<YUVImageInterface> yuvImage(int subsampling) const override;

  // The same picture in another mapping (alpha 255 when the source has none).
  std::shared_ptr<RGBImage> converted(int mapping) const;

 private:
  std::size_t offset(int x, int y) const;

  int width_ = 0;
  int height_ = 0;
  int mapping_ = kMappingBGR;
  std::vector<std::uint8_t> pixels_;
  mutable std::mutex yuvMutex_;
  mutable std::shared_ptr<YUVImageInterface> yuv_;
};

}  // namespace Image
