// Edge images and the fused evaluation pass of the shader parameter search.
#include "geometry_calibration/matrix_based/shader_brute_forcer_edges.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

// GCC 12 warns about the deliberately undefined start values inside its own
// AVX-512 intrinsics (a known false positive).
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>

#include <opencv2/imgproc.hpp>

namespace GeometryCalibration {
namespace MatrixBased {
namespace {

// One row of the Laplacian [2 0 2; 0 -8 0; 2 0 2] over equalised rows with a
// one-pixel border: |L| saturated to 255, summed, and its absolute difference
// to the reference row summed. The same loop is compiled twice, plain and for
// AVX2 (where the compiler vectorises it); which one runs is chosen once, at
// first use, from the processor's features (see kernelLevel): no ifunc
// resolver that would run before a sanitizer's runtime has started.
inline void laplacianRowLoop(const std::uint8_t* above, const std::uint8_t* centre, const std::uint8_t* below,
                             const std::uint8_t* reference, int width, std::uint32_t& edgeSum,
                             std::uint32_t& differenceSum) {
  std::uint32_t edges = 0, differences = 0;
  for (int x = 0; x < width; ++x) {
    const int corners = int(above[x]) + int(above[x + 2]) + int(below[x]) + int(below[x + 2]);
    const int laplacian = 2 * corners - 8 * int(centre[x + 1]);
    const int magnitude = std::min(std::abs(laplacian), 255);
    edges += static_cast<std::uint32_t>(magnitude);
    differences += static_cast<std::uint32_t>(std::abs(magnitude - int(reference[x])));
  }
  edgeSum = edges;
  differenceSum = differences;
}

void laplacianRow(const std::uint8_t* above, const std::uint8_t* centre, const std::uint8_t* below,
                  const std::uint8_t* reference, int width, std::uint32_t& edgeSum, std::uint32_t& differenceSum) {
  laplacianRowLoop(above, centre, below, reference, width, edgeSum, differenceSum);
}

__attribute__((target("avx2"))) void laplacianRowAvx2(const std::uint8_t* above, const std::uint8_t* centre,
                                                      const std::uint8_t* below, const std::uint8_t* reference,
                                                      int width, std::uint32_t& edgeSum,
                                                      std::uint32_t& differenceSum) {
  laplacianRowLoop(above, centre, below, reference, width, edgeSum, differenceSum);
}

// 0 plain, 1 AVX2, 2 AVX-512 (the most this processor has).
int detectKernelLevel() {
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
      __builtin_cpu_supports("avx512vl")) {
    return 2;
  }
  return __builtin_cpu_supports("avx2") ? 1 : 0;
}

std::atomic<int>& kernelLevelSwitch() {
  static std::atomic<int> level(detectKernelLevel());
  return level;
}

// Thirty-two bytes widened to 16-bit lanes.
__attribute__((target("avx512f,avx512bw,avx512vl"))) inline __m512i bytes(const std::uint8_t* p) {
  return _mm512_cvtepu8_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)));
}

// The same, 32 pixels at a time in 16-bit lanes (|L| <= 2040 fits), the sums
// by sums of absolute byte differences.
__attribute__((target("avx512f,avx512bw,avx512vl"))) void laplacianRowWide(const std::uint8_t* above,
                                                                          const std::uint8_t* centre,
                                                                          const std::uint8_t* below,
                                                                          const std::uint8_t* reference, int width,
                                                                          std::uint32_t& edgeSum,
                                                                          std::uint32_t& differenceSum) {
  const __m512i cap = _mm512_set1_epi16(255);
  const __m256i zero = _mm256_setzero_si256();
  __m256i edges = _mm256_setzero_si256(), differences = _mm256_setzero_si256();
  int x = 0;
  for (; x + 32 <= width; x += 32) {
    const __m512i corners = _mm512_add_epi16(_mm512_add_epi16(bytes(above + x), bytes(above + x + 2)),
                                             _mm512_add_epi16(bytes(below + x), bytes(below + x + 2)));
    const __m512i laplacian =
        _mm512_sub_epi16(_mm512_slli_epi16(corners, 1), _mm512_slli_epi16(bytes(centre + x + 1), 3));
    const __m256i magnitude = _mm512_cvtepi16_epi8(_mm512_min_epi16(_mm512_abs_epi16(laplacian), cap));
    const __m256i ref = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(reference + x));
    edges = _mm256_add_epi64(edges, _mm256_sad_epu8(magnitude, zero));
    differences = _mm256_add_epi64(differences, _mm256_sad_epu8(magnitude, ref));
  }
  alignas(32) std::uint64_t e[4], d[4];
  _mm256_store_si256(reinterpret_cast<__m256i*>(e), edges);
  _mm256_store_si256(reinterpret_cast<__m256i*>(d), differences);
  std::uint32_t edgeTail = 0, differenceTail = 0;
  if (x < width) {
    laplacianRow(above + x, centre + x, below + x, reference + x, width - x, edgeTail, differenceTail);
  }
  edgeSum = static_cast<std::uint32_t>(e[0] + e[1] + e[2] + e[3]) + edgeTail;
  differenceSum = static_cast<std::uint32_t>(d[0] + d[1] + d[2] + d[3]) + differenceTail;
}

