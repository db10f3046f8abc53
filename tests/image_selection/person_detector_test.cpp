// The person detector: HOG against the walkers of the opencv-doc walking
// video (ground truth from a temporal-median background), no persons on the
// empty scene and on still photographs, the input checks, the automatic
// choice, the network backends' file errors, and the YOLO path end to end on
// a tiny Darknet network written here whose answer is known.
#include "orbivane/image_selection/person_detector.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include "image_selection/person_detector_decoding.h"
#include "image_selection/person_detector_hog.h"
#include "support/scoped_environment.h"
#include "synthetic/walking_video.h"
#include "synthetic/sample_data.h"

namespace {

using OrbivaneCalibration::PersonDetection;
using OrbivaneCalibration::PersonDetector;
using OrbivaneCalibration::PersonDetectorKind;
using OrbivaneCalibration::PersonDetectorOptions;
using testing::HasSubstr;

// Options that find no network files anywhere (fixed paths in an empty folder).
PersonDetectorOptions offlineOptions(const Synthetic::TemporaryDirectory& folder, PersonDetectorKind kind) {
  PersonDetectorOptions options;
  options.kind = kind;
  options.yoloConfig = folder.file("missing.cfg");
  options.yoloWeights = folder.file("missing.weights");
  options.yoloDirectory = folder.file("no-darknet");
  return options;
}

std::unique_ptr<PersonDetector> hog() {
  PersonDetectorOptions options;
  options.kind = PersonDetectorKind::Hog;
  auto created = PersonDetector::create(options);
  EXPECT_TRUE(created.hasValue());
  return std::move(created).value();
}

void writeBytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// A Darknet network with one YOLO output on a 13x13 grid: a 32x32 max pool,
// a 1x1 convolution to 3 anchors x 85 values and the [yolo] layer. Only anchor
// 0 (100x200 network pixels) can be sure of an object: its objectness logit
// is 20 x (mean channel of the pooled input) - 10, so a cell fires exactly
// where the picture is bright. Every anchor calls its object a person (class 0
// logit 8, class 1 logit -8). Writes yolov3-spp.cfg and .weights into `folder`.
void writeTinyYolo(const std::string& folder) {
  Synthetic::writeText(folder + "/yolov3-spp.cfg",
                     "[net]\nwidth=416\nheight=416\nchannels=3\n\n"
                     "[maxpool]\nsize=32\nstride=32\n\n"
                     "[convolutional]\nfilters=255\nsize=1\nstride=1\npad=0\nactivation=linear\n\n"
                     "[yolo]\nmask=0,1,2\nanchors=100,200, 60,120, 30,60\nclasses=80\nnum=3\n");
  std::vector<float> biases(255, 0.0f), weights(255 * 3, 0.0f);
  for (int anchor = 0; anchor < 3; ++anchor) {
    biases[anchor * 85 + 4] = -20;
    biases[anchor * 85 + 5] = 8;
    biases[anchor * 85 + 6] = -8;
  }
  biases[4] = -10;
  for (int c = 0; c < 3; ++c) weights[4 * 3 + c] = 20.0f / 3;
  const std::int32_t version[3] = {0, 2, 0};
  const std::int64_t seen = 0;
  std::string bytes(reinterpret_cast<const char*>(version), sizeof version);
  bytes.append(reinterpret_cast<const char*>(&seen), sizeof seen);
  bytes.append(reinterpret_cast<const char*>(biases.data()), biases.size() * sizeof(float));
  bytes.append(reinterpret_cast<const char*>(weights.data()), weights.size() * sizeof(float));
  writeBytes(folder + "/yolov3-spp.weights", bytes);
}

// ---------------------------------------------------------------- kinds

TEST(PersonDetectorKind, NamesReadBackAndUnknownWordsAreRefused) {
  for (PersonDetectorKind kind : {PersonDetectorKind::Auto, PersonDetectorKind::Hog, PersonDetectorKind::HaarFullBody,
                                  PersonDetectorKind::Yolo, PersonDetectorKind::MaskRcnn}) {
    const auto parsed = OrbivaneCalibration::parsePersonDetectorKind(OrbivaneCalibration::personDetectorKindName(kind));
    ASSERT_TRUE(parsed.hasValue());
    EXPECT_EQ(parsed.value(), kind);
  }
  EXPECT_EQ(OrbivaneCalibration::personDetectorKindName(PersonDetectorKind::HaarFullBody), "haar");
  EXPECT_EQ(OrbivaneCalibration::personDetectorKindName(PersonDetectorKind::MaskRcnn), "maskrcnn");
  EXPECT_STREQ(OrbivaneCalibration::kPersonClassName, "Person");
  const auto bad = OrbivaneCalibration::parsePersonDetectorKind("HOG");
  ASSERT_TRUE(bad.hasError());
  for (const char* word : {"\"HOG\"", "\"auto\"", "\"hog\"", "\"haar\"", "\"yolo\"", "\"maskrcnn\""}) {
    EXPECT_THAT(bad.error(), HasSubstr(word));
  }
}

// ---------------------------------------------------------------- HOG on the walking video

class HogOnWalkingVideo : public testing::Test {
 protected:
  static void SetUpTestSuite() { video_ = new Synthetic::WalkingVideo(Synthetic::readWalkingVideo(20, 40)); }
  static void TearDownTestSuite() {
    delete video_;
    video_ = nullptr;
  }
  static const cv::Mat& frame(int index) {
    for (std::size_t i = 0; i < video_->indices.size(); ++i) {
      if (video_->indices[i] == index) return video_->frames[i];
    }
    throw std::runtime_error("frame " + std::to_string(index) + " was not kept");
  }
  static Synthetic::WalkingVideo* video_;
};
Synthetic::WalkingVideo* HogOnWalkingVideo::video_ = nullptr;

TEST_F(HogOnWalkingVideo, FindsTheClearlyVisibleWalkersAndNothingOffThePeople) {
  auto detector = hog();
  int walkers = 0, found = 0;
  for (int index : {200, 240, 360, 440, 520, 600, 680, 760}) {
    const cv::Mat& picture = frame(index);
    const cv::Mat mask = Synthetic::foregroundMask(picture, video_->background);
    const std::vector<PersonDetection> detections = detector->detect(picture);
    EXPECT_FALSE(detections.empty()) << "frame " << index;
    for (const cv::Rect& blob : Synthetic::foregroundBlobs(mask)) {
      // One person: at least 90 px high, narrower than 0.8 of its height.
      if (!Synthetic::clearWalker(blob, picture.size(), 90) || blob.width > 0.8 * blob.height) continue;
      ++walkers;
      bool hit = false;
      for (const PersonDetection& d : detections) hit = hit || Synthetic::detectionMatchesBlob(d.box, blob);
      found += hit;
    }
    for (const PersonDetection& d : detections) {
      // Every box stands on a moving person: a real part of it is foreground.
      EXPECT_GT(cv::countNonZero(mask(d.box)), 0.1 * d.box.area()) << "frame " << index << " box " << d.box;
      EXPECT_GT(d.confidence, 0.5f);
      EXPECT_LE(d.confidence, 1.0f);
    }
    for (std::size_t i = 1; i < detections.size(); ++i) {
      EXPECT_GE(detections[i - 1].confidence, detections[i].confidence);
      for (std::size_t j = 0; j < i; ++j) {
        const double common = (detections[i].box & detections[j].box).area();
        EXPECT_LT(common, 0.7 * std::min(detections[i].box.area(), detections[j].box.area()));
      }
    }
  }
  ASSERT_GE(walkers, 15);
  EXPECT_GE(found, 0.8 * walkers) << found << " of " << walkers << " walkers found";
}

TEST_F(HogOnWalkingVideo, FindsNobodyInTheEmptySceneNorInStillPhotographs) {
  auto detector = hog();
  EXPECT_TRUE(detector->detect(video_->background).empty());
  for (int index : {200, 600}) {
    const cv::Mat& picture = frame(index);
    const cv::Mat empty =
        Synthetic::paintPeopleOut(picture, video_->background, Synthetic::foregroundMask(picture, video_->background));
    EXPECT_TRUE(detector->detect(empty).empty()) << "frame " << index << " with its people painted out";
  }
  for (const char* still : {"building.jpg", "fruits.jpg"}) {
    EXPECT_TRUE(detector->detect(Synthetic::loadSample(still)).empty()) << still;
  }
}

TEST_F(HogOnWalkingVideo, GreyAndBgraPicturesGiveTheSameBoxesAsBgr) {
  auto detector = hog();
  const cv::Mat& picture = frame(600);
  cv::Mat grey, bgra;
  cv::cvtColor(picture, grey, cv::COLOR_BGR2GRAY);
  cv::cvtColor(picture, bgra, cv::COLOR_BGR2BGRA);
  const auto boxes = [](const std::vector<PersonDetection>& detections) {
    std::vector<cv::Rect> result;
    for (const PersonDetection& d : detections) result.push_back(d.box);
    return result;
  };
  const auto reference = boxes(detector->detect(picture));
  ASSERT_FALSE(reference.empty());
  EXPECT_EQ(boxes(detector->detect(grey)), reference);
  EXPECT_EQ(boxes(detector->detect(bgra)), reference);
}

TEST_F(HogOnWalkingVideo, MinimumHeightDropsTheSmallerPeople) {
  const cv::Mat& picture = frame(600);
  const auto all = hog()->detect(picture);
  PersonDetectorOptions options;
  options.kind = PersonDetectorKind::Hog;
  options.minPersonHeight = 150;
  const auto tall = PersonDetector::create(options).value()->detect(picture);
  for (const PersonDetection& d : tall) EXPECT_GE(d.box.height, 150);
  EXPECT_LT(tall.size(), all.size());
  // The tallest walker of the frame (a 145 px blob at the bottom left) is still found.
  EXPECT_FALSE(tall.empty());
}

TEST_F(HogOnWalkingVideo, FindsSmallWalkersAndWalkersCutByASide) {
  auto detector = hog();
  int small = 0, smallFound = 0, cut = 0, cutFound = 0;
  for (std::size_t i = 0; i < video_->frames.size(); ++i) {
    const cv::Mat& picture = video_->frames[i];
    const std::vector<cv::Rect> blobs = Synthetic::foregroundBlobs(Synthetic::foregroundMask(picture, video_->background));
    const auto found = [](const std::vector<PersonDetection>& detections, const cv::Rect& blob) {
      return std::any_of(detections.begin(), detections.end(),
                         [&](const PersonDetection& d) { return Synthetic::detectionMatchesBlob(d.box, blob); });
    };
    if (i % 4 != 0) continue;
    // Walkers of 55 to 71 px: the search enlarges the picture for 60 px persons.
    const auto detections = detector->detect(picture);
    for (const cv::Rect& blob : blobs) {
      if (!Synthetic::clearWalker(blob, picture.size(), 55) || blob.height >= 72) continue;
      ++small;
      smallFound += found(detections, blob);
    }
    // Walkers of 90 px and more, 40 % of their width beyond the left or the right side.
    for (const cv::Rect& blob : blobs) {
      if (!Synthetic::clearWalker(blob, picture.size(), 90) || blob.width > 0.6 * blob.height) continue;
      const int cutAt = static_cast<int>(0.4 * blob.width);
      for (const cv::Rect& view : {cv::Rect(blob.x + cutAt, 0, picture.cols - blob.x - cutAt, picture.rows),
                                   cv::Rect(0, 0, blob.x + blob.width - cutAt, picture.rows)}) {
        if (view.width < 128) continue;
        const cv::Rect visible = (blob & view) - view.tl();
        ++cut;
        cutFound += found(detector->detect(picture(view).clone()), visible);
      }
    }
  }
  ASSERT_GE(small, 8);
  ASSERT_GE(cut, 15);
  // The search at 750 rows finds 7 of these 10 small walkers; without the
  // mirrored sides 2 of the 24 cut ones are found.
  EXPECT_GE(smallFound, 0.8 * small) << smallFound << " of " << small << " small walkers found";
  EXPECT_GE(cutFound, 0.6 * cut) << cutFound << " of " << cut << " cut walkers found";
}

TEST(PersonDetectorHog, WorkScaleFitsSixtyPixelPersonsAndSmallPicturesToTheWindow) {
  using OrbivaneCalibration::HogPersonDetector;
  // A 60 px person fills the window's 96 person rows.
  EXPECT_DOUBLE_EQ(HogPersonDetector::workScale(576, 0), 1.6);
  EXPECT_DOUBLE_EQ(HogPersonDetector::workScale(1080, 0), 1.6);
  // Small pictures are brought to about 750 rows, at most three times.
  EXPECT_DOUBLE_EQ(HogPersonDetector::workScale(432, 0), 750.0 / 432);
  EXPECT_DOUBLE_EQ(HogPersonDetector::workScale(120, 0), 3.0);
  // A minimum person height caps the enlargement (and may shrink).
  EXPECT_DOUBLE_EQ(HogPersonDetector::workScale(2160, 256), 0.5);
  EXPECT_DOUBLE_EQ(HogPersonDetector::workScale(576, 100), 1.28);
  EXPECT_DOUBLE_EQ(HogPersonDetector::workScale(576, 64), 1.6);
}

TEST(PersonDetectorHog, RefusesEmptyAndUnsupportedPicturesClearly) {
  auto detector = hog();
  const auto message = [&](const cv::Mat& picture) {
    try {
      detector->detect(picture);
    } catch (const std::invalid_argument& e) {
      return std::string(e.what());
    }
    return std::string("no exception");
  };
  EXPECT_THAT(message(cv::Mat()), HasSubstr("empty"));
  EXPECT_THAT(message(cv::Mat(200, 100, CV_32FC3, cv::Scalar::all(0.5))), HasSubstr("CV_32FC3"));
  EXPECT_THAT(message(cv::Mat(200, 100, CV_8UC2, cv::Scalar::all(9))), HasSubstr("CV_8UC2"));
  // Too small for a person: no detection rather than an error.
  EXPECT_TRUE(detector->detect(cv::Mat(10, 10, CV_8UC3, cv::Scalar::all(128))).empty());
}

// ---------------------------------------------------------------- choice and logging

TEST(PersonDetectorCreate, AutoWithoutNetworkFilesIsHogAndSaysSo) {
  Synthetic::TemporaryDirectory folder;
  ScopedEnvironment noDarknet("ORBIVANE_DARKNET_DIR", folder.file("nowhere"));
  std::ostringstream log;
  auto logger = std::make_shared<spdlog::logger>("SmartFinder", std::make_shared<spdlog::sinks::ostream_sink_st>(log));
  logger->set_level(spdlog::level::info);
  spdlog::register_logger(logger);
  auto created = PersonDetector::create(offlineOptions(folder, PersonDetectorKind::Auto));
  spdlog::drop("SmartFinder");
  ASSERT_TRUE(created.hasValue()) << created.error();
  EXPECT_EQ(created.value()->kind(), PersonDetectorKind::Hog);
  EXPECT_THAT(created.value()->description(), HasSubstr("HOG"));
  const std::string text = log.str();
  EXPECT_THAT(text, HasSubstr("HOG"));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
}

TEST(PersonDetectorCreate, RefusesOptionsOutOfRange) {
  PersonDetectorOptions options;
  options.kind = PersonDetectorKind::Hog;
  options.confidence = 1.5f;
  EXPECT_THAT(PersonDetector::create(options).error(), HasSubstr("0..1"));
  options.confidence = 0.5f;
  options.minPersonHeight = -1;
  EXPECT_THAT(PersonDetector::create(options).error(), HasSubstr("negative"));
}

TEST(PersonDetectorCreate, HaarLoadsDebiansCascadeAndNamesAMissingOrBrokenOne) {
  Synthetic::TemporaryDirectory folder;
  PersonDetectorOptions options;
  options.kind = PersonDetectorKind::HaarFullBody;
  auto created = PersonDetector::create(options);
  ASSERT_TRUE(created.hasValue()) << created.error();
  EXPECT_EQ(created.value()->kind(), PersonDetectorKind::HaarFullBody);
  EXPECT_THAT(created.value()->description(), HasSubstr("haarcascade_fullbody.xml"));
  EXPECT_THROW(created.value()->detect(cv::Mat()), std::invalid_argument);
  options.haarCascade = folder.file("missing.xml");
  EXPECT_THAT(PersonDetector::create(options).error(), HasSubstr("missing.xml does not exist"));
  options.haarCascade = folder.file("broken.xml");
  writeBytes(options.haarCascade, std::string("\x01\xfe garbage <opencv_storage", 26));
  EXPECT_THAT(PersonDetector::create(options).error(), HasSubstr("broken.xml is not a readable OpenCV cascade"));
}

// ---------------------------------------------------------------- YOLO

TEST(PersonDetectorYolo, MissingFilesAreNamedWithEveryPlaceTried) {
  Synthetic::TemporaryDirectory folder;
  ScopedEnvironment darknet("ORBIVANE_DARKNET_DIR", folder.file("from-environment"));
  const auto created = PersonDetector::create(offlineOptions(folder, PersonDetectorKind::Yolo));
  ASSERT_TRUE(created.hasError());
  EXPECT_THAT(created.error(), HasSubstr(folder.file("missing.cfg") + " does not exist"));
  EXPECT_THAT(created.error(), HasSubstr(folder.file("no-darknet/yolov3-spp.weights") + " does not exist"));
  EXPECT_THAT(created.error(), HasSubstr(folder.file("from-environment/yolov3-spp.cfg") + " does not exist"));
}

TEST(PersonDetectorYolo, CorruptFilesGiveAClearError) {
  Synthetic::TemporaryDirectory folder;
  writeTinyYolo(folder.path());
  PersonDetectorOptions options = offlineOptions(folder, PersonDetectorKind::Yolo);
  options.yoloConfig = folder.file("garbage.cfg");
  options.yoloWeights = folder.file("yolov3-spp.weights");
  std::string garbage;
  for (int i = 0; i < 300; ++i) garbage += static_cast<char>((i * 37) % 256);
  writeBytes(options.yoloConfig, garbage);
  auto created = PersonDetector::create(options);
  ASSERT_TRUE(created.hasError());
  EXPECT_THAT(created.error(), HasSubstr("garbage.cfg is not a usable Darknet layout"));

  options.yoloConfig = folder.file("yolov3-spp.cfg");
  options.yoloWeights = folder.file("garbage.weights");
  writeBytes(options.yoloWeights, garbage);
  created = PersonDetector::create(options);
  ASSERT_TRUE(created.hasError());
  EXPECT_THAT(created.error(), HasSubstr("garbage.weights does not fit"));

  // Cut short: the header and a few values (OpenCV alone would accept it).
  const std::string whole = Synthetic::readText(folder.file("yolov3-spp.weights"));
  options.yoloWeights = folder.file("short.weights");
  writeBytes(options.yoloWeights, whole.substr(0, 20 + 4 * 300));
  created = PersonDetector::create(options);
  ASSERT_TRUE(created.hasError());
  EXPECT_THAT(created.error(), HasSubstr("short.weights is too short for " + options.yoloConfig + ": 1220 bytes"));

  // A layout without a [yolo] layer is no detector.
  Synthetic::writeText(folder.file("classifier.cfg"),
                     "[net]\nwidth=416\nheight=416\nchannels=3\n\n[maxpool]\nsize=32\nstride=32\n");
  options.yoloConfig = folder.file("classifier.cfg");
  options.yoloWeights = folder.file("yolov3-spp.weights");
  created = PersonDetector::create(options);
  ASSERT_TRUE(created.hasError());
  EXPECT_THAT(created.error(), HasSubstr("classifier.cfg has no [yolo] output layer"));

  writeBytes(folder.file("empty.cfg"), "");
  options.yoloConfig = folder.file("empty.cfg");
  EXPECT_THAT(PersonDetector::create(options).error(), HasSubstr("empty.cfg is empty"));
}

TEST(PersonDetectorYolo, FindsTheOnePersonATinyNetworkSees) {
  Synthetic::TemporaryDirectory folder;
  writeTinyYolo(folder.path());
  PersonDetectorOptions options = offlineOptions(folder, PersonDetectorKind::Auto);
  options.yoloDirectory = folder.path();  // the fixed paths are missing: the folder is used
  auto created = PersonDetector::create(options);
  ASSERT_TRUE(created.hasValue()) << created.error();
  EXPECT_EQ(created.value()->kind(), PersonDetectorKind::Yolo);  // Auto picks YOLO when its files are there
  PersonDetector& detector = *created.value();

  // 832x416: the network sees it at half width. The bright patch lies in grid
  // cell (7, 5) only; anchor 0 puts a 100x200 network-pixel box at the cell's
  // centre (7.5 / 13, 5.5 / 13) -> 200x200 picture pixels centred at (480, 176).
  cv::Mat picture(416, 832, CV_8UC3, cv::Scalar::all(0));
  EXPECT_TRUE(detector.detect(picture).empty());
  picture(cv::Rect(434, 150, 32, 20)).setTo(cv::Scalar::all(255));
  const auto detections = detector.detect(picture);
  ASSERT_EQ(detections.size(), 1u);
  EXPECT_NEAR(detections[0].box.x, 380, 1);
  EXPECT_NEAR(detections[0].box.y, 76, 1);
  EXPECT_NEAR(detections[0].box.width, 200, 1);
  EXPECT_NEAR(detections[0].box.height, 200, 1);
  EXPECT_NEAR(detections[0].confidence, 0.9996, 0.0005);
  EXPECT_THROW(detector.detect(cv::Mat(5, 5, CV_16UC1)), std::invalid_argument);

  options.confidence = 1.0f;  // nothing is that sure
  EXPECT_TRUE(PersonDetector::create(options).value()->detect(picture).empty());
  options.confidence = 0.5f;
  options.minPersonHeight = 201;
  EXPECT_TRUE(PersonDetector::create(options).value()->detect(picture).empty());
}

TEST(PersonDetectorDecoding, DetectionOutputKeepsSurePersonsInPicturePixels) {
  // image id, class, score, left, top, right, bottom (relative).
  const float rows[][7] = {{0, 0, 0.9f, 0.1f, 0.2f, 0.3f, 0.6f},     // person
                           {0, 0, 0.8f, 0.11f, 0.21f, 0.3f, 0.6f},   // the same person again, less sure
                           {0, 2, 0.95f, 0.5f, 0.5f, 0.7f, 0.9f},    // a car
                           {0, 0, 0.3f, 0.6f, 0.1f, 0.7f, 0.4f},     // unsure
                           {0, 0, 0.7f, 0.8f, -0.1f, 1.2f, 0.5f}};   // a person cut by the border
  const int shape[] = {1, 1, 5, 7};
  const cv::Mat blob(4, shape, CV_32F, const_cast<float*>(&rows[0][0]));
  const auto persons = OrbivaneCalibration::decodeDetectionOutputPersons(blob, cv::Size(1000, 500), 0.5f, 0);
  ASSERT_EQ(persons.size(), 2u);
  EXPECT_EQ(persons[0].box, cv::Rect(100, 100, 200, 200));
  EXPECT_FLOAT_EQ(persons[0].confidence, 0.9f);
  EXPECT_EQ(persons[1].box, cv::Rect(800, 0, 200, 250));
  EXPECT_EQ(OrbivaneCalibration::decodeDetectionOutputPersons(blob, cv::Size(1000, 500), 0.2f, 0).size(), 3u);
}

// ---------------------------------------------------------------- Mask R-CNN

TEST(PersonDetectorMaskRcnn, MissingAndCorruptFilesGiveAClearError) {
  Synthetic::TemporaryDirectory folder;
  PersonDetectorOptions options = offlineOptions(folder, PersonDetectorKind::MaskRcnn);
  EXPECT_THAT(PersonDetector::create(options).error(), HasSubstr("frozen graph was not given"));
  options.maskRcnnModel = folder.file("mask.pb");
  options.maskRcnnConfig = folder.file("mask.pbtxt");
  EXPECT_THAT(PersonDetector::create(options).error(), HasSubstr("mask.pb does not exist"));
  writeBytes(options.maskRcnnModel, std::string("\xff\xfe\x00\x13garbage\x7f\x80", 13));
  EXPECT_THAT(PersonDetector::create(options).error(), HasSubstr("mask.pbtxt does not exist"));
  Synthetic::writeText(options.maskRcnnConfig, "node { name: \"image_tensor\" op: \"Placeholder\" ");
  const auto created = PersonDetector::create(options);
  ASSERT_TRUE(created.hasError());
  EXPECT_THAT(created.error(), HasSubstr("cannot read " + options.maskRcnnModel + " (frozen graph)"));

  // Auto takes Mask R-CNN as soon as its files exist, and tells when they are broken.
  options.kind = PersonDetectorKind::Auto;
  EXPECT_THAT(PersonDetector::create(options).error(), HasSubstr("Mask R-CNN person detector: cannot read"));
}

}  // namespace
