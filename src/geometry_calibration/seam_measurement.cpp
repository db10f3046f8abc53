// Seams measured on the modules as the viewer draws them (see
// seam_measurement.h).
#include "geometry_calibration/seam_measurement.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <limits>
#include <optional>
#include <sstream>

#include <opencv2/core/hal/hal.hpp>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>

#include "orbivane/camera/final_matrix.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/rendering/module_drawing.h"
#include "utils/parallel.h"

namespace GeometryCalibration {
namespace {

constexpr int kEdgeClearance = 4;         // panorama pixels kept clear of a module's edge
constexpr int kFewestOverlapPixels = 400;
constexpr float kRatio = 0.7f;             // Lowe's ratio test
constexpr int kMostFeatures = 8000;        // per drawing, the strongest
constexpr int kScaleStride = 16;           // panorama pixels between samples of a drawing's scale
constexpr int kRegionMargin = 24;          // panorama pixels drawn beyond what is needed
constexpr int kFeatureMargin = 16;         // drawing pixels around a part its features are found with
constexpr int kLargestDrawingSide = 65536;  // panorama pixels (only overlaps are drawn)
constexpr int kDefaultDrawingWidth = 1920;  // for a camera without pictures
// Panorama pixels per pixel of the coarse drawings that say where two
// modules overlap (and so which part of each is drawn and searched).
constexpr int kCoarseStep = 8;
// A drawing's features are carried over to the module drawn through another
// matrix (see carryFeatures) when the move changes the drawing's local
// shape, but for a turn and an overall scale, by at most kCarriedAnisotropy
// (a share of the scale: 0.02 is a 2 % stretch along one direction), its
// scale by at most kCarriedScale, and the new drawing reads each carried
// feature's picture point where the move puts it within kCarriedPx picture
// pixels. SIFT descriptors are normalised for turn and scale, and stand a
// few per cent of stretch: the features the new drawing would give match
// as the carried ones do.
constexpr double kCarriedAnisotropy = 0.02;
constexpr double kCarriedScale = 0.1;
constexpr double kCarriedPx = 0.05;
constexpr double kCarriedMisreadShare = 0.01;  // of the features: more, and they are found afresh
// A match is false when it disagrees with the matches nearest it: how far
// two drawings are apart changes smoothly over their overlap (a turn, a
// lens, the parallax of a wall), while a feature matched to a look-alike
// (a roof's edge, a window along a row) lands anywhere. A match whose shift
// differs from the median shift of its kConsistencyNeighbours nearest
// matches by more than kConsistentPx picture pixels, or by half that median
// shift where it is larger, is not counted. Among the upper ring's
// photographs every match over 3 px was such a one (15 of 147 on one seam,
// 10 to 55 px in all directions), and they made the seam's 90th percentile.
constexpr int kConsistencyNeighbours = 6;
constexpr double kConsistentPx = 3.0;

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
  s << "|gain " << module.exposureGain() << "|vignetting " << module.vignetting().r2 << ',' << module.vignetting().r4
    << "|picture " << module.image().get();
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

// The panorama pixels a module's unit square spans (as drawModule frames
// it), or an empty box.
cv::Rect footprintBox(const CameraDescription::OrbivaneModule& module, cv::Size panorama) {
  const auto final = CameraDescription::finalMatrix(module);
  if (!final) return cv::Rect();
  const auto quad = OrbivaneGeometry::moduleSurfaceQuad(*final);
  if (!quad) return cv::Rect();
  const double left = std::max(0.0, std::floor(double(quad->left()) * panorama.width));
  const double top = std::max(0.0, std::floor(double(quad->top()) * panorama.height));
  const double right = std::min(double(panorama.width), std::ceil(double(quad->right()) * panorama.width) + 1.0);
  const double bottom = std::min(double(panorama.height), std::ceil(double(quad->bottom()) * panorama.height) + 1.0);
  if (!(right > left) || !(bottom > top) || !std::isfinite(left + right + top + bottom)) return cv::Rect();
  return cv::Rect(int(left), int(top), int(right - left), int(bottom - top));
}

// Which of the matches (at `at`, panorama pixels, with shifts `shifts`,
// picture pixels) agree with their nearest matches (see
// kConsistencyNeighbours); all of them when there are too few to tell.
std::vector<bool> agreeWithNeighbours(const std::vector<cv::Point2f>& at, const std::vector<cv::Point2d>& shifts) {
  const std::size_t n = at.size();
  std::vector<bool> agree(n, true);
  if (n <= std::size_t(kConsistencyNeighbours)) return agree;
  std::vector<std::pair<float, std::size_t>> byDistance(n);
  std::vector<double> xs(kConsistencyNeighbours), ys(kConsistencyNeighbours);
  for (std::size_t i = 0; i < n; ++i) {
    for (std::size_t j = 0; j < n; ++j) {
      const cv::Point2f d = at[j] - at[i];
      byDistance[j] = {j == i ? std::numeric_limits<float>::infinity() : d.x * d.x + d.y * d.y, j};
    }
    std::partial_sort(byDistance.begin(), byDistance.begin() + kConsistencyNeighbours, byDistance.end());
    for (int k = 0; k < kConsistencyNeighbours; ++k) {
      xs[std::size_t(k)] = shifts[byDistance[std::size_t(k)].second].x;
      ys[std::size_t(k)] = shifts[byDistance[std::size_t(k)].second].y;
    }
    const cv::Point2d around(percentile(xs, 0.5), percentile(ys, 0.5));
    const double tolerance = std::max(kConsistentPx, 0.5 * std::hypot(around.x, around.y));
    const cv::Point2d off = shifts[i] - around;
    agree[i] = std::hypot(off.x, off.y) <= tolerance;
  }
  return agree;
}

// Features of two drawings matched where a match can count: each feature of
// the first against the second's features within kLargestSeamPx picture
// pixels of it (`scale` gives panorama pixels per picture pixel at a first
// feature). Features further apart are never counted, so they do not compete
// either: a pair is a match when it passes Lowe's ratio test among those
// nearby candidates both ways and the two are each other's best. The
// descriptors are compared exhaustively (exact, SIMD), with the second
// drawing's features kept in square cells so that each feature meets only
// its neighbourhood.
// Returns the matched (first, second) feature indices.
std::vector<std::pair<int, int>> matchNearby(const std::vector<cv::Point2f>& pa, const cv::Mat& da,
                                             const std::vector<cv::Point2f>& pb, const cv::Mat& db,
                                             const std::function<double(cv::Point2f)>& scale) {
  struct Best {
    float first = std::numeric_limits<float>::infinity(), second = std::numeric_limits<float>::infinity();
    int index = -1;
    void offer(float d, int k) {
      if (d < first) {
        second = first;
        first = d;
        index = k;
      } else if (d < second) {
        second = d;
      }
    }
    // A best with a nearby competitor it clearly beats (squared distances).
    bool clear() const { return index >= 0 && std::isfinite(second) && first < kRatio * kRatio * second; }
  };
  std::vector<float> radius(pa.size());
  float widest = 1.0f;
  for (std::size_t i = 0; i < pa.size(); ++i) {
    radius[i] = float(kLargestSeamPx * scale(pa[i]));
    if (std::isfinite(radius[i])) widest = std::max(widest, radius[i]);
  }
  cv::Rect2f span = cv::boundingRect(pb);
  // Cells as wide as the widest search, at most 256 of them each way (a
  // search narrower than a cell looks at the cells it touches).
  const float cell = std::max({8.0f, widest, span.width / 256.0f, span.height / 256.0f});
  const int columns = std::max(1, int(span.width / cell) + 1), rows = std::max(1, int(span.height / cell) + 1);
  std::vector<std::vector<int>> cells(std::size_t(columns) * std::size_t(rows));
  const auto cellOf = [&](float v, float origin, int count) { return std::clamp(int((v - origin) / cell), 0, count - 1); };
  for (std::size_t j = 0; j < pb.size(); ++j) {
    cells[std::size_t(cellOf(pb[j].y, span.y, rows)) * std::size_t(columns) + std::size_t(cellOf(pb[j].x, span.x, columns))]
        .push_back(int(j));
  }
  std::vector<Best> forward(pa.size()), backward(pb.size());
  const int length = da.cols;
  for (std::size_t i = 0; i < pa.size(); ++i) {
    const float r = std::isfinite(radius[i]) ? radius[i] : widest;
    const cv::Point2f p = pa[i];
    const int x0 = cellOf(p.x - r, span.x, columns), x1 = cellOf(p.x + r, span.x, columns);
    const int y0 = cellOf(p.y - r, span.y, rows), y1 = cellOf(p.y + r, span.y, rows);
    const float* query = da.ptr<float>(int(i));
    for (int y = y0; y <= y1; ++y)
      for (int x = x0; x <= x1; ++x)
        for (const int j : cells[std::size_t(y) * std::size_t(columns) + std::size_t(x)]) {
          const cv::Point2f q = pb[std::size_t(j)];
          if ((q.x - p.x) * (q.x - p.x) + (q.y - p.y) * (q.y - p.y) > r * r) continue;
          const float d = cv::hal::normL2Sqr_(query, db.ptr<float>(j), length);
          forward[i].offer(d, j);
          backward[std::size_t(j)].offer(d, int(i));
        }
  }
  std::vector<std::pair<int, int>> matches;
  for (std::size_t i = 0; i < pa.size(); ++i) {
    const Best& f = forward[i];
    if (!f.clear() || !backward[std::size_t(f.index)].clear() || backward[std::size_t(f.index)].index != int(i)) continue;
    matches.emplace_back(int(i), f.index);
  }
  return matches;
}

// `boxes` with every two that meet replaced by the box around both, until
// none meet.
std::vector<cv::Rect> merged(std::vector<cv::Rect> boxes) {
  for (bool again = true; again;) {
    again = false;
    for (std::size_t i = 0; i < boxes.size() && !again; ++i)
      for (std::size_t j = i + 1; j < boxes.size() && !again; ++j)
        if (!(boxes[i] & boxes[j]).empty()) {
          boxes[i] |= boxes[j];
          boxes.erase(boxes.begin() + std::ptrdiff_t(j));
          again = true;
        }
  }
  return boxes;
}

// The picture's scale over a drawing: how far the picture point moves per
// panorama pixel, every kScaleStride pixels.
cv::Mat pictureScale(const OrbivaneRendering::ModuleDrawing& m) {
  cv::Mat scale((m.box.height + kScaleStride - 1) / kScaleStride, (m.box.width + kScaleStride - 1) / kScaleStride,
                CV_32F);
  for (int j = 0; j < scale.rows; ++j)
    for (int i = 0; i < scale.cols; ++i) {
      const int x = std::min(i * kScaleStride, m.box.width - 2), y = std::min(j * kScaleStride, m.box.height - 2);
      const double across = std::hypot(m.mapX.at<float>(y, x + 1) - m.mapX.at<float>(y, x),
                                       m.mapY.at<float>(y, x + 1) - m.mapY.at<float>(y, x));
      const double down = std::hypot(m.mapX.at<float>(y + 1, x) - m.mapX.at<float>(y, x),
                                     m.mapY.at<float>(y + 1, x) - m.mapY.at<float>(y, x));
      const double perPanorama = 0.5 * (across + down);
      scale.at<float>(j, i) = perPanorama > 1e-9 && perPanorama < 1e3 ? float(1.0 / perPanorama) : 1.0f;
    }
  return scale;
}

}  // namespace

// One module drawn over a region. The drawing was made with the module
// where `base` says; the module now sits `offset` panorama pixels from
// there (a translation of its matrix since), so in the current panorama its
// drawing's pixel p shows at p + offset.
struct SeamMeter::Drawn {
  std::string signature;
  Utils::Matrix4x4 matrix;  // the final matrix now
  cv::Size panorama;        // the panorama it was drawn on (a meter may start from another meter's drawings)
  bool ok = false;
  std::string reason;
  cv::Rect region;          // panorama pixels drawn, where it was drawn
  cv::Mat grey, inside;     // over `region`; `inside` a few pixels in from the module's edge
  cv::Mat scale;            // CV_32F every kScaleStride pixels: panorama pixels per picture pixel
  // The parts of `region` (panorama pixels, where it was drawn) whose
  // features were found: the seams' boxes widened by kRegionMargin, merged
  // where they meet, so that no feature is found twice.
  std::vector<cv::Rect> parts;
  std::vector<cv::KeyPoint> keypoints;  // SIFT features of the parts, pixels of `region` where it was drawn
  cv::Mat descriptors;
  std::vector<cv::Point2f> picturePoints;  // each feature's point on the module's picture, picture pixels
  cv::Point2d offset;       // from where it was drawn to where it is now
  // The number of the drawing this one is (or is a moved copy of), counted
  // over the process and never reused: a pair's measurement is kept by these
  // numbers, where a freed drawing's address could come back as another's.
  std::uint64_t base = 0;
  bool carried = false;  // it kept an earlier drawing's features (where that drawing had them)

