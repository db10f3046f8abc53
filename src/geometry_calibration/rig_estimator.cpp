// The camera geometry of a rig from its pictures (see rig_estimator.h): find
// features, link the pictures, adjust the rig, frame the panorama, write the
// modules, even out the exposure.
#include "orbivane/geometry_calibration/rig_estimator.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <set>

#include <opencv2/imgproc.hpp>
#include <opencv2/stitching/detail/autocalib.hpp>
#include <opencv2/stitching/detail/motion_estimators.hpp>

#include "geometry_calibration/rig/rig_adjustment.h"
#include "geometry_calibration/rig/rig_exposure.h"
#include "geometry_calibration/rig/rig_geometry.h"
#include "geometry_calibration/rig/rig_matching.h"
#include "geometry_calibration/rig/rig_seams.h"
#include "geometry_calibration/rig/rig_surface.h"
#include "geometry_calibration/rig/rig_target.h"
#include "logging/logger_setup.h"
#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/shading/image_shading.h"
#include "orbivane/utils/wide_text.h"

namespace GeometryCalibration {
namespace {

constexpr double kPi = 3.14159265358979323846;
// A pair below the confidence threshold still links its pictures when at
// least kManyInliers matches agree with its homography and its confidence
// reaches kWeakPairShare of the threshold.
constexpr int kManyInliers = 20;
constexpr double kWeakPairShare = 0.6;
// When the pairs leave pictures apart, features are searched again with this
// SIFT contrast threshold (the default is 0.04): the overlap of two pictures
// that show mostly sky or plain walls holds few features otherwise.
constexpr double kRescueContrast = 0.01;
// Pairs the adjusted rig says overlap (at least kPredictedOverlapShare of
// the first picture's lattice lands in the second) but that no pair links
// are matched again, each feature looked for within kGuidedRadiusPx of where
// the rig puts it; kFewestGuidedInliers matches that agree on a turn link
// them (a ring's closing pair, two pictures of mostly sky or pavement).
constexpr double kPredictedOverlapShare = 0.04;
constexpr double kGuidedRadiusPx = 64.0;
// Seams whose displacements move a picture point by kParallaxPx panorama
// pixels or more are held again with the pairs' features matched where the
// displaced model puts them, within kSeamGuidedRadiusPx picture pixels.
constexpr double kParallaxPx = 2.0;
constexpr double kSeamGuidedRadiusPx = 12.0;
constexpr double kSeamWideRadiusPx = 40.0;
constexpr int kWideSeamRounds = 2;
constexpr double kSeamAgreementPx = 1.5;  // panorama pixels
// A round is kept when its seams line up this share of the first matches
// more than the seams before it (a smaller gain is within what the matches'
// own scatter moves: 0.1-0.9 % on sets the wider search leaves no better).
constexpr double kSeamRoundGain = 0.01;
constexpr int kFewestGuidedInliers = 15;

// Straightening that leaves the modules rolled by more than this on average
// (degrees) has found the wrong horizon.
constexpr double kMostMeanRoll = 30.0;
// A linked pair of which the adjusted rig keeps fewer matches than this does
// not link; the rig is adjusted again without it, a pair at a time, at most
// kLinkRounds times.
constexpr int kFewestKeptMatches = 12;
// ... counting the matches within kSupportPx picture pixels of the model
// (near objects seen from a moving camera are some pixels off any rotation).
constexpr double kSupportPx = 20.0;
constexpr int kLinkRounds = 8;

std::string narrow(const std::wstring& text) { return Utils::toUtf8(text); }

double median(std::vector<double> values) {
  if (values.empty()) return 0.0;
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  return values[values.size() / 2];
}
double percentile90(std::vector<double> values) {
  if (values.empty()) return 0.0;
  const std::size_t k = std::min(values.size() - 1, std::size_t(0.9 * values.size()));
  std::nth_element(values.begin(), values.begin() + long(k), values.end());
  return values[k];
}

// Yaw, pitch, roll in degrees of a camera -> world rotation (y down, z forward).
void anglesOf(const cv::Matx33d& r, double& yaw, double& pitch, double& roll) {
  const cv::Vec3d forward(r(0, 2), r(1, 2), r(2, 2));
  yaw = std::atan2(forward[0], forward[2]) * 180.0 / kPi;
  pitch = std::asin(std::clamp(-forward[1], -1.0, 1.0)) * 180.0 / kPi;
  // Roll: the camera's right axis against the horizontal right of its view.
  const cv::Vec3d right(r(0, 0), r(1, 0), r(2, 0));
  const cv::Vec3d level = cv::normalize(cv::Vec3d(forward[2], 0.0, -forward[0]));
  const cv::Vec3d down = forward.cross(level);
  roll = std::atan2(right.dot(down), right.dot(level)) * 180.0 / kPi;
}

// The mean roll of the modules, degrees: how far their own "up" leans from
// the world's.
double meanRoll(const std::vector<Rig::ModuleModel>& models) {
  double sum = 0.0;
  for (const auto& m : models) {
    double yaw = 0, pitch = 0, roll = 0;
    anglesOf(m.rotation, yaw, pitch, roll);
    sum += std::fabs(roll);
  }
  return sum / double(models.size());
}

// Turns the world so that `down` and `forward` (unit, at right angles) are
// its new down and forward axes.
void turnWorld(std::vector<Rig::ModuleModel>& models, const cv::Vec3d& down, const cv::Vec3d& forward) {
  const cv::Vec3d right = down.cross(forward);
  const cv::Matx33d world(right[0], right[1], right[2], down[0], down[1], down[2], forward[0], forward[1], forward[2]);
  for (auto& m : models) m.rotation = world * m.rotation;
}

// The modules' mean viewing direction and mean "down" (world coordinates).
void meanAxes(const std::vector<Rig::ModuleModel>& models, cv::Vec3d& down, cv::Vec3d& forward) {
  down = forward = cv::Vec3d(0, 0, 0);
  for (const auto& m : models) {
    down += cv::Vec3d(m.rotation(0, 1), m.rotation(1, 1), m.rotation(2, 1));
    forward += cv::Vec3d(m.rotation(0, 2), m.rotation(1, 2), m.rotation(2, 2));
  }
  down = cv::normalize(down);
}

// A ring of modules: the axis (pointing down) their viewing directions turn
// about, the normal of the plane through the tips of those directions. It
// counts when at least kRingModules modules spread at least kRingSpread
// degrees each way round it and their tips lie within kRingFlatness degrees
// of one cone; anything else (a cluster, two rings, a pole) is no ring.
constexpr int kRingModules = 4;
constexpr double kRingSpread = 30.0;
constexpr double kRingFlatness = 3.0;
bool ringAxis(const std::vector<Rig::ModuleModel>& models, cv::Vec3d& axis) {
  if (int(models.size()) < kRingModules) return false;
  std::vector<cv::Vec3d> tips;
  cv::Vec3d mean(0, 0, 0);
  for (const auto& m : models) {
    tips.emplace_back(m.rotation(0, 2), m.rotation(1, 2), m.rotation(2, 2));
    mean += tips.back() / double(models.size());
  }
  cv::Matx33d spread = cv::Matx33d::zeros();
  for (const auto& t : tips) spread += (t - mean) * (t - mean).t() * (1.0 / double(tips.size()));
  cv::Mat values, vectors;
  cv::eigen(cv::Mat(spread), values, vectors);  // descending
  const double degree = kPi / 180.0;
  // A ring of radius sin(c) over an arc of +-a has a spread of about
  // (sin(c) sin(a))^2 / 2 across; its flatness is the root of the least one.
  if (values.at<double>(1) < 0.5 * std::pow(std::sin(kRingSpread * degree) * std::sin(kRingSpread * degree), 2)) {
    return false;
  }
  if (std::sqrt(std::max(0.0, values.at<double>(2))) > std::sin(kRingFlatness * degree)) return false;
  axis = cv::Vec3d(vectors.at<double>(2, 0), vectors.at<double>(2, 1), vectors.at<double>(2, 2));
  cv::Vec3d down, forward;
  meanAxes(models, down, forward);
  if (axis.dot(down) < 0) axis = -axis;
  return axis.dot(down) > std::cos(kMostMeanRoll * degree);
}

// Turns the world so that the panorama is level. A ring's own axis is up
// (the modules turn about it, so the ring lies straight along the
// panorama however the rig or a hand-held camera leaned). Any other rig is
// levelled by cv::detail::waveCorrect (horizontal). With few modules, or
// modules that all look one way, that horizon is ill-defined and can come
// out turned by a right angle; then the modules' own mean "up" is taken.
void straightenHorizon(std::vector<Rig::ModuleModel>& models) {
  cv::Vec3d down, forward;
  meanAxes(models, down, forward);
  cv::Vec3d axis;
  if (ringAxis(models, axis)) {
    turnWorld(models, axis, cv::normalize(forward - axis * forward.dot(axis)));
    return;
  }
  std::vector<cv::Mat> rotations;
  for (const auto& model : models) rotations.push_back(cv::Mat(cv::Matx33f(model.rotation)));
  cv::detail::waveCorrect(rotations, cv::detail::WAVE_CORRECT_HORIZ);
  std::vector<Rig::ModuleModel> corrected = models;
  for (std::size_t k = 0; k < models.size(); ++k) {
    cv::Mat r;
    rotations[k].convertTo(r, CV_64F);
    cv::SVD svd(r);  // orthonormal again after the float round trip
    corrected[k].rotation = cv::Matx33d(cv::Mat(svd.u * svd.vt));
  }
  if (meanRoll(corrected) <= kMostMeanRoll) {
    models = corrected;
    return;
  }
  // World down = the modules' mean down; forward = their mean forward, levelled.
  turnWorld(models, down, cv::normalize(forward - down * forward.dot(down)));
}

}  // namespace

Utils::ReturnState<bool, std::string> RigOptions::validate() const {
  if (projection != "auto" && projection != "plane" && projection != "cylindrical" && projection != "spherical") {
    return Utils::failure("the projection is auto, plane, cylindrical or spherical, not '" + projection + "'");
  }
  if (!(featureMegapixels >= 0.1 && featureMegapixels <= 50.0)) {
    return Utils::failure("the feature search size is 0.1..50 megapixels, not " + std::to_string(featureMegapixels));
  }
  if (!(pairConfidence >= 0.3 && pairConfidence <= 10.0)) {
    return Utils::failure("the pair confidence is 0.3..10, not " + std::to_string(pairConfidence));
  }
  if (!(gridTolerancePx >= 0.001 && gridTolerancePx <= 2.0)) {
    return Utils::failure("the grid tolerance is 0.001..2 pixels, not " + std::to_string(gridTolerancePx));
  }
  return true;
}

namespace {
struct RigRun;
}  // namespace

struct RigEstimator::Impl {
  CameraDescription::Orbivane camera;
  Images images;
  RigOptions options;
  StatusCallback callback;
  std::atomic<bool> abort{false};
  RigReport report;
  int progress = 0, total = 0;
  std::shared_ptr<spdlog::logger> logger = Utils::calibratorLogger("RigEstimation");

