// Grey renderings of a family of lens distortions: the radial term, the
// per-axis parts, the three samplers and the pair histogram.
#include "shading/shader_renderer_family.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

// GCC 12 warns about the deliberately undefined start values inside its own
// AVX-512 intrinsics (a known false positive).
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#include <immintrin.h>

namespace ImageSource {
namespace {

constexpr int kBlock = 16;      // output pixels of one block
constexpr int kWindow = 62;     // largest column offset within a block's 64-byte window (the pair needs + 1)
constexpr int kMostRowOffset = 3;  // a block reads rows r .. r + 4

// ---------------------------------------------------------------------------
// The radial term of every output pixel (NaN where the pixel shows no module).

void radialPlain(const LensWarp& w, const float* u2, const float* v2, const std::int32_t* mask, float* ex, float* ey,
                 int begin, int end) {
  for (int x = begin; x < end; ++x) {
    if (mask[x] == 0) {
      ex[x] = ey[x] = std::numeric_limits<float>::quiet_NaN();
      continue;
    }
    radialTerm(w, u2[x], v2[x], ex[x], ey[x]);
  }
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

// [begin, end) multiples of 8.
__attribute__((target("avx2,fma"))) void radialVector(const LensWarp& w, const float* u2, const float* v2,
                                                      const std::int32_t* mask, float* ex, float* ey, int begin,
                                                      int end) {
  const __m256 half = _mm256_set1_ps(0.5f), one = _mm256_set1_ps(1.0f);
  const __m256 twoCx = _mm256_set1_ps(w.twoCx), twoCy = _mm256_set1_ps(w.twoCy);
  const __m256 strength = _mm256_set1_ps(w.strength);
  const __m256 nan = _mm256_set1_ps(std::numeric_limits<float>::quiet_NaN());
  for (int x = begin; x < end; x += 8) {
    const __m256 dx = _mm256_sub_ps(_mm256_loadu_ps(u2 + x), twoCx);
    const __m256 dy = _mm256_sub_ps(_mm256_loadu_ps(v2 + x), twoCy);
    const __m256 q = _mm256_mul_ps(_mm256_fmadd_ps(dx, dx, _mm256_mul_ps(dy, dy)), half);
    const __m256 base = _mm256_fmadd_ps(strength, w.power == 2 ? q : halfPower8(q, w.power), one);
    const __m256 k = w.division ? _mm256_div_ps(one, base) : base;
    const __m256 shown =
        _mm256_castsi256_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(mask + x)));  // all ones or zero
    _mm256_storeu_ps(ex + x, _mm256_blendv_ps(nan, _mm256_mul_ps(dx, k), shown));
    _mm256_storeu_ps(ey + x, _mm256_blendv_ps(nan, _mm256_mul_ps(dy, k), shown));
  }
}

// ---------------------------------------------------------------------------
// The plain sampler: one pixel at a time from the radial term.

void sampleRowPlain(const LensWarp& w, const float* ex, const float* ey, const std::uint8_t* plane, std::size_t step,
                    std::uint8_t* out, int begin, int end) {
  for (int x = begin; x < end; ++x) {
    const int rx = fixedPosition(ex[x], w.kx, w.x0, w.hiX), ry = fixedPosition(ey[x], w.ky, w.y0, w.hiY);
    out[x] = static_cast<std::uint8_t>(interpolate(plane, step, 1, 0, rx, ry));
  }
}

// ---------------------------------------------------------------------------
// The AVX2 sampler: eight pixels at a time, the 2x2 neighbourhoods gathered
// (each gather reads the two bytes of one row and two more).

__attribute__((target("avx2,fma"))) void sampleRowAvx2(const LensWarp& w, const float* ex, const float* ey,
                                                       const std::uint8_t* plane, std::size_t step,
                                                       std::uint8_t* out, int begin, int end) {
  const __m256 kx = _mm256_set1_ps(w.kx), ky = _mm256_set1_ps(w.ky), x0 = _mm256_set1_ps(w.x0),
               y0 = _mm256_set1_ps(w.y0), hiX = _mm256_set1_ps(w.hiX), hiY = _mm256_set1_ps(w.hiY),
               zero = _mm256_setzero_ps();
  const __m256i low5 = _mm256_set1_epi32(31), full = _mm256_set1_epi32(32), rounding = _mm256_set1_epi32(512);
  const __m256i lowWord = _mm256_set1_epi32(0xFFFF), rowStep = _mm256_set1_epi32(static_cast<int>(step));
  const int* base = reinterpret_cast<const int*>(plane);
  const int* below = reinterpret_cast<const int*>(plane + step);
  for (int x = begin; x < end; x += 8) {
    const __m256 px = _mm256_max_ps(_mm256_min_ps(_mm256_fmadd_ps(_mm256_loadu_ps(ex + x), kx, x0), hiX), zero);
    const __m256 py = _mm256_max_ps(_mm256_min_ps(_mm256_fmadd_ps(_mm256_loadu_ps(ey + x), ky, y0), hiY), zero);
    const __m256i rx = _mm256_cvtps_epi32(px), ry = _mm256_cvtps_epi32(py);
    const __m256i ax = _mm256_and_si256(rx, low5), ay = _mm256_and_si256(ry, low5);
    const __m256i address =
        _mm256_add_epi32(_mm256_mullo_epi32(_mm256_srli_epi32(ry, 5), rowStep), _mm256_srli_epi32(rx, 5));
    const __m256i top = _mm256_i32gather_epi32(base, address, 1);
    const __m256i bottom = _mm256_i32gather_epi32(below, address, 1);
    const __m256i quad = _mm256_or_si256(_mm256_and_si256(top, lowWord), _mm256_slli_epi32(bottom, 16));
    // Bytes (32 - ax, ax, 32 - ax, ax) against (p00, p01, p10, p11): words a and b; then a (32 - ay) + b ay.
    const __m256i pair = _mm256_or_si256(_mm256_slli_epi32(ax, 8), _mm256_sub_epi32(full, ax));
    const __m256i rows = _mm256_maddubs_epi16(quad, _mm256_or_si256(pair, _mm256_slli_epi32(pair, 16)));
    const __m256i vertical = _mm256_or_si256(_mm256_slli_epi32(ay, 16), _mm256_sub_epi32(full, ay));
    const __m256i value = _mm256_srli_epi32(_mm256_add_epi32(_mm256_madd_epi16(rows, vertical), rounding), 10);
    const __m128i words = _mm_packus_epi32(_mm256_castsi256_si128(value), _mm256_extracti128_si256(value, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + x), _mm_packus_epi16(words, words));
  }
}

// ---------------------------------------------------------------------------
// The AVX-512 parts and sampler.

#define ORBIVANE_WIDE __attribute__((target("avx512f,avx512bw,avx512vl,avx512vbmi,avx512vnni,fma")))

// Weight tables indexed by the 5-bit fraction: (32 - a, a, 32 - a, a) as
// bytes, and (32 - a, a) as words.
struct WeightTables {
  alignas(64) std::int32_t pair[32];
  alignas(64) std::int32_t vertical[32];
  WeightTables() {
    for (int a = 0; a < 32; ++a) {
      pair[a] = (32 - a) | (a << 8) | ((32 - a) << 16) | (a << 24);
      vertical[a] = (32 - a) | (a << 16);
    }
  }
};
const WeightTables& weightTables() {
  static const WeightTables tables;
  return tables;
}

// The smallest of `value` over the `touching` lanes, tried from the two end
// lanes first (the lanes of a block mostly run in order).
ORBIVANE_WIDE inline int smallestTouching(__m512i value, __mmask16 touching, int limit, bool& exact) {
  const __m512i masked = _mm512_mask_mov_epi32(_mm512_set1_epi32(0x7FFF), touching, value);
  const int ends = std::min(_mm_cvtsi128_si32(_mm512_castsi512_si128(masked)),
                            _mm_extract_epi32(_mm512_extracti32x4_epi32(masked, 3), 3));
  const __m512i offset = _mm512_sub_epi32(value, _mm512_set1_epi32(ends));
  exact = _mm512_mask_cmpgt_epu32_mask(touching, offset, _mm512_set1_epi32(limit)) == 0;
  if (exact) return ends;
  return _mm512_mask_reduce_min_epi32(touching, value);
}

ORBIVANE_WIDE void fillColumnsWide(const LensWarp& w, const float* ex, int blockBegin, int blockEnd,
                                   std::uint16_t* offsetAndWeight, std::int16_t* firstColumn,
                                   std::uint16_t* touchingLanes) {
  const __m512 k = _mm512_set1_ps(w.kx), origin = _mm512_set1_ps(w.x0), hi = _mm512_set1_ps(w.hiX),
               zero = _mm512_setzero_ps();
  const __m512i hiInt = _mm512_set1_epi32(w.hiXi), low5 = _mm512_set1_epi32(31), nothing = _mm512_setzero_si512();
  const __m512i window = _mm512_set1_epi32(kWindow);
  for (int b = blockBegin; b < blockEnd; ++b) {
    const __m512 p = _mm512_max_ps(_mm512_min_ps(_mm512_fmadd_ps(_mm512_loadu_ps(ex + b * kBlock), k, origin), hi), zero);
    const __m512i r = _mm512_cvtps_epi32(p);
    const __mmask16 touching = _mm512_cmpgt_epi32_mask(r, nothing) & _mm512_cmplt_epi32_mask(r, hiInt);
    touchingLanes[b] = touching;
    if (touching == 0) {
      firstColumn[b] = 0;
      continue;
    }
    const __m512i column = _mm512_srli_epi32(r, 5);
    bool exact = false;
    const int first = smallestTouching(column, touching, kWindow, exact);
    const __m512i offset = _mm512_maskz_sub_epi32(touching, column, _mm512_set1_epi32(first));
    if (!exact && _mm512_mask_cmpgt_epu32_mask(touching, offset, window) != 0) {
      firstColumn[b] = -1;  // spread too far: the gathering sampler takes it
      continue;
    }
    firstColumn[b] = static_cast<std::int16_t>(first);
    const __m512i packed = _mm512_or_si512(offset, _mm512_slli_epi32(_mm512_and_si512(r, low5), 8));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(offsetAndWeight + b * kBlock), _mm512_cvtepi32_epi16(packed));
  }
}