  cv::Point whole() const { return cv::Point(int(std::lround(offset.x)), int(std::lround(offset.y))); }
  cv::Point2d fraction() const { return offset - cv::Point2d(whole()); }
  // Whether `needed` (current panorama pixels) lies within what was drawn,
  // but for kEdgeClearance pixels at its sides: a footprint that moved by a
  // fraction of a pixel may round one pixel wider, and pixels that near a
  // module's edge are never compared.
  bool covers(const cv::Rect& needed) const {
    cv::Rect inner(needed.x + kEdgeClearance, needed.y + kEdgeClearance, needed.width - 2 * kEdgeClearance,
                   needed.height - 2 * kEdgeClearance);
    if (inner.width <= 0 || inner.height <= 0) inner = needed;
    inner -= whole();
    if ((inner & region) != inner) return false;
    // Every pixel of it where features were found (a part reaching past the
    // drawing found them as far as the module is drawn).
    const cv::Rect drawnPart = inner & region;
    return std::any_of(parts.begin(), parts.end(),
                       [&](const cv::Rect& part) { return ((part & region) & drawnPart) == drawnPart; });
  }
  // Its parts where it is now, in current panorama pixels.
  std::vector<cv::Rect> partsNow() const {
    std::vector<cv::Rect> now;
    for (const cv::Rect& part : parts) now.push_back(part + whole());
    return now;
  }
  double scaleAt(cv::Point2d current) const {
    const cv::Point2d p = current - offset - cv::Point2d(region.tl());
    const int x = std::clamp(int(p.x / kScaleStride), 0, scale.cols - 1);
    const int y = std::clamp(int(p.y / kScaleStride), 0, scale.rows - 1);
    return scale.at<float>(y, x);
  }
};

namespace {

// The SIFT features of a drawing in `where` (panorama pixels where it was
// drawn; its parts, see Drawn::parts), added to those it has: each box is
// searched on its own, with kFeatureMargin pixels of the drawing around it
// so that features near its edge see their whole neighbourhood; a feature
// is kept inside its box only. Searching the parts, not the whole drawing,
// leaves out the middle of a module, which no other module draws over.
void findFeatures(SeamMeter::Drawn& d, const std::vector<cv::Rect>& where) {
  const cv::Ptr<cv::SIFT> sift = cv::SIFT::create(kMostFeatures);
  for (const cv::Rect& part : where) {
    const cv::Rect inside = (part & d.region) - d.region.tl();
    if (inside.empty()) continue;
    const cv::Rect around =
        cv::Rect(inside.x - kFeatureMargin, inside.y - kFeatureMargin, inside.width + 2 * kFeatureMargin,
                 inside.height + 2 * kFeatureMargin) &
        cv::Rect(cv::Point(), d.grey.size());
    cv::Mat mask = cv::Mat::zeros(around.size(), CV_8U);
    d.inside(inside).copyTo(mask(inside - around.tl()));
    std::vector<cv::KeyPoint> keys;
    cv::Mat descriptors;
    sift->detectAndCompute(d.grey(around), mask, keys, descriptors);
    for (auto& k : keys) k.pt += cv::Point2f(float(around.x), float(around.y));
    d.keypoints.insert(d.keypoints.end(), keys.begin(), keys.end());
    d.descriptors.push_back(descriptors);
  }
}

// A drawing's map at a point of its box (bilinear), or false outside it.
bool readMaps(const OrbivaneRendering::ModuleDrawing& m, cv::Point2f p, cv::Point2f& picture) {
  if (!(p.x >= 0.0f && p.y >= 0.0f && p.x < float(m.mapX.cols - 1) && p.y < float(m.mapX.rows - 1))) return false;
  const int x = int(p.x), y = int(p.y);
  const float fx = p.x - float(x), fy = p.y - float(y);
  const auto at = [&](const cv::Mat& map) {
    const float* r0 = map.ptr<float>(y);
    const float* r1 = map.ptr<float>(y + 1);
    return (1 - fy) * ((1 - fx) * r0[x] + fx * r0[x + 1]) + fy * ((1 - fx) * r1[x] + fx * r1[x + 1]);
  };
  picture = cv::Point2f(at(m.mapX), at(m.mapY));
  return true;
}

// Each feature's point on the picture, as the drawing reads it.
void notePicturePoints(SeamMeter::Drawn& d, const OrbivaneRendering::ModuleDrawing& m) {
  d.picturePoints.assign(d.keypoints.size(), cv::Point2f(-1e9f, -1e9f));
  for (std::size_t i = 0; i < d.keypoints.size(); ++i) readMaps(m, d.keypoints[i].pt, d.picturePoints[i]);
}

// Where the panorama moves under a module whose matrix goes from `from` to
// `to` (pixels of a panorama of `fromPanorama` to pixels of one of
// `toPanorama`): the planar homographies of the two matrices, one undone and
// the other done.
Utils::Optional<cv::Matx33d> panoramaMove(const Utils::Matrix4x4& from, cv::Size fromPanorama,
                                          const Utils::Matrix4x4& to, cv::Size toPanorama) {
  const cv::Matx33d before = OrbivaneGeometry::planarHomography(from);
  if (!(std::fabs(cv::determinant(before)) > 1e-15) || fromPanorama.empty() || toPanorama.empty()) return std::nullopt;
  const cv::Matx33d pixelsFrom(fromPanorama.width, 0, 0, 0, fromPanorama.height, 0, 0, 0, 1);
  const cv::Matx33d pixelsTo(toPanorama.width, 0, 0, 0, toPanorama.height, 0, 0, 0, 1);
  const cv::Matx33d move = pixelsTo * OrbivaneGeometry::planarHomography(to) * before.inv() * pixelsFrom.inv();
  if (!(std::fabs(cv::determinant(move)) > 1e-12) || !std::isfinite(cv::determinant(move))) return std::nullopt;
  return move;
}

cv::Point2d movedPoint(const cv::Matx33d& h, cv::Point2d p) {
  const cv::Vec3d q = h * cv::Vec3d(p.x, p.y, 1.0);
  return cv::Point2d(q[0] / q[2], q[1] / q[2]);
}

// How much the move changes the drawing's local shape at the corners of
// `box`, apart from a turn and an overall scale (which SIFT descriptors do
// not see): its Jacobian's departure from a similarity, as a share of its
// scale; and that scale's departure from 1. A homography's Jacobian varies
// smoothly between the corners.
struct Reshaping {
  double anisotropy = 0.0, scale = 0.0;
};
Reshaping reshaping(const cv::Matx33d& h, const cv::Rect& box) {
  Reshaping worst;
  for (const cv::Point2d c : {cv::Point2d(box.tl()), cv::Point2d(box.br()), cv::Point2d(box.x, box.y + box.height),
                              cv::Point2d(box.x + box.width, box.y)}) {
    const double w = h(2, 0) * c.x + h(2, 1) * c.y + h(2, 2);
    const cv::Point2d p = movedPoint(h, c);
    const double a = (h(0, 0) - p.x * h(2, 0)) / w, b = (h(0, 1) - p.x * h(2, 1)) / w;
    const double cc = (h(1, 0) - p.y * h(2, 0)) / w, d = (h(1, 1) - p.y * h(2, 1)) / w;
    const double similar = std::hypot(0.5 * (a + d), 0.5 * (b - cc));
    const double other = std::hypot(0.5 * (a - d), 0.5 * (b + cc));
    const double anisotropy = similar > 1e-9 ? other / similar : 1e9;
    worst.anisotropy = std::max(worst.anisotropy, std::isfinite(anisotropy) ? anisotropy : 1e9);
    worst.scale = std::max(worst.scale, std::isfinite(similar) ? std::fabs(similar - 1.0) : 1e9);
  }
  return worst;
}

// Whether the move hardly changes the drawing's shape over `parts`, so that
// descriptors found before it still describe what is drawn after it.
bool carriable(const cv::Matx33d& move, const std::vector<cv::Rect>& parts) {
  return std::all_of(parts.begin(), parts.end(), [&](const cv::Rect& part) {
    const Reshaping change = reshaping(move, part);
    return change.anisotropy <= kCarriedAnisotropy && change.scale <= kCarriedScale;
  });
}

// Each of `parts` (panorama pixels under the new matrix) split into the box
// whose features `before` found (the largest box within one of its parts
// taken through the move, less a pixel: `carried`) and the boxes around it
// that must be searched afresh (`fresh`: the whole part where `before` found
// nothing of it).
void splitParts(const SeamMeter::Drawn& before, const cv::Matx33d& move, const std::vector<cv::Rect>& parts,
                std::vector<cv::Rect>& carried, std::vector<cv::Rect>& fresh) {
  std::vector<cv::Rect> searched;  // before's parts through the move, the box within each
  for (const cv::Rect& p : before.partsNow()) {
    const cv::Point2d tl = movedPoint(move, cv::Point2d(p.tl())), br = movedPoint(move, cv::Point2d(p.br()));
    const cv::Point2d tr = movedPoint(move, cv::Point2d(p.x + p.width, p.y));
    const cv::Point2d bl = movedPoint(move, cv::Point2d(p.x, p.y + p.height));
    const int left = int(std::ceil(std::max(tl.x, bl.x))) + 1, right = int(std::floor(std::min(tr.x, br.x))) - 1;
    const int top = int(std::ceil(std::max(tl.y, tr.y))) + 1, bottom = int(std::floor(std::min(bl.y, br.y))) - 1;
    if (right > left && bottom > top) searched.emplace_back(left, top, right - left, bottom - top);
  }
  for (const cv::Rect& part : parts) {
    cv::Rect inner;
    for (const cv::Rect& box : searched)
      if ((box & part).area() > inner.area()) inner = box & part;
    if (inner.empty()) {
      fresh.push_back(part);
      continue;
    }
    carried.push_back(inner);
    // Above and below across the part, then left and right beside the box.
    const cv::Rect around[] = {cv::Rect(part.x, part.y, part.width, inner.y - part.y),
                               cv::Rect(part.x, inner.br().y, part.width, part.br().y - inner.br().y),
                               cv::Rect(part.x, inner.y, inner.x - part.x, inner.height),
                               cv::Rect(inner.br().x, inner.y, part.br().x - inner.br().x, inner.height)};
    for (const cv::Rect& box : around)
      if (!box.empty()) fresh.push_back(box);
  }
}

// `before`'s features in the boxes `carried` carried over to `d`, the module
// drawn afresh through another matrix (`m`, with the same grid, shaders,
// gain and picture): a feature goes where the move puts its panorama point
// and keeps its descriptor. Returns false, carrying nothing, when the new
// drawing does not read the features' picture points there (more than
// kCarriedMisreadShare of them off by kCarriedPx or more).
bool carryFeatures(const SeamMeter::Drawn& before, const cv::Matx33d& move, const std::vector<cv::Rect>& carried,
                   SeamMeter::Drawn& d, const OrbivaneRendering::ModuleDrawing& m) {
  const cv::Point2d from = cv::Point2d(before.region.tl()) + before.offset;
  std::vector<int> kept;
  int misread = 0, inParts = 0;
  for (std::size_t i = 0; i < before.keypoints.size(); ++i) {
    const cv::Point2d now = movedPoint(move, cv::Point2d(before.keypoints[i].pt) + from);
    const cv::Point2f local(float(now.x - d.region.x), float(now.y - d.region.y));
    const cv::Point p(int(std::lround(local.x)), int(std::lround(local.y)));
    const bool inPart = std::any_of(carried.begin(), carried.end(), [&](const cv::Rect& part) {
      return part.contains(cv::Point(int(std::floor(now.x)), int(std::floor(now.y))));
    });
    if (!inPart || !cv::Rect(cv::Point(), d.inside.size()).contains(p) || d.inside.at<std::uint8_t>(p) == 0) continue;
    ++inParts;
    cv::Point2f read;
    if (!readMaps(m, local, read) || cv::norm(read - before.picturePoints[i]) > kCarriedPx) {
      ++misread;
      continue;
    }
    cv::KeyPoint k = before.keypoints[i];
    k.pt = local;
    d.keypoints.push_back(k);
    d.picturePoints.push_back(read);
    kept.push_back(int(i));
  }
  if (misread > kCarriedMisreadShare * std::max(1, inParts)) {
    d.keypoints.clear();
    d.picturePoints.clear();
    return false;
  }
  d.descriptors.create(int(kept.size()), before.descriptors.cols, before.descriptors.type());
  for (std::size_t k = 0; k < kept.size(); ++k) before.descriptors.row(kept[k]).copyTo(d.descriptors.row(int(k)));
  return true;
}

// The module drawn over its parts (the box around them): its grey picture,
// where it reads the picture and its scale; the drawing itself for its
// maps. Nothing, with the reason in `d`, when it cannot be drawn.
std::optional<OrbivaneRendering::ModuleDrawing> drawParts(const CameraDescription::OrbivaneModule& module,
                                                          cv::Size panorama, SeamMeter::Drawn& d) {
  cv::Rect region;
  for (const cv::Rect& part : d.parts) region = region.empty() ? part : (region | part);
  auto drawing = OrbivaneRendering::drawModule(module, panorama, region);
  if (!drawing) {
    d.reason = "module " + drawing.error();
    return std::nullopt;
  }
  const OrbivaneRendering::ModuleDrawing& m = drawing.value();
  d.region = m.box;
  cv::Mat bytes;
  m.colour.convertTo(bytes, CV_8UC3);  // saturated at 255, as the viewer shows it
  cv::cvtColor(bytes, d.grey, cv::COLOR_BGR2GRAY);
  cv::erode(m.inside, d.inside,
            cv::getStructuringElement(cv::MORPH_RECT, cv::Size(2 * kEdgeClearance + 1, 2 * kEdgeClearance + 1)));
  d.scale = pictureScale(m);
  return std::move(drawing.value());
}

}  // namespace

cv::Size seamDrawingSize(const CameraDescription::Orbivane& camera) {
  double across = 0.0, down = 0.0;
  int counted = 0;
  for (const auto& module : camera.modules()) {
    if (!module || !module->image() || module->image()->empty()) continue;
    const auto final = CameraDescription::finalMatrix(*module);
    const auto quad = final ? OrbivaneGeometry::moduleSurfaceQuad(*final) : Utils::Optional<Utils::SurfaceQuad>();
    if (!quad) continue;
    const double dx = double(quad->right()) - quad->left(), dy = double(quad->bottom()) - quad->top();
    if (!(dx > 1e-6) || !(dy > 1e-6) || !std::isfinite(dx + dy)) continue;
    across += module->image()->width() / dx;
    down += module->image()->height() / dy;
    ++counted;
  }
  const Utils::Size own = camera.panoramaSize();
  if (counted == 0) return own.empty() ? cv::Size(kDefaultDrawingWidth, kDefaultDrawingWidth / 2) : cv::Size(own.width, own.height);
  across /= counted;
  down /= counted;
  const double width = std::max(own.empty() ? 0.0 : double(own.width), across);
  const double height = std::max(own.empty() ? 0.0 : double(own.height), down);
  const double fit = std::min(1.0, double(kLargestDrawingSide) / std::max(width, height));
  return cv::Size(std::max(1, int(std::lround(width * fit))), std::max(1, int(std::lround(height * fit))));
}

// Where a module draws on the panorama kCoarseStep times smaller, one
// coarse pixel wider all round (so that no pixel it draws is left out).
struct SeamMeter::Coarse {
  std::string key;  // the module's signature and final matrix it was drawn with
  bool ok = false;
  cv::Rect box;     // coarse pixels
  cv::Mat inside;   // CV_8UC1 over `box`
};

namespace {

cv::Size coarseSize(cv::Size panorama) {
  return cv::Size(std::max(1, (panorama.width + kCoarseStep - 1) / kCoarseStep),
                  std::max(1, (panorama.height + kCoarseStep - 1) / kCoarseStep));
}

}  // namespace

std::shared_ptr<const SeamMeter::Coarse> SeamMeter::coarse(const CameraDescription::OrbivaneModule& module) {
  std::ostringstream key;
  key.precision(9);
  key << signatureOf(module) << "|matrix";
  if (const auto final = CameraDescription::finalMatrix(module))
    for (int r = 0; r < 4; ++r)
      for (int c = 0; c < 4; ++c) key << ' ' << final->get(r, c);
  const auto known = coarse_.find(module.name());
  if (known != coarse_.end() && known->second->key == key.str()) return known->second;
  auto c = std::make_shared<Coarse>();
  c->key = key.str();
  if (const auto drawing = OrbivaneRendering::drawModuleCoverage(module, coarseSize(panorama_))) {
    const OrbivaneRendering::ModuleDrawing& m = drawing.value();
    c->box = cv::Rect(m.box.x - 1, m.box.y - 1, m.box.width + 2, m.box.height + 2);
    cv::Mat padded;
    cv::copyMakeBorder(m.inside, padded, 1, 1, 1, 1, cv::BORDER_CONSTANT, cv::Scalar(0));
    cv::dilate(padded, c->inside, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(3, 3)));
    c->ok = true;
  }
  coarse_[module.name()] = c;
  return c;
}

