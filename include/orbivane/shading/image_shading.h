// Our image-shading library: renders a module's picture through the module's
// shader chain on the CPU, as the viewing client draws it on the panorama.
//
// What the chain does (shaders of other UIDs are passed over):
//  - the clip-matrix shader ("00050007", when "i_clipMatrix_enabled" is not
//    0): the planar homography of its nine parameters, taking the module's
//    texture coordinates (u, v) to surface points (x, y)
//    (orbivane/geometry/surface_projection.h; no clip-matrix shader is the
//    identity);
//  - the UV grid (SetUVGrid): a piecewise bilinear warp; position (x, y) of
//    the module's unit square draws the texture coordinate the grid names
//    there (orbivane/utils/uv_grid.h);
//  - the lens distortion shader ("00060001", kLensDistortionShaderUid, file
//    shaders/00060001.shader): the texture coordinate t is drawn from the
//    source coordinate s of the picture:
//        c = (0.5 + xshift, 0.5 + yshift)         d = 2 (t - c)
//        q = (dx^2 + dy^2) / 2                    (1 at the corners when centred)
//        g = F q^(p / 2)
//        k = 1 + g (method 0, polynomial)   or   1 / (1 + g) (method 1, division)
//        s = c + ((0.5 + H) dx k, (0.5 + V) dy k) / 2
//    F = "f_TCorrection_F" (radial strength), H = "f_TCorrection_H" and
//    V = "f_TCorrection_V" (horizontal and vertical field weights; 0.5 keeps
//    the axis's scale), xshift/yshift = "f_ps_distortion_ext_xshift"/"_yshift"
//    (centre shift in texture units), p = "i_ps_distortion_ext_pwp" (power,
//    taken into 1..32) and method = "i_ps_distortion_ext_method" (1 division,
//    anything else polynomial). A missing parameter keeps its default
//    (F 0, H 0.5, V 0.5, no shift, p 2, method 0), which is the identity.
//
// The output frames the module's footprint: the bounding box of where the
// clip matrix puts the module's unit square. Output pixel (x, y) of a W x H
// output is the footprint point (left + x / W * width, top + y / H * height)
// (pixel (0, 0) centred on the corner, as in surface_projection.h); points
// outside the module's unit square, and source coordinates outside the
// picture, are black. When the output is much smaller than the picture, the
// picture is first reduced by the whole factor floor(min(picture width / W,
// picture height / H)) with area averaging (the working picture), so the
// rendering does not alias.
//
// Sampling: each output pixel reads the working picture at a position
// rounded to 1/32 pixel (the formula above with every multiply-add fused,
// written out in src/shading/shader_renderer_sampling.h) and interpolates
// bilinearly with whole-number weights, as OpenCV's remap does. The three
// channels are interpolated, and so is the working picture's grey
// (cv::COLOR_BGR2GRAY); then green (where it cannot, red, then blue) moves
// by the level or two that makes the pixel's grey exactly that interpolated
// grey. So the rendering converted to grey is, bit for bit, the grey
// picture interpolated, which is what the parameter search samples.

// Surface and size: SetSurface sets the surface picture. Its size is the
// output size of Apply(image) when no size is given, and Apply(size) renders
// the surface picture itself through the chain. Without a surface,
// Apply(image) renders at the picture's own size.
//
// Pictures are treated as immutable: a shading object keeps the working copy
// of the last picture it rendered (keyed by the shared pointer) and the
// coordinates of the last chain geometry and output size, so rendering the
// same picture again with new distortion values only redoes the distortion.
// These are immutable once made, so the library lets the shading objects of
// several threads share one object's. One object must not be used from two
// threads at once; use one per thread.
#pragma once

#include <list>
#include <memory>

#include "orbivane/export.h"
#include "orbivane/geometry/shader.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/utils/optional.h"
#include "orbivane/utils/size.h"
#include "orbivane/utils/uv_grid.h"

namespace ImageSource {

ORBIVANE_EXPORT extern const char* const kLensDistortionShaderUid;  // "00060001"

class ShaderRenderer;
class ImageShadingAccess;

class ORBIVANE_EXPORT ImageShading {
 public:
  ImageShading();
  ~ImageShading();
  ImageShading(const ImageShading&) = delete;
  ImageShading& operator=(const ImageShading&) = delete;

  // Installs the chain. Throws std::invalid_argument when a parameter the
  // renderer reads is not a finite number (the clip matrix's own conversion
  // errors pass through).
  void SetShader(const std::list<OrbivaneGeometry::Shader>& shaders);
  // Installs the module's UV grid; an empty grid removes it.
  void SetUVGrid(const Utils::UVGrid& grid);
  // Sets the surface picture (null removes it).
  void SetSurface(std::shared_ptr<Image::UniversalImageInterface> surface);

  // Renders `image` through the chain: a BGR picture of `size`, else of the
  // surface's size, else of the picture's size. An empty size or picture
  // gives an empty picture; a null picture throws std::invalid_argument.
  std::shared_ptr<Image::UniversalImageInterface> Apply(std::shared_ptr<Image::UniversalImageInterface> image,
                                                        Utils::Optional<Utils::Size> size = std::nullopt);
  // Renders the surface picture at `size`; throws std::logic_error when no
  // surface is set.
  std::shared_ptr<Image::UniversalImageInterface> Apply(Utils::Size size);

 private:
  friend class ImageShadingAccess;
  std::unique_ptr<ShaderRenderer> renderer_;
  std::shared_ptr<Image::UniversalImageInterface> surface_;
};

}  // namespace ImageSource
