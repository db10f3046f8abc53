// Mode 0 with a UV grid on pictures with a known smooth non-rigid warp on
// top of the homography: the grid holds the warp, stays regular on a rigid
// module, fills textureless cells from their neighbours, never folds, and
// the panorama draws the module through it.
#include <cmath>
#include <optional>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/geometry_calibration/matrix_based/match_to_target.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/rendering/panorama_renderer.h"
#include "support/captured_log.h"
#include "synthetic/target_scenes.h"

namespace {

using GeometryCalibration::MatrixBased::MatchToTarget;

const cv::Size kGridSize(640, 360);

struct GridPair {
  Synthetic::Scene scene;
  Synthetic::ModuleTruth truth;
  cv::Mat module;
};

GridPair makePair(const char* photo, double amplitude, std::uint64_t seed, cv::Rect flat = cv::Rect()) {
  cv::RNG rng(seed);
  GridPair p;
  p.scene = Synthetic::makeScene(photo, kGridSize, 0.2);
  if (!flat.empty()) {
    // A textureless patch of the scene, seen by both pictures.
    p.scene.picture(flat + cv::Point(cvRound(p.scene.targetOrigin.x), cvRound(p.scene.targetOrigin.y)))
        .setTo(cv::Scalar(120, 125, 130));
    p.scene.target = p.scene.picture(cv::Rect(cv::Point(cvRound(p.scene.targetOrigin.x), cvRound(p.scene.targetOrigin.y)),
                                              kGridSize))
                         .clone();
  }
  p.truth.homography = Synthetic::realisticMisalignment(rng, kGridSize, kGridSize);
  p.truth.amplitude = amplitude;
  p.truth.period = 500.0;
  p.module = Synthetic::renderModule(p.scene, p.truth, kGridSize, 0.9, 8.0, 2.0, seed);
  return p;
}

CameraDescription::Orbivane calibrated(const GridPair& p, int columns, int rows) {
  CameraDescription::Orbivane camera;
  for (const wchar_t* name : {L"T", L"m"}) {
    CameraDescription::OrbivaneModule module(name);
    module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(Utils::Matrix4x4::identity()));
    module.setImage(Image::fromMat(std::wstring(name) == L"T" ? p.scene.target : p.module));
    camera.addModule(module);
  }
  std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images = {
      {L"T", camera.findModule(L"T")->image()}, {L"m", camera.findModule(L"m")->image()}};
  MatchToTarget calibrator(camera, images);
  if (columns > 0) {
    calibrator.setGridEnabled(true);
    calibrator.initGrid(columns, rows, L"m");
  }
  return calibrator.calibrate({L"m"}, L"T");
}

double denseError(const GridPair& p, const CameraDescription::Orbivane& camera, cv::Rect2d area = cv::Rect2d(0, 0, 1, 1)) {
  return Synthetic::denseError(p.truth, *camera.findModule(L"m")->matrixGeometry(), kGridSize, 40, area);
}

// Normalised correlation of the target and the module drawn alone on a
// panorama of the target's frame, over the pixels the module covers.
double drawnCorrelation(const GridPair& p, const CameraDescription::Orbivane& camera) {
  OrbivaneRendering::PanoramaOptions options;
  options.size = Utils::Size{kGridSize.width, kGridSize.height};
  options.feather = 0.0;
  options.modules = {L"m"};
  const auto panorama = OrbivaneRendering::renderPanorama(camera, options);
  EXPECT_TRUE(panorama.hasValue());
  if (!panorama.hasValue()) return 0.0;
  cv::Mat covered = panorama.value().coverage > 0, drawn, target;
  cv::erode(covered, covered, cv::Mat(), cv::Point(-1, -1), 4);
  cv::cvtColor(panorama.value().picture, drawn, cv::COLOR_BGR2GRAY);
  cv::cvtColor(p.scene.target, target, cv::COLOR_BGR2GRAY);
  drawn.convertTo(drawn, CV_32F);
  target.convertTo(target, CV_32F);
  cv::Scalar meanA, deviationA, meanB, deviationB;
  cv::meanStdDev(drawn, meanA, deviationA, covered);
  cv::meanStdDev(target, meanB, deviationB, covered);
  cv::Mat product;
  cv::multiply(drawn - meanA[0], target - meanB[0], product);
  return cv::mean(product, covered)[0] / (deviationA[0] * deviationB[0]);
}

TEST(GridEstimator, HoldsASmoothNonRigidWarpAndThePanoramaDrawsIt) {
  const GridPair p = makePair("home.jpg", 3.0, 41);
  const auto plain = calibrated(p, 0, 0);
  const auto gridded = calibrated(p, 16, 9);
  const auto* geometry = gridded.findModule(L"m")->matrixGeometry();
  ASSERT_TRUE(geometry->uvGrid().has_value());
  EXPECT_FALSE(geometry->uvGrid()->isRegular(1e-4f));
  EXPECT_TRUE(Synthetic::gridUnfolded(*geometry->uvGrid()));
  const double without = denseError(p, plain), with = denseError(p, gridded);
  EXPECT_GT(without, 1.5);
  EXPECT_LT(with, 0.3);
  // Through the grid the drawn module lies on the target visibly better.
  const double correlationWithout = drawnCorrelation(p, plain), correlationWith = drawnCorrelation(p, gridded);
  EXPECT_GT(correlationWith, correlationWithout + 0.02);
  EXPECT_GT(correlationWith, 0.95);
}

