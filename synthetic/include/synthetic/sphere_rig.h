// A rig of wide-angle modules turning about one point, with known truth:
// each module a pinhole camera turned by yaw, pitch and roll, with its own
// focal length and radial lens distortion, photographing a world that is an
// equirectangular panorama (x: longitude -180..180 degrees left to right,
// y: latitude 90..-90 degrees top to bottom), with its own exposure,
// vignetting and sensor noise.
//
// Optionally with parallax, as a hand-held camera turned about its tripod
// screw sees it: each lens sits `nodalOffset` metres ahead of the turning
// point (along its view), and the lower half of the world is a ground plane
// `groundBelow` metres below the turning point, painted with the world as
// the turning point sees it. Two modules then see a ground point in
// directions that differ by up to baseline / distance; the world above the
// horizon stays infinitely far. `ray` is a picture point's direction from
// its module's lens.
//
// Conventions (independent of the library's): a module's camera looks along
// +z with x right and y down; the world's y points down, its z at longitude
// 0 on the horizon. Yaw turns right, pitch up, roll clockwise. A picture
// pixel p (OpenCV centres) at distance r from the picture's middle, in units
// of the focal length, sees the direction of the ideal pixel
//   middle + (p - middle) (1 + k1 r^2 + k2 r^4).
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "orbivane/camera/orbivane.h"

namespace Synthetic {

struct SphereModule {
  std::string name;
  double yaw = 0.0, pitch = 0.0, roll = 0.0;  // degrees
  double focal = 900.0;                       // pixels
  double k1 = 0.0, k2 = 0.0;
  double gain = 1.0;                          // exposure
  double vignetting = 0.0;                    // brightness lost at the corners (share)
  cv::Size picture{1280, 960};
  cv::Vec3d lens{0.0, 0.0, 0.0};              // metres from the turning point (world axes)
};

struct SphereRig {
  cv::Mat world;  // the equirectangular panorama the modules photograph (BGR)
  double groundBelow = 0.0;  // metres from the turning point down to the ground; 0: no ground
  std::vector<SphereModule> modules;
  std::vector<cv::Mat> pictures;  // what each module photographs (BGR)

  // The true world ray (unit) of picture pixel `p` of module `m`.
  cv::Vec3d ray(std::size_t m, cv::Point2d p) const;
  // The picture pixel of module `m` that sees world ray `r`; false when it
  // is behind the module.
  bool project(std::size_t m, const cv::Vec3d& r, cv::Point2d& p) const;
  // The world panorama's pixel (its own pixel centres) of ray `r`.
  cv::Point2d worldPixel(const cv::Vec3d& r) const;
};

struct SphereRigOptions {
  int modules = 5;            // in one ring
  double step = 40.0;         // degrees of yaw between neighbours
  double pitch = 0.0;         // degrees, the ring's
  double focal = 900.0;       // pixels, each module within +-2 % of it
  double k1 = 0.03;           // each module within +-0.01 of it
  cv::Size picture{1280, 960};
  double noise = 1.5;         // grey levels
  unsigned seed = 1;          // draws the turns below, the gains 0.85..1.15, ...
  double jitter = 2.0;        // degrees each module's yaw and pitch are off the ring's, at most
  double rollJitter = 2.0;    // degrees each module is rolled, at most
  // Degrees the axis the ring turns about leans to the right (a hand-held
  // camera turned on the spot), 0: upright.
  double lean = 0.0;
  // Parallax (see above): metres each lens sits ahead of the turning point,
  // and metres from the turning point down to the ground (0: no ground).
  double nodalOffset = 0.0;
  double groundBelow = 0.0;
  // Brightness every lens loses at its picture's corners (share, 0..0.9), as
  // lenses of one make do; negative: each module its own, 0..0.15.
  double vignetting = -1.0;
};

// Renders the rig's pictures from `world` (an equirectangular picture).
SphereRig makeSphereRig(const cv::Mat& world, const SphereRigOptions& options);

// How far a camera's modules, as the viewer draws them, put the same world
// point apart (for a rig without parallax, whose rays meet at infinity): at every `step`-th panorama pixel where two modules both draw,
// the angle between the true rays of the two picture points drawn there, in
// pixels of the first module (times its focal length). The camera's modules
// carry the rig's module names and pictures.
struct TruthSeams {
  int pairs = 0, samples = 0;
  double medianPx = 0.0, p90Px = 0.0, worstPx = 0.0;
};
TruthSeams truthSeams(const SphereRig& rig, const CameraDescription::Orbivane& camera, int step = 3);

// For a camera whose panorama is the world's own frame (a target module
// spanning the unit square with the world as its picture): how far, in world
// pixels, each module draws picture points near its corners (and its
// middle) from where the world shows them. The largest over the points, per
// module, by module name; a module that does not draw a point gets 1e9.
std::vector<double> cornerErrorsOnWorld(const SphereRig& rig, const CameraDescription::Orbivane& camera);

}  // namespace Synthetic