cv::Rect SeamMeter::overlapBox(const CameraDescription::OrbivaneModule& first,
                               const CameraDescription::OrbivaneModule& second) {
  const cv::Rect boxes = footprintBox(first, panorama_) & footprintBox(second, panorama_);
  if (boxes.empty()) return cv::Rect();
  const auto a = coarse(first), b = coarse(second);
  if (!a->ok || !b->ok) return boxes;  // drawn in full, which says what keeps it from being drawn
  const cv::Rect shared = a->box & b->box;
  if (shared.empty()) return cv::Rect();
  const cv::Mat both = a->inside(shared - a->box.tl()) & b->inside(shared - b->box.tl());
  if (cv::countNonZero(both) == 0) return cv::Rect();
  const cv::Rect r = cv::boundingRect(both) + shared.tl();
  const cv::Size small = coarseSize(panorama_);
  const double sx = double(panorama_.width) / small.width, sy = double(panorama_.height) / small.height;
  const cv::Point from(int(std::floor(r.x * sx)), int(std::floor(r.y * sy)));
  const cv::Point to(int(std::ceil(r.br().x * sx)), int(std::ceil(r.br().y * sy)));
  return cv::Rect(from, to) & boxes;
}

SeamMeter::SeamMeter(cv::Size panorama) : panorama_(panorama) {}
bool SeamMeter::keptFeatures(const std::wstring& module) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = cache_.find(module);
  return it != cache_.end() && it->second->carried;
}

