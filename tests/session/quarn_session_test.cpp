// Sessions on the simulated camera: the asynchronous operations, every
// injected fault, the time-out, backend choice and shared connections.
#include "orbivane/session/quarn_session.h"

#include <gtest/gtest.h>

#include "orbivane/session/camera_backend.h"
#include "orbivane/simulated/simulated_camera.h"
#include "synthetic/connections.h"

namespace {

using Quarn::QuarnConnection;
using Quarn::QuarnSession;
using Quarn::SimulatedCamera;

QuarnConnection connectionTo(const std::string& camera, const std::string& device) {
  return Synthetic::simulatedConnection("memory:" + camera, device);
}

std::shared_ptr<SimulatedCamera> cameraWithFisheye(const std::string& name, const Quarn::SimulatedFaults& faults) {
  auto camera = SimulatedCamera::open("memory:" + name).value();
  Quarn::SimulatedModule m;
  m.id = "front";
  m.scene.width = 320;
  m.scene.height = 240;
  m.scene.centreX = 160;
  m.scene.centreY = 120;
  m.scene.radius = 100;
  m.window.width = 200;
  m.window.height = 160;
  m.window.xStep = 2;
  m.window.yStep = 2;
  m.faults = faults;
  EXPECT_TRUE(camera->addModule(m));
  return camera;
}

TEST(QuarnSessionTest, ReadsWritesAndCapturesThroughFutures) {
  auto camera = cameraWithFisheye("session-basic", {});
  QuarnSession session;
  EXPECT_FALSE(session.GetCamerasensorInfo({}).get());  // not connected yet
  ASSERT_TRUE(session.Connect(connectionTo("session-basic", "front"), nullptr));

  int calls = 0;
  auto info = session.GetCamerasensorInfo([&](const QuarnSession::SensorInfoResult& r) { calls += r ? 1 : 0; }).get();
  ASSERT_TRUE(info);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(info.value().values, (std::vector<std::int32_t>{0, 0, -60, 60, 2, -40, 40, 2}));

  ASSERT_TRUE(session.SetCamerasensor(10, -20, {}).get());
  EXPECT_EQ(camera->module("front").value().window.x, 10);
  EXPECT_EQ(camera->module("front").value().window.y, -20);
  auto picture = session.CaptureImage({}).get();
  ASSERT_TRUE(picture);
  EXPECT_EQ(picture.value().size(), cv::Size(200, 160));

  const auto search = session.Search({}, {}).get();
  ASSERT_FALSE(search);
  EXPECT_NE(search.error().find("not supported by this backend"), std::string::npos);
  EXPECT_FALSE(session.ShowTrack({}, {}).get());
}

TEST(QuarnSessionTest, EveryInjectedFaultFailsAndLeavesTheWindowAlone) {
  const auto windowOf = [](const std::shared_ptr<SimulatedCamera>& c) {
    const auto w = c->module("front").value().window;
    return std::make_pair(w.x, w.y);
  };
  {
    Quarn::SimulatedFaults f;
    f.connectRefused = true;
    cameraWithFisheye("fault-connect", f);
    QuarnSession s;
    const auto r = s.Connect(connectionTo("fault-connect", "front"), nullptr);
    ASSERT_FALSE(r);
    EXPECT_NE(r.error().find("refused"), std::string::npos);
    EXPECT_FALSE(s.connected());
  }
  {
    Quarn::SimulatedFaults f;
    f.sensorInfoEmpty = true;
    cameraWithFisheye("fault-empty", f);
    QuarnSession s;
    ASSERT_TRUE(s.Connect(connectionTo("fault-empty", "front"), nullptr));
    const auto r = s.GetCamerasensorInfo({}).get();
    ASSERT_TRUE(r);
    EXPECT_TRUE(r.value().empty());
  }
  {
    Quarn::SimulatedFaults f;
    f.sensorInfoFailing = true;
    cameraWithFisheye("fault-info", f);
    QuarnSession s;
    ASSERT_TRUE(s.Connect(connectionTo("fault-info", "front"), nullptr));
    EXPECT_FALSE(s.GetCamerasensorInfo({}).get());
  }
  {
    Quarn::SimulatedFaults f;
    f.writeFailing = true;
    auto camera = cameraWithFisheye("fault-write", f);
    QuarnSession s;
    ASSERT_TRUE(s.Connect(connectionTo("fault-write", "front"), nullptr));
    EXPECT_FALSE(s.SetCamerasensor(10, 10, {}).get());
    EXPECT_EQ(windowOf(camera), std::make_pair(0, 0));
  }
  {
    Quarn::SimulatedFaults f;
    f.writeTimeout = true;
    f.writeTimeoutMs = 300;
    auto camera = cameraWithFisheye("fault-timeout", f);
    QuarnSession s(Quarn::SessionOptions{std::chrono::milliseconds(50)});
    ASSERT_TRUE(s.Connect(connectionTo("fault-timeout", "front"), nullptr));
    const auto r = s.SetCamerasensor(10, 10, {}).get();
    ASSERT_FALSE(r);
    EXPECT_NE(r.error().find("timed out"), std::string::npos);
    EXPECT_EQ(windowOf(camera), std::make_pair(0, 0));
  }
}

TEST(QuarnSessionTest, BackendsAreChosenByNameAndSharedSessionsReused) {
  QuarnSession s;
  QuarnConnection c = connectionTo("shared", "front");
  c.backend = "quarn";
  const auto r = s.Connect(c, nullptr);
  ASSERT_FALSE(r);
  EXPECT_NE(r.error().find("simulated"), std::string::npos);  // names the known backends

  cameraWithFisheye("shared", {});
  const auto first = QuarnSession::getSharedConnection(connectionTo("shared", "front"), true, {});
  const auto second = QuarnSession::getSharedConnection(connectionTo("shared", "front"), true, {});
  const auto fresh = QuarnSession::getSharedConnection(connectionTo("shared", "front"), false, {});
  ASSERT_TRUE(first && second && fresh);
  EXPECT_EQ(first.value(), second.value());
  EXPECT_NE(first.value(), fresh.value());
  EXPECT_FALSE(QuarnSession::getSharedConnection(connectionTo("shared", "missing"), true, {}));
}

}  // namespace
