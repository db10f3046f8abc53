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
// working-picture position in 1/32 pixel is X = x0 + kx * dx * k (and
// likewise Y).
struct Warp {
  float twoCx, twoCy;  // 2 c: d = 2 t - 2 c
  float x0, y0;        // padded working position of the centre, 1/32 pixel
  float kx, ky;        // half field weight, 1/32 working pixel
  float strength;
  int power;
  bool division;
  float hiX, hiY;      // clamp: the last border column/row of the padded picture, 1/32 pixel
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
  w.x0 = 32.0f * ((cx * float(original.width) - 0.5f * (f - 1.0f)) / f + 1.0f);
  w.y0 = 32.0f * ((cy * float(original.height) - 0.5f * (f - 1.0f)) / f + 1.0f);
  w.kx = 32.0f * (0.5f * (0.5f + d.horizontal) * float(original.width) / f);
  w.ky = 32.0f * (0.5f * (0.5f + d.vertical) * float(original.height) / f);
  w.strength = d.strength;
  w.power = d.power;
  w.division = d.method == 1;
  w.hiX = 32.0f * float(working.width + 1);
  w.hiY = 32.0f * float(working.height + 1);
  return w;
}

// minps / maxps semantics, so that a NaN lands on the border like in the vector paths.
inline float clampLike(float x, float hi) {
  const float a = x < hi ? x : hi;
  return a > 0.0f ? a : 0.0f;
}

// Every multiply-add below is written as a fused one, in all three paths, so
// that they round alike whatever the compiler contracts.

// One pixel, plain.
inline std::uint8_t samplePlain(const Warp& w, float u2, float v2, std::int32_t mask, const std::int32_t* quads) {
  const float dx = u2 - w.twoCx, dy = v2 - w.twoCy;
  const float q = std::fma(dx, dx, dy * dy) * 0.5f;
  const float base = std::fma(w.strength, halfPower(q, w.power), 1.0f);
  const float k = w.division ? 1.0f / base : base;
  const float px = clampLike(std::fma(w.kx * dx, k, w.x0), w.hiX);
  const float py = clampLike(std::fma(w.ky * dy, k, w.y0), w.hiY);
  const int rx = static_cast<int>(std::lrint(px)), ry = static_cast<int>(std::lrint(py));
  const int ax = rx & 31, ay = ry & 31;
  const std::uint32_t quad = static_cast<std::uint32_t>(quads[(ry >> 5) * w.stride + (rx >> 5)]);
  const int a = int(quad & 0xFF) * (32 - ax) + int((quad >> 8) & 0xFF) * ax;
  const int b = int((quad >> 16) & 0xFF) * (32 - ax) + int(quad >> 24) * ax;
  return static_cast<std::uint8_t>(((a * (32 - ay) + b * ay + 512) >> 10) & mask);
}

void greyRowPlain(const Warp& w, const float* u2, const float* v2, const std::int32_t* mask,
                  const std::int32_t* quads, std::uint8_t* out, int begin, int end) {
  for (int x = begin; x < end; ++x) out[x] = samplePlain(w, u2[x], v2[x], mask[x], quads);
}

// q^(p/2) on eight lanes, the same operations as halfPower.
__attribute__((target("avx2,fma"))) inline __m256 halfPower8(__m256 q, int p) {
  __m256 result = (p & 1) ? _mm256_sqrt_ps(q) : _mm256_set1_ps(1.0f);
  __m256 base = q;
  for (int n = p >> 1; n > 0; n >>= 1) {
    if (n & 1) result = _mm256_mul_ps(result, base);
    base = _mm256_mul_ps(base, base);
  }
  return result;
}