SeamMeter::SeamMeter(cv::Size panorama, const SeamMeter& earlier) : panorama_(panorama) {
  std::lock_guard<std::mutex> lock(earlier.mutex_);
  cache_ = earlier.cache_;
}
SeamMeter::~SeamMeter() = default;

std::shared_ptr<const SeamMeter::Drawn> SeamMeter::drawn(const CameraDescription::OrbivaneModule& module,
                                                         const std::vector<cv::Rect>& needed) {
  const std::string signature = signatureOf(module);
  const auto final = CameraDescription::finalMatrix(module);
  const auto it = cache_.find(module.name());
  if (it != cache_.end() && it->second->signature == signature && it->second->ok && final &&
      it->second->panorama == panorama_) {
    // Moved by a translation on the panorama (as neighbour stitching moves
    // modules): the same drawing, moved, if it covers what is needed.
    if (const auto shift = translationBetween(it->second->matrix, *final, panorama_)) {
      auto moved = std::make_shared<Drawn>(*it->second);
      moved->matrix = *final;
      moved->offset += *shift;
      if (std::all_of(needed.begin(), needed.end(), [&](const cv::Rect& box) { return moved->covers(box); })) {
        cache_[module.name()] = moved;
        return moved;
      }
    }
  }
  auto d = std::make_shared<Drawn>();
  d->signature = signature;
  if (final) d->matrix = *final;
  d->panorama = panorama_;
  static std::atomic<std::uint64_t> drawings{0};
  d->base = ++drawings;
  std::vector<cv::Rect> wanted;  // with a margin for the small moves a calibration step makes
  for (const cv::Rect& box : needed)
    wanted.emplace_back(box.x - kRegionMargin, box.y - kRegionMargin, box.width + 2 * kRegionMargin,
                        box.height + 2 * kRegionMargin);
  // Moved otherwise, but hardly reshaped (as target matching moves a module
  // that was placed well): drawn again, with the features it had carried
  // over where they still hold.
  const Drawn* before = it != cache_.end() && it->second->ok && it->second->signature == signature ? it->second.get() : nullptr;
  const auto move = before && final ? panoramaMove(before->matrix, before->panorama, *final, panorama_)
                                    : Utils::Optional<cv::Matx33d>();
  if (move && carriable(*move, merged(wanted))) {
    d->parts = merged(wanted);
    std::vector<cv::Rect> carried, fresh;
    splitParts(*before, *move, d->parts, carried, fresh);
    const auto drawing = drawParts(module, panorama_, *d);
    if (drawing && carryFeatures(*before, *move, carried, *d, *drawing)) {
      findFeatures(*d, fresh);
      notePicturePoints(*d, *drawing);
      d->ok = true;
      d->carried = true;
      cache_[module.name()] = d;
      return d;
    }
  }
  // What was drawn before and is still needed is drawn again with the rest.
  std::vector<cv::Rect> parts = wanted;
  if (it != cache_.end() && it->second->ok && it->second->panorama == panorama_) {
    const std::vector<cv::Rect> searched = it->second->partsNow();
    parts.insert(parts.end(), searched.begin(), searched.end());
  }
  d->parts = merged(parts);
  if (const auto drawing = drawParts(module, panorama_, *d)) {
    findFeatures(*d, d->parts);
    notePicturePoints(*d, *drawing);
    d->ok = true;
  }
  cache_[module.name()] = d;
  return d;
}

