// Decoding of network outputs into person boxes in picture pixels.
#include "image_selection/person_detector_decoding.h"

#include <cmath>

#include "image_selection/person_detector_support.h"

namespace OrbivaneCalibration {
namespace {

constexpr double kMaxOverlap = 0.4;    // intersection over union above which boxes merge
constexpr double kMaxContained = 0.8;  // share of the smaller box inside the other above which boxes merge

cv::Rect relativeBox(double left, double top, double right, double bottom, cv::Size size) {
  const int x0 = static_cast<int>(std::lround(left * size.width));
  const int y0 = static_cast<int>(std::lround(top * size.height));
  const int x1 = static_cast<int>(std::lround(right * size.width));
  const int y1 = static_cast<int>(std::lround(bottom * size.height));
  return cv::Rect(x0, y0, x1 - x0, y1 - y0) & cv::Rect(0, 0, size.width, size.height);
}

bool passes(double score, float confidence) { return std::isfinite(score) && score > 0 && score >= confidence; }

}  // namespace

std::vector<PersonDetection> decodeYoloPersons(const std::vector<cv::Mat>& outputs, cv::Size size, float confidence) {
  std::vector<PersonDetection> found;
  for (const cv::Mat& output : outputs) {
    if (output.dims != 2 || output.type() != CV_32F || output.cols < 6) continue;
    for (int r = 0; r < output.rows; ++r) {
      const float* row = output.ptr<float>(r);
      const double score = row[5];  // class 0, "person"
      if (!passes(score, confidence)) continue;
      const double cx = row[0], cy = row[1], w = row[2], h = row[3];
      const cv::Rect box = relativeBox(cx - w / 2, cy - h / 2, cx + w / 2, cy + h / 2, size);
      if (!box.empty()) found.push_back({box, static_cast<float>(score)});
    }
  }
  return suppressOverlappingPersons(std::move(found), kMaxOverlap, kMaxContained);
}

std::vector<PersonDetection> decodeDetectionOutputPersons(const cv::Mat& blob, cv::Size size, float confidence,
                                                          int classId) {
  std::vector<PersonDetection> found;
  if (blob.type() != CV_32F || blob.total() % 7 != 0) return found;
  const cv::Mat rows(static_cast<int>(blob.total() / 7), 7, CV_32F, const_cast<void*>(static_cast<const void*>(blob.data)));
  for (int r = 0; r < rows.rows; ++r) {
    const float* row = rows.ptr<float>(r);
    if (static_cast<int>(row[1]) != classId || !passes(row[2], confidence)) continue;
    const cv::Rect box = relativeBox(row[3], row[4], row[5], row[6], size);
    if (!box.empty()) found.push_back({box, row[2]});
  }
  return suppressOverlappingPersons(std::move(found), kMaxOverlap, kMaxContained);
}

}  // namespace OrbivaneCalibration
