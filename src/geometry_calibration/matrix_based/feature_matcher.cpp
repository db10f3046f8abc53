// Binary feature matching with a direct-alignment refinement.
#include "geometry_calibration/matrix_based/feature_matcher.h"

#include <algorithm>
#include <cstdlib>
#include <tuple>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>

namespace GeometryCalibration {
namespace MatrixBased {
namespace {

constexpr int kPadding = 16;        // pixels added around both pictures before detection
constexpr int kMinimumSide = 250;   // the reduced pictures keep at least this many pixels a side
constexpr int kMaskShrink = 7;      // the detection masks are eroded by this square
constexpr double kSearchRadius = 0.15;  // partners are looked for within this share of the larger side
constexpr int kPlacedFeatures = 2000;   // strongest features per picture matched near the current placement

int padded(int length, int cell) { return (length + cell - 1) / cell; }

EstimateResult failed(const cv::Matx33f& h) {
  EstimateResult r;
  r.homography = h;
  r.error = kFailedError;
  r.value = 0;
  return r;
}

}  // namespace

FeatureMatcher::FeatureMatcher(EstimatorContext context) : context_(std::move(context)) {}

double FeatureMatcher::matchingFactor(cv::Size size) {
  const std::vector<double> factors = {1.0, 1.1, 1.2, 1.25, 1.3, 1.35};
  for (std::size_t i = 0; i < factors.size(); ++i) {
    const double w = size.width / factors[i], h = size.height / factors[i];
    if (w >= kMinimumSide && h >= kMinimumSide && i >= 2) return factors[i];
  }
  return 1.0;
}

void FeatureMatcher::keepBest(std::vector<MatchPair>& pairs) {
  std::stable_sort(pairs.begin(), pairs.end(),
                   [](const MatchPair& a, const MatchPair& b) { return a.distance < b.distance; });
  if (pairs.size() > 10) pairs.resize(static_cast<std::size_t>(pairs.size() * 0.75));
}

bool FeatureMatcher::homographyOfPairs(const std::vector<MatchPair>& pairs, cv::Matx33d& h) {
  if (pairs.size() < 4) return false;
  std::vector<cv::Point2f> from, to;
  from.reserve(pairs.size());
  to.reserve(pairs.size());
  for (const auto& p : pairs) {
    from.emplace_back(p.moduleX, p.moduleY);
    to.emplace_back(p.targetX, p.targetY);
  }
  const cv::Mat found = cv::findHomography(from, to, cv::RHO, 3.0);
  if (found.empty() || found.rows != 3 || found.cols != 3) return false;
  cv::Mat converted;
  found.convertTo(converted, CV_64F);
  h = cv::Matx33d(converted.ptr<double>());
  return isUsableHomography(h);
}

bool FeatureMatcher::collectPairs(const cv::Mat& moduleGrey, const cv::Mat& targetGrey, const cv::Mat& moduleMask,
                                  const cv::Mat& targetMask, int maxFeatures, bool brisk, bool prior) {
  pairs_.clear();
  const cv::Size size = targetGrey.size();
  const double factor = matchingFactor(size);
  const cv::Size reduced(std::max(1, cvRound(size.width / factor)), std::max(1, cvRound(size.height / factor)));

  auto prepare = [&](const cv::Mat& grey, const cv::Mat& validity, cv::Mat& padded, cv::Mat& mask) {
    cv::Mat small;
    if (reduced == grey.size()) {
      small = grey;
    } else {
      cv::resize(grey, small, reduced, 0, 0, cv::INTER_AREA);
    }
    cv::copyMakeBorder(small, padded, kPadding, kPadding, kPadding, kPadding, cv::BORDER_REFLECT101);
    mask = cv::Mat::zeros(padded.size(), CV_8U);
    cv::Mat inner = mask(cv::Rect(kPadding, kPadding, reduced.width, reduced.height));
    if (validity.empty()) {
      inner.setTo(255);
    } else {
      cv::resize(validity, inner, reduced, 0, 0, cv::INTER_NEAREST);
    }
    cv::erode(mask, mask, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(kMaskShrink, kMaskShrink)),
              cv::Point(-1, -1), 1, cv::BORDER_CONSTANT, cv::Scalar(0));
  };
  cv::Mat modulePadded, moduleDetect, targetPadded, targetDetect;
  prepare(moduleGrey, moduleMask, modulePadded, moduleDetect);
  prepare(targetGrey, targetMask, targetPadded, targetDetect);

