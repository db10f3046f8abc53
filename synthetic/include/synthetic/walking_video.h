// Ground truth for the person detector and the frame finder on the opencv-doc
// walking video (vtest.avi, 768x576, 10 fps, a fixed camera): a
// temporal-median background, the foreground blobs of a frame against it, the
// frame with its people painted out, and people cut out of a frame to be put
// into another (standing still, cut by the border, made small). Shared by the
// person detector and frame finder tests and benchmarks.
#pragma once

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "synthetic/sample_data.h"

namespace Synthetic {

struct WalkingVideo {
  std::vector<cv::Mat> frames;  // BGR frames kept
  std::vector<int> indices;     // their frame numbers
  cv::Mat background;           // BGR temporal median of the kept frames
};

// Reads the frames 0, step, 2 step, ... (at most `limit` of them) of
// vtest.avi and their per-pixel median. Throws when the video cannot be read.
// The per-pixel median of BGR frames of one size (the upper middle for an even count).
inline cv::Mat medianBackground(const std::vector<cv::Mat>& frames) {
  const cv::Mat& first = frames.front();
  cv::Mat background(first.size(), CV_8UC3);
  std::vector<uchar> values(frames.size());
  for (int y = 0; y < first.rows; ++y) {
    for (int x = 0; x < first.cols * 3; ++x) {
      for (std::size_t i = 0; i < values.size(); ++i) values[i] = frames[i].ptr<uchar>(y)[x];
      auto middle = values.begin() + static_cast<long>(values.size() / 2);
      std::nth_element(values.begin(), middle, values.end());
      background.ptr<uchar>(y)[x] = *middle;
    }
  }
  return background;
}

inline WalkingVideo readWalkingVideo(int step, int limit) {
  cv::VideoCapture video(samplePath("vtest.avi"));
  if (!video.isOpened()) throw std::runtime_error("cannot open " + samplePath("vtest.avi"));
  WalkingVideo result;
  cv::Mat frame;
  for (int index = 0; static_cast<int>(result.frames.size()) < limit && video.read(frame); ++index) {
    if (index % step != 0) continue;
    result.frames.push_back(frame.clone());
    result.indices.push_back(index);
  }
  if (result.frames.size() < 3) throw std::runtime_error("vtest.avi gave too few frames");
  result.background = medianBackground(result.frames);
  return result;
}

struct WalkingClip {
  std::vector<cv::Mat> frames;  // BGR frames first, first + 1, ... (the region asked for)
  cv::Mat background;           // BGR median of every backgroundStep-th frame of the whole video (the region)
  cv::Mat localBackground;      // BGR median of the clip's frames: the empty scene in the clip's light
};

// Consecutive frames [first, first + count) of vtest.avi and the scene's
// background, cut to `region` (default: whole frames). Throws when the video
// cannot be read or is too short.
inline WalkingClip readWalkingClip(int first, int count, int backgroundStep, cv::Rect region = cv::Rect()) {
  cv::VideoCapture video(samplePath("vtest.avi"));
  if (!video.isOpened()) throw std::runtime_error("cannot open " + samplePath("vtest.avi"));
  WalkingClip clip;
  std::vector<cv::Mat> spread;
  cv::Mat frame;
  for (int index = 0; video.read(frame); ++index) {
    if (region.empty()) region = cv::Rect(0, 0, frame.cols, frame.rows);
    if (index >= first && index < first + count) clip.frames.push_back(frame(region).clone());
    if (index % backgroundStep == 0) spread.push_back(frame(region).clone());
  }
  if (static_cast<int>(clip.frames.size()) != count || spread.size() < 3) {
    throw std::runtime_error("vtest.avi is shorter than the clip asked for");
  }
  clip.background = medianBackground(spread);
  clip.localBackground = medianBackground(clip.frames);
  return clip;
}

// Pixels of `frame` that differ from the background by more than `level`
// grey levels (both smoothed), opened by 5 px and closed by 15 px.
inline cv::Mat foregroundMask(const cv::Mat& frame, const cv::Mat& background, int level = 30) {
  cv::Mat a, b, difference, mask;
  cv::cvtColor(frame, a, cv::COLOR_BGR2GRAY);
  cv::cvtColor(background, b, cv::COLOR_BGR2GRAY);
  cv::GaussianBlur(a, a, cv::Size(5, 5), 0);
  cv::GaussianBlur(b, b, cv::Size(5, 5), 0);
  cv::absdiff(a, b, difference);
  cv::threshold(difference, mask, level, 255, cv::THRESH_BINARY);
  cv::morphologyEx(mask, mask, cv::MORPH_OPEN, cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(5, 5)));
  cv::morphologyEx(mask, mask, cv::MORPH_CLOSE, cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(15, 15)));
  return mask;
}

// Bounding boxes of the mask's blobs of more than 300 pixels.
inline std::vector<cv::Rect> foregroundBlobs(const cv::Mat& mask) {
  cv::Mat labels, stats, centroids;
  const int n = cv::connectedComponentsWithStats(mask, labels, stats, centroids);
  std::vector<cv::Rect> blobs;
  for (int i = 1; i < n; ++i) {
    if (stats.at<int>(i, cv::CC_STAT_AREA) <= 300) continue;
    blobs.emplace_back(stats.at<int>(i, cv::CC_STAT_LEFT), stats.at<int>(i, cv::CC_STAT_TOP),
                       stats.at<int>(i, cv::CC_STAT_WIDTH), stats.at<int>(i, cv::CC_STAT_HEIGHT));
  }
  return blobs;
}

