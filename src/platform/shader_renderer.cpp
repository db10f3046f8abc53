// The CPU renderer: coordinates, working pictures and the two samplers.
#include "platform/shader_renderer.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <stdexcept>

// GCC 12 warns about the deliberately undefined start values inside its own
// AVX-512 intrinsics (a known false positive).
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>

#include <opencv2/imgproc.hpp>

#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"

namespace ImageSource {
namespace {

// Everything one rendering needs per pixel, folded so that the padded
// working-picture position is X = x0 + kx * dx * k (and likewise Y).
struct Warp {
  float twoCx, twoCy;  // 2 c: d = 2 t - 2 c
  float x0, y0;        // padded working position of the centre
  float kx, ky;        // half field weight, in working pixels
  float strength;
  int power;
  bool division;
  float hiX, hiY;      // clamp: the last border column/row of the padded picture
  int stride;          // elements a row of the quad picture
};

Warp makeWarp(const LensDistortion& d, cv::Size original, int factor, cv::Size working) {
  const float f = static_cast<float>(factor);
  const float cx = 0.5f + d.shiftX, cy = 0.5f + d.shiftY;
  Warp w{};
  w.twoCx = 2.0f * cx;
  w.twoCy = 2.0f * cy;
  // Working pixel j covers picture pixels j f .. j f + f - 1, centred on j f + (f - 1) / 2;
  // the padded picture has one border pixel before the first.
  w.x0 = (cx * float(original.width) - 0.5f * (f - 1.0f)) / f + 1.0f;
  w.y0 = (cy * float(original.height) - 0.5f * (f - 1.0f)) / f + 1.0f;
  w.kx = 0.5f * (0.5f + d.horizontal) * float(original.width) / f;
  w.ky = 0.5f * (0.5f + d.vertical) * float(original.height) / f;
  w.strength = d.strength;
  w.power = d.power;
  w.division = d.method == 1;
  w.hiX = float(working.width + 1);
  w.hiY = float(working.height + 1);
  return w;
}

// minps / maxps semantics, so that a NaN lands on the border like in the vector path.
inline float clampLike(float x, float hi) {
  const float a = x < hi ? x : hi;
  return a > 0.0f ? a : 0.0f;
}

// One row, plain: pixels [begin, end).
void greyRowPlain(const Warp& w, const float* u, const float* v, const std::int32_t* mask,
                  const std::int32_t* quads, std::uint8_t* out, int begin, int end) {
  for (int x = begin; x < end; ++x) {
    const float dx = u[x] * 2.0f - w.twoCx;
    const float dy = v[x] * 2.0f - w.twoCy;
    const float q = (dx * dx + dy * dy) * 0.5f;
    const float g = w.strength * halfPower(q, w.power);
    const float k = w.division ? 1.0f / (1.0f + g) : 1.0f + g;
    const float px = clampLike(w.x0 + w.kx * dx * k, w.hiX);
    const float py = clampLike(w.y0 + w.ky * dy * k, w.hiY);
    const int ix = static_cast<int>(px), iy = static_cast<int>(py);
    const float ax = px - float(ix), ay = py - float(iy);
    const std::uint32_t quad = static_cast<std::uint32_t>(quads[iy * w.stride + ix]);
    const float p00 = float(quad & 0xFF), p01 = float((quad >> 8) & 0xFF);
    const float p10 = float((quad >> 16) & 0xFF), p11 = float(quad >> 24);
    const float a = p00 + ax * (p01 - p00);
    const float b = p10 + ax * (p11 - p10);
    const int value = static_cast<int>(a + ay * (b - a) + 0.5f) & mask[x];
    out[x] = static_cast<std::uint8_t>(value);
  }
}

// q^(p/2) on eight lanes, the same operations as halfPower.
__attribute__((target("avx2"))) inline __m256 halfPower8(__m256 q, int p) {
  __m256 result = (p & 1) ? _mm256_sqrt_ps(q) : _mm256_set1_ps(1.0f);
  __m256 base = q;
  for (int n = p >> 1; n > 0; n >>= 1) {
    if (n & 1) result = _mm256_mul_ps(result, base);
    base = _mm256_mul_ps(base, base);
  }
  return result;
}

// One row, eight pixels at a time (no FMA: the same roundings as the plain path).
__attribute__((target("avx2"))) void greyRowVector(const Warp& w, const float* u, const float* v,
                                                   const std::int32_t* mask, const std::int32_t* quads,
                                                   std::uint8_t* out, int width) {
  const __m256 two = _mm256_set1_ps(2.0f), half = _mm256_set1_ps(0.5f), one = _mm256_set1_ps(1.0f);
  const __m256 twoCx = _mm256_set1_ps(w.twoCx), twoCy = _mm256_set1_ps(w.twoCy);
  const __m256 x0 = _mm256_set1_ps(w.x0), y0 = _mm256_set1_ps(w.y0);
  const __m256 kx = _mm256_set1_ps(w.kx), ky = _mm256_set1_ps(w.ky);
  const __m256 strength = _mm256_set1_ps(w.strength);
  const __m256 hiX = _mm256_set1_ps(w.hiX), hiY = _mm256_set1_ps(w.hiY), zero = _mm256_setzero_ps();
  const __m256i stride = _mm256_set1_epi32(w.stride), low = _mm256_set1_epi32(0xFF);

  int x = 0;
  for (; x + 8 <= width; x += 8) {
    const __m256 dx = _mm256_sub_ps(_mm256_mul_ps(_mm256_loadu_ps(u + x), two), twoCx);
    const __m256 dy = _mm256_sub_ps(_mm256_mul_ps(_mm256_loadu_ps(v + x), two), twoCy);
    const __m256 q = _mm256_mul_ps(_mm256_add_ps(_mm256_mul_ps(dx, dx), _mm256_mul_ps(dy, dy)), half);
    const __m256 g = _mm256_mul_ps(strength, halfPower8(q, w.power));
    const __m256 k = w.division ? _mm256_div_ps(one, _mm256_add_ps(one, g)) : _mm256_add_ps(one, g);
    const __m256 px = _mm256_max_ps(_mm256_min_ps(_mm256_add_ps(x0, _mm256_mul_ps(_mm256_mul_ps(kx, dx), k)), hiX), zero);
    const __m256 py = _mm256_max_ps(_mm256_min_ps(_mm256_add_ps(y0, _mm256_mul_ps(_mm256_mul_ps(ky, dy), k)), hiY), zero);
    const __m256i ix = _mm256_cvttps_epi32(px), iy = _mm256_cvttps_epi32(py);
    const __m256 ax = _mm256_sub_ps(px, _mm256_cvtepi32_ps(ix));
    const __m256 ay = _mm256_sub_ps(py, _mm256_cvtepi32_ps(iy));
    // One load a pixel: its 2x2 neighbourhood is packed in one element.
    const __m256i index = _mm256_add_epi32(_mm256_mullo_epi32(iy, stride), ix);
    const __m256i quad = _mm256_i32gather_epi32(reinterpret_cast<const int*>(quads), index, 4);
    const __m256 p00 = _mm256_cvtepi32_ps(_mm256_and_si256(quad, low));
    const __m256 p01 = _mm256_cvtepi32_ps(_mm256_and_si256(_mm256_srli_epi32(quad, 8), low));
    const __m256 p10 = _mm256_cvtepi32_ps(_mm256_and_si256(_mm256_srli_epi32(quad, 16), low));
    const __m256 p11 = _mm256_cvtepi32_ps(_mm256_srli_epi32(quad, 24));
    const __m256 a = _mm256_add_ps(p00, _mm256_mul_ps(ax, _mm256_sub_ps(p01, p00)));
    const __m256 b = _mm256_add_ps(p10, _mm256_mul_ps(ax, _mm256_sub_ps(p11, p10)));
    const __m256 value = _mm256_add_ps(_mm256_add_ps(a, _mm256_mul_ps(ay, _mm256_sub_ps(b, a))), half);
    const __m256i bytes = _mm256_and_si256(_mm256_cvttps_epi32(value),
                                           _mm256_loadu_si256(reinterpret_cast<const __m256i*>(mask + x)));
    const __m128i words = _mm_packus_epi32(_mm256_castsi256_si128(bytes), _mm256_extracti128_si256(bytes, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + x), _mm_packus_epi16(words, words));
  }
  greyRowPlain(w, u, v, mask, quads, out, x, width);
}

// q^(p/2) on sixteen lanes.
__attribute__((target("avx512f,avx512bw,avx512dq,avx512vl"))) inline __m512 halfPower16(__m512 q, int p) {
  __m512 result = (p & 1) ? _mm512_sqrt_ps(q) : _mm512_set1_ps(1.0f);
  __m512 base = q;
  for (int n = p >> 1; n > 0; n >>= 1) {
    if (n & 1) result = _mm512_mul_ps(result, base);
    base = _mm512_mul_ps(base, base);
  }
  return result;
}

// One row, sixteen pixels at a time.
__attribute__((target("avx512f,avx512bw,avx512dq,avx512vl"))) void greyRowWide(const Warp& w, const float* u,
                                                                               const float* v,
                                                                               const std::int32_t* mask,
                                                                               const std::int32_t* quads,
                                                                               std::uint8_t* out, int width) {
  const __m512 two = _mm512_set1_ps(2.0f), half = _mm512_set1_ps(0.5f), one = _mm512_set1_ps(1.0f);
  const __m512 twoCx = _mm512_set1_ps(w.twoCx), twoCy = _mm512_set1_ps(w.twoCy);
  const __m512 x0 = _mm512_set1_ps(w.x0), y0 = _mm512_set1_ps(w.y0);
  const __m512 kx = _mm512_set1_ps(w.kx), ky = _mm512_set1_ps(w.ky);
  const __m512 strength = _mm512_set1_ps(w.strength);
  const __m512 hiX = _mm512_set1_ps(w.hiX), hiY = _mm512_set1_ps(w.hiY), zero = _mm512_setzero_ps();
  const __m512i stride = _mm512_set1_epi32(w.stride), low = _mm512_set1_epi32(0xFF);
  int x = 0;
  for (; x + 16 <= width; x += 16) {
    const __m512 dx = _mm512_sub_ps(_mm512_mul_ps(_mm512_loadu_ps(u + x), two), twoCx);
    const __m512 dy = _mm512_sub_ps(_mm512_mul_ps(_mm512_loadu_ps(v + x), two), twoCy);
    const __m512 q = _mm512_mul_ps(_mm512_add_ps(_mm512_mul_ps(dx, dx), _mm512_mul_ps(dy, dy)), half);
    const __m512 g = _mm512_mul_ps(strength, halfPower16(q, w.power));
    const __m512 k = w.division ? _mm512_div_ps(one, _mm512_add_ps(one, g)) : _mm512_add_ps(one, g);
    const __m512 px = _mm512_max_ps(_mm512_min_ps(_mm512_add_ps(x0, _mm512_mul_ps(_mm512_mul_ps(kx, dx), k)), hiX), zero);
    const __m512 py = _mm512_max_ps(_mm512_min_ps(_mm512_add_ps(y0, _mm512_mul_ps(_mm512_mul_ps(ky, dy), k)), hiY), zero);
    const __m512i ix = _mm512_cvttps_epi32(px), iy = _mm512_cvttps_epi32(py);
    const __m512 ax = _mm512_sub_ps(px, _mm512_cvtepi32_ps(ix));
    const __m512 ay = _mm512_sub_ps(py, _mm512_cvtepi32_ps(iy));
    const __m512i index = _mm512_add_epi32(_mm512_mullo_epi32(iy, stride), ix);
    const __m512i quad = _mm512_i32gather_epi32(index, quads, 4);
    const __m512 p00 = _mm512_cvtepi32_ps(_mm512_and_si512(quad, low));
    const __m512 p01 = _mm512_cvtepi32_ps(_mm512_and_si512(_mm512_srli_epi32(quad, 8), low));
    const __m512 p10 = _mm512_cvtepi32_ps(_mm512_and_si512(_mm512_srli_epi32(quad, 16), low));
    const __m512 p11 = _mm512_cvtepi32_ps(_mm512_srli_epi32(quad, 24));
    const __m512 a = _mm512_add_ps(p00, _mm512_mul_ps(ax, _mm512_sub_ps(p01, p00)));
    const __m512 b = _mm512_add_ps(p10, _mm512_mul_ps(ax, _mm512_sub_ps(p11, p10)));
    const __m512 value = _mm512_add_ps(_mm512_add_ps(a, _mm512_mul_ps(ay, _mm512_sub_ps(b, a))), half);
    const __m512i bytes = _mm512_and_si512(_mm512_cvttps_epi32(value), _mm512_loadu_si512(mask + x));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), _mm512_cvtusepi32_epi8(bytes));
  }
  greyRowPlain(w, u, v, mask, quads, out, x, width);
}