  cv::Ptr<cv::Feature2D> detector;
  if (brisk) {
    detector = cv::BRISK::create(30, 4, 0.4f);
  } else {
    detector = cv::ORB::create(maxFeatures, 1.2f, 8, 15, 0, 2, cv::ORB::FAST_SCORE, 31, 20);
  }
  std::vector<cv::KeyPoint> moduleKeys, targetKeys;
  cv::Mat moduleDescriptors, targetDescriptors;
  if (prior) {
    // Near the current placement only the strongest features are matched
    // (the direct refinement does the fine work): the detector finds its
    // features as set up, and only the strongest kPlacedFeatures of each
    // picture are described.
    for (auto [picture, detect, keys, descriptors] :
         {std::make_tuple(&modulePadded, &moduleDetect, &moduleKeys, &moduleDescriptors),
          std::make_tuple(&targetPadded, &targetDetect, &targetKeys, &targetDescriptors)}) {
      detector->detect(*picture, *keys, *detect);
      cv::KeyPointsFilter::retainBest(*keys, kPlacedFeatures);
      detector->compute(*picture, *keys, *descriptors);
      if (context_.aborted()) return false;
    }
  } else {
    detector->detectAndCompute(modulePadded, moduleDetect, moduleKeys, moduleDescriptors);
    if (context_.aborted()) return false;
    detector->detectAndCompute(targetPadded, targetDetect, targetKeys, targetDescriptors);
  }
  context_.logger->debug("{} module and {} target features", moduleKeys.size(), targetKeys.size());
  if (moduleDescriptors.empty() || targetDescriptors.empty()) return true;
  cv::BFMatcher matcher(cv::NORM_HAMMING, true);
  std::vector<cv::DMatch> matches;
  if (prior) {
    // The module picture is already placed on the target by its current
    // matrix, so a feature's partner lies near the same place. The pictures
    // are cut into tiles of the search radius; the module features of a tile
    // are matched (cross-checked) against the target features of that tile
    // and its eight neighbours only, which keeps large feature counts
    // affordable.
    const int cell = std::max(8, static_cast<int>(kSearchRadius * std::max(reduced.width, reduced.height)));
    const int gridCols = padded(targetPadded.cols, cell), gridRows = padded(targetPadded.rows, cell);
    auto binsOf = [&](const std::vector<cv::KeyPoint>& keys) {
      std::vector<std::vector<int>> bins(static_cast<std::size_t>(gridCols * gridRows));
      for (std::size_t k = 0; k < keys.size(); ++k) {
        const int bx = std::clamp(static_cast<int>(keys[k].pt.x) / cell, 0, gridCols - 1);
        const int by = std::clamp(static_cast<int>(keys[k].pt.y) / cell, 0, gridRows - 1);
        bins[static_cast<std::size_t>(by * gridCols + bx)].push_back(static_cast<int>(k));
      }
      return bins;
    };
    const auto moduleBins = binsOf(moduleKeys), targetBins = binsOf(targetKeys);
    cv::Mat query, train;
    std::vector<int> trainIndex;
    std::vector<cv::DMatch> local;
    for (int by = 0; by < gridRows; ++by) {
      for (int bx = 0; bx < gridCols; ++bx) {
        if (context_.aborted()) return false;
        const auto& queries = moduleBins[static_cast<std::size_t>(by * gridCols + bx)];
        if (queries.empty()) continue;
        trainIndex.clear();
        for (int y = std::max(0, by - 1); y <= std::min(gridRows - 1, by + 1); ++y)
          for (int x = std::max(0, bx - 1); x <= std::min(gridCols - 1, bx + 1); ++x)
            for (const int t : targetBins[static_cast<std::size_t>(y * gridCols + x)]) trainIndex.push_back(t);
        if (trainIndex.empty()) continue;
        query.create(static_cast<int>(queries.size()), moduleDescriptors.cols, moduleDescriptors.type());
        train.create(static_cast<int>(trainIndex.size()), targetDescriptors.cols, targetDescriptors.type());
        for (std::size_t k = 0; k < queries.size(); ++k) moduleDescriptors.row(queries[k]).copyTo(query.row(int(k)));
        for (std::size_t k = 0; k < trainIndex.size(); ++k)
          targetDescriptors.row(trainIndex[k]).copyTo(train.row(int(k)));
        local.clear();
        matcher.match(query, train, local);
        for (const auto& m : local)
          matches.emplace_back(queries[static_cast<std::size_t>(m.queryIdx)],
                               trainIndex[static_cast<std::size_t>(m.trainIdx)], m.distance);
      }
    }
  } else {
    matcher.match(moduleDescriptors, targetDescriptors, matches);
  }

