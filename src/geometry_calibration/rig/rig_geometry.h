// A rig module written as a viewer draws it: the 4x4 matrix, UV grid and
// lens distortion shader that put the module's picture where its camera
// model (rig_model.h) and the panorama surface (rig_surface.h) say.
//
// The viewer takes a surface point through the inverse of the module's
// matrix to a position q of the module's unit square, the UV grid turns q
// into a texture coordinate t, and the lens shader draws t from the picture's
// texture coordinate s (orbivane/shading/image_shading.h). Here:
//  - the lens shader ("00060001", polynomial model, power 2, centred) is the
//    best fit of the module's lens in the shader's own terms;
//  - the matrix is the homography that best maps t to the surface, widened so
//    that its unit square holds the module's whole picture;
//  - the UV grid gives, at each of its points, the t whose picture point the
//    camera model puts there: it carries the projection and whatever of the
//    lens the shader does not. Cells are added until drawing through the grid
//    stays within a tolerance of the model everywhere on the picture.
#pragma once

#include <opencv2/core.hpp>

#include "geometry_calibration/rig/rig_model.h"
#include "geometry_calibration/rig/rig_seams.h"
#include "geometry_calibration/rig/rig_surface.h"
#include "orbivane/geometry/shader.h"
#include "orbivane/utils/matrix4x4.h"
#include "orbivane/utils/uv_grid.h"

namespace GeometryCalibration {
namespace Rig {

struct ModulePlacement {
  Utils::Matrix4x4 matrix;   // the module's unit square -> surface
  Utils::UVGrid grid;
  OrbivaneGeometry::Shader lens{"00060001", {}};  // set by placeModule
  double gridErrorPx = 0.0;  // largest difference between drawing through the grid and the model, picture pixels
};

// `displacement` (may be empty) moves the model's picture points on the
// panorama (rig_seams.h).
ModulePlacement placeModule(const ModuleModel& model, const Surface& surface, const Displacement& displacement,
                            double tolerancePx);

}  // namespace Rig
}  // namespace GeometryCalibration