// 0 plain, 1 AVX2, 2 AVX-512.
int detectLevel() {
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
      __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl")) {
    return 2;
  }
  return __builtin_cpu_supports("avx2") ? 1 : 0;
}
std::atomic<int>& levelSwitch() {
  static std::atomic<int> level(detectLevel());
  return level;
}

}  // namespace

ShaderRenderer::ShaderRenderer() : homography_(cv::Matx33d::eye()) {}

bool ShaderRenderer::vectorised() { return levelSwitch().load() > 0; }
void ShaderRenderer::setVectorised(bool on) { levelSwitch().store(on ? detectLevel() : 0); }

void ShaderRenderer::setShaders(const std::list<OrbivaneGeometry::Shader>& shaders) {
  cv::Matx33d homography = cv::Matx33d::eye();
  if (const OrbivaneGeometry::Shader* clip = OrbivaneGeometry::findClipMatrixShader(shaders)) {
    homography = OrbivaneGeometry::planarHomography(OrbivaneGeometry::clipMatrixFromShader(*clip));
  }
  distortion_ = LensDistortion::fromChain(shaders);
  if (homography != homography_) {
    homography_ = homography;
    coordinatesValid_ = false;
  }
}

void ShaderRenderer::setGrid(const Utils::UVGrid& grid) {
  Utils::Optional<Utils::UVGrid> next;
  if (!grid.empty()) next = grid;
  if (next.has_value() != grid_.has_value() || (next && *next != *grid_)) {
    grid_ = std::move(next);
    coordinatesValid_ = false;
  }
}