  // The steps of an estimate (see estimate()); each fails with its reason.
  Utils::ReturnState<bool, std::string> matchPictures(RigRun& run);
  Utils::ReturnState<bool, std::string> adjustRig(RigRun& run);
  Utils::ReturnState<Rig::TargetFit, std::string> framePanorama(RigRun& run, const cv::Mat& target);
  Utils::ReturnState<bool, std::string> writeModules(const RigRun& run, CameraDescription::Orbivane& result,
                                                     std::vector<std::shared_ptr<CameraDescription::OrbivaneModule>>& placed);
  void evenExposure(const CameraDescription::Orbivane& result,
                    const std::vector<std::shared_ptr<CameraDescription::OrbivaneModule>>& placed, cv::Size panorama);

  void step(const std::string& text) {
    progress = std::min(progress + 1, total);
    if (callback) callback(progress, total, text, AdvStepInfo());
  }

  // The target module's picture (empty: no target, or none to read).
  cv::Mat targetPicture() const {
    if (options.target.empty()) return cv::Mat();
    const auto module = camera.findModule(options.target);
    const auto image = images.count(options.target) ? images.at(options.target) : (module ? module->image() : nullptr);
    if (!image || image->empty()) return cv::Mat();
    try {
      return Image::toMat(image);
    } catch (const std::exception&) {
      return cv::Mat();
    }
  }