void SeamMeter::prepare(const std::vector<const CameraDescription::OrbivaneModule*>& modules) {
  // Each module is needed where it overlaps another.
  std::vector<std::vector<cv::Rect>> needed(modules.size());
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (std::size_t i = 0; i < modules.size(); ++i)
      for (std::size_t j = i + 1; j < modules.size(); ++j) {
        const cv::Rect shared = overlapBox(*modules[i], *modules[j]);
        if (shared.empty()) continue;
        needed[i].push_back(shared);
        needed[j].push_back(shared);
      }
  }
  // Drawn apart, two at a time (drawing is mostly single-threaded).
  std::vector<std::unique_ptr<SeamMeter>> scratch(modules.size());
  std::vector<std::size_t> todo;
  for (std::size_t i = 0; i < modules.size(); ++i) {
    if (needed[i].empty()) continue;
    auto it = cache_.find(modules[i]->name());
    scratch[i] = std::make_unique<SeamMeter>(panorama_);
    if (it != cache_.end()) scratch[i]->cache_[it->first] = it->second;
    todo.push_back(i);
  }
  Utils::parallelRows(0, int(todo.size()), [&](int first, int last) {
    for (int k = first; k < last; ++k) {
      const std::size_t i = todo[std::size_t(k)];
      scratch[i]->drawn(*modules[i], needed[i]);
    }
  });
  for (const std::size_t i : todo) cache_[modules[i]->name()] = scratch[i]->cache_[modules[i]->name()];
}

