// SensorShifter: reading and writing the window on the simulated camera,
// clamping and step rounding, the store, the virtual shift's limits and
// matrix, and every injected fault.
#include "orbivane/sensor_calibration/sensor_shifter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/session/quarn_session.h"
#include "orbivane/simulated/simulated_camera.h"
#include "synthetic/connections.h"

namespace {

using CameraDescription::OrbivaneModule;
using SensorCalibration::SensorShifter;

// A module on a fresh in-memory camera: sensor 600 x 400, window 200 x 100,
// limits [-100, 101] x [-50, 50], steps (xStep, yStep).
std::shared_ptr<OrbivaneModule> moduleOnCamera(const std::string& name, int xStep, int yStep,
                                               const Quarn::SimulatedFaults& faults = {}) {
  auto camera = Quarn::SimulatedCamera::open("memory:shifter-" + name).value();
  Quarn::SimulatedModule m;
  m.id = name;
  m.scene.width = 600;
  m.scene.height = 400;
  m.window = {0, 0, 200, 100, -100, 101, xStep, -50, 50, yStep};
  m.faults = faults;
  EXPECT_TRUE(camera->addModule(m));
  auto module = std::make_shared<OrbivaneModule>(std::wstring(name.begin(), name.end()));
  const Quarn::QuarnConnection c = Synthetic::simulatedConnection("memory:shifter-" + name, name);
  module->setConnection(c);
  module->setImage(Image::fromMat(cv::Mat(100, 200, CV_8UC3, cv::Scalar::all(90))));
  module->setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(Utils::Matrix4x4::identity()));
  return module;
}

std::pair<int, int> deviceWindow(const std::string& name) {
  const auto w = Quarn::SimulatedCamera::open("memory:shifter-" + name).value()->module(name).value().window;
  return {w.x, w.y};
}

TEST(SensorShifterTest, ReadFillsTheRecordByPosition) {
  auto module = moduleOnCamera("read", 4, 2);
  SensorShifter::SensorInfo info;
  ASSERT_TRUE(SensorShifter::readSensorShift(module, info, false, 0.5f));
  EXPECT_EQ(info.moduleName, L"read");
  EXPECT_EQ(std::vector<int>({info.x, info.y, info.xMin, info.xMax, info.xStep, info.yMin, info.yMax, info.yStep}),
            std::vector<int>({0, 0, -100, 101, 4, -50, 50, 2}));
  EXPECT_FALSE(info.virtualShift);

  OrbivaneModule bare(L"bare");
  SensorShifter::SensorInfo untouched;
  EXPECT_FALSE(SensorShifter::readSensorShift(std::make_shared<OrbivaneModule>(bare), untouched));
  EXPECT_FALSE(SensorShifter::readSensorShift(nullptr, untouched));
  EXPECT_TRUE(untouched.moduleName.empty());
}

TEST(SensorShifterTest, WriteClampsToTheDeviceAndRoundsTowardZero) {
  auto module = moduleOnCamera("clamp", 4, 3);
  SensorShifter::SensorInfo info;
  info.x = 500;  // above the maximum 101: 101, then down to a multiple of 4
  info.y = -7;   // -7 - (-7 % 3) = -6
  SensorShifter::writeSensorShift(module, info);
  EXPECT_EQ(deviceWindow("clamp"), std::make_pair(100, -6));
  EXPECT_EQ(SensorShifter::lastChangedSensorInfo(L"clamp").x, 100);

  info.x = -500;  // below the minimum -100, a multiple of 4 already
  info.y = 49;    // 49 - 49 % 3 = 48
  SensorShifter::writeSensorShift(module, info);
  EXPECT_EQ(deviceWindow("clamp"), std::make_pair(-100, 48));
  // The limits in the record do not matter, the device's do.
  info.x = 60;
  info.xMax = 10;
  info.y = 0;
  SensorShifter::writeSensorShift(module, info);
  EXPECT_EQ(deviceWindow("clamp"), std::make_pair(60, 0));
}

TEST(SensorShifterTest, EveryInjectedFaultLeavesTheWindowAndSaysSo) {
  SensorShifter::SensorInfo info;
  info.x = 40;
  info.y = 20;
  for (int fault = 0; fault < 5; ++fault) {
    Quarn::SimulatedFaults f;
    f.connectRefused = fault == 0;
    f.sensorInfoEmpty = fault == 1;
    f.sensorInfoFailing = fault == 2;
    f.writeFailing = fault == 3;
    f.writeTimeout = fault == 4;
    f.writeTimeoutMs = 300;
    const std::string name = "fault" + std::to_string(fault);
    auto module = moduleOnCamera(name, 4, 2, f);
    SensorShifter::SensorInfo read;
    EXPECT_EQ(SensorShifter::readSensorShift(module, read, false, 0.0f), fault >= 3) << name;

    Quarn::QuarnSession::setDefaultOptions(Quarn::SessionOptions{std::chrono::milliseconds(60)});
    testing::internal::CaptureStderr();
    SensorShifter::writeSensorShift(module, info);
    const std::string err = testing::internal::GetCapturedStderr();
    Quarn::QuarnSession::setDefaultOptions(Quarn::SessionOptions{});
    EXPECT_EQ(deviceWindow(name), std::make_pair(0, 0)) << name;
    if (fault >= 3) {
      EXPECT_THAT(err, testing::StartsWith("!!!Error "));
      EXPECT_THAT(err, testing::EndsWith(": Cannot write SensorShift!\n"));
    } else {
      EXPECT_EQ(err, "") << name;
    }
  }
}