  // The listed modules (empty: every module) that have a picture of at
  // least 16 x 16 pixels, and their pictures. A listed module without one
  // fails the estimate; unlisted ones without are passed over.
  Utils::ReturnState<bool, std::string> collectPictures(const std::list<std::wstring>& modules,
                                                        std::vector<std::wstring>& names,
                                                        std::vector<cv::Mat>& pictures) const {
    std::list<std::wstring> wanted = modules;
    if (wanted.empty()) {
      for (const auto& m : camera.modules())
        if (m) wanted.push_back(m->name());
    }
    for (const auto& name : wanted) {
      if (std::find(names.begin(), names.end(), name) != names.end() || name == options.target) continue;
      const auto module = camera.findModule(name);
      if (!module) return Utils::failure("the camera has no module '" + narrow(name) + "'");
      const auto image = images.count(name) ? images.at(name) : module->image();
      if (!image || image->empty() || image->width() < 16 || image->height() < 16) {
        if (!modules.empty()) return Utils::failure("module '" + narrow(name) + "' has no picture of at least 16x16 pixels");
        continue;
      }
      try {
        pictures.push_back(Image::toMat(image));
      } catch (const std::exception& e) {
        return Utils::failure("module '" + narrow(name) + "': its picture cannot be read: " + e.what());
      }
      names.push_back(name);
    }
    if (names.size() < 2) {
      return Utils::failure("a rig needs at least two pictures, " + std::to_string(names.size()) + " given");
    }
    return true;
  }
};

RigEstimator::RigEstimator(const CameraDescription::Orbivane& camera, Images images) : impl_(new Impl) {
  impl_->camera = camera;
  impl_->images = std::move(images);
}
RigEstimator::~RigEstimator() = default;

Utils::ReturnState<bool, std::string> RigEstimator::setOptions(const RigOptions& options) {
  const auto valid = options.validate();
  if (!valid) return valid;
  impl_->options = options;
  return true;
}
const RigOptions& RigEstimator::options() const { return impl_->options; }
void RigEstimator::registerStatusCallback(StatusCallback callback) { impl_->callback = std::move(callback); }
void RigEstimator::abort() { impl_->abort.store(true); }
bool RigEstimator::aborted() const { return impl_->abort.load(); }
const RigReport& RigEstimator::report() const { return impl_->report; }

namespace {

// The work of one estimate, step by step (RigEstimator::estimate reads as
// the list of these).
struct RigRun {
  const RigOptions& options;
  RigReport& report;
  std::vector<std::wstring> names;  // every module with a picture
  std::vector<cv::Mat> pictures;
  std::vector<cv::detail::ImageFeatures> features;
  std::vector<cv::detail::MatchesInfo> pairs;  // n x n, cv::detail's layout
  std::vector<int> linked;                     // picture index of each placed module
  std::vector<Rig::ModuleModel> models;        // one per linked picture
  std::vector<Rig::Match> matches;             // module indices into `linked`
  std::vector<int> pairOfMatch;                // index into pairIndex
  std::vector<std::pair<int, int>> pairIndex;  // linked module indices (a < b)
  std::vector<double> pairConfidence;
  Rig::Surface surface;
  std::vector<Rig::Displacement> displacements;
  double focalGuess = 0.0;  // the pair homographies' typical focal length

  bool linkedPair(const cv::detail::MatchesInfo& p) const { return p.confidence >= options.pairConfidence; }

  // Pairs that link two pictures: confident enough, or with many agreeing
  // matches among many that do not (a picture that is mostly sky or wall).
  void admitPairs() {
    for (auto& p : pairs) {
      if (p.H.empty()) p.confidence = 0.0;
      if (p.confidence < options.pairConfidence && p.num_inliers >= kManyInliers &&
          p.confidence >= kWeakPairShare * options.pairConfidence) {
        p.confidence = options.pairConfidence;
      }
    }
  }

  // Each picture's group: pictures joined by linked pairs share one.
  std::vector<int> groups() const {
    const int n = int(pictures.size());
    std::vector<int> group(static_cast<std::size_t>(n), 0);
    for (int i = 0; i < n; ++i) group[std::size_t(i)] = i;
    const auto root = [&group](int i) {
      while (group[std::size_t(i)] != i) i = group[std::size_t(i)] = group[std::size_t(group[std::size_t(i)])];
      return i;
    };
    for (int i = 0; i < n; ++i)
      for (int j = i + 1; j < n; ++j)
        if (linkedPair(pairs[std::size_t(i * n + j)])) group[std::size_t(root(i))] = root(j);
    for (int i = 0; i < n; ++i) group[std::size_t(i)] = root(i);
    return group;
  }

  // Pictures the pairs leave apart: features searched again with a lower
  // contrast threshold and every pair matched again; a pair that joins two
  // groups is then admitted on its agreeing matches alone (kManyInliers),
  // the one with the most first, since a bridge between groups has nothing
  // to agree with but the pictures. True when that changed anything.
  bool rescueApartPictures(const std::atomic<bool>& abort) {
    std::vector<int> group = groups();
    if (std::set<int>(group.begin(), group.end()).size() <= 1) return false;
    auto richer = Rig::findFeatures(pictures, options.featureMegapixels, abort, kRescueContrast);
    if (abort.load()) return false;
    double focal = 0.0;
    auto richerPairs = Rig::matchPairs(richer, &focal);
    features = std::move(richer);
    pairs = std::move(richerPairs);
    if (focal > 0.0) focalGuess = focal;
    admitPairs();
    const int n = int(pictures.size());
    std::vector<std::pair<int, int>> bridges;  // (inliers, pair index)
    for (int i = 0; i < n; ++i)
      for (int j = i + 1; j < n; ++j) {
        const auto& p = pairs[std::size_t(i * n + j)];
        if (!linkedPair(p) && !p.H.empty() && p.num_inliers >= kManyInliers) bridges.push_back({p.num_inliers, i * n + j});
      }
    std::sort(bridges.rbegin(), bridges.rend());
    for (const auto& [inliers, index] : bridges) {
      group = groups();
      const int i = index / n, j = index % n;
      if (group[std::size_t(i)] == group[std::size_t(j)]) continue;
      pairs[std::size_t(i * n + j)].confidence = options.pairConfidence;
      pairs[std::size_t(j * n + i)].confidence = options.pairConfidence;
    }
    return true;
  }

