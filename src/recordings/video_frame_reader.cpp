// Exact frame access to a video file (see video_frame_reader.h).
#include "recordings/video_frame_reader.h"

#include <cmath>

#include <opencv2/imgproc.hpp>
#include <opencv2/videoio/registry.hpp>

namespace ImageSource {

bool openVideoFile(cv::VideoCapture& capture, const std::string& path) {
  static const bool ffmpeg = cv::videoio_registry::hasBackend(cv::CAP_FFMPEG);
  return capture.open(path, ffmpeg ? cv::CAP_FFMPEG : cv::CAP_ANY);
}

VideoFrameReader::VideoFrameReader(std::string path, int frames, double fps)
    : path_(std::move(path)), frames_(frames), fps_(fps) {}

double VideoFrameReader::expectedStampMs(int index) const { return index * 1000.0 / fps_; }

Utils::ReturnState<bool, std::string> VideoFrameReader::reopen() {
  capture_.release();
  next_ = -1;
  lastIndex_ = -1;
  last_.release();
  if (!openVideoFile(capture_, path_)) {
    return Utils::failure("video '" + path_ + "': cannot be opened as a video");
  }
  next_ = 0;
  return true;
}

Utils::ReturnState<bool, std::string> VideoFrameReader::readNext() {
  cv::Mat picture;
  if (!capture_.read(picture) || picture.empty()) {
    const int wanted = next_;
    capture_.release();
    next_ = -1;
    return Utils::failure("video '" + path_ + "': cannot decode frame " + std::to_string(wanted) + " of " +
                          std::to_string(frames_));
  }
  if (stamps_ != Stamps::kUnreliable && fps_ > 0) {
    const double stamp = capture_.get(cv::CAP_PROP_POS_MSEC);
    if (std::abs(stamp - expectedStampMs(next_)) < 500.0 / fps_) {
      if (++stampsChecked_ >= 2 && stamps_ == Stamps::kUnknown) stamps_ = Stamps::kReliable;
    } else {
      // Reading front to back is the truth; stamps that disagree with it
      // cannot check seeks.
      stamps_ = Stamps::kUnreliable;
    }
  }
  if (picture.channels() == 1) cv::cvtColor(picture, picture, cv::COLOR_GRAY2BGR);
  if (picture.channels() == 4) cv::cvtColor(picture, picture, cv::COLOR_BGRA2BGR);
  last_ = picture;
  lastIndex_ = next_;
  ++next_;
  return true;
}

Utils::ReturnState<cv::Mat, std::string> VideoFrameReader::frame(int index) {
  if (index < 0 || index >= frames_) {
    return Utils::failure("video '" + path_ + "': frame " + std::to_string(index) + " is outside 0.." +
                          std::to_string(frames_ - 1));
  }
  if (index == lastIndex_ && !last_.empty()) return last_;
  if (next_ < 0) {
    auto opened = reopen();
    if (!opened) return Utils::failure(opened.error());
  }
  const bool nearAhead = index >= next_ && index - next_ <= kReadAhead;
  if (!nearAhead && stamps_ == Stamps::kUnknown && fps_ > 0) {
    // Learn whether the file's stamps can be trusted from its first frames.
    if (next_ > 0) {
      auto opened = reopen();
      if (!opened) return Utils::failure(opened.error());
    }
    for (int i = 0; i < 2 && next_ < frames_ && next_ <= index; ++i) {
      auto read = readNext();
      if (!read) return Utils::failure(read.error());
    }
    if (index == lastIndex_) return last_;
  }
  if (!(index >= next_ && index - next_ <= kReadAhead) && stamps_ == Stamps::kReliable) {
    capture_.set(cv::CAP_PROP_POS_FRAMES, index);
    cv::Mat picture;
    const bool decoded = capture_.read(picture) && !picture.empty();
    const double stamp = decoded ? capture_.get(cv::CAP_PROP_POS_MSEC) : -1.0;
    if (decoded && std::abs(stamp - expectedStampMs(index)) < 500.0 / fps_) {
      if (picture.channels() == 1) cv::cvtColor(picture, picture, cv::COLOR_GRAY2BGR);
      if (picture.channels() == 4) cv::cvtColor(picture, picture, cv::COLOR_BGRA2BGR);
      last_ = picture;
      lastIndex_ = index;
      next_ = index + 1;
      return last_;
    }
    ++seekFallbacks_;
    auto opened = reopen();
    if (!opened) return Utils::failure(opened.error());
  }
  if (index < next_) {
    auto opened = reopen();
    if (!opened) return Utils::failure(opened.error());
  }
  while (next_ < index) {
    if (!capture_.grab()) {
      const int wanted = next_;
      capture_.release();
      next_ = -1;
      return Utils::failure("video '" + path_ + "': cannot decode frame " + std::to_string(wanted) + " of " +
                            std::to_string(frames_));
    }
    ++next_;
  }
  auto read = readNext();
  if (!read) return Utils::failure(read.error());
  return last_;
}

}  // namespace ImageSource