void laplacianRowBest(const std::uint8_t* above, const std::uint8_t* centre, const std::uint8_t* below,
                      const std::uint8_t* reference, int width, std::uint32_t& edgeSum, std::uint32_t& differenceSum) {
  switch (kernelLevelSwitch().load(std::memory_order_relaxed)) {
    case 2:
      laplacianRowWide(above, centre, below, reference, width, edgeSum, differenceSum);
      return;
    case 1:
      laplacianRowAvx2(above, centre, below, reference, width, edgeSum, differenceSum);
      return;
    default:
      laplacianRow(above, centre, below, reference, width, edgeSum, differenceSum);
  }
}

// The table look-up of one row, 64 bytes at a time (two-table byte permutes).
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) void lookUpWide(const std::uint8_t* in, std::uint8_t* out,
                                                                        int width, const std::uint8_t table[256]) {
  const __m512i t0 = _mm512_loadu_si512(table), t1 = _mm512_loadu_si512(table + 64);
  const __m512i t2 = _mm512_loadu_si512(table + 128), t3 = _mm512_loadu_si512(table + 192);
  int x = 0;
  for (; x + 64 <= width; x += 64) {
    const __m512i index = _mm512_loadu_si512(in + x);
    const __m512i low = _mm512_permutex2var_epi8(t0, index, t1);
    const __m512i high = _mm512_permutex2var_epi8(t2, index, t3);
    _mm512_storeu_si512(out + x, _mm512_mask_blend_epi8(_mm512_movepi8_mask(index), low, high));
  }
  for (; x < width; ++x) out[x] = table[in[x]];
}

void lookUp(const std::uint8_t* in, std::uint8_t* out, int width, const std::uint8_t table[256]) {
  static const bool vbmi = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx512vbmi") != 0;
  }();
  if (vbmi && kernelLevelSwitch().load(std::memory_order_relaxed) == 2) {
    lookUpWide(in, out, width, table);
    return;
  }
  for (int x = 0; x < width; ++x) out[x] = table[in[x]];
}

}  // namespace

int edgeKernelLevel() { return kernelLevelSwitch().load(); }

void setEdgeKernelLevel(int level) { kernelLevelSwitch().store(std::clamp(level, 0, detectKernelLevel())); }

cv::Mat edgeImageOfGrey(const cv::Mat& grey) {
  cv::Mat equalised, laplacian, edges;
  cv::equalizeHist(grey, equalised);
  cv::Laplacian(equalised, laplacian, CV_16S, 3, 1.0, 0.0, cv::BORDER_REFLECT_101);
  cv::convertScaleAbs(laplacian, edges, 1.0, 0.0);
  return edges;
}

cv::Mat edgeImageOfColour(const cv::Mat& bgr, cv::Size size) {
  cv::Mat resized, grey;
  cv::resize(bgr, resized, size, 0, 0, cv::INTER_LINEAR);
  cv::cvtColor(resized, grey, cv::COLOR_BGR2GRAY);
  return edgeImageOfGrey(grey);
}

void equalisationTable(const int histogram[256], int total, std::uint8_t table[256]) {
  int i = 0;
  while (i < 255 && histogram[i] == 0) ++i;
  if (histogram[i] == total) {
    for (int j = 0; j < 256; ++j) table[j] = static_cast<std::uint8_t>(i);
    return;
  }
  const float scale = 255.0f / float(total - histogram[i]);
  int sum = 0;
  for (table[i++] = 0; i < 256; ++i) {
    sum += histogram[i];
    table[i] = cv::saturate_cast<std::uint8_t>(float(sum) * scale);
  }
}