  // Links the pairs the adjusted rig says overlap but nothing links (see
  // kPredictedOverlapShare), each pair tried once; true when one was linked.
  bool linkPredictedOverlaps(std::set<std::pair<int, int>>& tried) {
    const int n = int(pictures.size());
    std::vector<int> modelOf(std::size_t(n), -1);
    for (std::size_t k = 0; k < linked.size(); ++k) modelOf[std::size_t(linked[k])] = int(k);
    bool added = false;
    for (int i = 0; i < n; ++i)
      for (int j = i + 1; j < n; ++j) {
        if (modelOf[std::size_t(i)] < 0 || modelOf[std::size_t(j)] < 0) continue;
        if (linkedPair(pairs[std::size_t(i * n + j)]) || !tried.insert({i, j}).second) continue;
        const Rig::ModuleModel& a = models[std::size_t(modelOf[std::size_t(i)])];
        const Rig::ModuleModel& b = models[std::size_t(modelOf[std::size_t(j)])];
        const auto predict = [&a, &b](cv::Point2f p, cv::Point2f& q) {
          cv::Point2d at;
          if (!b.project(a.ray(cv::Point2d(p)), at)) return false;
          q = cv::Point2f(at);
          return true;
        };
        if (predictedOverlap(a, b) < kPredictedOverlapShare) continue;
        cv::detail::MatchesInfo p;
        p.src_img_idx = i;
        p.dst_img_idx = j;
        const auto guided = [&] {
          p.matches = Rig::guidedMatches(features[std::size_t(i)], features[std::size_t(j)], predict, kGuidedRadiusPx);
          Rig::fitTurn(features[std::size_t(i)], features[std::size_t(j)], focalGuess, p);
          return !p.H.empty() && p.num_inliers >= kFewestGuidedInliers;
        };
        // Too few: the two pictures' fainter features where they overlap
        // too, and again.
        if (!guided()) {
          const bool fainter = enrich(i, overlapRegion(a, b)) | enrich(j, overlapRegion(b, a));
          if (!fainter || !guided()) continue;
        }
        p.confidence = options.pairConfidence;
        cv::detail::MatchesInfo q = p;
        q.src_img_idx = j;
        q.dst_img_idx = i;
        q.H = p.H.inv();
        for (auto& m : q.matches) std::swap(m.queryIdx, m.trainIdx);
        pairs[std::size_t(i * n + j)] = p;
        pairs[std::size_t(j * n + i)] = q;
        added = true;
      }
    return added;
  }

  // Adds picture i's fainter features (SIFT at kRescueContrast) inside
  // `region` that lie apart from those it has; false when it gained none. The
  // indices of the features it had stay as they were.
  bool enrich(int i, const cv::Rect& region) {
    if (region.empty()) return false;
    const auto fainter =
        Rig::findFeaturesIn(pictures[std::size_t(i)], region, options.featureMegapixels, kRescueContrast);
    cv::detail::ImageFeatures& f = features[std::size_t(i)];
    // The features it had near the region, in cells of kKnownCellPx.
    constexpr int kKnownCellPx = 4;
    const auto cellOf = [](cv::Point2f p) {
      return std::make_pair(int(std::floor(p.x / float(kKnownCellPx))), int(std::floor(p.y / float(kKnownCellPx))));
    };
    std::map<std::pair<int, int>, std::vector<cv::Point2f>> known;
    const cv::Rect2f near(float(region.x - 2), float(region.y - 2), float(region.width + 4), float(region.height + 4));
    for (const cv::KeyPoint& k : f.keypoints) {
      if (near.contains(k.pt)) known[cellOf(k.pt)].push_back(k.pt);
    }
    const auto isKnown = [&](cv::Point2f p) {
      const auto [cx, cy] = cellOf(p);
      for (int y = cy - 1; y <= cy + 1; ++y)
        for (int x = cx - 1; x <= cx + 1; ++x) {
          const auto cell = known.find({x, y});
          if (cell == known.end()) continue;
          for (const cv::Point2f& q : cell->second) {
            const cv::Point2f d = q - p;
            if (d.dot(d) < 2.25f) return true;
          }
        }
      return false;
    };
    const cv::Mat more = fainter.descriptors.getMat(cv::ACCESS_READ);
    cv::Mat descriptors = f.descriptors.getMat(cv::ACCESS_READ).clone();
    const std::size_t had = f.keypoints.size();
    for (std::size_t k = 0; k < fainter.keypoints.size(); ++k) {
      const cv::KeyPoint& candidate = fainter.keypoints[k];
      if (isKnown(candidate.pt)) continue;
      f.keypoints.push_back(candidate);
      descriptors.push_back(more.row(int(k)));
    }
    if (f.keypoints.size() == had) return false;
    descriptors.copyTo(f.descriptors);
    return true;
  }

  // The part of picture `a` that lands inside picture `b` (a lattice's
  // bounding box), widened by the guided search's radius and SIFT's own
  // border, in `a`'s pixels; empty when none does.
  static cv::Rect overlapRegion(const Rig::ModuleModel& a, const Rig::ModuleModel& b) {
    constexpr int kColumns = 32, kRows = 24;
    std::vector<cv::Point> inside;
    for (int y = 0; y <= kRows; ++y)
      for (int x = 0; x <= kColumns; ++x) {
        cv::Point2d at;
        const cv::Point2d p(double(x) / kColumns * (a.picture.width - 1), double(y) / kRows * (a.picture.height - 1));
        if (b.project(a.ray(p), at) && at.x >= 0 && at.y >= 0 && at.x <= b.picture.width - 1 &&
            at.y <= b.picture.height - 1)
          inside.push_back(cv::Point(p));
      }
    if (inside.empty()) return cv::Rect();
    // A lattice step beyond the outermost points inside, and the margin.
    const int step = std::max(a.picture.width / kColumns, a.picture.height / kRows);
    const int margin = int(std::ceil(kGuidedRadiusPx)) + 16 + step;
    cv::Rect box = cv::boundingRect(inside);
    box.x -= margin;
    box.y -= margin;
    box.width += 2 * margin;
    box.height += 2 * margin;
    return box & cv::Rect(0, 0, a.picture.width, a.picture.height);
  }

