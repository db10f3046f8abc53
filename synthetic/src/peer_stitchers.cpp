// Other tools' stitching of the same photographs, and the seam measurement
// they share with ours; see peer_stitchers.h.
#include "synthetic/peer_stitchers.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <opencv2/calib3d.hpp>
#include <opencv2/features2d.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/stitching/detail/blenders.hpp>
#include <opencv2/stitching/detail/exposure_compensate.hpp>
#include <opencv2/stitching/detail/matchers.hpp>
#include <opencv2/stitching/detail/motion_estimators.hpp>
#include <opencv2/stitching/detail/seam_finders.hpp>
#include <opencv2/stitching/detail/warpers.hpp>

#include "orbivane/rendering/module_drawing.h"
#include "orbivane/utils/wide_text.h"

namespace Synthetic {
namespace {

// The space-separated fields of a Hugin project line; a field's quoted
// text (n"TIFF_m c:NONE") keeps its spaces.
std::vector<std::string> projectTokens(const std::string& line) {
  std::vector<std::string> tokens;
  std::string current;
  bool quoted = false;
  for (char c : line) {
    if (c == '"') quoted = !quoted;
    if (c == ' ' && !quoted) {
      if (!current.empty()) tokens.push_back(current);
      current.clear();
    } else {
      current += c;
    }
  }
  if (!current.empty()) tokens.push_back(current);
  return tokens;
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double percentile(std::vector<double> v, double share) {
  if (v.empty()) return 0.0;
  const std::size_t k = std::min(v.size() - 1, std::size_t(share * double(v.size())));
  std::nth_element(v.begin(), v.begin() + long(k), v.end());
  return v[k];
}

// The scale of a layer against its photograph (layer pixels per photograph
// pixel) in each cell of a 4 x 4 division of the layer, from SIFT matches
// between the two; a cell without enough matches takes the whole layer's.
struct LayerScale {
  cv::Rect box;
  double whole = 1.0;
  double cells[4][4] = {};
  double at(cv::Point2f p) const {
    const int i = std::clamp(int((p.x - box.x) * 4.0 / std::max(1, box.width)), 0, 3);
    const int j = std::clamp(int((p.y - box.y) * 4.0 / std::max(1, box.height)), 0, 3);
    return cells[j][i] > 0 ? cells[j][i] : whole;
  }
};

double similarityScale(const std::vector<cv::Point2f>& from, const std::vector<cv::Point2f>& to) {
  if (from.size() < 6) return 0.0;
  cv::Mat a = cv::estimateAffinePartial2D(from, to, cv::noArray(), cv::RANSAC, 2.0);
  if (a.empty()) return 0.0;
  return std::hypot(a.at<double>(0, 0), a.at<double>(1, 0));
}

LayerScale scaleOf(const PeerLayer& layer, const cv::Mat& photograph, const std::vector<cv::KeyPoint>& keys,
                   const cv::Mat& descriptors) {
  LayerScale s;
  s.box = layer.box;
  cv::Mat grey;
  cv::cvtColor(photograph, grey, cv::COLOR_BGR2GRAY);
  std::vector<cv::KeyPoint> pk;
  cv::Mat pd;
  cv::SIFT::create(6000)->detectAndCompute(grey, cv::noArray(), pk, pd);
  if (pd.empty() || descriptors.empty()) return s;
  cv::FlannBasedMatcher matcher;
  std::vector<std::vector<cv::DMatch>> m;
  matcher.knnMatch(pd, descriptors, m, 2);
  std::vector<cv::Point2f> from, to;
  std::vector<cv::Point2f> cellFrom[4][4], cellTo[4][4];
  for (const auto& pair : m) {
    if (pair.size() < 2 || !(pair[0].distance < 0.7f * pair[1].distance)) continue;
    const cv::Point2f p = pk[std::size_t(pair[0].queryIdx)].pt, q = keys[std::size_t(pair[0].trainIdx)].pt;
    from.push_back(p);
    to.push_back(q);
    const int i = std::clamp(int((q.x - s.box.x) * 4.0 / std::max(1, s.box.width)), 0, 3);
    const int j = std::clamp(int((q.y - s.box.y) * 4.0 / std::max(1, s.box.height)), 0, 3);
    cellFrom[j][i].push_back(p);
    cellTo[j][i].push_back(q);
  }
  const double whole = similarityScale(from, to);
  if (whole > 0) s.whole = whole;
  for (int j = 0; j < 4; ++j)
    for (int i = 0; i < 4; ++i) s.cells[j][i] = similarityScale(cellFrom[j][i], cellTo[j][i]);
  return s;
}

int run(const std::string& command) { return std::system((command + " > /dev/null 2>&1").c_str()); }

}  // namespace

namespace {
PeerResult openCvDetailStitchOrThrow(const std::vector<cv::Mat>& photographs);
}  // namespace

// OpenCV's blocks assert on some inputs (a bundle adjustment of too few
// matches); that is the peer failing, not the benchmark.
PeerResult openCvDetailStitch(const std::vector<cv::Mat>& photographs) {
  try {
    return openCvDetailStitchOrThrow(photographs);
  } catch (const cv::Exception& e) {
    PeerResult failed;
    failed.error = std::string("OpenCV stopped: ") + e.err;
    return failed;
  }
}

namespace {

// The scales the detail pipeline works at: features at 0.6 megapixels, seams and exposure at 0.1.
struct DetailScales {
  double work = 1.0;
  double seam = 1.0;
};

// Features and pairwise matches of the photographs, the ones that link (`kept`), and all of them at the seam scale.
struct DetailRegistration {
  std::vector<cv::detail::ImageFeatures> features;
  std::vector<cv::Mat> seamPictures;
  std::vector<cv::detail::MatchesInfo> pairs;
  std::vector<int> kept;
};

// The kept photographs' cameras, adjusted and wave-corrected, and the focal length the panorama is warped with.
struct DetailCameras {
  std::vector<cv::detail::CameraParams> params;
  double warpedScale = 0.0;
  std::string error;  // the step that failed, empty when none did
};

// The kept photographs warped at the seam scale: where each lands, its picture and its mask.
struct DetailSeamWarp {
  std::vector<cv::Point> corners;
  std::vector<cv::UMat> masks, pictures;
};

// Features of every photograph at the work scale, matched pair by pair; only the biggest linked group is kept.
DetailRegistration matchDetailFeatures(const std::vector<cv::Mat>& photographs, const DetailScales& scales) {
  using namespace cv::detail;
  const int n = int(photographs.size());
  DetailRegistration r;
  r.features.resize(static_cast<std::size_t>(n));
  r.seamPictures.resize(static_cast<std::size_t>(n));
  cv::Ptr<cv::Feature2D> finder = cv::SIFT::create();
  for (int i = 0; i < n; ++i) {
    cv::Mat work;
    cv::resize(photographs[std::size_t(i)], work, cv::Size(), scales.work, scales.work, cv::INTER_LINEAR_EXACT);
    computeImageFeatures(finder, work, r.features[std::size_t(i)]);
    r.features[std::size_t(i)].img_idx = i;
    cv::resize(photographs[std::size_t(i)], r.seamPictures[std::size_t(i)], cv::Size(), scales.seam, scales.seam,
               cv::INTER_LINEAR_EXACT);
  }
  BestOf2NearestMatcher matcher(false, 0.65f);
  matcher(r.features, r.pairs);
  matcher.collectGarbage();
  r.kept = leaveBiggestComponent(r.features, r.pairs, 1.0f);
  return r;
}

// Cameras from the homographies, refined by ray bundle adjustment and levelled by wave correction.
DetailCameras estimateDetailCameras(const DetailRegistration& registration) {
  using namespace cv::detail;
  DetailCameras out;
  std::vector<CameraParams>& cameras = out.params;
  HomographyBasedEstimator estimator;
  if (!estimator(registration.features, registration.pairs, cameras)) {
    out.error = "homography estimation failed";
    return out;
  }
  for (auto& c : cameras) c.R.convertTo(c.R, CV_32F);
  BundleAdjusterRay adjuster;
  adjuster.setConfThresh(1.0);
  if (!adjuster(registration.features, registration.pairs, cameras)) {
    out.error = "bundle adjustment failed";
    return out;
  }
  std::vector<double> focals;
  for (const auto& c : cameras) focals.push_back(c.focal);
  std::sort(focals.begin(), focals.end());
  out.warpedScale = focals[focals.size() / 2];
  std::vector<cv::Mat> rotations;
  for (const auto& c : cameras) rotations.push_back(c.R.clone());
  waveCorrect(rotations, WAVE_CORRECT_HORIZ);
  for (std::size_t k = 0; k < cameras.size(); ++k) cameras[k].R = rotations[k];
  return out;
}

// The kept photographs and their masks warped onto the sphere at the seam scale.
DetailSeamWarp warpForSeams(const DetailRegistration& registration, const DetailCameras& cameras,
                            const DetailScales& scales) {
  using namespace cv::detail;
  const double seamWork = scales.seam / scales.work;
  const std::size_t m = registration.kept.size();
  DetailSeamWarp out;
  out.corners.resize(m);
  out.masks.resize(m);
  out.pictures.resize(m);
  std::vector<cv::Size> sizes(m);
  cv::Ptr<RotationWarper> warper = cv::makePtr<SphericalWarper>(float(cameras.warpedScale * seamWork));
  for (std::size_t k = 0; k < m; ++k) {
    cv::Mat_<float> K;
    cameras.params[k].K().convertTo(K, CV_32F);
    K(0, 0) *= float(seamWork);
    K(0, 2) *= float(seamWork);
    K(1, 1) *= float(seamWork);
    K(1, 2) *= float(seamWork);
    const cv::Mat& picture = registration.seamPictures[std::size_t(registration.kept[k])];
    out.corners[k] =
        warper->warp(picture, K, cameras.params[k].R, cv::INTER_LINEAR, cv::BORDER_REFLECT, out.pictures[k]);
    sizes[k] = out.pictures[k].size();
    cv::Mat mask(picture.size(), CV_8U, cv::Scalar(255));
    warper->warp(mask, K, cameras.params[k].R, cv::INTER_NEAREST, cv::BORDER_CONSTANT, out.masks[k]);
  }
  return out;
}

// The exposure compensation fed with the warped pictures, and the masks cut along graph-cut seams.
cv::Ptr<cv::detail::ExposureCompensator> compensateAndFindSeams(DetailSeamWarp& warped) {
  using namespace cv::detail;
  const std::size_t m = warped.pictures.size();
  cv::Ptr<ExposureCompensator> compensator = ExposureCompensator::createDefault(ExposureCompensator::GAIN_BLOCKS);
  compensator->feed(warped.corners, warped.pictures, warped.masks);
  std::vector<cv::UMat> floats(m);
  for (std::size_t k = 0; k < m; ++k) warped.pictures[k].convertTo(floats[k], CV_32F);
  GraphCutSeamFinder seams(GraphCutSeamFinderBase::COST_COLOR);
  seams.find(floats, warped.corners, warped.masks);
  return compensator;
}

// Each kept photograph warped at full resolution, compensated and blended into the panorama; its layer kept.
void composeDetailLayers(const std::vector<cv::Mat>& photographs, const DetailRegistration& registration,
                         const DetailCameras& cameras, const DetailScales& scales,
                         const std::vector<cv::UMat>& seamMasks,
                         const cv::Ptr<cv::detail::ExposureCompensator>& compensator, PeerResult& result) {
  using namespace cv::detail;
  const std::vector<int>& kept = registration.kept;
  const std::size_t m = kept.size();
  const double composeWork = 1.0 / scales.work;
  cv::Ptr<RotationWarper> warper = cv::makePtr<SphericalWarper>(float(cameras.warpedScale * composeWork));
  std::vector<cv::Point> fullCorners(m);
  std::vector<cv::Size> fullSizes(m);
  std::vector<cv::Mat_<float>> Ks(m);
  for (std::size_t k = 0; k < m; ++k) {
    cameras.params[k].K().convertTo(Ks[k], CV_32F);
    Ks[k](0, 0) *= float(composeWork);
    Ks[k](0, 2) *= float(composeWork);
    Ks[k](1, 1) *= float(composeWork);
    Ks[k](1, 2) *= float(composeWork);
    const cv::Rect roi = warper->warpRoi(photographs[std::size_t(kept[k])].size(), Ks[k], cameras.params[k].R);
    fullCorners[k] = roi.tl();
    fullSizes[k] = roi.size();
  }
  const cv::Rect panorama = resultRoi(fullCorners, fullSizes);
  MultiBandBlender blender(false, 5);
  blender.setNumBands(int(std::ceil(std::log(std::sqrt(double(panorama.area())) * 0.05) / std::log(2.0)) - 1));
  blender.prepare(panorama);
  result.layers.assign(photographs.size(), PeerLayer());
  for (std::size_t k = 0; k < m; ++k) {
    const cv::Mat& photo = photographs[std::size_t(kept[k])];
    cv::Mat warped, mask, warpedMask;
    warper->warp(photo, Ks[k], cameras.params[k].R, cv::INTER_LINEAR, cv::BORDER_REFLECT, warped);
    cv::Mat full(photo.size(), CV_8U, cv::Scalar(255));
    warper->warp(full, Ks[k], cameras.params[k].R, cv::INTER_NEAREST, cv::BORDER_CONSTANT, warpedMask);
    compensator->apply(int(k), fullCorners[k], warped, warpedMask);
    PeerLayer& layer = result.layers[std::size_t(kept[k])];
    layer.picture = warped.clone();
    layer.mask = warpedMask.clone();
    layer.box = cv::Rect(fullCorners[k] - panorama.tl(), warped.size());
    cv::Mat seamMask;
    cv::dilate(seamMasks[k], seamMask, cv::Mat());
    cv::resize(seamMask, seamMask, warpedMask.size(), 0, 0, cv::INTER_LINEAR_EXACT);
    cv::Mat blendMask = seamMask & warpedMask;
    cv::Mat signedPicture;
    warped.convertTo(signedPicture, CV_16S);
    blender.feed(signedPicture, blendMask, fullCorners[k]);
  }
  cv::Mat blended, blendedMask;
  blender.blend(blended, blendedMask);
  result.panorama = panorama.size();
}

PeerResult openCvDetailStitchOrThrow(const std::vector<cv::Mat>& photographs) {
  PeerResult result;
  const auto started = std::chrono::steady_clock::now();
  const int n = int(photographs.size());
  if (n < 2) {
    result.error = "fewer than two photographs";
    return result;
  }
  const double area = double(photographs[0].cols) * photographs[0].rows;
  DetailScales scales;
  scales.work = std::min(1.0, std::sqrt(0.6e6 / area));
  scales.seam = std::min(1.0, std::sqrt(0.1e6 / area));

  // Registration.
  const DetailRegistration registration = matchDetailFeatures(photographs, scales);
  if (registration.kept.size() < 2) {
    result.error = "fewer than two photographs link";
    return result;
  }
  const DetailCameras cameras = estimateDetailCameras(registration);
  if (!cameras.error.empty()) {
    result.error = cameras.error;
    return result;
  }

  // Seams and exposure at 0.1 megapixels.
  DetailSeamWarp seamWarp = warpForSeams(registration, cameras, scales);
  const cv::Ptr<cv::detail::ExposureCompensator> compensator = compensateAndFindSeams(seamWarp);

  // Composition at full resolution.
  composeDetailLayers(photographs, registration, cameras, scales, seamWarp.masks, compensator, result);
  result.seconds = secondsSince(started);
  result.ok = true;
  return result;
}


// How many of `count` photographs the largest group the project's control
// points ("c n0 N1 ...") join holds: Hugin's optimiser places an
// unjoined photograph anywhere (often on top of another), so a chain that
// left one out is a failure, not a panorama to measure.
int linkedPhotographs(const std::string& project, int count) {
  std::vector<int> group(std::size_t(std::max(count, 0)));
  for (int i = 0; i < count; ++i) group[std::size_t(i)] = i;
  const auto root = [&](int i) {
    while (group[std::size_t(i)] != i) i = group[std::size_t(i)];
    return i;
  };
  std::istringstream lines(project);
  std::string line;
  while (std::getline(lines, line)) {
    int a = -1, b = -1;
    if (line.rfind("c ", 0) != 0 || std::sscanf(line.c_str(), "c n%d N%d", &a, &b) != 2) continue;
    if (a < 0 || b < 0 || a >= count || b >= count) continue;
    group[std::size_t(root(a))] = root(b);
  }
  std::vector<int> members(group.size(), 0);
  for (int i = 0; i < count; ++i) ++members[std::size_t(root(i))];
  return members.empty() ? 0 : *std::max_element(members.begin(), members.end());
}
}  // namespace

bool huginAvailable() { return run("command -v pto_gen && command -v cpfind && command -v nona") == 0; }

PeerResult huginStitch(const std::vector<std::string>& files, const std::string& folder) {
  PeerResult result;
  const auto started = std::chrono::steady_clock::now();
  const std::string pto = folder + "/project.pto";
  std::string list;
  for (const auto& f : files) list += " '" + f + "'";
  const std::vector<std::string> chain = {
      "pto_gen -o '" + pto + "'" + list,
      "cpfind --multirow -o '" + pto + "' '" + pto + "'",
      "cpclean -o '" + pto + "' '" + pto + "'",
      "autooptimiser -a -m -l -s -o '" + pto + "' '" + pto + "'",
      "pano_modify --canvas=AUTO --crop=AUTO -o '" + pto + "' '" + pto + "'"};
  for (const auto& command : chain) {
    if (run(command) != 0) {
      result.error = "failed: " + command.substr(0, command.find(' '));
      return result;
    }
  }
  // Uncropped layers, one per photograph, each the whole canvas (alpha: mask).
  std::ifstream in(pto);
  std::stringstream text;
  text << in.rdbuf();
  std::string project = text.str();
  const int linked = linkedPhotographs(project, int(files.size()));
  if (linked < int(files.size())) {
    result.error = "its control points link only " + std::to_string(linked) + " of " +
                   std::to_string(files.size()) + " photographs (cpfind found too few between neighbours)";
    return result;
  }
  // The panorama line "p f2 w3000 h1500 ... S10,2990,5,1495 n\"TIFF_m ...\"":
  // its canvas size and crop are read, and it is written back uncropped with
  // one layer per photograph.
  const std::size_t lineStart = project.find("\np ");
  if (lineStart == std::string::npos) {
    result.error = "no panorama line in the project";
    return result;
  }
  const std::size_t first = lineStart + 3, last = std::min(project.find('\n', first), project.size());
  int width = 0, height = 0;
  std::string line;
  for (const std::string& token : projectTokens(project.substr(first, last - first))) {
    int left = 0, right = 0, top = 0, bottom = 0;
    if (token[0] == 'w') width = std::atoi(token.c_str() + 1);
    if (token[0] == 'h') height = std::atoi(token.c_str() + 1);
    if (token[0] == 'S' && std::sscanf(token.c_str(), "S%d,%d,%d,%d", &left, &right, &top, &bottom) == 4) {
      result.crop = cv::Rect(left, top, right - left, bottom - top);
      continue;
    }
    if (token[0] == 'n') continue;
    line += (line.empty() ? "" : " ") + token;
  }
  if (width <= 0 || height <= 0) {
    result.error = "no canvas size in the project";
    return result;
  }
  result.panorama = cv::Size(width, height);
  line += " n\"TIFF_m c:NONE r:UNCROPPED\"";
  project.replace(first, last - first, line);
  std::ofstream(folder + "/layers.pto") << project;
  if (run("nona -o '" + folder + "/layer' '" + folder + "/layers.pto'") != 0) {
    result.error = "failed: nona";
    return result;
  }
  result.seconds = secondsSince(started);
  for (std::size_t i = 0; i < files.size(); ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "/layer%04zu.tif", i);
    const cv::Mat rgba = cv::imread(folder + name, cv::IMREAD_UNCHANGED);
    PeerLayer layer;
    if (!rgba.empty() && rgba.channels() == 4) {
      cv::Mat bytes = rgba;
      if (rgba.depth() != CV_8U) rgba.convertTo(bytes, CV_8U, rgba.depth() == CV_16U ? 1.0 / 257.0 : 1.0);
      std::vector<cv::Mat> channels;
      cv::split(bytes, channels);
      cv::Mat mask = channels[3] > 127;
      const cv::Rect box = cv::boundingRect(mask);
      if (!box.empty()) {
        cv::Mat bgr;
        cv::merge(std::vector<cv::Mat>{channels[0], channels[1], channels[2]}, bgr);
        layer.picture = bgr(box).clone();
        layer.mask = mask(box).clone();
        layer.box = box;
      }
    }
    result.layers.push_back(layer);
  }
  result.ok = true;
  return result;
}

LayerSeams measureLayerSeams(const std::vector<PeerLayer>& layers, const std::vector<cv::Mat>& photographs,
                             const std::vector<std::string>& names, double largest) {
  LayerSeams out;
  struct Found {
    std::vector<cv::KeyPoint> keys;  // panorama pixels
    cv::Mat descriptors, grey, inside;
    LayerScale scale;
  };
  std::vector<Found> found(layers.size());
  cv::parallel_for_(cv::Range(0, int(layers.size())), [&](const cv::Range& range) {
    for (int i = range.start; i < range.end; ++i) {
      const PeerLayer& layer = layers[std::size_t(i)];
      if (layer.picture.empty()) continue;
      Found& f = found[std::size_t(i)];
      cv::cvtColor(layer.picture, f.grey, cv::COLOR_BGR2GRAY);
      cv::erode(layer.mask, f.inside, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(11, 11)));
      cv::SIFT::create(6000)->detectAndCompute(f.grey, f.inside, f.keys, f.descriptors);
      for (auto& k : f.keys) k.pt += cv::Point2f(float(layer.box.x), float(layer.box.y));
      f.scale = scaleOf(layer, photographs[std::size_t(i)], f.keys, f.descriptors);
    }
  });
  std::vector<double> all;
  for (std::size_t i = 0; i < layers.size(); ++i) {
    for (std::size_t j = i + 1; j < layers.size(); ++j) {
      const Found& a = found[i];
      const Found& b = found[j];
      if (a.grey.empty() || b.grey.empty()) continue;
      const cv::Rect shared = layers[i].box & layers[j].box;
      if (shared.empty()) continue;
      const cv::Mat both = a.inside(shared - layers[i].box.tl()) & b.inside(shared - layers[j].box.tl());
      if (cv::countNonZero(both) < 400) continue;
      const auto within = [&](const Found& f, std::vector<int>& index, cv::Mat& d) {
        for (std::size_t k = 0; k < f.keys.size(); ++k) {
          const cv::Point p(int(f.keys[k].pt.x) - shared.x, int(f.keys[k].pt.y) - shared.y);
          if (p.x < 0 || p.y < 0 || p.x >= shared.width || p.y >= shared.height || !both.at<uchar>(p)) continue;
          index.push_back(int(k));
          d.push_back(f.descriptors.row(int(k)));
        }
      };
      std::vector<int> ia, ib;
      cv::Mat da, db;
      within(a, ia, da);
      within(b, ib, db);
      if (da.rows < 2 || db.rows < 2) continue;
      cv::FlannBasedMatcher matcher;
      std::vector<std::vector<cv::DMatch>> forward, backward;
      matcher.knnMatch(da, db, forward, 2);
      matcher.knnMatch(db, da, backward, 2);
      std::vector<double> distances;
      for (const auto& f : forward) {
        if (f.size() < 2 || !(f[0].distance < 0.7f * f[1].distance)) continue;
        const auto& back = backward[std::size_t(f[0].trainIdx)];
        if (back.empty() || back[0].trainIdx != f[0].queryIdx) continue;
        const cv::Point2f pa = a.keys[std::size_t(ia[std::size_t(f[0].queryIdx)])].pt;
        const cv::Point2f pb = b.keys[std::size_t(ib[std::size_t(f[0].trainIdx)])].pt;
        const double d = cv::norm(pb - pa) / a.scale.at(pa);
        if (d <= largest) distances.push_back(d);
      }
      if (distances.size() < 10) continue;  // as the tool and the Python oracle: fewer is no measure
      const double meanA = cv::mean(layers[i].picture(shared - layers[i].box.tl()), both)[1];
      const double meanB = cv::mean(layers[j].picture(shared - layers[j].box.tl()), both)[1];
      const double ev = meanA > 0 && meanB > 0 ? std::fabs(std::log2(meanA / meanB)) : 0.0;
      const double med = percentile(distances, 0.5);
      out.worstPairMedianPx = std::max(out.worstPairMedianPx, med);
      out.worstExposureEv = std::max(out.worstExposureEv, ev);
      ++out.pairs;
      all.insert(all.end(), distances.begin(), distances.end());
      char line[200];
      std::snprintf(line, sizeof line, "%s / %s: %zu matches, median %.2f px, 90 %% %.2f px, exposure %.3f EV",
                    names[i].c_str(), names[j].c_str(), distances.size(), med, percentile(distances, 0.9), ev);
      out.lines.push_back(line);
    }
  }
  out.matches = int(all.size());
  out.medianPx = percentile(all, 0.5);
  out.p90Px = percentile(all, 0.9);
  return out;
}