// Pixels [begin, end) of one row, eight at a time (begin and end multiples
// of 8 within the padded row). Square: the power is 2, q^(p/2) = q.
template <bool Square>
__attribute__((target("avx2,fma"))) void greyRowVector(const Warp& w, const float* u2, const float* v2,
                                                       const std::int32_t* mask, const std::int32_t* quads,
                                                       std::uint8_t* out, int begin, int end) {
  const __m256 half = _mm256_set1_ps(0.5f), one = _mm256_set1_ps(1.0f);
  const __m256 twoCx = _mm256_set1_ps(w.twoCx), twoCy = _mm256_set1_ps(w.twoCy);
  const __m256 x0 = _mm256_set1_ps(w.x0), y0 = _mm256_set1_ps(w.y0);
  const __m256 kx = _mm256_set1_ps(w.kx), ky = _mm256_set1_ps(w.ky);
  const __m256 strength = _mm256_set1_ps(w.strength);
  const __m256 hiX = _mm256_set1_ps(w.hiX), hiY = _mm256_set1_ps(w.hiY), zero = _mm256_setzero_ps();
  const __m256i stride = _mm256_set1_epi32(w.stride), low5 = _mm256_set1_epi32(31), full = _mm256_set1_epi32(32);
  const __m256i rounding = _mm256_set1_epi32(512);
  for (int x = begin; x < end; x += 8) {
    const __m256 dx = _mm256_sub_ps(_mm256_loadu_ps(u2 + x), twoCx);
    const __m256 dy = _mm256_sub_ps(_mm256_loadu_ps(v2 + x), twoCy);
    const __m256 q = _mm256_mul_ps(_mm256_fmadd_ps(dx, dx, _mm256_mul_ps(dy, dy)), half);
    const __m256 base = _mm256_fmadd_ps(strength, Square ? q : halfPower8(q, w.power), one);
    const __m256 k = w.division ? _mm256_div_ps(one, base) : base;
    const __m256 px = _mm256_max_ps(_mm256_min_ps(_mm256_fmadd_ps(_mm256_mul_ps(kx, dx), k, x0), hiX), zero);
    const __m256 py = _mm256_max_ps(_mm256_min_ps(_mm256_fmadd_ps(_mm256_mul_ps(ky, dy), k, y0), hiY), zero);
    const __m256i rx = _mm256_cvtps_epi32(px), ry = _mm256_cvtps_epi32(py);
    const __m256i ax = _mm256_and_si256(rx, low5), ay = _mm256_and_si256(ry, low5);
    // One load a pixel: its 2x2 neighbourhood is packed in one element.
    const __m256i index =
        _mm256_add_epi32(_mm256_mullo_epi32(_mm256_srli_epi32(ry, 5), stride), _mm256_srli_epi32(rx, 5));
    const __m256i quad = _mm256_i32gather_epi32(reinterpret_cast<const int*>(quads), index, 4);
    // Bytes (32 - ax, ax, 32 - ax, ax) against (p00, p01, p10, p11): words a and b; then a (32 - ay) + b ay.
    const __m256i pair = _mm256_or_si256(_mm256_slli_epi32(ax, 8), _mm256_sub_epi32(full, ax));
    const __m256i rows = _mm256_maddubs_epi16(quad, _mm256_or_si256(pair, _mm256_slli_epi32(pair, 16)));
    const __m256i vertical = _mm256_or_si256(_mm256_slli_epi32(ay, 16), _mm256_sub_epi32(full, ay));
    const __m256i value = _mm256_srli_epi32(_mm256_add_epi32(_mm256_madd_epi16(rows, vertical), rounding), 10);
    const __m256i bytes = _mm256_and_si256(value, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(mask + x)));
    const __m128i words = _mm_packus_epi32(_mm256_castsi256_si128(bytes), _mm256_extracti128_si256(bytes, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + x), _mm_packus_epi16(words, words));
  }
}

// q^(p/2) on sixteen lanes.
__attribute__((target("avx512f,avx512bw,avx512dq,avx512vl,fma"))) inline __m512 halfPower16(__m512 q, int p) {
  __m512 result = (p & 1) ? _mm512_sqrt_ps(q) : _mm512_set1_ps(1.0f);
  __m512 base = q;
  for (int n = p >> 1; n > 0; n >>= 1) {
    if (n & 1) result = _mm512_mul_ps(result, base);
    base = _mm512_mul_ps(base, base);
  }
  return result;
}

