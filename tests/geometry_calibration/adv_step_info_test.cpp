// Progress records: the camera handle is shared between copies, the detail
// record is owned by each copy alone.
#include <gtest/gtest.h>

#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry_calibration/adv_step_info.h"
#include "orbivane/geometry_calibration/geometry_calibration_inferface.h"
#include "orbivane/geometry_calibration/status_callback.h"

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

TEST(AdvStepInfo, TravelsThroughTheStatusCallbackByValue) {
  std::vector<int> steps;
  std::shared_ptr<const CameraDescription::Orbivane> seen;
  GeometryCalibration::StatusCallback callback = [&](int step, int total, std::string text, AdvStepInfo info) {
    steps.push_back(step);
    EXPECT_EQ(total, 2);
    EXPECT_EQ(text.rfind("Calibrating Module ", 0), 0u);
    seen = info.camera();
  };
  callback(1, 2, "Calibrating Module A", AdvStepInfo(someCamera()));
  callback(2, 2, "Calibrating Module B", AdvStepInfo());
  EXPECT_EQ(steps, (std::vector<int>{1, 2}));
  EXPECT_EQ(seen, nullptr);
}

// A calibrator written against the abstract interface.
class GiveModulesAGeometry : public GeometryCalibration::GeometryCalibrationInferface {
 public:
  explicit GiveModulesAGeometry(CameraDescription::Orbivane camera) : camera_(std::move(camera)) {}
  CameraDescription::Orbivane calibrate(std::list<std::wstring> modules, std::wstring) override {
    CameraDescription::Orbivane result = camera_;
    for (const auto& name : modules) {
      if (auto m = result.findModule(name)) m->setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>());
    }
    return result;
  }

 private:
  CameraDescription::Orbivane camera_;
};

TEST(GeometryCalibrationInferface, ACalibratorReturnsACorrectedCopy) {
  CameraDescription::Orbivane camera;
  camera.addModule(CameraDescription::OrbivaneModule(L"A"));
  GiveModulesAGeometry calibrator(camera);
  GeometryCalibration::GeometryCalibrationInferface& asInterface = calibrator;
  const auto result = asInterface.calibrate({L"A"}, L"A");
  EXPECT_NE(result.findModule(L"A")->matrixGeometry(), nullptr);
  EXPECT_EQ(camera.findModule(L"A")->geometry(), nullptr);
}

}  // namespace
