// Out-of-line anchors of the image interfaces and the picture clock.
#include "orbivane/image/universal_image_interface.h"

#include <chrono>

#include "orbivane/image/rgb_image_interface.h"
#include "orbivane/image/yuv_image_interface.h"

namespace Image {

UniversalImageInterface::~UniversalImageInterface() = default;
RGBImageInterface::~RGBImageInterface() = default;
YUVImageInterface::~YUVImageInterface() = default;

std::int64_t currentTimeMilliseconds() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace Image