// Pixels [begin, end) of one row, sixteen at a time (multiples of 16).
template <bool Square>
__attribute__((target("avx512f,avx512bw,avx512dq,avx512vl,fma"))) void greyRowWide(const Warp& w, const float* u2,
                                                                                    const float* v2,
                                                                                    const std::int32_t* mask,
                                                                                    const std::int32_t* quads,
                                                                                    std::uint8_t* out, int begin,
                                                                                    int end) {
  const __m512 half = _mm512_set1_ps(0.5f), one = _mm512_set1_ps(1.0f);
  const __m512 twoCx = _mm512_set1_ps(w.twoCx), twoCy = _mm512_set1_ps(w.twoCy);
  const __m512 x0 = _mm512_set1_ps(w.x0), y0 = _mm512_set1_ps(w.y0);
  const __m512 kx = _mm512_set1_ps(w.kx), ky = _mm512_set1_ps(w.ky);
  const __m512 strength = _mm512_set1_ps(w.strength);
  const __m512 hiX = _mm512_set1_ps(w.hiX), hiY = _mm512_set1_ps(w.hiY), zero = _mm512_setzero_ps();
  const __m512i stride = _mm512_set1_epi32(w.stride), low5 = _mm512_set1_epi32(31), full = _mm512_set1_epi32(32);
  const __m512i rounding = _mm512_set1_epi32(512);
  const __m512i oneRow = _mm512_set1_epi32(1), window = _mm512_set1_epi32(32);
  for (int x = begin; x < end; x += 16) {
    const __m512 dx = _mm512_sub_ps(_mm512_loadu_ps(u2 + x), twoCx);
    const __m512 dy = _mm512_sub_ps(_mm512_loadu_ps(v2 + x), twoCy);
    const __m512 q = _mm512_mul_ps(_mm512_fmadd_ps(dx, dx, _mm512_mul_ps(dy, dy)), half);
    const __m512 base = _mm512_fmadd_ps(strength, Square ? q : halfPower16(q, w.power), one);
    const __m512 k = w.division ? _mm512_div_ps(one, base) : base;
    const __m512 px = _mm512_max_ps(_mm512_min_ps(_mm512_fmadd_ps(_mm512_mul_ps(kx, dx), k, x0), hiX), zero);
    const __m512 py = _mm512_max_ps(_mm512_min_ps(_mm512_fmadd_ps(_mm512_mul_ps(ky, dy), k, y0), hiY), zero);
    const __m512i rx = _mm512_cvtps_epi32(px), ry = _mm512_cvtps_epi32(py);
    const __m512i ax = _mm512_and_si512(rx, low5), ay = _mm512_and_si512(ry, low5);
    const __m512i iy = _mm512_srli_epi32(ry, 5), ix = _mm512_srli_epi32(rx, 5);
    // Mostly the sixteen pixels draw from two neighbouring rows and a run of
    // fewer than 32 columns: two permutes of four loads then do the gather's work.
    const int firstRow = std::min(_mm_cvtsi128_si32(_mm512_castsi512_si128(iy)),
                                  _mm_extract_epi32(_mm512_extracti32x4_epi32(iy, 3), 3));
    const int firstColumn = _mm_cvtsi128_si32(_mm512_castsi512_si128(ix)) - 4;
    const __m512i rowOffset = _mm512_sub_epi32(iy, _mm512_set1_epi32(firstRow));
    const __m512i columnOffset = _mm512_sub_epi32(ix, _mm512_set1_epi32(firstColumn));
    const __mmask16 near = _mm512_cmple_epu32_mask(rowOffset, oneRow) & _mm512_cmplt_epu32_mask(columnOffset, window);
    __m512i quad;
    if (near == 0xFFFF && firstColumn >= 0 && firstColumn + 32 <= w.stride) {
      const std::int32_t* top = quads + std::ptrdiff_t(firstRow) * w.stride + firstColumn;
      const std::int32_t* next = top + w.stride;
      const __m512i upper =
          _mm512_permutex2var_epi32(_mm512_loadu_si512(top), columnOffset, _mm512_loadu_si512(top + 16));
      const __m512i lower =
          _mm512_permutex2var_epi32(_mm512_loadu_si512(next), columnOffset, _mm512_loadu_si512(next + 16));
      quad = _mm512_mask_blend_epi32(_mm512_test_epi32_mask(rowOffset, rowOffset), upper, lower);
    } else {
      quad = _mm512_i32gather_epi32(_mm512_add_epi32(_mm512_mullo_epi32(iy, stride), ix), quads, 4);
    }
    const __m512i pair = _mm512_or_si512(_mm512_slli_epi32(ax, 8), _mm512_sub_epi32(full, ax));
    const __m512i rows = _mm512_maddubs_epi16(quad, _mm512_or_si512(pair, _mm512_slli_epi32(pair, 16)));
    const __m512i vertical = _mm512_or_si512(_mm512_slli_epi32(ay, 16), _mm512_sub_epi32(full, ay));
    const __m512i value = _mm512_srli_epi32(_mm512_add_epi32(_mm512_madd_epi16(rows, vertical), rounding), 10);
    const __m512i bytes = _mm512_and_si512(value, _mm512_loadu_si512(mask + x));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), _mm512_cvtepi32_epi8(bytes));
  }
}