const ShaderRenderer::Source& ShaderRenderer::source(const std::shared_ptr<Image::UniversalImageInterface>& image,
                                                     cv::Size size) {
  const int factor = std::max(1, std::min(image->width() / std::max(size.width, 1),
                                          image->height() / std::max(size.height, 1)));
  if (source_.image == image && source_.factor == factor) return source_;
  Source s;
  s.image = image;
  s.factor = factor;
  const cv::Mat picture = Image::toMat(*image);
  s.original = picture.size();
  if (factor == 1) {
    s.colour = picture;
  } else {
    // Whole boxes of factor x factor pixels: the last partial box is left out.
    const cv::Size working(picture.cols / factor, picture.rows / factor);
    cv::resize(picture(cv::Rect(0, 0, working.width * factor, working.height * factor)), s.colour, working, 0, 0,
               cv::INTER_AREA);
  }
  cv::Mat grey;
  cv::cvtColor(s.colour, grey, cv::COLOR_BGR2GRAY);
  cv::Mat bordered;
  cv::copyMakeBorder(grey, bordered, 1, 3, 1, 3, cv::BORDER_CONSTANT, cv::Scalar(0));
  s.quads = cv::Mat::zeros(grey.rows + 3, grey.cols + 3, CV_32SC1);
  for (int y = 0; y < s.quads.rows; ++y) {
    const std::uint8_t* top = bordered.ptr<std::uint8_t>(y);
    const std::uint8_t* bottom = bordered.ptr<std::uint8_t>(y + 1);
    std::uint32_t* row = s.quads.ptr<std::uint32_t>(y);
    for (int x = 0; x < s.quads.cols; ++x) {
      row[x] = std::uint32_t(top[x]) | std::uint32_t(top[x + 1]) << 8 | std::uint32_t(bottom[x]) << 16 |
               std::uint32_t(bottom[x + 1]) << 24;
    }
  }
  source_ = std::move(s);
  return source_;
}

