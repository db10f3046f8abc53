// The frame finder with its background model on recordings cut from the
// walking video (vtest.avi, 10 fps): views of 288x432 whose real frames show
// pedestrians, with stretches where the people are painted out (truly empty)
// and where one person the detectors find hard is put in. The empty frames
// are made a little darker than the others, so a frame with the hard person
// would win on its score if it counted as free.
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "synthetic/walking_video.h"
#include "image_selection/smart_finder_scoring.h"
#include "orbivane/image/image_conversion.h"
#include "orbivane/image_selection/smart_finder_image.h"
#include "orbivane/utils/wide_text.h"
#include "synthetic/recording_videos.h"
#include "synthetic/connections.h"

namespace {

using OrbivaneCalibration::SmartFinderFrame;
using OrbivaneCalibration::SmartFinderImage;
using OrbivaneCalibration::SmartFinderOptions;

constexpr int kBackgroundFrames = 100;                   // 10 s per recording
// Views of 288x432 of the video. Someone walks through the middle one in
// every frame from 20 s to 30 s, and through the corner with the parked van
// at the top right in every frame from 30 s to 40 s; in neither does anyone
// linger for half of that time.
const cv::Rect kMiddle(240, 72, 288, 432);
const cv::Rect kVanCorner(480, 0, 288, 432);
// The foreground share of the empty street: the warning tape waves in the
// wind, and the painted-out places differ a little from the frame around them
// (0.3 to 0.7 %).
constexpr double kSceneNoise = 0.01;

class FinderOnStreetRecordings : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    middle_ = new Synthetic::WalkingClip(Synthetic::readWalkingClip(200, kBackgroundFrames, 10, kMiddle));
    corner_ = new Synthetic::WalkingClip(Synthetic::readWalkingClip(300, kBackgroundFrames, 10, kVanCorner));
    // The person put in: the first clear walker of at least 100 px in the middle view.
    for (const cv::Mat& frame : middle_->frames) {
      try {
        walker_ = new Synthetic::PersonCutout(Synthetic::cutOutWalker(frame, middle_->localBackground, 100));
        break;
      } catch (const std::runtime_error&) {
      }
    }
  }
  static void TearDownTestSuite() {
    delete middle_;
    delete corner_;
    delete walker_;
    middle_ = corner_ = nullptr;
    walker_ = nullptr;
  }
  void SetUp() override { ASSERT_NE(walker_, nullptr) << "no clear walker in the middle view"; }

  // Frame k of a recording of the view: real, or with its people painted out.
  static cv::Mat real(const Synthetic::WalkingClip& clip, int k) {
    return clip.frames[static_cast<std::size_t>(k)].clone();
  }
  // Painted with the clip's own median (nobody lingers): the video's light
  // changes, and the median of the whole video would leave visible patches.
  static cv::Mat empty(const Synthetic::WalkingClip& clip, int k) {
    return Synthetic::emptyScene(clip.frames[static_cast<std::size_t>(k)], clip.localBackground);
  }
  // A little darker (a cloud): a worse exposure score.
  static cv::Mat dimmer(cv::Mat frame) {
    frame.convertTo(frame, -1, 0.7);
    return frame;
  }

  static SmartFinderOptions everyHalfSecond() {
    SmartFinderOptions o;
    o.detector.kind = OrbivaneCalibration::PersonDetectorKind::Hog;
    o.stepSeconds = 0.5;
    return o;
  }

  // Writes the recording of module "cam" and searches it.
  std::vector<SmartFinderFrame> search(const std::function<cv::Mat(int)>& draw,
                                       const SmartFinderOptions& o = everyHalfSecond()) {
    Synthetic::writeVideo(dir_.file("cam.avi"), kBackgroundFrames, 10.0, draw);
    Synthetic::writeIndex(dir_.file("rec.json"), {{"cam", dir_.file("cam.avi"), Synthetic::kRecordingStartMs, 0.0}});
    CameraDescription::Orbivane camera;
    CameraDescription::OrbivaneModule module(L"cam");
    const Quarn::QuarnConnection c = Synthetic::recordingsConnection(dir_.file("rec.json"), "cam");
    module.setConnection(c);
    camera.addModule(module);
    SmartFinderImage finder(camera);
    finder.setOptions(o);
    finder.registerStatusCallback([this](int, int, std::string text, GeometryCalibration::AdvStepInfo) {
      lastText_ = text;
    });
    const auto found = finder.find();
    EXPECT_TRUE(found) << found.error();
    if (!found || found.value().count(L"cam") == 0) {
      ADD_FAILURE() << "no result: " << (finder.errors().empty() ? "" : finder.errors().begin()->second);
      return {};
    }
    samples_ = finder.samples().at(L"cam");
    return found.value().at(L"cam");
  }

  // The samples whose frame lies in [from, to).
  std::vector<SmartFinderFrame> samplesIn(int from, int to) const {
    std::vector<SmartFinderFrame> in;
    for (const auto& s : samples_) {
      if (s.frame >= from && s.frame < to) in.push_back(s);
    }
    return in;
  }

  static Synthetic::WalkingClip* middle_;
  static Synthetic::WalkingClip* corner_;
  static Synthetic::PersonCutout* walker_;
  Synthetic::TemporaryDirectory dir_;
  std::vector<SmartFinderFrame> samples_;
  std::string lastText_;
};
Synthetic::WalkingClip* FinderOnStreetRecordings::middle_ = nullptr;
Synthetic::WalkingClip* FinderOnStreetRecordings::corner_ = nullptr;
Synthetic::PersonCutout* FinderOnStreetRecordings::walker_ = nullptr;

