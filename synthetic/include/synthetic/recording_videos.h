// Test videos for the recordings tests: short MJPG files whose frames carry
// their own number (binary blocks along the top edge, which survive JPEG
// compression), a real walker from vtest.avi crossing a photograph, and
// recordings index files pointing at them.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "orbivane/recordings/recordings_index.h"
#include "synthetic/sample_data.h"

namespace Synthetic {

constexpr int kNumberBits = 10;  // frame numbers 0 .. 1023
constexpr int kBlock = 16;       // block size in pixels
// Where the test recordings start: 2026-11-22T10:00:00Z, in ms since 1970 (UTC).
constexpr std::int64_t kRecordingStartMs = 1795341600000LL;

// Draws `number` as kNumberBits blocks (white = 1) along the top of `frame`
// (at least kNumberBits x kBlock pixels wide).
inline void drawFrameNumber(cv::Mat& frame, int number) {
  for (int bit = 0; bit < kNumberBits; ++bit) {
    const bool one = ((number >> bit) & 1) != 0;
    cv::rectangle(frame, cv::Rect(bit * kBlock, 0, kBlock, kBlock), one ? cv::Scalar::all(255) : cv::Scalar::all(0),
                  cv::FILLED);
  }
}

// The number drawFrameNumber put into a (decoded) frame.
inline int readFrameNumber(const cv::Mat& frame) {
  int number = 0;
  for (int bit = 0; bit < kNumberBits; ++bit) {
    const cv::Rect inner(bit * kBlock + 4, 4, kBlock - 8, kBlock - 8);
    if (cv::mean(frame(inner))[0] > 128) number |= 1 << bit;
  }
  return number;
}

// Writes an MJPG video of `frames` frames made by `draw(index)`.
inline void writeVideo(const std::string& path, int frames, double fps, const std::function<cv::Mat(int)>& draw) {
  cv::VideoWriter writer;
  const cv::Mat first = draw(0);
  if (!writer.open(path, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), fps, first.size())) {
    throw std::runtime_error("cannot write the test video " + path);
  }
  writer.write(first);
  for (int i = 1; i < frames; ++i) writer.write(draw(i));
}

// A numbered video over a crop of a real photograph.
inline void writeNumberedVideo(const std::string& path, int frames, double fps, cv::Size size = {192, 128}) {
  cv::Mat photo;
  cv::resize(loadSample("baboon.jpg"), photo, size, 0, 0, cv::INTER_AREA);
  writeVideo(path, frames, fps, [&](int i) {
    cv::Mat frame = photo.clone();
    drawFrameNumber(frame, i);
    return frame;
  });
}

// The walker: a pedestrian of vtest.avi (frame 540) with a little of the
// street around it, 100 x 181 pixels.
inline cv::Mat vtestWalker() {
  cv::VideoCapture video(samplePath("vtest.avi"));
  video.set(cv::CAP_PROP_POS_FRAMES, 540);
  cv::Mat frame;
  if (!video.read(frame)) throw std::runtime_error("cannot read vtest.avi");
  return frame(cv::Rect(609, 244, 100, 181)).clone();
}

// The photograph the walker crosses (building.jpg at 400 x 300).
inline cv::Mat walkerBackground() {
  cv::Mat background;
  cv::resize(loadSample("building.jpg"), background, {400, 300}, 0, 0, cv::INTER_AREA);
  return background;
}

// `background` with the walker's top-left corner at (x, 60).
inline cv::Mat withWalker(const cv::Mat& background, const cv::Mat& walker, int x) {
  cv::Mat frame = background.clone();
  const cv::Rect where(x, 60, walker.cols, walker.rows);
  walker.copyTo(frame(where & cv::Rect(0, 0, frame.cols, frame.rows)));
  return frame;
}

// Writes a recordings index (one recording per entry).
inline void writeIndex(const std::string& path, const std::vector<Quarn::Recording>& recordings) {
  Quarn::RecordingsIndex index;
  index.recordings = recordings;
  auto saved = Quarn::saveRecordingsIndex(index, path);
  if (!saved) throw std::runtime_error(saved.error());
}

}  // namespace Synthetic