  // The share of a lattice over picture `a` that lands inside picture `b`.
  static double predictedOverlap(const Rig::ModuleModel& a, const Rig::ModuleModel& b) {
    int inside = 0, total = 0;
    for (int y = 0; y <= 12; ++y)
      for (int x = 0; x <= 16; ++x, ++total) {
        cv::Point2d at;
        const cv::Point2d p(x / 16.0 * (a.picture.width - 1), y / 12.0 * (a.picture.height - 1));
        if (b.project(a.ray(p), at) && at.x >= 0 && at.y >= 0 && at.x <= b.picture.width - 1 &&
            at.y <= b.picture.height - 1)
          ++inside;
      }
    return double(inside) / total;
  }

  // The largest set of linked pictures, a first rotation model of it (the
  // pair homographies, then cv::detail's ray adjustment) and its matches.
  // False when fewer than two pictures are linked.
  bool firstGuess() {
    std::vector<cv::detail::ImageFeatures> f = features;
    std::vector<cv::detail::MatchesInfo> p = pairs;
    for (auto& info : p) {
      // Pairs that do not link are not used at all (the estimator's spanning
      // tree would take any pair with a homography).
      if (!linkedPair(info)) {
        info.H.release();
        info.num_inliers = 0;
        info.confidence = 0.0;
      }
    }
    linked = cv::detail::leaveBiggestComponent(f, p, float(options.pairConfidence));
    if (linked.size() < 2) return false;
    std::vector<cv::detail::CameraParams> cameras;
    cv::detail::HomographyBasedEstimator estimator;
    if (!estimator(f, p, cameras)) return false;
    for (auto& c : cameras) c.R.convertTo(c.R, CV_32F);
    // The ray adjuster takes pairs strictly above its threshold; a link sits
    // at the threshold at least. A failure keeps the homographies' guess.
    cv::detail::BundleAdjusterRay adjuster;
    adjuster.setConfThresh(0.999 * options.pairConfidence);
    std::vector<cv::detail::CameraParams> refined = cameras;
    try {
      if (adjuster(f, p, refined)) cameras = refined;
    } catch (const cv::Exception&) {
    }
    models.assign(linked.size(), Rig::ModuleModel());
    for (std::size_t k = 0; k < linked.size(); ++k) {
      models[k].picture = pictures[std::size_t(linked[k])].size();
      cv::Mat r;
      cameras[k].R.convertTo(r, CV_64F);
      models[k].rotation = cv::Matx33d(r);
      models[k].focal = cameras[k].focal;
    }
    collectMatches(f, p);
    return true;
  }

  void collectMatches(const std::vector<cv::detail::ImageFeatures>& f, const std::vector<cv::detail::MatchesInfo>& p) {
    matches.clear();
    pairOfMatch.clear();
    pairIndex.clear();
    pairConfidence.clear();
    const int m = int(linked.size());
    for (int a = 0; a < m; ++a) {
      for (int b = a + 1; b < m; ++b) {
        const cv::detail::MatchesInfo& info = p[std::size_t(a * m + b)];
        if (!linkedPair(info) || info.matches.empty()) continue;
        pairIndex.emplace_back(a, b);
        pairConfidence.push_back(info.confidence);
        for (std::size_t k = 0; k < info.matches.size(); ++k) {
          const cv::DMatch& dm = info.matches[k];
          Rig::Match match;
          match.a = a;
          match.b = b;
          match.pa = f[std::size_t(a)].keypoints[std::size_t(dm.queryIdx)].pt;
          match.pb = f[std::size_t(b)].keypoints[std::size_t(dm.trainIdx)].pt;
          match.inlier = k < info.inliers_mask.size() && info.inliers_mask[k] != 0;
          matches.push_back(match);
          pairOfMatch.push_back(int(pairIndex.size()) - 1);
        }
      }
    }
  }

  // The bundle adjustment, held at the module with most matches.
  Rig::AdjustmentSummary adjust() {
    std::vector<int> perModule(linked.size(), 0);
    for (const auto& match : matches) {
      if (!match.inlier) continue;
      ++perModule[std::size_t(match.a)];
      ++perModule[std::size_t(match.b)];
    }
    Rig::AdjustmentSettings settings;
    settings.lensPerModule = options.lensPerModule;
    settings.fixedModule = int(std::max_element(perModule.begin(), perModule.end()) - perModule.begin());
    settings.focalGuess = focalGuess;
    return Rig::adjustRig(models, matches, settings);
  }

  // A pair of which the adjusted model keeps too few matches is a link the
  // rig as a whole does not bear out (wrong matches, or matches on clouds
  // that drifted between two pictures taken far apart). Unlinks the worst
  // such pair in `pairs` (the fewest kept for its matches): one at a time,
  // since a wrong link also pulls others out of shape. False when there was
  // none.
  bool unlinkWorstPair() {
    std::vector<int> kept(pairIndex.size(), 0), all(pairIndex.size(), 0);
    for (std::size_t k = 0; k < matches.size(); ++k) {
      kept[std::size_t(pairOfMatch[k])] += Rig::matchResidual(models, matches[k]) < kSupportPx ? 1 : 0;
      ++all[std::size_t(pairOfMatch[k])];
    }
    int worst = -1;
    double worstShare = 2.0;
    for (std::size_t q = 0; q < pairIndex.size(); ++q) {
      const double share = double(kept[q]) / std::max(1, all[q]);
      if (kept[q] < kFewestKeptMatches && share < worstShare) {
        worstShare = share;
        worst = int(q);
      }
    }
    if (worst < 0) return false;
    const int n = int(names.size());
    const int a = linked[std::size_t(pairIndex[std::size_t(worst)].first)];
    const int b = linked[std::size_t(pairIndex[std::size_t(worst)].second)];
    for (auto* info : {&pairs[std::size_t(a * n + b)], &pairs[std::size_t(b * n + a)]}) info->confidence = 0.0;
    return true;
  }