// The best score among the samples.
double bestScoreIn(const std::vector<SmartFinderFrame>& samples) {
  double best = -1;
  for (const auto& s : samples) best = std::max(best, s.score);
  return best;
}

TEST_F(FinderOnStreetRecordings, APersonStandingStillAtTheBorderIsNotChosen) {
  // Frames 40-69: the empty street and a person standing still, 40 % of its
  // width beyond the right border; 70-99: the empty street, a little darker.
  const int x = kMiddle.width - static_cast<int>(0.6 * walker_->picture.cols);
  const auto moments = search([&](int k) {
    if (k < 40) return real(*middle_, k);
    if (k >= 70) return dimmer(empty(*middle_, k));
    cv::Mat frame = empty(*middle_, k);
    Synthetic::pastePerson(frame, *walker_, {x, 230});
    return frame;
  });
  ASSERT_FALSE(moments.empty());
  const SmartFinderFrame& best = moments.front();
  EXPECT_FALSE(best.builtBackground);
  EXPECT_GE(best.frame, 70);
  EXPECT_TRUE(best.isFree);
  EXPECT_TRUE(best.foregroundMeasured);
  EXPECT_EQ(best.foregroundPersons, 0);
  EXPECT_LE(best.foreground, kSceneNoise);

  const auto standing = samplesIn(40, 70);
  ASSERT_EQ(standing.size(), 6u);
  for (const auto& s : standing) {
    EXPECT_FALSE(s.isFree) << "frame " << s.frame;
    EXPECT_LE(s.motion, SmartFinderOptions().maxMotion) << "frame " << s.frame;  // the motion check cannot see it
    // The person is a blob of foreground of a person's size at the right border.
    EXPECT_GE(s.foregroundPersons, 1) << "frame " << s.frame;
    EXPECT_GE(s.foregroundBox.x + s.foregroundBox.width, kMiddle.width - 4) << s.foregroundBox;
    EXPECT_GE(s.foregroundBox.height, 0.7 * walker_->picture.rows) << s.foregroundBox;
  }
  // Those frames would have won.
  EXPECT_GT(bestScoreIn(standing), best.score);
}

