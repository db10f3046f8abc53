// Seams measured on the modules as the viewer draws them (see
// seam_measurement.h).
#include "geometry_calibration/seam_measurement.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <cstdint>
#include <cstdio>
#include <sstream>

#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>

#include "orbivane/camera/final_matrix.h"
#include "orbivane/rendering/module_drawing.h"

namespace GeometryCalibration {
namespace {

constexpr int kEdgeClearance = 5;  // panorama pixels kept clear of a module's edge
constexpr int kFewestOverlapPixels = 400;
constexpr float kRatio = 0.7f;  // Lowe's ratio test
constexpr int kMostFeatures = 6000;  // per module drawing, the strongest

// What decides how a module is drawn, but for its matrix: grid, shaders,
// gain, picture.
std::string signatureOf(const CameraDescription::OrbivaneModule& module) {
  std::ostringstream s;
  s.precision(9);
  if (const auto* g = module.matrixGeometry()) {
    if (g->uvGrid()) {
      const auto& points = g->uvGrid()->points();
      const std::string bytes(reinterpret_cast<const char*>(points.data()), points.size() * sizeof(points[0]));
      s << g->uvGrid()->columns() << 'x' << g->uvGrid()->rows() << ':' << std::hash<std::string>()(bytes);
    }
  }
  for (const auto& shader : module.shaders()) {
    s << '|' << shader.uid();
    for (const auto& [name, value] : shader.parameters()) s << ',' << name << '=' << value;
  }
  s << "|gain " << module.exposureGain() << "|picture " << module.image().get();
  return s.str();
}

double percentile(std::vector<double> values, double share) {
  const std::size_t k = std::min(values.size() - 1, std::size_t(share * double(values.size())));
  std::nth_element(values.begin(), values.begin() + long(k), values.end());
  return values[k];
}

// The panorama translation (pixels) that takes a module drawn through
// matrix `from` to one drawn through `to`, when `to` = T x `from` for a
// translation T; nothing otherwise.
Utils::Optional<cv::Point2d> translationBetween(const Utils::Matrix4x4& from, const Utils::Matrix4x4& to,
                                                cv::Size panorama) {
  const auto inverse = from.inverse();
  if (!inverse) return std::nullopt;
  const Utils::Matrix4x4 t = to * *inverse;
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) {
      if (c == 3 && (r == 0 || r == 1)) continue;
      if (std::fabs(t.get(r, c) - (r == c ? 1.0f : 0.0f)) > 1e-6f) return std::nullopt;
    }
  return cv::Point2d(double(t.get(0, 3)) * panorama.width, double(t.get(1, 3)) * panorama.height);
}

}  // namespace

struct SeamMeter::Drawn {
  std::string signature;
  Utils::Matrix4x4 matrix;  // the final matrix it was drawn through
  const void* base = nullptr;  // the drawing this one is a moved copy of (itself when drawn)
  cv::Point2d offset;          // how far it was moved from that drawing, panorama pixels
  bool ok = false;
  std::string reason;
  cv::Rect box;                       // panorama pixels
  cv::Mat grey, inside;               // over the box; `inside` a few pixels in from the module's edge
  std::vector<cv::KeyPoint> keypoints;  // panorama pixels
  cv::Mat descriptors;
  std::vector<float> scale;           // per keypoint: panorama pixels per picture pixel there
};

SeamMeter::SeamMeter(cv::Size panorama) : panorama_(panorama) {}
SeamMeter::~SeamMeter() = default;

