// Binary feature matching with a direct-alignment refinement.
#include "geometry_calibration/matrix_based/feature_matcher.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/hamming_matcher.h"
#include "utils/parallel.h"

namespace GeometryCalibration {
namespace MatrixBased {
namespace {

constexpr int kPadding = 16;        // pixels added around both pictures before detection
constexpr int kMinimumSide = 250;   // the reduced pictures keep at least this many pixels a side
constexpr int kMaskShrink = 7;      // the detection masks are eroded by this square
constexpr double kSearchRadius = 0.15;  // partners are looked for within this share of the larger side
constexpr int kPlacedFeatures = 2000;   // strongest features per picture matched near the current placement
// Most iterations of the robust homography (pairs from the whole pictures hold many outliers).
constexpr int kRansacIterations = 10000;

constexpr int kFastThreshold = 20;      // ORB's corner threshold (grey levels)
constexpr int kWeakFastThreshold = 10;  // ... for pictures of little texture, searched anywhere
constexpr std::size_t kFewFeatures = 1000;  // fewer in a picture at the usual threshold: searched again at the weak one

// Tiles of `tile` pixels needed to cover `length` pixels.
int tilesOver(int length, int tile) { return (length + tile - 1) / tile; }

cv::Ptr<cv::ORB> orbDetector(int maxFeatures, int fastThreshold) {
  return cv::ORB::create(maxFeatures, 1.2f, 8, 15, 0, 2, cv::ORB::FAST_SCORE, 31, fastThreshold);
}

// `work(true)` for the module's picture and `work(false)` for the target's,
// on two threads where the machine has them (each touches its own picture
// only).
void bothPictures(const std::function<void(bool)>& work) {
  Utils::parallelRows(0, 2, [&work](int first, int last) {
    for (int k = first; k < last; ++k) work(k == 0);
  });
}

// At most FeatureMatcher::kMostPairs matches, spread over the module
// picture (of `padded` size): the matches are binned by where they lie in
// it, each bin ordered by distance, and the bins are taken from in turn
// (best first), so that a cap never keeps a single band of the picture.
std::vector<cv::DMatch> spreadCap(const std::vector<cv::DMatch>& matches, const std::vector<cv::KeyPoint>& moduleKeys,
                                  cv::Size padded) {
  const auto most = static_cast<std::size_t>(FeatureMatcher::kMostPairs);
  if (matches.size() <= most) return matches;
  constexpr int kBins = 8;  // per side
  std::vector<std::vector<cv::DMatch>> bins(kBins * kBins);
  for (const auto& m : matches) {
    const cv::Point2f& a = moduleKeys[static_cast<std::size_t>(m.queryIdx)].pt;
    const int bx = std::clamp(static_cast<int>(a.x * kBins / std::max(1, padded.width)), 0, kBins - 1);
    const int by = std::clamp(static_cast<int>(a.y * kBins / std::max(1, padded.height)), 0, kBins - 1);
    bins[static_cast<std::size_t>(by * kBins + bx)].push_back(m);
  }
  for (auto& bin : bins)
    std::stable_sort(bin.begin(), bin.end(),
                     [](const cv::DMatch& a, const cv::DMatch& b) { return a.distance < b.distance; });
  std::vector<cv::DMatch> kept;
  for (std::size_t round = 0; kept.size() < most; ++round) {
    bool any = false;
    for (const auto& bin : bins) {
      if (round >= bin.size()) continue;
      any = true;
      kept.push_back(bin[round]);
      if (kept.size() >= most) break;
    }
    if (!any) break;
  }
  return kept;
}

// The padded, reduced picture's pixels -> work pixels of a picture of `size`
// reduced to `reduced` (pixel centres on integers).
cv::Matx33d paddedToWork(cv::Size size, cv::Size reduced) {
  const double sx = double(size.width) / reduced.width, sy = double(size.height) / reduced.height;
  return cv::Matx33d(sx, 0, (0.5 - kPadding) * sx - 0.5, 0, sy, (0.5 - kPadding) * sy - 0.5, 0, 0, 1);
}

const char* searchName(FeatureMatcher::Search search) {
  switch (search) {
    case FeatureMatcher::Search::kNearPlacement:
      return "near the placement";
    case FeatureMatcher::Search::kAnywhere:
      return "anywhere";
    case FeatureMatcher::Search::kBriskAnywhere:
      return "anywhere (BRISK)";
  }
  return "";
}

// The part of the work pictures searched near the placement `start`: the
// module's content and where `start` draws it on the target, widened by
// the search radius (kSearchRadius of the drawn part's larger side); the
// whole pictures when the module is drawn off the target.
cv::Rect nearPlacement(const cv::Mat& moduleGrey, const cv::Mat& targetGrey, const cv::Mat& moduleMask,
                       const cv::Matx33d& start) {
  const cv::Rect whole(cv::Point(), targetGrey.size());
  WorkPictures outline;
  outline.moduleGrey = moduleGrey;
  outline.targetGrey = targetGrey;
  outline.moduleMask = moduleMask;
  const cv::Rect drawn = footprintOnTarget(outline, start, 0);
  if (drawn.empty() || moduleGrey.size() != targetGrey.size()) return whole;
  const cv::Rect content = moduleMask.empty() ? whole : cv::boundingRect(moduleMask);
  const int radius = int(std::ceil(kSearchRadius * std::max(drawn.width, drawn.height)));
  const cv::Rect both = drawn | content;
  return cv::Rect(both.x - radius, both.y - radius, both.width + 2 * radius, both.height + 2 * radius) & whole;
}

EstimateResult failed(const cv::Matx33f& h) {
  EstimateResult r;
  r.homography = h;
  r.error = kFailedError;
  r.value = 0;
  return r;
}

}  // namespace

FeatureMatcher::FeatureMatcher(EstimatorContext context) : context_(std::move(context)) {}

FeatureMatcher::Prepared FeatureMatcher::prepare(const cv::Mat& grey, const cv::Mat& validity, cv::Size reduced) {
  Prepared prepared;
  cv::Mat small;
  if (reduced == grey.size()) {
    small = grey;
  } else {
    cv::resize(grey, small, reduced, 0, 0, cv::INTER_AREA);
  }
  cv::copyMakeBorder(small, prepared.padded, kPadding, kPadding, kPadding, kPadding, cv::BORDER_REFLECT101);
  prepared.detect = cv::Mat::zeros(prepared.padded.size(), CV_8U);
  cv::Mat inner = prepared.detect(cv::Rect(kPadding, kPadding, reduced.width, reduced.height));
  if (validity.empty()) {
    inner.setTo(255);
  } else {
    cv::resize(validity, inner, reduced, 0, 0, cv::INTER_NEAREST);
  }
  cv::erode(prepared.detect, prepared.detect,
            cv::getStructuringElement(cv::MORPH_RECT, cv::Size(kMaskShrink, kMaskShrink)), cv::Point(-1, -1), 1,
            cv::BORDER_CONSTANT, cv::Scalar(0));
  return prepared;
}

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

bool FeatureMatcher::homographyOfPairs(const std::vector<MatchPair>& pairs, cv::Matx33d& h, int method) {
  if (pairs.size() < 4) return false;
  std::vector<cv::Point2f> from, to;
  from.reserve(pairs.size());
  to.reserve(pairs.size());
  for (const auto& p : pairs) {
    from.emplace_back(p.moduleX, p.moduleY);
    to.emplace_back(p.targetX, p.targetY);
  }
  const cv::Mat found = cv::findHomography(from, to, method, 3.0, cv::noArray(), kRansacIterations);
  if (found.empty() || found.rows != 3 || found.cols != 3) return false;
  cv::Mat converted;
  found.convertTo(converted, CV_64F);
  h = cv::Matx33d(converted.ptr<double>());
  return isUsableHomography(h);
}

bool FeatureMatcher::collectPairs(const cv::Mat& moduleGrey, const cv::Mat& targetGrey, const cv::Mat& moduleMask,
                                  const cv::Mat& targetMask, int maxFeatures, Search search, const cv::Matx33d& start) {
  pairs_.clear();
  // Near the placement only the part of both pictures around where the
  // module is drawn is searched (on a wide target most of it is elsewhere);
  // anywhere, the whole pictures.
  const double factor = matchingFactor(targetGrey.size());
  const cv::Rect box = search == Search::kNearPlacement ? nearPlacement(moduleGrey, targetGrey, moduleMask, start)
                                                        : cv::Rect(cv::Point(), targetGrey.size());
  const cv::Size size = box.size();
  auto cut = [&box](const cv::Mat& picture) { return picture.empty() ? picture : picture(box); };
  const cv::Size reduced(std::max(1, cvRound(size.width / factor)), std::max(1, cvRound(size.height / factor)));
  // The two pictures are prepared, and their features found, side by side.
  Prepared module, target;
  bothPictures([&](bool ofModule) {
    if (ofModule) {
      module = prepare(cut(moduleGrey), cut(moduleMask), reduced);
    } else {
      target = prepare(cut(targetGrey), cut(targetMask), reduced);
    }
  });
  const cv::Matx33d toWork =
      cv::Matx33d(1, 0, box.x, 0, 1, box.y, 0, 0, 1) * paddedToWork(size, reduced);

  Features moduleFeatures, targetFeatures;
  if (!detectFeatures(module, target, maxFeatures, search, moduleFeatures, targetFeatures)) return false;
  context_.logger->debug("{} module and {} target features", moduleFeatures.keys.size(), targetFeatures.keys.size());
  if (moduleFeatures.descriptors.empty() || targetFeatures.descriptors.empty()) return true;

  std::vector<cv::DMatch> matches;
  if (search == Search::kNearPlacement) {
    const int radius = std::max(8, static_cast<int>(kSearchRadius * std::max(reduced.width, reduced.height)));
    if (!matchNearPlacement(moduleFeatures, targetFeatures, toWork.inv() * start * toWork, radius,
                            target.padded.size(), matches))
      return false;
  } else {
    crossCheckedHamming(moduleFeatures.descriptors, targetFeatures.descriptors, matches);
  }
  if (context_.aborted()) return false;

  const std::vector<cv::DMatch> kept = spreadCap(matches, moduleFeatures.keys, module.padded.size());
  auto work = [&toWork](const cv::Point2f& p) {
    return cv::Point2f(static_cast<float>(toWork(0, 0) * p.x + toWork(0, 2)),
                       static_cast<float>(toWork(1, 1) * p.y + toWork(1, 2)));
  };
  pairs_.reserve(kept.size());
  for (const auto& m : kept) {
    const cv::Point2f a = work(moduleFeatures.keys[static_cast<std::size_t>(m.queryIdx)].pt);
    const cv::Point2f b = work(targetFeatures.keys[static_cast<std::size_t>(m.trainIdx)].pt);
    pairs_.push_back({a.x, a.y, b.x, b.y, m.distance});
  }
  return true;
}

bool FeatureMatcher::detectFeatures(const Prepared& module, const Prepared& target, int maxFeatures, Search search,
                                    Features& moduleFeatures, Features& targetFeatures) const {
  // Each picture's features with a detector of its own, the two side by side.
  auto each = [&](const std::function<void(const Prepared&, Features&)>& find) {
    bothPictures([&](bool ofModule) { find(ofModule ? module : target, ofModule ? moduleFeatures : targetFeatures); });
    return !context_.aborted();
  };
  // The strongest `most` features of each picture.
  auto strongest = [&](const std::function<cv::Ptr<cv::Feature2D>()>& detector, int most) {
    return each([&](const Prepared& picture, Features& features) {
      const cv::Ptr<cv::Feature2D> found = detector();
      found->detect(picture.padded, features.keys, picture.detect);
      cv::KeyPointsFilter::retainBest(features.keys, most);
      found->compute(picture.padded, features.keys, features.descriptors);
    });
  };
  // Near the current placement only the strongest features are matched (the
  // direct refinement does the fine work); BRISK, which has no count of its
  // own, keeps as many as ORB may find (a noisy picture has far more).
  if (search == Search::kNearPlacement)
    return strongest([&] { return orbDetector(maxFeatures, kFastThreshold); }, kPlacedFeatures);
  if (search == Search::kBriskAnywhere) return strongest([] { return cv::BRISK::create(30, 4, 0.4f); }, maxFeatures);
  // Anywhere: every feature of both pictures. Pictures of little texture (a
  // module that shows mostly sky) give few at the usual threshold; then
  // both are searched again with a lower one.
  for (const int threshold : {kFastThreshold, kWeakFastThreshold}) {
    const bool finished = each([&](const Prepared& picture, Features& features) {
      orbDetector(maxFeatures, threshold)->detectAndCompute(picture.padded, picture.detect, features.keys,
                                                            features.descriptors);
    });
    if (!finished) return false;
    if (std::min(moduleFeatures.keys.size(), targetFeatures.keys.size()) >= kFewFeatures) break;
  }
  return true;
}

bool FeatureMatcher::matchNearPlacement(const Features& module, const Features& target, const cv::Matx33d& placed,
                                        int radius, cv::Size padded, std::vector<cv::DMatch>& matches) const {
  // The module picture is already placed on the target by its current
  // matrix, so a feature's partner lies near the same place. The pictures
  // are cut into tiles of the search radius; the module features of a tile
  // (where the start homography `placed` puts them) are matched
  // (cross-checked) against the target features of that tile and its eight
  // neighbours only, which keeps large feature counts affordable.
  const int gridCols = tilesOver(padded.width, radius), gridRows = tilesOver(padded.height, radius);
  auto binsOf = [&](const std::vector<cv::KeyPoint>& keys, const cv::Matx33d& move) {
    std::vector<std::vector<int>> bins(static_cast<std::size_t>(gridCols * gridRows));
    for (std::size_t k = 0; k < keys.size(); ++k) {
      const cv::Vec3d p = move * cv::Vec3d(keys[k].pt.x, keys[k].pt.y, 1.0);
      if (!(p[2] > 1e-12)) continue;
      const double x = p[0] / p[2], y = p[1] / p[2];
      if (!(x > -radius && x < padded.width + radius && y > -radius && y < padded.height + radius)) continue;
      const int bx = std::clamp(static_cast<int>(x) / radius, 0, gridCols - 1);
      const int by = std::clamp(static_cast<int>(y) / radius, 0, gridRows - 1);
      bins[static_cast<std::size_t>(by * gridCols + bx)].push_back(static_cast<int>(k));
    }
    return bins;
  };
  const auto moduleBins = binsOf(module.keys, placed), targetBins = binsOf(target.keys, cv::Matx33d::eye());
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
      query.create(static_cast<int>(queries.size()), module.descriptors.cols, module.descriptors.type());
      train.create(static_cast<int>(trainIndex.size()), target.descriptors.cols, target.descriptors.type());
      for (std::size_t k = 0; k < queries.size(); ++k) module.descriptors.row(queries[k]).copyTo(query.row(int(k)));
      for (std::size_t k = 0; k < trainIndex.size(); ++k)
        target.descriptors.row(trainIndex[k]).copyTo(train.row(int(k)));
      local.clear();
      crossCheckedHamming(query, train, local);
      for (const auto& m : local)
        matches.emplace_back(queries[static_cast<std::size_t>(m.queryIdx)],
                             trainIndex[static_cast<std::size_t>(m.trainIdx)], m.distance);
    }
  }
  return true;
}