TEST(SensorShifterTest, StoreInsertsOnReadAndSwitchKeepsTheBufferWhenOff) {
  const SensorShifter::SensorInfo fresh = SensorShifter::lastChangedSensorInfo(L"never-written");
  EXPECT_TRUE(fresh.moduleName.empty());
  EXPECT_EQ(fresh.x, 0);
  EXPECT_FALSE(fresh.virtualShift);
  SensorShifter::SensorInfo changed = SensorShifter::lastChangedSensorInfo(L"never-written");
  changed.x = 12;
  SensorShifter::updatelastChangedSensorInfo(changed, L"never-written");
  EXPECT_EQ(SensorShifter::lastChangedSensorInfo(L"never-written").x, 12);

  SensorShifter::enableVirtualSensorShift(true, 0.25f);
  EXPECT_TRUE(SensorShifter::virtualSensorShiftEnabled());
  EXPECT_FLOAT_EQ(SensorShifter::virtualSensorShiftBuffer(), 0.25f);
  SensorShifter::enableVirtualSensorShift(false, 0.9f);
  EXPECT_FALSE(SensorShifter::virtualSensorShiftEnabled());
  EXPECT_FLOAT_EQ(SensorShifter::virtualSensorShiftBuffer(), 0.25f);
}

TEST(SensorShifterTest, VirtualLimitsUseTheOverlapAndTheClippedRoomMinusTheBuffer) {
  auto module = moduleOnCamera("virtual", 1, 1);
  module->setLinkage(std::make_unique<CameraDescription::OrbivaneLinkage>(L"west", L"east", 0.2f));
  SensorShifter::SensorInfo info;
  ASSERT_TRUE(SensorShifter::readSensorShift(module, info, true, 0.5f));
  EXPECT_TRUE(info.virtualShift);
  EXPECT_EQ(info.deviceXMin, -100);
  EXPECT_EQ(info.deviceXMax, 101);
  // 20 % of 200 px each side is 40 px of room; half of the buffer share (0.5)
  // of the 80 px stays unused at each end: 20 px.
  EXPECT_EQ(info.xMin, -100 - 40 + 20);
  EXPECT_EQ(info.xMax, 101 + 40 - 20);
  EXPECT_EQ(info.yMin, -50);
  EXPECT_EQ(info.yMax, 50);

  // A clip matrix that shows v from 0.1 to 0.9: 12.5 px above and below.
  Utils::Matrix4x4 clip;
  clip.set(1, 1, 0.8f);
  clip.set(1, 3, 0.1f);
  module->shaders().push_back(OrbivaneGeometry::clipMatrixShader(clip));
  module->setLinkage(nullptr);
  ASSERT_TRUE(SensorShifter::readSensorShift(module, info, true, 0.5f));
  EXPECT_EQ(info.xMin, -100);
  EXPECT_EQ(info.xMax, 101);
  EXPECT_EQ(info.yMin, -50 - 12 + 6);
  EXPECT_EQ(info.yMax, 50 + 12 - 6);
  // A full buffer keeps the whole room: only the truncations remain.
  ASSERT_TRUE(SensorShifter::readSensorShift(module, info, true, 1.0f));
  EXPECT_EQ(info.yMin, -50);
  EXPECT_EQ(info.yMax, 50);
}

TEST(SensorShifterTest, VirtualWriteMakesThePictureFollowTheWindow) {
  auto module = moduleOnCamera("follow", 1, 1);
  SensorShifter::SensorInfo info;
  ASSERT_TRUE(SensorShifter::readSensorShift(module, info, true, 0.0f));
  // Before any write the picture shows the window the device is at, (0, 0):
  // a 20 px move of the window moves the picture by 20 of its 200 px.
  info.x = 20;
  info.y = -10;
  SensorShifter::writeSensorShift(module, info);
  EXPECT_EQ(deviceWindow("follow"), std::make_pair(20, -10));
  const auto quad = OrbivaneGeometry::moduleSurfaceQuad(module->matrixGeometry()->matrix());
  ASSERT_TRUE(quad);
  EXPECT_NEAR(quad->left(), 20.0 / 200.0, 1e-6);
  EXPECT_NEAR(quad->top(), -0.1, 1e-6);
  EXPECT_NEAR(quad->right(), 1.0 + 20.0 / 200.0, 1e-6);
  // The next write is taken relative to this one, not compounded.
  info.x = 40;
  info.y = -10;
  SensorShifter::writeSensorShift(module, info);
  EXPECT_NEAR(OrbivaneGeometry::moduleSurfaceQuad(module->matrixGeometry()->matrix())->left(), 40.0 / 200.0, 1e-6);
}

