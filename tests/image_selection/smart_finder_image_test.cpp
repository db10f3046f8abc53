// The frame finder on short recordings of a real pedestrian (cut from
// vtest.avi) crossing a photograph: the picking rule, exposure, several
// moments, the clean background when someone is always in the picture, the
// detector fallback, progress and abort, and module errors.
#include "orbivane/image_selection/smart_finder_image.h"

#include <thread>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "image_selection/smart_finder_scoring.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/utils/wide_text.h"
#include "synthetic/recording_videos.h"
#include "synthetic/sample_data.h"
#include "synthetic/connections.h"

namespace {

using OrbivaneCalibration::PersonDetectorKind;
using OrbivaneCalibration::SmartFinderImage;
using OrbivaneCalibration::SmartFinderOptions;


CameraDescription::Orbivane cameraOn(const std::string& index, const std::vector<std::string>& modules) {
  CameraDescription::Orbivane camera;
  for (const auto& name : modules) {
    CameraDescription::OrbivaneModule module(Utils::fromUtf8(name));
    const Quarn::QuarnConnection c = Synthetic::recordingsConnection(index, name);
    module.setConnection(c);
    camera.addModule(module);
  }
  return camera;
}

// The walker is about 150 pixels tall; the HOG detector's odd small false
// hit on the blurred photograph (about 50 pixels) is below the limit.
constexpr int kMinPersonHeight = 80;

SmartFinderOptions hogEvery(double stepSeconds) {
  SmartFinderOptions o;
  o.detector.kind = PersonDetectorKind::Hog;
  o.detector.minPersonHeight = kMinPersonHeight;
  o.stepSeconds = stepSeconds;
  return o;
}

// 40 frames at 10 fps: the walker crosses during frames 0-23; the empty
// frames 24-39 are slightly blurred except frame 33.
struct Crossing {
  Synthetic::TemporaryDirectory dir;
  cv::Mat background = Synthetic::walkerBackground();
  std::string index = dir.file("rec.json");
  Crossing() {
    const cv::Mat walker = Synthetic::vtestWalker();
    Synthetic::writeVideo(dir.file("front.avi"), 40, 10.0, [&](int i) {
      cv::Mat frame = i < 24 ? Synthetic::withWalker(background, walker, 10 + i * 12) : background.clone();
      if (i != 33) cv::GaussianBlur(frame, frame, {0, 0}, 1.2);
      return frame;
    });
    Synthetic::writeIndex(index, {{"front", dir.file("front.avi"), Synthetic::kRecordingStartMs, 0.0}});
  }
};

TEST(SmartFinderImageTest, PicksTheSharpestFrameWithoutPersons) {
  Crossing clip;
  SmartFinderImage finder(cameraOn(clip.index, {"front"}));
  finder.setOptions(hogEvery(0.3));  // frames 0, 3, ..., 39
  const auto found = finder.find();
  ASSERT_TRUE(found) << found.error();
  ASSERT_EQ(found.value().count(L"front"), 1u) << (finder.errors().empty() ? "" : finder.errors().begin()->second);
  const auto& best = found.value().at(L"front").front();
  EXPECT_EQ(best.frame, 33);
  EXPECT_EQ(best.timeMs, Synthetic::kRecordingStartMs + 3300);
  EXPECT_EQ(best.persons, 0);
  EXPECT_FALSE(best.builtBackground);
  EXPECT_GT(best.exposure, 0.3);
  ASSERT_TRUE(best.picture);
  EXPECT_EQ(Image::toMat(best.picture).size(), cv::Size(400, 300));

  // Every sampled frame was looked at; the walker is seen while it crosses.
  const auto samples = finder.samples().at(L"front");
  ASSERT_EQ(samples.size(), 14u);
  int seen = 0;
  for (const auto& s : samples) {
    if (s.frame < 24) seen += s.persons > 0 ? 1 : 0;
    if (s.frame >= 24) {
      EXPECT_EQ(s.persons, 0) << "frame " << s.frame;
    }
    if (s.frame >= 24 && s.frame != 33) {
      EXPECT_LT(s.blur, best.blur);
    }
  }
  EXPECT_GE(seen, 7);

  // The camera copy carries the picture; the finder's camera is untouched.
  const auto withPictures = finder.cameraWithPictures();
  EXPECT_EQ(withPictures.findModule(L"front")->image(), best.picture);
}

TEST(SmartFinderImageTest, SeveralMomentsKeepTheirDistanceAndAWindowLimitsTheSearch) {
  Crossing clip;
  SmartFinderImage finder(cameraOn(clip.index, {"front"}));
  SmartFinderOptions o = hogEvery(0.3);
  o.momentsPerModule = 3;
  o.minimumSpacingSeconds = 0.45;
  finder.setOptions(o);
  const auto found = finder.find();
  ASSERT_TRUE(found) << found.error();
  const auto& moments = found.value().at(L"front");
  ASSERT_EQ(moments.size(), 3u);
  EXPECT_EQ(moments[0].frame, 33);
  for (std::size_t i = 0; i < moments.size(); ++i) {
    EXPECT_EQ(moments[i].persons, 0);
    EXPECT_GE(moments[i].frame, 24);
    for (std::size_t j = 0; j < i; ++j) EXPECT_GE(std::llabs(moments[i].timeMs - moments[j].timeMs), 450);
    if (i > 0) {
      EXPECT_LE(moments[i].score, moments[i - 1].score);
    }
  }

  // A window that ends before frame 33: the best of 25 and 28 is picked.
  o.momentsPerModule = 1;
  o.fromMs = Synthetic::kRecordingStartMs + 1000;
  o.toMs = Synthetic::kRecordingStartMs + 3000;
  finder.setOptions(o);
  const auto windowed = finder.find();
  ASSERT_TRUE(windowed);
  const auto& best = windowed.value().at(L"front").front();
  EXPECT_GE(best.frame, 24);
  EXPECT_LT(best.frame, 30);
  EXPECT_EQ(finder.samples().at(L"front").size(), 7u);
}

TEST(SmartFinderImageTest, ExposureDecidesBetweenEquallyEmptyFrames) {
  Synthetic::TemporaryDirectory dir;
  const cv::Mat background = Synthetic::walkerBackground();
  // Frames 0-3 dark, 4-5 blown out, 6 well exposed, 7-9 dark again.
  Synthetic::writeVideo(dir.file("room.avi"), 10, 10.0, [&](int i) {
    cv::Mat frame;
    if (i == 6) return background.clone();
    background.convertTo(frame, -1, i == 4 || i == 5 ? 1.6 : 0.3, i == 4 || i == 5 ? 90 : 0);
    return frame;
  });
  Synthetic::writeIndex(dir.file("rec.json"), {{"room", dir.file("room.avi"), Synthetic::kRecordingStartMs, 0.0}});
  SmartFinderImage finder(cameraOn(dir.file("rec.json"), {"room"}));
  SmartFinderOptions o = hogEvery(0.1);
  o.blurWeight = 0.2;
  finder.setOptions(o);
  const auto found = finder.find();
  ASSERT_TRUE(found) << found.error();
  const auto& best = found.value().at(L"room").front();
  EXPECT_EQ(best.frame, 6);
  const auto samples = finder.samples().at(L"room");
  for (const auto& s : samples) {
    if (s.frame != 6) {
      EXPECT_LT(s.exposure, best.exposure - 0.2) << "frame " << s.frame;
    }
  }
  EXPECT_GT(samples[4].clipped, 0.2);
}

TEST(SmartFinderImageTest, BuildsACleanBackgroundWhenSomeoneIsAlwaysInThePicture) {
  Synthetic::TemporaryDirectory dir;
  const cv::Mat background = Synthetic::walkerBackground();
  const cv::Mat walker = Synthetic::vtestWalker();
  Synthetic::writeVideo(dir.file("busy.avi"), 30, 10.0,
                      [&](int i) { return Synthetic::withWalker(background, walker, i * 10); });
  Synthetic::writeIndex(dir.file("rec.json"), {{"busy", dir.file("busy.avi"), Synthetic::kRecordingStartMs, 0.0}});
  SmartFinderImage finder(cameraOn(dir.file("rec.json"), {"busy"}));
  SmartFinderOptions o = hogEvery(0.0);
  o.samples = 10;
  finder.setOptions(o);
  std::vector<std::string> texts;
  finder.registerStatusCallback(
      [&](int, int, std::string text, GeometryCalibration::AdvStepInfo) { texts.push_back(text); });
  const auto found = finder.find();
  ASSERT_TRUE(found) << found.error();
  const auto& best = found.value().at(L"busy").front();
  EXPECT_TRUE(best.builtBackground);
  // From the samples and the frames read between them for the background model.
  EXPECT_GE(best.framesUsed, 10);
  EXPECT_LE(best.framesUsed, 25);
  EXPECT_EQ(best.persons, 0);
  EXPECT_EQ(texts.back(), "Module busy has no frame without persons; built a background from " +
                              std::to_string(best.framesUsed) + " frames");
  const auto samples = finder.samples().at(L"busy");
  for (const auto& s : samples) EXPECT_GT(s.persons, 0);

  // Near the true background everywhere, also where the walker passed; a
  // single frame is far from it there.
  const cv::Mat built = Image::toMat(best.picture);
  const cv::Rect path(0, 60, 400, 181);
  const double builtError = cv::norm(built(path), background(path), cv::NORM_L1) / path.area() / 3;
  EXPECT_LT(builtError, 3.0);
  EXPECT_LT(cv::norm(built, background, cv::NORM_L1) / built.total() / 3, 3.0);
  cv::VideoCapture video(dir.file("busy.avi"));
  cv::Mat frame;
  ASSERT_TRUE(video.read(frame));
  EXPECT_GT(cv::norm(frame(path), background(path), cv::NORM_L1) / path.area() / 3, 4 * builtError);
}

TEST(SmartFinderImageTest, TemporalMedianIsThePerPixelMedian) {
  std::vector<cv::Mat> frames;
  for (int v : {9, 200, 3, 50, 7}) frames.push_back(cv::Mat(2, 3, CV_8UC3, cv::Scalar(v, 255 - v, v / 2)));
  frames[1].at<cv::Vec3b>(1, 2) = {0, 0, 0};
  const cv::Mat m = OrbivaneCalibration::temporalMedian(frames);
  EXPECT_EQ(m.at<cv::Vec3b>(0, 0), cv::Vec3b(9, 246, 4));
  EXPECT_EQ(m.at<cv::Vec3b>(1, 2), cv::Vec3b(7, 246, 3));
  frames.pop_back();  // even count: the lower middle
  EXPECT_EQ(OrbivaneCalibration::temporalMedian(frames).at<cv::Vec3b>(0, 0), cv::Vec3b(9, 205, 4));
  EXPECT_THROW(OrbivaneCalibration::temporalMedian({}), std::invalid_argument);
  EXPECT_THROW(OrbivaneCalibration::temporalMedian({cv::Mat(2, 2, CV_8UC1), cv::Mat(2, 3, CV_8UC1)}),
               std::invalid_argument);
}

TEST(SmartFinderImageTest, DetectorFallsBackWithoutNetworkFilesAndNamesMissingOnes) {
  Crossing clip;
  SmartFinderImage finder(cameraOn(clip.index, {"front"}));
  SmartFinderOptions o;
  o.samples = 4;
  o.fromMs = Synthetic::kRecordingStartMs + 2500;
  o.detector.kind = PersonDetectorKind::Auto;
  o.detector.minPersonHeight = kMinPersonHeight;
  o.detector.yoloConfig = clip.dir.file("none.cfg");
  o.detector.yoloWeights = clip.dir.file("none.weights");
  finder.setOptions(o);
  const auto automatic = finder.find();
  ASSERT_TRUE(automatic) << automatic.error();
  EXPECT_NE(finder.detectorDescription().find("HOG"), std::string::npos) << finder.detectorDescription();
  EXPECT_EQ(automatic.value().at(L"front").front().persons, 0);

  o.detector.kind = PersonDetectorKind::Yolo;
  finder.setOptions(o);
  const auto missing = finder.find();
  ASSERT_FALSE(missing);
  EXPECT_NE(missing.error().find("person detector"), std::string::npos);
  EXPECT_NE(missing.error().find("none."), std::string::npos) << missing.error();
}

TEST(SmartFinderImageTest, ReportsProgressAndStopsWhenAbortedFromAnotherThread) {
  Crossing clip;
  SmartFinderImage finder(cameraOn(clip.index, {"front"}));
  SmartFinderOptions o = hogEvery(0.1);
  o.fromMs = Synthetic::kRecordingStartMs + 2400;
  finder.setOptions(o);
  std::vector<std::pair<int, int>> steps;
  std::string firstText;
  finder.registerStatusCallback([&](int step, int total, std::string text, GeometryCalibration::AdvStepInfo) {
    steps.emplace_back(step, total);
    if (firstText.empty()) firstText = text;
    if (step == 3) std::thread([&finder] { finder.abort(); }).join();
  });
  const auto found = finder.find();
  ASSERT_TRUE(found) << found.error();
  EXPECT_TRUE(finder.aborted());
  EXPECT_EQ(steps, (std::vector<std::pair<int, int>>{{1, 16}, {2, 16}, {3, 16}}));
  EXPECT_EQ(firstText, "Sampling Module front at 2026-11-22T10:00:02.400Z");
  // The frames read before the stop still give a moment.
  EXPECT_EQ(finder.samples().at(L"front").size(), 3u);
  EXPECT_EQ(found.value().at(L"front").front().persons, 0);
}

TEST(SmartFinderImageTest, BadOptionsUnknownModulesAndModulesWithoutRecordings) {
  Crossing clip;
  auto camera = cameraOn(clip.index, {"front", "ghost"});
  camera.addModule(CameraDescription::OrbivaneModule(L"unplugged"));
  SmartFinderImage finder(camera);
  SmartFinderOptions o = hogEvery(0.5);
  finder.setOptions(o);
  const auto found = finder.find({L"front", L"ghost", L"unplugged"});
  ASSERT_TRUE(found) << found.error();
  EXPECT_EQ(found.value().count(L"front"), 1u);
  const auto errors = finder.errors();
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_NE(errors.at(L"ghost").find("no recordings of module 'ghost'"), std::string::npos) << errors.at(L"ghost");
  EXPECT_NE(errors.at(L"unplugged").find("no connection"), std::string::npos);

  EXPECT_FALSE(finder.find({L"nobody"}));
  o.toMs = Synthetic::kRecordingStartMs - 1000;
  o.fromMs = Synthetic::kRecordingStartMs - 5000;
  finder.setOptions(o);
  ASSERT_TRUE(finder.find({L"front"}));
  EXPECT_NE(finder.errors().at(L"front").find("no recording in the time window"), std::string::npos);

  using Breaker = void (*)(SmartFinderOptions&);
  for (Breaker broken : std::vector<Breaker>{[](SmartFinderOptions& b) { b.samples = 0; },
                                             [](SmartFinderOptions& b) { b.stepSeconds = -1; },
                                             [](SmartFinderOptions& b) { b.blurWeight = b.exposureWeight = 0; },
                                             [](SmartFinderOptions& b) { b.momentsPerModule = 0; },
                                             [](SmartFinderOptions& b) { b.backgroundFrames = 2; },
                                             [](SmartFinderOptions& b) { b.maxForeground = 1.5; },
                                             [](SmartFinderOptions& b) { b.smallestPersonHeight = 4; },
                                             [](SmartFinderOptions& b) {
                                               b.fromMs = 10;
                                               b.toMs = 5;
                                             }}) {
    SmartFinderOptions b;
    broken(b);
    EXPECT_FALSE(b.validate());
    finder.setOptions(b);
    EXPECT_FALSE(finder.find());
  }
}

}  // namespace
