// The CPU renderer: coordinates, working pictures, the colour rendering and
// the grey rendering (through the family sampler).
#include "shading/shader_renderer.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <functional>
#include <stdexcept>

#include <opencv2/imgproc.hpp>

#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"
#include "shading/shader_renderer_family.h"
#include "shading/shader_renderer_sampling.h"
#include "utils/parallel.h"

namespace ImageSource {
namespace {

// 0 plain, 1 AVX2, 2 AVX-512 with VBMI and VNNI.
int detectLevel() {
  __builtin_cpu_init();
  if (!__builtin_cpu_supports("fma") || !__builtin_cpu_supports("avx2")) return 0;
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
      __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512vbmi") &&
      __builtin_cpu_supports("avx512vnni")) {
    return 2;
  }
  return 1;
}
std::atomic<int>& levelSwitch() {
  static std::atomic<int> level(detectLevel());
  return level;
}

bool sameGrid(const Utils::Optional<Utils::UVGrid>& a, const Utils::Optional<Utils::UVGrid>& b) {
  return a.has_value() == b.has_value() && (!a || !(*a != *b));
}

// Rows of an output of `size` in stripes on the machine's cores when asked
// (`parallel`) and it is large (a module drawn on a panorama), otherwise on
// the calling thread. Each row is computed alone, so the result is the same
// either way.
constexpr int kParallelPixels = 1 << 18;
void forRows(bool parallel, cv::Size size, const std::function<void(int, int)>& rows) {
  if (parallel && size.area() >= kParallelPixels) {
    Utils::parallelRows(0, size.height, rows);
  } else {
    rows(0, size.height);
  }
}

}  // namespace

ShaderRenderer::ShaderRenderer() : homography_(cv::Matx33d::eye()) {}

int ShaderRenderer::samplerLevel() { return levelSwitch().load(std::memory_order_relaxed); }
void ShaderRenderer::setSamplerLevel(int level) { levelSwitch().store(std::clamp(level, 0, detectLevel())); }
int ShaderRenderer::bestSamplerLevel() { return detectLevel(); }

void ShaderRenderer::setShaders(const std::list<OrbivaneGeometry::Shader>& shaders) {
  cv::Matx33d homography = cv::Matx33d::eye();
  if (const OrbivaneGeometry::Shader* clip = OrbivaneGeometry::findClipMatrixShader(shaders)) {
    homography = OrbivaneGeometry::planarHomography(OrbivaneGeometry::clipMatrixFromShader(*clip));
  }
  distortion_ = LensDistortion::fromChain(shaders);
  if (homography != homography_) {
    homography_ = homography;
    coordinates_.reset();
  }
}

void ShaderRenderer::setGrid(const Utils::UVGrid& grid) {
  Utils::Optional<Utils::UVGrid> next;
  if (!grid.empty()) next = grid;
  if (!sameGrid(next, grid_)) {
    grid_ = std::move(next);
    coordinates_.reset();
  }
}

void ShaderRenderer::setHomography(const cv::Matx33d& homography) {
  if (homography != homography_) {
    homography_ = homography;
    coordinates_.reset();
  }
}

void ShaderRenderer::setFrame(const Utils::Optional<cv::Rect2d>& frame) {
  if (frame != frame_) {
    frame_ = frame;
    coordinates_.reset();
  }
}

void ShaderRenderer::shareCache(const ShaderRenderer& other) {
  if (other.source_) source_ = other.source_;
  if (other.coordinates_ && other.homography_ == homography_ && other.frame_ == frame_ &&
      sameGrid(other.grid_, grid_)) {
    coordinates_ = other.coordinates_;
  }
}

std::shared_ptr<const ShaderRenderer::Source> ShaderRenderer::source(
    const std::shared_ptr<Image::UniversalImageInterface>& image, cv::Size size) {
  const int factor = std::max(1, std::min(image->width() / std::max(size.width, 1),
                                          image->height() / std::max(size.height, 1)));
  if (source_ && source_->image == image && source_->factor == factor) return source_;
  auto s = std::make_shared<Source>();
  s->image = image;
  s->factor = factor;
  const cv::Mat picture = Image::toMat(*image);
  s->original = picture.size();
  cv::Mat colour;
  if (factor == 1) {
    colour = picture;
  } else {
    // Whole boxes of factor x factor pixels: the last partial box is left out.
    const cv::Size working(picture.cols / factor, picture.rows / factor);
    cv::resize(picture(cv::Rect(0, 0, working.width * factor, working.height * factor)), colour, working, 0, 0,
               cv::INTER_AREA);
  }
  s->working = colour.size();
  cv::copyMakeBorder(colour, s->colour, 1, 2, 1, 2, cv::BORDER_CONSTANT, cv::Scalar::all(0));
  cv::Mat grey;
  cv::cvtColor(colour, grey, cv::COLOR_BGR2GRAY);
  cv::copyMakeBorder(grey, s->plane, 1, kPlaneBottom, 1, kPlaneRight, cv::BORDER_CONSTANT, cv::Scalar(0));
  source_ = std::move(s);
  return source_;
}

