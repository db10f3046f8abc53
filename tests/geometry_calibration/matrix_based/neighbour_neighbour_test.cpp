// Neighbour stitching on cameras whose module pictures are cut from one real
// photograph at known sub-pixel offsets (with noise and a brightness change
// between neighbours) and whose matrices carry a nominal, slightly wrong,
// placement.
#include "orbivane/geometry_calibration/matrix_based/neighbour_neighbour.h"

#include <cmath>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "geometry_calibration/matrix_based/neighbour_neighbour_stitcher.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/region_based_geometry.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"
#include "support/captured_log.h"
#include "support/matchers.h"
#include "synthetic/fine_scene.h"
#include "synthetic/sample_data.h"

namespace {

using GeometryCalibration::MatrixBased::NeighbourNeighbour;
using GeometryCalibration::MatrixBased::NeighbourStitcher;
using Utils::Matrix4x4;

constexpr int kFine = Synthetic::kFineScale;  // scene pixels per picture pixel
const cv::Size kPicture(240, 180);          // module pictures
constexpr double kWidth = 0.25;             // surface width of a module
constexpr double kHeight = 0.75;            // surface height of a module
constexpr double kUnitX = kWidth / 240.0;   // surface units per picture pixel
constexpr double kUnitY = kHeight / 180.0;
constexpr int kStride = 180;                // picture pixels between neighbours (a quarter overlaps)
constexpr int kChainLength = 6;

// A wide colour scene, eight times finer than the pictures, for up to six
// modules side by side.
const cv::Mat& scene() {
  static const cv::Mat s = [] {
    const cv::Mat sample = Synthetic::loadSample("building.jpg");
    const cv::Size area((kChainLength - 1) * (kStride + 5) + kPicture.width + 8, kPicture.height + 16);
    const cv::Mat band = sample(cv::Rect(0, 0, sample.cols, std::min(sample.rows, sample.cols * area.height / area.width + 1)));
    cv::Mat out;
    cv::resize(band, out, cv::Size(area.width * kFine, area.height * kFine), 0, 0, cv::INTER_CUBIC);
    return out;
  }();
  return s;
}

// The picture whose pixel (0, 0) is at scene pixel `at`: exact reduction of
// the scene block there, then gain, offset and noise.
cv::Mat cutPicture(cv::Point at, double gain, double offset, cv::RNG& rng) {
  return Synthetic::withGainAndNoise(Synthetic::cutFine(scene(), at, kPicture), gain, offset, 2.0, rng);
}

Matrix4x4 placement(double left, double top) {
  Matrix4x4 m;
  m.set(0, 0, static_cast<float>(kWidth));
  m.set(1, 1, static_cast<float>(kHeight));
  m.set(0, 3, static_cast<float>(left));
  m.set(1, 3, static_cast<float>(top));
  return m;
}

std::wstring moduleName(int i) { return std::wstring(L"M") + std::to_wstring(i); }

// A camera of `n` modules; module i's picture truly lies at `truth[i]` pixels
// (relative to module 0's picture) and its matrix places it `nominalError[i]`
// pixels off that.
struct Chain {
  CameraDescription::Orbivane camera;
  NeighbourStitcher::Images images;
  std::vector<cv::Point2d> truth;
  std::list<std::wstring> names;
};

Chain makeChain(const std::vector<cv::Point2d>& nominalError, cv::RNG& rng) {
  Chain chain;
  cv::Point at(0, 8 * kFine);
  for (std::size_t i = 0; i < nominalError.size(); ++i) {
    if (i > 0) {
      at.x += kStride * kFine + rng.uniform(-5 * kFine, 5 * kFine);
      at.y = 8 * kFine + rng.uniform(-3 * kFine, 3 * kFine);
    }
    const cv::Point2d truth((at.x) / double(kFine), (at.y - 8 * kFine) / double(kFine));
    chain.truth.push_back(truth);
    const bool odd = i % 2 == 1;
    const auto picture = Image::fromMat(cutPicture(at, odd ? 0.9 : 1.0, odd ? 10.0 : 0.0, rng));
    CameraDescription::OrbivaneModule module(moduleName(int(i)));
    const cv::Point2d nominal = truth + nominalError[i];
    module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(
        placement(0.05 + nominal.x * kUnitX, 0.1 + nominal.y * kUnitY)));
    module.setImage(picture);
    chain.camera.addModule(module);
    chain.images[moduleName(int(i))] = picture;
    chain.names.push_back(moduleName(int(i)));
  }
  return chain;
}