ORBIVANE_WIDE void fillRowsWide(const LensWarp& w, const float* ey, int blockBegin, int blockEnd,
                                std::uint8_t* weightAndOffset, std::int16_t* firstRow, std::uint16_t* touchingLanes) {
  const __m512 k = _mm512_set1_ps(w.ky), origin = _mm512_set1_ps(w.y0), hi = _mm512_set1_ps(w.hiY),
               zero = _mm512_setzero_ps();
  const __m512i hiInt = _mm512_set1_epi32(w.hiYi), low5 = _mm512_set1_epi32(31), nothing = _mm512_setzero_si512();
  const __m512i most = _mm512_set1_epi32(kMostRowOffset);
  for (int b = blockBegin; b < blockEnd; ++b) {
    const __m512 p = _mm512_max_ps(_mm512_min_ps(_mm512_fmadd_ps(_mm512_loadu_ps(ey + b * kBlock), k, origin), hi), zero);
    const __m512i r = _mm512_cvtps_epi32(p);
    const __mmask16 touching = _mm512_cmpgt_epi32_mask(r, nothing) & _mm512_cmplt_epi32_mask(r, hiInt);
    touchingLanes[b] = touching;
    if (touching == 0) {
      firstRow[b] = 0;
      continue;
    }
    const __m512i row = _mm512_srli_epi32(r, 5);
    bool exact = false;
    const int first = smallestTouching(row, touching, kMostRowOffset, exact);
    const __m512i offset = _mm512_maskz_sub_epi32(touching, row, _mm512_set1_epi32(first));
    if (!exact && _mm512_mask_cmpgt_epu32_mask(touching, offset, most) != 0) {
      firstRow[b] = -1;
      continue;
    }
    firstRow[b] = static_cast<std::int16_t>(first);
    const __m512i packed = _mm512_or_si512(_mm512_and_si512(r, low5), _mm512_slli_epi32(offset, 5));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(weightAndOffset + b * kBlock), _mm512_cvtepi32_epi8(packed));
  }
}