  // Each linked pair's features matched again where the model and the
  // seams' displacements put them (within kSeamGuidedRadiusPx): the pairs'
  // first matches, chosen over whole pictures, pass over much of a near,
  // repetitive overlap (paving, gravel) that the displaced model finds.
  std::vector<Rig::Match> matchWhereSeamsHold(double radius = kSeamGuidedRadiusPx) const {
    std::vector<Rig::Match> found;
    const cv::Size size = surface.pixels();
    for (const auto& [a, b] : pairIndex) {
      const Rig::ModuleModel& ma = models[std::size_t(a)];
      const Rig::ModuleModel& mb = models[std::size_t(b)];
      const Rig::Displacement& da = displacements[std::size_t(a)];
      const Rig::Displacement& db = displacements[std::size_t(b)];
      // b's picture point whose displaced drawing lands where a draws p, by
      // a few fixed-point steps on b's displacement.
      const auto predict = [&](cv::Point2f p, cv::Point2f& q) {
        const cv::Point2d target = Rig::drawnAt(ma, surface, da, cv::Point2d(p));
        cv::Point2d at;
        if (!surface.toPicture(mb, target, at)) return false;
        for (int k = 0; k < 4 && !db.empty(); ++k) {
          const cv::Point2d shift = db.at(at);
          const cv::Point2d undone(target.x - shift.x / size.width, target.y - shift.y / size.height);
          if (!surface.toPicture(mb, undone, at)) return false;
        }
        q = cv::Point2f(at);
        return true;
      };
      const auto& fa = features[std::size_t(linked[std::size_t(a)])];
      const auto& fb = features[std::size_t(linked[std::size_t(b)])];
      for (const cv::DMatch& dm : Rig::guidedMatches(fa, fb, predict, radius)) {
        Rig::Match match;
        match.a = a;
        match.b = b;
        match.pa = fa.keypoints[std::size_t(dm.queryIdx)].pt;
        match.pb = fb.keypoints[std::size_t(dm.trainIdx)].pt;
        found.push_back(match);
      }
    }
    return found;
  }

  // Seams that hold where the model cannot (parallax): each module's
  // displacement, from every match of the linked pairs.
  void holdSeams() {
    displacements.assign(models.size(), Rig::Displacement());
    if (!options.holdSeams) return;
    std::vector<Rig::Match> all = matches;
    for (auto& match : all) match.inlier = true;
    displacements = Rig::holdSeams(models, surface, all);
    // Where the seams moved pictures far (parallax), once more with the
    // features that match where they now meet.
    double largest = 0.0;
    for (const auto& d : displacements) largest = std::max(largest, d.empty() ? 0.0 : d.largest());
    if (largest < kParallaxPx) return;
    // The guided search finds most first matches again, which then count
    // twice: a prior towards the matches the whole pictures agreed on. Left
    // so on purpose: counted once, the seams of the sets with the most
    // parallax came out worse (sky over near roofs: 90 % 1.34 -> 1.71 px; a
    // ground ring's worst pair 0.47 -> 1.13 px).
    const std::vector<Rig::Match> more = matchWhereSeamsHold();
    all.insert(all.end(), more.begin(), more.end());
    displacements = Rig::holdSeams(models, surface, all);
    // Where the parallax is larger than the guided search's reach (near
    // ground seen from places a step apart), the displaced model is still
    // that far off: the features are looked for further out, twice, each
    // time where the seams held with the last ones put them. Further out
    // there are more wrong matches on repetitive ground too (a paving's
    // pattern repeats), and the matches a round finds agree with the seams
    // that found them; so a round is kept only when its seams line up
    // clearly more of the first matches, found over the whole pictures
    // before any seam was held, than the seams before it (RANSAC's
    // consensus).
    std::vector<Rig::Displacement> best = displacements;
    for (int round = 0; round < kWideSeamRounds; ++round) {
      const std::vector<Rig::Match> wider = matchWhereSeamsHold(kSeamWideRadiusPx);
      std::vector<Rig::Match> held = matches;
      for (auto& match : held) match.inlier = true;
      held.insert(held.end(), wider.begin(), wider.end());
      displacements = Rig::holdSeams(models, surface, held);
      const double gained = agreeingWith(displacements, matches) - agreeingWith(best, matches);
      if (!(gained > kSeamRoundGain * double(matches.size()))) break;
      best = displacements;
    }
    displacements = best;
  }

  // How many of `probe` the displaced model draws within kSeamAgreementPx
  // of each other.
  int agreeingWith(const std::vector<Rig::Displacement>& fields, const std::vector<Rig::Match>& probe) const {
    int count = 0;
    for (const Rig::Match& m : probe) {
      const cv::Point2d a = Rig::drawnAt(models[std::size_t(m.a)], surface, fields[std::size_t(m.a)], m.pa);
      const cv::Point2d b = Rig::drawnAt(models[std::size_t(m.b)], surface, fields[std::size_t(m.b)], m.pb);
      count += cv::norm(surface.offset(a, b)) < kSeamAgreementPx ? 1 : 0;
    }
    return count;
  }

  // How far apart the two modules draw each kept match (panorama pixels),
  // per pair and module.
  void reportResiduals() {
    std::vector<std::vector<double>> byPair(pairIndex.size());
    std::vector<std::vector<double>> byModule(linked.size());
    std::vector<double> all;
    for (std::size_t k = 0; k < matches.size(); ++k) {
      const Rig::Match& mk = matches[k];
      if (!mk.inlier) continue;
      const cv::Point2d a = Rig::drawnAt(models[std::size_t(mk.a)], surface, displacements[std::size_t(mk.a)], mk.pa);
      const cv::Point2d b = Rig::drawnAt(models[std::size_t(mk.b)], surface, displacements[std::size_t(mk.b)], mk.pb);
      const double r = cv::norm(surface.offset(a, b));
      byPair[std::size_t(pairOfMatch[k])].push_back(r);
      byModule[std::size_t(mk.a)].push_back(r);
      byModule[std::size_t(mk.b)].push_back(r);
      all.push_back(r);
    }
    report.medianPx = median(all);
    report.p90Px = percentile90(all);
    for (std::size_t q = 0; q < pairIndex.size(); ++q) {
      if (byPair[q].empty()) continue;
      RigPairReport pr;
      pr.first = nameOf(pairIndex[q].first);
      pr.second = nameOf(pairIndex[q].second);
      pr.matches = int(byPair[q].size());
      pr.confidence = pairConfidence[q];
      pr.medianPx = median(byPair[q]);
      pr.p90Px = percentile90(byPair[q]);
      report.pairs.push_back(pr);
    }
    for (std::size_t k = 0; k < linked.size(); ++k) report.modules[nameOf(int(k))].residualPx = median(byModule[k]);
  }

