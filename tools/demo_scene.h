// The demo's virtual camera: a wide scene put together from photographs of
// the opencv-doc package, five modules that each see a part of it through a
// known homography (slightly turned, with a little keystone, and with their
// own exposure), and the same camera with known misalignments as a camera
// fresh from assembly would have them.
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

namespace Tool {
namespace Demo {

struct Scene {
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

// `dataDirectory`: the opencv-doc sample folder; `quick` builds a smaller
// scene; `straight` mounts every module upright without keystone (the modules
// are then rectangles on the panorama, as neighbour stitching assumes).
// Throws std::runtime_error when a photograph is missing.
Scene makeScene(const std::string& dataDirectory, bool quick, bool straight = false);

// A copy of `camera` whose modules carry `matrices` (modules not named keep theirs).
CameraDescription::Orbivane withMatrices(const CameraDescription::Orbivane& camera,
                                         const std::map<std::wstring, Utils::Matrix4x4>& matrices);
// The module matrices of a camera, by module name.
std::map<std::wstring, Utils::Matrix4x4> matricesOf(const CameraDescription::Orbivane& camera);

struct CornerError {
  double mean = 0.0;  // panorama pixels, over the four corners
  double max = 0.0;
};
// How far the module's unit-square corners land from where `truth` puts them.
CornerError cornerError(const Utils::Matrix4x4& matrix, const Utils::Matrix4x4& truth, cv::Size panorama);

}  // namespace Demo
}  // namespace Tool
