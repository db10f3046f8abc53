// Target matching on pictures found in recordings, end to end: two module
// videos cropped from one photograph (a known offset), each with a real
// pedestrian walking through for part of the time; the module starts
// misplaced and must end where the crops say, matched on empty frames.
#include "orbivane/image_selection/smart_finder_match_to_target.h"

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/geometry/surface_projection.h"
#include "orbivane/image/image_conversion.h"
#include "synthetic/recording_videos.h"
#include "synthetic/sample_data.h"
#include "synthetic/target_scenes.h"
#include "support/matchers.h"
#include "synthetic/connections.h"

namespace {

using OrbivaneCalibration::PersonDetectorKind;
using OrbivaneCalibration::SmartFinderMatchToTarget;

const cv::Size kFinderSize(320, 240);
constexpr int kOffset = 64;  // the module's crop starts 64 pixels right of the target's

struct FinderRig {
  Synthetic::TemporaryDirectory dir;
  cv::Mat photo;
  CameraDescription::Orbivane camera;
  std::string index = dir.file("rec.json");

  FinderRig() {
    cv::resize(Synthetic::loadSample("fruits.jpg"), photo, {kFinderSize.width + kOffset, kFinderSize.height}, 0, 0, cv::INTER_AREA);
    const cv::Mat walker = Synthetic::vtestWalker();  // 100 x 181
    // The target sees the walker in frames 0-11, the module in frames 8-19.
    const auto video = [&](const std::string& name, int crop, int from, int to) {
      Synthetic::writeVideo(dir.file(name), 20, 10.0, [&, crop, from, to](int i) {
        cv::Mat frame = photo(cv::Rect(crop, 0, kFinderSize.width, kFinderSize.height)).clone();
        if (i >= from && i < to) walker.copyTo(frame(cv::Rect(10 + (i - from) * 15, 30, walker.cols, walker.rows)));
        return frame;
      });
    };
    video("target.avi", 0, 0, 12);
    video("module.avi", kOffset, 8, 20);
    Synthetic::writeIndex(index,
                        {{"T", dir.file("target.avi"), Synthetic::kRecordingStartMs, 0.0},
                         {"M", dir.file("module.avi"), Synthetic::kRecordingStartMs, 0.0}});
    for (const auto& [name, matrix] :
         {std::make_pair(L"T", Utils::Matrix4x4::identity()), std::make_pair(L"M", misplaced())}) {
      CameraDescription::OrbivaneModule module(name);
      module.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(matrix));
      const Quarn::QuarnConnection c = Synthetic::recordingsConnection(index, name == std::wstring(L"T") ? "T" : "M");
      module.setConnection(c);
      camera.addModule(module);
    }
  }
  // Truth: u shifted by kOffset / width; the camera starts 9 pixels and 2 %
  // of scale off.
  static Utils::Matrix4x4 misplaced() {
    const cv::Matx33d m(1.02, 0, (kOffset + 9.0) / kFinderSize.width, 0, 1.02, -0.01, 0, 0, 1);
    return OrbivaneGeometry::matrixFromPlanarHomography(m);
  }
};

// Module pixels -> target pixels as the camera's matrices place them.
cv::Matx33d placement(const CameraDescription::Orbivane& camera) {
  using namespace OrbivaneGeometry;
  const cv::Matx33d mt = planarHomography(camera.findModule(L"T")->matrixGeometry()->matrix());
  const cv::Matx33d mm = planarHomography(camera.findModule(L"M")->matrixGeometry()->matrix());
  const cv::Matx33d h = textureToPixels(kFinderSize.width, kFinderSize.height) * mt.inv() * mm *
                        pixelsToTexture(kFinderSize.width, kFinderSize.height);
  return h * (1.0 / h(2, 2));
}

OrbivaneCalibration::SmartFinderOptions hogOptions() {
  OrbivaneCalibration::SmartFinderOptions o;
  o.detector.kind = PersonDetectorKind::Hog;
  o.detector.minPersonHeight = 80;  // the walker is about 150 pixels tall
  o.samples = 6;  // frames 1, 5, 8, 11, 15, 18
  return o;
}

TEST(SmartFinderMatchToTargetTest, AlignsTheModuleOnEmptyFramesOfItsRecording) {
  FinderRig rig;
  const cv::Matx33d truth(1, 0, kOffset, 0, 1, 0, 0, 0, 1);
  ASSERT_GT(Synthetic::cornerError(truth, placement(rig.camera), kFinderSize), 5.0);

  SmartFinderMatchToTarget smart(rig.camera);
  smart.setFinderOptions(hogOptions());
  std::vector<std::string> texts;
  int lastStep = 0, lastTotal = 0;
  smart.registerStatusCallback([&](int step, int total, std::string text, GeometryCalibration::AdvStepInfo) {
    texts.push_back(text);
    EXPECT_GE(step, lastStep);
    lastStep = step;
    lastTotal = total;
  });
  const auto result = smart.calibrate({L"M"}, L"T");

  // Empty moments: the target's after its walker left, the module's before its came.
  const auto frames = smart.frames();
  ASSERT_EQ(frames.count(L"T"), 1u);
  ASSERT_EQ(frames.count(L"M"), 1u);
  EXPECT_EQ(frames.at(L"T").front().persons, 0);
  EXPECT_GE(frames.at(L"T").front().frame, 12);
  EXPECT_EQ(frames.at(L"M").front().persons, 0);
  EXPECT_LT(frames.at(L"M").front().frame, 8);

  EXPECT_THAT(placement(result), Testing::HomographyNear(truth, 0.5, kFinderSize));
  EXPECT_LT(smart.error(L"M"), 10.0f);
  EXPECT_EQ(result.findModule(L"M")->image(), frames.at(L"M").front().picture);
  // One progress run: the finder's samples, then the matcher's steps.
  EXPECT_EQ(texts.front().rfind("Sampling Module ", 0), 0u);
  EXPECT_EQ(texts.back(), "Finished Module M");
  EXPECT_EQ(lastTotal, 12 + 2);
}

TEST(SmartFinderMatchToTargetTest, AGivenTargetPictureIsUsedAndAbortStopsEarly) {
  FinderRig rig;
  const cv::Matx33d truth(1, 0, kOffset, 0, 1, 0, 0, 0, 1);
  std::map<std::wstring, std::shared_ptr<Image::UniversalImageInterface>> images;
  images[L"T"] = Image::fromMat(rig.photo(cv::Rect(0, 0, kFinderSize.width, kFinderSize.height)).clone());
  SmartFinderMatchToTarget smart(rig.camera, images);
  smart.setFinderOptions(hogOptions());
  const auto result = smart.calibrate({L"M"}, L"T");
  EXPECT_EQ(smart.frames().count(L"T"), 0u);  // not searched: its picture was given
  EXPECT_THAT(placement(result), Testing::HomographyNear(truth, 0.5, kFinderSize));

  SmartFinderMatchToTarget stopped(rig.camera);
  stopped.setFinderOptions(hogOptions());
  stopped.registerStatusCallback([&](int step, int, std::string, GeometryCalibration::AdvStepInfo) {
    if (step == 2) stopped.abort();
  });
  const auto partial = stopped.calibrate({L"M"}, L"T");
  EXPECT_TRUE(stopped.error().empty());
  EXPECT_GT(Synthetic::cornerError(truth, placement(partial), kFinderSize), 5.0);  // left where it was
}

}  // namespace