bool FeatureMatcher::Candidate::supported() const {
  return found && agreeing >= kLeastSupport && correlation >= kLeastCorrelation;
}

bool FeatureMatcher::Candidate::betterThan(const Candidate& other) const {
  if (found != other.found) return found;
  if (supported() != other.supported()) return supported();
  if (correlation != other.correlation) return correlation > other.correlation;
  return agreeing > other.agreeing;
}

bool FeatureMatcher::runStage(const WorkPictures& pictures, const cv::Mat& moduleContrast,
                              const cv::Mat& targetContrast, int maxFeatures, Search search, const cv::Matx33d& start,
                              Candidate& candidate) {
  candidate = Candidate();
  candidate.search = search;
  if (!collectPairs(moduleContrast, targetContrast, pictures.moduleMask, pictures.targetMask, maxFeatures, search,
                    start))
    return false;

  // 7. Too few pairs.
  if (pairs_.size() < static_cast<std::size_t>(kFewestPairs)) return true;
  // 8.-9. The best pairs and their homography.
  keepBest(pairs_);
  candidate.pairs = pairs_;
  const int method = search == Search::kNearPlacement ? cv::RHO : cv::RANSAC;
  candidate.found = homographyOfPairs(candidate.pairs, candidate.homography, method) &&
                    cv::determinant(candidate.homography) > 0.0;
  if (!candidate.found) return true;
  for (const auto& p : candidate.pairs) {
    const cv::Vec3d q = candidate.homography * cv::Vec3d(p.moduleX, p.moduleY, 1.0);
    if (std::fabs(q[2]) > 1e-12 && std::hypot(q[0] / q[2] - p.targetX, q[1] / q[2] - p.targetY) <= kSupportDistance)
      ++candidate.agreeing;
  }
  const double correlation = overlapCorrelation(pictures, candidate.homography);
  candidate.correlation = std::isfinite(correlation) ? correlation : -1.0;
  return !context_.aborted();
}

