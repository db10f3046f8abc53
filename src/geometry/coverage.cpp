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
    cv::warpPerspective(mask, warped, transform, raster, cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar(0));
    cv::addWeighted(sum, 1.0, warped, 1.0, 0.0, sum, CV_32F);
  }
  sum.convertTo(coverage, CV_32F, kEightBitScale);
}

}  // namespace Coverage
}  // namespace OrbivaneGeometry
