// The edge images the shader parameter search compares, and the fused
// evaluation pass. An edge image is: grey, histogram equalisation, Laplacian
// (16-bit signed, aperture 3, scale 1, offset 0, reflect-101 border) and the
// absolute value saturated to 8 bits. The fused pass gives exactly what
// OpenCV's sequence (equalizeHist, Laplacian, convertScaleAbs, mean, absdiff,
// mean) gives: row by row it equalises the next row by table look-up, takes
// the Laplacian of the row before and sums its magnitude and its difference
// to the reference; it may stop as soon as the difference alone shows that
// the error passes a bound.
#pragma once

#include <cstdint>
#include <vector>

#include <opencv2/core/mat.hpp>

namespace GeometryCalibration {
namespace MatrixBased {

// The reference's edge image: `bgr` (8-bit, 3 channels) resized to `size`
// with linear interpolation, then the steps above.
cv::Mat edgeImageOfColour(const cv::Mat& bgr, cv::Size size);
// The steps above from an 8-bit grey picture.
cv::Mat edgeImageOfGrey(const cv::Mat& grey);

struct EdgeScore {
  double mean = 0.0;   // mean of the picture's edge image (complete scores only)
  float error = 0.0f;  // mean absolute difference to the reference's edge image (complete scores only)
  bool complete = true;   // false: stopped early, the error is above the bound
  bool edged = true;      // the mean is at least 1.0 (known also when stopped)
  int rows = 0;           // rows summed
};

// The smallest difference sum over `count` pixels whose error
// (float(sum / count)) is above `bound`: a score may stop once its
// difference sum reaches it. The largest value for an infinite bound.
std::uint64_t stoppingSum(float bound, double count);

// Reused between evaluations of one thread.
struct EdgeBuffers {
  std::vector<std::uint8_t> equalised;  // (rows + 2) x (columns + 2), reflect-101 border
  std::vector<std::uint8_t> ready;      // per row: equalised already
};

// The score of a grey picture (the first reference.cols columns of `grey`
// count; `histogram` is theirs) against the reference edge image of the same
// size. The score stops (complete false) once the difference sum reaches
// `stopAt` and the mean is known to be at least 1.0. `blankRows` (optional,
// one per row) marks rows known to be all 0, which the pass does not read;
// `referenceRowSums` (with it) holds each reference row's sum.
EdgeScore edgeScore(const cv::Mat& grey, const int histogram[256], const cv::Mat& reference, EdgeBuffers& buffers,
                    std::uint64_t stopAt = UINT64_MAX, const std::vector<std::uint8_t>* blankRows = nullptr,
                    const std::vector<std::uint32_t>* referenceRowSums = nullptr);

// Which row kernels the score runs: 0 plain, 1 AVX2, 2 AVX-512 (at first
// the most the processor has). All give the same bytes; setting a level
// above what the processor has takes the most it has (tests compare them).
int edgeKernelLevel();
void setEdgeKernelLevel(int level);

// The histogram-equalisation table of a histogram of `total` pixels, as
// OpenCV's equalizeHist builds it.
void equalisationTable(const int histogram[256], int total, std::uint8_t table[256]);

}  // namespace MatrixBased
}  // namespace GeometryCalibration