std::shared_ptr<const ShaderRenderer::Coordinates> ShaderRenderer::coordinates(cv::Size size) {
  if (coordinates_ && coordinates_->size == size) return coordinates_;
  auto c = std::make_shared<Coordinates>();
  c->size = size;
  c->stride = (size.width + 15) / 16 * 16;
  const std::size_t count = static_cast<std::size_t>(c->stride) * static_cast<std::size_t>(size.height);
  c->u2.assign(count, 0.0f);
  c->v2.assign(count, 0.0f);
  c->mask.assign(count, 0);
  c->first.assign(static_cast<std::size_t>(size.height), 0);
  c->last.assign(static_cast<std::size_t>(size.height), 0);

  // The footprint: bounding box of the projected unit square (all corners in front).
  const cv::Matx33d& h = homography_;
  double left = 0, top = 0, right = 0, bottom = 0;
  bool ok = std::isfinite(cv::determinant(h)) && std::fabs(cv::determinant(h)) > 1e-15;
  for (int i = 0; i < 4 && ok; ++i) {
    const double u = (i == 1 || i == 2) ? 1.0 : 0.0, v = i >= 2 ? 1.0 : 0.0;
    const cv::Vec3d p = h * cv::Vec3d(u, v, 1.0);
    if (!(p[2] > 0.0)) {
      ok = false;
      break;
    }
    const double x = p[0] / p[2], y = p[1] / p[2];
    if (i == 0) {
      left = right = x;
      top = bottom = y;
    }
    left = std::min(left, x);
    right = std::max(right, x);
    top = std::min(top, y);
    bottom = std::max(bottom, y);
  }
  if (ok && frame_) {
    left = frame_->x;
    top = frame_->y;
    right = frame_->x + frame_->width;
    bottom = frame_->y + frame_->height;
  }
  ok = ok && std::isfinite(left) && std::isfinite(right) && std::isfinite(top) && std::isfinite(bottom);
  if (ok) {
    const cv::Matx33d inverse = h.inv();
    const double eps = 1e-6;
    Coordinates* const out = c.get();
    forRows(parallelRows_, size, [&](int fromRow, int toRow) {
      for (int y = fromRow; y < toRow; ++y) {
        const double sy = top + (bottom - top) * y / size.height;
        int first = size.width, last = 0;
        for (int x = 0; x < size.width; ++x) {
          const double sx = left + (right - left) * x / size.width;
          const cv::Vec3d m = inverse * cv::Vec3d(sx, sy, 1.0);
          const double mu = m[0] / m[2], mv = m[1] / m[2];
          if (!(mu >= -eps && mu <= 1.0 + eps && mv >= -eps && mv <= 1.0 + eps)) continue;
          float tu = static_cast<float>(std::clamp(mu, 0.0, 1.0));
          float tv = static_cast<float>(std::clamp(mv, 0.0, 1.0));
          if (grid_) {
            const Utils::UVGrid::UVPoint t = grid_->sample(tu, tv);
            if (!std::isfinite(t.u) || !std::isfinite(t.v)) continue;
            tu = t.u;
            tv = t.v;
          }
          const std::size_t k = static_cast<std::size_t>(y) * static_cast<std::size_t>(out->stride) + std::size_t(x);
          out->u2[k] = 2.0f * tu;
          out->v2[k] = 2.0f * tv;
          out->mask[k] = -1;
          first = std::min(first, x);
          last = x + 1;
        }
        if (first < last) {
          out->first[std::size_t(y)] = first;
          out->last[std::size_t(y)] = last;
        }
      }
    });
  }
  coordinates_ = std::move(c);
  return coordinates_;
}