const ShaderRenderer::Coordinates& ShaderRenderer::coordinates(cv::Size size) {
  if (coordinatesValid_ && coordinates_.size == size) return coordinates_;
  Coordinates c;
  c.size = size;
  c.stride = (size.width + 7) / 8 * 8;
  const std::size_t count = static_cast<std::size_t>(c.stride) * static_cast<std::size_t>(size.height);
  c.u.assign(count, 0.0f);
  c.v.assign(count, 0.0f);
  c.mask.assign(count, 0);

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
  ok = ok && std::isfinite(left) && std::isfinite(right) && std::isfinite(top) && std::isfinite(bottom);
  if (ok) {
    const cv::Matx33d inverse = h.inv();
    const double eps = 1e-6;
    for (int y = 0; y < size.height; ++y) {
      const double sy = top + (bottom - top) * y / size.height;
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
        const std::size_t k = static_cast<std::size_t>(y) * static_cast<std::size_t>(c.stride) + std::size_t(x);
        c.u[k] = tu;
        c.v[k] = tv;
        c.mask[k] = -1;
      }
    }
  }
  coordinates_ = std::move(c);
  coordinatesValid_ = true;
  return coordinates_;
}

cv::Mat ShaderRenderer::renderColour(const std::shared_ptr<Image::UniversalImageInterface>& image, cv::Size size) {
  if (size.width <= 0 || size.height <= 0 || image->empty()) return cv::Mat();
  const Source& s = source(image, size);
  const Coordinates& c = coordinates(size);
  cv::Mat mapX(size, CV_32FC1), mapY(size, CV_32FC1);
  for (int y = 0; y < size.height; ++y) {
    float* mx = mapX.ptr<float>(y);
    float* my = mapY.ptr<float>(y);
    const std::size_t row = static_cast<std::size_t>(y) * static_cast<std::size_t>(c.stride);
    for (int x = 0; x < size.width; ++x) {
      mx[x] = my[x] = -10.0f;  // black
      if (c.mask[row + std::size_t(x)] == 0) continue;
      const cv::Point2f t = distortion_.map(c.u[row + std::size_t(x)], c.v[row + std::size_t(x)]);
      // The grey sampler's position, without its border pixel.
      const float px = (t.x * float(s.original.width) - 0.5f * float(s.factor - 1)) / float(s.factor);
      const float py = (t.y * float(s.original.height) - 0.5f * float(s.factor - 1)) / float(s.factor);
      if (std::isfinite(px) && std::isfinite(py) && std::fabs(px) < 1e6f && std::fabs(py) < 1e6f) {
        mx[x] = px;
        my[x] = py;
      }
    }
  }
  cv::Mat out;
  cv::remap(s.colour, out, mapX, mapY, cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar::all(0));
  return out;
}

