// Our image-shading library: the platform interface over the CPU renderer.
#include "orbivane/shading/image_shading.h"

#include <stdexcept>

#include "orbivane/image/image_conversion.h"
#include "orbivane/image/rgb_image.h"
#include "shading/shader_renderer.h"

namespace ImageSource {

ImageShading::ImageShading() : renderer_(std::make_unique<ShaderRenderer>()) {}
ImageShading::~ImageShading() = default;

void ImageShading::SetShader(const std::list<OrbivaneGeometry::Shader>& shaders) { renderer_->setShaders(shaders); }

void ImageShading::SetUVGrid(const Utils::UVGrid& grid) { renderer_->setGrid(grid); }

void ImageShading::SetSurface(std::shared_ptr<Image::UniversalImageInterface> surface) {
  surface_ = std::move(surface);
}

std::shared_ptr<Image::UniversalImageInterface> ImageShading::Apply(
    std::shared_ptr<Image::UniversalImageInterface> image, Utils::Optional<Utils::Size> size) {
  if (!image) throw std::invalid_argument("ImageShading::Apply: no picture to render");
  Utils::Size out = size ? *size
                         : surface_ ? Utils::Size{surface_->width(), surface_->height()}
                                    : Utils::Size{image->width(), image->height()};
  if (out.empty() || image->empty()) return std::make_shared<Image::RGBImage>(0, 0, Image::kMappingBGR);
  return Image::fromMat(renderer_->renderColour(image, cv::Size(out.width, out.height)));
}

std::shared_ptr<Image::UniversalImageInterface> ImageShading::Apply(Utils::Size size) {
  if (!surface_) throw std::logic_error("ImageShading::Apply: no surface set to render");
  return Apply(surface_, size);
}

}  // namespace ImageSource