// 0 plain, 1 AVX2, 2 AVX-512.
int detectLevel() {
  if (!__builtin_cpu_supports("fma")) return 0;
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

bool sameGrid(const Utils::Optional<Utils::UVGrid>& a, const Utils::Optional<Utils::UVGrid>& b) {
  return a.has_value() == b.has_value() && (!a || !(*a != *b));
}

}  // namespace

ShaderRenderer::ShaderRenderer() : homography_(cv::Matx33d::eye()) {}

bool ShaderRenderer::vectorised() { return levelSwitch().load() > 0; }
void ShaderRenderer::setVectorised(bool on) { levelSwitch().store(on ? detectLevel() : 0); }
int ShaderRenderer::samplerLevel() { return levelSwitch().load(); }
void ShaderRenderer::setSamplerLevel(int level) { levelSwitch().store(std::clamp(level, 0, detectLevel())); }

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
  if (factor == 1) {
    s->colour = picture;
  } else {
    // Whole boxes of factor x factor pixels: the last partial box is left out.
    const cv::Size working(picture.cols / factor, picture.rows / factor);
    cv::resize(picture(cv::Rect(0, 0, working.width * factor, working.height * factor)), s->colour, working, 0, 0,
               cv::INTER_AREA);
  }
  cv::Mat grey;
  cv::cvtColor(s->colour, grey, cv::COLOR_BGR2GRAY);
  cv::Mat bordered;
  cv::copyMakeBorder(grey, bordered, 1, 3, 1, 3, cv::BORDER_CONSTANT, cv::Scalar(0));
  s->quads = cv::Mat::zeros(grey.rows + 3, grey.cols + 3, CV_32SC1);
  for (int y = 0; y < s->quads.rows; ++y) {
    const std::uint8_t* top = bordered.ptr<std::uint8_t>(y);
    const std::uint8_t* bottom = bordered.ptr<std::uint8_t>(y + 1);
    std::uint32_t* row = s->quads.ptr<std::uint32_t>(y);
    for (int x = 0; x < s->quads.cols; ++x) {
      row[x] = std::uint32_t(top[x]) | std::uint32_t(top[x + 1]) << 8 | std::uint32_t(bottom[x]) << 16 |
               std::uint32_t(bottom[x + 1]) << 24;
    }
  }
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
    for (int y = 0; y < size.height; ++y) {
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
        const std::size_t k = static_cast<std::size_t>(y) * static_cast<std::size_t>(c->stride) + std::size_t(x);
        c->u2[k] = 2.0f * tu;
        c->v2[k] = 2.0f * tv;
        c->mask[k] = -1;
        first = std::min(first, x);
        last = x + 1;
      }
      if (first < last) {
        c->first[std::size_t(y)] = first;
        c->last[std::size_t(y)] = last;
      }
    }
  }
  coordinates_ = std::move(c);
  return coordinates_;
}

void ShaderRenderer::fillMaps(const Coordinates& c, cv::Size original, int factor, cv::Mat& mapX,
                              cv::Mat& mapY) const {
  const cv::Size size = c.size;
  mapX.create(size, CV_32FC1);
  mapY.create(size, CV_32FC1);
  for (int y = 0; y < size.height; ++y) {
    float* mx = mapX.ptr<float>(y);
    float* my = mapY.ptr<float>(y);
    const std::size_t row = static_cast<std::size_t>(y) * static_cast<std::size_t>(c.stride);
    for (int x = 0; x < size.width; ++x) {
      mx[x] = my[x] = -10.0f;  // black
      if (c.mask[row + std::size_t(x)] == 0) continue;
      const cv::Point2f t = distortion_.map(0.5f * c.u2[row + std::size_t(x)], 0.5f * c.v2[row + std::size_t(x)]);
      // The grey sampler's position, without its border pixel.
      const float px = (t.x * float(original.width) - 0.5f * float(factor - 1)) / float(factor);
      const float py = (t.y * float(original.height) - 0.5f * float(factor - 1)) / float(factor);
      if (std::isfinite(px) && std::isfinite(py) && std::fabs(px) < 1e6f && std::fabs(py) < 1e6f) {
        mx[x] = px;
        my[x] = py;
      }
    }
  }
}

