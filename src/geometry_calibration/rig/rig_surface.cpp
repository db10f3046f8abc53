// The rig's panorama surface (see rig_surface.h).
#include "geometry_calibration/rig/rig_surface.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace GeometryCalibration {
namespace Rig {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDegrees = 180.0 / kPi;
// Auto projection: planar while every ray is within this angle of the
// panorama's middle; cylindrical while no ray looks further up or down than
// kCylindricalLatitude; spherical otherwise (degrees).
constexpr double kPlanarHalfAngle = 50.0;
constexpr double kCylindricalLatitude = 45.0;
constexpr int kBorderSamples = 32;
constexpr int kLongitudeBins = 3600;  // 0.1 degree
// A pole this far beyond a picture's edge (share of its side) still counts as seen.
constexpr double kPoleMargin = 0.25;

double wrap(double angle) {  // into (-pi, pi]
  while (angle > kPi) angle -= 2.0 * kPi;
  while (angle <= -kPi) angle += 2.0 * kPi;
  return angle;
}

double longitude(const cv::Vec3d& ray) { return std::atan2(ray[0], ray[2]); }
double latitude(const cv::Vec3d& ray) { return std::asin(std::clamp(-ray[1] / cv::norm(ray), -1.0, 1.0)); }

// Rotation about the vertical (y) that takes longitude `angle` to 0.
cv::Matx33d yawBy(double angle) {
  const double c = std::cos(-angle), s = std::sin(-angle);
  return cv::Matx33d(c, 0, s, 0, 1, 0, -s, 0, c);
}

// Each module's longitude interval, unwrapped around its centre.
struct Interval {
  double centre, low, high;
};

std::vector<Interval> intervalsOf(const std::vector<ModuleModel>& models) {
  std::vector<Interval> out;
  for (const auto& m : models) {
    const double centre = longitude(m.ray(m.centre()));
    Interval iv{centre, centre, centre};
    for (const auto& p : pictureBorder(m.picture, kBorderSamples)) {
      const double lon = centre + wrap(longitude(m.ray(p)) - centre);
      iv.low = std::min(iv.low, lon);
      iv.high = std::max(iv.high, lon);
    }
    out.push_back(iv);
  }
  return out;
}

int binOf(double angle) {
  const double unit = (wrap(angle) + kPi) / (2.0 * kPi);
  return std::clamp(int(unit * kLongitudeBins), 0, kLongitudeBins - 1);
}
double angleOfBin(int bin) { return (bin + 0.5) / kLongitudeBins * 2.0 * kPi - kPi; }

// How many modules cover each longitude bin.
std::vector<int> longitudeCoverage(const std::vector<Interval>& intervals) {
  std::vector<int> count(kLongitudeBins, 0);
  for (const auto& iv : intervals) {
    const int bins = std::min(kLongitudeBins, int(std::ceil((iv.high - iv.low) / (2.0 * kPi) * kLongitudeBins)));
    const int first = binOf(iv.low);
    for (int k = 0; k <= bins && k < kLongitudeBins; ++k) ++count[std::size_t((first + k) % kLongitudeBins)];
  }
  return count;
}

// The longitude the panorama is centred on: the middle of the covered
// longitudes when they leave a gap; for a full ring, the cut (returned in
// `cut`) where most modules overlap, as far from module centres as it can.
double centreLongitude(const std::vector<Interval>& intervals, bool& fullRing, double& cut) {
  const std::vector<int> count = longitudeCoverage(intervals);
  fullRing = std::all_of(count.begin(), count.end(), [](int c) { return c > 0; });
  if (!fullRing) {
    // The longest run of empty bins, circularly.
    int bestStart = 0, bestLength = 0;
    for (int start = 0; start < kLongitudeBins; ++start) {
      if (count[std::size_t(start)] != 0 || count[std::size_t((start + kLongitudeBins - 1) % kLongitudeBins)] == 0)
        continue;
      int length = 0;
      while (length < kLongitudeBins && count[std::size_t((start + length) % kLongitudeBins)] == 0) ++length;
      if (length > bestLength) {
        bestLength = length;
        bestStart = start;
      }
    }
    const double gapMiddle = angleOfBin(bestStart) + 0.5 * bestLength * 2.0 * kPi / kLongitudeBins;
    return wrap(gapMiddle + kPi);
  }
  double bestScore = -1.0;
  int bestBin = 0;
  const int most = *std::max_element(count.begin(), count.end());
  for (int b = 0; b < kLongitudeBins; ++b) {
    if (count[std::size_t(b)] != most) continue;
    double nearest = kPi;
    for (const auto& iv : intervals) nearest = std::min(nearest, std::fabs(wrap(angleOfBin(b) - iv.centre)));
    if (nearest > bestScore) {
      bestScore = nearest;
      bestBin = b;
    }
  }
  cut = angleOfBin(bestBin);
  return wrap(cut + kPi);
}

// cv::detail's projectors, set up for one module's camera. A point is
// warped with the same float arithmetic as the warpers' warpPoint, which
// sets the camera up again for every point (K inverted and multiplied on
// cv::Mat: most of a point's time, and the rig warps millions of them).
// Each thread keeps the last camera it set up: a module's points come
// together.
struct Projectors {
  bool valid = false;
  Projection projection = Projection::spherical;
  float scale = 0.0f;
  cv::Matx33d intrinsics, rotation;
  cv::detail::PlaneProjector plane;
  cv::detail::CylindricalProjector cylindrical;
  cv::detail::SphericalProjector spherical;

