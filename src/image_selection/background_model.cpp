// The background model of a searched window and the foreground of its frames
// (see background_model.h).
#include "image_selection/background_model.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "image_selection/smart_finder_scoring.h"

namespace OrbivaneCalibration {
namespace {

constexpr int kDarkClip = 5;       // levels at or below are clipped
constexpr int kBrightClip = 250;   // levels at or above are clipped
constexpr double kMadToSigma = 1.4826;
constexpr double kFitOutliers = 2.5;   // noise widths beyond which a pixel leaves the next fit
constexpr int kFitRounds = 5;          // least-squares refits at most
constexpr double kLevelSigmas = 4.0;   // noise widths beyond which a pixel is foreground
// Gains the least-median start tries: from 1/kGainRange to kGainRange (an
// exposure change within one window stays inside), kStartGains steps, then
// as many finer steps around the best.
constexpr double kGainRange = 3.0;
constexpr int kStartGains = 9;
constexpr std::size_t kStartPixels = 1000;  // pixels the least-median start looks at, at most
constexpr std::size_t kFitPixels = 4000;    // pixels the least-squares fits and the noise look at, at most

bool unclipped(std::uint8_t v) { return v > kDarkClip && v < kBrightClip; }

// The median of the values (reorders them); 0 for none.
double medianOf(std::vector<float>& values) {
  if (values.empty()) return 0.0;
  const auto middle = values.begin() + static_cast<long>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

struct Line {
  double gain = 1.0;
  double offset = 0.0;
  bool fitted = false;
};

// (thumbnail, reference) values of the pixels both leave unclipped, spread
// evenly over the picture, at most about `most` of them.
using Pairs = std::vector<std::pair<float, float>>;
Pairs unclippedPairs(const cv::Mat& thumbnail, const cv::Mat& reference, std::size_t most) {
  const std::size_t step = std::max<std::size_t>(1, thumbnail.total() / most);
  Pairs pairs;
  pairs.reserve(std::min(thumbnail.total(), most + 1));
  std::size_t index = 0;
  for (int y = 0; y < thumbnail.rows; ++y) {
    const std::uint8_t* t = thumbnail.ptr<std::uint8_t>(y);
    const std::uint8_t* r = reference.ptr<std::uint8_t>(y);
    for (int x = 0; x < thumbnail.cols; ++x, ++index) {
      if (index % step == 0 && unclipped(t[x]) && unclipped(r[x])) pairs.emplace_back(t[x], r[x]);
    }
  }
  return pairs;
}

// Median absolute residual of the pairs against the gain with its median
// offset; `values` is scratch space of the pairs' size.
double medianResidual(const Pairs& pairs, double gain, double& offset, std::vector<float>& values) {
  for (std::size_t k = 0; k < pairs.size(); ++k) values[k] = pairs[k].second - float(gain) * pairs[k].first;
  offset = medianOf(values);
  for (std::size_t k = 0; k < pairs.size(); ++k) {
    values[k] = std::abs(pairs[k].second - float(gain) * pairs[k].first - float(offset));
  }
  return medianOf(values);
}

// The start: of the tried gains, the one whose median absolute residual is
// least (with the median offset). It holds while less than half of the
// pixels differ for other reasons than exposure, however far they differ.
Line leastMedianLine(const Pairs& pairs) {
  Line best;
  if (pairs.size() < 16) return best;
  std::vector<float> values(pairs.size());
  double bestCost = std::numeric_limits<double>::max();
  const double step = std::log(kGainRange) * 2.0 / (kStartGains - 1);
  const auto tryGain = [&](double logGain) {
    double offset = 0;
    const double gain = std::exp(logGain);
    const double cost = medianResidual(pairs, gain, offset, values);
    if (cost < bestCost) {
      bestCost = cost;
      best = Line{gain, offset, true};
    }
  };
  for (int i = 0; i < kStartGains; ++i) tryGain(-std::log(kGainRange) + i * step);
  const double centre = std::log(best.gain);
  for (int i = -kStartGains / 2; i <= kStartGains / 2; ++i) tryGain(centre + i * step / (kStartGains / 2 + 1));
  return best;
}

// Least-squares line reference ~ gain x thumbnail + offset over the pairs
// whose residual against `previous` is at most `limit`; `previous` when too
// few are left.
Line fitLine(const Pairs& pairs, const Line& previous, double limit) {
  double n = 0, st = 0, sr = 0, stt = 0, str = 0;
  for (const auto& [t, r] : pairs) {
    if (std::abs(previous.gain * t + previous.offset - r) > limit) continue;
    n += 1;
    st += t;
    sr += r;
    stt += double(t) * t;
    str += double(t) * r;
  }
  const double spread = n * stt - st * st;
  if (n < 16 || spread <= 1e-6 * n * n) return previous;
  Line line;
  line.fitted = true;
  line.gain = std::clamp((n * str - st * sr) / spread, 1.0 / kGainRange, kGainRange);
  line.offset = (sr - line.gain * st) / n;
  return line;
}

// 1.4826 x the median absolute residual of the pairs.
double residualNoise(const Pairs& pairs, const Line& line) {
  std::vector<float> residuals(pairs.size());
  for (std::size_t k = 0; k < pairs.size(); ++k) {
    residuals[k] = static_cast<float>(std::abs(line.gain * pairs[k].first + line.offset - pairs[k].second));
  }
  return kMadToSigma * medianOf(residuals);
}

// The least-median start, then least squares without the pixels beyond 2.5
// noise widths of the line so far, until it settles. `noise` gets the
// residual noise of the final line.
Line exposureLine(const cv::Mat& thumbnail, const cv::Mat& reference, double* noise = nullptr) {
  const Pairs pairs = unclippedPairs(thumbnail, reference, kFitPixels);
  Pairs few;
  const std::size_t step = std::max<std::size_t>(1, pairs.size() / kStartPixels);
  for (std::size_t k = 0; k < pairs.size(); k += step) few.push_back(pairs[k]);
  Line line = leastMedianLine(few);
  double spread = line.fitted ? residualNoise(pairs, line) : 0.0;
  for (int round = 0; line.fitted && round < kFitRounds; ++round) {
    const Line next = fitLine(pairs, line, std::max(kFitOutliers * spread, 3.0));
    const bool settled = std::abs(next.gain - line.gain) < 1e-3 && std::abs(next.offset - line.offset) < 0.05;
    line = next;
    spread = residualNoise(pairs, line);
    if (settled) break;
  }
  if (noise != nullptr) *noise = spread;
  return line;
}

cv::Mat applyLine(const cv::Mat& thumbnail, const Line& line) {
  cv::Mat out;
  thumbnail.convertTo(out, CV_32F, line.gain, line.offset);
  return out;
}

}  // namespace

int BackgroundModel::thumbnailFactor(cv::Size size, int smallestPerson, std::size_t frames) {
  int factor = std::max(1, smallestPerson / 30);
  const auto bytes = [&](int f) {
    return 3.0 * static_cast<double>(size.width / f) * static_cast<double>(size.height / f) *
           static_cast<double>(frames);
  };
  while (factor < std::max(size.width, size.height) && bytes(factor) > static_cast<double>(kThumbnailBudget_)) {
    ++factor;
  }
  return factor;
}

cv::Mat BackgroundModel::thumbnail(const cv::Mat& picture, int factor) {
  cv::Mat colour = picture;
  if (picture.channels() == 4) cv::cvtColor(picture, colour, cv::COLOR_BGRA2BGR);
  const int f = std::max(1, factor);
  const cv::Size reduced(std::max(1, colour.cols / f), std::max(1, colour.rows / f));
  cv::Mat out;
  if (f == 1) {
    out = colour.clone();
  } else {
    // Whole blocks only, so every thumbnail pixel is the mean of f x f pixels.
    const cv::Rect blocks(0, 0, std::min(colour.cols, reduced.width * f), std::min(colour.rows, reduced.height * f));
    cv::resize(colour(blocks), out, reduced, 0, 0, cv::INTER_AREA);
  }
  cv::GaussianBlur(out, out, cv::Size(), kSmoothing_, kSmoothing_, cv::BORDER_REPLICATE);
  return out;
}

bool BackgroundModel::personSized(double area, const cv::Rect& box, int height) {
  return area >= 0.08 * double(height) * double(height) && box.height >= 0.4 * height;
}

cv::Mat matchExposure(const cv::Mat& thumbnail, const cv::Mat& reference) {
  if (thumbnail.type() != CV_8UC1 || reference.type() != CV_8UC1 || thumbnail.size() != reference.size()) {
    throw std::invalid_argument("exposure matching needs two 8-bit grey pictures of one size");
  }
  return applyLine(thumbnail, exposureLine(thumbnail, reference));
}

namespace {

// The model of one channel: the median of the frames as they are is a first
// guess, then every frame is matched to the guess by gain and offset and the
// median of those is the model.
cv::Mat channelModel(const std::vector<cv::Mat>& planes) {
  const cv::Mat guess = temporalMedian(planes);
  std::vector<cv::Mat> matched;
  for (const auto& t : planes) {
    cv::Mat out;
    matchExposure(t, guess).convertTo(out, CV_8U);
    matched.push_back(out);
  }
  return temporalMedian(matched);
}

}  // namespace

BackgroundModel::BackgroundModel(const std::vector<cv::Mat>& thumbnails, int factor, cv::Size pictureSize)
    : factor_(std::max(1, factor)), pictureSize_(pictureSize) {
  if (thumbnails.size() < 3) throw std::invalid_argument("background model: at least 3 frames are needed");
  const cv::Mat& first = thumbnails.front();
  if (first.type() != CV_8UC1 && first.type() != CV_8UC3) {
    throw std::invalid_argument("background model: thumbnails must be 8-bit grey or BGR pictures");
  }
  for (const auto& t : thumbnails) {
    if (t.type() != first.type() || t.size() != first.size()) {
      throw std::invalid_argument("background model: the thumbnails differ in size or type");
    }
  }
  std::vector<cv::Mat> channels;
  for (int c = 0; c < first.channels(); ++c) {
    std::vector<cv::Mat> planes;
    for (const auto& t : thumbnails) {
      cv::Mat plane;
      cv::extractChannel(t, plane, c);
      planes.push_back(plane);
    }
    channels.push_back(channelModel(planes));
  }
  cv::merge(channels, model_);
}

cv::Mat BackgroundModel::foregroundMask(const cv::Mat& thumbnail, double& noiseLevel) const {
  cv::Mat mask(model_.size(), CV_8UC1, cv::Scalar(0));
  noiseLevel = 0;
  for (int c = 0; c < model_.channels(); ++c) {
    cv::Mat plane, reference;
    cv::extractChannel(thumbnail, plane, c);
    cv::extractChannel(model_, reference, c);
    double noise = 0;
    const Line line = exposureLine(plane, reference, &noise);
    const double level = std::max(kMinLevel_, kLevelSigmas * noise);
    noiseLevel = std::max(noiseLevel, level);
    for (int y = 0; y < plane.rows; ++y) {
      const std::uint8_t* t = plane.ptr<std::uint8_t>(y);
      const std::uint8_t* r = reference.ptr<std::uint8_t>(y);
      std::uint8_t* out = mask.ptr<std::uint8_t>(y);
      for (int x = 0; x < plane.cols; ++x) {
        if (!unclipped(t[x]) || !unclipped(r[x])) continue;
        if (std::abs(line.gain * t[x] + line.offset - r[x]) > level) out[x] = 255;
      }
    }
  }
  return mask;
}

ForegroundMeasure BackgroundModel::measure(const cv::Mat& thumbnail, int personHeight, const cv::Mat& ignore) const {
  ForegroundMeasure m;
  if (thumbnail.type() != model_.type() || thumbnail.size() != model_.size()) return m;
  m.measured = true;
  cv::Mat mask = foregroundMask(thumbnail, m.noiseLevel);
  if (!ignore.empty() && ignore.size() == mask.size() && ignore.type() == CV_8UC1) mask.setTo(0, ignore);
  cv::morphologyEx(mask, mask, cv::MORPH_OPEN, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(2, 2)));
  cv::morphologyEx(mask, mask, cv::MORPH_CLOSE, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(3, 5)));
  m.share = double(cv::countNonZero(mask)) / double(mask.total());
  cv::Mat labels, stats, centroids;
  const int count = cv::connectedComponentsWithStats(mask, labels, stats, centroids, 8, CV_32S);
  const double pixelArea = double(factor_) * double(factor_);
  for (int i = 1; i < count; ++i) {
    const double area = stats.at<int>(i, cv::CC_STAT_AREA) * pixelArea;
    const cv::Rect onThumbnail(stats.at<int>(i, cv::CC_STAT_LEFT), stats.at<int>(i, cv::CC_STAT_TOP),
                               stats.at<int>(i, cv::CC_STAT_WIDTH), stats.at<int>(i, cv::CC_STAT_HEIGHT));
    const cv::Rect box = cv::Rect(onThumbnail.x * factor_, onThumbnail.y * factor_, onThumbnail.width * factor_,
                                  onThumbnail.height * factor_) &
                         cv::Rect(0, 0, pictureSize_.width, pictureSize_.height);
    if (personSized(area, box, personHeight)) ++m.personBlobs;
    if (area <= m.largestBlob) continue;
    m.largestBlob = area;
    m.largestBlobBox = box;
  }
  return m;
}

}  // namespace OrbivaneCalibration
