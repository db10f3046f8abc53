// Overlap of two neighbouring pictures: template search and the inspection
// picture.
#include "sensor_calibration/overlap_measurement.h"
#include "orbivane/image/image_conversion.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <opencv2/imgproc.hpp>

namespace SensorCalibration {
namespace {

// Offset of the true peak from the middle sample of three (a parabola
// through them), within half a sample.
double parabolaPeak(double before, double at, double after) {
  const double curvature = before - 2.0 * at + after;
  if (!(curvature < 0.0)) return 0.0;
  return std::clamp(0.5 * (before - after) / curvature, -0.5, 0.5);
}

}  // namespace

cv::Mat greyOf(const cv::Mat& picture) {
  cv::Mat grey = Image::greyOf(picture);
  if (grey.depth() == CV_16U) {
    grey.convertTo(grey, CV_8U, 1.0 / 257.0);
  } else if (grey.depth() != CV_8U) {
    grey.convertTo(grey, CV_8U);
  }
  return grey;
}

Utils::ReturnState<SensorShifter::OverlapMeasurement, std::string> measureOverlapOf(const cv::Mat& leftPicture,
                                                                                    const cv::Mat& rightPicture,
                                                                                    double searchShare,
                                                                                    double minScore) {
  if (leftPicture.empty() || rightPicture.empty()) return Utils::failure("a picture is empty");
  if (!std::isfinite(searchShare) || searchShare <= 0.0 || searchShare > 1.0) {
    return Utils::failure("the search share must be in (0, 1]");
  }
  const cv::Mat left = greyOf(leftPicture), right = greyOf(rightPicture);
  // Vertical search of +-margin rows; the strip is as wide as the smallest
  // overlap that can be measured.
  const int margin = std::clamp(right.rows / 8, 2, 60);
  const int stripWidth = std::clamp(right.cols / 16, 8, 48);
  const int stripHeight = right.rows - 2 * margin;
  const int searchWidth = std::min(left.cols, static_cast<int>(std::lround(searchShare * left.cols)));
  if (stripHeight < 8 || stripWidth > right.cols || searchWidth < stripWidth + 2 || stripHeight > left.rows) {
    return Utils::failure("the pictures (" + std::to_string(left.cols) + "x" + std::to_string(left.rows) + ", " +
                          std::to_string(right.cols) + "x" + std::to_string(right.rows) +
                          ") are too small to measure an overlap");
  }
  const cv::Mat strip = right(cv::Rect(0, margin, stripWidth, stripHeight));
  cv::Scalar mean, deviation;
  cv::meanStdDev(strip, mean, deviation);
  if (deviation[0] < 2.0) return Utils::failure("the right picture's left edge has no structure to match");

  const int searchX = left.cols - searchWidth;
  const cv::Mat area = left(cv::Rect(searchX, 0, searchWidth, left.rows));
  cv::Mat scores;
  cv::matchTemplate(area, strip, scores, cv::TM_CCOEFF_NORMED);
  // Flat parts of the left picture give undefined scores.
  cv::patchNaNs(scores, -1.0);
  double best = 0.0;
  cv::Point at;
  cv::minMaxLoc(scores, nullptr, &best, nullptr, &at);
  if (!(best >= minScore)) {
    char text[160];
    std::snprintf(text, sizeof text,
                  "the pictures do not overlap by %d px or less (best match scores %.2f, at least %.2f needed)",
                  searchWidth, best, minScore);
    return Utils::failure(std::string(text));
  }
  // A best match on the search's left edge says only that the overlap is at
  // least that wide.
  if (at.x == 0 && scores.cols > 1) {
    return Utils::failure("the overlap is " + std::to_string(searchWidth) +
                          " px or more, the most the search covers; search a larger share of the left picture");
  }
  double fx = 0.0, fy = 0.0;
  if (at.x > 0 && at.x + 1 < scores.cols) {
    fx = parabolaPeak(scores.at<float>(at.y, at.x - 1), scores.at<float>(at), scores.at<float>(at.y, at.x + 1));
  }
  if (at.y > 0 && at.y + 1 < scores.rows) {
    fy = parabolaPeak(scores.at<float>(at.y - 1, at.x), scores.at<float>(at), scores.at<float>(at.y + 1, at.x));
  }
  SensorShifter::OverlapMeasurement m;
  m.x = searchX + at.x + fx;
  m.y = at.y + fy - margin;
  m.overlap = left.cols - m.x;
  m.score = best;
  return m;
}

cv::Mat drawOverlap(const cv::Mat& leftPicture, const cv::Mat& rightPicture,
                    const SensorShifter::OverlapMeasurement& m, double wantedPixels) {
  const cv::Mat left = greyOf(leftPicture), right = greyOf(rightPicture);
  const int overlap = std::clamp(static_cast<int>(std::ceil(m.overlap)), 1, std::min(left.cols, right.cols));
  const int pad = std::min({40, left.cols - overlap, right.cols - overlap});
  const int strip = overlap + std::max(0, pad);
  const int gap = 6;
  const int rows = std::max(left.rows, right.rows);
  const int header = 50;  // two lines of text
  cv::Mat canvas(header + 2 * rows + gap, 2 * strip + gap, CV_8UC3, cv::Scalar(40, 40, 40));

  cv::Mat leftColour, rightColour;
  cv::cvtColor(left, leftColour, cv::COLOR_GRAY2BGR);
  cv::cvtColor(right, rightColour, cv::COLOR_GRAY2BGR);
  leftColour(cv::Rect(left.cols - strip, 0, strip, left.rows)).copyTo(canvas(cv::Rect(0, header, strip, left.rows)));
  rightColour(cv::Rect(0, 0, strip, right.rows)).copyTo(canvas(cv::Rect(strip + gap, header, strip, right.rows)));
  const cv::Scalar marker(0, 220, 255);
  // Where the right picture begins on the left strip, and where the left one
  // ends on the right strip.
  const double begins = m.x - (left.cols - strip), ends = left.cols - m.x;
  cv::line(canvas, cv::Point(cvRound(begins), header), cv::Point(cvRound(begins), header + left.rows - 1), marker, 1);
  cv::line(canvas, cv::Point(strip + gap + cvRound(ends), header),
           cv::Point(strip + gap + cvRound(ends), header + right.rows - 1), marker, 1);

  // The right picture laid onto the left one over the overlap: red the left,
  // cyan the right.
  const int firstColumn = std::max(0, static_cast<int>(std::floor(m.x)));
  const int width = left.cols - firstColumn;
  if (width > 0) {
    const cv::Matx23d shift(1, 0, m.x - firstColumn, 0, 1, m.y);
    cv::Mat laid;
    cv::warpAffine(right, laid, shift, cv::Size(width, left.rows), cv::INTER_LINEAR, cv::BORDER_CONSTANT,
                   cv::Scalar(0));
    const cv::Mat ownPart = left(cv::Rect(firstColumn, 0, width, left.rows));
    cv::Mat blend;
    cv::merge(std::vector<cv::Mat>{laid, laid, ownPart}, blend);
    const int x = std::max(0, (canvas.cols - width) / 2);
    const int w = std::min(width, canvas.cols - x);
    blend(cv::Rect(0, 0, w, left.rows)).copyTo(canvas(cv::Rect(x, header + rows + gap, w, left.rows)));
  }

  char first[120], second[120];
  if (wantedPixels >= 0.0) {
    std::snprintf(first, sizeof first, "overlap %.1f px (wanted %.1f px)", m.overlap, wantedPixels);
  } else {
    std::snprintf(first, sizeof first, "overlap %.1f px", m.overlap);
  }
  std::snprintf(second, sizeof second, "dy %.1f px, score %.2f", m.y, m.score);
  // As large as fits, at most 0.6.
  int baseline = 0;
  const cv::Size unit = cv::getTextSize(first, cv::FONT_HERSHEY_SIMPLEX, 1.0, 1, &baseline);
  const double scale = std::clamp((canvas.cols - 12.0) / std::max(1, unit.width), 0.2, 0.6);
  cv::putText(canvas, first, cv::Point(6, 20), cv::FONT_HERSHEY_SIMPLEX, scale, cv::Scalar(255, 255, 255), 1,
              cv::LINE_AA);
  cv::putText(canvas, second, cv::Point(6, 42), cv::FONT_HERSHEY_SIMPLEX, scale, cv::Scalar(255, 255, 255), 1,
              cv::LINE_AA);
  return canvas;
}

}  // namespace SensorCalibration