  void setUp(Projection p, double surfaceScale, const ModuleModel& model) {
    const cv::Matx33d k = model.intrinsics();
    if (valid && p == projection && float(surfaceScale) == scale && k == intrinsics && model.rotation == rotation) return;
    projection = p;
    scale = float(surfaceScale);
    intrinsics = k;
    rotation = model.rotation;
    const cv::Mat kf(cv::Matx33f{k}), rf(cv::Matx33f{model.rotation});
    plane.scale = cylindrical.scale = spherical.scale = scale;
    switch (p) {
      case Projection::plane:
        plane.setCameraParams(kf, rf);
        break;
      case Projection::cylindrical:
        cylindrical.setCameraParams(kf, rf);
        break;
      case Projection::spherical:
      default:
        spherical.setCameraParams(kf, rf);
        break;
    }
    valid = true;
  }
  cv::Point2f map(cv::Point2f p) {
    cv::Point2f uv;
    switch (projection) {
      case Projection::plane:
        plane.mapForward(p.x, p.y, uv.x, uv.y);
        break;
      case Projection::cylindrical:
        cylindrical.mapForward(p.x, p.y, uv.x, uv.y);
        break;
      case Projection::spherical:
      default:
        spherical.mapForward(p.x, p.y, uv.x, uv.y);
        break;
    }
    return uv;
  }
};

}  // namespace

const char* projectionName(Projection projection) {
  switch (projection) {
    case Projection::plane:
      return "plane";
    case Projection::cylindrical:
      return "cylindrical";
    case Projection::spherical:
    default:
      return "spherical";
  }
}

std::vector<cv::Point2d> pictureBorder(cv::Size picture, int perSide) {
  std::vector<cv::Point2d> out;
  const double w = picture.width - 0.5, h = picture.height - 0.5;
  for (int k = 0; k < perSide; ++k) {
    const double t = double(k) / perSide;
    out.emplace_back(-0.5 + t * (w + 0.5), -0.5);
    out.emplace_back(w, -0.5 + t * (h + 0.5));
    out.emplace_back(w - t * (w + 0.5), h);
    out.emplace_back(-0.5, h - t * (h + 0.5));
  }
  return out;
}

