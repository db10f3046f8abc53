// Progress records: the camera handle is shared between copies, the detail
// record is owned by each copy alone.
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry_calibration/adv_step_info.h"
#include "orbivane/geometry_calibration/matrix_based/match_to_target.h"
#include "orbivane/image/image_conversion.h"
#include "synthetic/sample_data.h"

namespace {

using GeometryCalibration::AdvStepInfo;
using GeometryCalibration::StepDetail;

std::shared_ptr<const CameraDescription::Orbivane> someCamera() {
  auto camera = std::make_shared<CameraDescription::Orbivane>();
  camera->addModule(CameraDescription::OrbivaneModule(L"A"));
  return camera;
}

StepDetail someDetail() {
  StepDetail d;
  d.values["error"] = 0.25;
  d.module = L"A";
  d.geometry = std::make_unique<OrbivaneGeometry::MatrixGeometry>(Utils::Matrix4x4::translation(0.5f, 0.0f));
  return d;
}

TEST(AdvStepInfo, DefaultRecordsHoldNothingWhateverIsDoneWithThem) {
  AdvStepInfo a;
  AdvStepInfo copy(a);
  AdvStepInfo moved(std::move(copy));
  AdvStepInfo assigned;
  assigned = moved;
  EXPECT_EQ(a.camera(), nullptr);
  EXPECT_EQ(a.detail(), nullptr);
  EXPECT_EQ(moved.camera(), nullptr);
  EXPECT_EQ(moved.detail(), nullptr);
  EXPECT_EQ(assigned.detail(), nullptr);
}

TEST(AdvStepInfo, CopiesShareTheCameraAndOwnTheirDetail) {
  const auto camera = someCamera();
  AdvStepInfo a(camera);
  a.setDetail(someDetail());
  EXPECT_EQ(camera.use_count(), 2);

  AdvStepInfo b(a);
  EXPECT_EQ(camera.use_count(), 3);
  EXPECT_EQ(b.camera(), a.camera());
  ASSERT_NE(b.detail(), nullptr);
  EXPECT_NE(b.detail(), a.detail());
  b.detail()->values["error"] = 9.0;
  static_cast<OrbivaneGeometry::MatrixGeometry*>(b.detail()->geometry.get())->setMatrix(Utils::Matrix4x4());
  EXPECT_EQ(a.detail()->values.at("error"), 0.25);
  EXPECT_EQ(static_cast<OrbivaneGeometry::MatrixGeometry*>(a.detail()->geometry.get())->matrix().get(0, 3), 0.5f);

  AdvStepInfo c;
  c = a;
  EXPECT_EQ(camera.use_count(), 4);
  EXPECT_EQ(c.detail()->module.value(), L"A");
  c = AdvStepInfo();  // releases the handle and the record
  EXPECT_EQ(camera.use_count(), 3);
  EXPECT_EQ(c.detail(), nullptr);
}

TEST(AdvStepInfo, MovingLeavesTheSourceEmpty) {
  const auto camera = someCamera();
  AdvStepInfo a(camera);
  a.setDetail(someDetail());
  const StepDetail* record = a.detail();
  AdvStepInfo b(std::move(a));
  EXPECT_EQ(b.detail(), record);
  EXPECT_EQ(a.camera(), nullptr);  // NOLINT(bugprone-use-after-move): the moved-from state is the claim
  EXPECT_EQ(a.detail(), nullptr);
  AdvStepInfo c;
  c = std::move(b);
  EXPECT_EQ(c.detail(), record);
  EXPECT_EQ(b.detail(), nullptr);
  EXPECT_EQ(camera.use_count(), 2);
}

// What a real calibrator hands its callback: "Finished Module" carries the
// camera as it stood after that module (earlier modules calibrated, later
// ones not yet), "Calibrating Module" carries nothing.
TEST(AdvStepInfo, TheCalibratorsStepsCarryTheCameraAsItStood) {
  cv::Mat scene = Synthetic::loadSample("building.jpg");
  cv::resize(scene, scene, cv::Size(640, 480), 0, 0, cv::INTER_AREA);
  CameraDescription::Orbivane camera;
  std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images;
  auto add = [&](const std::wstring& name, const Utils::Matrix4x4& matrix, const cv::Mat& picture) {
    CameraDescription::OrbivaneModule module(name);
    module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(matrix));
    camera.addModule(module);
    images[name] = Image::fromMat(picture);
  };
  Utils::Matrix4x4 left;  // the left half of the target, 6 px off
  left.set(0, 0, 0.5f);
  left.set(0, 3, 0.01f);
  Utils::Matrix4x4 right = left;
  right.set(0, 3, 0.51f);
  add(L"T", Utils::Matrix4x4::identity(), scene);
  add(L"A", left, scene(cv::Rect(0, 0, 320, 480)).clone());
  add(L"B", right, scene(cv::Rect(320, 0, 320, 480)).clone());

  GeometryCalibration::MatrixBased::MatchToTarget calibrator(camera, images);
  std::vector<std::pair<std::string, std::shared_ptr<const CameraDescription::Orbivane>>> seen;
  calibrator.registerStatusCallback([&](int, int, std::string text, AdvStepInfo info) {
    seen.emplace_back(text, info.camera());
  });
  const auto result = calibrator.calibrate({L"A", L"B"}, L"T");
  ASSERT_EQ(seen.size(), 4u);
  EXPECT_EQ(seen[0].first, "Calibrating Module A");
  EXPECT_EQ(seen[0].second, nullptr);
  ASSERT_EQ(seen[1].first, "Finished Module A");
  ASSERT_NE(seen[1].second, nullptr);
  const auto matrixOf = [](const CameraDescription::Orbivane& c, const wchar_t* name) {
    return c.findModule(name)->matrixGeometry()->matrix();
  };
  // After A: A is where the result has it, B still where it started.
  EXPECT_EQ(matrixOf(*seen[1].second, L"A"), matrixOf(result, L"A"));
  EXPECT_EQ(matrixOf(*seen[1].second, L"B"), right);
  EXPECT_NE(matrixOf(result, L"A"), left) << "A was moved";
  ASSERT_EQ(seen[3].first, "Finished Module B");
  EXPECT_EQ(matrixOf(*seen[3].second, L"B"), matrixOf(result, L"B"));
  EXPECT_NE(seen[1].second, seen[3].second) << "each step has its own snapshot";
}

}  // namespace