  // At most kMostPairs pairs, spread over the picture: the matches are
  // binned by where they lie in the module picture, each bin ordered by
  // distance, and the bins are taken from in turn (best first), so that a
  // cap never keeps a single band of the picture.
  if (context_.aborted()) return false;
  std::vector<cv::DMatch> kept;
  if (matches.size() <= static_cast<std::size_t>(kMostPairs)) {
    kept = matches;
  } else {
    constexpr int kBins = 8;  // per side
    std::vector<std::vector<cv::DMatch>> bins(kBins * kBins);
    for (const auto& m : matches) {
      const cv::Point2f& a = moduleKeys[static_cast<std::size_t>(m.queryIdx)].pt;
      const int bx = std::clamp(static_cast<int>(a.x * kBins / std::max(1, modulePadded.cols)), 0, kBins - 1);
      const int by = std::clamp(static_cast<int>(a.y * kBins / std::max(1, modulePadded.rows)), 0, kBins - 1);
      bins[static_cast<std::size_t>(by * kBins + bx)].push_back(m);
    }
    for (auto& bin : bins)
      std::stable_sort(bin.begin(), bin.end(),
                       [](const cv::DMatch& a, const cv::DMatch& b) { return a.distance < b.distance; });
    for (std::size_t round = 0; kept.size() < static_cast<std::size_t>(kMostPairs); ++round) {
      bool any = false;
      for (const auto& bin : bins) {
        if (round >= bin.size()) continue;
        any = true;
        kept.push_back(bin[round]);
        if (kept.size() >= static_cast<std::size_t>(kMostPairs)) break;
      }
      if (!any) break;
    }
  }

