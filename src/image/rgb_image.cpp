// Interleaved RGB picture with the five pixel mappings.
#include "orbivane/image/rgb_image.h"

#include <cstring>
#include <stdexcept>
#include <string>

#include "orbivane/image/yuv_image.h"

namespace Image {
namespace {

const char kUnknownMapping[] = "Unknown Image Mapping";
const char kNoAlpha[] = "Image has no Alpha Channel";

}  // namespace

int RGBImageInterface::bytesPerPixel(int mapping) {
  switch (mapping) {
    case kMappingBGR:
    case kMappingRGB:
      return 3;
    case kMappingBGRA:
    case kMappingRGBA:
    case kMappingARGB:
      return 4;
    default:
      throw std::runtime_error(kUnknownMapping);
  }
}

RGBPixel RGBImageInterface::decodePixel(const std::uint8_t* p, int mapping) {
  switch (mapping) {
    case kMappingBGR:
      return {p[2], p[1], p[0], 255};
    case kMappingBGRA:
      return {p[2], p[1], p[0], p[3]};
    case kMappingRGB:
      return {p[0], p[1], p[2], 255};
    case kMappingRGBA:
      return {p[0], p[1], p[2], p[3]};
    case kMappingARGB:
      return {p[1], p[2], p[3], p[0]};
    default:
      throw std::runtime_error(kUnknownMapping);
  }
}

void RGBImageInterface::encodePixel(const RGBPixel& px, std::uint8_t* p, int mapping) {
  switch (mapping) {
    case kMappingBGR:
      p[0] = px.b, p[1] = px.g, p[2] = px.r;
      return;
    case kMappingBGRA:
      p[0] = px.b, p[1] = px.g, p[2] = px.r, p[3] = px.a;
      return;
    case kMappingRGB:
      p[0] = px.r, p[1] = px.g, p[2] = px.b;
      return;
    case kMappingRGBA:
      p[0] = px.r, p[1] = px.g, p[2] = px.b, p[3] = px.a;
      return;
    case kMappingARGB:
      p[0] = px.a, p[1] = px.r, p[2] = px.g, p[3] = px.b;
      return;
    default:
      throw std::runtime_error(kUnknownMapping);
  }
}

RGBImage::RGBImage(int width, int height, int mapping) : width_(width), height_(height), mapping_(mapping) {
  const int bpp = bytesPerPixel(mapping);
  if (width < 0 || height < 0) {
    throw std::invalid_argument("RGBImage size must not be negative, got " + std::to_string(width) + "x" +
                                std::to_string(height));
  }
  pixels_.assign(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * static_cast<std::size_t>(bpp),
                 0);
  if (bpp == 4) {
    const std::size_t alpha_at = mapping == kMappingARGB ? 0 : 3;
    for (std::size_t i = alpha_at; i < pixels_.size(); i += 4) pixels_[i] = 255;
  }
  setTimestamp(currentTimeMilliseconds());
}

RGBImage::RGBImage(int width, int height, int mapping, const std::uint8_t* pixels, std::size_t stride)
    : RGBImage(width, height, mapping) {
  const std::size_t row = this->stride();
  if (row > 0 && height > 0 && (pixels == nullptr || stride < row)) {
    throw std::invalid_argument("RGBImage: pixel rows of " + std::to_string(stride) + " bytes are shorter than " +
                                std::to_string(row) + " bytes");
  }
  for (int y = 0; y < height; ++y) {
    std::memcpy(pixels_.data() + static_cast<std::size_t>(y) * row, pixels + static_cast<std::size_t>(y) * stride, row);
  }
}

RGBImage::RGBImage(const RGBImage& other)
    : RGBImageInterface(other), width_(other.width_), height_(other.height_), mapping_(other.mapping_),
      pixels_(other.pixels_) {}

RGBImage& RGBImage::operator=(const RGBImage& other) {
  if (this != &other) {
    RGBImageInterface::operator=(other);
    width_ = other.width_;
    height_ = other.height_;
    mapping_ = other.mapping_;
    pixels_ = other.pixels_;
    std::lock_guard<std::mutex> lock(yuvMutex_);
    yuv_.reset();
  }
  return *this;
}

RGBImage::~RGBImage() = default;

std::shared_ptr<UniversalImageInterface> RGBImage::clone() const { return std::make_shared<RGBImage>(*this); }

std::size_t RGBImage::stride() const {
  return static_cast<std::size_t>(width_) * static_cast<std::size_t>(bytesPerPixel(mapping_));
}

std::size_t RGBImage::offset(int x, int y) const {
  if (x < 0 || y < 0 || x >= width_ || y >= height_) {
    throw std::out_of_range("pixel (" + std::to_string(x) + ", " + std::to_string(y) + ") outside a picture of " +
                            std::to_string(width_) + "x" + std::to_string(height_));
  }
  return static_cast<std::size_t>(y) * stride() + static_cast<std::size_t>(x) * static_cast<std::size_t>(channels());
}

RGBPixel RGBImage::pixel(int x, int y) const { return decodePixel(pixels_.data() + offset(x, y), mapping_); }

void RGBImage::setPixel(int x, int y, const RGBPixel& p) { encodePixel(p, pixels_.data() + offset(x, y), mapping_); }

std::uint8_t RGBImage::alpha(int x, int y) const {
  if (bytesPerPixel(mapping_) != 4) throw std::runtime_error(kNoAlpha);
  return pixel(x, y).a;
}

std::shared_ptr<YUVImageInterface> RGBImage::yuvImage(int subsampling) const {
  std::lock_guard<std::mutex> lock(yuvMutex_);
  if (!yuv_) {
    auto yuv = YUVImage::fromRGB(*this, subsampling);
    yuv->setTimestamp(currentTimeMilliseconds());
    yuv_ = std::move(yuv);
  }
  return yuv_;
}

std::shared_ptr<RGBImage> RGBImage::converted(int mapping) const {
  auto out = std::make_shared<RGBImage>(width_, height_, mapping);
  const int from_bpp = channels();
  const int to_bpp = out->channels();
  const std::size_t n = static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_);
  const std::uint8_t* src = pixels_.data();
  std::uint8_t* dst = out->data();
  for (std::size_t i = 0; i < n; ++i) {
    encodePixel(decodePixel(src + i * static_cast<std::size_t>(from_bpp), mapping_),
                dst + i * static_cast<std::size_t>(to_bpp), mapping);
  }
  out->setTimestamp(timestamp());
  return out;
}

}  // namespace Image