Matrix4x4 matrixOf(const CameraDescription::Orbivane& camera, const std::wstring& name) {
  return camera.findModule(name)->matrixGeometry()->matrix();
}

// Where module `name` puts its picture's pixel (0, 0), in picture pixels.
cv::Point2d originPixels(const CameraDescription::Orbivane& camera, const std::wstring& name) {
  const Matrix4x4 m = matrixOf(camera, name);
  return cv::Point2d((m.get(0, 3) - 0.05) / kUnitX, (m.get(1, 3) - 0.1) / kUnitY);
}

}  // namespace

TEST(NeighbourNeighbour, PairFindsTheKnownOffsetAndLaysTheOverlapOntoOneSurfacePoint) {
  cv::RNG rng(11);
  Chain chain = makeChain({{0, 0}, {2.3, -1.7}}, rng);
  const Testing::CapturedLog log("MatrixBasedNeighbourNeighbourStitch");  // taken when the stitcher is made
  NeighbourStitcher stitcher(chain.camera, chain.images, 4, 6, 1.0f);
  const Matrix4x4 firstBefore = matrixOf(stitcher.camera(), L"M0");
  const Matrix4x4 secondBefore = matrixOf(stitcher.camera(), L"M1");

  const auto measured = stitcher.calibratePair(L"M0", L"M1", false);
  EXPECT_NEAR(measured.first / kUnitX, -2.3, 0.05);
  EXPECT_NEAR(measured.second / kUnitY, 1.7, 0.05);
  EXPECT_EQ(matrixOf(stitcher.camera(), L"M0"), firstBefore);  // apply false: nothing changes
  EXPECT_EQ(matrixOf(stitcher.camera(), L"M1"), secondBefore);

  const auto applied = stitcher.calibratePair(L"M0", L"M1", true);
  EXPECT_EQ(applied, measured);
  EXPECT_NE(log.text().find("Stitching Modules: M0 M1"), std::string::npos) << log.text();
  EXPECT_EQ(matrixOf(stitcher.camera(), L"M0"), firstBefore);
  EXPECT_THAT(matrixOf(stitcher.camera(), L"M1"),
              Testing::MatrixNear(Matrix4x4::translation(applied.first, applied.second) * secondBefore, 1e-7));

  // The same scene point, seen by both pictures, lands on one surface point.
  const Matrix4x4 first = matrixOf(stitcher.camera(), L"M0");
  const Matrix4x4 second = matrixOf(stitcher.camera(), L"M1");
  const cv::Point2d offset = chain.truth[1] - chain.truth[0];
  for (const cv::Point2d q : {cv::Point2d(5, 20), cv::Point2d(40, 90), cv::Point2d(55, 170)}) {
    const cv::Point2d p = q + offset;
    const auto onFirst = OrbivaneGeometry::projectToSurface(first, float(p.x / kPicture.width), float(p.y / kPicture.height));
    const auto onSecond = OrbivaneGeometry::projectToSurface(second, float(q.x / kPicture.width), float(q.y / kPicture.height));
    ASSERT_TRUE(onFirst && onSecond);
    EXPECT_NEAR((onSecond->x - onFirst->x) / kUnitX, 0.0, 0.05);
    EXPECT_NEAR((onSecond->y - onFirst->y) / kUnitY, 0.0, 0.05);
  }
}

