// Module footprints and the coverage raster they add up to.
#include "geometry/coverage.h"

#include <algorithm>
#include <cmath>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "orbivane/geometry/final_matrix.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/utils/wide_text.h"

namespace OrbivaneGeometry {
namespace Coverage {

std::vector<Footprint> collectFootprints(const std::vector<ModuleGeometry>& modules,
                                         std::vector<std::string>& skipped) {
  static const std::list<Shader> kNoShaders;
  std::vector<Footprint> footprints;
  for (const ModuleGeometry& module : modules) {
    const std::string name = Utils::toUtf8(module.name);
    const MatrixGeometry* geometry = module.geometry;
    if (geometry == nullptr) {
      skipped.push_back("Module " + name + " has no Matrix Geometry.. Skipping pmodule");
      continue;
    }
    const auto final = finalMatrix(geometry, module.shaders ? *module.shaders : kNoShaders);
    if (!geometry->matrix().isFinite()) {
      skipped.push_back("Module " + name + " has a singular or non-finite matrix.. Skipping pmodule");
      continue;
    }
    if (!final) {
      skipped.push_back("Module " + name + " has clip-matrix values that cannot be read.. Skipping pmodule");
      continue;
    }
    const Utils::Matrix4x4 matrix = *final;
    const double det = matrix.isFinite() ? cv::determinant(planarHomography(matrix)) : NAN;
    if (!std::isfinite(det) || std::fabs(det) < 1e-12) {
      skipped.push_back("Module " + name + " has a singular or non-finite matrix.. Skipping pmodule");
      continue;
    }
    const auto quad = moduleSurfaceQuad(matrix);
    const auto reasonable = [](const Utils::SurfacePoint& p) {
      return std::isfinite(p.x) && std::isfinite(p.y) && std::fabs(p.x) < kFarAway && std::fabs(p.y) < kFarAway;
    };
    if (!quad || !std::all_of(quad->corners.begin(), quad->corners.end(), reasonable)) {
      skipped.push_back("Module " + name + " does not project its picture onto the surface.. Skipping pmodule");
      continue;
    }
    Footprint footprint;
    footprint.name = module.name;
    footprint.quad = *quad;
    footprint.homography = planarHomography(matrix);
    footprint.picture = module.picture;
    footprints.push_back(std::move(footprint));
  }
  return footprints;
}

cv::Size rasterSize(const Utils::Size& panoramaSize, const std::vector<Footprint>& footprints) {
  double width = kDefaultRasterWidth;
  double height = kDefaultRasterWidth * 9.0 / 16.0;
  if (!panoramaSize.empty()) {
    width = panoramaSize.width;
    height = panoramaSize.height;
  } else {
    double pixelsAcross = 0.0;  // sum over modules of picture pixels per surface unit, horizontally
    double pixelsDown = 0.0;    // and vertically
    for (const Footprint& f : footprints) {
      const double dx = double(f.quad.right()) - f.quad.left();
      const double dy = double(f.quad.bottom()) - f.quad.top();
      if (f.picture.empty() || !(dx > 1e-6) || !(dy > 1e-6) || !std::isfinite(dx) || !std::isfinite(dy)) continue;
      pixelsAcross += f.picture.width / dx;
      pixelsDown += f.picture.height / dy;
    }
    if (pixelsAcross > 0.0 && pixelsDown > 0.0 && std::isfinite(pixelsAcross) && std::isfinite(pixelsDown)) {
      height = kDefaultRasterWidth * pixelsDown / pixelsAcross;
    }
  }
  const double longest = std::max(width, height);
  if (longest > kMaxRasterSide) {
    width *= kMaxRasterSide / longest;
    height *= kMaxRasterSide / longest;
  }
  const auto side = [](double v) { return static_cast<int>(std::clamp(std::lround(v), 1L, long(kMaxRasterSide))); };
  return cv::Size(side(width), side(height));
}

namespace {

// The raster elements a picture warped by `transform` can touch: the box of
// its corners, two elements wider on every side for the interpolation,
// within the raster; the whole raster when a corner lies on or behind the
// horizon (w <= 0), where the box is not bounded by the corners.
cv::Rect reachedElements(const cv::Mat& transform, cv::Size picture, cv::Size raster) {
  const cv::Matx33d t(transform);
  double left = 1e300, top = 1e300, right = -1e300, bottom = -1e300;
  for (const cv::Point2d corner : {cv::Point2d(-1, -1), cv::Point2d(picture.width + 1, -1),
                                   cv::Point2d(-1, picture.height + 1),
                                   cv::Point2d(picture.width + 1, picture.height + 1)}) {
    const cv::Vec3d p = t * cv::Vec3d(corner.x, corner.y, 1.0);
    if (!(p[2] > 1e-12)) return cv::Rect(cv::Point(0, 0), raster);
    left = std::min(left, p[0] / p[2]);
    right = std::max(right, p[0] / p[2]);
    top = std::min(top, p[1] / p[2]);
    bottom = std::max(bottom, p[1] / p[2]);
  }
  if (!std::isfinite(left + right + top + bottom)) return cv::Rect(cv::Point(0, 0), raster);
  const auto clampX = [&](double v) { return int(std::clamp(v, 0.0, double(raster.width))); };
  const auto clampY = [&](double v) { return int(std::clamp(v, 0.0, double(raster.height))); };
  const int x0 = clampX(std::floor(left) - 2), x1 = clampX(std::ceil(right) + 3);
  const int y0 = clampY(std::floor(top) - 2), y1 = clampY(std::ceil(bottom) + 3);
  return cv::Rect(x0, y0, std::max(0, x1 - x0), std::max(0, y1 - y0));
}

}  // namespace

void accumulateCoverage(const std::vector<Footprint>& footprints, cv::Size raster, cv::Mat& coverage) {
  cv::Mat sum(raster, CV_32F, cv::Scalar(0));
  cv::Mat mask;
  cv::Mat warped;
  for (const Footprint& f : footprints) {
    const cv::Size picture =
        f.picture.empty() ? cv::Size(kMaskSideWithoutPicture, kMaskSideWithoutPicture) : f.picture;
    mask.create(picture, CV_8U);
    mask.setTo(cv::Scalar(255));
    // Picture pixel -> texture (x / w) -> surface -> raster element, whose
    // centre X lies at surface (X + 0.5) / W.
    const cv::Matx33d toRaster(raster.width, 0, -0.5, 0, raster.height, -0.5, 0, 0, 1);
    const cv::Mat transform(toRaster * f.homography *
                            pixelsToTexture(picture.width, picture.height));
    // Only the raster elements the footprint can reach are warped and
    // added: a camera of many small modules costs its modules' area, not
    // modules x raster.
    const cv::Rect box = reachedElements(transform, picture, raster);
    if (box.empty()) continue;
    const cv::Matx33d shift(1, 0, -box.x, 0, 1, -box.y, 0, 0, 1);
    cv::warpPerspective(mask, warped, cv::Mat(shift * cv::Matx33d(transform)), box.size(), cv::INTER_LINEAR,
                        cv::BORDER_CONSTANT, cv::Scalar(0));
    cv::Mat region = sum(box);
    cv::addWeighted(region, 1.0, warped, 1.0, 0.0, region, CV_32F);
  }
  sum.convertTo(coverage, CV_32F, kEightBitScale);
}

}  // namespace Coverage
}  // namespace OrbivaneGeometry