  const std::wstring& nameOf(int module) const { return names[std::size_t(linked[std::size_t(module)])]; }

  std::vector<cv::detail::ImageFeatures> linkedFeatures() const {
    std::vector<cv::detail::ImageFeatures> out;
    for (const int i : linked) out.push_back(features[std::size_t(i)]);
    return out;
  }
  double typicalFocal() const {
    std::vector<double> focals;
    for (const auto& m : models) focals.push_back(m.focal);
    std::nth_element(focals.begin(), focals.begin() + long(focals.size() / 2), focals.end());
    return focals[focals.size() / 2];
  }
};

// The target module's matrix: the identity on the target's own panorama, the
// registration's homography on the rig's, or (not registered) as wide as the
// panorama with the target's own aspect ratio, in its middle.
void placeTarget(const std::shared_ptr<CameraDescription::OrbivaneModule>& target, const Rig::TargetFit& fit,
                 cv::Size panorama) {
  if (!target) return;
  cv::Matx33d placement = cv::Matx33d::eye();
  if (fit.ok && !fit.equirectangular) {
    placement = fit.homography.inv();
    placement *= 1.0 / (placement * cv::Vec3d(0.5, 0.5, 1.0))[2];
  } else if (!fit.ok && target->image() && !target->image()->empty() && panorama.height > 0) {
    const double height = double(target->image()->height()) / target->image()->width() * panorama.width / panorama.height;
    placement = cv::Matx33d(1, 0, 0, 0, height, 0.5 - 0.5 * height, 0, 0, 1);
  }
  target->setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(
      OrbivaneGeometry::matrixFromPlanarHomography(placement)));
}

// Writes one placed module into the camera: matrix (with any clip-matrix
// shader taken out), UV grid, lens shader; its gain reset.
Utils::ReturnState<bool, std::string> writeModule(CameraDescription::OrbivaneModule& module,
                                                  const Rig::ModulePlacement& placement) {
  Utils::Matrix4x4 matrix = placement.matrix;
  if (const OrbivaneGeometry::Shader* clip = OrbivaneGeometry::findClipMatrixShader(module.shaders())) {
    // The viewer draws module matrix x clip matrix: the module matrix takes the clip matrix out.
    try {
      const cv::Matx33d c = OrbivaneGeometry::planarHomography(OrbivaneGeometry::clipMatrixFromShader(*clip));
      matrix = OrbivaneGeometry::matrixFromPlanarHomography(OrbivaneGeometry::planarHomography(placement.matrix) *
                                                            c.inv());
    } catch (const std::exception& e) {
      return Utils::failure("module '" + narrow(module.name()) + "': its clip-matrix values cannot be read: " + e.what());
    }
  }
  std::list<OrbivaneGeometry::Shader> shaders;
  for (const auto& shader : module.shaders())
    if (shader.uid() != ImageSource::kLensDistortionShaderUid) shaders.push_back(shader);
  shaders.push_back(placement.lens);
  auto geometry = std::make_unique<OrbivaneGeometry::MatrixGeometry>(matrix, placement.grid);
  geometry->setShaderId(ImageSource::kLensDistortionShaderUid);
  module.setGeometry(std::move(geometry));
  module.setShaders(std::move(shaders));
  module.setExposureGain(1.0);
  return true;
}

}  // namespace

Utils::ReturnState<bool, std::string> RigEstimator::Impl::matchPictures(RigRun& run) {
  const int n = int(run.names.size());
  run.features = Rig::findFeatures(run.pictures, options.featureMegapixels, abort);
  for (int i = 0; i < n; ++i) step("Finding Features of Module " + narrow(run.names[std::size_t(i)]));
  if (abort.load()) return Utils::failure("aborted");
  run.pairs = Rig::matchPairs(run.features, &run.focalGuess);
  run.admitPairs();
  run.rescueApartPictures(abort);
  step("Matching Pictures");
  if (abort.load()) return Utils::failure("aborted");
  return true;
}

namespace {

// Pictures of several sizes are linked as one lens's pictures of one size
// (one focal length in pixels): where they do not link, that is said.
std::string sizesNote(const std::vector<cv::Mat>& pictures) {
  std::vector<std::string> sizes;
  for (const cv::Mat& p : pictures) {
    const std::string size = std::to_string(p.cols) + "x" + std::to_string(p.rows);
    if (std::find(sizes.begin(), sizes.end(), size) == sizes.end()) sizes.push_back(size);
  }
  if (sizes.size() < 2) return std::string();
  std::string listed;
  for (std::size_t k = 0; k < sizes.size(); ++k) listed += (k == 0 ? "" : k + 1 == sizes.size() ? " and " : ", ") + sizes[k];
  return "; the pictures differ in size (" + listed +
         "), and are linked as pictures of one size through one kind of lens (pictures scaled to other sizes: scale them back)";
}

}  // namespace

Utils::ReturnState<bool, std::string> RigEstimator::Impl::adjustRig(RigRun& run) {
  std::set<std::pair<int, int>> guidedTried;
  for (int round = 0;; ++round) {
    if (!run.firstGuess()) {
      return Utils::failure("no two pictures overlap enough to be linked (too few matching features in every pair)" +
                            sizesNote(run.pictures));
    }
    const Rig::AdjustmentSummary adjusted = run.adjust();
    if (!adjusted.converged) logger->warn("The rig's adjustment did not converge: {}", adjusted.message);
    if (abort.load()) return Utils::failure("aborted");
    if (round < kLinkRounds && run.unlinkWorstPair()) continue;
    if (round < 2 * kLinkRounds && run.linkPredictedOverlaps(guidedTried)) continue;
    break;
  }
  step("Adjusting Rig");
  const std::set<int> linkedSet(run.linked.begin(), run.linked.end());
  for (int i = 0; i < int(run.names.size()); ++i) {
    if (linkedSet.count(i) == 0) {
      report.modules[run.names[std::size_t(i)]].reason =
          "its picture shares too few matching features with the others to be placed";
    }
  }
  return true;
}