TEST(NeighbourNeighbour, ACorrectionMovesEveryLaterModuleAlikeAndNoEarlierOne) {
  cv::RNG rng(3);
  Chain chain = makeChain({{0, 0}, {0, 0}, {0, 0}, {0, 0}}, rng);
  NeighbourStitcher stitcher(chain.camera, chain.images, 4, 6, 1.0f);
  const std::vector<std::wstring> names(chain.names.begin(), chain.names.end());
  stitcher.shiftModules(names, 2, 0.01f, -0.02f);
  for (int i = 0; i < 4; ++i) {
    const Matrix4x4 before = matrixOf(chain.camera, moduleName(i));
    const Matrix4x4 after = matrixOf(stitcher.camera(), moduleName(i));
    if (i < 2) {
      EXPECT_EQ(after, before) << i;
    } else {
      EXPECT_THAT(after, Testing::MatrixNear(Matrix4x4::translation(0.01f, -0.02f) * before, 1e-7)) << i;
    }
  }

  // The whole walk with one seam off: 2.5 px right and 1.5 px down at M1-M2.
  Chain seam = makeChain({{0, 0}, {0, 0}, {2.5, 1.5}, {2.5, 1.5}}, rng);
  NeighbourNeighbour calibrator(seam.camera, seam.images, 4, 6, 1.0f);
  const auto result = calibrator.calibrate(seam.names, L"M0");
  EXPECT_EQ(matrixOf(result, L"M0"), matrixOf(seam.camera, L"M0"));
  for (int i = 1; i < 4; ++i) {
    const cv::Point2d moved = originPixels(result, moduleName(i)) - originPixels(seam.camera, moduleName(i));
    const cv::Point2d expected = i < 2 ? cv::Point2d(0, 0) : cv::Point2d(-2.5, -1.5);
    EXPECT_NEAR(moved.x, expected.x, 0.05) << i;
    EXPECT_NEAR(moved.y, expected.y, 0.05) << i;
  }
}

TEST(NeighbourNeighbour, SixModuleChainLandsWithinATenthOfAPixelOfTheTruth) {
  cv::RNG rng(2024);
  std::vector<cv::Point2d> errors(kChainLength);
  for (std::size_t i = 1; i < errors.size(); ++i) errors[i] = errors[i - 1] + cv::Point2d(rng.uniform(-3.0, 3.0), rng.uniform(-3.0, 3.0));
  Chain chain = makeChain(errors, rng);
  NeighbourNeighbour calibrator(chain.camera, chain.images, 4, 6, 1.0f);
  std::vector<std::string> texts;
  std::vector<int> steps, totals;
  GeometryCalibration::AdvStepInfo last;
  calibrator.registerStatusCallback([&](int step, int total, std::string text, GeometryCalibration::AdvStepInfo info) {
    steps.push_back(step);
    totals.push_back(total);
    texts.push_back(text);
    last = std::move(info);
  });

  testing::internal::CaptureStderr();
  const auto result = calibrator.calibrate(chain.names, L"M2");
  const std::string printed = testing::internal::GetCapturedStderr();

  EXPECT_EQ(matrixOf(result, L"M2"), matrixOf(chain.camera, L"M2"));  // the reference holds still
  const cv::Point2d reference = originPixels(result, L"M2");
  for (int i = 0; i < kChainLength; ++i) {
    const cv::Point2d placed = originPixels(result, moduleName(i)) - reference;
    const cv::Point2d truth = chain.truth[std::size_t(i)] - chain.truth[2];
    EXPECT_LT(cv::norm(placed - truth), 0.1) << "module " << i << " placed " << placed << " truth " << truth;
  }

  EXPECT_THAT(steps, testing::ElementsAre(1, 2, 3, 4, 5, 6));
  EXPECT_THAT(totals, testing::Each(6));
  EXPECT_EQ(texts.front(), "Stitching Modules M0 and M1");
  EXPECT_EQ(texts.back(), "Adjusting Chain");
  ASSERT_TRUE(last.camera());
  for (int i = 0; i < kChainLength; ++i) EXPECT_EQ(matrixOf(*last.camera(), moduleName(i)), matrixOf(result, moduleName(i)));
  EXPECT_EQ(calibrator.translations().size(), 5u);
  EXPECT_EQ(calibrator.translations().front().second, L"M1");
  EXPECT_THAT(printed, testing::HasSubstr("Starting t = ("));
}

