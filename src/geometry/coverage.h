// Where modules cover the panorama: each module's footprint (where its
// picture lands through its final matrix) and the coverage raster they add up
// to. Automatic clipping searches this raster; the panorama renderer takes its
// size from it.
//
// The coverage raster tiles the panorama surface's unit square (the
// panorama): element (X, Y) of a W x H raster is the square X / W ..
// (X + 1) / W, Y / H .. (Y + 1) / H. Its value is the number of modules that
// cover the element, in module units: 1.0 where one module covers the whole
// element, fractions where a module's outline crosses it (its picture is
// warped with linear interpolation, its pixels taken as squares, so the 0.5
// contour is the module's outline: pixel (x, y) is centred on texture
// (x / w, y / h) and covers half a pixel around it, as the panorama renderer
// draws it).
#pragma once

#include <list>
#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>
#include <opencv2/core/matx.hpp>
#include <opencv2/core/types.hpp>

#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/shader.h"
#include "orbivane/utils/size.h"
#include "orbivane/utils/surface_quad.h"

namespace OrbivaneGeometry {
namespace Coverage {

// Width of the raster when the camera has no panorama size (pixels).
constexpr int kDefaultRasterWidth = 1920;
// Longest side of any raster (pixels); larger panoramas are rastered smaller,
// keeping their aspect ratio (offsets are normalised, so nothing else changes).
constexpr int kMaxRasterSide = 8192;
// Side of the picture mask of a module that has no picture (pixels).
constexpr int kMaskSideWithoutPicture = 512;
// Scale of 8-bit coverage to module units (1 / 255).
constexpr double kEightBitScale = 0.003921568859368563;
// A module corner further than this from the panorama (surface units) counts
// as one that does not project: its picture lies almost on the horizon.
constexpr float kFarAway = 1.0e4f;

// What the coverage needs of a module (the camera layer fills it in).
struct ModuleGeometry {
  std::wstring name;
  const MatrixGeometry* geometry = nullptr;  // null: the module has no matrix geometry
  const std::list<Shader>* shaders = nullptr;
  cv::Size picture;  // picture size in pixels; empty when it has none
};

// A module that takes part in the coverage.
struct Footprint {
  std::wstring name;
  Utils::SurfaceQuad quad;  // where its unit square lands, normalised surface units
  cv::Matx33d homography;   // texture coordinates -> surface (the final matrix's plane part)
  cv::Size picture;         // its picture size in pixels; empty when it has none
};

// The modules whose picture projects onto the surface through their final
// matrix (module matrix x clip matrix), in the given order. A module without
// matrix geometry, with unreadable clip-matrix values, with a singular or
// non-finite matrix, or whose unit square does not project (a corner on or
// behind the horizon) is left out, with one message for it in `skipped`. So
// is a module with a corner further than kFarAway from the panorama.
std::vector<Footprint> collectFootprints(const std::vector<ModuleGeometry>& modules,
                                         std::vector<std::string>& skipped);

// The raster of the panorama: the camera's panorama size when it is set.
// Otherwise kDefaultRasterWidth wide and as high as the modules' pictures
// say the panorama is: a module whose picture of w x h pixels spans a box of
// dx x dy surface units puts the panorama at w / dx by h / dy picture
// pixels; the height comes from the mean of those. Without any picture the
// height is 9/16 of the width. Both sides are kept within 1 ..
// kMaxRasterSide.
cv::Size rasterSize(const Utils::Size& panoramaSize, const std::vector<Footprint>& footprints);

// Accumulates the modules' coverage on the raster (CV_32F, module units):
// each module's picture area (an 8-bit mask of its picture size, or
// kMaskSideWithoutPicture square without picture) is warped onto the raster
// through its homography (picture pixel -> texture -> surface -> raster
// element) and added with addWeighted.
void accumulateCoverage(const std::vector<Footprint>& footprints, cv::Size raster, cv::Mat& coverage);

}  // namespace Coverage
}  // namespace OrbivaneGeometry
