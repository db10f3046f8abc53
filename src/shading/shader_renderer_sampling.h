// The sampling rule every rendering of the CPU renderer follows, written
// once in plain code: where an output pixel reads the working picture (in
// 1/32 pixel), the bilinear interpolation with whole-number weights, and the
// grey a colour pixel has. The colour rendering (ImageShading::Apply) and
// the grey renderings of the parameter search (plain and vectorised) are all
// built from these, so the search's grey picture is exactly the colour
// rendering converted to grey.
//
// Positions. With t = (u, v) the texture coordinate of the output pixel
// (clip matrix and UV grid applied), c the distortion's centre, and every
// multiply-add rounded once (fused):
//     d = 2 t - 2 c            q = fma(dx, dx, dy * dy) * 0.5
//     b = fma(F, q^(p/2), 1)   k = b (polynomial) or 1 / b (division)
//     e = d * k                (per axis)
//     X = fma(ex, kx, x0)      Y = fma(ey, ky, y0)
// where x0, y0 are the padded working picture's position of the centre and
// kx, ky the half field weights, all in 1/32 working pixel. X and Y are
// clamped to [0, 32 (width + 1)] and [0, 32 (height + 1)] (a NaN lands on
// the upper bound) and rounded to the nearest integer, ties to even.
//
// The padded working picture has one zero column and row before the first
// and zero columns and rows after the last; an output pixel reads the 2x2
// neighbourhood at (X >> 5, Y >> 5) with weights from (X & 31, Y & 31):
//     value = ((p00 (32 - ax) + p01 ax) (32 - ay) + (p10 (32 - ax) + p11 ax) ay + 512) >> 10
// which is what OpenCV's bilinear remap computes at 1/32 pixel. A position
// whose neighbourhood lies in the zero border reads 0; a sample "touches"
// the picture exactly when 0 < X < 32 (width + 1) and 0 < Y < 32 (height + 1).
//
// Grey. OpenCV's BGR-to-grey conversion of 8-bit pictures is
//     grey = (3735 B + 19235 G + 9798 R + 16384) >> 15
// (checked against cv::cvtColor over every colour). The colour rendering
// interpolates the three channels and, separately, the working picture's
// grey (that conversion of the working picture), then moves green, and where
// green alone cannot, red and then blue, to the nearest values whose grey is
// the interpolated grey. The two interpolations differ by at most one level
// of grey, so a channel moves by a level or two at most.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "shading/distortion_model.h"