// What the AVX-512 sampler reads of one vertical part, for one row.
struct RowPartRow {
  float ky;
  const std::uint8_t* weightAndOffset;  // per pixel
  const std::int16_t* firstRow;         // per block
  const std::uint16_t* touching;        // per block
  std::uint8_t* out;
};

// One row's blocks [blockBegin, blockEnd) of the sampler, for kCount
// vertical weights at once against one horizontal part (what the columns
// give is worked out once for all of them).
template <int kCount>
ORBIVANE_WIDE void sampleRowWide(const LensWarp& w, const float* ex, const float* ey, const std::uint8_t* plane,
                                 std::size_t step, const std::uint16_t* offsetAndWeight,
                                 const std::int16_t* firstColumn, const std::uint16_t* touchingX,
                                 const RowPartRow (&parts)[kCount], int blockBegin, int blockEnd) {
  const WeightTables& tables = weightTables();
  const __m512i pairLow = _mm512_load_si512(tables.pair), pairHigh = _mm512_load_si512(tables.pair + 16);
  const __m512i verticalLow = _mm512_load_si512(tables.vertical), verticalHigh = _mm512_load_si512(tables.vertical + 16);
  // Byte 0 of each lane (the column offset) into all four bytes, then + (0, 1, 64, 65):
  // the byte indices of p00, p01 (first row of the pair) and p10, p11 (second).
  const __m512i replicate = _mm512_set4_epi32(0x0C0C0C0C, 0x08080808, 0x04040404, 0x00000000);
  const __m512i spread = _mm512_set1_epi32(0x41400100);
  const __m512i low5 = _mm512_set1_epi32(31), rounding = _mm512_set1_epi32(512);
  const __m512i offset1 = _mm512_set1_epi32(1 << 5), offset2 = _mm512_set1_epi32(2 << 5),
                offset3 = _mm512_set1_epi32(3 << 5);
  const __m512 kx = _mm512_set1_ps(w.kx), x0 = _mm512_set1_ps(w.x0), y0 = _mm512_set1_ps(w.y0),
               hiX = _mm512_set1_ps(w.hiX), hiY = _mm512_set1_ps(w.hiY), zero = _mm512_setzero_ps();
  const __m512i lowWord = _mm512_set1_epi32(0xFFFF), rowStep = _mm512_set1_epi32(static_cast<int>(step));
  for (int b = blockBegin; b < blockEnd; ++b) {
    const bool columnsFit = firstColumn[b] >= 0;
    __m512i index = _mm512_setzero_si512(), pair = _mm512_setzero_si512();
    if (touchingX[b] != 0 && columnsFit) {
      const __m512i columns = _mm512_cvtepu16_epi32(
          _mm256_loadu_si256(reinterpret_cast<const __m256i*>(offsetAndWeight + b * kBlock)));
      index = _mm512_add_epi32(_mm512_shuffle_epi8(columns, replicate), spread);
      pair = _mm512_permutex2var_epi32(pairLow, _mm512_srli_epi32(columns, 8), pairHigh);
    }
    for (int k = 0; k < kCount; ++k) {
      const RowPartRow& part = parts[k];
      std::uint8_t* target = part.out + b * kBlock;
      const __mmask16 shown = static_cast<__mmask16>(touchingX[b] & part.touching[b]);
      if (shown == 0) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(target), _mm_setzero_si128());
        continue;
      }
      __m512i quad, ay, pairWeights = pair;
      if (columnsFit && part.firstRow[b] >= 0) {
        const __m512i rowsAndWeights = _mm512_cvtepu8_epi32(
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(part.weightAndOffset + b * kBlock)));
        ay = _mm512_and_si512(rowsAndWeights, low5);
        const std::uint8_t* top = plane + std::size_t(part.firstRow[b]) * step + std::size_t(firstColumn[b]);
        // Every block reads its first two row pairs (no branch to mispredict
        // on the many blocks whose pixels straddle two rows); the rare third
        // and fourth pairs are read when needed.
        const __m512i row0 = _mm512_loadu_si512(top), row1 = _mm512_loadu_si512(top + step);
        const __m512i row2 = _mm512_loadu_si512(top + 2 * step);
        const __mmask16 second = _mm512_cmpge_epu32_mask(rowsAndWeights, offset1);
        quad = _mm512_mask_blend_epi32(second, _mm512_permutex2var_epi8(row0, index, row1),
                                       _mm512_permutex2var_epi8(row1, index, row2));
        const __mmask16 third = _mm512_cmpge_epu32_mask(rowsAndWeights, offset2);
        if (third != 0) {
          const __m512i row3 = _mm512_loadu_si512(top + 3 * step);
          quad = _mm512_mask_blend_epi32(third, quad, _mm512_permutex2var_epi8(row2, index, row3));
          const __mmask16 fourth = _mm512_cmpge_epu32_mask(rowsAndWeights, offset3);
          if (fourth != 0) {
            const __m512i row4 = _mm512_loadu_si512(top + 4 * step);
            quad = _mm512_mask_blend_epi32(fourth, quad, _mm512_permutex2var_epi8(row3, index, row4));
          }
        }
      } else {
        // Spread too far for one window: positions again from the radial term, neighbourhoods gathered.
        const __m512 px =
            _mm512_max_ps(_mm512_min_ps(_mm512_fmadd_ps(_mm512_loadu_ps(ex + b * kBlock), kx, x0), hiX), zero);
        const __m512 py = _mm512_max_ps(
            _mm512_min_ps(_mm512_fmadd_ps(_mm512_loadu_ps(ey + b * kBlock), _mm512_set1_ps(part.ky), y0), hiY), zero);
        const __m512i rx = _mm512_cvtps_epi32(px), ry = _mm512_cvtps_epi32(py);
        pairWeights = _mm512_permutex2var_epi32(pairLow, _mm512_and_si512(rx, low5), pairHigh);
        ay = _mm512_and_si512(ry, low5);
        const __m512i address =
            _mm512_add_epi32(_mm512_mullo_epi32(_mm512_srli_epi32(ry, 5), rowStep), _mm512_srli_epi32(rx, 5));
        const __m512i topRow = _mm512_i32gather_epi32(address, plane, 1);
        const __m512i bottomRow = _mm512_i32gather_epi32(address, plane + step, 1);
        quad = _mm512_or_si512(_mm512_and_si512(topRow, lowWord), _mm512_slli_epi32(bottomRow, 16));
      }
      const __m512i vertical = _mm512_permutex2var_epi32(verticalLow, ay, verticalHigh);
      const __m512i value = _mm512_maskz_srli_epi32(
          shown, _mm512_dpwssd_epi32(rounding, _mm512_maddubs_epi16(quad, pairWeights), vertical), 10);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(target), _mm512_cvtepi32_epi8(value));
    }
  }
}