void ShaderRenderer::fillMaps(const Coordinates& c, cv::Size original, cv::Mat& mapX, cv::Mat& mapY) const {
  const cv::Size size = c.size;
  mapX.create(size, CV_32FC1);
  mapY.create(size, CV_32FC1);
  // The sampling rule's positions on the picture itself (factor 1), without
  // the border pixel: cv::remap then reads exactly where Apply reads.
  const LensWarp w = makeLensWarp(distortion_, original.width, original.height, 1, original.width, original.height);
  forRows(parallelRows_, size, [&](int fromRow, int toRow) {
    for (int y = fromRow; y < toRow; ++y) {
      float* mx = mapX.ptr<float>(y);
      float* my = mapY.ptr<float>(y);
      const std::size_t row = static_cast<std::size_t>(y) * static_cast<std::size_t>(c.stride);
      for (int x = 0; x < size.width; ++x) {
        mx[x] = my[x] = -10.0f;  // black
        if (c.mask[row + std::size_t(x)] == 0) continue;
        float ex = 0.0f, ey = 0.0f;
        radialTerm(w, c.u2[row + std::size_t(x)], c.v2[row + std::size_t(x)], ex, ey);
        mx[x] = float(fixedPosition(ex, w.kx, w.x0, w.hiX)) / 32.0f - 1.0f;
        my[x] = float(fixedPosition(ey, w.ky, w.y0, w.hiY)) / 32.0f - 1.0f;
      }
    }
  });
}

void ShaderRenderer::pictureMaps(cv::Size picture, cv::Size size, cv::Mat& mapX, cv::Mat& mapY) {
  if (size.width <= 0 || size.height <= 0) {
    mapX.release();
    mapY.release();
    return;
  }
  fillMaps(*coordinates(size), picture, mapX, mapY);
}

cv::Mat ShaderRenderer::renderColour(const std::shared_ptr<Image::UniversalImageInterface>& image, cv::Size size) {
  if (size.width <= 0 || size.height <= 0 || image->empty()) return cv::Mat();
  const std::shared_ptr<const Source> s = source(image, size);
  const std::shared_ptr<const Coordinates> c = coordinates(size);
  const LensWarp w = makeLensWarp(distortion_, s->original.width, s->original.height, s->factor, s->working.width,
                                  s->working.height);
  cv::Mat out = cv::Mat::zeros(size, CV_8UC3);
  const std::uint8_t* colour = s->colour.ptr<std::uint8_t>(0);
  const std::uint8_t* plane = s->plane.ptr<std::uint8_t>(0);
  const std::size_t colourStep = s->colour.step[0], planeStep = s->plane.step[0];
  for (int y = 0; y < size.height; ++y) {
    const std::size_t row = static_cast<std::size_t>(y) * static_cast<std::size_t>(c->stride);
    cv::Vec3b* pixels = out.ptr<cv::Vec3b>(y);
    for (int x = c->first[std::size_t(y)]; x < c->last[std::size_t(y)]; ++x) {
      if (c->mask[row + std::size_t(x)] == 0) continue;
      float ex = 0.0f, ey = 0.0f;
      radialTerm(w, c->u2[row + std::size_t(x)], c->v2[row + std::size_t(x)], ex, ey);
      const int rx = fixedPosition(ex, w.kx, w.x0, w.hiX), ry = fixedPosition(ey, w.ky, w.y0, w.hiY);
      int b = interpolate(colour, colourStep, 3, 0, rx, ry);
      int g = interpolate(colour, colourStep, 3, 1, rx, ry);
      int r = interpolate(colour, colourStep, 3, 2, rx, ry);
      matchGrey(b, g, r, interpolate(plane, planeStep, 1, 0, rx, ry));
      pixels[x] = cv::Vec3b(static_cast<std::uint8_t>(b), static_cast<std::uint8_t>(g), static_cast<std::uint8_t>(r));
    }
  }
  return out;
}

void ShaderRenderer::renderGrey(const std::shared_ptr<Image::UniversalImageInterface>& image, cv::Size size,
                                cv::Mat& grey, int histogram[256]) {
  std::memset(histogram, 0, 256 * sizeof(int));
  if (size.width <= 0 || size.height <= 0 || image->empty()) {
    grey.release();
    return;
  }
  GreyFamily family;
  family.prepare(source(image, size), coordinates(size), distortion_);
  family.render(distortion_.horizontal, distortion_.vertical, grey);
  std::vector<std::uint16_t> pairs;
  greyHistogram(grey, size.width, &family.blankRows(), histogram, pairs);
}

}  // namespace ImageSource
