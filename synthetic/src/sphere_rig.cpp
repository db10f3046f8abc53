// A rig of turned wide-angle modules with known truth; see sphere_rig.h.
#include "synthetic/sphere_rig.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

#include "orbivane/rendering/module_drawing.h"
#include "orbivane/utils/wide_text.h"

namespace Synthetic {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int kWrap = 64;  // world pixels added on each side for sampling across the edges

double radians(double degrees) { return degrees * kPi / 180.0; }

// Camera -> world: yaw (right) of pitch (up) of roll (clockwise).
cv::Matx33d rotationOf(const SphereModule& m) {
  const double y = radians(m.yaw), p = radians(m.pitch), r = radians(m.roll);
  const cv::Matx33d yaw(std::cos(y), 0, std::sin(y), 0, 1, 0, -std::sin(y), 0, std::cos(y));
  const cv::Matx33d pitch(1, 0, 0, 0, std::cos(p), -std::sin(p), 0, std::sin(p), std::cos(p));
  const cv::Matx33d roll(std::cos(r), -std::sin(r), 0, std::sin(r), std::cos(r), 0, 0, 0, 1);
  return yaw * pitch * roll;
}

cv::Point2d middleOf(const SphereModule& m) { return cv::Point2d(0.5 * m.picture.width, 0.5 * m.picture.height); }

// The direction from the turning point of what a module's lens sees along
// `ray`: the ray itself far away, or the ground point it meets (world y
// points down, the ground is the plane y = groundBelow).
cv::Vec3d seenDirection(const SphereRig& rig, const SphereModule& m, const cv::Vec3d& ray) {
  if (!(rig.groundBelow > 0.0) || !(ray[1] > 1e-9)) return ray;
  const double along = (rig.groundBelow - m.lens[1]) / ray[1];
  return m.lens + along * ray;
}

}  // namespace

cv::Vec3d SphereRig::ray(std::size_t index, cv::Point2d p) const {
  const SphereModule& m = modules[index];
  const cv::Point2d d = p - middleOf(m);
  const double r2 = (d.x * d.x + d.y * d.y) / (m.focal * m.focal);
  const cv::Point2d ideal = d * (1.0 + m.k1 * r2 + m.k2 * r2 * r2);
  return cv::normalize(rotationOf(m) * cv::Vec3d(ideal.x / m.focal, ideal.y / m.focal, 1.0));
}

bool SphereRig::project(std::size_t index, const cv::Vec3d& r, cv::Point2d& p) const {
  const SphereModule& m = modules[index];
  const cv::Vec3d c = rotationOf(m).t() * r;
  if (!(c[2] > 1e-9)) return false;
  const cv::Point2d ideal(m.focal * c[0] / c[2], m.focal * c[1] / c[2]);
  // The observed radius rho (in focal lengths) with rho (1 + k1 rho^2 + k2 rho^4) = |ideal| / f.
  const double target = std::hypot(ideal.x, ideal.y) / m.focal;
  double rho = target;
  for (int i = 0; i < 40 && target > 0.0; ++i) {
    const double r2 = rho * rho;
    const double f = rho * (1.0 + m.k1 * r2 + m.k2 * r2 * r2) - target;
    const double slope = 1.0 + 3.0 * m.k1 * r2 + 5.0 * m.k2 * r2 * r2;
    if (!(slope > 1e-6)) return false;
    rho -= f / slope;
  }
  p = middleOf(m) + (target > 0.0 ? ideal * (rho / target) : ideal);
  return std::isfinite(p.x) && std::isfinite(p.y);
}

cv::Point2d SphereRig::worldPixel(const cv::Vec3d& r) const {
  const double longitude = std::atan2(r[0], r[2]);
  const double latitude = std::asin(std::max(-1.0, std::min(1.0, -r[1] / cv::norm(r))));
  return cv::Point2d((longitude + kPi) / (2.0 * kPi) * world.cols - 0.5, (0.5 * kPi - latitude) / kPi * world.rows - 0.5);
}