TEST(NeighbourNeighbour, WithoutAReferenceTheDriftIsSpreadAroundTheMiddle) {
  EXPECT_DOUBLE_EQ(NeighbourStitcher::anchorWeight(0, 1), 1.0);
  EXPECT_DOUBLE_EQ(NeighbourStitcher::anchorWeight(0, 2), 0.001);
  EXPECT_DOUBLE_EQ(NeighbourStitcher::anchorWeight(1, 2), 0.001);
  EXPECT_NEAR(NeighbourStitcher::anchorWeight(1, 5), 0.5, 1e-12);
  EXPECT_NEAR(NeighbourStitcher::anchorWeight(2, 5), 1.0, 1e-12);

  cv::RNG rng(99);
  Chain chain = makeChain({{0, 0}, {3, 1}, {4, -2}, {6, 0}, {8, 2}}, rng);
  NeighbourStitcher stitcher(chain.camera, chain.images, 4, 6, 1.0f);
  const auto result = stitcher.calibrate(chain.names, L"");
  // Relative placement as measured, and the weighted mean correction is zero.
  cv::Point2d weighted(0, 0);
  double weights = 0;
  for (int i = 0; i < 5; ++i) {
    const cv::Point2d placed = originPixels(result, moduleName(i)) - originPixels(result, L"M0");
    EXPECT_LT(cv::norm(placed - (chain.truth[std::size_t(i)] - chain.truth[0])), 0.1) << i;
    const double a = NeighbourStitcher::anchorWeight(std::size_t(i), 5);
    weighted += a * (originPixels(result, moduleName(i)) - originPixels(chain.camera, moduleName(i)));
    weights += a;
  }
  EXPECT_LT(cv::norm(weighted * (1.0 / weights)), 1e-3);
  // The middle module moved least: the correction is shared by both ends.
  const double middle = cv::norm(originPixels(result, L"M2") - originPixels(chain.camera, L"M2"));
  EXPECT_LT(middle, cv::norm(originPixels(result, L"M0") - originPixels(chain.camera, L"M0")));
  EXPECT_LT(middle, cv::norm(originPixels(result, L"M4") - originPixels(chain.camera, L"M4")));
}

TEST(NeighbourNeighbour, OneModuleRunsNoAlignment) {
  cv::RNG rng(5);
  Chain chain = makeChain({{0, 0}, {2, 2}}, rng);
  NeighbourNeighbour calibrator(chain.camera, chain.images, 4, 6, 1.0f);
  std::vector<std::string> texts;
  calibrator.registerStatusCallback([&](int, int total, std::string text, GeometryCalibration::AdvStepInfo) {
    EXPECT_EQ(total, 1);
    texts.push_back(text);
  });
  testing::internal::CaptureStderr();
  const auto result = calibrator.calibrate({L"M1"}, L"M1");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_THAT(texts, testing::ElementsAre("Adjusting Chain"));
  EXPECT_EQ(matrixOf(result, L"M1"), matrixOf(chain.camera, L"M1"));
  EXPECT_TRUE(calibrator.translations().empty());
  EXPECT_EQ(calibrator.calibrate({}, L"").modules().size(), 2u);
}

