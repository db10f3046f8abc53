// Planar YUV pictures as cameras deliver them: a full-resolution luma plane and
// two chroma planes, subsampled by the chroma subsampling code:
//   0 = 4:4:4 (full chroma)   1 = 4:2:2 (half width)   2 = 4:2:0 (half width and height)
// A chroma plane of an odd-sized picture rounds its size up. Values are
// full-range BT.601 (as JPEG): Y = 0.299 R + 0.587 G + 0.114 B, chroma centred
// on 128.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "orbivane/export.h"
#include "orbivane/image/universal_image_interface.h"

namespace Image {

enum ChromaSubsampling : int {
  kChroma444 = 0,
  kChroma422 = 1,
  kChroma420 = 2,
};

class ORBIVANE_EXPORT YUVImageInterface : public UniversalImageInterface {
 public:
  ~YUVImageInterface() override;

  virtual int subsampling() const = 0;
  // Plane 0 is Y, 1 is U (Cb), 2 is V (Cr).
  virtual int planeWidth(int plane) const = 0;
  virtual int planeHeight(int plane) const = 0;
  virtual const std::uint8_t* planeData(int plane) const = 0;
  virtual std::uint8_t* planeData(int plane) = 0;

  // Size of the chroma planes for a picture of width x height; throws
  // std::runtime_error("Unknown Chroma Subsampling!") for an unknown code.
  static int chromaWidth(int width, int subsampling);
  static int chromaHeight(int height, int subsampling);
};

}  // namespace Image