// A clearly visible walker: a blob at least `minHeight` px high that does not
// touch the picture's border.
inline bool clearWalker(const cv::Rect& blob, cv::Size size, int minHeight) {
  return blob.height >= minHeight && blob.x > 0 && blob.y > 0 && blob.x + blob.width < size.width &&
         blob.y + blob.height < size.height;
}

// A detection box stands for the blob when its centre lies in the blob's box
// grown by a quarter on each side and its height is 0.6 to 3 times the blob's.
inline bool detectionMatchesBlob(const cv::Rect& box, const cv::Rect& blob) {
  const double cx = box.x + box.width / 2.0, cy = box.y + box.height / 2.0;
  return cx >= blob.x - 0.25 * blob.width && cx <= blob.x + 1.25 * blob.width && cy >= blob.y - 0.25 * blob.height &&
         cy <= blob.y + 1.25 * blob.height && box.height >= 0.6 * blob.height && box.height <= 3.0 * blob.height;
}

// The frame with every foreground pixel (mask grown by 15 px) replaced by the background.
inline cv::Mat paintPeopleOut(const cv::Mat& frame, const cv::Mat& background, const cv::Mat& mask) {
  cv::Mat grown, result = frame.clone();
  cv::dilate(mask, grown, cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(15, 15)));
  background.copyTo(result, grown);
  return result;
}

// The frame with its people painted out thoroughly, slivers at the border,
// shadows and faint parts included: the pixels that differ from the
// background by more than 10 grey levels (both smoothed), without isolated
// ones (opened by 3 px), grown by 31 px, are replaced by the background.
inline cv::Mat emptyScene(const cv::Mat& frame, const cv::Mat& background) {
  cv::Mat a, b, difference, mask, result = frame.clone();
  cv::cvtColor(frame, a, cv::COLOR_BGR2GRAY);
  cv::cvtColor(background, b, cv::COLOR_BGR2GRAY);
  cv::GaussianBlur(a, a, cv::Size(5, 5), 0);
  cv::GaussianBlur(b, b, cv::Size(5, 5), 0);
  cv::absdiff(a, b, difference);
  cv::threshold(difference, mask, 10, 255, cv::THRESH_BINARY);
  cv::morphologyEx(mask, mask, cv::MORPH_OPEN, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(3, 3)));
  cv::dilate(mask, mask, cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(31, 31)));
  background.copyTo(result, mask);
  return result;
}

// Whether `region` of the frame shows nobody: no blob of pixels that differ
// from the background by more than 20 grey levels is larger than `maxArea`.
inline bool noPersonIn(const cv::Mat& frame, const cv::Mat& background, const cv::Rect& region, int maxArea) {
  const cv::Mat mask = foregroundMask(frame, background, 20)(region).clone();
  cv::Mat labels, stats, centroids;
  const int n = cv::connectedComponentsWithStats(mask, labels, stats, centroids);
  for (int i = 1; i < n; ++i) {
    if (stats.at<int>(i, cv::CC_STAT_AREA) > maxArea) return false;
  }
  return true;
}

// A person cut out of a frame: the pixels of its box and its mask there.
struct PersonCutout {
  cv::Mat picture;  // BGR
  cv::Mat mask;     // 8 bits, 255 on the person
};

// The tallest clearly visible walker of the frame (a foreground blob at least
// `minHeight` px high, narrower than 0.6 of its height, off the border).
// Throws when the frame has none.
inline PersonCutout cutOutWalker(const cv::Mat& frame, const cv::Mat& background, int minHeight) {
  const cv::Mat mask = foregroundMask(frame, background);
  cv::Rect best;
  for (const cv::Rect& blob : foregroundBlobs(mask)) {
    if (clearWalker(blob, frame.size(), minHeight) && blob.width < 0.6 * blob.height && blob.height > best.height) {
      best = blob;
    }
  }
  if (best.empty()) throw std::runtime_error("no clear walker in the frame");
  return {frame(best).clone(), mask(best).clone()};
}

// The cutout scaled to `height` pixels.
inline PersonCutout scaledCutout(const PersonCutout& person, int height) {
  const double f = static_cast<double>(height) / person.picture.rows;
  const cv::Size size(std::max(1, static_cast<int>(std::lround(person.picture.cols * f))), height);
  PersonCutout out;
  cv::resize(person.picture, out.picture, size, 0, 0, cv::INTER_AREA);
  cv::resize(person.mask, out.mask, size, 0, 0, cv::INTER_NEAREST);
  return out;
}

// Puts the person into the picture with its box's top-left corner at `at`;
// parts outside the picture are cut off.
inline void pastePerson(cv::Mat& picture, const PersonCutout& person, cv::Point at) {
  const cv::Rect box(at, person.picture.size());
  const cv::Rect inside = box & cv::Rect(0, 0, picture.cols, picture.rows);
  if (inside.empty()) return;
  const cv::Rect source(inside.tl() - at, inside.size());
  person.picture(source).copyTo(picture(inside), person.mask(source));
}

}  // namespace Synthetic
