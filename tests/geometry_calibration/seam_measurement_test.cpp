// The seam meter on a rig with known truth: modules at their true places
// measure seams of a fraction of a pixel; a module moved by a known
// translation on the panorama measures that move (in its neighbour's picture
// pixels), without being drawn again; a move further than the meter counts
// leaves the pair unmeasured rather than measured wrong; a seam that opens
// across the overlap is counted to its widest part.
#include "geometry_calibration/seam_measurement.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include <opencv2/core.hpp>

#include "synthetic/rig.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/surface_projection.h"

namespace {

using GeometryCalibration::SeamMeasure;
using GeometryCalibration::SeamMeter;

struct TrueRig {
  Synthetic::Rig scene;
  CameraDescription::Orbivane camera;  // modules at their true places
};

const TrueRig& trueRig() {
  static const TrueRig rig = [] {
    Synthetic::RigOptions options;
    options.modules = 3;
    options.seed = 7;
    TrueRig r{Synthetic::makeRig(std::string(ORBIVANE_SAMPLE_DATA_DIR), options), {}};
    r.camera = Synthetic::withMatrices(r.scene.camera, r.scene.truth);
    return r;
  }();
  return rig;
}

// The camera with module `name` moved by `px` panorama pixels.
CameraDescription::Orbivane moved(const CameraDescription::Orbivane& camera, const std::wstring& name,
                                  cv::Point2d px, cv::Size panorama) {
  CameraDescription::Orbivane out = camera;
  auto* geometry = out.findModule(name)->matrixGeometry();
  geometry->setMatrix(Utils::Matrix4x4::translation(float(px.x / panorama.width), float(px.y / panorama.height)) *
                      geometry->matrix());
  return out;
}

TEST(SeamMeter, ModulesAtTheirTruePlacesMeasureSeamsOfAFractionOfAPixel) {
  const TrueRig& rig = trueRig();
  SeamMeter meter(GeometryCalibration::seamDrawingSize(rig.camera));
  const auto& names = rig.scene.names;
  for (std::size_t k = 0; k + 1 < names.size(); ++k) {
    const SeamMeasure s = meter.measure(*rig.camera.findModule(names[k]), *rig.camera.findModule(names[k + 1]));
    ASSERT_TRUE(s.measured) << s.reason;
    EXPECT_GE(s.matches, 50);
    EXPECT_LT(s.medianPx, 0.35);
    EXPECT_LT(std::hypot(s.shift.x, s.shift.y), 0.15);
    EXPECT_EQ(int(s.distances.size()), s.matches);
  }
  // The first and the last module do not overlap.
  const SeamMeasure apart = meter.measure(*rig.camera.findModule(names.front()), *rig.camera.findModule(names.back()));
  EXPECT_FALSE(apart.measured);
  EXPECT_EQ(apart.reason, "no overlap");
}

// The camera with module `name` turned by `degrees` about the panorama's
// origin (drawn again, not moved).
CameraDescription::Orbivane turned(const CameraDescription::Orbivane& camera, const std::wstring& name,
                                   double degrees) {
  CameraDescription::Orbivane out = camera;
  auto* geometry = out.findModule(name)->matrixGeometry();
  const float c = float(std::cos(degrees * CV_PI / 180.0)), s = float(std::sin(degrees * CV_PI / 180.0));
  Utils::Matrix4x4 turn = Utils::Matrix4x4::identity();
  turn.set(0, 0, c);
  turn.set(0, 1, -s);
  turn.set(1, 0, s);
  turn.set(1, 1, c);
  geometry->setMatrix(turn * geometry->matrix());
  return out;
}

TEST(SeamMeter, AModuleDrawnAgainAndAgainIsMeasuredAsItIsNow) {
  // One meter while a module takes three placements in turn, each drawn
  // anew: every measurement is that of the placement it is given, as a
  // fresh meter measures it (a drawing freed and another made in its place
  // must not be taken for it).
  const TrueRig& rig = trueRig();
  const cv::Size panorama = GeometryCalibration::seamDrawingSize(rig.camera);
  const std::wstring& first = rig.scene.names[0];
  const std::wstring& second = rig.scene.names[1];
  const double turns[] = {0.0, 0.15, -0.1};
  std::vector<SeamMeasure> fresh;
  for (const double degrees : turns) {
    const CameraDescription::Orbivane camera = turned(rig.camera, second, degrees);
    fresh.push_back(SeamMeter(panorama).measure(*camera.findModule(first), *camera.findModule(second)));
    ASSERT_TRUE(fresh.back().measured) << fresh.back().reason;
  }
  // The placements' seams lie apart by far more than a measurement scatters.
  for (std::size_t k = 0; k < 3; ++k) {
    const SeamMeasure& other = fresh[(k + 1) % 3];
    ASSERT_GT(std::hypot(fresh[k].shift.x - other.shift.x, fresh[k].shift.y - other.shift.y), 1.0);
  }
  // A meter that has drawn the module before carries its features over to
  // the new placement (or draws it over what it drew then too), so they
  // differ a little from a fresh meter's: a fresh meter's shift alone moves
  // by up to 0.17 px when the panorama is a few pixels larger (measured on
  // this rig), so 0.2 px is the same measurement, and the placements' shifts
  // lie several pixels apart.
  SeamMeter meter(panorama);
  std::vector<SeamMeasure> settled(3);
  for (int round = 0; round < 4; ++round) {
    for (std::size_t k = 0; k < 3; ++k) {
      const CameraDescription::Orbivane camera = turned(rig.camera, second, turns[k]);
      const SeamMeasure s = meter.measure(*camera.findModule(first), *camera.findModule(second));
      ASSERT_TRUE(s.measured) << s.reason;
      EXPECT_LT(std::hypot(s.shift.x - fresh[k].shift.x, s.shift.y - fresh[k].shift.y), 0.2)
          << "round " << round << ", placement " << k;
      if (round == 1) settled[k] = s;
      if (round > 1) {
        // Settled: the same matches, at the same shift to a ten-thousandth
        // of a pixel (the features carried to the same placement again land
        // within a millionth of a pixel of where they landed before).
        EXPECT_EQ(s.matches, settled[k].matches) << "round " << round << ", placement " << k;
        EXPECT_NEAR(s.shift.x, settled[k].shift.x, 1e-4) << "round " << round << ", placement " << k;
        EXPECT_NEAR(s.shift.y, settled[k].shift.y, 1e-4) << "round " << round << ", placement " << k;
      }
    }
  }
}

TEST(SeamMeter, AMovedModuleMeasuresItsMoveUpToTheLargestSeamCounted) {
  const TrueRig& rig = trueRig();
  const cv::Size panorama = GeometryCalibration::seamDrawingSize(rig.camera);
  SeamMeter meter(panorama);
  const std::wstring& first = rig.scene.names[0];
  const std::wstring& second = rig.scene.names[1];
  const SeamMeter::Overlap overlap = meter.overlap(*rig.camera.findModule(first), *rig.camera.findModule(second));
  ASSERT_TRUE(overlap.ok) << overlap.reason;
  for (const cv::Point2d move : {cv::Point2d(3.25, -1.5), cv::Point2d(-17.0, 6.5), cv::Point2d(0.0, 38.0)}) {
    const CameraDescription::Orbivane camera = moved(rig.camera, second, move, panorama);
    const SeamMeasure s = meter.measure(*camera.findModule(first), *camera.findModule(second));
    ASSERT_TRUE(s.measured) << s.reason;
    // In the first module's picture pixels: the move over its scale there.
    const cv::Point2d expected = move * (1.0 / overlap.pictureScale);
    EXPECT_NEAR(s.shift.x, expected.x, 0.1 + 0.02 * std::fabs(expected.x)) << move;
    EXPECT_NEAR(s.shift.y, expected.y, 0.1 + 0.02 * std::fabs(expected.y)) << move;
    EXPECT_NEAR(s.medianPx, std::hypot(expected.x, expected.y), 0.3 + 0.03 * std::hypot(expected.x, expected.y))
        << move;
  }
  // Moved further than a seam is counted: not measured, never a small seam.
  const CameraDescription::Orbivane far = moved(rig.camera, second, cv::Point2d(120.0, 0.0), panorama);
  const SeamMeasure s = meter.measure(*far.findModule(first), *far.findModule(second));
  EXPECT_FALSE(s.measured && s.medianPx < 10.0) << s.medianPx;
}

// The camera with module `name` stretched across by `share` (0.02: 2 %) on
// the panorama, about the panorama column `x` (pixels): drawn `share` x
// (column - x) pixels further right, a seam that opens steadily from
// nothing at that column.
CameraDescription::Orbivane stretched(const CameraDescription::Orbivane& camera, const std::wstring& name, double x,
                                      double share, cv::Size panorama) {
  CameraDescription::Orbivane out = camera;
  auto* geometry = out.findModule(name)->matrixGeometry();
  Utils::Matrix4x4 stretch = Utils::Matrix4x4::identity();
  stretch(0, 0) = float(1.0 + share);
  const float about = float(x / panorama.width);
  geometry->setMatrix(Utils::Matrix4x4::translation(about, 0.0f) * stretch *
                      Utils::Matrix4x4::translation(-about, 0.0f) * geometry->matrix());
  return out;
}

TEST(SeamMeter, ASeamThatOpensAcrossTheOverlapIsCountedToItsWidestPart) {
  // Matches that disagree with their neighbours are not counted (look-alike
  // features); a real seam that changes over the overlap must still count
  // everywhere: its widest part is its largest distances.
  const TrueRig& rig = trueRig();
  const cv::Size panorama = GeometryCalibration::seamDrawingSize(rig.camera);
  SeamMeter meter(panorama);
  const std::wstring& first = rig.scene.names[0];
  const std::wstring& second = rig.scene.names[1];
  const SeamMeter::Overlap overlap = meter.overlap(*rig.camera.findModule(first), *rig.camera.findModule(second));
  ASSERT_TRUE(overlap.ok) << overlap.reason;
  const SeamMeasure still = meter.measure(*rig.camera.findModule(first), *rig.camera.findModule(second));
  ASSERT_TRUE(still.measured) << still.reason;
  // From nothing at the overlap's left edge to 8 picture pixels at its right.
  const double widest = 8.0 * overlap.pictureScale;
  const double share = widest / overlap.region.width;
  const CameraDescription::Orbivane camera = stretched(rig.camera, second, overlap.region.x, share, panorama);
  const SeamMeasure s = meter.measure(*camera.findModule(first), *camera.findModule(second));
  ASSERT_TRUE(s.measured) << s.reason;
  // Nearly every match counts (393 of 399 here), spread from nothing to the
  // seam's widest part: the median near its middle, the 90th percentile
  // near its far end, and hardly a match beyond it (one feature's scatter).
  EXPECT_GE(s.matches, 0.9 * still.matches);
  EXPECT_NEAR(s.medianPx, 4.5, 1.5);
  EXPECT_GT(s.p90Px, 6.0);
  EXPECT_LT(s.p90Px, 8.5);
  const auto beyond = std::count_if(s.distances.begin(), s.distances.end(), [](float d) { return d > 8.5f; });
  EXPECT_LE(beyond, s.matches / 100);
}

TEST(SeamMeter, ExposureDifferenceFollowsTheGainOfAModule) {
  // The rig's modules differ by under 0.3 EV as mounted; darkened by a half
  // and by 0.6 (nothing saturates), the second module differs from the first
  // by 1 EV and 0.737 EV more than that: the two differ by log2(0.6 / 0.5).
  const TrueRig& rig = trueRig();
  const std::wstring& first = rig.scene.names[1];
  const std::wstring& second = rig.scene.names[2];
  SeamMeter meter(GeometryCalibration::seamDrawingSize(rig.camera));
  double ev[2] = {0, 0};
  const double gains[2] = {0.5, 0.6};
  for (int k = 0; k < 2; ++k) {
    CameraDescription::Orbivane camera = rig.camera;
    camera.findModule(second)->setExposureGain(camera.findModule(second)->exposureGain() * gains[k]);
    const SeamMeasure s = meter.measure(*camera.findModule(first), *camera.findModule(second));
    ASSERT_TRUE(s.overlapPixels > 0) << s.reason;
    ev[k] = s.exposureEv;
  }
  EXPECT_GT(ev[1], 0.4);
  EXPECT_NEAR(ev[0] - ev[1], std::log2(0.6 / 0.5), 0.02);
}

}  // namespace