TEST(GridEstimator, GridsUpToFineSizesStayUnfoldedAndAccurate) {
  const GridPair p = makePair("baboon.jpg", 3.0, 42);
  for (const auto& size : {std::make_pair(16, 9), std::make_pair(32, 18), std::make_pair(48, 27)}) {
    const auto camera = calibrated(p, size.first, size.second);
    const auto& grid = camera.findModule(L"m")->matrixGeometry()->uvGrid();
    ASSERT_TRUE(grid.has_value());
    EXPECT_EQ(grid->columns(), size.first);
    EXPECT_TRUE(Synthetic::gridUnfolded(*grid)) << size.first << "x" << size.second;
    EXPECT_LT(denseError(p, camera), size.first >= 32 ? 0.2 : 0.3) << size.first << "x" << size.second;
  }
}

TEST(GridEstimator, RigidModuleKeepsItsRegularGrid) {
  const GridPair p = makePair("building.jpg", 0.0, 43);
  const auto plain = calibrated(p, 0, 0);
  const auto gridded = calibrated(p, 32, 18);
  const auto& grid = gridded.findModule(L"m")->matrixGeometry()->uvGrid();
  ASSERT_TRUE(grid.has_value());
  EXPECT_TRUE(grid->isRegular(0.0f));
  EXPECT_LT(denseError(p, gridded), 0.05);
  EXPECT_LT(std::fabs(denseError(p, gridded) - denseError(p, plain)), 0.01);
}

TEST(GridEstimator, TexturelessCellsFollowTheirNeighbours) {
  // A flat block over about three by three cells of a 16x9 grid, in the middle of the picture.
  const cv::Rect flat(240, 120, 130, 110);
  const GridPair p = makePair("graf1.png", 3.0, 44, flat);
  const auto plain = calibrated(p, 0, 0);
  const auto gridded = calibrated(p, 16, 9);
  const auto& grid = gridded.findModule(L"m")->matrixGeometry()->uvGrid();
  ASSERT_TRUE(grid.has_value());
  EXPECT_TRUE(Synthetic::gridUnfolded(*grid));
  // Inside the block (in module positions, where the target shows it) the
  // grid has nothing to measure: its points there continue the field around.
  const cv::Rect2d area(double(flat.x + 20) / kGridSize.width, double(flat.y + 20) / kGridSize.height,
                        double(flat.width - 40) / kGridSize.width, double(flat.height - 40) / kGridSize.height);
  const double without = denseError(p, plain, area), with = denseError(p, gridded, area);
  EXPECT_GT(without, 1.0);
  EXPECT_LT(with, 0.5);
  EXPECT_LT(denseError(p, gridded), 0.4);
}

}  // namespace

namespace {

// Something turned between the two pictures: a square of the module shows
// its scene turned by 15 degrees about the square's middle. The lattice
// points over it turn against their neighbours and are left out ("Skip for
// rot: "), where an undisturbed module of the same lens leaves none out, and
// the grid stays as close to the truth as on the undisturbed module.
TEST(GridEstimator, APatchThatTurnedIsLeftOutForItsTurn) {
  const GridPair undisturbed = makePair("home.jpg", 3.0, 45);
  std::optional<CameraDescription::Orbivane> reference;
  {
    const Testing::CapturedLog log("MatrixBasedMatchToBackground");
    reference = calibrated(undisturbed, 16, 9);
    EXPECT_EQ(log.text().find("Skip for rot: \t"), std::string::npos) << "a lens field turns by hundredths only";
  }
  GridPair p = makePair("home.jpg", 3.0, 45);
  const cv::Rect square(300, 150, 64, 64), around = square + cv::Point(-20, -20) + cv::Size(40, 40);
  const cv::Mat turn = cv::getRotationMatrix2D(cv::Point2f(around.width / 2.0f, around.height / 2.0f), 15.0, 1.0);
  cv::Mat turned;
  cv::warpAffine(p.module(around), turned, turn, around.size(), cv::INTER_LINEAR);
  turned(cv::Rect(20, 20, square.width, square.height)).copyTo(p.module(square));
  const Testing::CapturedLog log("MatrixBasedMatchToBackground");
  const auto gridded = calibrated(p, 16, 9);
  EXPECT_NE(log.text().find("Skip for rot: \t"), std::string::npos);
  const auto& grid = gridded.findModule(L"m")->matrixGeometry()->uvGrid();
  ASSERT_TRUE(grid.has_value());
  EXPECT_TRUE(Synthetic::gridUnfolded(*grid));
  EXPECT_LT(denseError(p, gridded), denseError(undisturbed, *reference) + 0.05);
}

}  // namespace
