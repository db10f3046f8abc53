// Synthetic target-matching scenes from real photographs: a target picture
// and module pictures that show the same scene through a known homography
// (optionally with a smooth non-rigid warp on top), with a brightness and
// contrast change and sensor noise.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include <opencv2/core.hpp>

#include "orbivane/camera/orbivane.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/image/universal_image_interface.h"
#include "orbivane/utils/uv_grid.h"

namespace Synthetic {

// A photograph scaled to cover `size` with room around it (the scene the
// target and the modules see); the target is its centre crop.
struct Scene {
  cv::Mat picture;        // BGR, larger than the target
  cv::Point2d targetOrigin;  // where the target's pixel (0, 0) sits in `picture`
  cv::Mat target;         // BGR, the centre crop
};
Scene makeScene(const std::string& sample, cv::Size targetSize, double margin = 0.25);

// Where a module pixel is seen on the target: truth(x) + bump(truth(x)),
// bump(p) = amplitude * (sin(2 pi (p.y / period + 0.1)), sin(2 pi (p.x / period + 0.3))).
struct ModuleTruth {
  cv::Matx33d homography = cv::Matx33d::eye();  // module pixels -> target pixels
  double amplitude = 0.0;                        // pixels of the non-rigid bump
  double period = 1.0;                           // pixels
  cv::Point2d map(cv::Point2d modulePixel) const;
};

// Renders the module picture of `size` that sees the scene through `truth`,
// then applies out = gain * in + offset and Gaussian noise of `noise` grey
// levels (independent per channel).
cv::Mat renderModule(const Scene& scene, const ModuleTruth& truth, cv::Size size, double gain, double offset,
                     double noise, std::uint64_t seed);

// A view of `size` that sees `photograph` through `view` (view pixels ->
// photograph pixels), rendered as renderModule renders a module (bicubic,
// then gain, offset and noise), and black where the view reaches beyond the
// photograph, with the soft edge the interpolation gives: what a renderer
// with a black border draws, uncovered wedges and all.
cv::Mat renderViewWithWedges(const cv::Mat& photograph, const cv::Matx33d& view, cv::Size size, double gain,
                             double offset, double noise, std::uint64_t seed);

// A misalignment of the size real modules have: rotation up to `degrees`,
// scale and shear up to `percent` %, shift up to `shift` of the picture,
// mild perspective. Maps module pixels (of `moduleSize`) to target pixels
// (of `targetSize`) around the identity placement of the two pictures.
cv::Matx33d realisticMisalignment(cv::RNG& rng, cv::Size moduleSize, cv::Size targetSize, double degrees = 3.0,
                                  double percent = 3.0, double shift = 0.1);

// A camera of a target "T" and a module "m", both with the identity matrix,
// and their pictures: what a matching run on one pair starts from (the
// module's true placement is then the pair's homography between pixels).
struct PairCamera {
  CameraDescription::Orbivane camera;
  std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images;
};
PairCamera pairCamera(const cv::Mat& target, const cv::Mat& module);

// How far a module's placement (matrix and UV grid) draws its pixels from
// where `truth` puts them: the mean distance in target pixels over a
// samples x samples lattice of module positions (i / samples, j / samples,
// 0 < i, j < samples) inside `area` (unit square). Module and target
// pictures are both of `size`.
double denseError(const ModuleTruth& truth, const OrbivaneGeometry::MatrixGeometry& geometry, cv::Size size,
                  int samples = 40, cv::Rect2d area = cv::Rect2d(0, 0, 1, 1));

// Whether every cell of a UV grid keeps its corners counter-clockwise in
// (u, v) (no fold-over).
bool gridUnfolded(const Utils::UVGrid& grid);

}  // namespace Synthetic
