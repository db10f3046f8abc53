// The geometry convention that every calibrator follows.
//
// A module's 4x4 matrix M projects the module's picture onto the panorama
// surface. It takes the picture's normalised texture coordinates, homogeneous
// (u, v, 0, 1) with u to the right and v down, both 0..1 over the picture, to
// (x, y, z, w); the surface point is (x / w, y / w) in normalised surface
// units. The module covers the image of the unit square; a module whose
// matrix is the identity spans the surface's unit square. The third row and
// column (depth) never enter: on the plane, M acts as the 3x3 homography made
// of rows and columns 0, 1 and 3.
//
// Pixel coordinates follow OpenCV: pixel (0, 0) is centred on (0, 0), and a
// picture of width W and height H spans u = x / W, v = y / H.
#pragma once

#include <opencv2/core/matx.hpp>

#include "orbivane/export.h"
#include "orbivane/utils/matrix4x4.h"
#include "orbivane/utils/optional.h"
#include "orbivane/utils/surface_quad.h"

namespace OrbivaneGeometry {

// The surface point of texture coordinate (u, v); nothing when the point lies
// on or behind the horizon (w <= 0) or the matrix is not finite.
ORBIVANE_EXPORT Utils::Optional<Utils::SurfacePoint> projectToSurface(const Utils::Matrix4x4& matrix, float u,
                                                                     float v);
// The texture coordinate that lands on surface point (x, y); nothing when the
// matrix is singular.
ORBIVANE_EXPORT Utils::Optional<Utils::SurfacePoint> textureOfSurfacePoint(const Utils::Matrix4x4& matrix, float x,
                                                                          float y);
// Where the module's unit square lands: corners of (0,0), (1,0), (1,1), (0,1).
// Nothing when a corner cannot be projected.
ORBIVANE_EXPORT Utils::Optional<Utils::SurfaceQuad> moduleSurfaceQuad(const Utils::Matrix4x4& matrix);

// The planar 3x3 homography of a matrix (rows and columns 0, 1, 3) and back
// (identity in the depth row and column).
ORBIVANE_EXPORT cv::Matx33d planarHomography(const Utils::Matrix4x4& matrix);
ORBIVANE_EXPORT Utils::Matrix4x4 matrixFromPlanarHomography(const cv::Matx33d& homography);

// The homography from texture coordinates to pixels of a width x height
// picture, and its inverse.
ORBIVANE_EXPORT cv::Matx33d textureToPixels(int width, int height);
ORBIVANE_EXPORT cv::Matx33d pixelsToTexture(int width, int height);

}  // namespace OrbivaneGeometry
