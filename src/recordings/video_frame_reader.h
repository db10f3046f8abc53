// Exact frame access to one video file: frame k is the k-th frame a plain
// front-to-back read would give. Near jumps forward read on; other jumps set
// the decoder's frame position and check the decoded frame's time stamp,
// falling back to reading forward from the start of the file when the file's
// stamps cannot be trusted or the decoder landed elsewhere.
#pragma once

#include <string>

#include <opencv2/core/mat.hpp>
#include <opencv2/videoio.hpp>

#include "orbivane/utils/return_state.h"

namespace ImageSource {

// Opens a video file with FFmpeg when this OpenCV has it (other backends
// only print noise about files they cannot read), else with any backend.
bool openVideoFile(cv::VideoCapture& capture, const std::string& path);

class VideoFrameReader {
 public:
  // How far ahead (frames) reading on is preferred to a seek.
  static constexpr int kReadAhead = 48;

  // `frames` is the file's frame count, `fps` its own rate (0 if unknown).
  VideoFrameReader(std::string path, int frames, double fps);

  // Frame `index` (BGR, 8 bits). The last frame read is kept, so asking for
  // it again costs nothing.
  Utils::ReturnState<cv::Mat, std::string> frame(int index);

  const std::string& path() const { return path_; }
  // How many seeks were taken back because the decoder did not land exactly.
  int seekFallbacks() const { return seekFallbacks_; }

 private:
  enum class Stamps { kUnknown, kReliable, kUnreliable };

  Utils::ReturnState<bool, std::string> reopen();
  // Reads the next frame into last_, checking its time stamp.
  Utils::ReturnState<bool, std::string> readNext();
  double expectedStampMs(int index) const;

  std::string path_;
  int frames_ = 0;
  double fps_ = 0.0;
  cv::VideoCapture capture_;
  int next_ = -1;  // index of the frame the decoder gives next; -1 when closed
  int lastIndex_ = -1;
  cv::Mat last_;
  Stamps stamps_ = Stamps::kUnknown;
  int stampsChecked_ = 0;
  int seekFallbacks_ = 0;
};

}  // namespace ImageSource