// ---------------------------------------------------------------------------
// Folding the pair table (entry low | high << 8 counts neighbouring pixels
// low, high) into the histogram, and clearing it: a value's count is its
// row's sum (as high) plus its column's sum (as low). No sum passes 65,535.

void foldPairsPlain(std::uint16_t* table, int histogram[256]) {
  std::uint16_t columns[256] = {0};
  for (int high = 0; high < 256; ++high) {
    const std::uint16_t* row = table + high * 256;
    std::uint32_t sum = 0;
    for (int low = 0; low < 256; ++low) {
      sum += row[low];
      columns[low] = static_cast<std::uint16_t>(columns[low] + row[low]);
    }
    histogram[high] += static_cast<int>(sum);
  }
  for (int v = 0; v < 256; ++v) histogram[v] += columns[v];
  std::memset(table, 0, 65536 * sizeof(std::uint16_t));
}

// The sums of sixteen vectors' lanes: lane r of the result is rows[r]'s sum.
__attribute__((target("avx512f,avx512bw"))) inline __m512i laneSums(const __m512i rows[16]) {
  __m512i pairs[8], quads[4];
  for (int i = 0; i < 8; ++i) {
    const __m512i a = rows[2 * i], b = rows[2 * i + 1];
    pairs[i] = _mm512_add_epi32(_mm512_unpacklo_epi32(a, b), _mm512_unpackhi_epi32(a, b));
  }
  for (int j = 0; j < 4; ++j) {
    const __m512i a = pairs[2 * j], b = pairs[2 * j + 1];
    // Per 128-bit chunk: that chunk's sums of rows 4j .. 4j + 3.
    quads[j] = _mm512_add_epi64(_mm512_unpacklo_epi64(a, b), _mm512_unpackhi_epi64(a, b));
  }
  const __m512i first = _mm512_add_epi32(_mm512_shuffle_i32x4(quads[0], quads[1], 0x88),
                                         _mm512_shuffle_i32x4(quads[0], quads[1], 0xDD));
  const __m512i second = _mm512_add_epi32(_mm512_shuffle_i32x4(quads[2], quads[3], 0x88),
                                          _mm512_shuffle_i32x4(quads[2], quads[3], 0xDD));
  return _mm512_add_epi32(_mm512_shuffle_i32x4(first, second, 0x88), _mm512_shuffle_i32x4(first, second, 0xDD));
}

