// The stitched panorama: every module rendered into its pixel box of the
// panorama through the same chain the shading renderer uses, then blended by
// feathered weights computed from where each panorama pixel reads the picture.
#include "orbivane/rendering/panorama_renderer.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>

#include <opencv2/imgproc.hpp>

#include "camera/camera_coverage.h"
#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/shading/image_shading.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/rendering/module_drawing.h"
#include "orbivane/camera/final_matrix.h"
#include "orbivane/utils/wide_text.h"
#include "shading/shader_renderer.h"

namespace OrbivaneRendering {
namespace {

constexpr int kMaxSide = 16384;
// Memory a panorama may take while it is drawn (bytes), and what one pixel
// of it takes: the colour sum (3 floats), weights, best weights, labels,
// the coverage count and the picture.
constexpr double kMaxPanoramaBytes = 2.0 * 1024 * 1024 * 1024;
constexpr double kBytesPerPanoramaPixel = 12 + 4 + 4 + 4 + 1 + 3;
// What each module's tile takes per pixel of its box: colour (3 floats),
// weight, and the two sampling maps.
constexpr double kBytesPerTilePixel = 12 + 4 + 8;
// Inside a picture a pixel never weighs less than this, so a module still
// counts where the feather has not risen yet.
constexpr float kMinimumWeight = 1.0e-3f;

struct ModuleTile {
  std::wstring name;
  cv::Rect box;       // panorama pixels
  cv::Mat colour;     // CV_32FC3 over the box
  cv::Mat weight;     // CV_32FC1 over the box, 0 where the module shows nothing
  std::vector<cv::Point2f> outline;  // the module's unit square on the panorama (pixels)
};

cv::Scalar moduleColour(std::size_t index) {
  static const cv::Scalar colours[] = {{60, 200, 255}, {255, 160, 40}, {80, 255, 80},   {255, 80, 200},
                                       {40, 80, 255},  {255, 255, 60}, {200, 120, 255}, {120, 255, 255}};
  return colours[index % (sizeof colours / sizeof colours[0])];
}

// Draws one module into its box and weighs its pixels; false (with a
// reason) when it cannot be drawn.
bool renderModule(const CameraDescription::OrbivaneModule& module, cv::Size panorama, double feather,
                  ModuleTile& tile, std::string& reason) {
  auto drawn = drawModule(module, panorama);
  if (!drawn) {
    reason = drawn.error();
    return false;
  }
  ModuleDrawing& d = drawn.value();
  tile.box = d.box;
  tile.colour = d.colour;
  tile.outline = d.outline;

  // Weight from how far inside the picture each pixel reads.
  const float w = float(d.picture.width), hgt = float(d.picture.height);
  const float ramp = float(feather) * std::min(w, hgt);
  tile.weight = cv::Mat::zeros(tile.box.size(), CV_32FC1);
  for (int y = 0; y < tile.box.height; ++y) {
    const float* mx = d.mapX.ptr<float>(y);
    const float* my = d.mapY.ptr<float>(y);
    const std::uint8_t* in = d.inside.ptr<std::uint8_t>(y);
    float* out = tile.weight.ptr<float>(y);
    for (int x = 0; x < tile.box.width; ++x) {
      if (in[x] == 0) continue;
      const float inside = std::min(std::min(mx[x] + 0.5f, w - 0.5f - mx[x]), std::min(my[x] + 0.5f, hgt - 0.5f - my[x]));
      out[x] = ramp > 0.0f ? std::max(kMinimumWeight, std::min(1.0f, inside / ramp)) : 1.0f;
    }
  }
  return true;
}

void drawOverlay(const std::vector<ModuleTile>& tiles, const cv::Mat& label, cv::Mat& picture) {
  // Seams: a covered pixel whose right or lower neighbour is led by another module.
  for (int y = 0; y + 1 < label.rows; ++y) {
    const int* row = label.ptr<int>(y);
    const int* below = label.ptr<int>(y + 1);
    cv::Vec3b* out = picture.ptr<cv::Vec3b>(y);
    for (int x = 0; x + 1 < label.cols; ++x) {
      if (row[x] < 0) continue;
      if ((row[x + 1] >= 0 && row[x + 1] != row[x]) || (below[x] >= 0 && below[x] != row[x])) {
        out[x] = cv::Vec3b(255, 255, 255);
      }
    }
  }
  const int thickness = std::max(1, picture.cols / 800);
  const double scale = std::max(0.4, picture.cols / 1600.0);
  for (std::size_t i = 0; i < tiles.size(); ++i) {
    std::vector<cv::Point> outline;
    cv::Point2f centre(0, 0);
    for (const auto& p : tiles[i].outline) {
      outline.emplace_back(cvRound(p.x), cvRound(p.y));
      centre += p * 0.25f;
    }
    cv::polylines(picture, outline, true, moduleColour(i), thickness, cv::LINE_AA);
    const std::string name = Utils::toUtf8(tiles[i].name);
    int baseline = 0;
    const cv::Size text = cv::getTextSize(name, cv::FONT_HERSHEY_SIMPLEX, scale, thickness + 1, &baseline);
    const cv::Point at(cvRound(centre.x) - text.width / 2, cvRound(centre.y) + text.height / 2);
    cv::putText(picture, name, at, cv::FONT_HERSHEY_SIMPLEX, scale, cv::Scalar(0, 0, 0), thickness + 3, cv::LINE_AA);
    cv::putText(picture, name, at, cv::FONT_HERSHEY_SIMPLEX, scale, moduleColour(i), thickness + 1, cv::LINE_AA);
  }
}

cv::Size defaultSize(const CameraDescription::Orbivane& camera) {
  std::vector<std::string> ignored;
  const auto footprints = CameraDescription::cameraFootprints(camera, ignored);
  return OrbivaneGeometry::Coverage::rasterSize(camera.panoramaSize(), footprints);
}

// The panorama's size, once the feather, each side, the memory drawing takes and the module names are checked.
Utils::ReturnState<cv::Size, std::string> checkedSize(const CameraDescription::Orbivane& camera,
                                                      const PanoramaOptions& options) {
  if (!(options.feather >= 0.0 && options.feather <= 0.5)) {
    return Utils::failure("the blending feather must lie in 0..0.5, not " + std::to_string(options.feather));
  }
  cv::Size size(options.size.width, options.size.height);
  if (size.width <= 0 || size.height <= 0) size = defaultSize(camera);
  if (size.width <= 0 || size.height <= 0 || size.width > kMaxSide || size.height > kMaxSide) {
    return Utils::failure("a panorama of " + std::to_string(size.width) + "x" + std::to_string(size.height) +
                          " pixels cannot be drawn (each side 1.." + std::to_string(kMaxSide) + ")");
  }
  {
    // The tiles of overlapping modules together cover the panorama about
    // once or twice: counted as two panoramas' worth.
    const double pixels = double(size.width) * size.height;
    const double bytes = pixels * (kBytesPerPanoramaPixel + 2 * kBytesPerTilePixel);
    if (bytes > kMaxPanoramaBytes) {
      char text[200];
      std::snprintf(text, sizeof text,
                    "a panorama of %dx%d pixels needs about %.1f GB of memory to draw, more than the %.0f GB "
                    "allowed; choose a smaller size",
                    size.width, size.height, bytes / (1024.0 * 1024 * 1024), kMaxPanoramaBytes / (1024.0 * 1024 * 1024));
      return Utils::failure(text);
    }
  }

  for (const auto* names : {&options.modules, &options.exclude}) {
    for (const auto& name : *names) {
      if (!camera.findModule(name)) return Utils::failure("the camera has no module '" + Utils::toUtf8(name) + "'");
    }
  }
  return size;
}

// Draws each listed module into its tile; notes unknown shaders and which modules went in or were skipped.
std::vector<ModuleTile> renderTiles(const CameraDescription::Orbivane& camera, const PanoramaOptions& options,
                                    cv::Size size, Panorama& result) {
  const auto listed = [&options](const std::wstring& name) {
    const auto in = [&name](const std::vector<std::wstring>& v) {
      return std::find(v.begin(), v.end(), name) != v.end();
    };
    return (options.modules.empty() || in(options.modules)) && !in(options.exclude);
  };

  std::vector<ModuleTile> tiles;
  for (const auto& module : camera.modules()) {
    if (!module || !listed(module->name())) continue;
    ModuleTile tile;
    tile.name = module->name();
    std::string reason;
    for (const auto& shader : module->shaders()) {
      if (shader.uid() == OrbivaneGeometry::kClipMatrixShaderUid || shader.uid() == ImageSource::kLensDistortionShaderUid) continue;
      result.notes.push_back("Module " + Utils::toUtf8(module->name()) + ": shader " + shader.uid() +
                             " is not one the renderer knows; the module is drawn without it");
    }
    if (renderModule(*module, size, options.feather, tile, reason)) {
      result.drawn.push_back(tile.name);
      tiles.push_back(std::move(tile));
    } else {
      result.skipped.push_back("Module " + Utils::toUtf8(module->name()) + " " + reason + ", not drawn");
    }
  }
  return tiles;
}

// The tiles laid over the panorama: colour summed by weight, the weights, and the module that weighs most.
struct TileSums {
  cv::Mat sum;      // CV_32FC3
  cv::Mat weights;  // CV_32FC1
  cv::Mat label;    // CV_32SC1: index of the tile that weighs most, -1 where none covers
};

// Sums the tiles by their weights (with no feather the last tile wins) and counts in `coverage` the modules per pixel.
TileSums sumTiles(const std::vector<ModuleTile>& tiles, cv::Size size, double feather, cv::Mat& coverage) {
  TileSums sums;
  sums.sum = cv::Mat::zeros(size, CV_32FC3);
  sums.weights = cv::Mat::zeros(size, CV_32FC1);
  cv::Mat best = cv::Mat::zeros(size, CV_32FC1);
  sums.label = cv::Mat(size, CV_32SC1, cv::Scalar(-1));
  coverage = cv::Mat::zeros(size, CV_8UC1);
  for (std::size_t i = 0; i < tiles.size(); ++i) {
    const ModuleTile& t = tiles[i];
    for (int y = 0; y < t.box.height; ++y) {
      const float* w = t.weight.ptr<float>(y);
      const cv::Vec3f* c = t.colour.ptr<cv::Vec3f>(y);
      cv::Vec3f* s = sums.sum.ptr<cv::Vec3f>(y + t.box.y) + t.box.x;
      float* ws = sums.weights.ptr<float>(y + t.box.y) + t.box.x;
      float* b = best.ptr<float>(y + t.box.y) + t.box.x;
      int* l = sums.label.ptr<int>(y + t.box.y) + t.box.x;
      std::uint8_t* n = coverage.ptr<std::uint8_t>(y + t.box.y) + t.box.x;
      for (int x = 0; x < t.box.width; ++x) {
        if (w[x] <= 0.0f) continue;
        if (feather > 0.0) {
          s[x] += c[x] * w[x];
          ws[x] += w[x];
        } else {
          s[x] = c[x];
          ws[x] = 1.0f;
        }
        if (w[x] >= b[x]) {
          b[x] = w[x];
          l[x] = int(i);
        }
        n[x] = std::uint8_t(std::min(255, n[x] + 1));
      }
    }
  }
  return sums;
}

// The weighted mean colour of every covered pixel; black where no module is drawn.
cv::Mat averagedPicture(const TileSums& sums, cv::Size size) {
  cv::Mat picture = cv::Mat::zeros(size, CV_8UC3);
  for (int y = 0; y < size.height; ++y) {
    const cv::Vec3f* s = sums.sum.ptr<cv::Vec3f>(y);
    const float* ws = sums.weights.ptr<float>(y);
    cv::Vec3b* out = picture.ptr<cv::Vec3b>(y);
    for (int x = 0; x < size.width; ++x) {
      if (ws[x] > 0.0f) out[x] = cv::Vec3b(cv::saturate_cast<std::uint8_t>(s[x][0] / ws[x]),
                                           cv::saturate_cast<std::uint8_t>(s[x][1] / ws[x]),
                                           cv::saturate_cast<std::uint8_t>(s[x][2] / ws[x]));
    }
  }
  return picture;
}

}  // namespace

Utils::ReturnState<Panorama, std::string> renderPanorama(const CameraDescription::Orbivane& camera,
                                                         const PanoramaOptions& options) {
  const auto checked = checkedSize(camera, options);
  if (!checked) return Utils::failure(checked.error());
  const cv::Size size = checked.value();
  Panorama result;
  const std::vector<ModuleTile> tiles = renderTiles(camera, options, size, result);
  const TileSums sums = sumTiles(tiles, size, options.feather, result.coverage);
  result.picture = averagedPicture(sums, size);
  if (options.overlay) drawOverlay(tiles, sums.label, result.picture);
  return result;
}

}  // namespace OrbivaneRendering