std::uint64_t stoppingSum(float bound, double count) {
  if (!std::isfinite(bound) || !(count > 0.0)) return UINT64_MAX;
  if (bound < 0.0f) return 0;
  auto above = [&](std::uint64_t sum) { return static_cast<float>(double(sum) / count) > bound; };
  std::uint64_t sum = static_cast<std::uint64_t>(std::floor(double(bound) * count));
  while (sum > 0 && above(sum - 1)) --sum;
  while (!above(sum)) ++sum;
  return sum;
}

EdgeScore edgeScore(const cv::Mat& grey, const int histogram[256], const cv::Mat& reference, EdgeBuffers& buffers,
                    std::uint64_t stopAt, const std::vector<std::uint8_t>* blankRows,
                    const std::vector<std::uint32_t>* referenceRowSums) {
  const int width = reference.cols, height = reference.rows;
  EdgeScore score;
  if (width <= 0 || height <= 0) return score;
  const double count = double(width) * double(height);
  if (width < 2 || height < 2) {
    // Too small for the one-pixel reflection: OpenCV's own sequence.
    const cv::Mat edges = edgeImageOfGrey(grey(cv::Rect(0, 0, width, height)));
    cv::Mat difference;
    cv::absdiff(edges, reference, difference);
    score.mean = cv::mean(edges)[0];
    score.error = static_cast<float>(cv::mean(difference)[0]);
    score.edged = score.mean >= 1.0;
    return score;
  }
  std::uint8_t table[256];
  equalisationTable(histogram, width * height, table);
  // Buffer row p + 1 holds picture row p equalised, with a reflected column
  // on either side; buffer rows 0 and height + 1 the reflected rows 1 and height - 2.
  const std::size_t padded = std::size_t(width) + 2;
  buffers.equalised.resize(padded * std::size_t(height + 2));
  buffers.ready.assign(std::size_t(height), 0);
  std::uint8_t* e = buffers.equalised.data();
  const bool skipBlank = blankRows != nullptr && referenceRowSums != nullptr;
  auto blank = [&](int p) { return skipBlank && (*blankRows)[std::size_t(p)] != 0; };
  auto equalise = [&](int p) {
    if (buffers.ready[std::size_t(p)]) return;
    buffers.ready[std::size_t(p)] = 1;
    std::uint8_t* row = e + std::size_t(p + 1) * padded;
    if (blank(p)) {
      std::memset(row, table[0], padded);
    } else {
      lookUp(grey.ptr<std::uint8_t>(p), row + 1, width, table);
      row[0] = row[2];
      row[width + 1] = row[width - 1];
    }
    if (p == 1) std::memcpy(e, row, padded);
    if (p == height - 2) std::memcpy(e + std::size_t(height + 1) * padded, row, padded);
  };
  std::uint64_t edgeTotal = 0, differenceTotal = 0;
  const std::uint64_t pixels = std::uint64_t(width) * std::uint64_t(height);
  for (int y = 0; y < height; ++y) {
    const int above = y == 0 ? 1 : y - 1, below = y == height - 1 ? height - 2 : y + 1;
    if (blank(y) && blank(above) && blank(below)) {
      // A constant neighbourhood: no edges, the reference's own row as difference.
      differenceTotal += (*referenceRowSums)[std::size_t(y)];
    } else {
      equalise(above);
      equalise(y);
      equalise(below);
      const std::uint8_t* top = e + std::size_t(y) * padded;
      std::uint32_t edges = 0, differences = 0;
      laplacianRowBest(top, top + padded, top + 2 * padded, reference.ptr<std::uint8_t>(y), width, edges,
                       differences);
      edgeTotal += edges;
      differenceTotal += differences;
    }
    if (differenceTotal >= stopAt && edgeTotal >= pixels && y + 1 < height) {
      score.rows = y + 1;
      score.complete = false;
      score.edged = true;
      score.error = std::numeric_limits<float>::infinity();
      return score;
    }
  }
  score.rows = height;
  score.mean = double(edgeTotal) / count;
  score.error = static_cast<float>(double(differenceTotal) / count);
  score.edged = score.mean >= 1.0;
  return score;
}

}  // namespace MatrixBased
}  // namespace GeometryCalibration
