// Interleaved 8-bit colour pictures. The pixel mapping code tells the byte
// layout of one pixel:
//   0 = B, G, R        1 = B, G, R, A      2 = R, G, B
//   3 = R, G, B, A     4 = A, R, G, B
// A three-byte mapping has no alpha; reading a whole pixel then gives alpha
// 255, while asking for the alpha channel itself is an error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "orbivane/export.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/image/yuv_image_interface.h"

namespace Image {

enum PixelMapping : int {
  kMappingBGR = 0,
  kMappingBGRA = 1,
  kMappingRGB = 2,
  kMappingRGBA = 3,
  kMappingARGB = 4,
};

struct RGBPixel {
  std::uint8_t r = 0;
  std::uint8_t g = 0;
  std::uint8_t b = 0;
  std::uint8_t a = 255;
  friend bool operator==(const RGBPixel& x, const RGBPixel& y) {
    return x.r == y.r && x.g == y.g && x.b == y.b && x.a == y.a;
  }
};

class ORBIVANE_EXPORT RGBImageInterface : public UniversalImageInterface {
 public:
  ~RGBImageInterface() override;

  virtual int mapping() const = 0;
  // Bytes per pixel of the mapping (3 or 4).
  virtual int channels() const = 0;
  virtual const std::uint8_t* data() const = 0;
  virtual std::uint8_t* data() = 0;
  // Bytes from one row to the next.
  virtual std::size_t stride() const = 0;

  virtual RGBPixel pixel(int x, int y) const = 0;
  virtual void setPixel(int x, int y, const RGBPixel& p) = 0;
  // Throws std::runtime_error("Image has no Alpha Channel") on a three-byte mapping.
  virtual std::uint8_t alpha(int x, int y) const = 0;

  // The picture's YUV counterpart. The first request makes it, with the chroma
  // subsampling asked for and stamped with the current time; every later
  // request returns that same picture, whatever subsampling it asks for.
  virtual std::shared_ptr<YUVImageInterface> yuvImage(int subsampling) const = 0;

  // Bytes per pixel of a mapping code; throws std::runtime_error("Unknown Image
  // Mapping") for a code that is not one of the five.
  static int bytesPerPixel(int mapping);
  // Reads one pixel laid out by the mapping; the same failures as above.
  static RGBPixel decodePixel(const std::uint8_t* bytes, int mapping);
  static void encodePixel(const RGBPixel& p, std::uint8_t* bytes, int mapping);
};

}  // namespace Image