__attribute__((target("avx512f,avx512bw"))) void foldPairsWide(std::uint16_t* table, int histogram[256]) {
  __m512i columns[8];
  for (auto& c : columns) c = _mm512_setzero_si512();
  const __m512i lowWord = _mm512_set1_epi32(0xFFFF), zero = _mm512_setzero_si512();
  for (int block = 0; block < 16; ++block) {
    __m512i rows[16];
    for (int r = 0; r < 16; ++r) {
      std::uint16_t* row = table + (block * 16 + r) * 256;
      __m512i sum = zero;
      for (int i = 0; i < 8; ++i) {
        const __m512i v = _mm512_loadu_si512(row + 32 * i);
        columns[i] = _mm512_add_epi16(columns[i], v);  // no column sum passes 65,535
        sum = _mm512_add_epi32(sum, _mm512_add_epi32(_mm512_and_si512(v, lowWord), _mm512_srli_epi32(v, 16)));
        _mm512_storeu_si512(row + 32 * i, zero);
      }
      rows[r] = sum;
    }
    alignas(64) std::int32_t sums[16];
    _mm512_store_si512(sums, laneSums(rows));
    for (int r = 0; r < 16; ++r) histogram[block * 16 + r] += sums[r];
  }
  for (int i = 0; i < 8; ++i) {
    alignas(64) std::uint16_t sums[32];
    _mm512_store_si512(sums, columns[i]);
    for (int k = 0; k < 32; ++k) histogram[32 * i + k] += sums[k];
  }
}

}  // namespace