void ShaderRenderer::pictureMaps(cv::Size picture, cv::Size size, cv::Mat& mapX, cv::Mat& mapY) {
  if (size.width <= 0 || size.height <= 0) {
    mapX.release();
    mapY.release();
    return;
  }
  fillMaps(*coordinates(size), picture, 1, mapX, mapY);
}

cv::Mat ShaderRenderer::renderColour(const std::shared_ptr<Image::UniversalImageInterface>& image, cv::Size size) {
  if (size.width <= 0 || size.height <= 0 || image->empty()) return cv::Mat();
  const std::shared_ptr<const Source> s = source(image, size);
  const std::shared_ptr<const Coordinates> c = coordinates(size);
  cv::Mat mapX, mapY;
  fillMaps(*c, s->original, s->factor, mapX, mapY);
  cv::Mat out;
  cv::remap(s->colour, out, mapX, mapY, cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar::all(0));
  return out;
}

void ShaderRenderer::renderGrey(const std::shared_ptr<Image::UniversalImageInterface>& image, cv::Size size,
                                cv::Mat& grey, int histogram[256]) {
  std::memset(histogram, 0, 256 * sizeof(int));
  if (size.width <= 0 || size.height <= 0 || image->empty()) {
    grey.release();
    return;
  }
  const std::shared_ptr<const Source> s = source(image, size);
  const std::shared_ptr<const Coordinates> c = coordinates(size);
  Warp w = makeWarp(distortion_, s->original, s->factor, s->colour.size());
  w.stride = static_cast<int>(s->quads.step1());
  if (grey.rows != size.height || grey.cols != c->stride || grey.type() != CV_8UC1) {
    grey.create(size.height, c->stride, CV_8UC1);
  }
  const std::int32_t* quads = s->quads.ptr<std::int32_t>(0);
  const int level = levelSwitch().load();
  const bool square = w.power == 2;
  // Four tables in turn, so that runs of equal grey levels do not wait on each other.
  int counts[4][256] = {};
  int black = 0;  // pixels left of and right of the module's span
  for (int y = 0; y < size.height; ++y) {
    const std::size_t row = static_cast<std::size_t>(y) * static_cast<std::size_t>(c->stride);
    std::uint8_t* out = grey.ptr<std::uint8_t>(y);
    const float* u2 = c->u2.data() + row;
    const float* v2 = c->v2.data() + row;
    const std::int32_t* mask = c->mask.data() + row;
    int begin = c->first[std::size_t(y)], end = c->last[std::size_t(y)];
    if (level > 0) {
      // Whole blocks of sixteen within the padded row; the mask blackens what they take in besides.
      begin = begin / 16 * 16;
      end = begin < end ? (end + 15) / 16 * 16 : begin;
    }
    std::memset(out, 0, std::size_t(begin));
    std::memset(out + end, 0, std::size_t(c->stride - end));
    if (level == 2) {
      if (square) {
        greyRowWide<true>(w, u2, v2, mask, quads, out, begin, end);
      } else {
        greyRowWide<false>(w, u2, v2, mask, quads, out, begin, end);
      }
    } else if (level == 1) {
      if (square) {
        greyRowVector<true>(w, u2, v2, mask, quads, out, begin, end);
      } else {
        greyRowVector<false>(w, u2, v2, mask, quads, out, begin, end);
      }
    } else {
      greyRowPlain(w, u2, v2, mask, quads, out, begin, end);
    }
    const int counted = std::min(end, size.width);
    black += size.width - (counted - std::min(begin, counted));
    int x = std::min(begin, counted);
    for (; x + 4 <= counted; x += 4) {
      ++counts[0][out[x]];
      ++counts[1][out[x + 1]];
      ++counts[2][out[x + 2]];
      ++counts[3][out[x + 3]];
    }
    for (; x < counted; ++x) ++counts[0][out[x]];
  }
  for (int i = 0; i < 256; ++i) histogram[i] = counts[0][i] + counts[1][i] + counts[2][i] + counts[3][i];
  histogram[0] += black;
}

}  // namespace ImageSource
