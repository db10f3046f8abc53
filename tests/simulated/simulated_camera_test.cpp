// The simulated camera: window crops follow the window, the state file is
// shared between separate openings, scenes render where they are told.
#include "orbivane/simulated/simulated_camera.h"

#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <opencv2/imgproc.hpp>

#include "simulated/scene_renderer.h"
#include "support/matchers.h"
#include "synthetic/sample_data.h"

namespace {

using ::testing::HasSubstr;
using Quarn::SimulatedCamera;
using Quarn::SimulatedModule;

SimulatedModule baboonModule() {
  SimulatedModule m;
  m.id = "left";
  m.scene.kind = "image";
  m.scene.imagePath = Synthetic::samplePath("baboon.jpg");  // 512 x 512
  m.window.width = 256;
  m.window.height = 256;
  m.window.xStep = 4;
  m.window.yStep = 2;
  return m;
}

TEST(SimulatedCameraTest, CaptureIsTheWindowCropAndFollowsTheWindow) {
  Synthetic::TemporaryDirectory dir;
  auto camera = SimulatedCamera::open(dir.file("state.json"));
  ASSERT_TRUE(camera);
  ASSERT_TRUE(camera.value()->addModule(baboonModule()));
  const cv::Mat frame = Synthetic::loadSample("baboon.jpg");

  // Limits default to the largest range that keeps the window on the frame.
  auto info = camera.value()->sensorInfo("left");
  ASSERT_TRUE(info);
  EXPECT_EQ(info.value().values, (std::vector<std::int32_t>{0, 0, -128, 128, 4, -128, 128, 2}));

  auto picture = camera.value()->capture("left");
  ASSERT_TRUE(picture);
  EXPECT_THAT(picture.value(), Testing::PictureNear(frame(cv::Rect(128, 128, 256, 256)), 0));

  ASSERT_TRUE(camera.value()->moveWindow("left", 32, -16));
  picture = camera.value()->capture("left");
  ASSERT_TRUE(picture);
  EXPECT_THAT(picture.value(), Testing::PictureNear(frame(cv::Rect(160, 112, 256, 256)), 0));

  // The device itself refuses positions off its limits or its steps.
  EXPECT_FALSE(camera.value()->moveWindow("left", 132, 0));
  EXPECT_FALSE(camera.value()->moveWindow("left", 30, 0));
  EXPECT_FALSE(camera.value()->moveWindow("nobody", 0, 0));
}

TEST(SimulatedCameraTest, StateFileIsSharedBetweenOpeningsAndRoundTrips) {
  Synthetic::TemporaryDirectory dir;
  const std::string path = dir.file("state.json");
  {
    auto camera = SimulatedCamera::open(path);
    ASSERT_TRUE(camera);
    SimulatedModule m = baboonModule();
    m.latencyMs = 3;
    m.faults.writeTimeoutMs = 77;
    ASSERT_TRUE(camera.value()->addModule(m));
    ASSERT_TRUE(camera.value()->moveWindow("left", -8, 6));
  }
  auto again = SimulatedCamera::open(path);
  ASSERT_TRUE(again);
  auto m = again.value()->module("left");
  ASSERT_TRUE(m);
  EXPECT_EQ(m.value().window.x, -8);
  EXPECT_EQ(m.value().window.y, 6);
  EXPECT_EQ(m.value().latencyMs, 3);
  EXPECT_EQ(m.value().faults.writeTimeoutMs, 77);
  EXPECT_EQ(m.value().scene.imagePath, Synthetic::samplePath("baboon.jpg"));

  Synthetic::writeText(dir.file("bad.json"), "{\"format\": \"something else\"}");
  auto bad = SimulatedCamera::open(dir.file("bad.json"));
  ASSERT_TRUE(bad);
  EXPECT_FALSE(bad.value()->module("left"));
  EXPECT_FALSE(SimulatedCamera::open(""));

  // Numbers a window cannot hold are refused by name, not wrapped around.
  for (const char* number : {"2e10", "20000000000000000000.5", "2.5", "-3e9", "\"2\""}) {
    Synthetic::writeText(dir.file("window.json"),
                       std::string(R"({"format": "orbivane-simulated-camera", "modules": [{"id": "A", )") +
                           R"("window": {"x": 0, "yStep": )" + number + "}}]}");
    const auto read = SimulatedCamera::fromJson(Synthetic::readText(dir.file("window.json")));
    ASSERT_FALSE(read) << number;
    EXPECT_THAT(read.error(), HasSubstr("\"yStep\"")) << number;
  }
}

TEST(SimulatedCameraTest, BadScenesAreRefused) {
  auto camera = SimulatedCamera::open("memory:bad-scenes");
  ASSERT_TRUE(camera);
  SimulatedModule m;
  m.id = "x";
  m.scene.kind = "image";
  m.scene.imagePath = "/nonexistent/picture.png";
  EXPECT_FALSE(camera.value()->addModule(m));
  m.scene.kind = "spiral";
  EXPECT_FALSE(camera.value()->addModule(m));
  m.scene.kind = "fisheye";
  m.scene.width = 0;
  EXPECT_FALSE(camera.value()->addModule(m));
  m.scene.width = 64;
  m.scene.radius = std::nan("");
  EXPECT_FALSE(camera.value()->addModule(m));
  EXPECT_FALSE(camera.value()->module("x"));
}

TEST(SimulatedCameraTest, CroppedPicturesAreTheirFramesAndRoundTrip) {
  Synthetic::TemporaryDirectory dir;
  auto camera = SimulatedCamera::open(dir.file("state.json"));
  ASSERT_TRUE(camera);
  SimulatedModule m = baboonModule();
  m.scene.cropX = 100;
  m.scene.cropY = 50;
  m.scene.cropWidth = 320;
  m.scene.cropHeight = 300;
  ASSERT_TRUE(camera.value()->addModule(m));
  const cv::Mat photo = Synthetic::loadSample("baboon.jpg");
  auto frame = camera.value()->sensorFrame("left");
  ASSERT_TRUE(frame);
  EXPECT_THAT(frame.value(), Testing::PictureNear(photo(cv::Rect(100, 50, 320, 300)), 0));
  // Window 256 x 256 in the middle of the 320 x 300 frame: photo (132, 72).
  auto picture = camera.value()->capture("left");
  ASSERT_TRUE(picture);
  EXPECT_THAT(picture.value(), Testing::PictureNear(photo(cv::Rect(132, 72, 256, 256)), 0));
  auto again = SimulatedCamera::open(dir.file("state.json")).value()->module("left");
  ASSERT_TRUE(again);
  EXPECT_EQ(std::vector<int>({again.value().scene.cropX, again.value().scene.cropY, again.value().scene.cropWidth,
                              again.value().scene.cropHeight}),
            std::vector<int>({100, 50, 320, 300}));

  // A crop reaching off the picture is refused with the picture's size.
  m.id = "off";
  m.scene.cropX = 300;
  auto refused = camera.value()->addModule(m);
  ASSERT_FALSE(refused);
  EXPECT_NE(refused.error().find("512x512"), std::string::npos) << refused.error();
}

TEST(SceneRendererTest, LensCircleAndTargetLieWhereTheyAreTold) {
  const cv::Mat lens = Quarn::renderLensCircle({400, 300}, {210.3, 140.7}, 100.0, 0.5, 1.0, 2.0, 7);
  ASSERT_EQ(lens.size(), cv::Size(400, 300));
  cv::Mat grey, bright;
  cv::cvtColor(lens, grey, cv::COLOR_BGR2GRAY);
  cv::threshold(grey, bright, 60, 255, cv::THRESH_BINARY);
  const cv::Moments mo = cv::moments(bright, true);
  EXPECT_NEAR(mo.m10 / mo.m00, 210.3, 0.1);
  EXPECT_NEAR(mo.m01 / mo.m00, 140.7, 0.1);
  EXPECT_NEAR(mo.m00, CV_PI * 100.0 * 100.0, 0.02 * CV_PI * 100.0 * 100.0);

  const auto centres = Quarn::threeCircleTargetCentres({100, 100}, 300, 200, 90.0);
  EXPECT_NEAR(centres[1].x, 100.0, 1e-9);  // a quarter turn counter-clockwise puts the x side upward
  EXPECT_NEAR(centres[1].y, -200.0, 1e-9);
  EXPECT_NEAR(centres[2].x, 300.0, 1e-9);
  EXPECT_NEAR(centres[2].y, 100.0, 1e-9);
  EXPECT_TRUE(Quarn::renderLensCircle({0, 10}, {0, 0}, 1, 0, 0, 0, 1).empty());
}

}  // namespace

