// Grey renderings of a family of lens distortions: distortions that share
// their strength, centre, power and method and differ only in the
// horizontal and vertical field weights (H, V). Within a family the radial
// term e = d k of every output pixel is the same, the horizontal position
// depends on H alone and the vertical one on V alone, so the family keeps
// e, and per H and per V what the sampler needs of each axis; a rendering
// then only combines one H part with one V part. The parameter search walks
// its grid family by family.
//
// Every rendering is exactly the one the sampling rule of
// shading/shader_renderer_sampling.h gives, whichever sampler runs (plain,
// AVX2, AVX-512); the AVX-512 sampler reads each block of 16 output pixels
// from at most five rows of 64 working pixels with byte permutes, and falls
// back to gathers where a block's samples spread further.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include <opencv2/core/mat.hpp>

#include "shading/shader_renderer.h"
#include "shading/shader_renderer_sampling.h"

namespace ImageSource {

class GreyFamily {
 public:
  // Prepares the family of `member` (its H and V are not read) over the
  // working picture and output coordinates of one renderer.
  void prepare(std::shared_ptr<const ShaderRenderer::Source> source,
               std::shared_ptr<const ShaderRenderer::Coordinates> coordinates, const LensDistortion& member);

  // Makes what render(horizontal, vertical) needs of each axis (render
  // makes it itself when it is missing; this lets a caller time it apart).
  void prepareParts(float horizontal, float vertical);

  // The grey rendering of the member with field weights (horizontal,
  // vertical) into `grey` (CV_8UC1, coordinates' size, columns padded to
  // the coordinates' stride; padding and pixels outside the module are 0).
  void render(float horizontal, float vertical, cv::Mat& grey);
  // Two members of the same horizontal weight at once (what the horizontal
  // weight gives the sampler is worked out once): the same bytes as two
  // render calls.
  void render(float horizontal, float vertical, cv::Mat& grey, float secondVertical, cv::Mat& secondGrey);

  // Per output row: 1 where the row shows no module pixel (all 0 in every rendering).
  const std::vector<std::uint8_t>& blankRows() const { return rowBlank_; }
  cv::Size size() const { return coordinates_ ? coordinates_->size : cv::Size(); }

 private:
  // What the AVX-512 sampler needs of one horizontal weight: per pixel its
  // column offset within its block's window and its horizontal weight
  // (offset | weight << 8), per block of 16 the window's first padded
  // column (-1: the block's samples spread too far) and which pixels touch
  // the picture horizontally.
  struct Columns {
    float weight = 0.0f;  // kx
    std::vector<std::uint16_t> offsetAndWeight;
    std::vector<std::int16_t> firstColumn;
    std::vector<std::uint16_t> touching;
  };
  // The same for one vertical weight: per pixel its vertical weight and its
  // row offset (weight | offset << 5, offsets 0..3), per block the first of
  // the rows it reads (-1: spread too far) and which pixels touch.
  struct Rows {
    float weight = 0.0f;  // ky
    std::vector<std::uint8_t> weightAndOffset;
    std::vector<std::int16_t> firstRow;
    std::vector<std::uint16_t> touching;
  };

  template <int kCount>
  void renderSome(float horizontal, const float (&verticals)[kCount], cv::Mat* (&outputs)[kCount]);
  const Columns& columns(float weight);
  const Rows& rows(float weight);
  void fillColumns(Columns& c) const;
  void fillRows(Rows& r) const;

  std::shared_ptr<const ShaderRenderer::Source> source_;
  std::shared_ptr<const ShaderRenderer::Coordinates> coordinates_;
  LensWarp warp_;
  int blocks_ = 0;                      // blocks of 16 a row
  std::vector<float> ex_, ey_;          // e per output pixel; NaN where the pixel shows no module
  std::vector<std::uint8_t> rowBlank_;  // per row
  // Parts made for this family (kept for reuse: their buffers outlive a
  // family; a deque keeps references to earlier parts valid as it grows).
  std::deque<Columns> columns_;
  std::deque<Rows> rows_;
  std::size_t columnsUsed_ = 0, rowsUsed_ = 0;
};

// The histogram of the first `width` columns of `grey`'s rows (rows
// flagged in `blank`, if given, are counted as 0 without being read).
// Counts pairs of neighbouring pixels in a 65,536-entry table (half the
// increments of counting pixels) and folds it; `pairs` is scratch space
// reused between calls.
void greyHistogram(const cv::Mat& grey, int width, const std::vector<std::uint8_t>* blank, int histogram[256],
                   std::vector<std::uint16_t>& pairs);

}  // namespace ImageSource
