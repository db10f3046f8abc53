// Features and pairwise matches of the rig's pictures (see rig_matching.h).
#include "geometry_calibration/rig/rig_matching.h"

#include <cfloat>

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>

#include <opencv2/calib3d.hpp>
#include <opencv2/stitching/detail/autocalib.hpp>

#include <opencv2/features2d.hpp>
#include <opencv2/flann.hpp>
#include <opencv2/imgproc.hpp>

#include "utils/parallel.h"

namespace GeometryCalibration {
namespace Rig {
namespace {

// Ratio test of the matcher: a match is kept when its distance is below
// (1 - kMatchConfidence) of the second best's.
constexpr float kMatchConfidence = 0.25f;
constexpr std::size_t kFewestMatches = 8;
// The rotation RANSAC of a pair: pixels a match may lie off the turn (lens
// distortion and near objects seen from a moving camera move points some
// pixels), iterations, and the fewest agreeing matches for a pair at all.
constexpr double kTurnTolerance = 10.0;
constexpr int kTurnIterations = 500;
constexpr int kFewestTurnInliers = 8;
// A guided match must beat the next feature near its predicted place by
// this ratio of descriptor distances (looser than an unguided search: the
// prediction has already ruled out the rest of the picture).
constexpr float kGuidedRatio = 0.8f;

// Where a picture shows something: not black in every channel, a few pixels
// in from such regions (features at their edge describe the edge).
cv::Mat contentMask(const cv::Mat& picture) {
  cv::Mat grey;
  if (picture.channels() == 1) {
    grey = picture;
  } else {
    cv::Mat channelMax;
    std::vector<cv::Mat> channels;
    cv::split(picture, channels);
    channelMax = channels[0].clone();
    for (std::size_t c = 1; c < channels.size(); ++c) cv::max(channelMax, channels[c], channelMax);
    grey = channelMax;
  }
  cv::Mat mask = grey > 0;
  if (cv::countNonZero(mask) == mask.rows * mask.cols) return cv::Mat();
  cv::erode(mask, mask, cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(9, 9)));
  return mask;
}

// Rays of a pair's matches: points from the pictures' middles, at focal f.
void raysOf(const cv::detail::ImageFeatures& a, const cv::detail::ImageFeatures& b, const cv::detail::MatchesInfo& p,
            double focal, std::vector<cv::Vec3d>& from, std::vector<cv::Vec3d>& to) {
  for (const auto& m : p.matches) {
    const cv::Point2f pa = a.keypoints[std::size_t(m.queryIdx)].pt;
    const cv::Point2f pb = b.keypoints[std::size_t(m.trainIdx)].pt;
    from.push_back(cv::normalize(cv::Vec3d(pa.x - 0.5 * a.img_size.width, pa.y - 0.5 * a.img_size.height, focal)));
    to.push_back(cv::normalize(cv::Vec3d(pb.x - 0.5 * b.img_size.width, pb.y - 0.5 * b.img_size.height, focal)));
  }
}

// Matches whose ray, turned by `r`, lands within the tolerance of its partner
// (distance in pixels at focal f).
std::vector<int> turnInliers(const std::vector<cv::Vec3d>& from, const std::vector<cv::Vec3d>& to,
                             const cv::Matx33d& r, double focal) {
  std::vector<int> in;
  for (std::size_t k = 0; k < from.size(); ++k) {
    const cv::Vec3d t = r * from[k];
    if (!(t[2] > 1e-6) || !(to[k][2] > 1e-6)) continue;
    const double dx = focal * (t[0] / t[2] - to[k][0] / to[k][2]), dy = focal * (t[1] / t[2] - to[k][1] / to[k][2]);
    if (dx * dx + dy * dy < kTurnTolerance * kTurnTolerance) in.push_back(int(k));
  }
  return in;
}

// Chooses a pair's agreeing matches by RANSAC on a rotation (see matchPairs).
void turnOfPair(const cv::detail::ImageFeatures& a, const cv::detail::ImageFeatures& b, double focal,
             cv::detail::MatchesInfo& p) {
  p.H.release();
  p.inliers_mask.assign(p.matches.size(), 0);
  p.num_inliers = 0;
  if (p.matches.size() < kFewestMatches || !(focal > 0.0)) return;
  std::vector<cv::Vec3d> from, to;
  raysOf(a, b, p, focal, from, to);
  cv::RNG rng(0x5eed + std::uint64_t(p.src_img_idx) * 1000 + std::uint64_t(p.dst_img_idx));
  std::vector<int> best;
  const int n = int(from.size());
  for (int iteration = 0; iteration < kTurnIterations; ++iteration) {
    const int i = rng.uniform(0, n), j = rng.uniform(0, n);
    if (i == j || std::fabs(from[std::size_t(i)].dot(from[std::size_t(j)])) > 0.99999) continue;
    const std::vector<int> in = turnInliers(from, to, bestRotation(from, to, {i, j}), focal);
    if (in.size() > best.size()) best = in;
  }
  if (int(best.size()) < kFewestTurnInliers) return;
  // Refined on its inliers, twice.
  for (int round = 0; round < 2; ++round) best = turnInliers(from, to, bestRotation(from, to, best), focal);
  if (int(best.size()) < kFewestTurnInliers) return;
  const cv::Matx33d r = bestRotation(from, to, best);
  const cv::Matx33d K(focal, 0, 0, 0, focal, 0, 0, 0, 1);
  p.H = cv::Mat(K * r * K.inv());
  for (const int k : best) p.inliers_mask[std::size_t(k)] = 1;
  p.num_inliers = int(best.size());
}

// The features of `region` of `picture`, searched on a copy reduced so that
// the whole picture is at most `megapixels` (a region is cut from the
// reduced copy of the whole, so that its pixels are the whole's).
void describeRegion(const cv::Mat& picture, cv::Rect region, double megapixels, const cv::Ptr<cv::Feature2D>& sift,
                    cv::detail::ImageFeatures& f) {
  const double area = double(picture.cols) * picture.rows;
  const double scale = std::min(1.0, std::sqrt(megapixels * 1e6 / area));
  cv::Mat work = picture;
  if (scale < 1.0) cv::resize(picture, work, cv::Size(), scale, scale, cv::INTER_AREA);
  const double sx = double(picture.cols) / work.cols, sy = double(picture.rows) / work.rows;
  const cv::Point from(int(std::floor(region.x / sx)), int(std::floor(region.y / sy)));
  const cv::Point to(int(std::ceil(region.br().x / sx)), int(std::ceil(region.br().y / sy)));
  const cv::Rect cut = cv::Rect(from, to) & cv::Rect(0, 0, work.cols, work.rows);
  if (cut.size() != work.size()) work = work(cut);
  cv::Mat grey;
  if (work.channels() == 3) {
    cv::cvtColor(work, grey, cv::COLOR_BGR2GRAY);
  } else {
    grey = work;
  }
  cv::detail::computeImageFeatures(sift, grey, f, contentMask(work));
  f.img_size = picture.size();
  if (scale < 1.0 || cut.tl() != cv::Point(0, 0)) {
    // Pixel centres of the reduced copy in the picture's pixels.
    for (auto& k : f.keypoints) {
      k.pt.x = float((k.pt.x + cut.x + 0.5) * sx - 0.5);
      k.pt.y = float((k.pt.y + cut.y + 0.5) * sy - 0.5);
      k.size = float(k.size * sx);
    }
  }
}

// Entry j * n + i of the n x n pairs: entry i * n + j the other way round,
// as cv::detail's matcher lays its pairs out.
void mirrorPair(std::vector<cv::detail::MatchesInfo>& pairs, int n, int i, int j) {
  const cv::detail::MatchesInfo& p = pairs[std::size_t(i * n + j)];
  cv::detail::MatchesInfo& q = pairs[std::size_t(j * n + i)];
  q = p;
  q.src_img_idx = j;
  q.dst_img_idx = i;
  if (!p.H.empty()) q.H = p.H.inv();
  for (auto& m : q.matches) std::swap(m.queryIdx, m.trainIdx);
}

// Each feature of picture `query` whose nearest feature of the picture the
// search tree `tree` was built on clearly beats the second nearest (Lowe's
// ratio, 1 - kMatchConfidence), as cv::detail's matcher asks its FLANN
// matcher for it: queryIdx in `query`, trainIdx in the tree's picture.
std::vector<cv::DMatch> nearestOf(cv::flann::Index& tree, const cv::Mat& query) {
  std::vector<cv::DMatch> out;
  if (query.rows == 0) return out;
  cv::Mat indices, squared;
  tree.knnSearch(query, indices, squared, 2, cv::flann::SearchParams());
  for (int q = 0; q < indices.rows; ++q) {
    const int best = indices.at<int>(q, 0), next = indices.at<int>(q, 1);
    if (best < 0 || next < 0) continue;
    const float d0 = std::sqrt(squared.at<float>(q, 0)), d1 = std::sqrt(squared.at<float>(q, 1));
    if (d0 < (1.0f - kMatchConfidence) * d1) out.emplace_back(q, best, d0);
  }
  return out;
}

// A pair's homography as cv::detail::BestOf2NearestMatcher finds it (points
// from the pictures' middles; RANSAC, then refitted on its inliers), with
// its inliers and confidence; only cv::detail::estimateFocal reads it.
void homographyOfPair(const cv::detail::ImageFeatures& a, const cv::detail::ImageFeatures& b,
                      cv::detail::MatchesInfo& p) {
  constexpr std::size_t kFewestForHomography = 6;  // the matcher's two thresholds
  constexpr double kTooClose = 3.0;                // a confidence above: pictures too alike to add anything
  if (p.matches.size() < kFewestForHomography) return;
  const auto centred = [](const cv::detail::ImageFeatures& f, int k) {
    const cv::Point2f q = f.keypoints[std::size_t(k)].pt;
    return cv::Point2f(q.x - f.img_size.width * 0.5f, q.y - f.img_size.height * 0.5f);
  };
  std::vector<cv::Point2f> from, to;
  for (const cv::DMatch& m : p.matches) {
    from.push_back(centred(a, m.queryIdx));
    to.push_back(centred(b, m.trainIdx));
  }
  p.H = cv::findHomography(from, to, p.inliers_mask, cv::RANSAC);
  if (p.H.empty() || std::abs(cv::determinant(p.H)) < std::numeric_limits<double>::epsilon()) return;
  p.num_inliers = int(std::count(p.inliers_mask.begin(), p.inliers_mask.end(), 1));
  p.confidence = p.num_inliers / (8 + 0.3 * double(p.matches.size()));
  if (p.confidence > kTooClose) p.confidence = 0.0;
  if (std::size_t(p.num_inliers) < kFewestForHomography) return;
  std::vector<cv::Point2f> inFrom, inTo;
  for (std::size_t k = 0; k < from.size(); ++k) {
    if (!p.inliers_mask[k]) continue;
    inFrom.push_back(from[k]);
    inTo.push_back(to[k]);
  }
  p.H = cv::findHomography(inFrom, inTo, cv::RANSAC);
}


}  // namespace

std::vector<cv::detail::MatchesInfo> nearestPairs(const std::vector<cv::detail::ImageFeatures>& features) {
  const int n = int(features.size());
  std::vector<cv::Mat> descriptors;
  for (const auto& f : features) descriptors.push_back(f.descriptors.getMat(cv::ACCESS_READ));
  std::vector<std::vector<cv::DMatch>> oneWay(std::size_t(n) * std::size_t(n));  // i * n + j: from i into j's tree
  Utils::parallelRows(0, n, [&](int first, int last) {
    for (int j = first; j < last; ++j) {
      if (descriptors[std::size_t(j)].rows < 2) continue;
      cv::flann::Index tree(descriptors[std::size_t(j)], cv::flann::KDTreeIndexParams(), cvflann::FLANN_DIST_L2);
      for (int i = 0; i < n; ++i)
        if (i != j) oneWay[std::size_t(i * n + j)] = nearestOf(tree, descriptors[std::size_t(i)]);
    }
  });
  std::vector<cv::detail::MatchesInfo> pairs(std::size_t(n) * std::size_t(n));
  std::vector<std::pair<int, int>> compared;
  for (int i = 0; i < n; ++i)
    for (int j = i + 1; j < n; ++j)
      if (!features[std::size_t(i)].keypoints.empty() && !features[std::size_t(j)].keypoints.empty())
        compared.emplace_back(i, j);
  Utils::parallelRows(0, int(compared.size()), [&](int first, int last) {
    for (int k = first; k < last; ++k) {
      const auto [i, j] = compared[std::size_t(k)];
      cv::detail::MatchesInfo& p = pairs[std::size_t(i * n + j)];
      p.src_img_idx = i;
      p.dst_img_idx = j;
      std::set<std::pair<int, int>> known;
      for (const cv::DMatch& m : oneWay[std::size_t(i * n + j)]) {
        p.matches.push_back(m);
        known.emplace(m.queryIdx, m.trainIdx);
      }
      for (const cv::DMatch& m : oneWay[std::size_t(j * n + i)])
        if (!known.count({m.trainIdx, m.queryIdx})) p.matches.emplace_back(m.trainIdx, m.queryIdx, m.distance);
      homographyOfPair(features[std::size_t(i)], features[std::size_t(j)], p);
      mirrorPair(pairs, n, i, j);
    }
  });
  return pairs;
}

std::vector<cv::detail::ImageFeatures> findFeatures(const std::vector<cv::Mat>& pictures, double megapixels,
                                                    const std::atomic<bool>& abort, double contrast) {
  std::vector<cv::detail::ImageFeatures> features(pictures.size());
  Utils::parallelRows(0, int(pictures.size()), [&](int first, int last) {
    cv::Ptr<cv::Feature2D> sift = cv::SIFT::create(0, 3, contrast);
    for (int i = first; i < last; ++i) {
      if (abort.load()) return;
      const cv::Mat& picture = pictures[std::size_t(i)];
      cv::detail::ImageFeatures& f = features[std::size_t(i)];
      describeRegion(picture, cv::Rect(0, 0, picture.cols, picture.rows), megapixels, sift, f);
      f.img_idx = i;
    }
  });
  return features;
}

cv::detail::ImageFeatures findFeaturesIn(const cv::Mat& picture, cv::Rect region, double megapixels, double contrast) {
  cv::detail::ImageFeatures f;
  region &= cv::Rect(0, 0, picture.cols, picture.rows);
  if (region.width < 16 || region.height < 16) {
    f.img_size = picture.size();
    f.descriptors = cv::UMat(0, 128, CV_32F);
    return f;
  }
  cv::Ptr<cv::Feature2D> sift = cv::SIFT::create(0, 3, contrast);
  describeRegion(picture, region, megapixels, sift, f);
  return f;
}

std::vector<cv::detail::MatchesInfo> matchPairs(const std::vector<cv::detail::ImageFeatures>& features,
                                                double* typicalFocal) {
  std::vector<cv::detail::MatchesInfo> pairs = nearestPairs(features);
  // The rig's typical focal length from the free homographies of the pairs
  // that link (confidence 1 or more, as cv::detail links pictures): the
  // homography of two pictures that do not overlap fits a handful of chance
  // matches, and its focal length is anything (on a ring of five, the
  // median of all came out 331 px for lenses of 457).
  std::vector<double> focals;
  std::vector<cv::detail::MatchesInfo> linked = pairs;
  for (auto& p : linked)
    if (p.confidence < 1.0) p.H.release();
  cv::detail::estimateFocal(features, linked, focals);
  std::nth_element(focals.begin(), focals.begin() + long(focals.size() / 2), focals.end());
  const double focal = focals.empty() ? 0.0 : focals[focals.size() / 2];
  if (typicalFocal != nullptr) *typicalFocal = focal;
  const int n = int(features.size());
  for (int i = 0; i < n; ++i) {
    for (int j = i + 1; j < n; ++j) {
      cv::detail::MatchesInfo& p = pairs[std::size_t(i * n + j)];
      turnOfPair(features[std::size_t(i)], features[std::size_t(j)], focal, p);
      p.confidence = p.H.empty() ? 0.0 : p.num_inliers / (8.0 + 0.3 * double(p.matches.size()));
      mirrorPair(pairs, n, i, j);
    }
  }
  return pairs;
}

cv::Matx33d bestRotation(const std::vector<cv::Vec3d>& from, const std::vector<cv::Vec3d>& to,
                         const std::vector<int>& use) {
  cv::Matx33d covariance = cv::Matx33d::zeros();
  for (const int k : use) covariance += to[std::size_t(k)] * from[std::size_t(k)].t();
  cv::SVD svd(cv::Mat(covariance), cv::SVD::FULL_UV);
  cv::Mat r = svd.u * svd.vt;
  if (cv::determinant(r) < 0) {
    cv::Mat flip = cv::Mat::eye(3, 3, CV_64F);
    flip.at<double>(2, 2) = -1.0;
    r = svd.u * flip * svd.vt;
  }
  return cv::Matx33d(r);
}

void fitTurn(const cv::detail::ImageFeatures& a, const cv::detail::ImageFeatures& b, double focal,
             cv::detail::MatchesInfo& p) {
  turnOfPair(a, b, focal, p);
}

std::vector<cv::DMatch> guidedMatches(const cv::detail::ImageFeatures& a, const cv::detail::ImageFeatures& b,
                                      const std::function<bool(cv::Point2f, cv::Point2f&)>& predict, double radius) {
  std::vector<cv::DMatch> out;
  if (a.keypoints.empty() || b.keypoints.empty()) return out;
  const cv::Mat da = a.descriptors.getMat(cv::ACCESS_READ), db = b.descriptors.getMat(cv::ACCESS_READ);
  // b's features in square buckets of the radius.
  const int side = std::max(1, int(std::ceil(radius)));
  const int columns = b.img_size.width / side + 1, rows = b.img_size.height / side + 1;
  std::vector<std::vector<int>> bucket(std::size_t(columns) * std::size_t(rows));
  const auto bucketOf = [&](cv::Point2f p) {
    return std::make_pair(std::clamp(int(p.x) / side, 0, columns - 1), std::clamp(int(p.y) / side, 0, rows - 1));
  };
  for (int k = 0; k < int(b.keypoints.size()); ++k) {
    const auto [c, r] = bucketOf(b.keypoints[std::size_t(k)].pt);
    bucket[std::size_t(r) * std::size_t(columns) + std::size_t(c)].push_back(k);
  }
  std::vector<cv::DMatch> best(b.keypoints.size(), cv::DMatch(-1, -1, FLT_MAX));  // per feature of b
  for (int k = 0; k < int(a.keypoints.size()); ++k) {
    cv::Point2f at;
    if (!predict(a.keypoints[std::size_t(k)].pt, at)) continue;
    if (at.x < -radius || at.y < -radius || at.x > b.img_size.width + radius || at.y > b.img_size.height + radius) continue;
    const auto [c, r] = bucketOf(at);
    float first = FLT_MAX, second = FLT_MAX;
    int chosen = -1;
    for (int y = std::max(0, r - 1); y <= std::min(rows - 1, r + 1); ++y)
      for (int x = std::max(0, c - 1); x <= std::min(columns - 1, c + 1); ++x)
        for (const int m : bucket[std::size_t(y) * std::size_t(columns) + std::size_t(x)]) {
          const cv::Point2f d = b.keypoints[std::size_t(m)].pt - at;
          if (d.dot(d) > radius * radius) continue;
          const float distance = float(cv::norm(da.row(k), db.row(m), cv::NORM_L2));
          if (distance < first) {
            second = first;
            first = distance;
            chosen = m;
          } else if (distance < second) {
            second = distance;
          }
        }
    if (chosen < 0 || !(first < kGuidedRatio * second)) continue;
    if (first < best[std::size_t(chosen)].distance) best[std::size_t(chosen)] = cv::DMatch(k, chosen, first);
  }
  for (const auto& m : best)
    if (m.queryIdx >= 0) out.push_back(m);
  return out;
}

}  // namespace Rig
}  // namespace GeometryCalibration
