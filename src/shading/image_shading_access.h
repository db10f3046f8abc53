// The library's own way into an ImageShading object: the parameter search
// renders grey pictures straight from the renderer.
#pragma once

#include "orbivane/shading/image_shading.h"
#include "shading/shader_renderer.h"

namespace ImageSource {

class ImageShadingAccess {
 public:
  static ShaderRenderer& renderer(ImageShading& shading) { return *shading.renderer_; }
};

}  // namespace ImageSource