void ShaderRenderer::renderGrey(const std::shared_ptr<Image::UniversalImageInterface>& image, cv::Size size,
                                cv::Mat& grey, int histogram[256]) {
  std::memset(histogram, 0, 256 * sizeof(int));
  if (size.width <= 0 || size.height <= 0 || image->empty()) {
    grey.release();
    return;
  }
  const Source& s = source(image, size);
  const Coordinates& c = coordinates(size);
  Warp w = makeWarp(distortion_, s.original, s.factor, s.colour.size());
  w.stride = static_cast<int>(s.quads.step1());
  if (grey.rows != size.height || grey.cols != c.stride || grey.type() != CV_8UC1) grey.create(size.height, c.stride, CV_8UC1);
  const std::int32_t* quads = s.quads.ptr<std::int32_t>(0);
  const int level = levelSwitch().load();
  // Four tables in turn, so that runs of equal grey levels do not wait on each other.
  int counts[4][256] = {};
  for (int y = 0; y < size.height; ++y) {
    const std::size_t row = static_cast<std::size_t>(y) * static_cast<std::size_t>(c.stride);
    std::uint8_t* out = grey.ptr<std::uint8_t>(y);
    const float* u = c.u.data() + row;
    const float* v = c.v.data() + row;
    const std::int32_t* mask = c.mask.data() + row;
    if (level == 2) {
      greyRowWide(w, u, v, mask, quads, out, size.width);
    } else if (level == 1) {
      greyRowVector(w, u, v, mask, quads, out, size.width);
    } else {
      greyRowPlain(w, u, v, mask, quads, out, 0, size.width);
    }
    int x = 0;
    for (; x + 4 <= size.width; x += 4) {
      ++counts[0][out[x]];
      ++counts[1][out[x + 1]];
      ++counts[2][out[x + 2]];
      ++counts[3][out[x + 3]];
    }
    for (; x < size.width; ++x) ++counts[0][out[x]];
  }
  for (int i = 0; i < 256; ++i) histogram[i] = counts[0][i] + counts[1][i] + counts[2][i] + counts[3][i];
}

}  // namespace ImageSource