// ---------------------------------------------------------------------------

void GreyFamily::prepare(std::shared_ptr<const ShaderRenderer::Source> source,
                         std::shared_ptr<const ShaderRenderer::Coordinates> coordinates, const LensDistortion& member) {
  source_ = std::move(source);
  coordinates_ = std::move(coordinates);
  const ShaderRenderer::Source& s = *source_;
  const ShaderRenderer::Coordinates& c = *coordinates_;
  warp_ = makeLensWarp(member, s.original.width, s.original.height, s.factor, s.working.width, s.working.height);
  blocks_ = c.stride / kBlock;
  const std::size_t count = std::size_t(c.stride) * std::size_t(c.size.height);
  ex_.resize(count);
  ey_.resize(count);
  rowBlank_.assign(std::size_t(c.size.height), 1);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const int level = ShaderRenderer::samplerLevel();
  for (int y = 0; y < c.size.height; ++y) {
    const std::size_t row = std::size_t(y) * std::size_t(c.stride);
    float* ex = ex_.data() + row;
    float* ey = ey_.data() + row;
    const int first = c.first[std::size_t(y)], last = c.last[std::size_t(y)];
    if (first >= last) {
      std::fill(ex, ex + c.stride, nan);
      std::fill(ey, ey + c.stride, nan);
      continue;
    }
    rowBlank_[std::size_t(y)] = 0;
    // Whole blocks of 16 around the module's span; NaN outside it.
    const int begin = first / kBlock * kBlock, end = (last + kBlock - 1) / kBlock * kBlock;
    std::fill(ex, ex + begin, nan);
    std::fill(ey, ey + begin, nan);
    std::fill(ex + end, ex + c.stride, nan);
    std::fill(ey + end, ey + c.stride, nan);
    if (level > 0) {
      radialVector(warp_, c.u2.data() + row, c.v2.data() + row, c.mask.data() + row, ex, ey, begin, end);
    } else {
      radialPlain(warp_, c.u2.data() + row, c.v2.data() + row, c.mask.data() + row, ex, ey, begin, end);
    }
  }
  columnsUsed_ = rowsUsed_ = 0;
}