std::shared_ptr<const SeamMeter::Drawn> SeamMeter::drawn(const CameraDescription::OrbivaneModule& module) {
  const std::string signature = signatureOf(module);
  const auto final = CameraDescription::finalMatrix(module);
  const auto it = cache_.find(module.name());
  if (it != cache_.end() && it->second->signature == signature && it->second->ok && final) {
    // Moved by a translation on the panorama (as a neighbour stitching step
    // moves modules): the same drawing, moved.
    const auto shift = translationBetween(it->second->matrix, *final, panorama_);
    if (shift) {
      if (std::fabs(shift->x) < 1e-9 && std::fabs(shift->y) < 1e-9) return it->second;
      auto moved = std::make_shared<Drawn>(*it->second);
      moved->matrix = *final;
      moved->offset += *shift;
      const cv::Point whole(int(std::lround(shift->x)), int(std::lround(shift->y)));
      moved->box += whole;
      for (auto& k : moved->keypoints) k.pt += cv::Point2f(float(shift->x), float(shift->y));
      cache_[module.name()] = moved;
      return moved;
    }
  }
  auto d = std::make_shared<Drawn>();
  d->signature = signature;
  if (final) d->matrix = *final;
  auto drawing = OrbivaneRendering::drawModule(module, panorama_);
  if (!drawing) {
    d->reason = "module " + drawing.error();
  } else {
    const OrbivaneRendering::ModuleDrawing& m = drawing.value();
    d->box = m.box;
    cv::Mat bytes;
    m.colour.convertTo(bytes, CV_8UC3);  // saturated at 255, as the viewer shows it
    cv::cvtColor(bytes, d->grey, cv::COLOR_BGR2GRAY);
    cv::erode(m.inside, d->inside,
              cv::getStructuringElement(cv::MORPH_RECT, cv::Size(2 * kEdgeClearance + 1, 2 * kEdgeClearance + 1)));
    cv::SIFT::create(kMostFeatures)->detectAndCompute(d->grey, d->inside, d->keypoints, d->descriptors);
    for (auto& k : d->keypoints) {
      // The picture's scale where the feature lies: how far the picture point
      // moves per panorama pixel.
      const int x = std::clamp(int(k.pt.x), 0, m.box.width - 2), y = std::clamp(int(k.pt.y), 0, m.box.height - 2);
      const double across = std::hypot(m.mapX.at<float>(y, x + 1) - m.mapX.at<float>(y, x),
                                       m.mapY.at<float>(y, x + 1) - m.mapY.at<float>(y, x));
      const double down = std::hypot(m.mapX.at<float>(y + 1, x) - m.mapX.at<float>(y, x),
                                     m.mapY.at<float>(y + 1, x) - m.mapY.at<float>(y, x));
      const double picturePerPanorama = 0.5 * (across + down);
      d->scale.push_back(picturePerPanorama > 1e-9 ? float(1.0 / picturePerPanorama) : 1.0f);
      k.pt += cv::Point2f(float(m.box.x), float(m.box.y));
    }
    d->ok = true;
  }
  d->base = d.get();
  cache_[module.name()] = d;
  return d;
}

void SeamMeter::prepare(const std::vector<const CameraDescription::OrbivaneModule*>& modules) {
  // Drawn apart, two at a time (drawing and SIFT are mostly single-threaded).
  std::vector<std::shared_ptr<const Drawn>> results(modules.size());
  std::vector<std::string> signatures;
  for (const auto* m : modules) signatures.push_back(signatureOf(*m));
  std::vector<std::size_t> todo;
  for (std::size_t i = 0; i < modules.size(); ++i) {
    const auto it = cache_.find(modules[i]->name());
    const auto final = CameraDescription::finalMatrix(*modules[i]);
    if (it == cache_.end() || it->second->signature != signatures[i] || !final ||
        !translationBetween(it->second->matrix, *final, panorama_)) {
      todo.push_back(i);
    }
  }
  std::vector<std::unique_ptr<SeamMeter>> scratch;
  for (std::size_t k = 0; k < todo.size(); ++k) scratch.push_back(std::make_unique<SeamMeter>(panorama_));
  cv::parallel_for_(cv::Range(0, int(todo.size())), [&](const cv::Range& range) {
    for (int k = range.start; k < range.end; ++k) {
      results[todo[std::size_t(k)]] = scratch[std::size_t(k)]->drawn(*modules[todo[std::size_t(k)]]);
    }
  });
  for (const std::size_t i : todo) cache_[modules[i]->name()] = results[i];
}

SeamMeter::Overlap SeamMeter::overlap(const CameraDescription::OrbivaneModule& first,
                                      const CameraDescription::OrbivaneModule& second) {
  Overlap o;
  std::shared_ptr<const Drawn> a, b;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    a = drawn(first);
    b = drawn(second);
  }
  if (!a->ok || !b->ok) {
    o.reason = !a->ok ? a->reason : b->reason;
    return o;
  }
  o.region = a->box & b->box;
  if (o.region.empty()) {
    o.reason = "no overlap";
    return o;
  }
  o.mask = a->inside(o.region - a->box.tl()) & b->inside(o.region - b->box.tl());
  if (cv::countNonZero(o.mask) < kFewestOverlapPixels) {
    o.reason = "no overlap";
    return o;
  }
  o.first = a->grey(o.region - a->box.tl());
  o.second = b->grey(o.region - b->box.tl());
  std::vector<double> scales;
  for (std::size_t k = 0; k < a->keypoints.size(); ++k)
    if (o.region.contains(cv::Point(a->keypoints[k].pt))) scales.push_back(a->scale[k]);
  if (!scales.empty()) o.pictureScale = percentile(scales, 0.5);
  o.ok = true;
  return o;
}

