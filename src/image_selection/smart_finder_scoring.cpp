// Exposure, motion, temporal median and the picking rule of the frame finder.
#include "image_selection/smart_finder_scoring.h"

#include "utils/parallel.h"
#include "orbivane/image/image_conversion.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <stdexcept>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace OrbivaneCalibration {

ExposureMeasure measureExposure(const cv::Mat& picture) {
  ExposureMeasure m;
  if (picture.empty()) return m;
  cv::Mat grey = Image::greyOf(picture);
  m.brightness = cv::mean(grey)[0];
  const double total = static_cast<double>(grey.total());
  const double dark = cv::countNonZero(grey <= 5);
  const double bright = cv::countNonZero(grey >= 250);
  m.clipped = (dark + bright) / total;
  m.exposure = std::clamp(1.0 - std::abs(m.brightness - 128.0) / 128.0 - 2.0 * m.clipped, 0.0, 1.0);
  return m;
}

cv::Mat temporalMedian(const std::vector<cv::Mat>& frames) {
  if (frames.empty()) throw std::invalid_argument("a temporal median needs at least one frame");
  const cv::Mat& first = frames.front();
  if (first.depth() != CV_8U) throw std::invalid_argument("a temporal median takes 8-bit frames");
  for (const auto& f : frames) {
    if (f.size() != first.size() || f.type() != first.type()) {
      throw std::invalid_argument("the frames of a temporal median differ in size or type");
    }
  }
  const int rows = first.rows;
  const int width = first.cols * first.channels();
  const std::size_t n = frames.size();
  cv::Mat median(first.size(), first.type());
  Utils::parallelRows(0, rows, [&](int begin, int end) {
    std::vector<const std::uint8_t*> sources(n);
    for (int y = begin; y < end; ++y) {
      for (std::size_t i = 0; i < n; ++i) sources[i] = frames[i].ptr<std::uint8_t>(y);
      std::uint8_t* out = median.ptr<std::uint8_t>(y);
      // At most 256 frames take part (the finder uses far fewer).
      std::uint8_t values[256];
      const std::size_t take = std::min<std::size_t>(n, 256);
      const std::size_t middle = (take - 1) / 2;
      for (int x = 0; x < width; ++x) {
        for (std::size_t i = 0; i < take; ++i) values[i] = sources[i][x];
        std::nth_element(values, values + middle, values + take);
        out[x] = values[middle];
      }
    }
  });
  return median;
}

double measureMotion(const cv::Mat& frame, const cv::Mat& other) {
  if (frame.empty() || other.empty()) return 0.0;
  if (frame.size() != other.size()) return 1.0;
  // Grey, reduced by 4 with area averaging: noise, compression and a change
  // of focus average out, something that moves does not.
  auto reduced = [](const cv::Mat& picture) {
    cv::Mat g = Image::greyOf(picture);
    if (g.cols >= 64 && g.rows >= 64) cv::resize(g, g, cv::Size(g.cols / 4, g.rows / 4), 0, 0, cv::INTER_AREA);
    return g;
  };
  // A change of exposure is not motion: the other frame is brought to this one's mean first.
  const cv::Mat a = reduced(frame);
  cv::Mat b = reduced(other);
  const double meanA = cv::mean(a)[0], meanB = cv::mean(b)[0];
  if (meanA > 0.5 && meanB > 0.5) b.convertTo(b, -1, meanA / meanB);
  cv::Mat difference;
  cv::absdiff(a, b, difference);
  return double(cv::countNonZero(difference > 35)) / double(difference.total());
}

bool frameIsFree(const SmartFinderFrame& frame, const SmartFinderOptions& options) {
  if (frame.persons > 0 || frame.motion > options.maxMotion) return false;
  if (!frame.foregroundMeasured) return true;
  return frame.foreground <= options.maxForeground && frame.foregroundPersons == 0;
}

std::vector<std::size_t> pickMoments(std::vector<SmartFinderFrame>& samples, const SmartFinderOptions& options) {
  double largestBlur = 0.0;
  for (const auto& s : samples) largestBlur = std::max(largestBlur, s.blur);
  for (auto& s : samples) {
    const double sharpness = largestBlur > 0 ? s.blur / largestBlur : 0.0;
    s.score = options.blurWeight * sharpness + options.exposureWeight * s.exposure;
    s.isFree = frameIsFree(s, options);
  }
  std::vector<std::size_t> order(samples.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t a, std::size_t b) { return samples[a].score > samples[b].score; });
  const double spacingMs = options.minimumSpacingSeconds * 1000.0;
  std::vector<std::size_t> chosen;
  for (std::size_t i : order) {
    if (static_cast<int>(chosen.size()) >= options.momentsPerModule) break;
    if (!samples[i].isFree) continue;
    const bool tooClose = std::any_of(chosen.begin(), chosen.end(), [&](std::size_t c) {
      return std::abs(static_cast<double>(samples[c].timeMs - samples[i].timeMs)) < spacingMs;
    });
    if (!tooClose) chosen.push_back(i);
  }
  return chosen;
}

}  // namespace OrbivaneCalibration