Utils::ReturnState<Rig::TargetFit, std::string> RigEstimator::Impl::framePanorama(RigRun& run, const cv::Mat& target) {
  if (options.straightenHorizon) straightenHorizon(run.models);
  Rig::TargetFit fit;
  if (!target.empty() && Rig::isEquirectangular(target.size())) {
    fit = Rig::registerToTarget(run.models, run.linkedFeatures(), target, nullptr);
    if (fit.ok) {
      for (auto& model : run.models) model.rotation = fit.rotation * model.rotation;
      run.surface = Rig::Surface::equirectangular(run.models, run.typicalFocal(), target.size());
    }
  }
  if (!fit.ok || !fit.equirectangular) {
    try {
      run.surface = Rig::Surface::frame(run.models, options.projection);
    } catch (const std::exception& e) {
      return Utils::failure(std::string(e.what()));
    }
    if (!target.empty() && !Rig::isEquirectangular(target.size())) {
      fit = Rig::registerToTarget(run.models, run.linkedFeatures(), target, &run.surface);
    }
  }
  if (!target.empty()) {
    report.target.registered = fit.ok;
    report.target.reason = fit.reason;
    report.target.equirectangular = fit.equirectangular;
    report.target.matches = fit.matches;
    report.target.medianPx = fit.medianPx;
  }
  step("Framing Panorama");
  report.projection = Rig::projectionName(run.surface.projection());
  report.fieldOfViewX = run.surface.fieldOfViewX();
  report.fieldOfViewY = run.surface.fieldOfViewY();
  report.fullRing = run.surface.fullRing();
  report.panoramaWidth = run.surface.pixels().width;
  report.panoramaHeight = run.surface.pixels().height;
  return fit;
}

Utils::ReturnState<bool, std::string> RigEstimator::Impl::writeModules(
    const RigRun& run, CameraDescription::Orbivane& result,
    std::vector<std::shared_ptr<CameraDescription::OrbivaneModule>>& placed) {
  for (std::size_t k = 0; k < run.linked.size(); ++k) {
    if (abort.load()) return Utils::failure("aborted");
    const std::wstring& name = run.nameOf(int(k));
    const Rig::ModuleModel& model = run.models[k];
    const Rig::ModulePlacement placement =
        Rig::placeModule(model, run.surface, run.displacements[k], options.gridTolerancePx);
    auto module = result.findModule(name);
    if (auto written = writeModule(*module, placement); !written) return Utils::failure(written.error());
    if (images.count(name)) module->setImage(images.at(name));
    placed.push_back(module);

    RigModuleReport& r = report.modules[name];
    r.placed = true;
    r.reason.clear();
    anglesOf(model.rotation, r.yaw, r.pitch, r.roll);
    r.focalPx = model.focal;
    r.k1 = model.k1;
    r.k2 = model.k2;
    r.gridColumns = placement.grid.columns();
    r.gridRows = placement.grid.rows();
    r.gridErrorPx = placement.gridErrorPx;
    r.largestDisplacementPx = run.displacements[k].largest();
    step("Placing Module " + narrow(name));
  }
  return true;
}

void RigEstimator::Impl::evenExposure(const CameraDescription::Orbivane& result,
                                      const std::vector<std::shared_ptr<CameraDescription::OrbivaneModule>>& placed,
                                      cv::Size panorama) {
  if (options.exposureGains) {
    const Rig::Exposure exposure = Rig::evenExposure(placed, panorama);
    for (std::size_t k = 0; k < placed.size(); ++k) {
      placed[k]->setExposureGain(exposure.gains[k]);
      placed[k]->setVignetting(exposure.vignetting);
      report.modules[placed[k]->name()].exposureGain = exposure.gains[k];
    }
    report.vignetting = exposure.vignetting;
  }
  for (auto& pr : report.pairs) {
    pr.exposureEv = Rig::exposureDifferenceEv(*result.findModule(pr.first), *result.findModule(pr.second), panorama);
  }
  step("Evening Out Exposure");
}

Utils::ReturnState<CameraDescription::Orbivane, std::string> RigEstimator::estimate(
    const std::list<std::wstring>& modules) {
  Impl& s = *impl_;
  const auto started = std::chrono::steady_clock::now();
  s.report = RigReport();
  RigRun run{s.options, s.report, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, 0.0};
  if (auto listed = s.collectPictures(modules, run.names, run.pictures); !listed) return Utils::failure(listed.error());
  const int n = int(run.names.size());
  s.total = n + 5 + n + 1;
  s.progress = 0;

  // 1. Features and the pairs of pictures that overlap.
  if (auto matched = s.matchPictures(run); !matched) return Utils::failure(matched.error());
  // 2. The rig: a first guess, adjusted; pairs the rig does not bear out are
  //    unlinked and the rig adjusted again without them. Then pairs the rig
  //    says overlap but nothing links are matched where the rig puts them,
  //    and the rig adjusted again with them.
  if (auto adjusted = s.adjustRig(run); !adjusted) return Utils::failure(adjusted.error());
  // 3. The horizon, the panorama (the target's own, or framed round the
  //    rig) and the seams.
  const cv::Mat target = s.targetPicture();
  const auto fit = s.framePanorama(run, target);
  if (!fit) return Utils::failure(fit.error());
  const cv::Size panorama = run.surface.pixels();
  run.holdSeams();
  s.step("Holding Seams");
  run.reportResiduals();
  // 4. Each module written as the viewer draws it, and the target placed.
  CameraDescription::Orbivane result = s.camera;
  result.setPanoramaSize({panorama.width, panorama.height});
  std::vector<std::shared_ptr<CameraDescription::OrbivaneModule>> placed;
  if (auto written = s.writeModules(run, result, placed); !written) return Utils::failure(written.error());
  if (!target.empty()) placeTarget(result.findModule(s.options.target), fit.value(), panorama);
  // 5. Exposure.
  s.evenExposure(result, placed, panorama);

  s.report.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  s.logger->info("Rig estimated: {} of {} modules placed, {} projection, {}x{} panorama, residual median {:.2f} px",
                 run.linked.size(), n, s.report.projection, panorama.width, panorama.height, s.report.medianPx);
  return result;
}

}  // namespace GeometryCalibration
