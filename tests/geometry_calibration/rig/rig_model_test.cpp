// The rig's camera model and how a module is written for the viewer: the
// lens model's two directions, the surface's round trip, and that the
// matrix, UV grid and lens shader placeModule writes draw every picture
// point where the model puts it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include <opencv2/core/utility.hpp>
#include <opencv2/stitching/detail/warpers.hpp>

#include "geometry_calibration/rig/rig_geometry.h"
#include "geometry_calibration/rig/rig_model.h"
#include "geometry_calibration/rig/rig_surface.h"
#include "orbivane/geometry/surface_projection.h"
#include "shading/distortion_model.h"

namespace {

using GeometryCalibration::Rig::ModuleModel;
using GeometryCalibration::Rig::Surface;

constexpr double kPi = 3.14159265358979323846;

cv::Matx33d turn(double yawDeg, double pitchDeg, double rollDeg) {
  const double y = yawDeg * kPi / 180, p = pitchDeg * kPi / 180, r = rollDeg * kPi / 180;
  const cv::Matx33d yaw(std::cos(y), 0, std::sin(y), 0, 1, 0, -std::sin(y), 0, std::cos(y));
  const cv::Matx33d pitch(1, 0, 0, 0, std::cos(p), std::sin(p), 0, -std::sin(p), std::cos(p));
  const cv::Matx33d roll(std::cos(r), -std::sin(r), 0, std::sin(r), std::cos(r), 0, 0, 0, 1);
  return yaw * pitch * roll;
}

ModuleModel module(double yaw, double pitch, double roll, double focal, double k1, double k2) {
  ModuleModel m;
  m.picture = cv::Size(1280, 960);
  m.rotation = turn(yaw, pitch, roll);
  m.focal = focal;
  m.k1 = k1;
  m.k2 = k2;
  return m;
}

TEST(RigModel, DistortionUndoesUndistortion) {
  const ModuleModel m = module(0, 0, 0, 900, 0.06, -0.01);
  for (double x = -0.5; x <= 1280; x += 97.3)
    for (double y = -0.5; y <= 960; y += 71.9) {
      const cv::Point2d back = m.distort(m.undistort({x, y}));
      EXPECT_NEAR(back.x, x, 1e-6);
      EXPECT_NEAR(back.y, y, 1e-6);
    }
  // Barrel: an observed corner lies further out once undistorted.
  EXPECT_GT(cv::norm(m.undistort({0, 0}) - m.centre()), cv::norm(cv::Point2d(0, 0) - m.centre()));
}

TEST(RigModel, RayAndProjectionAreInverse) {
  const ModuleModel m = module(30, -10, 3, 850, 0.05, 0.0);
  const cv::Point2d p(100.25, 800.75);
  cv::Point2d back;
  ASSERT_TRUE(m.project(m.ray(p), back));
  EXPECT_NEAR(cv::norm(back - p), 0.0, 1e-6);
  EXPECT_FALSE(m.project(-m.ray(p), back));  // behind the camera
}

// What OpenCV's own warper makes of an observed pixel, in the surface's unit
// square (as Surface::toUnit documents it: unwrapped to the module's side).
cv::Point2d unitByWarper(const Surface& surface, const ModuleModel& m, cv::Point2d observed) {
  cv::Ptr<cv::detail::RotationWarper> warper;
  switch (surface.projection()) {
    case GeometryCalibration::Rig::Projection::plane:
      warper = cv::makePtr<cv::detail::PlaneWarper>(float(surface.scale()));
      break;
    case GeometryCalibration::Rig::Projection::cylindrical:
      warper = cv::makePtr<cv::detail::CylindricalWarper>(float(surface.scale()));
      break;
    default:
      warper = cv::makePtr<cv::detail::SphericalWarper>(float(surface.scale()));
  }
  const auto at = [&](cv::Point2d p) {
    const cv::Point2d ideal = m.undistort(p);
    const cv::Point2f uv = warper->warpPoint(cv::Point2f(float(ideal.x), float(ideal.y)),
                                             cv::Mat(cv::Matx33f(m.intrinsics())), cv::Mat(cv::Matx33f(m.rotation)));
    return cv::Point2d(uv.x, uv.y);
  };
  cv::Point2d uv = at(observed);
  if (surface.projection() != GeometryCalibration::Rig::Projection::plane) {
    const double middle = at(m.centre()).x;
    uv.x = middle + std::remainder(uv.x - middle, 2.0 * kPi * surface.scale());
  }
  const cv::Rect2d& box = surface.box();
  return cv::Point2d((uv.x - box.x) / box.width, (uv.y - box.y) / box.height);
}

// The surface maps each module's points as OpenCV's warper does, to the
// last bit, and back again, whichever module came before on the thread and
// however the points of several modules are interleaved across threads.
TEST(RigModel, SurfaceMapsModulesTakenInTurnAsTheWarperDoes) {
  std::vector<ModuleModel> ring;
  // Modules of one lens (the same intrinsics) but for the turn, and of others.
  for (int k = 0; k < 6; ++k) ring.push_back(module(k * 60.0, 30 + 3 * k, k - 2.0, k < 4 ? 900 : 880, 0.03, 0.004 * k));
  std::vector<ModuleModel> narrow = {module(-15, 0, 0, 1400, 0.02, 0.0), module(15, 1, 0, 1400, 0.03, 0.0)};
  std::vector<ModuleModel> row = {module(-40, 5, 1, 900, 0.04, -0.005), module(0, 3, -1, 905, 0.05, 0.0)};
  const std::vector<std::pair<std::vector<ModuleModel>*, std::string>> cases = {
      {&ring, "spherical"}, {&narrow, "plane"}, {&row, "cylindrical"}};
  for (const auto& [models, projection] : cases) {
    const Surface surface = Surface::frame(*models, projection);
    std::vector<cv::Point2d> points;
    for (double x = 0; x <= 1279; x += 97.3)
      for (double y = 0; y <= 959; y += 83.9) points.emplace_back(x, y);
    // Point k of every module in turn: the module changes at every call.
    const int count = int(points.size() * models->size());
    std::vector<double> exact(std::size_t(count), 0.0), roundTrip(std::size_t(count), 0.0);
    cv::parallel_for_(cv::Range(0, count), [&](const cv::Range& range) {
      for (int n = range.start; n < range.end; ++n) {
        const ModuleModel& m = (*models)[std::size_t(n) % models->size()];
        const cv::Point2d p = points[std::size_t(n) / models->size()];
        const cv::Point2d unit = surface.toUnit(m, p);
        exact[std::size_t(n)] = cv::norm(unit - unitByWarper(surface, m, p));
        cv::Point2d back;
        roundTrip[std::size_t(n)] = surface.toPicture(m, unit, back) ? cv::norm(back - p) : 1e9;
      }
    }, 4);
    EXPECT_EQ(*std::max_element(exact.begin(), exact.end()), 0.0) << projection;
    EXPECT_LT(*std::max_element(roundTrip.begin(), roundTrip.end()), 0.01) << projection;
  }
}

// Every picture point of every module drawn through the written matrix, grid
// and lens shader lands where the model puts it on the surface.
void expectPlacementDrawsTheModel(std::vector<ModuleModel> models, const std::string& projection) {
  const Surface surface = Surface::frame(models, projection);
  for (const auto& m : models) {
    const auto placement = GeometryCalibration::Rig::placeModule(m, surface, GeometryCalibration::Rig::Displacement(), 0.1);
    EXPECT_LE(placement.gridErrorPx, 0.1);
    const cv::Matx33d h = OrbivaneGeometry::planarHomography(placement.matrix);
    const auto lens = ImageSource::LensDistortion::fromShader(placement.lens);
    double worst = 0.0;
    for (double x = 0; x <= 1279; x += 61.1)
      for (double y = 0; y <= 959; y += 53.7) {
        cv::Point2d unit = surface.toUnit(m, {x, y});
        // On a full ring the panorama's edges meet: a point past one edge is
        // drawn at the other.
        if (surface.fullRing()) unit.x -= std::floor(unit.x);
        const cv::Vec3d q = h.inv() * cv::Vec3d(unit.x, unit.y, 1.0);
        if (q[0] / q[2] < 0 || q[0] / q[2] > 1 || q[1] / q[2] < 0 || q[1] / q[2] > 1) continue;  // past the cut
        const auto t = placement.grid.sample(float(q[0] / q[2]), float(q[1] / q[2]));
        const cv::Point2f s = lens.map(t.u, t.v);
        worst = std::max(worst, std::hypot(s.x * 1280 - x, s.y * 960 - y));
      }
    EXPECT_LT(worst, 0.15) << projection;
  }
}

TEST(RigPlacement, DrawsTheModelOnEveryProjection) {
  const std::vector<ModuleModel> row = {module(-40, 5, 1, 900, 0.04, -0.005), module(0, 3, -1, 905, 0.05, 0.0),
                                        module(41, 6, 0.5, 895, 0.03, 0.002)};
  expectPlacementDrawsTheModel(row, "cylindrical");
  expectPlacementDrawsTheModel(row, "spherical");
  const std::vector<ModuleModel> narrow = {module(-15, 0, 0, 1400, 0.02, 0.0), module(15, 1, 0, 1400, 0.02, 0.0)};
  expectPlacementDrawsTheModel(narrow, "plane");
  std::vector<ModuleModel> ring;
  for (int k = 0; k < 9; ++k) ring.push_back(module(k * 40.0, 45, 0, 900, 0.04, 0.0));
  expectPlacementDrawsTheModel(ring, "spherical");
  // A module that looks at the zenith spans every longitude.
  ring.push_back(module(10, 80, 0, 900, 0.04, 0.0));
  expectPlacementDrawsTheModel(ring, "spherical");
}

}  // namespace
