// The panorama surface of a rig: which projection draws the rig's rays onto
// a plane (OpenCV's rotation warpers: plane, cylindrical, spherical), where
// the panorama is cut, and how a point of the surface's unit square relates
// to a world ray.
//
// World coordinates after the horizon is straightened: x right, y down, z
// forward; the panorama's middle column looks along +z. Warper coordinates
// are cv::detail's (u, v) at `scale` pixels per radian (the plane: per unit
// of tan); the panorama is the box `box` of them, the surface's unit square:
// unit (x, y) = ((u - box.x) / box.width, (v - box.y) / box.height). Its size
// in pixels is the box's size, one warper unit a pixel.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/stitching/detail/warpers.hpp>

#include "geometry_calibration/rig/rig_model.h"

namespace GeometryCalibration {
namespace Rig {

enum class Projection { plane, cylindrical, spherical };
const char* projectionName(Projection projection);

class Surface {
 public:
  // Chooses the projection (`requested`: "auto", "plane", "cylindrical" or
  // "spherical"), turns the world about the vertical so the rig is centred
  // (a full ring: cut where two modules overlap) and frames the box around
  // every module. `models` are turned with the world.
  static Surface frame(std::vector<ModuleModel>& models, const std::string& requested);
  // The whole sphere as an equirectangular picture of `target` pixels draws
  // it (longitude -180..180 degrees left to right, latitude 90..-90 top to
  // bottom, each target pixel centred on its cell): the surface's unit
  // square is that picture's, at `scale` pixels per radian. `models` must
  // already be turned into the picture's world.
  static Surface equirectangular(const std::vector<ModuleModel>& models, double scale, cv::Size target);

  Projection projection() const { return projection_; }
  double scale() const { return scale_; }
  const cv::Rect2d& box() const { return box_; }
  cv::Size pixels() const;
  bool fullRing() const { return fullRing_; }
  double fieldOfViewX() const { return fovX_; }  // degrees
  double fieldOfViewY() const { return fovY_; }

  // Observed pixel of a module -> unit surface point; u is taken on the
  // module's own side of a cut (within half a turn of its centre).
  cv::Point2d toUnit(const ModuleModel& model, cv::Point2d observed) const;
  // Unit surface point -> observed pixel of the module; false when the point
  // lies behind the module.
  bool toPicture(const ModuleModel& model, cv::Point2d unit, cv::Point2d& observed) const;

  // b - a in panorama pixels, for unit points a and b; on a full ring the
  // shorter way round (the panorama's left and right edges meet).
  cv::Point2d offset(cv::Point2d a, cv::Point2d b) const;

  // Whether the module sees the zenith (+1) or the nadir (-1) within its
  // picture (or just beyond it), 0 when neither: on a spherical panorama such
  // a module spans every longitude.
  static int poleOf(const ModuleModel& model);

 private:
  cv::Point2d warp(const ModuleModel& model, cv::Point2d observed) const;  // projector (u, v), not unwrapped

  Projection projection_ = Projection::spherical;
  double scale_ = 1.0;
  cv::Rect2d box_;
  bool fullRing_ = false;
  double fovX_ = 0.0, fovY_ = 0.0;
};

// Observed pixels along a picture's border, `perSide` a side.
std::vector<cv::Point2d> pictureBorder(cv::Size picture, int perSide);

}  // namespace Rig
}  // namespace GeometryCalibration