namespace {

// Every field of every record survives the state file, each with its own
// value, and the file keeps the layout earlier files have (pairs and the
// crop as arrays), so they still read.
TEST(SimulatedCameraTest, EveryFieldRoundTripsInTheStateFileLayout) {
  SimulatedModule m;
  m.id = "all";
  m.latencyMs = 9;
  int next = 2;
  const auto fill = [&next](const Quarn::SimulatedField&, auto& value) {
    using T = std::decay_t<decltype(value)>;
    if constexpr (std::is_same_v<T, std::string>) {
      value = "text" + std::to_string(next++);
    } else if constexpr (std::is_same_v<T, bool>) {
      value = !value;
    } else {
      value = static_cast<T>(next++);
    }
  };
  Quarn::sceneFields(m.scene, fill);
  Quarn::windowFields(m.window, fill);
  Quarn::faultFields(m.faults, fill);
  const std::string text = SimulatedCamera::toJson({m});
  EXPECT_THAT(text, HasSubstr("\"centre\": [\n"));
  const auto file = nlohmann::json::parse(text);
  EXPECT_EQ(file["modules"][0]["scene"]["crop"].size(), 4u);
  EXPECT_EQ(file["modules"][0]["scene"]["spacing"][1].get<double>(), m.scene.spacingY);
  const auto read = SimulatedCamera::fromJson(text);
  ASSERT_TRUE(read) << read.error();
  ASSERT_EQ(read.value().size(), 1u);
  const SimulatedModule& back = read.value().front();
  EXPECT_EQ(back.latencyMs, 9);
  std::vector<std::string> written, readBack;
  const auto list = [](std::vector<std::string>& out) {
    return [&out](const Quarn::SimulatedField& f, const auto& value) {
      std::ostringstream s;
      s << f.python << "=" << value;
      out.push_back(s.str());
    };
  };
  Quarn::sceneFields(m.scene, list(written));
  Quarn::windowFields(m.window, list(written));
  Quarn::faultFields(m.faults, list(written));
  Quarn::sceneFields(back.scene, list(readBack));
  Quarn::windowFields(back.window, list(readBack));
  Quarn::faultFields(back.faults, list(readBack));
  EXPECT_EQ(readBack, written);
}

}  // namespace
