// Ground truth for the person detector on the opencv-doc walking video
// (vtest.avi, 768x576, a fixed camera): a temporal-median background, the
// foreground blobs of a frame against it, and the frame with its people
// painted out. Shared by the person detector test and benchmark.
#pragma once

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "support/sample_data.h"

namespace Testing {

struct WalkingVideo {
  std::vector<cv::Mat> frames;  // BGR frames kept
  std::vector<int> indices;     // their frame numbers
  cv::Mat background;           // BGR temporal median of the kept frames
};

// Reads the frames 0, step, 2 step, ... (at most `limit` of them) of
// vtest.avi and their per-pixel median. Throws when the video cannot be read.
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
  const cv::Mat& first = result.frames.front();
  result.background.create(first.size(), CV_8UC3);
  std::vector<uchar> values(result.frames.size());
  for (int y = 0; y < first.rows; ++y) {
    for (int x = 0; x < first.cols * 3; ++x) {
      for (std::size_t i = 0; i < values.size(); ++i) values[i] = result.frames[i].ptr<uchar>(y)[x];
      auto middle = values.begin() + static_cast<long>(values.size() / 2);
      std::nth_element(values.begin(), middle, values.end());
      result.background.ptr<uchar>(y)[x] = *middle;
    }
  }
  return result;
}

// Pixels of `frame` that differ from the background by more than 30 grey
// levels (both smoothed), opened by 5 px and closed by 15 px.
inline cv::Mat foregroundMask(const cv::Mat& frame, const cv::Mat& background) {
  cv::Mat a, b, difference, mask;
  cv::cvtColor(frame, a, cv::COLOR_BGR2GRAY);
  cv::cvtColor(background, b, cv::COLOR_BGR2GRAY);
  cv::GaussianBlur(a, a, cv::Size(5, 5), 0);
  cv::GaussianBlur(b, b, cv::Size(5, 5), 0);
  cv::absdiff(a, b, difference);
  cv::threshold(difference, mask, 30, 255, cv::THRESH_BINARY);
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

}  // namespace Testing