TEST_F(FinderOnStreetRecordings, ASmallPersonFarAwayIsNotChosen) {
  // Frames 40-69: the empty street and a person 45 px tall walking slowly on
  // the far path (half a pixel a frame); 70-99: the empty street, darker.
  const Synthetic::PersonCutout small = Synthetic::scaledCutout(*walker_, 45);
  const auto moments = search([&](int k) {
    if (k < 40) return real(*middle_, k);
    if (k >= 70) return dimmer(empty(*middle_, k));
    cv::Mat frame = empty(*middle_, k);
    Synthetic::pastePerson(frame, small, {60 + (k - 40) / 2, 40});
    return frame;
  });
  ASSERT_FALSE(moments.empty());
  const SmartFinderFrame& best = moments.front();
  EXPECT_FALSE(best.builtBackground);
  EXPECT_GE(best.frame, 70);

  const auto walking = samplesIn(40, 70);
  ASSERT_EQ(walking.size(), 6u);
  for (const auto& s : walking) {
    EXPECT_FALSE(s.isFree) << "frame " << s.frame;
    EXPECT_LE(s.motion, SmartFinderOptions().maxMotion) << "frame " << s.frame;  // too slow and small for it
    const cv::Rect truth(60 + (s.frame - 40) / 2, 40, small.picture.cols, small.picture.rows);
    EXPECT_GE(s.foregroundPersons, 1) << "frame " << s.frame;
    EXPECT_GT((s.foregroundBox & truth).area(), 0.5 * truth.area())
        << "frame " << s.frame << ": " << s.foregroundBox << " against " << truth;
  }
  EXPECT_GT(bestScoreIn(walking), best.score);
}

TEST_F(FinderOnStreetRecordings, AParkedVehicleDoesNotBlockAFrame) {
  // The corner with the parked van, and a second van (the first, twice as
  // large) parked on the road in every frame; frames 50-99 are empty.
  const cv::Rect van(653, 45, 72, 56);
  Synthetic::PersonCutout parked;
  cv::resize(corner_->localBackground(van - kVanCorner.tl()), parked.picture, {}, 2.0, 2.0, cv::INTER_LINEAR);
  parked.mask = cv::Mat(parked.picture.size(), CV_8UC1, cv::Scalar(255));
  const cv::Point where(60, 300);
  const auto moments = search([&](int k) {
    cv::Mat frame = k < 50 ? real(*corner_, k) : empty(*corner_, k);
    Synthetic::pastePerson(frame, parked, where);
    return frame;
  });
  ASSERT_FALSE(moments.empty());
  const SmartFinderFrame& best = moments.front();
  EXPECT_FALSE(best.builtBackground);
  EXPECT_GE(best.frame, 50);

  const cv::Rect vans[] = {van - kVanCorner.tl(), cv::Rect(where, parked.picture.size())};
  const auto still = samplesIn(50, 100);
  ASSERT_EQ(still.size(), 10u);
  for (const auto& s : still) {
    EXPECT_TRUE(s.isFree) << "frame " << s.frame;
    EXPECT_EQ(s.persons, 0) << "frame " << s.frame;
    EXPECT_EQ(s.foregroundPersons, 0) << "frame " << s.frame;
    EXPECT_LE(s.foreground, kSceneNoise) << "frame " << s.frame;
    for (const cv::Rect& v : vans) EXPECT_LT((s.foregroundBox & v).area(), 0.1 * v.area()) << s.foregroundBox;
  }
}

TEST_F(FinderOnStreetRecordings, AnExposureChangeAcrossTheWindowIsNotForeground) {
  // From frame 70 on the camera's exposure drops (gain 0.55, offset 8), so
  // most of the model's frames are brighter than the empty frames 75-99.
  const auto darker = [](cv::Mat frame) {
    frame.convertTo(frame, -1, 0.55, 8);
    return frame;
  };
  const auto moments = search([&](int k) {
    if (k < 70) return real(*middle_, k);
    return darker(k >= 75 ? empty(*middle_, k) : real(*middle_, k));
  });
  ASSERT_FALSE(moments.empty());
  const SmartFinderFrame& best = moments.front();
  EXPECT_FALSE(best.builtBackground);
  EXPECT_GE(best.frame, 75);

  const auto empties = samplesIn(75, 100);
  ASSERT_EQ(empties.size(), 5u);
  for (const auto& s : empties) {
    EXPECT_TRUE(s.isFree) << "frame " << s.frame;
    EXPECT_EQ(s.foregroundPersons, 0) << "frame " << s.frame;
    EXPECT_LE(s.foreground, kSceneNoise) << "frame " << s.frame;
    // The change was matched, not drowned in a raised noise level.
    EXPECT_LT(s.noiseLevel, 15) << "frame " << s.frame;
  }
  // The busy frames on both sides of the change still show their people.
  for (const auto& s : samplesIn(0, 75)) EXPECT_FALSE(s.isFree) << "frame " << s.frame;
}