void GreyFamily::fillColumns(Columns& part) const {
  const ShaderRenderer::Coordinates& c = *coordinates_;
  const std::size_t blocks = std::size_t(blocks_) * std::size_t(c.size.height);
  part.offsetAndWeight.resize(blocks * kBlock);
  part.firstColumn.assign(blocks, 0);
  part.touching.assign(blocks, 0);
  LensWarp w = warp_;
  w.kx = part.weight;
  for (int y = 0; y < c.size.height; ++y) {
    if (rowBlank_[std::size_t(y)]) continue;
    const std::size_t row = std::size_t(y) * std::size_t(blocks_);
    const int begin = c.first[std::size_t(y)] / kBlock, end = (c.last[std::size_t(y)] + kBlock - 1) / kBlock;
    fillColumnsWide(w, ex_.data() + row * kBlock, begin, end, part.offsetAndWeight.data() + row * kBlock,
                    part.firstColumn.data() + row, part.touching.data() + row);
  }
}

void GreyFamily::fillRows(Rows& part) const {
  const ShaderRenderer::Coordinates& c = *coordinates_;
  const std::size_t blocks = std::size_t(blocks_) * std::size_t(c.size.height);
  part.weightAndOffset.resize(blocks * kBlock);
  part.firstRow.assign(blocks, 0);
  part.touching.assign(blocks, 0);
  LensWarp w = warp_;
  w.ky = part.weight;
  for (int y = 0; y < c.size.height; ++y) {
    if (rowBlank_[std::size_t(y)]) continue;
    const std::size_t row = std::size_t(y) * std::size_t(blocks_);
    const int begin = c.first[std::size_t(y)] / kBlock, end = (c.last[std::size_t(y)] + kBlock - 1) / kBlock;
    fillRowsWide(w, ey_.data() + row * kBlock, begin, end, part.weightAndOffset.data() + row * kBlock,
                 part.firstRow.data() + row, part.touching.data() + row);
  }
}

const GreyFamily::Columns& GreyFamily::columns(float weight) {
  for (std::size_t i = 0; i < columnsUsed_; ++i)
    if (columns_[i].weight == weight) return columns_[i];
  if (columnsUsed_ == columns_.size()) columns_.emplace_back();
  Columns& part = columns_[columnsUsed_++];
  part.weight = weight;
  fillColumns(part);
  return part;
}

const GreyFamily::Rows& GreyFamily::rows(float weight) {
  for (std::size_t i = 0; i < rowsUsed_; ++i)
    if (rows_[i].weight == weight) return rows_[i];
  if (rowsUsed_ == rows_.size()) rows_.emplace_back();
  Rows& part = rows_[rowsUsed_++];
  part.weight = weight;
  fillRows(part);
  return part;
}

void GreyFamily::prepareParts(float horizontal, float vertical) {
  if (ShaderRenderer::samplerLevel() != 2) return;
  const ShaderRenderer::Source& s = *source_;
  columns(horizontalWeight(horizontal, s.original.width, s.factor));
  rows(verticalWeight(vertical, s.original.height, s.factor));
}

void GreyFamily::render(float horizontal, float vertical, cv::Mat& grey) {
  const float verticals[1] = {vertical};
  cv::Mat* outputs[1] = {&grey};
  renderSome<1>(horizontal, verticals, outputs);
}

void GreyFamily::render(float horizontal, float vertical, cv::Mat& grey, float secondVertical, cv::Mat& secondGrey) {
  if (ShaderRenderer::samplerLevel() != 2) {
    render(horizontal, vertical, grey);
    render(horizontal, secondVertical, secondGrey);
    return;
  }
  const float verticals[2] = {vertical, secondVertical};
  cv::Mat* outputs[2] = {&grey, &secondGrey};
  renderSome<2>(horizontal, verticals, outputs);
}

