// One module drawn alone over (a part of) the panorama, exactly as the
// viewing client draws it: through its final matrix (module matrix x clip
// matrix), its UV grid and its lens distortion shader
// (orbivane/shading/image_shading.h), its picture's colours multiplied by the
// module's vignetting factor and exposure gain (orbivane_module.h). The panorama renderer blends these drawings; the
// calibrators that judge seams, exposure and coverage measure on them, so
// they see what a viewer shows.
//
// Pixel (X, Y) of a W x H panorama shows surface point (X / W, Y / H).
#pragma once

#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>
#include <opencv2/core/matx.hpp>

#include "orbivane/camera/orbivane_module.h"
#include "orbivane/export.h"
#include "orbivane/utils/return_state.h"

namespace OrbivaneRendering {

struct ModuleDrawing {
  cv::Rect box;       // panorama pixels drawn: the module's footprint box within the region asked for
  cv::Mat colour;     // CV_32FC3 over the box (BGR, 0..255 times vignetting and gain); 0 where the module shows nothing
  cv::Mat mapX, mapY; // CV_32FC1 over the box: where each pixel reads the picture, in picture pixels
  cv::Mat inside;     // CV_8UC1 over the box: 255 where the pixel reads the picture (within half a pixel of it)
  cv::Size picture;   // the picture's size
  std::vector<cv::Point2f> outline;  // the module's unit square on the panorama, pixels
};

// Fails, with the reason, for a module without picture, matrix geometry or
// readable shader values, one that does not project (singular matrix, a
// corner behind the horizon), and one whose footprint misses `region`
// (empty region: the whole panorama). Pixels at the picture's very edge read
// the edge itself, never the black beyond it.
ORBIVANE_EXPORT Utils::ReturnState<ModuleDrawing, std::string> drawModule(
    const CameraDescription::OrbivaneModule& module, cv::Size panorama, cv::Rect region = cv::Rect());

// What the module covers of the panorama, as drawModule draws it but without
// its colours: the box, maps, inside mask, picture size and outline, with
// `colour` left empty (coverage rasters need no more, and the colours are
// most of a large drawing's memory).
ORBIVANE_EXPORT Utils::ReturnState<ModuleDrawing, std::string> drawModuleCoverage(
    const CameraDescription::OrbivaneModule& module, cv::Size panorama, cv::Rect region = cv::Rect());

// The module drawn through its UV grid and lens shader, but with `placement`
// (a planar homography from the module's unit square to the unit square of
// the output) for its matrix, on an output of `size` pixels whose pixel
// (X, Y) shows point (X / width, Y / height): the module as it lies on
// another picture's frame (a target's). The drawing's box is the whole output.
ORBIVANE_EXPORT Utils::ReturnState<ModuleDrawing, std::string> drawModuleOnFrame(
    const CameraDescription::OrbivaneModule& module, const cv::Matx33d& placement, cv::Size size);

// Whether the viewer draws the module through more than its matrix: a UV
// grid that moves its picture, or a lens shader that is not the identity.
ORBIVANE_EXPORT bool drawnBeyondMatrix(const CameraDescription::OrbivaneModule& module);

}  // namespace OrbivaneRendering