std::pair<std::shared_ptr<const SeamMeter::Drawn>, std::shared_ptr<const SeamMeter::Drawn>> SeamMeter::drawnPair(
    const CameraDescription::OrbivaneModule& first, const CameraDescription::OrbivaneModule& second) {
  std::lock_guard<std::mutex> lock(mutex_);
  const cv::Rect shared = overlapBox(first, second);
  if (shared.empty()) return {nullptr, nullptr};
  return {drawn(first, {shared}), drawn(second, {shared})};
}

SeamMeter::Overlap SeamMeter::overlap(const CameraDescription::OrbivaneModule& first,
                                      const CameraDescription::OrbivaneModule& second) {
  Overlap o;
  const auto [a, b] = drawnPair(first, second);
  if (!a || !b) {
    o.reason = "no overlap";
    return o;
  }
  if (!a->ok || !b->ok) {
    o.reason = !a->ok ? a->reason : b->reason;
    return o;
  }
  // Drawings that were moved by whole pixels since are cut where they are
  // now; a sub-pixel remainder of the move is not shown (see `fraction`).
  o.region = (a->region + a->whole()) & (b->region + b->whole());
  if (o.region.empty()) {
    o.reason = "no overlap";
    return o;
  }
  const cv::Rect inA = o.region - a->whole() - a->region.tl(), inB = o.region - b->whole() - b->region.tl();
  o.mask = a->inside(inA) & b->inside(inB);
  if (cv::countNonZero(o.mask) < kFewestOverlapPixels) {
    o.reason = "no overlap";
    return o;
  }
  o.first = a->grey(inA);
  o.second = b->grey(inB);
  o.pictureScale = a->scaleAt(cv::Point2d(o.region.x + 0.5 * o.region.width, o.region.y + 0.5 * o.region.height));
  o.firstFraction = a->fraction();
  o.secondFraction = b->fraction();
  o.ok = true;
  return o;
}

