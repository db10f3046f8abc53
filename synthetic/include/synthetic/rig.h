// A virtual camera rig, as the demo, tests and benchmarks use it: a wide
// scene put together from photographs of the opencv-doc package, modules that
// each see a part of it through a known homography (slightly turned, with a
// little keystone, and with their own exposure), and the same camera with
// known misalignments as a camera fresh from assembly would have them.
//
// Units: the panorama is the surface's unit square, scenePixels wide and high
// (one scene pixel = one panorama pixel). Corner errors are in those pixels.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "orbivane/camera/orbivane.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/utils/matrix4x4.h"

namespace Synthetic {

struct Rig {
  cv::Mat picture;                 // the whole scene (BGR); also the target picture
  std::vector<std::string> photographs;  // files it was put together from
  cv::Size panorama;               // = picture size
  cv::Size modulePicture;          // each module's picture size
  std::vector<std::wstring> names; // module names, left to right
  std::map<std::wstring, Utils::Matrix4x4> truth;       // true module matrices
  std::map<std::wstring, Utils::Matrix4x4> misaligned;  // as assembled
  std::map<std::wstring, std::string> misalignment;     // what was done to each, in words
  std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> pictures;
  CameraDescription::Orbivane camera;  // the misaligned camera, pictures attached
};

struct RigOptions {
  bool quick = false;     // half the size (300 rows, 360x270 modules)
  bool straight = false;  // every module upright without keystone (rectangles on the panorama)
  int modules = 5;        // 2..8 modules side by side, overlapping by about a fifth of their width
  // opencv-doc photographs put side by side to make the scene.
  std::vector<std::string> photographs = {"building.jpg", "graf1.png", "leuvenA.jpg", "aloeL.jpg"};
  // 0: the demo's own mountings and misalignments (five modules only);
  // otherwise drawn at random from this seed, of the same sizes: turns up
  // to 1.2 deg, keystone up to 0.06, exposure 0.92..1.08 as mounted; shifts
  // up to 3.5 % of a picture, turns up to 1.5 deg and scale 0.98..1.02 as
  // assembled.
  unsigned seed = 0;
  // The scene's height (0: 600 rows, 300 when quick) and the module
  // pictures' size (empty: 720x540, 360x270 when quick), pixels.
  int sceneHeight = 0;
  cv::Size modulePicture;
};

// `dataDirectory`: the opencv-doc sample folder; `quick` builds a smaller
// scene; `straight` mounts every module upright without keystone (the modules
// are then rectangles on the panorama, as neighbour stitching assumes).
// Throws std::runtime_error when a photograph is missing.
Rig makeRig(const std::string& dataDirectory, bool quick, bool straight = false);
// Throws std::invalid_argument for options out of range (module count, a
// seed of 0 with other than five modules, no photograph).
Rig makeRig(const std::string& dataDirectory, const RigOptions& options);

// A copy of `camera` whose modules carry `matrices` (modules not named keep theirs).
CameraDescription::Orbivane withMatrices(const CameraDescription::Orbivane& camera,
                                         const std::map<std::wstring, Utils::Matrix4x4>& matrices);
// The module matrices of a camera, by module name.
std::map<std::wstring, Utils::Matrix4x4> matricesOf(const CameraDescription::Orbivane& camera);

}  // namespace Synthetic
