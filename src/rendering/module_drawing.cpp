// One module drawn alone as the viewer draws it (see module_drawing.h).
#include "orbivane/rendering/module_drawing.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

#include "orbivane/camera/final_matrix.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/shading/image_shading.h"
#include "shading/distortion_model.h"
#include "shading/shader_renderer.h"

namespace OrbivaneRendering {

namespace {

// Fills the drawing's maps, inside mask and (with `colour`) colour over
// d.box from a renderer set up with the module's chain and frame.
void drawThrough(ImageSource::ShaderRenderer& renderer, const Image::UniversalImageInterface& image, ModuleDrawing& d,
                 bool colour) {
  const cv::Mat picture = Image::toMat(image);
  d.picture = picture.size();
  renderer.pictureMaps(picture.size(), d.box.size(), d.mapX, d.mapY);

  // Where each pixel reads the picture: within half a pixel of it.
  const float w = float(picture.cols), hgt = float(picture.rows);
  d.inside = cv::Mat::zeros(d.box.size(), CV_8UC1);
  for (int y = 0; y < d.box.height; ++y) {
    const float* mx = d.mapX.ptr<float>(y);
    const float* my = d.mapY.ptr<float>(y);
    std::uint8_t* in = d.inside.ptr<std::uint8_t>(y);
    for (int x = 0; x < d.box.width; ++x) {
      in[x] = (mx[x] > -0.5f && mx[x] < w - 0.5f && my[x] > -0.5f && my[x] < hgt - 0.5f) ? 255 : 0;
    }
  }
  if (!colour) return;

  // A drawing much smaller than the picture reads an area-reduced copy, so it does not alias.
  double density = 1.0;  // picture pixels per drawing pixel, at the middle of the drawing
  {
    const int cx = d.box.width / 2, cy = d.box.height / 2;
    if (cx + 1 < d.box.width && cy + 1 < d.box.height && d.inside.at<std::uint8_t>(cy, cx) &&
        d.inside.at<std::uint8_t>(cy, cx + 1) && d.inside.at<std::uint8_t>(cy + 1, cx)) {
      const double dx = std::hypot(d.mapX.at<float>(cy, cx + 1) - d.mapX.at<float>(cy, cx),
                                   d.mapY.at<float>(cy, cx + 1) - d.mapY.at<float>(cy, cx));
      const double dy = std::hypot(d.mapX.at<float>(cy + 1, cx) - d.mapX.at<float>(cy, cx),
                                   d.mapY.at<float>(cy + 1, cx) - d.mapY.at<float>(cy, cx));
      density = std::max(dx, dy);
    } else {
      density = std::max(double(picture.cols) / std::max(1, d.box.width), double(picture.rows) / std::max(1, d.box.height));
    }
  }
  const int factor = std::max(1, int(std::floor(density)));
  cv::Mat source = picture;
  // The reduced copy's maps are new matrices: the drawing's own maps stay in
  // pixels of the picture.
  cv::Mat sourceX, sourceY;
  if (factor == 1) {
    sourceX = d.mapX;
    sourceY = d.mapY;
  } else {
    const cv::Size reduced(picture.cols / factor, picture.rows / factor);
    cv::resize(picture(cv::Rect(0, 0, reduced.width * factor, reduced.height * factor)), source, reduced, 0, 0,
               cv::INTER_AREA);
    const double shift = 0.5 * (factor - 1);
    sourceX = (d.mapX - shift) / factor;
    sourceY = (d.mapY - shift) / factor;
  }
  cv::Mat colour8;
  // The picture's edge pixels are read as they are (replicated), so a
  // module's outline never darkens towards black.
  cv::remap(source, colour8, sourceX, sourceY, cv::INTER_LINEAR, cv::BORDER_REPLICATE);
  colour8.setTo(cv::Scalar::all(0), ~d.inside);
  colour8.convertTo(d.colour, CV_32FC3, 1.0);
}

// Each drawn colour multiplied by the vignetting's factor at the picture
// point it reads (orbivane_module.h).
void undoVignetting(const CameraDescription::OrbivaneModule::Vignetting& vignetting, ModuleDrawing& d) {
  const double cx = 0.5 * (d.picture.width - 1), cy = 0.5 * (d.picture.height - 1);
  const double halfDiagonal = 0.5 * std::hypot(d.picture.width, d.picture.height);
  if (!(halfDiagonal > 0.0)) return;
  const float a = float(vignetting.r2), b = float(vignetting.r4);
  const float scale = float(1.0 / (halfDiagonal * halfDiagonal));
  for (int y = 0; y < d.colour.rows; ++y) {
    const float* mx = d.mapX.ptr<float>(y);
    const float* my = d.mapY.ptr<float>(y);
    float* c = d.colour.ptr<float>(y);
    for (int x = 0; x < d.colour.cols; ++x) {
      const float dx = mx[x] - float(cx), dy = my[x] - float(cy);
      const float r2 = (dx * dx + dy * dy) * scale;
      const float f = 1.0f + r2 * (a + b * r2);
      c[3 * x] *= f;
      c[3 * x + 1] *= f;
      c[3 * x + 2] *= f;
    }
  }
}

// `d` (its box and outline set) drawn from the module's picture through its
// shaders and UV grid with `homography` onto `frame` (surface units), at
// the module's vignetting undone and its exposure gain.
Utils::ReturnState<ModuleDrawing, std::string> drawnThrough(const CameraDescription::OrbivaneModule& module,
                                                            const Image::UniversalImageInterface& image,
                                                            const cv::Matx33d& homography, const cv::Rect2d& frame,
                                                            ModuleDrawing d, bool colour) {
  ImageSource::ShaderRenderer renderer;
  renderer.setParallelRows(true);
  try {
    renderer.setShaders(module.shaders());
  } catch (const std::exception& e) {
    return Utils::failure(std::string("has unreadable shader values: ") + e.what());
  }
  const OrbivaneGeometry::MatrixGeometry* geometry = module.matrixGeometry();
  if (geometry != nullptr && geometry->uvGrid()) renderer.setGrid(*geometry->uvGrid());
  renderer.setHomography(homography);
  renderer.setFrame(frame);
  drawThrough(renderer, image, d, colour);
  if (colour && !module.vignetting().none()) undoVignetting(module.vignetting(), d);
  if (colour) d.colour *= module.exposureGain();
  return d;
}

// drawModule and drawModuleCoverage: the module over `region` of the
// panorama, with its colours or without.
Utils::ReturnState<ModuleDrawing, std::string> drawOnPanorama(const CameraDescription::OrbivaneModule& module,
                                                              cv::Size panorama, cv::Rect region, bool colour) {
  const auto image = module.image();
  if (!image || image->empty()) return Utils::failure("has no picture");
  const OrbivaneGeometry::MatrixGeometry* geometry = module.matrixGeometry();
  if (geometry == nullptr) return Utils::failure("has no matrix geometry");
  const auto final = CameraDescription::finalMatrix(module);
  if (!final) return Utils::failure("has no usable matrix (clip-matrix values unreadable or not finite)");
  const auto quad = OrbivaneGeometry::moduleSurfaceQuad(*final);
  const cv::Matx33d h = OrbivaneGeometry::planarHomography(*final);
  if (!quad || !(std::fabs(cv::determinant(h)) > 1e-15)) {
    return Utils::failure("does not project onto the surface (singular matrix or a corner behind the horizon)");
  }
  if (panorama.width <= 0 || panorama.height <= 0) return Utils::failure("has no panorama to be drawn on");
  if (region.empty()) region = cv::Rect(cv::Point(0, 0), panorama);
  region &= cv::Rect(cv::Point(0, 0), panorama);

  ModuleDrawing d;
  double left = 1e300, top = 1e300, right = -1e300, bottom = -1e300;
  for (const auto& p : quad->corners) {
    const double x = double(p.x) * panorama.width, y = double(p.y) * panorama.height;
    d.outline.emplace_back(float(x), float(y));
    left = std::min(left, x);
    right = std::max(right, x);
    top = std::min(top, y);
    bottom = std::max(bottom, y);
  }
  const int x0 = int(std::max(double(region.x), std::floor(left)));
  const int y0 = int(std::max(double(region.y), std::floor(top)));
  const int x1 = int(std::min(double(region.x + region.width), std::ceil(right) + 1.0));
  const int y1 = int(std::min(double(region.y + region.height), std::ceil(bottom) + 1.0));
  if (x1 <= x0 || y1 <= y0) return Utils::failure("lies outside the panorama");
  d.box = cv::Rect(x0, y0, x1 - x0, y1 - y0);

  return drawnThrough(module, *image, h,
                      cv::Rect2d(double(x0) / panorama.width, double(y0) / panorama.height,
                                 double(d.box.width) / panorama.width, double(d.box.height) / panorama.height),
                      std::move(d), colour);
}

}  // namespace

Utils::ReturnState<ModuleDrawing, std::string> drawModule(const CameraDescription::OrbivaneModule& module,
                                                          cv::Size panorama, cv::Rect region) {
  return drawOnPanorama(module, panorama, region, true);
}

Utils::ReturnState<ModuleDrawing, std::string> drawModuleCoverage(const CameraDescription::OrbivaneModule& module,
                                                                  cv::Size panorama, cv::Rect region) {
  return drawOnPanorama(module, panorama, region, false);
}

Utils::ReturnState<ModuleDrawing, std::string> drawModuleOnFrame(const CameraDescription::OrbivaneModule& module,
                                                                 const cv::Matx33d& placement, cv::Size size) {
  const auto image = module.image();
  if (!image || image->empty()) return Utils::failure("has no picture");
  const OrbivaneGeometry::MatrixGeometry* geometry = module.matrixGeometry();
  if (geometry == nullptr) return Utils::failure("has no matrix geometry");
  if (size.width <= 0 || size.height <= 0) return Utils::failure("has no frame to be drawn on");
  if (!(std::fabs(cv::determinant(placement)) > 1e-15)) return Utils::failure("has a singular placement");
  ModuleDrawing d;
  d.box = cv::Rect(cv::Point(0, 0), size);
  for (const cv::Point2d c : {cv::Point2d(0, 0), cv::Point2d(1, 0), cv::Point2d(1, 1), cv::Point2d(0, 1)}) {
    const cv::Vec3d p = placement * cv::Vec3d(c.x, c.y, 1.0);
    d.outline.emplace_back(float(p[0] / p[2] * size.width), float(p[1] / p[2] * size.height));
  }
  return drawnThrough(module, *image, placement, cv::Rect2d(0, 0, 1, 1), std::move(d), true);
}

bool drawnBeyondMatrix(const CameraDescription::OrbivaneModule& module) {
  const auto* geometry = module.matrixGeometry();
  if (geometry != nullptr && geometry->uvGrid() && !geometry->uvGrid()->isRegular()) return true;
  for (const auto& shader : module.shaders()) {
    if (shader.uid() != ImageSource::kLensDistortionShaderUid) continue;
    try {
      if (!ImageSource::LensDistortion::fromShader(shader).isIdentity()) return true;
    } catch (const std::exception&) {
      return true;
    }
  }
  return false;
}

}  // namespace OrbivaneRendering