// A camera saved after a virtual write and loaded in a new process: its
// picture already shows the window the device is at, so writing that window
// again moves nothing, and a move is measured from it.
TEST(SensorShifterTest, AVirtualWriteStartsFromTheWindowTheDeviceIsAt) {
  auto module = moduleOnCamera("reloaded", 1, 1);
  auto camera = Quarn::SimulatedCamera::open("memory:shifter-reloaded").value();
  ASSERT_TRUE(camera->moveWindow("reloaded", 20, -10));  // where the earlier process left it
  SensorShifter::SensorInfo info;
  ASSERT_TRUE(SensorShifter::readSensorShift(module, info, true, 0.0f));
  ASSERT_EQ(info.x, 20);
  const Utils::Matrix4x4 loaded = module->matrixGeometry()->matrix();
  SensorShifter::writeSensorShift(module, info);
  EXPECT_EQ(module->matrixGeometry()->matrix(), loaded);
  info.x = 30;
  SensorShifter::writeSensorShift(module, info);
  EXPECT_NEAR(OrbivaneGeometry::moduleSurfaceQuad(module->matrixGeometry()->matrix())->left(), 10.0 / 200.0, 1e-6);
}

// The device refuses a virtual write: the picture follows the window as the
// virtual shift asks, and the store follows the picture, so a retry at the
// same position (which the device now takes) moves the picture no further.
TEST(SensorShifterTest, ARetryAfterARefusedVirtualWriteMovesNothingMore) {
  Quarn::SimulatedFaults refusing;
  refusing.writeFailing = true;
  auto module = moduleOnCamera("refused", 1, 1, refusing);
  SensorShifter::SensorInfo info;
  ASSERT_TRUE(SensorShifter::readSensorShift(module, info, true, 0.0f));
  info.x = 30;
  info.y = 0;
  testing::internal::CaptureStderr();
  SensorShifter::writeSensorShift(module, info);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::StartsWith("!!!Error "));
  EXPECT_EQ(deviceWindow("refused"), std::make_pair(0, 0));
  const Utils::Matrix4x4 moved = module->matrixGeometry()->matrix();
  EXPECT_NEAR(OrbivaneGeometry::moduleSurfaceQuad(moved)->left(), 30.0 / 200.0, 1e-6);
  EXPECT_EQ(SensorShifter::lastChangedSensorInfo(L"refused").x, 30);

  // The device takes writes again; the retry at the same position.
  auto camera = Quarn::SimulatedCamera::open("memory:shifter-refused").value();
  auto record = camera->module("refused").value();
  record.faults = Quarn::SimulatedFaults();
  ASSERT_TRUE(camera->setModule(record));
  SensorShifter::writeSensorShift(module, info);
  EXPECT_EQ(deviceWindow("refused"), std::make_pair(30, 0));
  EXPECT_EQ(module->matrixGeometry()->matrix(), moved);
}

// With the virtual narrowing the record's limits may lie beyond the
// device's: a position the device clamps moves the picture only as far as
// the window really moved, and writing it again moves nothing more.
TEST(SensorShifterTest, VirtualWriteOfAClampedPositionDoesNotDrift) {
  auto module = moduleOnCamera("drift", 1, 1);
  SensorShifter::SensorInfo info;
  ASSERT_TRUE(SensorShifter::readSensorShift(module, info, true, 0.0f));
  info.x = 500;  // the device stops at 101
  info.y = -80;  // and at -50
  SensorShifter::writeSensorShift(module, info);
  EXPECT_EQ(deviceWindow("drift"), std::make_pair(101, -50));
  const Utils::Matrix4x4 first = module->matrixGeometry()->matrix();
  const auto quad = OrbivaneGeometry::moduleSurfaceQuad(first);
  ASSERT_TRUE(quad);
  EXPECT_NEAR(quad->left(), 101.0 / 200.0, 1e-6);  // from the window the device was at, (0, 0)
  EXPECT_NEAR(quad->top(), -0.5, 1e-6);
  for (int again = 0; again < 3; ++again) {
    SensorShifter::writeSensorShift(module, info);
    EXPECT_EQ(module->matrixGeometry()->matrix(), first) << "write " << again + 2;
  }
  EXPECT_EQ(SensorShifter::lastChangedSensorInfo(L"drift").x, 101);
}

}  // namespace