double keptShare(const std::vector<PeerLayer>& layers, cv::Size panorama, const cv::Rect& crop) {
  cv::Mat drawn = cv::Mat::zeros(panorama, CV_8U);
  for (const auto& layer : layers) {
    if (layer.mask.empty()) continue;
    const cv::Rect inside = layer.box & cv::Rect(cv::Point(0, 0), panorama);
    if (inside.empty()) continue;
    drawn(inside) |= layer.mask(inside - layer.box.tl());
  }
  const double total = cv::countNonZero(drawn);
  if (!(total > 0) || crop.empty()) return 0.0;
  return cv::countNonZero(drawn(crop & cv::Rect(cv::Point(0, 0), panorama))) / total;
}

}  // namespace Synthetic

namespace Synthetic {

double holeShare(const std::vector<PeerLayer>& layers, cv::Size panorama, const cv::Rect& crop) {
  const cv::Rect inside = crop & cv::Rect(cv::Point(0, 0), panorama);
  if (inside.empty()) return 0.0;
  cv::Mat drawn = cv::Mat::zeros(panorama, CV_8U);
  for (const auto& layer : layers) {
    if (layer.mask.empty()) continue;
    const cv::Rect box = layer.box & cv::Rect(cv::Point(0, 0), panorama);
    if (!box.empty()) drawn(box) |= layer.mask(box - layer.box.tl());
  }
  return 1.0 - double(cv::countNonZero(drawn(inside))) / inside.area();
}

PeerResult cameraLayers(const CameraDescription::Orbivane& camera, const std::vector<std::string>& names,
                        const std::vector<float>& clipping) {
  PeerResult out;
  out.panorama = cv::Size(camera.panoramaSize().width, camera.panoramaSize().height);
  for (const auto& name : names) {
    PeerLayer layer;
    const auto module = camera.findModule(Utils::fromUtf8(name));
    if (module) {
      auto drawn = OrbivaneRendering::drawModule(*module, out.panorama);
      if (drawn) {
        drawn.value().colour.convertTo(layer.picture, CV_8UC3);
        layer.mask = drawn.value().inside;
        layer.box = drawn.value().box;
      }
    }
    out.layers.push_back(layer);
  }
  if (clipping.size() == 4) {
    const auto& c = clipping;
    out.crop = cv::Rect(int(std::lround(c[0] * out.panorama.width)), int(std::lround(c[1] * out.panorama.height)),
                        int(std::lround((1.0 - c[0] - c[2]) * out.panorama.width)),
                        int(std::lround((1.0 - c[1] - c[3]) * out.panorama.height)));
  }
  out.ok = true;
  return out;
}

}  // namespace Synthetic