TEST(NeighbourNeighbour, BadInputThrowsForUnknownNamesAndOtherwiseStaysPut) {
  cv::RNG rng(8);
  Chain chain = makeChain({{0, 0}, {1.25, -0.5}}, rng);
  {
    NeighbourNeighbour calibrator(chain.camera, chain.images, 4, 6, 1.0f);
    EXPECT_THROW(calibrator.calibrate({L"M0", L"nowhere"}, L""), std::out_of_range);
    auto images = chain.images;
    images.erase(L"M1");
    NeighbourNeighbour withoutPicture(chain.camera, images, 4, 6, 1.0f);
    EXPECT_THROW(withoutPicture.calibrate({L"M0", L"M1"}, L""), std::out_of_range);
  }

  // A second picture at twice the resolution is brought to the first's size.
  {
    cv::Mat large;
    cv::resize(Image::toMat(chain.images[L"M1"]), large, cv::Size(), 2.0, 2.0, cv::INTER_CUBIC);
    auto images = chain.images;
    images[L"M1"] = Image::fromMat(large);
    NeighbourStitcher stitcher(chain.camera, images, 4, 6, 1.0f);
    const auto found = stitcher.calibratePair(L"M0", L"M1", false);
    EXPECT_NEAR(found.first / kUnitX, -1.25, 0.1);
    EXPECT_NEAR(found.second / kUnitY, 0.5, 0.1);
  }

  // No texture, pictures too small for one level, no matrix geometry: (0, 0)
  // and nothing moves; the pair is logged like any other, and the whole
  // chain logs every pair and carries a zero correction for it.
  auto expectStill = [&](NeighbourStitcher::Images images, CameraDescription::Orbivane camera) {
    const Testing::CapturedLog log("MatrixBasedNeighbourNeighbourStitch");
    NeighbourStitcher stitcher(camera, images, 4, 6, 1.0f);
    const auto found = stitcher.calibratePair(L"M0", L"M1", true);
    EXPECT_EQ(found, std::make_pair(0.0f, 0.0f));
    EXPECT_FALSE(stitcher.lastPair().measured);
    EXPECT_FALSE(stitcher.lastPair().reason.empty());
    EXPECT_NE(log.text().find("Stitching Modules: M0 M1"), std::string::npos) << log.text();
    NeighbourNeighbour whole(camera, std::move(images), 4, 6, 1.0f);
    whole.calibrate({L"M0", L"M1"}, L"M0");
    ASSERT_EQ(whole.translations().size(), 1u);
    EXPECT_EQ(whole.translations().front().dx, 0.0f);
    EXPECT_EQ(whole.translations().front().dy, 0.0f);
    const std::string text = log.text();
    const auto first = text.find("Stitching Modules: M0 M1");
    EXPECT_NE(text.find("Stitching Modules: M0 M1", first + 1), std::string::npos) << text;
    for (const auto& module : camera.modules()) {
      if (module->matrixGeometry() == nullptr) continue;
      EXPECT_EQ(matrixOf(stitcher.camera(), module->name()), module->matrixGeometry()->matrix());
    }
  };
  auto flat = chain.images;
  flat[L"M0"] = Image::fromMat(cv::Mat(kPicture, CV_8UC3, cv::Scalar(90, 120, 150)));
  flat[L"M1"] = Image::fromMat(cv::Mat(kPicture, CV_8UC3, cv::Scalar(80, 100, 140)));
  expectStill(flat, chain.camera);

  auto small = chain.images;
  small[L"M0"] = Image::fromMat(Image::toMat(chain.images[L"M0"])(cv::Rect(0, 0, 60, 60)).clone());
  small[L"M1"] = Image::fromMat(Image::toMat(chain.images[L"M1"])(cv::Rect(0, 0, 60, 60)).clone());
  expectStill(small, chain.camera);

  CameraDescription::Orbivane regions = chain.camera;
  regions.findModule(L"M1")->setGeometry(std::make_unique<OrbivaneGeometry::RegionBasedGeometry>());
  expectStill(chain.images, regions);

  CameraDescription::Orbivane singular = chain.camera;
  singular.findModule(L"M0")->matrixGeometry()->setMatrix(Matrix4x4(std::array<float, 16>{}));
  expectStill(chain.images, singular);
}