TEST_F(FinderOnStreetRecordings, SomeoneWhoStaysMostOfTheWindowDoesNotBlockTheEmptyFrames) {
  // Frames 0-69: the empty street with a person standing in the middle of it
  // (the median of the window shows them); 70-99: the empty street.
  const auto moments = search([&](int k) {
    cv::Mat frame = empty(*middle_, k);
    if (k < 70) Synthetic::pastePerson(frame, *walker_, {120, 220});
    return frame;
  });
  ASSERT_FALSE(moments.empty());
  const SmartFinderFrame& best = moments.front();
  EXPECT_FALSE(best.builtBackground);
  EXPECT_GE(best.frame, 70);
  // The detector sees the person where they stand; the empty frames differ
  // from the median there, but that place is judged by the detector.
  int seen = 0;
  for (const auto& s : samplesIn(0, 70)) {
    EXPECT_FALSE(s.isFree) << "frame " << s.frame;
    seen += s.persons > 0 ? 1 : 0;
  }
  EXPECT_GE(seen, 10);
  for (const auto& s : samplesIn(70, 100)) {
    EXPECT_TRUE(s.isFree) << "frame " << s.frame;
    EXPECT_EQ(s.foregroundPersons, 0) << "frame " << s.frame;
  }
}

TEST(SmartFinderFreeFrame, NeedsNoDetectionNoMotionAndForegroundAtTheNoiseLevel) {
  const SmartFinderOptions o;
  SmartFinderFrame f;
  f.foregroundMeasured = true;
  f.foreground = 0.5 * o.maxForeground;
  EXPECT_TRUE(OrbivaneCalibration::frameIsFree(f, o));
  SmartFinderFrame blob = f;  // a person-sized blob, no detection
  blob.foregroundPersons = 1;
  EXPECT_FALSE(OrbivaneCalibration::frameIsFree(blob, o));
  SmartFinderFrame wide = f;  // much of the picture differs
  wide.foreground = 1.5 * o.maxForeground;
  EXPECT_FALSE(OrbivaneCalibration::frameIsFree(wide, o));
  SmartFinderFrame seen = f;
  seen.persons = 1;
  EXPECT_FALSE(OrbivaneCalibration::frameIsFree(seen, o));
  SmartFinderFrame moving = f;
  moving.motion = 2 * o.maxMotion;
  EXPECT_FALSE(OrbivaneCalibration::frameIsFree(moving, o));
  // Without a model only the detector and the motion check judge.
  SmartFinderFrame unmeasured = wide;
  unmeasured.foregroundMeasured = false;
  unmeasured.foregroundPersons = 3;
  EXPECT_TRUE(OrbivaneCalibration::frameIsFree(unmeasured, o));
}

TEST_F(FinderOnStreetRecordings, AWindowWithoutAFreeFrameEndsInABuiltBackground) {
  SmartFinderOptions o = everyHalfSecond();
  o.stepSeconds = 0;
  o.samples = 12;
  const auto moments = search([&](int k) { return real(*middle_, k); }, o);
  ASSERT_FALSE(moments.empty());
  const SmartFinderFrame& best = moments.front();
  EXPECT_TRUE(best.builtBackground);
  EXPECT_EQ(lastText_, "Module cam has no frame without persons; built a background from " +
                           std::to_string(best.framesUsed) + " frames");
  ASSERT_EQ(samples_.size(), 12u);
  for (const auto& s : samples_) EXPECT_FALSE(s.isFree) << "frame " << s.frame;

  // The built background is the empty street: close to the truth everywhere,
  // while the frames are far from it where their people are.
  const cv::Mat built = Image::toMat(best.picture);
  const cv::Mat& truth = middle_->background;
  const auto meanError = [&](const cv::Mat& picture) {
    cv::Mat difference;
    cv::absdiff(picture, truth, difference);
    return cv::mean(difference)[0];
  };
  EXPECT_LT(meanError(built), 3.0);
  EXPECT_EQ(best.persons, 0);
  EXPECT_EQ(best.foregroundPersons, 0);
  EXPECT_TRUE(Synthetic::noPersonIn(built, truth, cv::Rect(0, 0, truth.cols, truth.rows), 100));
  for (int k : {10, 50, 90}) EXPECT_FALSE(Synthetic::noPersonIn(real(*middle_, k), truth, {0, 0, 288, 432}, 100)) << k;
}

}  // namespace