SeamMeasure SeamMeter::measure(const CameraDescription::OrbivaneModule& first,
                               const CameraDescription::OrbivaneModule& second) {
  std::shared_ptr<const Drawn> a, b;
  std::string key;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    a = drawn(first);
    b = drawn(second);
    char shift[64];
    const cv::Point2d relative = b->offset - a->offset;
    std::snprintf(shift, sizeof shift, "%.4f,%.4f", relative.x, relative.y);
    key = std::to_string(reinterpret_cast<std::uintptr_t>(a->base)) + "/" +
          std::to_string(reinterpret_cast<std::uintptr_t>(b->base)) + "/" + shift;
    const auto known = pairs_.find(key);
    if (known != pairs_.end()) return known->second;
  }
  SeamMeasure s = compare(*a, *b);
  std::lock_guard<std::mutex> lock(mutex_);
  pairs_[key] = s;
  return s;
}

SeamMeasure SeamMeter::compare(const Drawn& drawnFirst, const Drawn& drawnSecond) const {
  SeamMeasure s;
  const Drawn* a = &drawnFirst;
  const Drawn* b = &drawnSecond;
  if (!a->ok || !b->ok) {
    s.reason = !a->ok ? a->reason : b->reason;
    return s;
  }
  const cv::Rect shared = a->box & b->box;
  if (shared.empty()) {
    s.reason = "no overlap";
    return s;
  }
  const cv::Mat both = a->inside(shared - a->box.tl()) & b->inside(shared - b->box.tl());
  s.overlapPixels = cv::countNonZero(both);
  if (s.overlapPixels < kFewestOverlapPixels) {
    s.reason = "no overlap";
    return s;
  }
  const double meanFirst = cv::mean(a->grey(shared - a->box.tl()), both)[0];
  const double meanSecond = cv::mean(b->grey(shared - b->box.tl()), both)[0];
  s.exposureEv = meanFirst > 0.0 && meanSecond > 0.0 ? std::fabs(std::log2(meanFirst / meanSecond)) : 0.0;

  // The features of each that lie where both draw.
  const auto within = [&](const Drawn& d, std::vector<int>& index, cv::Mat& descriptors) {
    for (std::size_t k = 0; k < d.keypoints.size(); ++k) {
      const cv::Point p(int(d.keypoints[k].pt.x) - shared.x, int(d.keypoints[k].pt.y) - shared.y);
      if (p.x < 0 || p.y < 0 || p.x >= shared.width || p.y >= shared.height || !both.at<std::uint8_t>(p)) continue;
      index.push_back(int(k));
      descriptors.push_back(d.descriptors.row(int(k)));
    }
  };
  std::vector<int> ia, ib;
  cv::Mat da, db;
  within(*a, ia, da);
  within(*b, ib, db);
  if (da.rows < 2 || db.rows < 2) {
    s.reason = "no texture in the overlap";
    return s;
  }
  // A k-d tree search (OpenCV's FLANN matcher): the brute-force one takes
  // seconds on the thousands of features a textured overlap holds.
  cv::FlannBasedMatcher matcher(cv::makePtr<cv::flann::KDTreeIndexParams>(4), cv::makePtr<cv::flann::SearchParams>(64));
  std::vector<std::vector<cv::DMatch>> forward, backward;
  matcher.knnMatch(da, db, forward, 2);
  matcher.knnMatch(db, da, backward, 2);
  std::vector<double> distances;
  cv::Point2d sum(0, 0);
  for (const auto& f : forward) {
    if (f.size() < 2 || !(f[0].distance < kRatio * f[1].distance)) continue;
    const auto& back = backward[std::size_t(f[0].trainIdx)];
    if (back.empty() || back[0].trainIdx != f[0].queryIdx) continue;  // each other's best
    const int ka = ia[std::size_t(f[0].queryIdx)], kb = ib[std::size_t(f[0].trainIdx)];
    const cv::Point2d shift = cv::Point2d(b->keypoints[std::size_t(kb)].pt - a->keypoints[std::size_t(ka)].pt) *
                              (1.0 / a->scale[std::size_t(ka)]);
    const double distance = std::hypot(shift.x, shift.y);
    if (!(distance <= kLargestSeamPx)) continue;
    distances.push_back(distance);
    sum += shift;
  }
  s.matches = int(distances.size());
  s.distances.assign(distances.begin(), distances.end());
  if (s.matches < kFewestSeamMatches) {
    s.reason = "too few features match in the overlap (" + std::to_string(s.matches) + ")";
    return s;
  }
  s.medianPx = percentile(distances, 0.5);
  s.p90Px = percentile(distances, 0.9);
  s.meanShift = sum * (1.0 / s.matches);
  s.measured = true;
  return s;
}

}  // namespace GeometryCalibration