TruthSeams truthSeams(const SphereRig& rig, const CameraDescription::Orbivane& camera, int step) {
  TruthSeams out;
  const cv::Size panorama(camera.panoramaSize().width, camera.panoramaSize().height);
  std::vector<OrbivaneRendering::ModuleDrawing> drawn(rig.modules.size());
  std::vector<bool> ok(rig.modules.size(), false);
  for (std::size_t i = 0; i < rig.modules.size(); ++i) {
    const auto module = camera.findModule(Utils::fromUtf8(rig.modules[i].name));
    if (!module) continue;
    auto d = OrbivaneRendering::drawModule(*module, panorama);
    if (!d) continue;
    drawn[i] = d.value();
    ok[i] = true;
  }
  std::vector<double> all;
  for (std::size_t a = 0; a < drawn.size(); ++a)
    for (std::size_t b = a + 1; b < drawn.size(); ++b) {
      if (!ok[a] || !ok[b]) continue;
      const cv::Rect shared = drawn[a].box & drawn[b].box;
      if (shared.empty()) continue;
      int samples = 0;
      for (int y = shared.y; y < shared.y + shared.height; y += step)
        for (int x = shared.x; x < shared.x + shared.width; x += step) {
          const cv::Point pa(x - drawn[a].box.x, y - drawn[a].box.y), pb(x - drawn[b].box.x, y - drawn[b].box.y);
          if (!drawn[a].inside.at<uchar>(pa) || !drawn[b].inside.at<uchar>(pb)) continue;
          const cv::Vec3d ra = rig.ray(a, cv::Point2d(drawn[a].mapX.at<float>(pa), drawn[a].mapY.at<float>(pa)));
          const cv::Vec3d rb = rig.ray(b, cv::Point2d(drawn[b].mapX.at<float>(pb), drawn[b].mapY.at<float>(pb)));
          const double angle = std::acos(std::min(1.0, ra.dot(rb)));
          all.push_back(angle * rig.modules[a].focal);
          out.worstPx = std::max(out.worstPx, all.back());
          ++samples;
        }
      if (samples > 0) ++out.pairs;
    }
  out.samples = int(all.size());
  if (!all.empty()) {
    std::sort(all.begin(), all.end());
    out.medianPx = all[all.size() / 2];
    out.p90Px = all[std::min(all.size() - 1, std::size_t(0.9 * all.size()))];
  }
  return out;
}

namespace {

// The panorama point (pixels) where a drawing shows picture point `x`:
// the nearest sample of its maps, then Newton steps on the maps' bilinear
// interpolation. False when no pixel of the drawing shows it.
bool drawnAt(const OrbivaneRendering::ModuleDrawing& d, cv::Point2d x, cv::Point2d& at) {
  double best = 1e18;
  cv::Point p(-1, -1);
  for (int y = 0; y < d.box.height; y += 2)
    for (int c = 0; c < d.box.width; c += 2) {
      if (!d.inside.at<uchar>(y, c)) continue;
      const double e = std::hypot(d.mapX.at<float>(y, c) - x.x, d.mapY.at<float>(y, c) - x.y);
      if (e < best) {
        best = e;
        p = cv::Point(c, y);
      }
    }
  if (p.x < 0 || best > 5.0) return false;
  const auto sample = [&](const cv::Mat& m, cv::Point2d q) {
    cv::Mat out;
    cv::getRectSubPix(m, cv::Size(1, 1), cv::Point2f(float(q.x), float(q.y)), out, CV_32F);
    return double(out.at<float>(0));
  };
  cv::Point2d q(p);
  for (int i = 0; i < 20; ++i) {
    const cv::Point2d v(sample(d.mapX, q), sample(d.mapY, q));
    const double jxx = sample(d.mapX, q + cv::Point2d(0.5, 0)) - sample(d.mapX, q - cv::Point2d(0.5, 0));
    const double jxy = sample(d.mapX, q + cv::Point2d(0, 0.5)) - sample(d.mapX, q - cv::Point2d(0, 0.5));
    const double jyx = sample(d.mapY, q + cv::Point2d(0.5, 0)) - sample(d.mapY, q - cv::Point2d(0.5, 0));
    const double jyy = sample(d.mapY, q + cv::Point2d(0, 0.5)) - sample(d.mapY, q - cv::Point2d(0, 0.5));
    const double det = jxx * jyy - jxy * jyx;
    if (std::fabs(det) < 1e-12) return false;
    const cv::Point2d e = x - v;
    q += cv::Point2d((jyy * e.x - jxy * e.y) / det, (-jyx * e.x + jxx * e.y) / det);
  }
  at = q + cv::Point2d(d.box.tl());
  return true;
}

}  // namespace

std::vector<double> cornerErrorsOnWorld(const SphereRig& rig, const CameraDescription::Orbivane& camera) {
  const cv::Size panorama(camera.panoramaSize().width, camera.panoramaSize().height);
  std::vector<double> errors;
  for (std::size_t i = 0; i < rig.modules.size(); ++i) {
    double worst = 0.0;
    const auto module = camera.findModule(Utils::fromUtf8(rig.modules[i].name));
    auto d = module ? OrbivaneRendering::drawModule(*module, panorama)
                    : Utils::ReturnState<OrbivaneRendering::ModuleDrawing, std::string>(Utils::failure(std::string("none")));
    const cv::Size picture = rig.modules[i].picture;
    for (const cv::Point2d share : {cv::Point2d(0.02, 0.02), cv::Point2d(0.98, 0.02), cv::Point2d(0.98, 0.98),
                                    cv::Point2d(0.02, 0.98), cv::Point2d(0.5, 0.5)}) {
      const cv::Point2d x(share.x * picture.width, share.y * picture.height);
      cv::Point2d at;
      if (!d || !drawnAt(d.value(), x, at)) {
        worst = 1e9;
        break;
      }
      // Panorama pixel -> unit -> world pixel (the world spans the unit square).
      const cv::Point2d onWorld(at.x / panorama.width * rig.world.cols, at.y / panorama.height * rig.world.rows);
      worst = std::max(worst, cv::norm(onWorld - rig.worldPixel(rig.ray(i, x))));
    }
    errors.push_back(worst);
  }
  return errors;
}