template <int kCount>
void GreyFamily::renderSome(float horizontal, const float (&verticals)[kCount], cv::Mat* (&outputs)[kCount]) {
  const ShaderRenderer::Source& s = *source_;
  const ShaderRenderer::Coordinates& c = *coordinates_;
  for (cv::Mat* grey : outputs) {
    if (grey->rows != c.size.height || grey->cols != c.stride || grey->type() != CV_8UC1)
      grey->create(c.size.height, c.stride, CV_8UC1);
  }
  LensWarp w = warp_;
  w.kx = horizontalWeight(horizontal, s.original.width, s.factor);
  const std::uint8_t* plane = s.plane.ptr<std::uint8_t>(0);
  const std::size_t step = s.plane.step[0];
  const int level = ShaderRenderer::samplerLevel();
  const Columns* columnPart = level == 2 ? &columns(w.kx) : nullptr;
  const Rows* rowParts[kCount] = {};
  float ky[kCount];
  for (int k = 0; k < kCount; ++k) {
    ky[k] = verticalWeight(verticals[k], s.original.height, s.factor);
    if (level == 2) rowParts[k] = &rows(ky[k]);
  }
  for (int y = 0; y < c.size.height; ++y) {
    if (rowBlank_[std::size_t(y)]) {
      for (cv::Mat* grey : outputs) std::memset(grey->ptr<std::uint8_t>(y), 0, std::size_t(c.stride));
      continue;
    }
    const std::size_t row = std::size_t(y) * std::size_t(c.stride);
    const int blockBegin = c.first[std::size_t(y)] / kBlock;
    const int blockEnd = (c.last[std::size_t(y)] + kBlock - 1) / kBlock;
    for (cv::Mat* grey : outputs) {
      std::uint8_t* out = grey->ptr<std::uint8_t>(y);
      std::memset(out, 0, std::size_t(blockBegin * kBlock));
      std::memset(out + blockEnd * kBlock, 0, std::size_t(c.stride - blockEnd * kBlock));
    }
    const float* ex = ex_.data() + row;
    const float* ey = ey_.data() + row;
    if (level == 2) {
      const std::size_t blocks = std::size_t(y) * std::size_t(blocks_);
      RowPartRow parts[kCount];
      for (int k = 0; k < kCount; ++k) {
        cv::Mat* grey = outputs[k];
        const Rows* part = rowParts[k];
        parts[k].ky = ky[k];
        parts[k].weightAndOffset = part->weightAndOffset.data() + row;
        parts[k].firstRow = part->firstRow.data() + blocks;
        parts[k].touching = part->touching.data() + blocks;
        parts[k].out = grey->ptr<std::uint8_t>(y);
      }
      sampleRowWide<kCount>(w, ex, ey, plane, step, columnPart->offsetAndWeight.data() + row,
                            columnPart->firstColumn.data() + blocks, columnPart->touching.data() + blocks, parts,
                            blockBegin, blockEnd);
    } else {
      for (int k = 0; k < kCount; ++k) {
        LensWarp member = w;
        member.ky = ky[k];
        cv::Mat* grey = outputs[k];
        std::uint8_t* out = grey->ptr<std::uint8_t>(y);
        if (level == 1) {
          sampleRowAvx2(member, ex, ey, plane, step, out, blockBegin * kBlock, blockEnd * kBlock);
        } else {
          sampleRowPlain(member, ex, ey, plane, step, out, blockBegin * kBlock, blockEnd * kBlock);
        }
      }
    }
  }
}

void greyHistogram(const cv::Mat& grey, int width, const std::vector<std::uint8_t>* blank, int histogram[256],
                   std::vector<std::uint16_t>& pairs) {
  std::memset(histogram, 0, 256 * sizeof(int));
  // The table is all zero between calls (the last fold clears it).
  if (pairs.size() != 65536) pairs.assign(65536, 0);
  std::uint16_t* table = pairs.data();
  std::uint32_t counted = 0;  // pairs in the table: folded before an entry could pass 65,535
  auto fold = [&] {
    if (ShaderRenderer::samplerLevel() == 2) {
      foldPairsWide(table, histogram);
    } else {
      foldPairsPlain(table, histogram);
    }
    counted = 0;
  };
  const int whole = width / 16 * 16;
  for (int y = 0; y < grey.rows; ++y) {
    if (blank != nullptr && (*blank)[std::size_t(y)]) {
      histogram[0] += width;
      continue;
    }
    if (counted > 65535u - std::uint32_t(width)) fold();
    const std::uint8_t* row = grey.ptr<std::uint8_t>(y);
    for (int x = 0; x < whole; x += 16) {
      std::uint64_t a, b;
      std::memcpy(&a, row + x, 8);
      std::memcpy(&b, row + x + 8, 8);
      if ((a | b) == 0) {  // outside the picture
        table[0] = static_cast<std::uint16_t>(table[0] + 8);
        continue;
      }
      std::uint16_t pair[8];
      std::memcpy(pair, row + x, 16);
      for (int k = 0; k < 8; ++k) ++table[pair[k]];
    }
    counted += std::uint32_t(whole / 2);
    for (int x = whole; x < width; ++x) ++histogram[row[x]];
  }
  fold();
}

}  // namespace ImageSource