// The camera with module `name`'s matrix followed by `h`, a homography of
// the pixels of a panorama of `size`.
CameraDescription::Orbivane reshaped(const CameraDescription::Orbivane& camera, const std::wstring& name,
                                     const cv::Matx33d& h, cv::Size size) {
  CameraDescription::Orbivane out = camera;
  auto* geometry = out.findModule(name)->matrixGeometry();
  const cv::Matx33d pixels(size.width, 0, 0, 0, size.height, 0, 0, 0, 1);
  const cv::Matx33d now = OrbivaneGeometry::planarHomography(geometry->matrix());
  geometry->setMatrix(OrbivaneGeometry::matrixFromPlanarHomography(pixels.inv() * h * pixels * now));
  return out;
}

TEST(SeamMeter, AModuleRefinedInPlaceKeepsItsFeaturesAndMeasuresAsAFreshMeter) {
  // Target matching moves a well-placed module by a small homography: turned
  // a degree, scaled 1 %, shifted 20 pixels. Its drawing hardly changes
  // shape, so the meter carries its features over (and searches only what
  // the move uncovered), also onto a panorama of another size, where the
  // module that stayed is carried over too; a stretch of 6 % one way changes
  // the shape, and its features are searched afresh. Either way
  // the seam is what a fresh meter measures, within its own scatter.
  const TrueRig& rig = trueRig();
  const cv::Size panorama = GeometryCalibration::seamDrawingSize(rig.camera);
  const std::wstring& first = rig.scene.names[0];
  const std::wstring& second = rig.scene.names[1];
  const double a = 1.0 * CV_PI / 180.0, k = 1.01;
  const cv::Matx33d refine(k * std::cos(a), -k * std::sin(a), 20.0, k * std::sin(a), k * std::cos(a), -6.0, 0, 0, 1);
  // Stretched 6 % across about the module's middle.
  const auto quad = OrbivaneGeometry::moduleSurfaceQuad(rig.camera.findModule(second)->matrixGeometry()->matrix());
  ASSERT_TRUE(quad);
  const double middle = 0.5 * (quad->left() + quad->right()) * panorama.width;
  const cv::Matx33d stretch(1.06, 0, -0.06 * middle, 0, 1, 0, 0, 0, 1);
  struct Case {
    const char* what;
    cv::Matx33d move;
    cv::Size size;
    bool carried;
  };
  const Case cases[] = {{"refined", refine, panorama, true},
                        {"refined, on a larger panorama", refine, cv::Size(panorama.width + 40, panorama.height + 8), true},
                        {"stretched", stretch, panorama, false}};
  for (const Case& c : cases) {
    SeamMeter earlier(panorama);
    ASSERT_TRUE(earlier.measure(*rig.camera.findModule(first), *rig.camera.findModule(second)).measured);
    SeamMeter meter(c.size, earlier);
    const CameraDescription::Orbivane camera = reshaped(rig.camera, second, c.move, panorama);
    const SeamMeasure s = meter.measure(*camera.findModule(first), *camera.findModule(second));
    const SeamMeasure fresh = SeamMeter(c.size).measure(*camera.findModule(first), *camera.findModule(second));
    ASSERT_TRUE(s.measured && fresh.measured) << c.what << ": " << s.reason << fresh.reason;
    EXPECT_EQ(meter.keptFeatures(second), c.carried) << c.what;
    EXPECT_FALSE(SeamMeter(c.size).keptFeatures(second));
    EXPECT_GT(std::hypot(fresh.shift.x, fresh.shift.y), 5.0) << c.what;  // a move the seam shows
    EXPECT_LT(std::hypot(s.shift.x - fresh.shift.x, s.shift.y - fresh.shift.y), 0.2) << c.what;
    EXPECT_NEAR(s.medianPx, fresh.medianPx, std::max(0.2, 0.02 * fresh.medianPx)) << c.what;
    EXPECT_GT(s.matches, fresh.matches * 8 / 10) << c.what;
  }
}
