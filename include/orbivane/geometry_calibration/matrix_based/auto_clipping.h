// Automatic clipping: the largest axis-aligned rectangle of the panorama that
// the camera's modules cover well, reported as offsets for clipping.
//
// The panorama is the unit square of the panorama surface (see
// orbivane/geometry/surface_projection.h): a module's matrix maps its
// picture's unit square onto it. AutoClipping rasters the panorama into a
// coverage map of W x H elements: the camera's panorama size when set,
// otherwise 1920 wide and as high as the modules' pictures make the panorama
// (a picture of w x h pixels spanning dx x dy surface units gives w / dx by
// h / dy), or 1920 x 1080 when no module has a picture; at most 8192 on a
// side. The elements tile the panorama: element (X, Y) is the square X / W ..
// (X + 1) / W, Y / H .. (Y + 1) / H of the surface. An element's coverage is
// the number of modules that cover it (1.0 for one module; fractions where a
// module's outline crosses it, whose 0.5 contour is the outline itself).
// Coverage compared with a threshold may fall short of it by one 8-bit level
// (1/255), since the warped masks are 8-bit. Each module's picture area (an all-ones mask of its
// picture size, or 512 x 512 without a picture) is warped onto the raster
// with the perspective transform of its matrix and added up. A UV grid does
// not change the area a module covers and is not read.
//
// A module covers what its final matrix (module matrix x clip matrix, see
// orbivane/camera/final_matrix.h) puts on the surface, as the
// viewer draws it. Modules without matrix geometry, with unreadable
// clip-matrix values, with a singular or non-finite matrix, or
// whose unit square does not project (a corner on or behind the horizon, or
// so near it that the corner lands more than 10000 surface units away) are
// left out with a log line (logger "AutoClipping"). A missing camera, a
// camera without modules or without any module that can be used makes
// process() return false with a log line.
//
// Two modes, chosen by the config() called last:
//
// Value mode, config(values, cols, rows, weight, maxIterations): `values` is a
// cols x rows map of what each part of the panorama is worth (row by row, top
// row first), stretched over the raster with linear interpolation; a 1 x 1
// map weighs everything alike. Each element is worth
//     value * c - weight * (1 - c),  c = coverage clamped to 0..1,
// so a covered element is worth its configured value, an uncovered one costs
// `weight` (a hole is penalised by `weight` per element), and partly covered
// ones lie in between. Positive values draw the rectangle in, zero is
// indifferent, negative values push it out (a ground mask, say: 1 above the
// horizon, -1 on the ground). The rectangle is searched with start step 16,
// minimum step 1 and `maxIterations` as the iteration limit; when the limit
// is reached nothing is found and process() returns false. Values or a
// weight that are not finite, or a negative weight, make process() return
// false.
//
// Geometry mode, config(requireOverlap, keepAspect, threshold): the camera
// description alone decides. An element is well covered when its coverage is
// at least `threshold` module units, or 1 + `threshold` with
// `requireOverlap` (then at least two modules must see it: the rectangle
// stays inside the overlap). `threshold` lies in (0, 1]: 0.5 takes an element
// whose centre lies inside a module, 1 only elements covered whole. Well
// covered elements are worth 1, the others cost 16, so the rectangle gives up
// a line of elements when more than one in 17 of them is a hole. With
// `keepAspect` the rectangle found is then cut down to the panorama's aspect
// ratio (W / H of the raster), as wide or as high as it was, placed where it
// keeps most value. The iteration limit is 1000000.
//
// Results, after a process() that returned true:
// - rectangle(): in raster elements (x, y, width, height); like the search it
//   comes from, it leaves out the right column and bottom row of the edges
//   it settled on.
// - offset(): {left, top, right, bottom}, the rectangle's distances from the
//   panorama's left, top, right and bottom edges in normalised surface units
//   (left = x / W, right = 1 - (x + width) / W, likewise top and bottom).
// - checkGap(): the holes inside the rectangle, five numbers each: x, y,
//   width, height of the hole's bounding box in raster elements, and its
//   element count; largest first (then top to bottom, left to right), at most
//   256 holes; empty when the rectangle is covered throughout. A hole is an
//   8-connected region of elements that are not well covered (geometry mode:
//   as above; value mode: coverage below 0.5).
// - inspectionPicture(): the picture "imgBackgrdRect": the coverage in grey
//   (black where nothing covers, brighter with each module), elements that
//   are not well covered in red, and the rectangle in green (thickness 2,
//   line type 8). It is not shown in a window; the host shows or saves it.
// - viewerOffset(): offset() moved by half an element right and down: the
//   crop that puts the rectangle's element centres on the pixel centres of
//   the clipped panorama (a W x H panorama shows surface point (X / W, Y / H)
//   at pixel (X, Y), see orbivane/rendering/panorama_renderer.h), so its edge
//   pixels show elements that are well covered, not the edge between a
//   covered and an uncovered one. The right and bottom values may then be
//   half an element below 0.
// - clippedCamera(): the camera with the rectangle applied, as a viewer uses
//   it: the viewerOffset() crop is composed into every module's matrix, so
//   the rectangle becomes the panorama's unit square and a viewer (or
//   renderPanorama) that draws the unit square draws the clipped panorama,
//   with nothing new to learn. See applyClipping().
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core/mat.hpp>
#include <opencv2/core/types.hpp>

