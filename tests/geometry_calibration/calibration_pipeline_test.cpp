// The calibrators composed on one assembled rig: modules turned, scaled and
// keystoned, with their own exposure, vignetting and noise, seeing a scene
// made of opencv-doc photographs through known homographies.
#include "orbivane/geometry_calibration/calibration_pipeline.h"

#include <gtest/gtest.h>

#include <cstdio>

#include <opencv2/imgproc.hpp>

#include "demo_scene.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry_calibration/matrix_based/match_to_target.h"
#include "orbivane/geometry_calibration/matrix_based/neighbour_neighbour.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/utils/wide_text.h"

namespace {

using GeometryCalibration::ModuleStatus;
using Tool::Demo::cornerError;
using Tool::Demo::Scene;

struct Rig {
  Scene scene;
  CameraDescription::Orbivane camera;  // the misaligned modules and the target
  std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images;
};

Rig makeRig(bool quick) {
  Rig rig{Tool::Demo::makeScene(std::string(ORBIVANE_SAMPLE_DATA_DIR), quick), {}, {}};
  rig.camera = rig.scene.camera;
  CameraDescription::OrbivaneModule target(L"Target");
  target.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(Utils::Matrix4x4::identity()));
  const auto picture = Image::fromMat(rig.scene.picture);
  target.setImage(picture);
  rig.camera.addModule(target);
  rig.images = rig.scene.pictures;
  rig.images[L"Target"] = picture;
  return rig;
}

struct Errors {
  double mean = 0, worst = 0;
};
Errors errorsOf(const Rig& rig, const CameraDescription::Orbivane& camera) {
  Errors e;
  for (const auto& name : rig.scene.names) {
    const auto c = cornerError(camera.findModule(name)->matrixGeometry()->matrix(), rig.scene.truth.at(name),
                               rig.scene.panorama);
    e.mean += c.mean / rig.scene.names.size();
    e.worst = std::max(e.worst, c.max);
  }
  return e;
}

TEST(CalibrationComposition, MatchThenNeighbourOnATurnedRig) {
  const Rig rig = makeRig(false);
  const std::list<std::wstring> names(rig.scene.names.begin(), rig.scene.names.end());
  GeometryCalibration::MatrixBased::MatchToTarget matcher(rig.camera, rig.images);
  const auto matched = matcher.calibrate(names, L"Target");
  const Errors afterMatch = errorsOf(rig, matched);
  for (const auto& [name, report] : matcher.moduleReports()) {
    EXPECT_EQ(report.status, ModuleStatus::aligned) << Utils::toUtf8(name) << ": " << report.reason;
  }
  GeometryCalibration::MatrixBased::NeighbourNeighbour stitcher(matched, rig.images, 4, 6, 1.0f);
  const auto stitched = stitcher.calibrate(names, L"M3");
  const Errors afterNeighbour = errorsOf(rig, stitched);
  std::printf("match %.3f / %.3f px, neighbour %.3f / %.3f px\n", afterMatch.mean, afterMatch.worst,
              afterNeighbour.mean, afterNeighbour.worst);
  for (const auto& pair : stitcher.pairReports()) {
    EXPECT_TRUE(pair.measured) << pair.reason;
    std::printf("pair %s-%s shift %.3f px corr %.3f\n", Utils::toUtf8(pair.first).c_str(),
                Utils::toUtf8(pair.second).c_str(), pair.shiftPx, pair.correlation);
  }
  EXPECT_LT(afterMatch.worst, 0.3);
  EXPECT_LT(afterNeighbour.mean, afterMatch.mean + 0.02);
  EXPECT_LT(afterNeighbour.worst, 0.3);
}

}  // namespace