Surface Surface::frame(std::vector<ModuleModel>& models, const std::string& requested) {
  if (models.empty()) throw std::invalid_argument("no modules to frame");
  Surface s;
  // Centre the rig (or put the cut of a full ring at the panorama's edges).
  double cut = 0.0;
  const double centre = centreLongitude(intervalsOf(models), s.fullRing_, cut);
  const cv::Matx33d yaw = yawBy(centre);
  for (auto& m : models) m.rotation = yaw * m.rotation;

  // What the rays span.
  double lonLow = 1e9, lonHigh = -1e9, latLow = 1e9, latHigh = -1e9, widest = 0.0;
  for (const auto& iv : intervalsOf(models)) {
    lonLow = std::min(lonLow, iv.low);
    lonHigh = std::max(lonHigh, iv.high);
  }
  for (const auto& m : models) {
    for (const auto& p : pictureBorder(m.picture, kBorderSamples)) {
      const cv::Vec3d r = m.ray(p);
      latLow = std::min(latLow, latitude(r));
      latHigh = std::max(latHigh, latitude(r));
      widest = std::max(widest, std::acos(std::clamp(r[2] / cv::norm(r), -1.0, 1.0)));
    }
  }
  s.fovX_ = s.fullRing_ ? 360.0 : (lonHigh - lonLow) * kDegrees;
  s.fovY_ = (latHigh - latLow) * kDegrees;

  bool pole = false;
  for (const auto& m : models) pole = pole || poleOf(m) != 0;
  if (pole && requested != "auto" && requested != "spherical") {
    throw std::invalid_argument("a module looks at the zenith or the nadir, which only a spherical panorama shows");
  }
  if (requested == "plane") {
    s.projection_ = Projection::plane;
  } else if (requested == "cylindrical") {
    s.projection_ = Projection::cylindrical;
  } else if (requested == "spherical") {
    s.projection_ = Projection::spherical;
  } else if (pole) {
    s.projection_ = Projection::spherical;
  } else if (!s.fullRing_ && widest * kDegrees <= kPlanarHalfAngle) {
    s.projection_ = Projection::plane;
  } else if (std::max(std::fabs(latLow), std::fabs(latHigh)) * kDegrees <= kCylindricalLatitude) {
    s.projection_ = Projection::cylindrical;
  } else {
    s.projection_ = Projection::spherical;
  }
  if (s.projection_ == Projection::plane && widest * kDegrees >= 85.0) {
    throw std::invalid_argument("the rig spans too wide a field of view for a planar panorama; choose cylindrical or spherical");
  }
  std::vector<double> focals;
  for (const auto& m : models) focals.push_back(m.focal);
  std::nth_element(focals.begin(), focals.begin() + focals.size() / 2, focals.end());
  s.scale_ = focals[focals.size() / 2];

  // The box around every module.
  double left = 1e18, right = -1e18, top = 1e18, bottom = -1e18;
  const double turn = 2.0 * kPi * s.scale_;
  for (const auto& m : models) {
    const double middle = s.warp(m, m.centre()).x;
    for (const auto& p : pictureBorder(m.picture, kBorderSamples)) {
      cv::Point2d uv = s.warp(m, p);
      if (s.projection_ != Projection::plane) uv.x = middle + std::remainder(uv.x - middle, turn);
      left = std::min(left, uv.x);
      right = std::max(right, uv.x);
      top = std::min(top, uv.y);
      bottom = std::max(bottom, uv.y);
    }
  }
  if (s.fullRing_) {
    left = -0.5 * turn;
    right = 0.5 * turn;
  }
  for (const auto& m : models) {
    // A module that sees a pole reaches the panorama's top (bottom) edge.
    if (poleOf(m) > 0) top = 0.0;
    if (poleOf(m) < 0) bottom = kPi * s.scale_;
  }
  // Whole pixels: the box is as many warper units wide and high as the panorama has pixels.
  const double width = std::ceil(right - left), height = std::ceil(bottom - top);
  s.box_ = cv::Rect2d(left - 0.5 * (width - (right - left)), top - 0.5 * (height - (bottom - top)), width, height);
  return s;
}