SeamMeasure SeamMeter::measure(const CameraDescription::OrbivaneModule& first,
                               const CameraDescription::OrbivaneModule& second) {
  const auto [a, b] = drawnPair(first, second);
  if (!a || !b) {
    SeamMeasure none;
    none.reason = "no overlap";
    return none;
  }
  char key[160];
  const cv::Point2d relative = b->offset - a->offset;
  // Shifts that differ by less than a hundredth of a pixel measure the same
  // seam (a matrix moved there and back again comes back within 1e-3 px).
  std::snprintf(key, sizeof key, "%llu/%llu/%.2f,%.2f", static_cast<unsigned long long>(a->base),
                static_cast<unsigned long long>(b->base), relative.x, relative.y);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto known = pairs_.find(key);
    if (known != pairs_.end()) return known->second;
  }
  SeamMeasure s = compare(*a, *b);
  std::lock_guard<std::mutex> lock(mutex_);
  pairs_[key] = s;
  return s;
}

SeamMeasure SeamMeter::compare(const Drawn& a, const Drawn& b) const {
  SeamMeasure s;
  if (!a.ok || !b.ok) {
    s.reason = !a.ok ? a.reason : b.reason;
    return s;
  }
  const cv::Rect region = (a.region + a.whole()) & (b.region + b.whole());
  if (region.empty()) {
    s.reason = "no overlap";
    return s;
  }
  const cv::Rect inA = region - a.whole() - a.region.tl(), inB = region - b.whole() - b.region.tl();
  const cv::Mat both = a.inside(inA) & b.inside(inB);
  s.overlapPixels = cv::countNonZero(both);
  if (s.overlapPixels < kFewestOverlapPixels) {
    s.reason = "no overlap";
    return s;
  }
  const cv::Mat greyA = a.grey(inA), greyB = b.grey(inB);
  const double meanFirst = cv::mean(greyA, both)[0], meanSecond = cv::mean(greyB, both)[0];
  s.exposureEv = meanFirst > 0.0 && meanSecond > 0.0 ? std::fabs(std::log2(meanFirst / meanSecond)) : 0.0;

  // The features of each drawing where both draw, in current panorama
  // pixels (a drawing moved since it was made moves its features exactly).
  const auto within = [&](const Drawn& d, std::vector<cv::Point2f>& at, cv::Mat& descriptors) {
    const cv::Point2d shift = d.offset + cv::Point2d(d.region.tl());
    for (std::size_t k = 0; k < d.keypoints.size(); ++k) {
      const cv::Point2d p = cv::Point2d(d.keypoints[k].pt) + shift;
      const cv::Point q(int(p.x) - region.x, int(p.y) - region.y);
      if (q.x < 0 || q.y < 0 || q.x >= region.width || q.y >= region.height || !both.at<std::uint8_t>(q)) continue;
      at.emplace_back(float(p.x), float(p.y));
      descriptors.push_back(d.descriptors.row(int(k)));
    }
  };
  std::vector<cv::Point2f> pa, pb;
  cv::Mat da, db;
  within(a, pa, da);
  within(b, pb, db);
  if (da.rows < 2 || db.rows < 2) {
    s.reason = "no texture in the overlap";
    return s;
  }
  std::vector<cv::Point2f> at;
  std::vector<cv::Point2d> shifts;  // picture pixels
  for (const auto& [i, j] : matchNearby(pa, da, pb, db, [&](cv::Point2f p) { return a.scaleAt(cv::Point2d(p)); })) {
    const cv::Point2f from = pa[std::size_t(i)], to = pb[std::size_t(j)];
    const cv::Point2d inPicture = cv::Point2d(to - from) * (1.0 / a.scaleAt(cv::Point2d(from)));
    if (!(std::hypot(inPicture.x, inPicture.y) <= kLargestSeamPx)) continue;
    at.push_back(from);
    shifts.push_back(inPicture);
  }
  const std::vector<bool> agree = agreeWithNeighbours(at, shifts);
  std::vector<double> distances, shiftsX, shiftsY;
  for (std::size_t k = 0; k < shifts.size(); ++k) {
    if (!agree[k]) continue;
    distances.push_back(std::hypot(shifts[k].x, shifts[k].y));
    shiftsX.push_back(shifts[k].x);
    shiftsY.push_back(shifts[k].y);
  }
  s.matches = int(distances.size());
  s.distances.assign(distances.begin(), distances.end());
  if (s.matches < kFewestSeamMatches) {
    s.reason = "too few features match in the overlap (" + std::to_string(s.matches) + ")";
    return s;
  }
  s.medianPx = percentile(distances, 0.5);
  s.p90Px = percentile(distances, 0.9);
  s.shift = cv::Point2d(percentile(shiftsX, 0.5), percentile(shiftsY, 0.5));
  s.measured = true;
  return s;
}

}  // namespace GeometryCalibration