#include "orbivane/camera/orbivane.h"
#include "orbivane/export.h"
#include "orbivane/utils/matrix4x4.h"
#include "orbivane/utils/optional.h"
#include "orbivane/utils/return_state.h"
#include "orbivane/utils/size.h"

namespace GeometryCalibration {
namespace MatrixBased {

class ORBIVANE_EXPORT AutoClipping {
 public:
  // Name of the inspection picture.
  static constexpr const char* inspectionPictureName_ = "imgBackgrdRect";

  // The camera is shared, not copied: process() reads it as it is then.
  explicit AutoClipping(std::shared_ptr<CameraDescription::Orbivane> camera);
  ~AutoClipping();
  AutoClipping(const AutoClipping&) = delete;
  AutoClipping& operator=(const AutoClipping&) = delete;

  // Value mode. Accepted when values.size() == cols * rows and maxIterations
  // is above 0: element i goes to row i / cols, column i % cols; value mode
  // is selected and true returned. Otherwise no mode stays selected and false
  // is returned. The vector is consumed either way.
  bool config(std::vector<float> values, const unsigned& cols, const unsigned& rows, const float& weight,
              const size_t& maxIterations);
  // Geometry mode: stores the switches and the threshold (see above), selects
  // geometry mode and returns true.
  bool config(const bool& requireOverlap, const bool& keepAspect, const float& threshold);
  // Geometry mode: the largest rectangle without any badly covered element
  // (see above) instead of the search that trades holes for size. Off by
  // default; kept across config() calls.
  void setNoHoles(bool noHoles);
  bool noHoles() const;

  // Runs the selected mode's pass; false without a successful config(), and
  // when the pass finds no rectangle (the log and error() say why).
  bool process();
  bool isProcessed() const;

  // Copies of the results of the last process() that returned true (empty
  // before that and after one that failed).
  std::vector<float> offset();
  std::vector<int> checkGap();
  std::vector<float> viewerOffset() const;
  cv::Rect rectangle() const;
  // Size of the coverage map the rectangle lives on (elements).
  cv::Size coverageSize() const;
  // The coverage map (CV_32F, module units) and the inspection picture
  // "imgBackgrdRect" (BGR); empty until a process() returned true.
  cv::Mat coverage() const;
  cv::Mat inspectionPicture() const;
  // Why the last config() or process() failed (empty after success), and the
  // modules the last process() left out, one line each.
  std::string error() const;
  std::vector<std::string> skippedModules() const;

  // The shared camera as it is now with the rectangle of the last process()
  // applied (applyClipping with viewerOffset() and the panorama size: the
  // camera's own when set, else the raster's); an error when no process()
  // has succeeded.
  Utils::ReturnState<CameraDescription::Orbivane, std::string> clippedCamera() const;

  // The crop of the panorama to the rectangle that lies `offset` = {left,
  // top, right, bottom} (normalised surface units) inside its edges, as a
  // module-matrix factor: surface point (x, y) goes to ((x - left) / (1 -
  // left - right), (y - top) / (1 - top - bottom)). Nothing when the offsets
  // are not four finite numbers that leave a width and a height.
  static Utils::Optional<Utils::Matrix4x4> clippingMatrix(const std::vector<float>& offset);
  // The camera with that crop composed into every module's matrix (new
  // matrix = crop x module matrix; the depth row, UV grids and shaders stay
  // as they were), so its panorama's unit square is the rectangle. Its
  // panorama size becomes the rectangle's size in pixels of `panorama` (the
  // unclipped panorama's size: the camera's own when set). Modules without
  // matrix geometry keep theirs; their names are appended to `untouched`
  // when given. Throws std::invalid_argument when the offsets give no crop
  // (clippingMatrix) or `panorama` is empty.
  static CameraDescription::Orbivane applyClipping(const CameraDescription::Orbivane& camera,
                                                   const std::vector<float>& offset, const Utils::Size& panorama,
                                                   std::vector<std::wstring>* untouched = nullptr);

  // The coarse-to-fine maximum-sum rectangle search. `mat` is a one-channel
  // value map. Starting from the whole map with step `startStep`, every
  // combination of moving each edge by -step, 0 or +step (top outermost,
  // then bottom, left, right; minus, same, plus) that keeps the edges inside
  // the map and uncrossed is tried; the first of strictly greatest sum is
  // moved to, and the step is halved whenever staying put is best, ending
  // once it drops below `minStep`. Edges are inclusive indices, yet width and
  // height are their plain differences (the right column and bottom row stay
  // out). The iteration count starts at 1 and is counted up after every
  // iteration that does not end the search; once it reaches `maxIterations`
  // nothing is returned. An empty map, `minStep` < 1 or `startStep` <
  // `minStep` prints "AutoClipping::findMaxValueRect::Input Error: mat.empty()
  // || minStep < 1 || startStep < minStep" on standard output and returns
  // nothing. Each rectangle sum costs O(1) (one integral image per call).
  static Utils::Optional<cv::Rect> findMaxValueRect(const cv::Mat& mat, int minStep, int startStep,
                                                    std::size_t maxIterations);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace MatrixBased
}  // namespace GeometryCalibration