namespace ImageSource {

// The constants of one lens distortion over one working picture.
struct LensWarp {
  float twoCx = 1.0f, twoCy = 1.0f;  // 2 c
  float x0 = 0.0f, y0 = 0.0f;        // padded working position of the centre, 1/32 pixel
  float kx = 0.0f, ky = 0.0f;        // half field weight, 1/32 working pixel per unit of e
  float strength = 0.0f;
  int power = 2;
  bool division = false;
  float hiX = 0.0f, hiY = 0.0f;  // 32 (working width + 1), 32 (working height + 1)
  int hiXi = 0, hiYi = 0;        // the same as integers
};

// `original` is the picture's size, `factor` its whole reduction factor and
// `working` the reduced (working) size.
inline float horizontalWeight(float h, int originalWidth, int factor) {
  return 32.0f * (0.5f * (0.5f + h) * float(originalWidth) / float(factor));
}
inline float verticalWeight(float v, int originalHeight, int factor) {
  return 32.0f * (0.5f * (0.5f + v) * float(originalHeight) / float(factor));
}

inline LensWarp makeLensWarp(const LensDistortion& d, int originalWidth, int originalHeight, int factor,
                             int workingWidth, int workingHeight) {
  const float f = static_cast<float>(factor);
  const float cx = 0.5f + d.shiftX, cy = 0.5f + d.shiftY;
  LensWarp w;
  w.twoCx = 2.0f * cx;
  w.twoCy = 2.0f * cy;
  // Working pixel j covers picture pixels j f .. j f + f - 1, centred on
  // j f + (f - 1) / 2; the padded picture has one border pixel before the first.
  w.x0 = 32.0f * ((cx * float(originalWidth) - 0.5f * (f - 1.0f)) / f + 1.0f);
  w.y0 = 32.0f * ((cy * float(originalHeight) - 0.5f * (f - 1.0f)) / f + 1.0f);
  w.kx = horizontalWeight(d.horizontal, originalWidth, factor);
  w.ky = verticalWeight(d.vertical, originalHeight, factor);
  w.strength = d.strength;
  w.power = d.power;
  w.division = d.method == 1;
  w.hiXi = 32 * (workingWidth + 1);
  w.hiYi = 32 * (workingHeight + 1);
  w.hiX = static_cast<float>(w.hiXi);
  w.hiY = static_cast<float>(w.hiYi);
  return w;
}

// minps / maxps semantics, so that a NaN lands on the upper bound as in the vector paths.
inline float clampPosition(float x, float hi) {
  const float a = x < hi ? x : hi;
  return a > 0.0f ? a : 0.0f;
}

// The radial term e = d k of both axes.
inline void radialTerm(const LensWarp& w, float u2, float v2, float& ex, float& ey) {
  const float dx = u2 - w.twoCx, dy = v2 - w.twoCy;
  const float q = std::fma(dx, dx, dy * dy) * 0.5f;
  const float base = std::fma(w.strength, halfPower(q, w.power), 1.0f);
  const float k = w.division ? 1.0f / base : base;
  ex = dx * k;
  ey = dy * k;
}

// The padded working position in 1/32 pixel of one axis.
inline int fixedPosition(float e, float k, float origin, float hi) {
  return static_cast<int>(std::lrint(clampPosition(std::fma(e, k, origin), hi)));
}

// Bilinear value at 1/32-pixel position (rx, ry) of a padded 8-bit plane
// with `step` bytes a row and `channels` interleaved channels.
inline int interpolate(const std::uint8_t* plane, std::size_t step, int channels, int channel, int rx, int ry) {
  const int ax = rx & 31, ay = ry & 31;
  const std::uint8_t* p = plane + std::size_t(ry >> 5) * step + std::size_t(rx >> 5) * std::size_t(channels) +
                          std::size_t(channel);
  const int a = int(p[0]) * (32 - ax) + int(p[channels]) * ax;
  const int b = int(p[step]) * (32 - ax) + int(p[step + std::size_t(channels)]) * ax;
  return (a * (32 - ay) + b * ay + 512) >> 10;
}

constexpr int kGreyBlue = 3735, kGreyGreen = 19235, kGreyRed = 9798;
inline int greyOf(int b, int g, int r) { return (kGreyBlue * b + kGreyGreen * g + kGreyRed * r + 16384) >> 15; }

// The value of channel c (coefficient `weight`) nearest to `value` for
// which the grey of (rest + weight c) is `grey`, clamped to 0..255; `rest`
// is the other two channels' weighted sum.
inline int nearestFor(int grey, int rest, int weight, int value) {
  // grey * 32768 <= rest + weight c + 16384 < (grey + 1) * 32768
  const int low = grey * 32768 - 16384 - rest;
  const int high = (grey + 1) * 32768 - 16385 - rest;
  const int lowest = low <= 0 ? -((-low) / weight) : (low + weight - 1) / weight;  // ceil(low / weight)
  const int highest = high >= 0 ? high / weight : -((-high + weight - 1) / weight);  // floor(high / weight)
  return std::clamp(std::clamp(value, lowest, highest), 0, 255);
}

// Moves (b, g, r) to the nearest colour whose grey is `grey` (0..255):
// green first, then red, then blue.
inline void matchGrey(int& b, int& g, int& r, int grey) {
  if (greyOf(b, g, r) == grey) return;
  g = nearestFor(grey, kGreyBlue * b + kGreyRed * r, kGreyGreen, g);
  if (greyOf(b, g, r) == grey) return;
  r = nearestFor(grey, kGreyBlue * b + kGreyGreen * g, kGreyRed, r);
  if (greyOf(b, g, r) == grey) return;
  b = nearestFor(grey, kGreyGreen * g + kGreyRed * r, kGreyBlue, b);
}

}  // namespace ImageSource