namespace {

// Turns module `m` with its whole ring about the world's forward axis, so
// that the axis the ring turns about leans `degrees` to the right.
void leanBy(double degrees, SphereModule& m) {
  const double a = radians(degrees);
  const cv::Matx33d lean(std::cos(a), -std::sin(a), 0, std::sin(a), std::cos(a), 0, 0, 0, 1);
  const cv::Matx33d r = lean * rotationOf(m);
  m.yaw = std::atan2(r(0, 2), r(2, 2)) * 180.0 / kPi;
  m.pitch = std::asin(std::clamp(-r(1, 2), -1.0, 1.0)) * 180.0 / kPi;
  SphereModule level = m;
  level.roll = 0.0;
  const cv::Matx33d roll = rotationOf(level).t() * r;  // what is left is the roll about the view
  m.roll = std::atan2(roll(1, 0), roll(0, 0)) * 180.0 / kPi;
}

}  // namespace

SphereRig makeSphereRig(const cv::Mat& world, const SphereRigOptions& o) {
  SphereRig rig;
  rig.world = world;
  cv::RNG rng(o.seed);
  for (int i = 0; i < o.modules; ++i) {
    SphereModule m;
    m.name = "S" + std::to_string(i);
    m.yaw = (i - 0.5 * (o.modules - 1)) * o.step + rng.uniform(-o.jitter, o.jitter);
    m.pitch = o.pitch + rng.uniform(-o.jitter, o.jitter);
    m.roll = rng.uniform(-o.rollJitter, o.rollJitter);
    if (o.lean != 0.0) leanBy(o.lean, m);
    m.focal = o.focal * (1.0 + rng.uniform(-0.02, 0.02));
    m.k1 = o.k1 + rng.uniform(-0.01, 0.01);
    m.gain = rng.uniform(0.85, 1.15);
    m.vignetting = rng.uniform(0.0, 0.15);
    if (o.vignetting >= 0.0) m.vignetting = std::min(o.vignetting, 0.9);
    m.picture = o.picture;
    m.lens = o.nodalOffset * (rotationOf(m) * cv::Vec3d(0.0, 0.0, 1.0));
    rig.modules.push_back(m);
  }
  rig.groundBelow = o.groundBelow;
  cv::Mat padded;
  cv::copyMakeBorder(world, padded, 0, 0, kWrap, kWrap, cv::BORDER_WRAP);
  cv::copyMakeBorder(padded, padded, kWrap, kWrap, 0, 0, cv::BORDER_REFLECT101);
  for (std::size_t k = 0; k < rig.modules.size(); ++k) {
    const SphereModule& m = rig.modules[k];
    cv::Mat mapX(m.picture, CV_32F), mapY(m.picture, CV_32F), light(m.picture, CV_32F);
    const double halfDiagonal = 0.5 * std::hypot(m.picture.width, m.picture.height);
    for (int y = 0; y < m.picture.height; ++y)
      for (int x = 0; x < m.picture.width; ++x) {
        const cv::Point2d w = rig.worldPixel(seenDirection(rig, m, rig.ray(k, cv::Point2d(x, y))));
        mapX.at<float>(y, x) = float(w.x + kWrap);
        mapY.at<float>(y, x) = float(w.y + kWrap);
        const double r = std::hypot(x - 0.5 * m.picture.width, y - 0.5 * m.picture.height) / halfDiagonal;
        light.at<float>(y, x) = float(m.gain * (1.0 - m.vignetting * r * r));
      }
    cv::Mat seen;
    cv::remap(padded, seen, mapX, mapY, cv::INTER_CUBIC, cv::BORDER_REFLECT101);
    cv::Mat f;
    seen.convertTo(f, CV_32FC3);
    std::vector<cv::Mat> channels;
    cv::split(f, channels);
    for (auto& c : channels) c = c.mul(light);
    cv::merge(channels, f);
    cv::Mat noise(f.size(), f.type());
    rng.fill(noise, cv::RNG::NORMAL, 0.0, o.noise);
    f += noise;
    cv::Mat picture;
    f.convertTo(picture, CV_8UC3);
    rig.pictures.push_back(picture);
  }
  return rig;
}

}  // namespace Synthetic