  const double sx = double(size.width) / reduced.width, sy = double(size.height) / reduced.height;
  pairs_.reserve(kept.size());
  for (const auto& m : kept) {
    const cv::Point2f& a = moduleKeys[static_cast<std::size_t>(m.queryIdx)].pt;
    const cv::Point2f& b = targetKeys[static_cast<std::size_t>(m.trainIdx)].pt;
    MatchPair pair;
    // Back from the padded, reduced picture to work pixels (pixel centres on integers).
    pair.moduleX = static_cast<float>((a.x - kPadding + 0.5) * sx - 0.5);
    pair.moduleY = static_cast<float>((a.y - kPadding + 0.5) * sy - 0.5);
    pair.targetX = static_cast<float>((b.x - kPadding + 0.5) * sx - 0.5);
    pair.targetY = static_cast<float>((b.y - kPadding + 0.5) * sy - 0.5);
    pair.distance = m.distance;
    pairs_.push_back(pair);
  }
  return true;
}

EstimateResult FeatureMatcher::estimate(const WorkPictures& input, const cv::Matx33f& homography, int maxFeatures,
                                        float shiftX, float shiftY) {
  pairs_.clear();
  refined_ = false;
  cv::Matx33f start = homography;
  start(0, 2) += shiftX * start(2, 2);
  start(1, 2) += shiftY * start(2, 2);
  // 1. Too small to work on.
  if (input.target.empty() || input.module.empty() || double(input.target.cols) * input.target.rows <= 10.0 ||
      double(input.module.cols) * input.module.rows <= 10.0)
    return failed(start);
  if (!isUsableHomography(cv::Matx33d(start))) return failed(homography);

  // 2. The module picture at the target's size.
  WorkPictures pictures = input;
  if (pictures.module.size() != pictures.target.size()) {
    cv::resize(input.module, pictures.module, input.target.size(), 0, 0, cv::INTER_CUBIC);
    if (!input.moduleMask.empty())
      cv::resize(input.moduleMask, pictures.moduleMask, input.target.size(), 0, 0, cv::INTER_NEAREST);
    pictures.moduleGrey.release();
  }
  if (pictures.moduleGrey.empty() || pictures.targetGrey.empty()) pictures.prepareGrey();

  // 3. The starting error.
  const float startError = differenceError(pictures.module, pictures.target, cv::Matx33d(start));

  // 4. Contrast.
  cv::Ptr<cv::CLAHE> clahe = cv::createCLAHE(4.0, cv::Size(8, 8));
  cv::Mat moduleContrast, targetContrast;
  clahe->apply(pictures.moduleGrey, moduleContrast);
  clahe->apply(pictures.targetGrey, targetContrast);
  // The colour pictures equalised per channel are only for inspection (the
  // matches drawn on them at trace level): made only then.
  const bool inspecting = context_.logger->should_log(spdlog::level::trace);
  cv::Mat moduleEqualised, targetEqualised;
  if (inspecting) {
    for (const auto& [source, destination] : {std::make_pair(&pictures.module, &moduleEqualised),
                                              std::make_pair(&pictures.target, &targetEqualised)}) {
      std::vector<cv::Mat> channels;
      cv::split(*source, channels);
      for (auto& channel : channels) cv::equalizeHist(channel, channel);
      cv::merge(channels, *destination);
    }
  }

  // 5.-6. Features at the reduced scale.
  context_.logger->info("Matching Features ...");
  // ORB near the current placement first, then ORB anywhere, then BRISK anywhere.
  cv::Matx33d found;
  bool haveHomography = false;
  for (int attempt = 0; attempt < 3 && !haveHomography; ++attempt) {
    if (attempt > 0) context_.logger->debug("{} pairs; widening the search (attempt {})", pairs_.size(), attempt + 1);
    if (!collectPairs(moduleContrast, targetContrast, pictures.moduleMask, pictures.targetMask, maxFeatures,
                      attempt == 2, attempt == 0))
      return failed(start);
    // 7. Too few pairs.
    if (pairs_.size() < static_cast<std::size_t>(kFewestPairs)) continue;
    // 8.-9. The best pairs and their homography.
    keepBest(pairs_);
    haveHomography = homographyOfPairs(pairs_, found) && cv::determinant(found) > 0.0;
  }
  if (!haveHomography) return failed(start);

  // 10. Error of the estimate, then the refinement at full resolution.
  context_.logger->info("Calculate Error ...");
  if (context_.aborted()) return failed(start);
  context_.logger->info("Refine the Results ...");
  const cv::Matx33d refined = refineHomography(pictures, found, &refined_);
  const float error = differenceError(pictures.module, pictures.target, refined);
  context_.logger->debug("start error {}, feature pairs {}, refined {}, error {}", startError, pairs_.size(),
                         refined_, error);

  // 11. For inspection at debug level: the matches drawn in random colours.
  if (inspecting) {
    std::vector<cv::KeyPoint> a, b;
    std::vector<cv::DMatch> drawn;
    for (const auto& p : pairs_) {
      drawn.emplace_back(static_cast<int>(a.size()), static_cast<int>(b.size()), p.distance);
      a.emplace_back(p.moduleX, p.moduleY, 1.0f);
      b.emplace_back(p.targetX, p.targetY, 1.0f);
    }
    cv::Mat canvas;
    cv::drawMatches(moduleEqualised, a, targetEqualised, b, drawn, canvas,
                    cv::Scalar(std::rand() % 255, std::rand() % 255, std::rand() % 255));
    context_.logger->trace("drew {} matches on a {}x{} picture", drawn.size(), canvas.cols, canvas.rows);
  }

  EstimateResult result;
  result.homography = cv::Matx33f(refined);
  result.value = static_cast<std::int32_t>(pairs_.size());
  result.error = error;
  std::vector<std::pair<cv::Point2f, cv::Point2f>> pairs;
  pairs.reserve(pairs_.size());
  for (const auto& p : pairs_) pairs.emplace_back(cv::Point2f(p.moduleX, p.moduleY), cv::Point2f(p.targetX, p.targetY));
  collectSupport(pairs, result);
  return result;
}

}  // namespace MatrixBased
}  // namespace GeometryCalibration