void FeatureMatcher::drawMatchesForInspection(const cv::Mat& moduleEqualised, const cv::Mat& targetEqualised) const {
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
  const float startError = differenceError(pictures, cv::Matx33d(start));

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

  // 5.-9. Features at the reduced scale: near the current placement first,
  // then anywhere, then BRISK anywhere, until the pictures support a result.
  context_.logger->info("Matching Features ...");
  Candidate best;
  bool anywhereFound = false;
  for (const Search search : {Search::kNearPlacement, Search::kAnywhere, Search::kBriskAnywhere}) {
    // BRISK is for pictures on which ORB anywhere forms no homography at all.
    if (search == Search::kBriskAnywhere && anywhereFound) break;
    Candidate candidate;
    if (!runStage(pictures, moduleContrast, targetContrast, maxFeatures, search, cv::Matx33d(start), candidate))
      return failed(start);
    context_.logger->debug("search {}: {} pairs, homography {}, {} agree, correlation {:.3f}", searchName(search),
                           candidate.pairs.size(), candidate.found, candidate.agreeing, candidate.correlation);
    anywhereFound = search == Search::kAnywhere && candidate.found;
    if (candidate.betterThan(best)) best = std::move(candidate);
    if (best.supported()) break;
  }
  if (!best.found) return failed(start);
  pairs_ = best.pairs;
  const cv::Matx33d found = best.homography;

  // 10. Error of the estimate, then the refinement at full resolution.
  context_.logger->info("Calculate Error ...");
  if (context_.aborted()) return failed(start);
  context_.logger->info("Refine the Results ...");
  const cv::Matx33d refined = refineHomography(pictures, found, &refined_);
  const float error = differenceError(pictures, refined);
  context_.logger->debug("start error {}, feature pairs {} (search {}), refined {}, error {}", startError,
                         pairs_.size(), searchName(best.search), refined_, error);

  // 11. For inspection at debug level: the matches drawn in random colours.
  if (inspecting) drawMatchesForInspection(moduleEqualised, targetEqualised);

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
