// The stitched panorama of a camera description, drawn as the viewing client
// draws it: each module's picture through its final matrix (module matrix x
// clip matrix), its UV grid and its lens distortion shader
// (orbivane/shading/image_shading.h), blended where modules overlap.
//
// Pixel (X, Y) of a W x H panorama shows the surface point (X / W, Y / H)
// (orbivane/geometry/surface_projection.h): the panorama is the surface's
// unit square. Blending: each module's weight rises linearly from 0 at the
// edge of its picture to 1 at `feather` of the picture's shorter side inside
// it; the panorama is the weighted mean of the modules that cover a pixel,
// black where none does.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "orbivane/camera/orbivane.h"
#include "orbivane/export.h"
#include "orbivane/utils/return_state.h"
#include "orbivane/utils/size.h"

namespace OrbivaneRendering {

struct PanoramaOptions {
  // Output size in pixels; empty: the camera's panorama size, or else 1920
  // wide and as high as the modules' pictures say (their pixel density).
  Utils::Size size;
  // Share of a picture's shorter side over which its blending weight rises
  // (0: hard edges, the last module drawn wins; at most 0.5).
  double feather = 0.1;
  // Draws each module's outline in a colour of its own with its name, and the
  // seams (where the module that weighs most changes) in white.
  bool overlay = false;
  // Only these modules are drawn (empty: every module of the camera), and
  // none of `exclude`. A name that is not in the camera is an error.
  std::vector<std::wstring> modules;
  std::vector<std::wstring> exclude;
};

struct Panorama {
  cv::Mat picture;                  // BGR, 8 bits
  cv::Mat coverage;                 // CV_8U: how many modules cover each pixel
  std::vector<std::wstring> drawn;  // modules that went in, in camera order
  std::vector<std::string> skipped; // one line for each module left out, and why
  // One line for each shader that is drawn without (a UID the renderer does
  // not know: its module is drawn as if the shader were not there).
  std::vector<std::string> notes;
};

// Fails for options out of range (a side above 16384 pixels, a feather
// outside 0..0.5, a module name the camera does not have); a module without picture, matrix geometry or readable
// shader values, or one that lies wholly outside the panorama, is skipped.
ORBIVANE_EXPORT Utils::ReturnState<Panorama, std::string> renderPanorama(const CameraDescription::Orbivane& camera,
                                                                         const PanoramaOptions& options = {});

}  // namespace OrbivaneRendering