cv::Point2d Surface::offset(cv::Point2d a, cv::Point2d b) const {
  double dx = b.x - a.x;
  if (fullRing_) dx = std::remainder(dx, 1.0);
  return cv::Point2d(dx * box_.width, (b.y - a.y) * box_.height);
}

int Surface::poleOf(const ModuleModel& model) {
  // In ideal (distortion-free) pixels: the picture's ideal outline, widened.
  double left = 1e18, right = -1e18, top = 1e18, bottom = -1e18;
  for (const auto& p : pictureBorder(model.picture, 16)) {
    const cv::Point2d ideal = model.undistort(p);
    left = std::min(left, ideal.x);
    right = std::max(right, ideal.x);
    top = std::min(top, ideal.y);
    bottom = std::max(bottom, ideal.y);
  }
  const double mx = kPoleMargin * (right - left), my = kPoleMargin * (bottom - top);
  for (int pole : {1, -1}) {
    const cv::Vec3d camera = model.rotation.t() * cv::Vec3d(0.0, -pole, 0.0);
    if (!(camera[2] > 1e-9)) continue;
    const cv::Point2d at = model.centre() + cv::Point2d(camera[0], camera[1]) * (model.focal / camera[2]);
    if (at.x > left - mx && at.x < right + mx && at.y > top - my && at.y < bottom + my) return pole;
  }
  return 0;
}

Surface Surface::equirectangular(const std::vector<ModuleModel>& models, double scale, cv::Size target) {
  Surface s;
  s.projection_ = Projection::spherical;
  s.scale_ = scale;
  s.fullRing_ = true;
  s.fovX_ = 360.0;
  s.fovY_ = 180.0;
  // Texture coordinate x of the picture is longitude -pi + 2 pi x + pi / W
  // (pixel i, at texture i / W, is centred on its cell); likewise latitude.
  s.box_ = cv::Rect2d(scale * (-kPi + kPi / target.width), scale * (0.5 * kPi / target.height), 2.0 * kPi * scale,
                      kPi * scale);
  (void)models;
  return s;
}

cv::Size Surface::pixels() const { return cv::Size(int(std::lround(box_.width)), int(std::lround(box_.height))); }

cv::Point2d Surface::warp(const ModuleModel& model, cv::Point2d observed) const {
  const cv::Point2d ideal = model.undistort(observed);
  thread_local Projectors projectors;
  projectors.setUp(projection_, scale_, model);
  const cv::Point2f uv = projectors.map(cv::Point2f(float(ideal.x), float(ideal.y)));
  return cv::Point2d(uv.x, uv.y);
}

cv::Point2d Surface::toUnit(const ModuleModel& model, cv::Point2d observed) const {
  cv::Point2d uv = warp(model, observed);
  if (projection_ != Projection::plane) {
    const double middle = warp(model, model.centre()).x;
    uv.x = middle + std::remainder(uv.x - middle, 2.0 * kPi * scale_);
  }
  return cv::Point2d((uv.x - box_.x) / box_.width, (uv.y - box_.y) / box_.height);
}

bool Surface::toPicture(const ModuleModel& model, cv::Point2d unit, cv::Point2d& observed) const {
  // The world ray of warper point (u, v), as cv::detail's projectors map it
  // back; the module's projection then says whether it lies in front.
  const double u = (box_.x + unit.x * box_.width) / scale_, v = (box_.y + unit.y * box_.height) / scale_;
  cv::Vec3d ray;
  switch (projection_) {
    case Projection::plane:
      ray = cv::Vec3d(u, v, 1.0);
      break;
    case Projection::cylindrical:
      ray = cv::Vec3d(std::sin(u), v, std::cos(u));
      break;
    case Projection::spherical:
    default:
      ray = cv::Vec3d(std::sin(v) * std::sin(u), -std::cos(v), std::sin(v) * std::cos(u));
      break;
  }
  return model.project(ray, observed);
}

}  // namespace Rig
}  // namespace GeometryCalibration
